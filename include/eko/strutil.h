/* strutil.h - small helpers for strings. */
#ifndef EKO_STRUTIL_H
#define EKO_STRUTIL_H

#include "mem.h"

EKO_EXTERN_C_BEGIN

EKO_EXTERN_C_END

#endif
