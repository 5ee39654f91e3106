// SPDX-License-Identifier: MIT
// eko_list_index.h - inside the list allocator: which of many free blocks serves a request, without a walk through
// them.
//
// A walk passes the chunks, the newest first, and in each its free blocks, the one that was put there last first,
// and chooses the first of exactly the size, else the smallest larger one, of equals the first met. So free blocks
// have an order, by size, then by the age of their chunk, then by when they were put there, and the first in that
// order that is large enough is that block. The index keeps that order.
//
// Data    node:   one for each free block that has a payload: what its place in the order is made of
//         bins:   one for each size, in steps of 8 up to 4096, and one for each half of a power of two above
//         filled: one bit for each bin that is not empty, so that the next one is found at once
//         chunks: one node for each chunk, by address: how new it is, when none of its blocks is free
//
//         A bin of one size is a pairing heap, whose root is its first node: a new node is compared with the root
//         alone, and one leaves without a search. A bin of many sizes, and the chunks, are treaps, which can be
//         searched; the priorities are made of the nodes' addresses. Most bins have no node or one.
//
// Nodes come in slabs from the system heap, are used again, and go with the index. They are in no figure.
#ifndef EKO_EKO_LIST_INDEX_H
#define EKO_EKO_LIST_INDEX_H

#include <bit>

#include "eko_list_block.h"

struct LIST_NODE {
    LIST_HDR* block;
    LIST_CHUNK_HDR* chunk;
    LIST_HDR* before; // the block before it in the free list, or null
    uint64 order;     // of the chunk: grows from the oldest to the newest
    uint64 stamp;     // in the chunk: grows from the end of the free list to its head
    union {
        LIST_NODE* child; // heap: the first of those below
        LIST_NODE* left;  // treap
        LIST_NODE* spare; // unused: the next one
    };
    union {
        LIST_NODE* next; // heap: the next of those below the same one
        LIST_NODE* right;
    };
    union {
        LIST_NODE* back; // heap: the one whose child or next this is; null for the root
        uintptr_t key;   // treap: the size, or the chunk's address
    };
};

constexpr size_t LIST_LONG_WALK = 16; // past so many chunks and free blocks an index is made
constexpr size_t LIST_SHORT_WALK = 4; // down to so many it is given up
constexpr size_t LIST_EXACT = 4096;   // smaller sizes have a bin each
constexpr size_t LIST_EXACT_BINS = LIST_EXACT / BLOCK_ALIGNMENT;
constexpr size_t LIST_BINS = LIST_EXACT_BINS + 64;
constexpr size_t LIST_MASK_BITS = 8 * sizeof(size_t);
constexpr size_t LIST_MASKS = LIST_BINS / LIST_MASK_BITS;

static_assert(LIST_BINS % LIST_MASK_BITS == 0 && LIST_MASKS < LIST_MASK_BITS);

struct LIST_SLAB;

struct LIST_INDEX {
    size_t masks;                  // one bit for each of those below that is not zero
    size_t filled[LIST_MASKS + 1]; // and one bit for the bin behind the last, so that a search always ends
    LIST_NODE* bins[LIST_BINS];
    LIST_NODE* chunks;
    LIST_NODE* spare;
    size_t used; // nodes that are not spare
    LIST_SLAB* slabs;
    uint64 newest; // the order given last
    uint64 latest; // the stamp given last
    LIST_HDR none; // stands behind the end of every list, with a node, so that nothing branches on the end
    uint64 payload;
    LIST_NODE nodeOfNone;
};

// ---- nodes ------------------------------------------------------------------------------------------------

// What one operation of the allocator can need: a chunk's and its free block's.
inline bool hasSpareNodes(const LIST_INDEX* index)
{
    return index->spare && index->spare->spare;
}
// Whether a walk has become the shorter way. By far: an index is not made and given up in turn.
inline bool isTooSmall(const LIST_INDEX* index)
{
    return index->used <= LIST_SHORT_WALK;
}

// Only while there are spare ones.
inline LIST_NODE* takeNode(LIST_INDEX* index)
{
    LIST_NODE* node = index->spare;
    index->spare = node->spare;
    ++index->used;
    return node;
}
inline void giveNode(LIST_INDEX* index, LIST_NODE* node)
{
    node->spare = index->spare;
    index->spare = node;
    --index->used;
}

inline bool isMetBefore(const LIST_NODE* a, const LIST_NODE* b) // of the same size
{
    return a->order != b->order ? a->order > b->order : a->stamp > b->stamp;
}

// ---- treaps -----------------------------------------------------------------------------------------------

void treapInsert(LIST_NODE** root, LIST_NODE* node, uintptr_t key);
void treapErase(LIST_NODE** root, LIST_NODE* node);
LIST_NODE* treapLowerBound(LIST_NODE* root, uintptr_t key); // the first with that key or a larger one, or null

// ---- heaps ------------------------------------------------------------------------------------------------

// One of two heaps, neither of which is part of another. The root's next is not set.
inline LIST_NODE* heapMeld(LIST_NODE* a, LIST_NODE* b)
{
    if (isMetBefore(b, a)) {
        LIST_NODE* first = b;
        b = a;
        a = first;
    }
    b->back = a;
    b->next = a->child;
    if (b->next)
        b->next->back = b;
    a->child = b;
    return a;
}

void heapErase(LIST_NODE** root, LIST_NODE* node);

// ---- bins -------------------------------------------------------------------------------------------------

inline void setFilled(LIST_INDEX* index, size_t bin)
{
    const size_t mask = bin / LIST_MASK_BITS;
    index->filled[mask] |= size_t{1} << bin % LIST_MASK_BITS;
    index->masks |= size_t{1} << mask;
}
inline void clearFilled(LIST_INDEX* index, size_t bin)
{
    const size_t mask = bin / LIST_MASK_BITS;
    const size_t rest = index->filled[mask] & ~(size_t{1} << bin % LIST_MASK_BITS);
    index->filled[mask] = rest;
    index->masks &= ~(size_t{rest == 0} << mask);
}

void binInsertLarge(LIST_INDEX* index, LIST_NODE* node, size_t size);
void binEraseLarge(LIST_INDEX* index, LIST_NODE* node, size_t size);
LIST_NODE* binFindLarge(const LIST_INDEX* index, size_t size);

inline void binInsert(LIST_INDEX* index, LIST_NODE* node, size_t size)
{
    if (size >= LIST_EXACT) [[unlikely]]
        return binInsertLarge(index, node, size);
    const size_t bin = size / BLOCK_ALIGNMENT;
    LIST_NODE* root = index->bins[bin];
    node->child = nullptr;
    node->next = nullptr;
    node->back = nullptr;
    if (root) [[unlikely]] {
        index->bins[bin] = heapMeld(root, node);
    } else {
        index->bins[bin] = node;
        setFilled(index, bin);
    }
}

inline void binErase(LIST_INDEX* index, LIST_NODE* node, size_t size)
{
    if (size >= LIST_EXACT) [[unlikely]]
        return binEraseLarge(index, node, size);
    const size_t bin = size / BLOCK_ALIGNMENT;
    if (!node->back && !node->child) [[likely]] { // alone
        index->bins[bin] = nullptr;
        clearFilled(index, bin);
    } else {
        heapErase(&index->bins[bin], node);
    }
}

// To choose without a branch. The compiler does not see what it was made of, or it would branch after all.
inline size_t allBitsIf(bool condition)
{
    size_t bits = size_t{0} - size_t{condition};
    __asm__("" : "+r"(bits));
    return bits;
}

inline size_t lowestBit(size_t bits) // of some
{
    return static_cast<size_t>(__builtin_ctzl(bits));
}

// The first bin from there on that is not empty, or LIST_BINS. Which mask it stands in cannot be foreseen, so
// nothing branches on it.
inline size_t binFilledFrom(const LIST_INDEX* index, size_t bin)
{
    const size_t mask = bin / LIST_MASK_BITS;
    const size_t here = index->filled[mask] & ~size_t{0} << bin % LIST_MASK_BITS;
    const size_t next = lowestBit(index->masks & ~size_t{1} << mask);
    const size_t none = allBitsIf(here == 0);
    const size_t bits = here | (index->filled[next] & none);
    return (mask + ((next - mask) & none)) * LIST_MASK_BITS + lowestBit(bits);
}

// The first node of a block that holds `size` bytes, or null.
inline LIST_NODE* binFind(const LIST_INDEX* index, size_t size)
{
    if (size >= LIST_EXACT) [[unlikely]]
        return binFindLarge(index, size);
    const size_t bin = binFilledFrom(index, size / BLOCK_ALIGNMENT);
    return bin < LIST_EXACT_BINS ? index->bins[bin] : binFindLarge(index, LIST_EXACT);
}

// ---- blocks and their nodes -------------------------------------------------------------------------------

inline LIST_NODE* nodeOfChunk(const LIST_INDEX* index, const LIST_CHUNK_HDR* chunk)
{
    return treapLowerBound(index->chunks, reinterpret_cast<uintptr_t>(chunk));
}

inline LIST_NODE* makeNode(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* p, uint64 order, uint64 stamp)
{
    LIST_NODE* node = takeNode(index);
    node->block = p;
    node->chunk = chunk;
    node->before = nullptr;
    node->order = order;
    node->stamp = stamp;
    return node;
}

// Gives a free block that size, and its node the place for it.
inline void addNode(LIST_INDEX* index, LIST_NODE* node, LIST_HDR* p, size_t size)
{
    binInsert(index, node, size);
    p->size = size;
    nodeOf(p) = node;
}

// The node of a block that had no payload, and so no stamp: all blocks of the list get new ones, in the same order.
LIST_NODE* makeNodeInPlace(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* p, LIST_HDR* q);

void addChunkNode(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, uint64 order);
void removeChunkNode(LIST_INDEX* index, LIST_CHUNK_HDR* chunk);

// ---- the index --------------------------------------------------------------------------------------------

// Gives the chunks an index, if there is memory for it.
void makeIndex(LIST_CHUNK_HDR* chunks);

// With nodes for one operation. Without memory for them, or when there is little left to index, the index is given up,
// and the answer is null.
LIST_INDEX* refillIndex(LIST_CHUNK_HDR* chunks);

void destroyIndex(LIST_INDEX* index);

#endif
