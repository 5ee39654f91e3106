/* ini.h - configuration files made of sections and "name=value" lines. */
#ifndef EKO_INI_H
#define EKO_INI_H

#include "mem.h"

EKO_EXTERN_C_BEGIN

EKO_EXTERN_C_END

#endif
