// SPDX-License-Identifier: MIT
// eko_block_allocator.h - inside the memory modules: the way that most requests take through the block allocator,
// for the tag layer to take without a call. What it leaves out is in the module.
#ifndef EKO_EKO_BLOCK_ALLOCATOR_H
#define EKO_EKO_BLOCK_ALLOCATOR_H

#include <stddef.h>

#include <bit>

#include "ekomem_int.h"

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
        uint64 size;     // in use
        BLOCK_HDR* next; // free
        uintptr_t uncut; // free, the last of its list: see eko_block_allocator.cpp
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

static_assert(offsetof(BLOCK_ALLOCATOR_ENTRY, size8192) == BLOCK_8192_BYTES * sizeof(BLOCK_HDR*));

// The free list of a class. The lists stand at the beginning, in the order of their classes.
inline BLOCK_HDR*& listOf(BLOCK_ALLOCATOR_ENTRY* alctr, BLOCK_TYPE type)
{
    return reinterpret_cast<BLOCK_HDR**>(alctr)[type];
}

constexpr uint32 SMALLEST_CLASS_BITS = 4; // 16 bytes
constexpr size_t LARGEST_CLASS = 8192;
constexpr size_t LARGEST_CUT_AT_ONCE = 512; // lists of larger blocks can end in an uncut rest

constexpr size_t classSize(BLOCK_TYPE type)
{
    return size_t{16} << type;
}

// DELIBERATE: what fits 16 bytes is served from the class of 32, and the list of 16 stays empty. The engine's
// figures of memory in use are calibrated on it. Pinned by block_smallest_class_is_32.
inline BLOCK_TYPE classForRequest(size_t size) // 1 to LARGEST_CLASS
{
    const size_t highest = (size - 1) | (classSize(BLOCK_32_BYTES) - 1);
    return static_cast<BLOCK_TYPE>(static_cast<uint32>(std::bit_width(highest)) - SMALLEST_CLASS_BITS);
}

inline BLOCK_TYPE classOfSize(size_t size) // of a class
{
    return static_cast<BLOCK_TYPE>(static_cast<uint32>(std::countr_zero(size)) - SMALLEST_CLASS_BITS);
}

inline BLOCK_HDR* blockHeaderOf(void* payload)
{
    return static_cast<BLOCK_HDR*>(payload) - 1;
}

inline void* handOut(BLOCK_ALLOCATOR_ENTRY* alctr, BLOCK_HDR* block, size_t size)
{
    block->hdr.size = size;
    eko_inc_mem_info(&alctr->mem_info.bytes, size);
    return block + 1;
}

// A block from the list of its class; null for other requests, and when the list is empty.
inline void* takeListed(ALLOCATOR data, size_t size)
{
    auto* alctr = static_cast<BLOCK_ALLOCATOR_ENTRY*>(data);
    if (size - 1 >= LARGEST_CUT_AT_ONCE) // 0, too
        return nullptr;
    const BLOCK_TYPE type = classForRequest(size);
    BLOCK_HDR*& list = listOf(alctr, type);
    BLOCK_HDR* block = list;
    if (!block)
        return nullptr;
    list = block->hdr.next;
    return handOut(alctr, block, classSize(type));
}

// Puts a block of a class on its list; false for a large one.
inline bool giveListed(ALLOCATOR data, void* ptr)
{
    auto* alctr = static_cast<BLOCK_ALLOCATOR_ENTRY*>(data);
    BLOCK_HDR* block = blockHeaderOf(ptr);
    const size_t size = static_cast<size_t>(block->hdr.size);
    if (size > LARGEST_CLASS)
        return false;
    BLOCK_HDR*& list = listOf(alctr, classOfSize(size));
    block->hdr.next = list;
    list = block;
    eko_dec_mem_info(&alctr->mem_info.bytes, size);
    return true;
}

[[gnu::visibility("hidden")]] void* block_allocator_alloc(size_t size, ALLOCATOR data);
[[gnu::visibility("hidden")]] void* block_allocator_realloc(void* ptr, size_t newsize, ALLOCATOR data);
[[gnu::visibility("hidden")]] void block_allocator_free(void* ptr, ALLOCATOR data);

#endif
