// Block allocator: fixed size classes, a hundred blocks at a time; anything above 8192 bytes gets a large block of
// its own. The default of the library.
//
// Data    chunk of a class:     | BLOCK_CHUNK_HDR | BLOCK_HDR | payload | BLOCK_HDR | payload | ... a hundred
//         chunk of one block:   | BLOCK_CHUNK_HDR | BLOCK_HDR | payload |
//         A free block's header links the free list of its class; that of a block in use holds its size, which is
//         the class size or, for a large block, the request rounded up to 32. Blocks of a class stay with the
//         allocator until all is freed.
// Locks   none; the tag's mutex.

#include <bit>
#include <string.h>

#include "ekomem_int.h"

namespace {

enum BLOCK_TYPE : uint32 {
    BLOCK_16_BYTES,
    BLOCK_32_BYTES,
    BLOCK_64_BYTES,
    BLOCK_128_BYTES,
    BLOCK_256_BYTES,
    BLOCK_512_BYTES,
    BLOCK_1024_BYTES,
    BLOCK_2048_BYTES,
    BLOCK_4096_BYTES,
    BLOCK_8192_BYTES,
    BLOCK_LARGE
};

struct BLOCK_HDR {
    union {
        uint64 size;
        BLOCK_HDR* next;
    } hdr;
};

struct BLOCK_CHUNK_HDR {
    BLOCK_CHUNK_HDR* next;
    BLOCK_CHUNK_HDR* prev;
};

struct BLOCK_ALLOCATOR_ENTRY {
    BLOCK_HDR* size16;
    BLOCK_HDR* size32;
    BLOCK_HDR* size64;
    BLOCK_HDR* size128;
    BLOCK_HDR* size256;
    BLOCK_HDR* size512;
    BLOCK_HDR* size1024;
    BLOCK_HDR* size2048;
    BLOCK_HDR* size4096;
    BLOCK_HDR* size8192;
    BLOCK_CHUNK_HDR* chunks;
    EKO_TAG_MEM_INFO mem_info;
};

using FreeList = BLOCK_HDR* BLOCK_ALLOCATOR_ENTRY::*;
constexpr FreeList FREE_LISTS[] = {&BLOCK_ALLOCATOR_ENTRY::size16,   &BLOCK_ALLOCATOR_ENTRY::size32,
                                   &BLOCK_ALLOCATOR_ENTRY::size64,   &BLOCK_ALLOCATOR_ENTRY::size128,
                                   &BLOCK_ALLOCATOR_ENTRY::size256,  &BLOCK_ALLOCATOR_ENTRY::size512,
                                   &BLOCK_ALLOCATOR_ENTRY::size1024, &BLOCK_ALLOCATOR_ENTRY::size2048,
                                   &BLOCK_ALLOCATOR_ENTRY::size4096, &BLOCK_ALLOCATOR_ENTRY::size8192};

constexpr size_t HDR = sizeof(BLOCK_HDR);
constexpr size_t CHUNK_HDR = sizeof(BLOCK_CHUNK_HDR);
constexpr size_t LARGEST_CLASS = 8192;
constexpr size_t LARGE_ROUNDING = 32;
constexpr size_t BLOCKS_PER_CHUNK = 100;
constexpr uint32 SMALLEST_CLASS_BITS = 4; // 16 bytes

static_assert(HDR == 8 && CHUNK_HDR % BLOCK_ALIGNMENT == 0);

constexpr size_t classSize(BLOCK_TYPE type)
{
    return size_t{16} << type;
}

// The smallest class that holds `size`.
BLOCK_TYPE calc_type(size_t size)
{
    if (size > LARGEST_CLASS)
        return BLOCK_LARGE;
    if (size <= classSize(BLOCK_16_BYTES))
        return BLOCK_16_BYTES;
    return static_cast<BLOCK_TYPE>(static_cast<uint32>(std::bit_width(size - 1)) - SMALLEST_CLASS_BITS);
}

// DELIBERATE: what fits 16 bytes is served from the class of 32, and the list of 16 stays empty. The engine's
// figures of memory in use are calibrated on it. Pinned by block_smallest_class_is_32.
BLOCK_TYPE classForRequest(size_t size)
{
    return size <= classSize(BLOCK_32_BYTES) ? BLOCK_32_BYTES : calc_type(size);
}

BLOCK_ALLOCATOR_ENTRY* stateOf(ALLOCATOR alctr)
{
    return static_cast<BLOCK_ALLOCATOR_ENTRY*>(alctr);
}
char* bytesOf(void* p)
{
    return static_cast<char*>(p);
}
BLOCK_HDR* headerOf(void* payload)
{
    return reinterpret_cast<BLOCK_HDR*>(bytesOf(payload) - HDR);
}
void* payloadOf(BLOCK_HDR* block)
{
    return bytesOf(block) + HDR;
}
BLOCK_HDR* onlyBlock(BLOCK_CHUNK_HDR* chunk)
{
    return reinterpret_cast<BLOCK_HDR*>(bytesOf(chunk) + CHUNK_HDR);
}
BLOCK_CHUNK_HDR* chunkOfLarge(BLOCK_HDR* block)
{
    return reinterpret_cast<BLOCK_CHUNK_HDR*>(bytesOf(block) - CHUNK_HDR);
}

void push(BLOCK_ALLOCATOR_ENTRY* alctr, FreeList list, BLOCK_HDR* block)
{
    block->hdr.next = alctr->*list;
    alctr->*list = block;
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

// Cuts from the start, so that the free list then runs from the end backwards.
void split_chunk(BLOCK_ALLOCATOR_ENTRY* alctr, FreeList list, BLOCK_HDR* start, size_t blockSize)
{
    char* at = bytesOf(start);
    for (size_t i = 0; i < BLOCKS_PER_CHUNK; ++i, at += blockSize + HDR)
        push(alctr, list, reinterpret_cast<BLOCK_HDR*>(at));
}

BLOCK_HDR* allocate_block(BLOCK_ALLOCATOR_ENTRY* alctr, BLOCK_TYPE type)
{
    const FreeList list = FREE_LISTS[type];
    if (!(alctr->*list)) {
        BLOCK_HDR* start = add_chunk(alctr, BLOCKS_PER_CHUNK * (classSize(type) + HDR));
        if (!start)
            return nullptr;
        split_chunk(alctr, list, start, classSize(type));
    }
    BLOCK_HDR* block = alctr->*list;
    alctr->*list = block->hdr.next;
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

void* block_allocator_alloc(size_t size, ALLOCATOR data)
{
    BLOCK_ALLOCATOR_ENTRY* alctr = stateOf(data);
    BLOCK_HDR* block;
    if (size > LARGEST_CLASS) {
        if (!roundUp(size, LARGE_ROUNDING, &size))
            return nullptr;
        block = allocate_large(alctr, size);
    } else {
        const BLOCK_TYPE type = classForRequest(size);
        size = classSize(type);
        block = allocate_block(alctr, type);
    }
    if (!block)
        return nullptr;
    block->hdr.size = size;
    eko_inc_mem_info(&alctr->mem_info.bytes, size);
    return payloadOf(block);
}

void block_allocator_free(void* ptr, ALLOCATOR data)
{
    BLOCK_ALLOCATOR_ENTRY* alctr = stateOf(data);
    BLOCK_HDR* block = headerOf(ptr);
    const size_t size = static_cast<size_t>(block->hdr.size);
    if (size <= LARGEST_CLASS)
        push(alctr, FREE_LISTS[calc_type(size)], block);
    else
        remove_chunk(alctr, chunkOfLarge(block));
    eko_dec_mem_info(&alctr->mem_info.bytes, size);
}

// Both sizes are of one type. A block of a class holds the new size already; a large block's chunk is resized.
void* realloc_similar_size(BLOCK_ALLOCATOR_ENTRY* alctr, BLOCK_HDR* block, size_t newsize)
{
    if (newsize <= LARGEST_CLASS)
        return payloadOf(block);
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
    return payloadOf(block);
}

void* block_allocator_realloc(void* ptr, size_t newsize, ALLOCATOR data)
{
    BLOCK_HDR* block = headerOf(ptr);
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

void block_allocator_free_all(ALLOCATOR data)
{
    BLOCK_ALLOCATOR_ENTRY* alctr = stateOf(data);
    while (alctr->chunks) {
        BLOCK_CHUNK_HDR* chunk = alctr->chunks;
        alctr->chunks = chunk->next;
        eko_freeLargeBlock(chunk, &alctr->mem_info.capacity);
    }
    for (const FreeList list : FREE_LISTS)
        alctr->*list = nullptr;
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
