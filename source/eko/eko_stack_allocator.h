// SPDX-License-Identifier: MIT
// eko_stack_allocator.h - inside the memory modules: the way that most requests take through the stack allocator,
// for the tag layer to take without a call. What it leaves out is in the module.
#ifndef EKO_EKO_STACK_ALLOCATOR_H
#define EKO_EKO_STACK_ALLOCATOR_H

#include "ekomem_int.h"

struct STACK_CHUNK_HDR {
    STACK_CHUNK_HDR* prev; // partial: the newer ones below it in the tree, each with less room than this
    STACK_CHUNK_HDR* next; // partial: the older ones, none with more room; full: the next in the list
    uint32 offset;         // bytes used behind this header
    uint32 left;           // bytes still free
};

struct STACK_ALLOCATOR_ENTRY {
    STACK_CHUNK_HDR* partial_chunks; // root of the tree
    STACK_CHUNK_HDR* full_chunks;
    size_t blocksize; // least chunk payload
    EKO_TAG_MEM_INFO mem_info;
};

// The next bytes of a chunk that has them, a multiple of 8.
inline void* cutFrom(STACK_ALLOCATOR_ENTRY* alctr, STACK_CHUNK_HDR* chunk, uint32 size)
{
    void* block = reinterpret_cast<char*>(chunk + 1) + chunk->offset;
    chunk->offset += size;
    chunk->left -= size;
    eko_inc_mem_info(&alctr->mem_info.bytes, size);
    return block;
}

// A block from the chunk on top of the tree, if that is the newest of all, so that it serves whatever fits, and
// stays partial; else null. Whether older ones have more room now is left to the next request that does not fit. A
// partial chunk has 8 bytes or more.
inline void* takeFromTop(ALLOCATOR data, size_t size)
{
    auto* alctr = static_cast<STACK_ALLOCATOR_ENTRY*>(data);
    STACK_CHUNK_HDR* top = alctr->partial_chunks;
    if (!top || top->prev || size - 1 >= top->left - BLOCK_ALIGNMENT) // 0, too
        return nullptr;
    return cutFrom(alctr, top, static_cast<uint32>(size + (BLOCK_ALIGNMENT - 1)) & ~uint32{BLOCK_ALIGNMENT - 1});
}

[[gnu::visibility("hidden")]] void* stack_allocator_alloc(size_t size, ALLOCATOR data);

#endif
