// SPDX-License-Identifier: MIT
// Block allocator: fixed size classes, a hundred blocks at a time; anything above 8192 bytes gets a large block of
// its own. The default of the library.
//
// Data    chunk of a class:     | BLOCK_CHUNK_HDR | BLOCK_HDR | payload | BLOCK_HDR | payload | ... a hundred
//         chunk of one block:   | BLOCK_CHUNK_HDR | BLOCK_HDR | payload |
//         A free block's header links the free list of its class; that of a block in use holds its size, which is
//         the class size or, for a large block, the request rounded up to 32. Blocks of a class stay with the
//         allocator until all is freed.
// Locks   none; the tag's mutex.

#include "eko_block_allocator.h"

#include <string.h>

namespace {

constexpr size_t HDR = sizeof(BLOCK_HDR);
constexpr size_t CHUNK_HDR = sizeof(BLOCK_CHUNK_HDR);
constexpr size_t LARGE_ROUNDING = 32;
constexpr size_t BLOCKS_PER_CHUNK = 100;

static_assert(HDR == 8 && CHUNK_HDR % BLOCK_ALIGNMENT == 0);

// The smallest class that holds `size`.
BLOCK_TYPE calc_type(size_t size)
{
    if (size > LARGEST_CLASS)
        return BLOCK_LARGE;
    if (size <= classSize(BLOCK_16_BYTES))
        return BLOCK_16_BYTES;
    return static_cast<BLOCK_TYPE>(static_cast<uint32>(std::bit_width(size - 1)) - SMALLEST_CLASS_BITS);
}

BLOCK_ALLOCATOR_ENTRY* stateOf(ALLOCATOR alctr)
{
    return static_cast<BLOCK_ALLOCATOR_ENTRY*>(alctr);
}
char* bytesOf(void* p)
{
    return static_cast<char*>(p);
}
BLOCK_HDR* onlyBlock(BLOCK_CHUNK_HDR* chunk)
{
    return reinterpret_cast<BLOCK_HDR*>(bytesOf(chunk) + CHUNK_HDR);
}
BLOCK_CHUNK_HDR* chunkOfLarge(BLOCK_HDR* block)
{
    return reinterpret_cast<BLOCK_CHUNK_HDR*>(bytesOf(block) - CHUNK_HDR);
}

// ---- chunks -----------------------------------------------------------------------------------------------

// Points the chunks beside it at `chunk`, which is new or has moved.
void linkNeighbors(BLOCK_ALLOCATOR_ENTRY* alctr, BLOCK_CHUNK_HDR* chunk)
{
    (chunk->prev ? chunk->prev->next : alctr->chunks) = chunk;
    if (chunk->next)
        chunk->next->prev = chunk;
}

// A chunk with `size` bytes behind its header; answers where they start.
BLOCK_HDR* add_chunk(BLOCK_ALLOCATOR_ENTRY* alctr, size_t size)
{
    if (!addSize(size, CHUNK_HDR, &size))
        return nullptr;
    auto* chunk = static_cast<BLOCK_CHUNK_HDR*>(eko_allocLargeBlock(&size, &alctr->mem_info.capacity));
    if (!chunk)
        return nullptr;
    chunk->prev = nullptr;
    chunk->next = alctr->chunks;
    linkNeighbors(alctr, chunk);
    return onlyBlock(chunk);
}

void remove_chunk(BLOCK_ALLOCATOR_ENTRY* alctr, BLOCK_CHUNK_HDR* chunk)
{
    (chunk->prev ? chunk->prev->next : alctr->chunks) = chunk->next;
    if (chunk->next)
        chunk->next->prev = chunk->prev;
    eko_freeLargeBlock(chunk, &alctr->mem_info.capacity);
}

// The blocks of a chunk are used from its end backwards, so its last block goes on the list, which is empty, and
// under it the one before, down to the first. Small blocks are all linked. Of larger ones only the last is listed,
// marked with the number of those before it that are not linked yet: they follow one by one, so that memory is not
// touched before it is used. Freed blocks go on top of the list either way, so the order in which blocks are handed
// out is the same.

uintptr_t uncutMark(size_t before)
{
    return before * 2 + 1; // odd, as no address of a block is
}

void split_chunk(BLOCK_ALLOCATOR_ENTRY* alctr, BLOCK_TYPE type, BLOCK_HDR* first)
{
    const size_t step = classSize(type) + HDR;
    char* last = bytesOf(first) + (BLOCKS_PER_CHUNK - 1) * step;
    BLOCK_HDR*& list = listOf(alctr, type);
    list = reinterpret_cast<BLOCK_HDR*>(last);
    if (classSize(type) > LARGEST_CUT_AT_ONCE) {
        list->hdr.uncut = uncutMark(BLOCKS_PER_CHUNK - 1);
        return;
    }
    first->hdr.next = nullptr;
    for (char* at = bytesOf(first); at < last; at += step)
        reinterpret_cast<BLOCK_HDR*>(at + step)->hdr.next = reinterpret_cast<BLOCK_HDR*>(at);
}

// The block under one on its list.
BLOCK_HDR* under(BLOCK_HDR* block, BLOCK_TYPE type)
{
    if (!(block->hdr.uncut & 1))
        return block->hdr.next;
    if (block->hdr.uncut == uncutMark(0))
        return nullptr;
    auto* before = reinterpret_cast<BLOCK_HDR*>(bytesOf(block) - (classSize(type) + HDR));
    before->hdr.uncut = block->hdr.uncut - 2;
    return before;
}

BLOCK_HDR* allocate_block(BLOCK_ALLOCATOR_ENTRY* alctr, BLOCK_TYPE type)
{
    BLOCK_HDR*& list = listOf(alctr, type);
    if (!list) {
        BLOCK_HDR* first = add_chunk(alctr, BLOCKS_PER_CHUNK * (classSize(type) + HDR));
        if (!first)
            return nullptr;
        split_chunk(alctr, type, first);
    }
    BLOCK_HDR* block = list;
    list = under(block, type);
    return block;
}

// ---- slots of the table -----------------------------------------------------------------------------------

void block_allocator_destroy(ALLOCATOR alctr)
{
    eko_freeSmallBlock(alctr);
}

BLOCK_HDR* allocate_large(BLOCK_ALLOCATOR_ENTRY* alctr, size_t size)
{
    size_t bytes;
    return addSize(size, HDR, &bytes) ? add_chunk(alctr, bytes) : nullptr;
}

} // namespace

void* block_allocator_alloc(size_t size, ALLOCATOR data)
{
    BLOCK_ALLOCATOR_ENTRY* alctr = stateOf(data);
    BLOCK_HDR* block;
    if (size > LARGEST_CLASS) {
        if (!roundUp(size, LARGE_ROUNDING, &size))
            return nullptr;
        block = allocate_large(alctr, size);
    } else {
        const BLOCK_TYPE type = size ? classForRequest(size) : BLOCK_32_BYTES;
        size = classSize(type);
        block = allocate_block(alctr, type);
    }
    return block ? handOut(alctr, block, size) : nullptr;
}

void block_allocator_free(void* ptr, ALLOCATOR data)
{
    if (giveListed(data, ptr))
        return;
    BLOCK_ALLOCATOR_ENTRY* alctr = stateOf(data);
    BLOCK_HDR* block = blockHeaderOf(ptr);
    const size_t size = static_cast<size_t>(block->hdr.size);
    remove_chunk(alctr, chunkOfLarge(block));
    eko_dec_mem_info(&alctr->mem_info.bytes, size);
}

namespace {

// Both sizes are of one type. A block of a class holds the new size already; a large block's chunk is resized.
void* realloc_similar_size(BLOCK_ALLOCATOR_ENTRY* alctr, BLOCK_HDR* block, size_t newsize)
{
    if (newsize <= LARGEST_CLASS)
        return block + 1;
    size_t bytes;
    if (!roundUp(newsize, LARGE_ROUNDING, &newsize) || !addSize(newsize, CHUNK_HDR + HDR, &bytes))
        return nullptr;
    const size_t oldsize = static_cast<size_t>(block->hdr.size);
    auto* chunk =
        static_cast<BLOCK_CHUNK_HDR*>(eko_reallocLargeBlock(chunkOfLarge(block), bytes, &alctr->mem_info.capacity));
    if (!chunk)
        return nullptr;
    linkNeighbors(alctr, chunk);
    eko_inc_mem_info(&alctr->mem_info.bytes, newsize - oldsize);
    block = onlyBlock(chunk);
    block->hdr.size = newsize;
    return block + 1;
}

} // namespace

void* block_allocator_realloc(void* ptr, size_t newsize, ALLOCATOR data)
{
    BLOCK_HDR* block = blockHeaderOf(ptr);
    const size_t oldsize = static_cast<size_t>(block->hdr.size);
    if (oldsize >= newsize) // blocks never shrink
        return ptr;
    if (calc_type(oldsize) == calc_type(newsize))
        return realloc_similar_size(stateOf(data), block, newsize);
    void* moved = block_allocator_alloc(newsize, data);
    if (!moved)
        return nullptr;
    memcpy(moved, ptr, oldsize);
    block_allocator_free(ptr, data);
    return moved;
}

namespace {

void block_allocator_free_all(ALLOCATOR data)
{
    BLOCK_ALLOCATOR_ENTRY* alctr = stateOf(data);
    while (alctr->chunks) {
        BLOCK_CHUNK_HDR* chunk = alctr->chunks;
        alctr->chunks = chunk->next;
        eko_freeLargeBlock(chunk, &alctr->mem_info.capacity);
    }
    for (uint32 type = BLOCK_16_BYTES; type < BLOCK_LARGE; ++type)
        listOf(alctr, static_cast<BLOCK_TYPE>(type)) = nullptr;
    writeUnlocked(alctr->mem_info.bytes.in_use, size_t{0});
    writeUnlocked(alctr->mem_info.capacity.in_use, size_t{0});
}

void block_allocator_mem_info(ALLOCATOR alctr, EKO_TAG_MEM_INFO* info)
{
    copyMemInfo(stateOf(alctr)->mem_info, info);
}

} // namespace

#if EKO_CHECKED
bool block_allocator_owns(ALLOCATOR alctr, const void* ptr)
{
    const BLOCK_CHUNK_HDR* chunk = stateOf(alctr)->chunks;
    while (chunk && !within(ptr, chunk, largeBlockSize(chunk)))
        chunk = chunk->next;
    return chunk != nullptr;
}
#endif

ALLOCATOR block_allocator_create(ALLOCATOR_FCNS* fcns)
{
    ALLOCATOR state = eko_allocSmallBlock(sizeof(BLOCK_ALLOCATOR_ENTRY));
    if (state)
        *fcns = {block_allocator_destroy, block_allocator_alloc,    block_allocator_realloc,
                 block_allocator_free,    block_allocator_free_all, block_allocator_mem_info};
    return state;
}
