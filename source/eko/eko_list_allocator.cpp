// List allocator: blocks of any size in chunks, best fit, empty chunks given back. It serves at two levels.
//
//   per tag       chunks of at least 4096 bytes, which are large blocks
//   process-wide  LargeBlock, whose blocks are the large blocks of all tags, with chunks of at least 4 MiB from the
//                 system heap or from the one buffer that the caller set; the limit and figures of the process are
//                 kept here
//
// Data    chunks, blocks, free blocks and which of them serves a request: see eko_list_index.h
//         large block:  | LARGE_BLOCK_HDR | payload | inside a block of LargeBlock
//
//         No two free blocks lie side by side. So that a block finds the free ones beside it at once, the block above
//         a free one, which is in use, has a flag, and a free block keeps its size at its end, or in that flag if
//         there is no room. Neither says anything that a walk through the free blocks would not.
// Locks   A tag's allocator relies on the tag's mutex. largeBlockSem guards LargeBlock, eko_mem_stats and the
//         caller's buffer; it is taken inside a tag's mutex, never around one, and is none before start and after
//         stop.

#include <stdlib.h>
#include <string.h>

#include "eko_list_index.h"

// Exported, with largeBlockSem for the tag layer that creates it.
size_t eko_memlimit;
void* eko_membuffer;
EKO_MEM_INFO eko_mem_stats;
EKO_SEM largeBlockSem = EKO_SEM_INVALID;

namespace {

struct LIST_SOURCE {
    uint32 blocksize;                                         // least chunk payload to ask for
    void* (*alloc_fcn)(size_t* size, EKO_MEM_INFO* mem_info); // may give more, and then says so in *size
    void (*free_fcn)(void* ptr, EKO_MEM_INFO* mem_info);
};

struct LIST_ALLOCATOR_ENTRY {
    LIST_CHUNK_HDR* chunks;
    const LIST_SOURCE* source; // of the chunks
    LIST_INDEX* index;         // of the free blocks; null when empty or without memory for it
    size_t newest;             // the number given last to a chunk or as a stamp
    EKO_TAG_MEM_INFO mem_info;
};

struct LARGE_BLOCK_HDR {
    size_t size;  // of the large block, this header included
    uint32 dummy; // keeps the payload aligned
};

constexpr size_t LARGE_HDR = sizeof(LARGE_BLOCK_HDR);
constexpr size_t BELOW_FREE = 1;  // flag: the block below is free, and its size stands at its end
constexpr size_t BELOW_CODED = 2; // flag: the block below is free and of no bytes; one more for each 8 that it has
constexpr size_t LARGEST_CODED = 24;
constexpr uint32 TAG_BLOCKSIZE = 4096;
constexpr uint32 SYSTEM_BLOCKSIZE = 4194304;

static_assert(LARGE_HDR % BLOCK_ALIGNMENT == 0 && (sizeof(void*) != 4 || LARGE_HDR == 8));
static_assert(BELOW_CODED + LARGEST_CODED / BLOCK_ALIGNMENT <= FLAGS);
// What is larger has its links and its stamp before its size.
static_assert(LARGEST_CODED + BLOCK_ALIGNMENT >= 4 * sizeof(void*));
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

constexpr LIST_SOURCE TAG_SOURCE = {TAG_BLOCKSIZE, eko_allocLargeBlock, eko_freeLargeBlock};
constexpr LIST_SOURCE SYSTEM_SOURCE = {SYSTEM_BLOCKSIZE, eko_malloc, eko_free};

LIST_INDEX largeBlockIndex;
LIST_ALLOCATOR_ENTRY LargeBlock = {nullptr, &SYSTEM_SOURCE, &largeBlockIndex, 0, {}};

// ---- addresses --------------------------------------------------------------------------------------------

LIST_HDR* headerOf(void* payload)
{
    return reinterpret_cast<LIST_HDR*>(bytesOf(payload) - HDR);
}
void* payloadOf(LIST_HDR* block)
{
    return bytesOf(block) + HDR;
}
size_t sizeOf(const LIST_HDR* block) // in use
{
    return block->size & ~FLAGS;
}
LIST_HDR* behind(LIST_HDR* block) // in use
{
    return behind(block, sizeOf(block));
}
LARGE_BLOCK_HDR* largeHeaderOf(void* ptr)
{
    return reinterpret_cast<LARGE_BLOCK_HDR*>(bytesOf(ptr) - LARGE_HDR);
}
LIST_ALLOCATOR_ENTRY* stateOf(ALLOCATOR alctr)
{
    return static_cast<LIST_ALLOCATOR_ENTRY*>(alctr);
}

// ---- free blocks ------------------------------------------------------------------------------------------

// When the numbers end all are given anew; chunks and blocks must be in order. A checked build does so often.
#if EKO_CHECKED
constexpr size_t NUMBERS = 1024;
#else
constexpr size_t NUMBERS = LIST_STAMPS;
#endif

size_t nextNumber(LIST_ALLOCATOR_ENTRY* alctr)
{
    if ((alctr->newest + 1) % NUMBERS == 0)
        alctr->newest = renumber(alctr->chunks);
    return ++alctr->newest;
}

// Makes a free block of what lies there and tells the block above, whose flags are none or say that it was free.
void placeFree(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk, LIST_HDR* p, size_t size, size_t stamp)
{
    writeFree(chunk, p, size, stamp);
    addToIndex(alctr->index, chunk, p);
    LIST_HDR* above = behind(p, size);
    const bool coded = size <= LARGEST_CODED;
    if (!coded)
        reinterpret_cast<size_t*>(above)[-1] = size;
    if (above != endOf(chunk))
        above->size = sizeOf(above) | (coded ? BELOW_CODED + size / BLOCK_ALIGNMENT : BELOW_FREE);
}

void pushFree(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk, LIST_HDR* p, size_t size)
{
    placeFree(alctr, chunk, p, size, nextNumber(alctr));
}

// Gives a free block another size. It keeps its place.
void resizeFree(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk, LIST_HDR* p, size_t size)
{
    const size_t stamp = stampOf(p);
    removeFromIndex(alctr->index, chunk, p);
    placeFree(alctr, chunk, p, size, stamp);
}

void markUsed(LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    LIST_HDR* above = behind(block);
    if (above != endOf(chunk))
        above->size = sizeOf(above);
}

// A block in use points to its chunk, a free one does not.
LIST_HDR* freeAbove(LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    LIST_HDR* above = behind(block);
    return above != endOf(chunk) && above->chunk != chunk ? above : nullptr;
}

LIST_HDR* freeBelow(LIST_HDR* block)
{
    const size_t flags = block->size & FLAGS;
    if (flags == 0)
        return nullptr;
    const size_t size =
        flags == BELOW_FREE ? reinterpret_cast<size_t*>(block)[-1] : (flags - BELOW_CODED) * BLOCK_ALIGNMENT;
    return reinterpret_cast<LIST_HDR*>(bytesOf(block) - size - HDR);
}

// Hands a free block out, whole when what would be left over could not be a block.
LIST_HDR* use_entry(LIST_ALLOCATOR_ENTRY* alctr, const BEST_FIT& fit, size_t size)
{
    const size_t has = freeSize(fit.p);
    const size_t stamp = stampOf(fit.p);
    removeFromIndex(alctr->index, fit.chunk, fit.p); // before a header is written over what it knows
    LIST_HDR* block = fit.p;
    if (has <= size + HDR) {
        block->size = has;
    } else {
        block = reinterpret_cast<LIST_HDR*>(bytesOf(fit.p) + has - size); // from the end: p stays where it is
        block->size = size;
        placeFree(alctr, fit.chunk, fit.p, has - size - HDR, stamp);
    }
    block->chunk = fit.chunk;
    markUsed(fit.chunk, block);
    return block;
}

// ---- chunks -----------------------------------------------------------------------------------------------

// A chunk whose payload is one free block that holds `size` bytes.
BEST_FIT list_add_chunk(LIST_ALLOCATOR_ENTRY* alctr, size_t size)
{
    size_t bytes;
    if (!addSize(size, HDR, &bytes))
        return {nullptr, nullptr};
    if (bytes < alctr->source->blocksize)
        bytes = alctr->source->blocksize;
    if (!addSize(bytes, CHUNK_HDR, &bytes))
        return {nullptr, nullptr};
    auto* chunk = static_cast<LIST_CHUNK_HDR*>(alctr->source->alloc_fcn(&bytes, &alctr->mem_info.capacity));
    if (!chunk)
        return {nullptr, nullptr};
    if (!alctr->index && !readUnlocked(eko_membuffer)) // a caller's buffer is all the memory there is
        alctr->index = makeIndex(alctr->chunks);
    chunk->size = bytes - CHUNK_HDR;
    chunk->order = nextNumber(alctr);
    chunk->prev = nullptr;
    chunk->next = alctr->chunks;
    if (chunk->next)
        chunk->next->prev = chunk;
    alctr->chunks = chunk;
    LIST_HDR* block = firstBlock(chunk);
    placeFree(alctr, chunk, block, chunk->size - HDR, chunk->order);
    return {chunk, block};
}

// A tag's index goes with its last chunk.
void dropIndex(LIST_ALLOCATOR_ENTRY* alctr)
{
    if (alctr == &LargeBlock)
        return;
    free(alctr->index);
    alctr->index = nullptr;
}

void release_chunk(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk)
{
    removeFromIndex(alctr->index, chunk, firstBlock(chunk));
    (chunk->prev ? chunk->prev->next : alctr->chunks) = chunk->next;
    if (chunk->next)
        chunk->next->prev = chunk->prev;
    if (!alctr->chunks)
        dropIndex(alctr);
    alctr->source->free_fcn(chunk, &alctr->mem_info.capacity);
}

// ---- joining ----------------------------------------------------------------------------------------------

// Takes the free block right behind a block in use away, if there is one; answers the bytes that come with it.
size_t takeAbove(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    LIST_HDR* above = freeAbove(chunk, block);
    if (!above)
        return 0;
    removeFromIndex(alctr->index, chunk, above);
    return HDR + freeSize(above);
}

// Makes a block free, as one with the free blocks beside it. Whether that fills the chunk.
bool join_to_neighbors(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    size_t size = sizeOf(block) + takeAbove(alctr, chunk, block);
    LIST_HDR* below = freeBelow(block);
    if (below) {
        size += freeSize(below) + HDR;
        resizeFree(alctr, chunk, below, size);
    } else {
        pushFree(alctr, chunk, block, size);
    }
    return chunk->size == size + HDR; // and so it is the first
}

void combine_with_next(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    block->size += takeAbove(alctr, chunk, block);
    markUsed(chunk, block);
}

// Cuts the surplus off a block in use, as a free block. What is above it is in use.
void release_extra(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk, LIST_HDR* block, size_t size)
{
    const size_t surplus = sizeOf(block) - size;
    if (surplus <= HDR)
        return;
    pushFree(alctr, chunk, behind(block, size), surplus - HDR);
    block->size -= surplus;
}

// ---- the three operations ---------------------------------------------------------------------------------

void* internal_alloc(size_t size, LIST_ALLOCATOR_ENTRY* alctr)
{
    if (!roundUp(size, BLOCK_ALIGNMENT, &size))
        return nullptr;
    BEST_FIT fit = bestFit(alctr->index, alctr->chunks, size);
    if (!fit.p)
        fit = list_add_chunk(alctr, size);
    if (!fit.p)
        return nullptr;
    LIST_HDR* block = use_entry(alctr, fit, size);
    eko_inc_mem_info(&alctr->mem_info.bytes, size);
    return payloadOf(block);
}

void internal_free(void* ptr, LIST_ALLOCATOR_ENTRY* alctr)
{
    LIST_HDR* block = headerOf(ptr);
    LIST_CHUNK_HDR* chunk = block->chunk;
    // DELIBERATE: the block's own size, which can exceed the rounded size that was counted when it was handed out
    // whole. The figure drifts downwards; the engine's reports are calibrated on it. Pinned by
    // list_free_subtracts_the_blocks_own_size.
    eko_dec_mem_info(&alctr->mem_info.bytes, sizeOf(block));
    if (join_to_neighbors(alctr, chunk, block))
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
    LIST_CHUNK_HDR* chunk = block->chunk;
    combine_with_next(alctr, chunk, block);
    if (sizeOf(block) < newsize)
        return moveBlock(block, newsize, alctr);
    eko_inc_mem_info(&alctr->mem_info.bytes, newsize - sizeOf(block)); // wraps, and so lowers, when it shrinks
    release_extra(alctr, chunk, block, newsize);
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
    dropIndex(state);
}

void list_allocator_mem_info(ALLOCATOR alctr, EKO_TAG_MEM_INFO* info)
{
    copyMemInfo(stateOf(alctr)->mem_info, info);
}

void fillSlots(LIST_ALLOCATOR_ENTRY* state, ALLOCATOR_FCNS* fcns)
{
    state->source = &TAG_SOURCE;
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
