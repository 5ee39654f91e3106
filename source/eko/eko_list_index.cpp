// SPDX-License-Identifier: MIT
// The list allocator's index of free blocks, see eko_list_index.h.

#include "eko_list_index.h"

#include <stdlib.h>

constexpr size_t SLAB_NODES = 64;

struct LIST_SLAB {
    LIST_SLAB* next;
    LIST_NODE nodes[SLAB_NODES];
};

// ---- treaps -----------------------------------------------------------------------------------------------

namespace {

bool precedes(const LIST_NODE* a, const LIST_NODE* b)
{
    return a->key != b->key ? a->key < b->key : isMetBefore(a, b);
}

// Of neighbours in a treap as different as if it were drawn.
uint32 priorityOf(const LIST_NODE* node)
{
    const uint64 address = reinterpret_cast<uintptr_t>(node);
    uint32 h = static_cast<uint32>(address >> 3) ^ static_cast<uint32>(address >> 35);
    h = (h ^ h >> 16) * 0x7FEB352D;
    h = (h ^ h >> 15) * 0x846CA68B;
    return h ^ h >> 16;
}

LIST_NODE** sideOf(LIST_NODE* node, bool right)
{
    return right ? &node->right : &node->left;
}

// Cuts a treap in two: what precedes the node, and what follows it.
void split(LIST_NODE* treap, const LIST_NODE* node, LIST_NODE** before, LIST_NODE** after)
{
    while (treap) {
        if (precedes(treap, node)) {
            *before = treap;
            before = &treap->right;
            treap = *before;
        } else {
            *after = treap;
            after = &treap->left;
            treap = *after;
        }
    }
    *before = nullptr;
    *after = nullptr;
}

} // namespace

void treapInsert(LIST_NODE** root, LIST_NODE* node, uintptr_t key)
{
    node->key = key;
    const uint32 priority = priorityOf(node);
    while (*root && priorityOf(*root) >= priority)
        root = sideOf(*root, precedes(*root, node));
    split(*root, node, &node->left, &node->right);
    *root = node;
}

void treapErase(LIST_NODE** root, LIST_NODE* node)
{
    while (*root != node) {
        EKO_ASSERT(*root != nullptr);
        root = sideOf(*root, precedes(*root, node));
    }
    LIST_NODE* before = node->left;
    LIST_NODE* after = node->right;
    while (before && after) { // one of them becomes the root of both
        const bool left = priorityOf(before) >= priorityOf(after);
        LIST_NODE*& upper = left ? before : after;
        *root = upper;
        root = sideOf(upper, left);
        upper = *root;
    }
    *root = before ? before : after;
}

LIST_NODE* treapLowerBound(LIST_NODE* root, uintptr_t key)
{
    LIST_NODE* found = nullptr;
    while (root) {
        const bool less = root->key < key;
        if (!less)
            found = root;
        root = *sideOf(root, less);
    }
    return found;
}

// ---- heaps ------------------------------------------------------------------------------------------------

namespace {

// One heap of those in a row: in pairs first, then each pair with those behind it.
LIST_NODE* meldRow(LIST_NODE* row)
{
    LIST_NODE* pairs = nullptr; // the last one first
    while (row) {
        LIST_NODE* heap = row;
        LIST_NODE* other = row->next;
        row = other ? other->next : nullptr;
        if (other)
            heap = heapMeld(heap, other);
        heap->next = pairs;
        pairs = heap;
    }
    LIST_NODE* root = pairs;
    for (LIST_NODE* heap = root->next; heap;) {
        LIST_NODE* next = heap->next;
        root = heapMeld(root, heap);
        heap = next;
    }
    return root;
}

} // namespace

// Those below the node take its place.
void heapErase(LIST_NODE** root, LIST_NODE* node)
{
    LIST_NODE* back = node->back;
    LIST_NODE* next = node->next;
    LIST_NODE* heap = next;
    if (node->child) {
        heap = meldRow(node->child);
        heap->next = next;
        if (next)
            next->back = heap;
    }
    if (heap)
        heap->back = back;
    *(!back ? root : back->child == node ? &back->child : &back->next) = heap;
}

// ---- bins -------------------------------------------------------------------------------------------------

namespace {

constexpr auto EXACT_BITS = static_cast<size_t>(std::countr_zero(LIST_EXACT));

size_t largeBin(size_t size) // from LIST_EXACT on
{
    const auto doublings = static_cast<size_t>(std::bit_width(size / LIST_EXACT));
    const size_t half = size >> (doublings + EXACT_BITS - 2) & 1;
    const size_t bin = LIST_EXACT_BINS + 2 * (doublings - 1) + half;
    return bin < LIST_BINS ? bin : LIST_BINS - 1;
}

} // namespace

void binInsertLarge(LIST_INDEX* index, LIST_NODE* node, size_t size)
{
    const size_t bin = largeBin(size);
    treapInsert(&index->bins[bin], node, size);
    setFilled(index, bin);
}

void binEraseLarge(LIST_INDEX* index, LIST_NODE* node, size_t size)
{
    const size_t bin = largeBin(size);
    treapErase(&index->bins[bin], node);
    if (!index->bins[bin])
        clearFilled(index, bin);
}

LIST_NODE* binFindLarge(const LIST_INDEX* index, size_t size)
{
    size_t bin = largeBin(size);
    if (LIST_NODE* node = treapLowerBound(index->bins[bin], size))
        return node;
    if (++bin == LIST_BINS)
        return nullptr;
    bin = binFilledFrom(index, bin);
    return bin < LIST_BINS ? treapLowerBound(index->bins[bin], size) : nullptr;
}

// ---- nodes ------------------------------------------------------------------------------------------------

namespace {

bool addSpareNodes(LIST_INDEX* index)
{
    auto* slab = static_cast<LIST_SLAB*>(malloc(sizeof(LIST_SLAB)));
    if (!slab)
        return false;
    slab->next = index->slabs;
    index->slabs = slab;
    index->used += SLAB_NODES; // until they are given
    for (size_t i = SLAB_NODES; i > 0; --i)
        giveNode(index, &slab->nodes[i - 1]);
    return true;
}

bool readyNodes(LIST_INDEX* index)
{
    return hasSpareNodes(index) || addSpareNodes(index);
}

// ---- blocks and their nodes -------------------------------------------------------------------------------

// Stamps for all blocks of a list; the head gets the one that is answered, each other one less than the one before.
uint64 takeStamps(LIST_INDEX* index, const LIST_CHUNK_HDR* chunk)
{
    for (const LIST_HDR* p = chunk->free_hdrs; p; p = p->ptr.next)
        ++index->latest;
    return index->latest;
}

} // namespace

LIST_NODE* makeNodeInPlace(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* p, LIST_HDR* q)
{
    LIST_NODE* node = makeNode(index, chunk, p, nodeOfChunk(index, chunk)->order, 0);
    node->before = q;
    uint64 stamp = takeStamps(index, chunk);
    for (LIST_HDR* at = chunk->free_hdrs; at; at = at->ptr.next) {
        if (at == p)
            node->stamp = stamp;
        else if (hasNode(at))
            nodeOf(at)->stamp = stamp;
        --stamp;
    }
    return node;
}

void addChunkNode(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, uint64 order)
{
    LIST_NODE* node = takeNode(index);
    node->order = order;
    treapInsert(&index->chunks, node, reinterpret_cast<uintptr_t>(chunk));
}

void removeChunkNode(LIST_INDEX* index, LIST_CHUNK_HDR* chunk)
{
    LIST_NODE* node = nodeOfChunk(index, chunk);
    treapErase(&index->chunks, node);
    giveNode(index, node);
}

// ---- the index --------------------------------------------------------------------------------------------

namespace {

LIST_INDEX* createIndex() // null without memory
{
    auto* index = static_cast<LIST_INDEX*>(calloc(1, sizeof(LIST_INDEX)));
    if (!index)
        return nullptr;
    setFilled(index, LIST_BINS);
    index->none.size = sizeof(index->payload);
    nodeOf(&index->none) = &index->nodeOfNone;
    return index;
}

// Writes into the free blocks what they know without an index.
void writeFreeBlocks(LIST_CHUNK_HDR* chunks)
{
    for (LIST_CHUNK_HDR* chunk = chunks; chunk; chunk = chunk->next) {
        LIST_HDR* q = nullptr;
        for (LIST_HDR* p = chunk->free_hdrs; p; q = p, p = p->ptr.next) {
            if (knowsBefore(p))
                beforeOf(p) = q;
            if (p->size > 0)
                sizeAtEnd(behind(p)) = p->size;
        }
    }
}

void dropIndex(LIST_CHUNK_HDR* chunks, LIST_INDEX* index)
{
    writeFreeBlocks(chunks);
    destroyIndex(index);
    chunks->index = nullptr;
}

// The nodes of a chunk and of its free blocks. False when there is no memory for all of them.
bool addChunkNodes(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, uint64 order)
{
    if (!readyNodes(index))
        return false;
    addChunkNode(index, chunk, order);
    uint64 stamp = takeStamps(index, chunk);
    LIST_HDR* q = nullptr;
    for (LIST_HDR* p = chunk->free_hdrs; p; q = p, p = p->ptr.next, --stamp) {
        if (!hasNode(p))
            continue;
        if (!readyNodes(index))
            return false;
        LIST_NODE* node = makeNode(index, chunk, p, order, stamp);
        node->before = q;
        addNode(index, node, p, p->size);
    }
    return true;
}

} // namespace

void makeIndex(LIST_CHUNK_HDR* chunks)
{
    if (readUnlocked(eko_membuffer)) // is all the memory there is
        return;
    LIST_INDEX* index = createIndex();
    if (!index)
        return;
    chunks->index = index;
    for (const LIST_CHUNK_HDR* chunk = chunks; chunk; chunk = chunk->next)
        ++index->newest;
    uint64 order = index->newest;
    for (LIST_CHUNK_HDR* chunk = chunks; chunk; chunk = chunk->next) {
        if (!addChunkNodes(index, chunk, order--))
            return dropIndex(chunks, index);
    }
}

LIST_INDEX* refillIndex(LIST_CHUNK_HDR* chunks)
{
    LIST_INDEX* index = chunks->index;
    if (!isTooSmall(index) && addSpareNodes(index))
        return index;
    dropIndex(chunks, index);
    return nullptr;
}

void destroyIndex(LIST_INDEX* index)
{
    while (LIST_SLAB* slab = index->slabs) {
        index->slabs = slab->next;
        free(slab);
    }
    free(index);
}
