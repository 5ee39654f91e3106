// SPDX-License-Identifier: MIT
// ekomemmap_int.h - files read and written through mapped views.
#ifndef EKO_EKOMEMMAP_INT_H
#define EKO_EKOMEMMAP_INT_H

#include "ekofile_int.h"

// Every call may come from any thread, and none jumps. Exhausted memory is `result` where it is given, and not
// reported here; only a semaphore table that has no mutex left for an open reports that itself, with no lock of
// this module held. A view that the system refuses is told on standard output.

int32 eko_mapOpen(EKO_FDESC desc, uint32 flags, EKO_MAP* map, MemResult* result);
void eko_mapClose(EKO_MAP map);
uint32 eko_mapSeekRead(EKO_MAP map, EKO_FILE_OFFSET off, void* buf, uint32 size, MemResult* result);
uint32 eko_mapSeekWrite(EKO_MAP map, EKO_FILE_OFFSET off, const void* buf, uint32 size, MemResult* result);
void eko_mapSync(EKO_MAP map);
int32 eko_mapSetSize(EKO_MAP map, EKO_FILE_OFFSET size);

#endif
