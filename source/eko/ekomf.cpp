#include "ekomf_int.h"

EKO_MFH eko_mfOpen(const char*, uint32, MemResult* result)
{
    *result = MemResult::refused;
    return nullptr;
}
void eko_mfClose(EKO_MFH) {}
int32 eko_mfSeek(EKO_MFH, EKO_FILE_OFFSET, int32)
{
    return EKO_FAILED;
}
uint32 eko_mfRead(EKO_MFH, void*, uint32)
{
    return 0;
}
uint32 eko_mfWrite(EKO_MFH, const void*, uint32, MemResult* result)
{
    *result = MemResult::refused;
    return 0;
}
uint32 eko_mfSeekRead(EKO_MFH, EKO_FILE_OFFSET, void*, uint32)
{
    return 0;
}
uint32 eko_mfSeekWrite(EKO_MFH, EKO_FILE_OFFSET, const void*, uint32, MemResult* result)
{
    *result = MemResult::refused;
    return 0;
}
int32 eko_mfLock(EKO_MFH)
{
    return 0;
}
int32 eko_mfUnlock(EKO_MFH)
{
    return 0;
}
EKO_FILE_OFFSET eko_mfSize(EKO_MFH)
{
    return 0;
}
int32 eko_mfSetSize(EKO_MFH, EKO_FILE_OFFSET, MemResult* result)
{
    *result = MemResult::refused;
    return EKO_FAILED;
}
EKO_FILE_OFFSET eko_mfSizeStat(const char*, MemResult* result)
{
    *result = MemResult::refused;
    return 0;
}
time64_t eko_mfModTime(const char*, MemResult* result)
{
    *result = MemResult::refused;
    return 0;
}
int32 eko_mfValidate(const char*, int32*, MemResult* result)
{
    *result = MemResult::refused;
    return 0;
}
int32 eko_mfRemove(const char*, MemResult* result)
{
    *result = MemResult::refused;
    return EKO_FAILED;
}
int32 eko_mfRename(const char*, const char*, MemResult* result)
{
    *result = MemResult::refused;
    return EKO_FAILED;
}
EKO_MFDIR eko_mfPathOpen(const char*, const char*, MemResult* result)
{
    *result = MemResult::refused;
    return nullptr;
}
const char* eko_mfPathNext(EKO_MFDIR, int32*, MemResult* result)
{
    *result = MemResult::refused;
    return nullptr;
}
void eko_mfPathClose(EKO_MFDIR) {}
