// eko_list_index.h - the list allocator's blocks, and which free one serves a request.
//
// A request gets the block that a walk would choose which passes the chunks, the newest first, and in each its free
// blocks, the one that was put there last first: the first of exactly that size, else the smallest larger one, of
// equals the first met. So free blocks have an order, by size, then by the age of their chunk, then by when they were
// put there, and the first in that order that is large enough is that block. The index finds it without the walk.
//
// Data    chunk:       | LIST_CHUNK_HDR | block | block | ... |
//         block:       | LIST_HDR | payload |
//         free block:  | size | its chunk, marked | left, right | stamp | ... size |
//         small:       | stamp and code of the size | its chunk, marked | left, right |
//         tight:       | the same and how far the chunk's start is | left | right |
//         empty:       | stamp and code of the size | its chunk, marked |
//
//         The links are those of a search tree in the order above, a treap whose priorities are made of the
//         addresses. A tree holds one size, in steps of 8 up to 1024, or the sizes of half a power of two.
//         A block without room for links, which takes a request for no bytes to make, is found by a walk.
//
// The index is not the allocator's memory and in none of its figures. When there is none to be had, blocks are found by
// a walk over all blocks, which chooses the same.
#ifndef EKO_EKO_LIST_INDEX_H
#define EKO_EKO_LIST_INDEX_H

#include <bit>

#include "ekomem_int.h"

struct LIST_CHUNK_HDR;

struct LIST_HDR {
    size_t size;           // bytes behind this header, a multiple of 8; in use: and what is below; free: see above
    LIST_CHUNK_HDR* chunk; // that holds it; never exactly so when it is free
};

struct LIST_CHUNK_HDR {
    size_t size; // bytes behind this header
    LIST_CHUNK_HDR* next;
    LIST_CHUNK_HDR* prev;
    size_t order; // grows from the oldest chunk to the newest
};

constexpr size_t HDR = sizeof(LIST_HDR);
constexpr size_t CHUNK_HDR = sizeof(LIST_CHUNK_HDR);
constexpr size_t FLAGS = BLOCK_ALIGNMENT - 1;
constexpr size_t LIST_STAMPS = size_t(1) << 29; // stamps are below that: they fit beside a code

static_assert(HDR % BLOCK_ALIGNMENT == 0 && CHUNK_HDR % BLOCK_ALIGNMENT == 0);
static_assert(sizeof(void*) != 4 || (HDR == 8 && CHUNK_HDR == 16));

// ---- addresses --------------------------------------------------------------------------------------------

inline char* bytesOf(void* p)
{
    return static_cast<char*>(p);
}
inline const char* bytesOf(const void* p)
{
    return static_cast<const char*>(p);
}
inline LIST_HDR* firstBlock(LIST_CHUNK_HDR* chunk)
{
    return reinterpret_cast<LIST_HDR*>(bytesOf(chunk) + CHUNK_HDR);
}
inline LIST_HDR* endOf(LIST_CHUNK_HDR* chunk)
{
    return reinterpret_cast<LIST_HDR*>(bytesOf(chunk) + CHUNK_HDR + chunk->size);
}
inline LIST_HDR* behind(LIST_HDR* block, size_t size)
{
    return reinterpret_cast<LIST_HDR*>(bytesOf(block) + HDR + size);
}

// ---- free blocks ------------------------------------------------------------------------------------------

constexpr bool isSmall(size_t size)
{
    return size < 3 * sizeof(void*);
}
constexpr bool isTight(size_t size)
{
    return size >= sizeof(void*) && size < 2 * sizeof(void*);
}

inline size_t freeSize(const LIST_HDR* p)
{
    const size_t code = p->size & FLAGS;
    return code == 0 ? p->size : (code - 1) * BLOCK_ALIGNMENT;
}

inline size_t stampOf(const LIST_HDR* p)
{
    if (p->size & FLAGS)
        return p->size / BLOCK_ALIGNMENT % LIST_STAMPS;
    return reinterpret_cast<const size_t*>(bytesOf(p) + HDR)[2];
}

// Makes a free block of what lies there. It is in no tree.
void writeFree(LIST_CHUNK_HDR* chunk, LIST_HDR* p, size_t size, size_t stamp);

// ---- the index --------------------------------------------------------------------------------------------

constexpr size_t LIST_EXACT = 1024; // from there a tree holds many sizes
constexpr size_t LIST_EXACT_TREES = LIST_EXACT / BLOCK_ALIGNMENT;
constexpr size_t LIST_TREES = LIST_EXACT_TREES + 64;

using LINK __attribute__((may_alias)) = LIST_HDR*; // in a free block: stands where other data stood

struct LIST_INDEX {
    uint64 filled[LIST_TREES / 64]; // one bit for each tree that is not empty
    LINK trees[LIST_TREES];
    size_t without; // free blocks without links
};

// Neither may be of another size, stamp or chunk when it is taken out.
void addToIndex(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* p);
void removeFromIndex(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* p);

struct BEST_FIT {
    LIST_CHUNK_HDR* chunk;
    LIST_HDR* p; // null when no free block is large enough
};

// `index` may be null.
BEST_FIT bestFit(const LIST_INDEX* index, LIST_CHUNK_HDR* chunks, size_t size);

// An index of the free blocks of these chunks, to be given to free(); null when there is no memory.
LIST_INDEX* makeIndex(LIST_CHUNK_HDR* chunks);

// Numbers chunks and stamps anew, close together and in the order they have, so that every tree stays as it is.
// Answers the largest number.
size_t renumber(LIST_CHUNK_HDR* chunks);

#endif
