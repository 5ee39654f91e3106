#include <unistd.h>

#include "ekoprocess_int.h"

char* tryTmpdir(EKO_MEMTAG, MemResult* result)
{
    *result = MemResult::refused;
    return nullptr;
}

uint32 eko_get_pid(void)
{
    return static_cast<uint32>(getpid());
}
