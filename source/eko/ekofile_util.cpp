#include "ekomf_int.h"

int32 tryRemove(const char* name, uint16 xflags, MemResult* result)
{
    *result = MemResult::refused;
    if (!name)
        return EKO_FAILED;
    if (xflags & EKO_FILE_INMEMORY)
        return eko_mfRemove(name, result);
    return disklessMode() || readOnlyMode() ? EKO_FAILED : eko_flRemove(name);
}

int32 tryRename(const char* src, uint16 src_xflags, const char* dest, uint16 dest_xflags, MemResult* result)
{
    *result = MemResult::refused;
    const bool srcInMemory = src_xflags & EKO_FILE_INMEMORY;
    const bool destInMemory = dest_xflags & EKO_FILE_INMEMORY;
    if (!src || !dest || srcInMemory != destInMemory)
        return EKO_FAILED;
    if (srcInMemory)
        return eko_mfRename(src, dest, result);
    return disklessMode() || readOnlyMode() ? EKO_FAILED : eko_flRename(src, dest);
}

int32 eko_fileRemoveEx(const char* name, uint16 xflags)
{
    MemResult result;
    const int32 status = tryRemove(name, xflags, &result);
    memReportIf(result, __FILE__, __LINE__);
    return status;
}

int32 eko_fileRenameEx(const char* src, uint16 src_xflags, const char* dest, uint16 dest_xflags)
{
    MemResult result;
    const int32 status = tryRename(src, src_xflags, dest, dest_xflags, &result);
    memReportIf(result, __FILE__, __LINE__);
    return status;
}
