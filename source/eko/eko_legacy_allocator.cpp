// SPDX-License-Identifier: MIT
// Legacy allocator: each block straight from the system heap, so that a memory checker sees it, on a list, so that
// the tag can still be emptied. No figures, no limit.
//
// Data    block:  | LEGACY_HDR prev next | payload |     newest first from a_first
//         live:   an open-addressing set of the headers of all live blocks, at most half full. It tells a second
//                 free from a first one without a look at memory that is the heap's again.
// Locks   none; the tag's mutex.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ekomem_int.h"

namespace {

struct LEGACY_HDR {
    LEGACY_HDR* prev;
    LEGACY_HDR* next;
};

struct LiveSet {
    LEGACY_HDR** slots; // capacity of them, null for an empty one
    size_t capacity;    // 0 or a power of two
    size_t count;
};

struct LEGACY_ALLOCATOR_ENTRY {
    LEGACY_HDR* a_first;
    LiveSet live;
};

constexpr size_t HDR = sizeof(LEGACY_HDR);
constexpr size_t FIRST_CAPACITY = 64;

static_assert(HDR % BLOCK_ALIGNMENT == 0);

// ---- the set of live blocks -------------------------------------------------------------------------------

size_t hashOf(const LEGACY_HDR* block)
{
    // Addresses differ in the middle bits; a multiplication carries them to the top ones.
    return static_cast<size_t>((reinterpret_cast<uintptr_t>(block) * uint64{0x9E3779B97F4A7C15}) >> 32);
}

// The slot that holds `block`, or the empty one where it belongs. The set is not full.
size_t slotFor(const LiveSet& set, const LEGACY_HDR* block)
{
    size_t at = hashOf(block) & (set.capacity - 1);
    while (set.slots[at] && set.slots[at] != block)
        at = (at + 1) & (set.capacity - 1);
    return at;
}

bool contains(const LiveSet& set, const LEGACY_HDR* block)
{
    return set.capacity && set.slots[slotFor(set, block)] == block;
}

void insert(LiveSet& set, LEGACY_HDR* block)
{
    set.slots[slotFor(set, block)] = block;
    ++set.count;
}

// Makes sure that one more block can be inserted.
bool reserveOne(LiveSet& set)
{
    if ((set.count + 1) * 2 <= set.capacity)
        return true;
    LiveSet larger = {nullptr, set.capacity ? set.capacity * 2 : FIRST_CAPACITY, 0};
    larger.slots = static_cast<LEGACY_HDR**>(calloc(larger.capacity, sizeof(LEGACY_HDR*)));
    if (!larger.slots)
        return false;
    for (size_t i = 0; i < set.capacity; ++i) {
        if (set.slots[i])
            insert(larger, set.slots[i]);
    }
    free(set.slots);
    set = larger;
    return true;
}

// Removes a block that is there, and moves those that probed past it back, so that no gap hides them.
void erase(LiveSet& set, const LEGACY_HDR* block)
{
    const size_t mask = set.capacity - 1;
    size_t gap = slotFor(set, block);
    for (size_t at = (gap + 1) & mask; set.slots[at]; at = (at + 1) & mask) {
        const size_t home = hashOf(set.slots[at]) & mask;
        if (((at - home) & mask) >= ((at - gap) & mask)) {
            set.slots[gap] = set.slots[at];
            gap = at;
        }
    }
    set.slots[gap] = nullptr;
    --set.count;
}

void clear(LiveSet& set)
{
    free(set.slots);
    set = {nullptr, 0, 0};
}

// ---- blocks -----------------------------------------------------------------------------------------------

LEGACY_ALLOCATOR_ENTRY* stateOf(ALLOCATOR alctr)
{
    return static_cast<LEGACY_ALLOCATOR_ENTRY*>(alctr);
}
LEGACY_HDR* headerOf(void* payload)
{
    return reinterpret_cast<LEGACY_HDR*>(static_cast<char*>(payload) - HDR);
}
void* payloadOf(LEGACY_HDR* block)
{
    return reinterpret_cast<char*>(block) + HDR;
}

// Points the blocks beside it, or the head of the list, at `block`, which is new or has moved.
void linkNeighbors(LEGACY_ALLOCATOR_ENTRY* alctr, LEGACY_HDR* block)
{
    (block->prev ? block->prev->next : alctr->a_first) = block;
    if (block->next)
        block->next->prev = block;
}

// ---- slots of the table -----------------------------------------------------------------------------------

void legacy_allocator_free_all(ALLOCATOR data)
{
    LEGACY_ALLOCATOR_ENTRY* alctr = stateOf(data);
    while (alctr->a_first) {
        LEGACY_HDR* block = alctr->a_first;
        alctr->a_first = block->next;
        free(block);
    }
    clear(alctr->live);
}

void legacy_allocator_destroy(ALLOCATOR data)
{
    clear(stateOf(data)->live);
    free(data);
}

void* legacy_allocator_alloc(size_t size, ALLOCATOR data)
{
    LEGACY_ALLOCATOR_ENTRY* alctr = stateOf(data);
    size_t bytes;
    if (!addSize(size, HDR, &bytes) || !reserveOne(alctr->live))
        return nullptr;
    auto* block = static_cast<LEGACY_HDR*>(malloc(bytes));
    if (!block)
        return nullptr;
    block->prev = nullptr;
    block->next = alctr->a_first;
    linkNeighbors(alctr, block);
    insert(alctr->live, block);
    return payloadOf(block);
}

void* legacy_allocator_realloc(void* ptr, size_t newsize, ALLOCATOR data)
{
    LEGACY_ALLOCATOR_ENTRY* alctr = stateOf(data);
    size_t bytes;
    if (!addSize(newsize, HDR, &bytes))
        return nullptr;
    LEGACY_HDR* block = headerOf(ptr);
    if (!contains(alctr->live, block))
        return nullptr; // freed before
    // Taken out first: once the block has moved, its old address is the heap's.
    erase(alctr->live, block);
    auto* moved = static_cast<LEGACY_HDR*>(realloc(block, bytes));
    insert(alctr->live, moved ? moved : block);
    if (!moved)
        return nullptr;
    linkNeighbors(alctr, moved);
    return payloadOf(moved);
}

void legacy_allocator_free(void* ptr, ALLOCATOR data)
{
    LEGACY_ALLOCATOR_ENTRY* alctr = stateOf(data);
    LEGACY_HDR* block = headerOf(ptr);
    if (!contains(alctr->live, block)) {
        // DELIBERATE: said on standard output and otherwise ignored; this allocator is a debugging aid, and its
        // users read it there. Pinned by legacy_second_free_is_reported_once.
        puts("Attempting to free previously freed memory");
        return;
    }
    erase(alctr->live, block);
    (block->prev ? block->prev->next : alctr->a_first) = block->next;
    if (block->next)
        block->next->prev = block->prev;
    block->prev = nullptr;
    block->next = nullptr;
    free(block);
}

void legacy_allocator_mem_info(ALLOCATOR, EKO_TAG_MEM_INFO* info)
{
    memset(info, 0, sizeof(*info));
}

} // namespace

ALLOCATOR legacy_allocator_create(ALLOCATOR_FCNS* fcns)
{
    ALLOCATOR state = calloc(1, sizeof(LEGACY_ALLOCATOR_ENTRY));
    if (state)
        *fcns = {legacy_allocator_destroy, legacy_allocator_alloc,    legacy_allocator_realloc,
                 legacy_allocator_free,    legacy_allocator_free_all, legacy_allocator_mem_info};
    return state;
}
