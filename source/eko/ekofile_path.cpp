#include "ekofile_int.h"

char* tryCurrdir(EKO_MEMTAG, MemResult* result)
{
    *result = MemResult::refused;
    return nullptr;
}
char* tryFullpath(const char*, EKO_MEMTAG, MemResult* result)
{
    *result = MemResult::refused;
    return nullptr;
}
int32 tryPathSplit(const char*, char**, char**, EKO_MEMTAG, MemResult* result)
{
    *result = MemResult::refused;
    return EKO_FAILED;
}
