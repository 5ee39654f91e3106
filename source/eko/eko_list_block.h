// SPDX-License-Identifier: MIT
// eko_list_block.h - inside the list allocator: how blocks lie in a chunk, and what a free one writes into itself.
#ifndef EKO_EKO_LIST_BLOCK_H
#define EKO_EKO_LIST_BLOCK_H

#include "ekomem_int.h"

struct LIST_CHUNK_HDR;
struct LIST_INDEX;
struct LIST_NODE;

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
    union {
        LIST_CHUNK_HDR* prev;
        LIST_INDEX* index; // of the first chunk: the allocator's, or null
    };
    LIST_HDR* free_hdrs;
};

constexpr size_t HDR = sizeof(LIST_HDR);
constexpr size_t CHUNK_HDR = sizeof(LIST_CHUNK_HDR);
constexpr size_t BELOW_FREE = 1;  // flag: the block below is free, and its size stands at its end
constexpr size_t BELOW_EMPTY = 2; // flag: the block below is free and has no payload
constexpr size_t FLAGS = BLOCK_ALIGNMENT - 1;

static_assert(HDR % BLOCK_ALIGNMENT == 0 && CHUNK_HDR % BLOCK_ALIGNMENT == 0);
static_assert(sizeof(void*) != 4 || (HDR == 8 && CHUNK_HDR == 16));

// ---- addresses --------------------------------------------------------------------------------------------

inline char* bytesOf(void* p)
{
    return static_cast<char*>(p);
}
inline LIST_HDR* headerOf(void* payload)
{
    return reinterpret_cast<LIST_HDR*>(bytesOf(payload) - HDR);
}
inline void* payloadOf(LIST_HDR* block)
{
    return bytesOf(block) + HDR;
}
inline size_t sizeOf(const LIST_HDR* block)
{
    return block->size & ~FLAGS;
}
inline LIST_HDR* behind(LIST_HDR* block, size_t size)
{
    return reinterpret_cast<LIST_HDR*>(bytesOf(block) + HDR + size);
}
inline LIST_HDR* behind(LIST_HDR* block)
{
    return behind(block, sizeOf(block));
}
inline LIST_HDR* firstBlock(LIST_CHUNK_HDR* chunk)
{
    return reinterpret_cast<LIST_HDR*>(bytesOf(chunk) + CHUNK_HDR);
}
inline LIST_HDR* endOf(LIST_CHUNK_HDR* chunk)
{
    return reinterpret_cast<LIST_HDR*>(bytesOf(chunk) + CHUNK_HDR + chunk->size);
}

// ---- what a free block knows ------------------------------------------------------------------------------

// They stand where other data stood.
using BEFORE __attribute__((may_alias)) = LIST_HDR*;
using SIZE_AT_END __attribute__((may_alias)) = size_t;
using NODE __attribute__((may_alias)) = LIST_NODE*;

// Without an index, the one before it in its list, if it has room for that beside its size.
inline bool knowsBefore(const LIST_HDR* p)
{
    return p->size >= 2 * sizeof(void*);
}
inline BEFORE& beforeOf(LIST_HDR* p)
{
    return *static_cast<BEFORE*>(payloadOf(p));
}
inline SIZE_AT_END& sizeAtEnd(LIST_HDR* above)
{
    return reinterpret_cast<SIZE_AT_END*>(above)[-1];
}

// With an index, its node.
inline bool hasNode(const LIST_HDR* p)
{
    return __builtin_expect(p->size > 0, 1);
}
inline NODE& nodeAtEnd(LIST_HDR* above)
{
    return reinterpret_cast<NODE*>(above)[-1];
}
inline NODE& nodeOf(LIST_HDR* p)
{
    return nodeAtEnd(behind(p, p->size));
}

#endif
