#include "ekofile_int.h"

EKO_DIR_ENTRY eko_flPathOpen(const char*, const char*, MemResult* result)
{
    *result = MemResult::refused;
    return nullptr;
}
const char* eko_flPathNext(EKO_DIR_ENTRY, int32*, MemResult* result)
{
    *result = MemResult::refused;
    return nullptr;
}
void eko_flPathClose(EKO_DIR_ENTRY) {}
int32 getPathType(EKO_DIR_ENTRY, const char*)
{
    return 0;
}
