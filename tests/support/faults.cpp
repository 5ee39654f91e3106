// SPDX-License-Identifier: MIT
#include "support/faults.h"

#include <errno.h>

#include "support/fixture.h"

// Under a sanitizer too a request that is too large fails, instead of ending the process.
#define DEFAULT_OPTIONS(sanitizer) \
    extern "C" const char* __##sanitizer##_default_options(); \
    const char* __##sanitizer##_default_options() \
    { \
        return "allocator_may_return_null=1"; \
    }
DEFAULT_OPTIONS(asan)
DEFAULT_OPTIONS(tsan)

Fuse heapFuse, tagFuse;
jmp_buf exhaustedJump;
static ALLOCATOR_FCNS tagFcns; // of the tag that is made to fail

bool Fuse::blows()
{
    if (!failing && !(countdown && --countdown == 0))
        return false;
    failing = rest;
    return fired = true;
}

FailNthOnTag::FailNthOnTag(EKO_MEMTAG tag, uint32 n, FailNthAlloc::Extent extent) : tag_(memResolve(tag))
{
    tagFuse = {n, extent == FailNthAlloc::ALL_FROM_THERE, false, false};
    tagFcns = tag_->t_fcns;
    tag_->t_fcns.alloc_fcn = [](size_t size, ALLOCATOR alctr) {
        return tagFuse.blows() ? nullptr : tagFcns.alloc_fcn(size, alctr);
    };
    tag_->t_fcns.realloc_fcn = [](void* ptr, size_t size, ALLOCATOR alctr) {
        return tagFuse.blows() ? nullptr : tagFcns.realloc_fcn(ptr, size, alctr);
    };
}

FailNthOnTag::~FailNthOnTag()
{
    tag_->t_fcns = tagFcns;
}

NoMoreMemory::NoMoreMemory() : filler_(EKO_TAG_CREATE(LIST_ALLOCATOR))
{
    EXPECT_EQ(eko_setMemLimit(nullptr, 4195328), 0);
    logged([&] {
        while (EKO_ALLOC(4064, filler_))
            ;
    });
}

NoMoreMemory::~NoMoreMemory()
{
    EKO_TAG_DESTROY(filler_);
    eko_setMemLimit(nullptr, 0);
}

// False when the operation left by the jump. Alone, so that the jump passes nothing that is to be destroyed.
[[gnu::noinline]] static bool returns(const std::function<int32()>& operation, int32* status)
{
    if (setjmp(exhaustedJump) != 0)
        return false;
    *status = operation();
    return true;
}

std::string exhaust(EKO_MEMTAG tag, const std::function<int32()>& operation, FailNthAlloc::Extent extent)
{
    std::string statuses;
    bool fired = true;
    for (uint32 n = 1; fired; ++n) {
        const FailNthOnTag fault(tag, n, extent);
        int32 status = 0;
        bool returned = false;
        const std::string said = logged([&] { returned = returns(operation, &status); });
        fired = fault.fired();
        statuses += returned ? std::to_string(status) + ' ' : "jump ";
        const char* const report = "(Failed to seek.*\n)?Out of memory\\. Called from (source/eko|tests)/[^\n]*\n";
        EXPECT_TRUE(matches(said, fired ? report : "")) << "request " << n;
    }
    return statuses;
}

static bool heapFails()
{
    return heapFuse.blows() && (errno = ENOMEM);
}

EKO_ANSWER(void*, malloc, (size_t size), heapFails() ? nullptr : __real_malloc(size))
EKO_ANSWER(void*, calloc, (size_t count, size_t size), heapFails() ? nullptr : __real_calloc(count, size))
EKO_ANSWER(void*, realloc, (void* ptr, size_t size), heapFails() ? nullptr : __real_realloc(ptr, size))
