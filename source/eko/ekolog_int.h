// SPDX-License-Identifier: MIT
// ekolog_int.h - what other modules need of the report path.
#ifndef EKO_EKOLOG_INT_H
#define EKO_EKOLOG_INT_H

#include "ekoint.h"

// Whether the calling thread is already writing a report. A report made then must not go the same way again: the
// lock, the stream or the memory that it is about may be in use by the outer one.
bool insideReport();

// Formats up to 1023 bytes and writes them to descriptor 2: no locks, no memory, no stream. For what is wrong with
// those. Returns the length of the whole text; 0 when it cannot be formatted, -1 when it cannot be written.
int32 sayDirectly(const char* format, ...) EKO_PRINTF_CHECK(1, 2);

#endif
