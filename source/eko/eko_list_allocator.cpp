// List allocator: blocks of any size in chunks, best fit, empty chunks given back. It serves at two levels.
//
//   per tag       chunks of at least 4096 bytes, which are large blocks
//   process-wide  LargeBlock, whose blocks are the large blocks of all tags, with chunks of at least 4 MiB from the
//                 system heap or from the one buffer that the caller set; the limit and figures of the process are
//                 kept here
//
// Data    chunk:        | LIST_CHUNK_HDR | block | block | ... |
//         block:        | LIST_HDR | payload |     a free block's header links the chunk's free list, unordered
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
    size_t size; // bytes behind this header
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
    LIST_HDR* q; // the block before it in its free list, or null
};

struct LARGE_BLOCK_HDR {
    size_t size;  // of the large block, this header included
    uint32 dummy; // keeps the payload aligned
};

constexpr size_t HDR = sizeof(LIST_HDR);
constexpr size_t CHUNK_HDR = sizeof(LIST_CHUNK_HDR);
constexpr size_t LARGE_HDR = sizeof(LARGE_BLOCK_HDR);
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
LIST_HDR* behind(LIST_HDR* block)
{
    return reinterpret_cast<LIST_HDR*>(bytesOf(block) + HDR + block->size);
}
LIST_HDR* firstBlock(LIST_CHUNK_HDR* chunk)
{
    return reinterpret_cast<LIST_HDR*>(bytesOf(chunk) + CHUNK_HDR);
}
LIST_ALLOCATOR_ENTRY* stateOf(ALLOCATOR alctr)
{
    return static_cast<LIST_ALLOCATOR_ENTRY*>(alctr);
}

// ---- free lists -------------------------------------------------------------------------------------------

void push_on_free_list(LIST_CHUNK_HDR* chunk, LIST_HDR* p)
{
    p->ptr.next = chunk->free_hdrs;
    chunk->free_hdrs = p;
}

void remove_from_free_list(LIST_CHUNK_HDR* chunk, LIST_HDR* p, LIST_HDR* q)
{
    EKO_ASSERT(!q || q->ptr.next == p);
    EKO_ASSERT(q || chunk->free_hdrs == p);
    (q ? q->ptr.next : chunk->free_hdrs) = p->ptr.next;
}

// Hands a free block out, whole when what would be left over could not be a block.
LIST_HDR* use_entry(LIST_CHUNK_HDR* chunk, LIST_HDR* p, LIST_HDR* q, size_t size)
{
    LIST_HDR* block = p;
    if (p->size <= size + HDR) {
        remove_from_free_list(chunk, p, q);
    } else {
        block = reinterpret_cast<LIST_HDR*>(bytesOf(p) + p->size - size); // from the end: p stays where it is
        block->size = size;
        p->size -= size + HDR;
    }
    block->ptr.chunk = chunk;
    return block;
}

// The first block of exactly that size, else the smallest larger one, of equals the first met.
BEST_FIT best_fit(const LIST_ALLOCATOR_ENTRY* alctr, size_t size)
{
    BEST_FIT best = {nullptr, nullptr, nullptr};
    for (LIST_CHUNK_HDR* chunk = alctr->chunks; chunk; chunk = chunk->next) {
        LIST_HDR* q = nullptr;
        for (LIST_HDR* p = chunk->free_hdrs; p; q = p, p = p->ptr.next) {
            if (p->size == size)
                return {chunk, p, q};
            if (p->size > size && (!best.p || p->size < best.p->size))
                best = {chunk, p, q};
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
    chunk->free_hdrs = firstBlock(chunk);
    chunk->free_hdrs->size = chunk->size - HDR;
    chunk->free_hdrs->ptr.next = nullptr;
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

struct Neighbors {
    LIST_HDR* above;       // the free block with the lowest address above
    LIST_HDR* beforeAbove; // the one before it in the free list
    LIST_HDR* below;       // the free block with the highest address below
};

Neighbors find_next_neighbor(const LIST_CHUNK_HDR* chunk, const LIST_HDR* block)
{
    Neighbors n = {nullptr, nullptr, nullptr};
    LIST_HDR* q = nullptr;
    for (LIST_HDR* p = chunk->free_hdrs; p; q = p, p = p->ptr.next) {
        if (p > block && (!n.above || p < n.above)) {
            n.above = p;
            n.beforeAbove = q;
        } else if (p < block && (!n.below || p > n.below)) {
            n.below = p;
        }
    }
    return n;
}

// Enlarges a block in use by the free block right behind it, if there is one.
void absorbAbove(LIST_CHUNK_HDR* chunk, LIST_HDR* block, const Neighbors& n)
{
    if (!n.above || n.above != behind(block))
        return;
    remove_from_free_list(chunk, n.above, n.beforeAbove);
    block->size += n.above->size + HDR;
}

// Puts a block on its chunk's free list, as one with the free blocks beside it; answers that one.
LIST_HDR* join_to_neighbors(LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    const Neighbors n = find_next_neighbor(chunk, block);
    absorbAbove(chunk, block, n);
    if (n.below && behind(n.below) == block) {
        n.below->size += block->size + HDR;
        return n.below;
    }
    push_on_free_list(chunk, block);
    return block;
}

void combine_with_next(LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    absorbAbove(chunk, block, find_next_neighbor(chunk, block));
}

// Cuts the surplus off a block in use, as a free block that is joined with nothing.
void release_extra(LIST_CHUNK_HDR* chunk, LIST_HDR* block, size_t size)
{
    if (block->size <= size + HDR)
        return;
    LIST_HDR* rest = reinterpret_cast<LIST_HDR*>(bytesOf(block) + HDR + size);
    rest->size = block->size - size - HDR;
    block->size = size;
    push_on_free_list(chunk, rest);
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
        fit.q = nullptr;
    }
    LIST_HDR* block = use_entry(fit.chunk, fit.p, fit.q, size);
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
    eko_dec_mem_info(&alctr->mem_info.bytes, block->size);
    const LIST_HDR* joined = join_to_neighbors(chunk, block);
    if (joined == firstBlock(chunk) && chunk->size == joined->size + HDR)
        release_chunk(alctr, chunk);
}

void* moveBlock(LIST_HDR* block, size_t newsize, LIST_ALLOCATOR_ENTRY* alctr)
{
    void* moved = internal_alloc(newsize, alctr);
    if (!moved)
        return nullptr;
    memcpy(moved, payloadOf(block), block->size);
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
    if (block->size < newsize)
        return moveBlock(block, newsize, alctr);
    eko_inc_mem_info(&alctr->mem_info.bytes, newsize - block->size); // wraps, and so lowers, when it shrinks
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

LARGE_BLOCK_HDR* largeHeaderOf(void* ptr)
{
    return reinterpret_cast<LARGE_BLOCK_HDR*>(bytesOf(ptr) - LARGE_HDR);
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
