// SPDX-License-Identifier: MIT
// List allocator: blocks of any size in chunks, best fit, empty chunks given back. It serves at two levels.
//
//   per tag       chunks of at least 4096 bytes, which are large blocks
//   process-wide  LargeBlock, whose blocks are the large blocks of all tags: see eko_large_block.cpp
//
// Data    chunk:        | LIST_CHUNK_HDR | block | block | ... |
//         block:        | LIST_HDR | payload |
//         free block:   | LIST_HDR | before ... size |     in the chunk's free list, unordered
//
//         No two free blocks lie side by side. So that a block finds the free ones beside it at once, a free block
//         writes into its payload the one before it in the list and, at the end, its size, as far as there is room,
//         and the block above it, which is in use, has a flag. Neither says anything that a walk through the list
//         would not.
//
//         When walks through the free lists become long, the allocator gets an index beside them, which finds the
//         block that the walk would: see eko_list_index.h. A free block then ends with a pointer to its node there,
//         which knows the rest; one without a payload has no node. The first chunk holds the index in place of
//         the chunk before it, of which there is none. Without memory for the index all is as it was before it.
// Locks   None of its own: a tag's allocator relies on the tag's mutex, LargeBlock on largeBlockSem.

#include "eko_list_allocator.h"

#include <string.h>

#include "eko_list_index.h"

namespace {

struct BEST_FIT {
    LIST_CHUNK_HDR* chunk;
    LIST_HDR* p; // the best free block so far
    LIST_HDR* q; // the block before it in the free list, or null
};

struct NEIGHBORS {
    LIST_HDR* above; // free blocks, or null
    LIST_HDR* q;     // the block before the one above in the free list, or null
    LIST_HDR* below;
};

constexpr uint32 TAG_BLOCKSIZE = 4096;

// The static list allocator's state must fit its 64 bytes of static storage; on 64-bit builds it fills them.
static_assert(sizeof(LIST_ALLOCATOR_ENTRY) == (sizeof(void*) == 4 ? 32 : 64));

LIST_ALLOCATOR_ENTRY* stateOf(ALLOCATOR alctr)
{
    return static_cast<LIST_ALLOCATOR_ENTRY*>(alctr);
}

// ---- what a free block knows ------------------------------------------------------------------------------

// The block before a free one in the list, or null.
LIST_HDR* findBefore(const LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* p)
{
    if (index && hasNode(p))
        return nodeOf(p)->before;
    if (!index && knowsBefore(p))
        return beforeOf(p);
    LIST_HDR* q = nullptr;
    for (LIST_HDR* at = chunk->free_hdrs; at != p; at = at->ptr.next)
        q = at;
    return q;
}

void setBefore(const LIST_INDEX* index, LIST_HDR* p, LIST_HDR* q)
{
    if (index && hasNode(p))
        nodeOf(p)->before = q;
    if (!index && knowsBefore(p))
        beforeOf(p) = q;
}

// ---- nodes of the index -----------------------------------------------------------------------------------

LIST_INDEX* indexOf(const LIST_ALLOCATOR_ENTRY* alctr)
{
    return alctr->chunks ? alctr->chunks->index : nullptr;
}

// Of the block at the head of a list, or null.
LIST_NODE* nodeOfHead(const LIST_CHUNK_HDR* chunk)
{
    LIST_HDR* head = chunk->free_hdrs;
    return head && hasNode(head) ? nodeOf(head) : nullptr;
}

// Of a block that is to be at the head of its list, whose node there is given.
LIST_NODE* makeHeadNode(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* p, const LIST_NODE* head)
{
    return makeNode(index, chunk, p, (head ? head : nodeOfChunk(index, chunk))->order, ++index->latest);
}

void removeNode(LIST_INDEX* index, LIST_NODE* node, size_t size)
{
    binErase(index, node, size);
    giveNode(index, node);
}

// ---- free lists -------------------------------------------------------------------------------------------

// Either, without a branch: whether a block is the first or the last of its list cannot be foreseen.
LIST_HDR* orElse(LIST_HDR* p, LIST_HDR* other)
{
    const uintptr_t instead = reinterpret_cast<uintptr_t>(other) & allBitsIf(p == nullptr);
    return reinterpret_cast<LIST_HDR*>(reinterpret_cast<uintptr_t>(p) | instead);
}

// The pointer that leads on from a block, or into the list from the chunk, as if that stood in a block, too.
LIST_HDR** linkBehind(LIST_HDR* q, LIST_CHUNK_HDR* chunk)
{
    constexpr size_t AT = offsetof(LIST_HDR, ptr);
    auto* start = reinterpret_cast<LIST_HDR*>(bytesOf(&chunk->free_hdrs) - AT);
    return reinterpret_cast<LIST_HDR**>(bytesOf(orElse(q, start)) + AT);
}

void pushNode(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* p)
{
    LIST_NODE* head = nodeOfHead(chunk);
    if (hasNode(p))
        addNode(index, makeHeadNode(index, chunk, p, head), p, p->size);
    if (head)
        head->before = p;
}

void push_on_free_list(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* p)
{
    LIST_HDR* next = chunk->free_hdrs;
    if (index) {
        pushNode(index, chunk, p);
    } else {
        if (next)
            setBefore(nullptr, next, p);
        setBefore(nullptr, p, nullptr);
    }
    p->ptr.next = next;
    chunk->free_hdrs = p;
}

void remove_from_free_list(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* p, LIST_HDR* q)
{
    LIST_HDR** link = linkBehind(q, chunk);
    if (*link != p) {
        EKO_ASSERT(!q || q->ptr.next == p);
        EKO_ASSERT(q || chunk->free_hdrs == p);
    }
    if (index && hasNode(p))
        removeNode(index, nodeOf(p), p->size);
    LIST_HDR* next = p->ptr.next;
    *link = next;
    if (index)
        setBefore(index, orElse(next, &index->none), q);
    else if (next)
        setBefore(nullptr, next, q);
}

// A free block that gets another size keeps its place in the list. Here it has a payload before and after.
void resizeFree(LIST_INDEX* index, LIST_HDR* p, size_t size)
{
    LIST_NODE* node = nodeOf(p);
    binErase(index, node, p->size);
    addNode(index, node, p, size);
}

void shrinkFree(LIST_INDEX* index, LIST_HDR* p, size_t size)
{
    if (index)
        return resizeFree(index, p, size);
    p->size = size;
    sizeAtEnd(behind(p)) = size;
}

void growFree(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* p, size_t size)
{
    if (index && hasNode(p))
        return resizeFree(index, p, size);
    LIST_HDR* q = findBefore(index, chunk, p);
    if (index)
        return addNode(index, makeNodeInPlace(index, chunk, p, q), p, size);
    p->size = size;
    setBefore(nullptr, p, q);
}

// ---- neighbours -------------------------------------------------------------------------------------------

// Tells the block above that this one is free, or of its new size.
void markFree(const LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* p)
{
    LIST_HDR* above = behind(p);
    if (!index && p->size > 0)
        sizeAtEnd(above) = p->size;
    if (above != endOf(chunk)) [[likely]]
        above->size = sizeOf(above) | (p->size > 0 ? BELOW_FREE : BELOW_EMPTY);
}

void markUsed(LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    LIST_HDR* above = behind(block);
    if (above != endOf(chunk)) [[likely]]
        above->size = sizeOf(above);
}

// A block in use points to its chunk, a free one at most to another block.
LIST_HDR* freeAbove(LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    LIST_HDR* above = behind(block);
    return above != endOf(chunk) && above->ptr.chunk != chunk ? above : nullptr;
}

LIST_HDR* freeBelow(const LIST_INDEX* index, LIST_HDR* block)
{
    if ((block->size & FLAGS) == 0)
        return nullptr;
    if ((block->size & BELOW_FREE) && index)
        return nodeAtEnd(block)->block;
    const size_t size = block->size & BELOW_FREE ? sizeAtEnd(block) : 0;
    return reinterpret_cast<LIST_HDR*>(bytesOf(block) - size - HDR);
}

// The free blocks that lie right beside one.
NEIGHBORS find_next_neighbor(const LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    LIST_HDR* above = freeAbove(chunk, block);
    return {above, above ? findBefore(index, chunk, above) : nullptr, freeBelow(index, block)};
}

// ---- which block serves a request -------------------------------------------------------------------------

// Hands a free block out, whole when what would be left over could not be a block.
LIST_HDR* use_entry(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* p, LIST_HDR* q, size_t size)
{
    LIST_HDR* block = p;
    if (p->size <= size + HDR) {
        remove_from_free_list(index, chunk, p, q);
    } else {
        shrinkFree(index, p, p->size - size - HDR);
        block = behind(p); // from the end: p stays where it is
        block->size = size | BELOW_FREE;
    }
    block->ptr.chunk = chunk;
    markUsed(chunk, block);
    return block;
}

// The first block of exactly that size, else the smallest larger one, of equals the first met. What a block is too
// large by is compared as an unsigned number, in which one that is too small is too large by more than all that are
// not. Counts the chunks and blocks that it met.
BEST_FIT best_fit(const LIST_ALLOCATOR_ENTRY* alctr, size_t size, size_t* met)
{
    BEST_FIT best = {nullptr, nullptr, nullptr};
    size_t least = SIZE_MAX - size;
    size_t count = 0;
    for (LIST_CHUNK_HDR* chunk = alctr->chunks; chunk; chunk = chunk->next) {
        LIST_HDR* q = nullptr;
        ++count;
        for (LIST_HDR* p = chunk->free_hdrs; p; q = p, p = p->ptr.next) {
            ++count;
            const size_t excess = p->size - size;
            if (excess < least) {
                least = excess;
                best = {chunk, p, q};
                if (excess == 0) {
                    *met = count;
                    return best;
                }
            }
        }
    }
    *met = count;
    return best;
}

// The same, without a walk. For blocks without a payload it is no help.
BEST_FIT best_indexed(const LIST_INDEX* index, size_t size)
{
    const LIST_NODE* node = binFind(index, size);
    if (!node)
        return {nullptr, nullptr, nullptr};
    return {node->chunk, node->block, node->before};
}

// ---- with and without an index ----------------------------------------------------------------------------

inline LIST_INDEX* readyIndex(LIST_ALLOCATOR_ENTRY* alctr)
{
    LIST_INDEX* index = alctr->chunks->index;
    return !index || (hasSpareNodes(index) && !isTooSmall(index)) ? index : refillIndex(alctr->chunks);
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
    LIST_INDEX* index = alctr->chunks ? readyIndex(alctr) : nullptr;
    chunk->size = bytes - CHUNK_HDR;
    chunk->index = index;
    chunk->next = alctr->chunks;
    if (chunk->next)
        chunk->next->prev = chunk;
    alctr->chunks = chunk;
    chunk->free_hdrs = nullptr;
    if (index)
        addChunkNode(index, chunk, ++index->newest);
    LIST_HDR* block = firstBlock(chunk);
    block->size = chunk->size - HDR;
    push_on_free_list(index, chunk, block);
    return chunk;
}

// Takes an empty chunk out of the index, which goes with the last one.
[[gnu::noinline]] void forgetChunk(LIST_ALLOCATOR_ENTRY* alctr, LIST_INDEX* index, LIST_CHUNK_HDR* chunk)
{
    if (!alctr->chunks)
        return destroyIndex(index);
    alctr->chunks->index = index;
    removeNode(index, nodeOf(chunk->free_hdrs), chunk->free_hdrs->size);
    removeChunkNode(index, chunk);
}

void release_chunk(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk)
{
    LIST_INDEX* index = indexOf(alctr);
    const bool first = alctr->chunks == chunk;
    (first ? alctr->chunks : chunk->prev->next) = chunk->next;
    if (chunk->next)
        chunk->next->prev = first ? nullptr : chunk->prev;
    if (index)
        forgetChunk(alctr, index, chunk);
    alctr->free_fcn(chunk, &alctr->mem_info.capacity);
}

// ---- joining ----------------------------------------------------------------------------------------------

// Enlarges a block in use by the free block right behind it.
void absorbAbove(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* block, const NEIGHBORS& near)
{
    if (!near.above)
        return;
    remove_from_free_list(index, chunk, near.above, near.q);
    block->size += near.above->size + HDR;
}

// Puts a block on its chunk's free list, as one with the free blocks beside it; answers that one.
LIST_HDR* join_to_neighbors(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    const NEIGHBORS near = find_next_neighbor(index, chunk, block);
    absorbAbove(index, chunk, block, near);
    LIST_HDR* joined = near.below;
    if (joined) {
        growFree(index, chunk, joined, joined->size + HDR + sizeOf(block));
    } else {
        joined = block; // without flags
        push_on_free_list(index, chunk, joined);
    }
    markFree(index, chunk, joined);
    return joined;
}

void combine_with_next(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    absorbAbove(index, chunk, block, find_next_neighbor(index, chunk, block));
    markUsed(chunk, block);
}

// Cuts the surplus off a block in use, as a free block. What is above it is in use.
void release_extra(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* block, size_t size)
{
    const size_t surplus = sizeOf(block) - size;
    if (surplus <= HDR)
        return;
    LIST_HDR* rest = reinterpret_cast<LIST_HDR*>(bytesOf(block) + HDR + size);
    rest->size = surplus - HDR;
    block->size -= surplus;
    push_on_free_list(index, chunk, rest);
    markFree(index, chunk, rest);
}

// ---- the three operations ---------------------------------------------------------------------------------

void* takeBlock(LIST_ALLOCATOR_ENTRY* alctr, LIST_INDEX* index, const BEST_FIT& fit, size_t size)
{
    eko_inc_mem_info(&alctr->mem_info.bytes, size);
    return payloadOf(use_entry(index, fit.chunk, fit.p, fit.q, size));
}

[[gnu::noinline]] void* takeFromNewChunk(LIST_ALLOCATOR_ENTRY* alctr, size_t size)
{
    LIST_CHUNK_HDR* chunk = list_add_chunk(alctr, size);
    return chunk ? takeBlock(alctr, indexOf(alctr), {chunk, chunk->free_hdrs, nullptr}, size) : nullptr;
}

// By a walk, which is a long one: the next will do without, if there can be an index.
[[gnu::noinline]] void* takeAndIndex(LIST_ALLOCATOR_ENTRY* alctr, BEST_FIT fit, size_t size)
{
    if (!indexOf(alctr))
        makeIndex(alctr->chunks);
    return fit.p ? takeBlock(alctr, indexOf(alctr), fit, size) : takeFromNewChunk(alctr, size);
}

// What is done with an index and what without one are compiled by themselves, with all that they call.
[[gnu::flatten]] LIST_HDR* giveBlock(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    return index ? join_to_neighbors(index, chunk, block) : join_to_neighbors(nullptr, chunk, block);
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

} // namespace

// Flat as giveBlock is.
[[gnu::flatten]] void* internal_alloc(size_t size, LIST_ALLOCATOR_ENTRY* alctr)
{
    if (!roundUp(size, BLOCK_ALIGNMENT, &size))
        return nullptr;
    LIST_INDEX* index = indexOf(alctr);
    if (index && size > 0) {
        const BEST_FIT fit = best_indexed(index, size);
        return fit.p ? takeBlock(alctr, index, fit, size) : takeFromNewChunk(alctr, size);
    }
    size_t met;
    const BEST_FIT fit = best_fit(alctr, size, &met);
    if (index || met > LIST_LONG_WALK)
        return takeAndIndex(alctr, fit, size);
    return fit.p ? takeBlock(alctr, nullptr, fit, size) : takeFromNewChunk(alctr, size);
}

void internal_free(void* ptr, LIST_ALLOCATOR_ENTRY* alctr)
{
    LIST_HDR* block = headerOf(ptr);
    LIST_CHUNK_HDR* chunk = block->ptr.chunk;
    // DELIBERATE: the block's own size, which can exceed the rounded size that was counted when it was handed out
    // whole. The figure drifts downwards; the engine's reports are calibrated on it. Pinned by
    // list_free_subtracts_the_blocks_own_size.
    eko_dec_mem_info(&alctr->mem_info.bytes, sizeOf(block));
    const LIST_HDR* joined = giveBlock(readyIndex(alctr), chunk, block);
    if (joined == firstBlock(chunk) && chunk->size == joined->size + HDR)
        release_chunk(alctr, chunk);
}

// The block takes in free space behind it first, even when it is to shrink, and keeps it when it cannot grow
// further.
void* internal_realloc(void* ptr, size_t newsize, LIST_ALLOCATOR_ENTRY* alctr)
{
    if (!roundUp(newsize, BLOCK_ALIGNMENT, &newsize))
        return nullptr;
    LIST_HDR* block = headerOf(ptr);
    LIST_CHUNK_HDR* chunk = block->ptr.chunk;
    LIST_INDEX* index = readyIndex(alctr);
    combine_with_next(index, chunk, block);
    if (sizeOf(block) < newsize)
        return moveBlock(block, newsize, alctr);
    eko_inc_mem_info(&alctr->mem_info.bytes, newsize - sizeOf(block)); // wraps, and so lowers, when it shrinks
    release_extra(index, chunk, block, newsize);
    return ptr;
}

// ---- slots of the table -----------------------------------------------------------------------------------

namespace {

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
    if (LIST_INDEX* index = indexOf(state))
        destroyIndex(index);
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
#endif
