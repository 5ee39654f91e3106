#include "ekomemmap_int.h"

int32 eko_mapOpen(EKO_FDESC, uint32, EKO_MAP*, MemResult* result)
{
    *result = MemResult::refused;
    return EKO_FAILED;
}
void eko_mapClose(EKO_MAP) {}
uint32 eko_mapSeekRead(EKO_MAP, EKO_FILE_OFFSET, void*, uint32, MemResult* result)
{
    *result = MemResult::refused;
    return 0;
}
uint32 eko_mapSeekWrite(EKO_MAP, EKO_FILE_OFFSET, const void*, uint32, MemResult* result)
{
    *result = MemResult::refused;
    return 0;
}
void eko_mapSync(EKO_MAP) {}
int32 eko_mapSetSize(EKO_MAP, EKO_FILE_OFFSET)
{
    return -1;
}
