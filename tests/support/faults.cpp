#include "support/faults.h"

#include <errno.h>
#include <stddef.h>

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* ptr, size_t size);
void* __wrap_malloc(size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_realloc(void* ptr, size_t size);
}

namespace {

uint32 countdown; // requests until one fails; 0 when none is to
bool failing;     // that one has come, and the later ones are to fail too
bool failRest;
bool anyFailed;

bool failNow()
{
    if (failing || (countdown && --countdown == 0)) {
        failing = failRest;
        anyFailed = true;
        errno = ENOMEM;
        return true;
    }
    return false;
}

} // namespace

FailNthAlloc::FailNthAlloc(uint32 n, Extent extent)
{
    countdown = n;
    failing = false;
    failRest = extent == ALL_FROM_THERE;
    anyFailed = false;
}

FailNthAlloc::~FailNthAlloc()
{
    countdown = 0;
    failing = false;
}

bool FailNthAlloc::fired() const
{
    return anyFailed;
}

void* __wrap_malloc(size_t size)
{
    return failNow() ? nullptr : __real_malloc(size);
}

void* __wrap_calloc(size_t count, size_t size)
{
    return failNow() ? nullptr : __real_calloc(count, size);
}

void* __wrap_realloc(void* ptr, size_t size)
{
    return failNow() ? nullptr : __real_realloc(ptr, size);
}
