#include "support/faults.h"

#include <errno.h>
#include <stddef.h>

#include "support/fixture.h"

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* ptr, size_t size);
void* __wrap_malloc(size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_realloc(void* ptr, size_t size);

// Under a sanitizer too a request that is too large fails, instead of ending the process.
const char* __asan_default_options();
const char* __tsan_default_options();
const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}
const char* __tsan_default_options()
{
    return "allocator_may_return_null=1";
}
}

namespace {

// Counts requests down to the one that is to fail.
struct Fuse {
    uint32 countdown; // 0 when none is to fail
    bool failing;     // that one has come, and the later ones are to fail too
    bool failRest;
    bool fired;

    void arm(uint32 n, FailNthAlloc::Extent extent) { *this = {n, false, extent != FailNthAlloc::ONE, false}; }
    void disarm()
    {
        countdown = 0;
        failing = false;
    }
    bool blows()
    {
        if (!failing && !(countdown && --countdown == 0))
            return false;
        failing = failRest;
        fired = true;
        return true;
    }
};

Fuse heapFuse;
Fuse tagFuse;
ALLOCATOR_FCNS tagFcns; // of the tag that is made to fail

bool failNow()
{
    const bool fails = heapFuse.blows();
    if (fails)
        errno = ENOMEM;
    return fails;
}

void* failingAlloc(size_t size, ALLOCATOR alctr)
{
    return tagFuse.blows() ? nullptr : tagFcns.alloc_fcn(size, alctr);
}

void* failingRealloc(void* ptr, size_t size, ALLOCATOR alctr)
{
    return tagFuse.blows() ? nullptr : tagFcns.realloc_fcn(ptr, size, alctr);
}

} // namespace

FailNthAlloc::FailNthAlloc(uint32 n, Extent extent)
{
    heapFuse.arm(n, extent);
}

FailNthAlloc::~FailNthAlloc()
{
    heapFuse.disarm();
}

bool FailNthAlloc::fired() const
{
    return heapFuse.fired;
}

FailNthOnTag::FailNthOnTag(EKO_MEMTAG tag, uint32 n, FailNthAlloc::Extent extent) : tag_(memResolve(tag))
{
    tagFcns = tag_->t_fcns;
    tagFuse.arm(n, extent);
    tag_->t_fcns.alloc_fcn = failingAlloc;
    tag_->t_fcns.realloc_fcn = failingRealloc;
}

FailNthOnTag::~FailNthOnTag()
{
    tag_->t_fcns = tagFcns;
}

bool FailNthOnTag::fired() const
{
    return tagFuse.fired;
}

jmp_buf exhaustedJump;

std::string exhaust(EKO_MEMTAG tag, const std::function<int32()>& operation)
{
    std::string statuses;
    bool fired = true;
    for (uint32 n = 1; fired; ++n) {
        FailNthOnTag fault(tag, n);
        int32 status = 0;
        bool jumped = false;
        const std::string said = logged([&] {
            if (setjmp(exhaustedJump) == 0)
                status = operation();
            else
                jumped = true;
        });
        fired = fault.fired();
        statuses += jumped ? "jump " : std::to_string(status) + ' ';
        const char* const report = "(Failed to seek.*\n)?Out of memory\\. Called from source/eko/[^\n]*\n";
        EXPECT_TRUE(matches(said, fired ? report : "")) << "request " << n;
    }
    return statuses;
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
