// ekomf_int.h - files and directories kept in memory.
#ifndef EKO_EKOMF_INT_H
#define EKO_EKOMF_INT_H

#include "ekofile_int.h"

// Every call may come from any thread and neither reports nor jumps: where `result` is given, it says afterwards
// whether memory ran out (else it is done or refused). Names are paths as the caller gives them; one that is not
// absolute starts from the current directory.

EKO_MFH eko_mfOpen(const char* name, uint32 flags, MemResult* result); // of the flags only OPEN_CREATE counts
void eko_mfClose(EKO_MFH fh);
int32 eko_mfSeek(EKO_MFH fh, EKO_FILE_OFFSET off, int32 origin);
uint32 eko_mfRead(EKO_MFH fh, void* buf, uint32 size);
uint32 eko_mfWrite(EKO_MFH fh, const void* buf, uint32 size, MemResult* result);
uint32 eko_mfSeekRead(EKO_MFH fh, EKO_FILE_OFFSET off, void* buf, uint32 size);
uint32 eko_mfSeekWrite(EKO_MFH fh, EKO_FILE_OFFSET off, const void* buf, uint32 size, MemResult* result);
int32 eko_mfLock(EKO_MFH fh);
int32 eko_mfUnlock(EKO_MFH fh);
EKO_FILE_OFFSET eko_mfSize(EKO_MFH fh);
int32 eko_mfSetSize(EKO_MFH fh, EKO_FILE_OFFSET size, MemResult* result);

EKO_FILE_OFFSET eko_mfSizeStat(const char* name, MemResult* result);
time64_t eko_mfModTime(const char* name, MemResult* result);
int32 eko_mfValidate(const char* name, int32* isdir, MemResult* result);
int32 eko_mfRemove(const char* name, MemResult* result);
int32 eko_mfRename(const char* oldName, const char* newName, MemResult* result);

using EKO_MFDIR = struct MFILE_DIR_ENTRY*;

EKO_MFDIR eko_mfPathOpen(const char* path, const char* pattern, MemResult* result);
const char* eko_mfPathNext(EKO_MFDIR dir, int32* isdir,
                           MemResult* result); // valid until the next call or the close
void eko_mfPathClose(EKO_MFDIR dir);

#endif
