// SPDX-License-Identifier: MIT
// faults.h - makes memory run out.
// LINK: --wrap=malloc --wrap=calloc --wrap=realloc
#ifndef EKO_TESTS_FAULTS_H
#define EKO_TESTS_FAULTS_H

#include <setjmp.h>

#include <functional>
#include <string>

#include "ekomem_int.h"

// Counts requests down to the one that is to fail, and with `rest` lets those behind it fail too.
struct Fuse {
    uint32 countdown; // 0 when none is to fail
    bool rest, failing, fired;
    bool blows();
};
extern Fuse heapFuse, tagFuse;

// While alive, the n-th request of the library to the system heap fails, or from the n-th on all do. The library
// asks it for 4 MiB at a time, so mind FailNthOnTag. Requests of the C and C++ run-time are not touched.
class FailNthAlloc {
public:
    enum Extent { ONE, ALL_FROM_THERE };
    explicit FailNthAlloc(uint32 n, Extent extent = ONE) { heapFuse = {n, extent == ALL_FROM_THERE, false, false}; }
    ~FailNthAlloc() { heapFuse.countdown = heapFuse.failing = 0; }
    static bool fired() { return heapFuse.fired; }
};

// While alive, the n-th request on that tag (a block, or the extension of one) fails, or from the n-th on all do.
// The tag's allocator is not asked then. One at a time.
class FailNthOnTag {
public:
    explicit FailNthOnTag(EKO_MEMTAG tag, uint32 n, FailNthAlloc::Extent extent = FailNthAlloc::ONE);
    ~FailNthOnTag();
    static bool fired() { return tagFuse.fired; }

private:
    TAG_ENTRY* tag_;
};

// While alive, tags can take no more from the system: all that is permitted is used up.
class NoMoreMemory {
public:
    NoMoreMemory();
    ~NoMoreMemory();

private:
    EKO_MEMTAG filler_;
};

// Runs an operation with each of its requests on a tag failing in turn, and at last with none; each must be
// reported once. Returns the statuses, as "1003 1003 0 ", with "jump" for one that left by `exhaustedJump`.
std::string exhaust(EKO_MEMTAG tag, const std::function<int32()>& operation,
                    FailNthAlloc::Extent extent = FailNthAlloc::ONE);
extern jmp_buf exhaustedJump;

#endif
