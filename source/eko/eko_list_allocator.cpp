// SPDX-License-Identifier: MIT
// List allocator: blocks of any size in chunks, best fit, empty chunks given back. It serves at two levels.
//
//   per tag       chunks of at least 4096 bytes, which are large blocks
//   process-wide  LargeBlock, whose blocks are the large blocks of all tags, with chunks of at least 4 MiB from the
//                 system heap or from the one buffer that the caller set; the limit and figures of the process are
//                 kept here
//
// Data    chunk:        | LIST_CHUNK_HDR | block | block | ... |
//         block:        | LIST_HDR | payload |
//         free block:   | LIST_HDR | before ... size |     in the chunk's free list, unordered
//
//         No two free blocks lie side by side. So that a block finds the free ones beside it at once, a free block
//         writes into its payload the one before it in the list and, at the end, its size, as far as there is room,
//         and the block above it, which is in use, has a flag. Neither says anything that a walk through the list
//         would not.
//         large block:  | LARGE_BLOCK_HDR | payload | inside a block of LargeBlock
// Locks   A tag's allocator relies on the tag's mutex. largeBlockSem guards LargeBlock, eko_mem_stats and the
//         caller's buffer; it is taken inside a tag's mutex, never around one, and is none before start and after
//         stop.

#include <stdlib.h>
#include <string.h>

#include "ekomem_int.h"

// Exported, with largeBlockSem for the tag layer that creates it.
size_t eko_memlimit;
void* eko_membuffer;
EKO_MEM_INFO eko_mem_stats;
EKO_SEM largeBlockSem = EKO_SEM_INVALID;

namespace {

struct LIST_CHUNK_HDR;

struct LIST_HDR {
    size_t size; // bytes behind this header, a multiple of 8; in use: and what is below
    union {
        LIST_HDR* next;        // free: the next free block of the chunk
        LIST_CHUNK_HDR* chunk; // in use: the chunk that holds it
    } ptr;
};

struct LIST_CHUNK_HDR {
    size_t size; // bytes behind this header
    LIST_CHUNK_HDR* next;
    LIST_CHUNK_HDR* prev;
    LIST_HDR* free_hdrs;
};

using ChunkAlloc = void* (*)(size_t* size, EKO_MEM_INFO* mem_info); // may give more, and then says so in *size
using ChunkFree = void (*)(void* ptr, EKO_MEM_INFO* mem_info);

struct LIST_ALLOCATOR_ENTRY {
    LIST_CHUNK_HDR* chunks;
    uint32 blocksize; // least chunk payload to ask for
    ChunkAlloc alloc_fcn;
    ChunkFree free_fcn;
    EKO_TAG_MEM_INFO mem_info;
};

struct BEST_FIT {
    LIST_CHUNK_HDR* chunk;
    LIST_HDR* p; // the best free block so far
};

struct LARGE_BLOCK_HDR {
    size_t size;  // of the large block, this header included
    uint32 dummy; // keeps the payload aligned
};

constexpr size_t HDR = sizeof(LIST_HDR);
constexpr size_t CHUNK_HDR = sizeof(LIST_CHUNK_HDR);
constexpr size_t LARGE_HDR = sizeof(LARGE_BLOCK_HDR);
constexpr size_t BELOW_FREE = 1;  // flag: the block below is free, and its size stands at its end
constexpr size_t BELOW_EMPTY = 2; // flag: the block below is free and has no payload
constexpr size_t FLAGS = BLOCK_ALIGNMENT - 1;
constexpr uint32 TAG_BLOCKSIZE = 4096;
constexpr uint32 SYSTEM_BLOCKSIZE = 4194304;

static_assert(HDR % BLOCK_ALIGNMENT == 0 && CHUNK_HDR % BLOCK_ALIGNMENT == 0 && LARGE_HDR % BLOCK_ALIGNMENT == 0);
static_assert(sizeof(void*) != 4 || (HDR == 8 && CHUNK_HDR == 16 && LARGE_HDR == 8));
// The static list allocator's state must fit its 64 bytes of static storage; on 64-bit builds it fills them.
static_assert(sizeof(LIST_ALLOCATOR_ENTRY) == (sizeof(void*) == 4 ? 32 : 64));

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

// ---- addresses --------------------------------------------------------------------------------------------

char* bytesOf(void* p)
{
    return static_cast<char*>(p);
}
LIST_HDR* headerOf(void* payload)
{
    return reinterpret_cast<LIST_HDR*>(bytesOf(payload) - HDR);
}
void* payloadOf(LIST_HDR* block)
{
    return bytesOf(block) + HDR;
}
size_t sizeOf(const LIST_HDR* block)
{
    return block->size & ~FLAGS;
}
LIST_HDR* behind(LIST_HDR* block)
{
    return reinterpret_cast<LIST_HDR*>(bytesOf(block) + HDR + sizeOf(block));
}
LIST_HDR* firstBlock(LIST_CHUNK_HDR* chunk)
{
    return reinterpret_cast<LIST_HDR*>(bytesOf(chunk) + CHUNK_HDR);
}
LIST_HDR* endOf(LIST_CHUNK_HDR* chunk)
{
    return reinterpret_cast<LIST_HDR*>(bytesOf(chunk) + CHUNK_HDR + chunk->size);
}
LARGE_BLOCK_HDR* largeHeaderOf(void* ptr)
{
    return reinterpret_cast<LARGE_BLOCK_HDR*>(bytesOf(ptr) - LARGE_HDR);
}
LIST_ALLOCATOR_ENTRY* stateOf(ALLOCATOR alctr)
{
    return static_cast<LIST_ALLOCATOR_ENTRY*>(alctr);
}

// ---- free lists -------------------------------------------------------------------------------------------

// Where a free block keeps the one before it in its list, if it has room for that beside its size.
bool knowsBefore(const LIST_HDR* p)
{
    return p->size >= 2 * sizeof(void*);
}
LIST_HDR*& beforeOf(LIST_HDR* p)
{
    return *static_cast<LIST_HDR**>(payloadOf(p));
}

// The block before a free one in the list, or null.
LIST_HDR* findBefore(LIST_CHUNK_HDR* chunk, LIST_HDR* p)
{
    if (knowsBefore(p))
        return beforeOf(p);
    LIST_HDR* q = nullptr;
    for (LIST_HDR* at = chunk->free_hdrs; at != p; at = at->ptr.next)
        q = at;
    return q;
}

void setBefore(LIST_HDR* p, LIST_HDR* q)
{
    if (p && knowsBefore(p))
        beforeOf(p) = q;
}

void push_on_free_list(LIST_CHUNK_HDR* chunk, LIST_HDR* p)
{
    p->ptr.next = chunk->free_hdrs;
    setBefore(p->ptr.next, p);
    setBefore(p, nullptr);
    chunk->free_hdrs = p;
}

void remove_from_free_list(LIST_CHUNK_HDR* chunk, LIST_HDR* p)
{
    LIST_HDR* q = findBefore(chunk, p);
    EKO_ASSERT(!q || q->ptr.next == p);
    EKO_ASSERT(q || chunk->free_hdrs == p);
    (q ? q->ptr.next : chunk->free_hdrs) = p->ptr.next;
    setBefore(p->ptr.next, q);
}

// Enlarges a free block, which keeps its place.
void growFree(LIST_CHUNK_HDR* chunk, LIST_HDR* p, size_t size)
{
    LIST_HDR* q = findBefore(chunk, p);
    p->size = size;
    setBefore(p, q);
}

// ---- neighbours -------------------------------------------------------------------------------------------

// Tells the block above that this one is free, or of its new size.
void markFree(LIST_CHUNK_HDR* chunk, LIST_HDR* p)
{
    LIST_HDR* above = behind(p);
    if (p->size > 0)
        reinterpret_cast<size_t*>(above)[-1] = p->size;
    if (above != endOf(chunk))
        above->size = sizeOf(above) | (p->size > 0 ? BELOW_FREE : BELOW_EMPTY);
}

void markUsed(LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    LIST_HDR* above = behind(block);
    if (above != endOf(chunk))
        above->size = sizeOf(above);
}

// A block in use points to its chunk, a free one at most to another block.
LIST_HDR* freeAbove(LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    LIST_HDR* above = behind(block);
    return above != endOf(chunk) && above->ptr.chunk != chunk ? above : nullptr;
}

LIST_HDR* freeBelow(LIST_HDR* block)
{
    if ((block->size & FLAGS) == 0)
        return nullptr;
    const size_t size = block->size & BELOW_FREE ? reinterpret_cast<size_t*>(block)[-1] : 0;
    return reinterpret_cast<LIST_HDR*>(bytesOf(block) - size - HDR);
}

// ---- which block serves a request -------------------------------------------------------------------------

// Hands a free block out, whole when what would be left over could not be a block.
LIST_HDR* use_entry(LIST_CHUNK_HDR* chunk, LIST_HDR* p, size_t size)
{
    LIST_HDR* block = p;
    if (p->size <= size + HDR) {
        remove_from_free_list(chunk, p);
    } else {
        block = reinterpret_cast<LIST_HDR*>(bytesOf(p) + p->size - size); // from the end: p stays where it is
        block->size = size;
        p->size -= size + HDR;
        markFree(chunk, p);
    }
    block->ptr.chunk = chunk;
    markUsed(chunk, block);
    return block;
}

// The first block of exactly that size, else the smallest larger one, of equals the first met. What a block is too large
// by is compared as an unsigned number, in which one that is too small is too large by more than all that are not.
BEST_FIT best_fit(const LIST_ALLOCATOR_ENTRY* alctr, size_t size)
{
    BEST_FIT best = {nullptr, nullptr};
    size_t least = SIZE_MAX - size;
    for (LIST_CHUNK_HDR* chunk = alctr->chunks; chunk; chunk = chunk->next) {
        for (LIST_HDR* p = chunk->free_hdrs; p; p = p->ptr.next) {
            const size_t excess = p->size - size;
            if (excess < least) {
                least = excess;
                best = {chunk, p};
                if (excess == 0)
                    return best;
            }
        }
    }
    return best;
}

// ---- chunks -----------------------------------------------------------------------------------------------

// A chunk whose payload is one free block that holds `size` bytes.
LIST_CHUNK_HDR* list_add_chunk(LIST_ALLOCATOR_ENTRY* alctr, size_t size)
{
    size_t bytes;
    if (!addSize(size, HDR, &bytes))
        return nullptr;
    if (bytes < alctr->blocksize)
        bytes = alctr->blocksize;
    if (!addSize(bytes, CHUNK_HDR, &bytes))
        return nullptr;
    auto* chunk = static_cast<LIST_CHUNK_HDR*>(alctr->alloc_fcn(&bytes, &alctr->mem_info.capacity));
    if (!chunk)
        return nullptr;
    chunk->size = bytes - CHUNK_HDR;
    chunk->prev = nullptr;
    chunk->next = alctr->chunks;
    if (chunk->next)
        chunk->next->prev = chunk;
    alctr->chunks = chunk;
    chunk->free_hdrs = nullptr;
    LIST_HDR* block = firstBlock(chunk);
    block->size = chunk->size - HDR;
    push_on_free_list(chunk, block);
    return chunk;
}

void release_chunk(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk)
{
    (chunk->prev ? chunk->prev->next : alctr->chunks) = chunk->next;
    if (chunk->next)
        chunk->next->prev = chunk->prev;
    alctr->free_fcn(chunk, &alctr->mem_info.capacity);
}

// ---- joining ----------------------------------------------------------------------------------------------

// Enlarges a block in use by the free block right behind it, if there is one.
void absorbAbove(LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    LIST_HDR* above = freeAbove(chunk, block);
    if (!above)
        return;
    remove_from_free_list(chunk, above);
    block->size += above->size + HDR;
}

// Puts a block on its chunk's free list, as one with the free blocks beside it; answers that one.
LIST_HDR* join_to_neighbors(LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    absorbAbove(chunk, block);
    LIST_HDR* joined = freeBelow(block);
    if (joined) {
        growFree(chunk, joined, joined->size + HDR + sizeOf(block));
    } else {
        joined = block; // without flags
        push_on_free_list(chunk, joined);
    }
    markFree(chunk, joined);
    return joined;
}

void combine_with_next(LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    absorbAbove(chunk, block);
    markUsed(chunk, block);
}

// Cuts the surplus off a block in use, as a free block. What is above it is in use.
void release_extra(LIST_CHUNK_HDR* chunk, LIST_HDR* block, size_t size)
{
    const size_t surplus = sizeOf(block) - size;
    if (surplus <= HDR)
        return;
    LIST_HDR* rest = reinterpret_cast<LIST_HDR*>(bytesOf(block) + HDR + size);
    rest->size = surplus - HDR;
    block->size -= surplus;
    push_on_free_list(chunk, rest);
    markFree(chunk, rest);
}

// ---- the three operations ---------------------------------------------------------------------------------

void* internal_alloc(size_t size, LIST_ALLOCATOR_ENTRY* alctr)
{
    if (!roundUp(size, BLOCK_ALIGNMENT, &size))
        return nullptr;
    BEST_FIT fit = best_fit(alctr, size);
    if (!fit.p) {
        fit.chunk = list_add_chunk(alctr, size);
        if (!fit.chunk)
            return nullptr;
        fit.p = fit.chunk->free_hdrs;
    }
    LIST_HDR* block = use_entry(fit.chunk, fit.p, size);
    eko_inc_mem_info(&alctr->mem_info.bytes, size);
    return payloadOf(block);
}

void internal_free(void* ptr, LIST_ALLOCATOR_ENTRY* alctr)
{
    LIST_HDR* block = headerOf(ptr);
    LIST_CHUNK_HDR* chunk = block->ptr.chunk;
    // DELIBERATE: the block's own size, which can exceed the rounded size that was counted when it was handed out
    // whole. The figure drifts downwards; the engine's reports are calibrated on it. Pinned by
    // list_free_subtracts_the_blocks_own_size.
    eko_dec_mem_info(&alctr->mem_info.bytes, sizeOf(block));
    const LIST_HDR* joined = join_to_neighbors(chunk, block);
    if (joined == firstBlock(chunk) && chunk->size == joined->size + HDR)
        release_chunk(alctr, chunk);
}

void* moveBlock(LIST_HDR* block, size_t newsize, LIST_ALLOCATOR_ENTRY* alctr)
{
    void* moved = internal_alloc(newsize, alctr);
    if (!moved)
        return nullptr;
    memcpy(moved, payloadOf(block), sizeOf(block));
    internal_free(payloadOf(block), alctr);
    return moved;
}

// The block takes in free space behind it first, even when it is to shrink, and keeps it when it cannot grow
// further.
void* internal_realloc(void* ptr, size_t newsize, LIST_ALLOCATOR_ENTRY* alctr)
{
    if (!roundUp(newsize, BLOCK_ALIGNMENT, &newsize))
        return nullptr;
    LIST_HDR* block = headerOf(ptr);
    LIST_CHUNK_HDR* chunk = block->ptr.chunk;
    combine_with_next(chunk, block);
    if (sizeOf(block) < newsize)
        return moveBlock(block, newsize, alctr);
    eko_inc_mem_info(&alctr->mem_info.bytes, newsize - sizeOf(block)); // wraps, and so lowers, when it shrinks
    release_extra(chunk, block, newsize);
    return ptr;
}

// ---- slots of the table -----------------------------------------------------------------------------------

void list_allocator_destroy(ALLOCATOR alctr)
{
    eko_freeSmallBlock(alctr);
}
void* list_allocator_alloc(size_t size, ALLOCATOR alctr)
{
    return internal_alloc(size, stateOf(alctr));
}
void* list_allocator_realloc(void* ptr, size_t newsize, ALLOCATOR alctr)
{
    return internal_realloc(ptr, newsize, stateOf(alctr));
}
void list_allocator_free(void* ptr, ALLOCATOR alctr)
{
    internal_free(ptr, stateOf(alctr));
}

// The bytes figure stays as it is.
void list_allocator_free_all(ALLOCATOR alctr)
{
    LIST_ALLOCATOR_ENTRY* state = stateOf(alctr);
    while (state->chunks) {
        LIST_CHUNK_HDR* chunk = state->chunks;
        state->chunks = chunk->next;
        eko_freeLargeBlock(chunk, &state->mem_info.capacity);
    }
}

void list_allocator_mem_info(ALLOCATOR alctr, EKO_TAG_MEM_INFO* info)
{
    copyMemInfo(stateOf(alctr)->mem_info, info);
}

void fillSlots(LIST_ALLOCATOR_ENTRY* state, ALLOCATOR_FCNS* fcns)
{
    state->blocksize = TAG_BLOCKSIZE;
    state->alloc_fcn = eko_allocLargeBlock;
    state->free_fcn = eko_freeLargeBlock;
    *fcns = {list_allocator_destroy, list_allocator_alloc,    list_allocator_realloc,
             list_allocator_free,    list_allocator_free_all, list_allocator_mem_info};
}

} // namespace

ALLOCATOR list_allocator_create(ALLOCATOR_FCNS* fcns)
{
    auto* state = static_cast<LIST_ALLOCATOR_ENTRY*>(eko_allocSmallBlock(sizeof(LIST_ALLOCATOR_ENTRY)));
    if (state)
        fillSlots(state, fcns);
    return state;
}

// `size` is that of the handle; that the buffer holds the whole state is asserted when this is compiled. The
// figures of this allocator are nobody's business.
void create_static_list_allocator(void* alctr, uint32 size, ALLOCATOR_FCNS* fcns)
{
    using LIST_ALLOCATOR = LIST_ALLOCATOR_ENTRY*; // the handle
    EKO_ASSERT(size >= sizeof(LIST_ALLOCATOR));
    memset(alctr, 0, sizeof(LIST_ALLOCATOR_ENTRY));
    fillSlots(stateOf(alctr), fcns);
    fcns->mem_info_fcn = nullptr;
}

#if EKO_CHECKED
bool list_allocator_owns(ALLOCATOR alctr, const void* ptr)
{
    const LIST_CHUNK_HDR* chunk = stateOf(alctr)->chunks;
    while (chunk && !within(ptr, chunk, CHUNK_HDR + chunk->size))
        chunk = chunk->next;
    return chunk != nullptr;
}

size_t largeBlockSize(const void* ptr)
{
    return largeHeaderOf(const_cast<void*>(ptr))->size - LARGE_HDR;
}
#endif

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
    return bytesOf(hdr) + LARGE_HDR;
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
    return bytesOf(hdr) + LARGE_HDR;
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
