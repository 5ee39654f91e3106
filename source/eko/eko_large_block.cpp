// SPDX-License-Identifier: MIT
// Large blocks: the chunks of all tags, which are blocks of the one list allocator of the process. Its own chunks,
// of at least 4 MiB, come from the system heap or from the one buffer that the caller set; the limit and the
// figures of the process are kept here.
//
// Data    large block:  | LARGE_BLOCK_HDR | payload | inside a block of LargeBlock
// Locks   largeBlockSem guards LargeBlock, eko_mem_stats and the caller's buffer; it is taken inside a tag's mutex,
//         never around one, and is none before start and after stop.

#include "eko_list_allocator.h"

#include <stdlib.h>

// Exported, with largeBlockSem for the tag layer that creates it.
size_t eko_memlimit;
void* eko_membuffer;
EKO_MEM_INFO eko_mem_stats;
EKO_SEM largeBlockSem = EKO_SEM_INVALID;

namespace {

struct LARGE_BLOCK_HDR {
    size_t size;  // of the large block, this header included
    uint32 dummy; // keeps the payload aligned
};

constexpr size_t LARGE_HDR = sizeof(LARGE_BLOCK_HDR);
constexpr uint32 SYSTEM_BLOCKSIZE = 4194304;

static_assert(LARGE_HDR % BLOCK_ALIGNMENT == 0 && (sizeof(void*) != 4 || LARGE_HDR == 8));

int32 eko_membuffer_used; // the caller's buffer is handed out

// ---- system side of LargeBlock ----------------------------------------------------------------------------

// The part of the caller's buffer that whole aligned blocks can fill.
size_t usableBuffer()
{
    return readUnlocked(eko_memlimit) & ~(BLOCK_ALIGNMENT - 1);
}

void* takeBuffer(size_t* size)
{
    if (eko_membuffer_used || *size > usableBuffer())
        return nullptr;
    *size = usableBuffer();
    eko_membuffer_used = 1;
    return eko_membuffer;
}

void* eko_malloc(size_t* size, EKO_MEM_INFO*)
{
    const size_t limit = readUnlocked(eko_memlimit);
    if (limit != 0 && readUnlocked(eko_mem_stats.in_use) + *size > limit)
        return nullptr;
    return readUnlocked(eko_membuffer) ? takeBuffer(size) : malloc(*size);
}

void eko_free(void* ptr, EKO_MEM_INFO*)
{
    if (readUnlocked(eko_membuffer)) {
        EKO_ASSERT(ptr == eko_membuffer);
        eko_membuffer_used = 0;
    } else {
        free(ptr);
    }
}

LIST_ALLOCATOR_ENTRY LargeBlock = {nullptr, SYSTEM_BLOCKSIZE, eko_malloc, eko_free, {}};

LARGE_BLOCK_HDR* largeHeaderOf(void* ptr)
{
    return reinterpret_cast<LARGE_BLOCK_HDR*>(static_cast<char*>(ptr) - LARGE_HDR);
}
void* behindHeader(LARGE_BLOCK_HDR* hdr)
{
    return reinterpret_cast<char*>(hdr) + LARGE_HDR;
}

} // namespace

// ---- large blocks -----------------------------------------------------------------------------------------

void* eko_allocLargeBlock(size_t* size, EKO_MEM_INFO* mem_info)
{
    size_t bytes;
    if (!addSize(*size, LARGE_HDR, &bytes))
        return nullptr;
    const SemGuard lock(largeBlockSem);
    auto* hdr = static_cast<LARGE_BLOCK_HDR*>(internal_alloc(bytes, &LargeBlock));
    if (!hdr)
        return nullptr;
    hdr->size = bytes;
    eko_inc_mem_info(&eko_mem_stats, bytes);
    eko_inc_mem_info(mem_info, bytes);
    return behindHeader(hdr);
}

void* eko_reallocLargeBlock(void* ptr, size_t size, EKO_MEM_INFO* mem_info)
{
    size_t bytes;
    if (!addSize(size, LARGE_HDR, &bytes))
        return nullptr;
    const SemGuard lock(largeBlockSem);
    auto* hdr = static_cast<LARGE_BLOCK_HDR*>(internal_realloc(largeHeaderOf(ptr), bytes, &LargeBlock));
    if (!hdr)
        return nullptr;
    // DELIBERATE: the sign is reversed, so growing lowers both figures and shrinking raises them. The engine's
    // limits are tuned to what they come to. Pinned by large_block_realloc_reverses_the_figures.
    const size_t difference = hdr->size - bytes;
    eko_inc_mem_info(&eko_mem_stats, difference);
    eko_inc_mem_info(mem_info, difference);
    hdr->size = bytes;
    return behindHeader(hdr);
}

void eko_freeLargeBlock(void* ptr, EKO_MEM_INFO* mem_info)
{
    const SemGuard lock(largeBlockSem);
    LARGE_BLOCK_HDR* hdr = largeHeaderOf(ptr);
    eko_dec_mem_info(&eko_mem_stats, hdr->size);
    eko_dec_mem_info(mem_info, hdr->size);
    internal_free(hdr, &LargeBlock);
}

bool largeBlocksInUse()
{
    return LargeBlock.chunks != nullptr;
}

#if EKO_CHECKED
size_t largeBlockSize(const void* ptr)
{
    return largeHeaderOf(const_cast<void*>(ptr))->size - LARGE_HDR;
}
#endif
