/* process.h - services of the process: temporary directory, commands, daemons, interrupts, environment, locale. */
#ifndef EKO_PROCESS_H
#define EKO_PROCESS_H

#include "mem.h"

EKO_EXTERN_C_BEGIN

EKO_API uint32 eko_get_pid(void);

EKO_EXTERN_C_END

#endif
