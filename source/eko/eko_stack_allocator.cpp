// SPDX-License-Identifier: MIT
// Stack allocator: blocks cut one behind the other from chunks, for owners that free everything at once. A single
// free does nothing, extending is not supported.
//
// Data    chunk:  | STACK_CHUNK_HDR | used ... offset | left |
//         partial_chunks have room left, full_chunks none; a chunk moves once, from the first to the second.
//
//         A request is served by the newest partial chunk that has room for it. Chunks with a few bytes left stay
//         partial for ever, so these are not a list but a tree, in which that one is found without a look at the
//         others: from the newest to the oldest in order, and in no place more room than in the one above it. Only
//         the newest, on top, can have less, until a request does not fit there.
//
//                    80             the newest with room for 24: from 80 on to the newer 32, whose newer 16 is
//              prev /  | next       too small
//                 32   80
//                / |    |
//              16  24   8
//
// Locks   none; the tag's mutex.

#include "eko_stack_allocator.h"

namespace {

constexpr size_t CHUNK_HDR = sizeof(STACK_CHUNK_HDR);
constexpr size_t BLOCKSIZE = 4096;
constexpr size_t MAX_PAYLOAD = 0xFFFFFFFF; // what a chunk's 32-bit fields can count

static_assert(CHUNK_HDR == (sizeof(void*) == 4 ? 16 : 24));

STACK_ALLOCATOR_ENTRY* stateOf(ALLOCATOR alctr)
{
    return static_cast<STACK_ALLOCATOR_ENTRY*>(alctr);
}

// ---- the tree of partial chunks ---------------------------------------------------------------------------

// The link to the newest chunk with that much room, or null. While a newer one has room, it is that one or one
// still newer: what else is below has less room or is older.
STACK_CHUNK_HDR** newestWithRoom(STACK_CHUNK_HDR** root, size_t size)
{
    STACK_CHUNK_HDR** at = root;
    if (!*at || (*at)->left < size)
        return nullptr;
    while ((*at)->prev && (*at)->prev->left >= size)
        at = &(*at)->prev;
    return at;
}

uint32 roomOf(const STACK_CHUNK_HDR* chunk)
{
    return chunk ? chunk->left : 0;
}

// Puts the newer one below a chunk in its place; keeps the order. Answers the chunk's new link.
STACK_CHUNK_HDR** raiseNewer(STACK_CHUNK_HDR** at)
{
    STACK_CHUNK_HDR* chunk = *at;
    STACK_CHUNK_HDR* raised = chunk->prev;
    chunk->prev = raised->next;
    raised->next = chunk;
    *at = raised;
    return &raised->next;
}

STACK_CHUNK_HDR** raiseOlder(STACK_CHUNK_HDR** at)
{
    STACK_CHUNK_HDR* chunk = *at;
    STACK_CHUNK_HDR* raised = chunk->next;
    chunk->next = raised->prev;
    raised->prev = chunk;
    *at = raised;
    return &raised->prev;
}

// Moves a chunk that has less room than before down to where it belongs. A newer one with as much room stands above
// it: so no way along newer ones, which is what is searched, is longer than there are different amounts of room.
STACK_CHUNK_HDR** sink(STACK_CHUNK_HDR** at)
{
    for (;;) {
        const STACK_CHUNK_HDR* chunk = *at;
        const uint32 newer = roomOf(chunk->prev);
        const uint32 older = roomOf(chunk->next);
        if (chunk->prev && newer >= chunk->left && newer >= older)
            at = raiseNewer(at);
        else if (older > chunk->left)
            at = raiseOlder(at);
        else
            return at;
    }
}

// Takes the newest chunk out.
STACK_CHUNK_HDR* removeNewest(STACK_CHUNK_HDR** root)
{
    while ((*root)->prev)
        raiseNewer(root);
    STACK_CHUNK_HDR* chunk = *root;
    *root = chunk->next;
    return chunk;
}

// ---- chunks -----------------------------------------------------------------------------------------------

STACK_CHUNK_HDR* create_new_chunk(STACK_ALLOCATOR_ENTRY* alctr, size_t size)
{
    const size_t payload = size > alctr->blocksize ? size : alctr->blocksize;
    size_t bytes;
    if (payload > MAX_PAYLOAD || !addSize(payload, CHUNK_HDR, &bytes))
        return nullptr;
    auto* chunk = static_cast<STACK_CHUNK_HDR*>(eko_allocLargeBlock(&bytes, &alctr->mem_info.capacity));
    if (!chunk)
        return nullptr;
    chunk->offset = 0;
    chunk->left = static_cast<uint32>(payload);
    chunk->prev = nullptr;
    chunk->next = alctr->partial_chunks;
    alctr->partial_chunks = chunk; // it has at least as much room as any other
    return chunk;
}

// The link to the chunk that serves a request; null when there is none.
STACK_CHUNK_HDR** chunkWithRoom(STACK_ALLOCATOR_ENTRY* alctr, size_t size)
{
    if (alctr->partial_chunks)
        sink(&alctr->partial_chunks); // after what takeFromTop took
    STACK_CHUNK_HDR** at = newestWithRoom(&alctr->partial_chunks, size);
    if (at)
        return at;
    return create_new_chunk(alctr, size) ? &alctr->partial_chunks : nullptr;
}

void* allocate_from_this_chunk(STACK_ALLOCATOR_ENTRY* alctr, STACK_CHUNK_HDR** at, size_t size)
{
    STACK_CHUNK_HDR* chunk = *at;
    void* block = cutFrom(alctr, chunk, static_cast<uint32>(size));
    at = sink(at);
    if (chunk->left == 0) { // then nothing is below it
        *at = nullptr;
        chunk->next = alctr->full_chunks;
        alctr->full_chunks = chunk;
    }
    return block;
}

// ---- slots of the table -----------------------------------------------------------------------------------

void stack_allocator_destroy(ALLOCATOR alctr)
{
    eko_freeSmallBlock(alctr);
}

} // namespace

void* stack_allocator_alloc(size_t size, ALLOCATOR data)
{
    STACK_ALLOCATOR_ENTRY* alctr = stateOf(data);
    if (!roundUp(size, BLOCK_ALIGNMENT, &size))
        return nullptr;
    STACK_CHUNK_HDR** at = chunkWithRoom(alctr, size);
    if (!at)
        return nullptr;
    return allocate_from_this_chunk(alctr, at, size);
}

namespace {

void* stack_allocator_realloc(void*, size_t, ALLOCATOR)
{
    EKO_ASSERT(0);
    return nullptr;
}

void stack_allocator_free(void*, ALLOCATOR) {}

// Each kind from the newest chunk to the oldest: the order in which large blocks come back decides which ones are
// handed out next. The bytes figure stays as it is: it only grows.
void stack_allocator_free_all(ALLOCATOR data)
{
    STACK_ALLOCATOR_ENTRY* alctr = stateOf(data);
    while (alctr->partial_chunks)
        eko_freeLargeBlock(removeNewest(&alctr->partial_chunks), &alctr->mem_info.capacity);
    while (alctr->full_chunks) {
        STACK_CHUNK_HDR* chunk = alctr->full_chunks;
        alctr->full_chunks = chunk->next;
        eko_freeLargeBlock(chunk, &alctr->mem_info.capacity);
    }
}

void stack_allocator_mem_info(ALLOCATOR alctr, EKO_TAG_MEM_INFO* info)
{
    copyMemInfo(stateOf(alctr)->mem_info, info);
}

} // namespace

#if EKO_CHECKED
static bool holds(const STACK_CHUNK_HDR* chunk, const void* ptr)
{
    for (; chunk; chunk = chunk->next) {
        if (within(ptr, chunk, CHUNK_HDR + chunk->offset) || (chunk->left && holds(chunk->prev, ptr)))
            return true;
    }
    return false;
}

bool stack_allocator_owns(ALLOCATOR alctr, const void* ptr)
{
    return holds(stateOf(alctr)->partial_chunks, ptr) || holds(stateOf(alctr)->full_chunks, ptr);
}
#endif

ALLOCATOR stack_allocator_create(ALLOCATOR_FCNS* fcns)
{
    auto* state = static_cast<STACK_ALLOCATOR_ENTRY*>(eko_allocSmallBlock(sizeof(STACK_ALLOCATOR_ENTRY)));
    if (!state)
        return nullptr;
    state->blocksize = BLOCKSIZE;
    *fcns = {stack_allocator_destroy, stack_allocator_alloc,    stack_allocator_realloc,
             stack_allocator_free,    stack_allocator_free_all, stack_allocator_mem_info};
    return state;
}
