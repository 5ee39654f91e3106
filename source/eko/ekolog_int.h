// ekolog_int.h - what other modules need of the report path.
#ifndef EKO_EKOLOG_INT_H
#define EKO_EKOLOG_INT_H

#include "ekoint.h"

// Whether the calling thread is already writing a report. A report made then must not go the same way again: the
// lock, the stream or the memory that it is about may be in use by the outer one.
bool insideReport();

#endif
