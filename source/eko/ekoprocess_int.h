// SPDX-License-Identifier: MIT
// ekoprocess_int.h - what other modules need of the process services.
#ifndef EKO_EKOPROCESS_INT_H
#define EKO_EKOPROCESS_INT_H

#include "ekomem_int.h"

// As eko_tmpdir, without report or jump. Takes the critical section the first time: nothing may be held.
char* tryTmpdir(EKO_MEMTAG tag, MemResult* result);

// As eko_findOStmpdir, without report or jump, and without the critical section: `probing` is about the library's
// own memory, `result` about the tag's. Both may be one variable.
char* tryFindOStmpdir(EKO_MEMTAG tag, MemResult* probing, MemResult* result);

#endif
