// The list allocator's index of free blocks, see eko_list_index.h.

#include "eko_list_index.h"

#include <stdlib.h>

#include <algorithm>

namespace {

constexpr unsigned DISTANCE_BITS = 32; // of a tight block from its chunk's start, in units of 8 bytes
constexpr unsigned DISTANCE_SHIFT = 32;

bool isFree(LIST_CHUNK_HDR* chunk, const LIST_HDR* block)
{
    return block->chunk != chunk;
}
size_t sizeOfAny(LIST_CHUNK_HDR* chunk, const LIST_HDR* block)
{
    return isFree(chunk, block) ? freeSize(block) : block->size & ~FLAGS;
}

template <class Visit> void forEachFree(LIST_CHUNK_HDR* chunk, Visit visit)
{
    LIST_HDR* const end = endOf(chunk);
    for (LIST_HDR* p = firstBlock(chunk); p != end; p = behind(p, sizeOfAny(chunk, p))) {
        if (isFree(chunk, p))
            visit(p);
    }
}

// ---- what a free block knows ------------------------------------------------------------------------------

uint64 distance(const LIST_CHUNK_HDR* chunk, const LIST_HDR* p)
{
    return static_cast<uint64>(bytesOf(p) - bytesOf(chunk)) / BLOCK_ALIGNMENT;
}

LIST_CHUNK_HDR* chunkOf(LIST_HDR* p)
{
    if (isTight(freeSize(p)))
        return reinterpret_cast<LIST_CHUNK_HDR*>(
            bytesOf(p) - static_cast<size_t>(uint64(p->size) >> DISTANCE_SHIFT) * BLOCK_ALIGNMENT);
    return reinterpret_cast<LIST_CHUNK_HDR*>(bytesOf(p->chunk) - 1);
}

bool hasLinks(const LIST_CHUNK_HDR* chunk, const LIST_HDR* p, size_t size)
{
    return size >= 2 * sizeof(void*) || (isTight(size) && distance(chunk, p) >> DISTANCE_BITS == 0);
}

// Left and right. The left one of a tight block takes the place of the chunk, which it never equals.
LINK* linksOf(LIST_HDR* p)
{
    auto* payload = reinterpret_cast<LINK*>(bytesOf(p) + HDR);
    return isTight(freeSize(p)) ? payload - 1 : payload;
}

// ---- trees ------------------------------------------------------------------------------------------------

bool precedes(LIST_HDR* a, LIST_HDR* b)
{
    const size_t sizeA = freeSize(a);
    const size_t sizeB = freeSize(b);
    if (sizeA != sizeB)
        return sizeA < sizeB;
    const LIST_CHUNK_HDR* chunkA = chunkOf(a);
    const LIST_CHUNK_HDR* chunkB = chunkOf(b);
    return chunkA == chunkB ? stampOf(a) > stampOf(b) : chunkA->order > chunkB->order;
}

// Of neighbours in a tree as different as if it were drawn.
uint32 priorityOf(const LIST_HDR* p)
{
    const uint64 address = reinterpret_cast<uintptr_t>(p);
    uint32 h = static_cast<uint32>(address >> 3) ^ static_cast<uint32>(address >> 35);
    h = (h ^ h >> 16) * 0x7FEB352D;
    h = (h ^ h >> 15) * 0x846CA68B;
    return h ^ h >> 16;
}

void insert(LINK* root, LIST_HDR* p)
{
    LINK* at = root;
    if (*at) {
        const uint32 priority = priorityOf(p);
        while (*at && priorityOf(*at) >= priority)
            at = &linksOf(*at)[precedes(*at, p)];
    }
    LIST_HDR* rest = *at; // goes below the block, cut in two by it
    *at = p;
    LINK* before = &linksOf(p)[0];
    LINK* after = &linksOf(p)[1];
    while (rest) {
        LINK*& side = precedes(rest, p) ? before : after;
        *side = rest;
        side = &linksOf(rest)[&side == &before];
        rest = *side;
    }
    *before = nullptr;
    *after = nullptr;
}

void erase(LINK* root, LIST_HDR* p)
{
    LINK* at = root;
    while (*at != p) {
        EKO_ASSERT(*at != nullptr);
        at = &linksOf(*at)[precedes(*at, p)];
    }
    LIST_HDR* before = linksOf(p)[0];
    LIST_HDR* after = linksOf(p)[1];
    while (before && after) {
        const bool right = priorityOf(before) >= priorityOf(after);
        LIST_HDR*& upper = right ? before : after;
        *at = upper;
        at = &linksOf(upper)[right];
        upper = *at;
    }
    *at = before ? before : after;
}

// The first that holds `size` bytes, or null.
LIST_HDR* lowerBound(LIST_HDR* root, size_t size)
{
    LIST_HDR* found = nullptr;
    for (LIST_HDR* p = root; p;) {
        const bool small = freeSize(p) < size;
        if (!small)
            found = p;
        p = linksOf(p)[small];
    }
    return found;
}

size_t treeOf(size_t size)
{
    if (size < LIST_EXACT)
        return size / BLOCK_ALIGNMENT;
    constexpr auto FIRST = static_cast<unsigned>(std::bit_width(LIST_EXACT));
    const auto width = static_cast<unsigned>(std::bit_width(size));
    const size_t half = size >> (width - 2) & 1;
    const size_t tree = LIST_EXACT_TREES + size_t{2} * (width - FIRST) + half;
    return tree < LIST_TREES ? tree : LIST_TREES - 1;
}

// The first tree from there on that is not empty, or LIST_TREES.
size_t filledFrom(const LIST_INDEX* index, size_t tree)
{
    uint64 mask = ~uint64(0) << tree % 64;
    for (size_t word = tree / 64; word < LIST_TREES / 64; ++word) {
        if (const uint64 bits = index->filled[word] & mask)
            return word * 64 + static_cast<size_t>(std::countr_zero(bits));
        mask = ~uint64(0);
    }
    return LIST_TREES;
}

LIST_HDR* find(const LIST_INDEX* index, size_t size)
{
    size_t tree = treeOf(size);
    if (LIST_HDR* p = lowerBound(index->trees[tree], size))
        return p;
    tree = filledFrom(index, tree + 1);
    return tree < LIST_TREES ? lowerBound(index->trees[tree], size) : nullptr;
}

// ---- without an index -------------------------------------------------------------------------------------

BEST_FIT walk(LIST_CHUNK_HDR* chunks, size_t size)
{
    BEST_FIT best = {nullptr, nullptr};
    size_t least = SIZE_MAX;
    for (LIST_CHUNK_HDR* chunk = chunks; chunk; chunk = chunk->next) {
        forEachFree(chunk, [&](LIST_HDR* p) {
            const size_t has = freeSize(p);
            const bool newer = has == least && best.chunk == chunk && stampOf(p) > stampOf(best.p);
            if (has >= size && (has < least || newer)) {
                least = has;
                best = {chunk, p};
            }
        });
    }
    return best;
}

// ---- numbers ----------------------------------------------------------------------------------------------

// The free block with the least stamp above that one, or null.
LIST_HDR* nextByStamp(LIST_CHUNK_HDR* chunk, size_t stamp)
{
    LIST_HDR* next = nullptr;
    forEachFree(chunk, [&](LIST_HDR* p) {
        if (stampOf(p) > stamp && (!next || stampOf(p) < stampOf(next)))
            next = p;
    });
    return next;
}

void setStamp(LIST_HDR* p, size_t stamp)
{
    if (p->size & FLAGS)
        p->size += (stamp - stampOf(p)) * BLOCK_ALIGNMENT;
    else
        reinterpret_cast<size_t*>(bytesOf(p) + HDR)[2] = stamp;
}

// The n-th of them gets n, which is never more than it had: those still to come keep the larger ones.
size_t renumberFree(LIST_CHUNK_HDR* chunk)
{
    size_t stamp = 0;
    size_t last = 0;
    while (LIST_HDR* p = nextByStamp(chunk, last)) {
        last = stampOf(p);
        setStamp(p, ++stamp);
    }
    return stamp;
}

} // namespace

void writeFree(LIST_CHUNK_HDR* chunk, LIST_HDR* p, size_t size, size_t stamp)
{
    p->chunk = reinterpret_cast<LIST_CHUNK_HDR*>(bytesOf(chunk) + 1);
    if (!isSmall(size)) {
        p->size = size;
        reinterpret_cast<size_t*>(bytesOf(p) + HDR)[2] = stamp;
        return;
    }
    p->size = stamp * BLOCK_ALIGNMENT + 1 + size / BLOCK_ALIGNMENT;
    if (isTight(size))
        p->size += static_cast<size_t>(distance(chunk, p) << DISTANCE_SHIFT);
}

void addToIndex(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* p)
{
    if (!index)
        return;
    const size_t size = freeSize(p);
    if (!hasLinks(chunk, p, size)) {
        ++index->without;
        return;
    }
    const size_t tree = treeOf(size);
    insert(&index->trees[tree], p);
    index->filled[tree / 64] |= uint64(1) << tree % 64;
}

void removeFromIndex(LIST_INDEX* index, LIST_CHUNK_HDR* chunk, LIST_HDR* p)
{
    if (!index)
        return;
    const size_t size = freeSize(p);
    if (!hasLinks(chunk, p, size)) {
        --index->without;
        return;
    }
    const size_t tree = treeOf(size);
    erase(&index->trees[tree], p);
    if (!index->trees[tree])
        index->filled[tree / 64] &= ~(uint64(1) << tree % 64);
}

BEST_FIT bestFit(const LIST_INDEX* index, LIST_CHUNK_HDR* chunks, size_t size)
{
    if (!index || (index->without > 0 && size < 2 * sizeof(void*)))
        return walk(chunks, size);
    LIST_HDR* p = find(index, size);
    if (!p)
        return {nullptr, nullptr};
    return {chunkOf(p), p};
}

LIST_INDEX* makeIndex(LIST_CHUNK_HDR* chunks)
{
    auto* index = static_cast<LIST_INDEX*>(calloc(1, sizeof(LIST_INDEX)));
    for (LIST_CHUNK_HDR* chunk = chunks; index && chunk; chunk = chunk->next)
        forEachFree(chunk, [=](LIST_HDR* p) { addToIndex(index, chunk, p); });
    return index;
}

size_t renumber(LIST_CHUNK_HDR* chunks)
{
    size_t count = 0;
    size_t largest = 0;
    for (LIST_CHUNK_HDR* chunk = chunks; chunk; chunk = chunk->next) {
        largest = std::max(largest, renumberFree(chunk));
        ++count;
    }
    largest = std::max(largest, count);
    for (LIST_CHUNK_HDR* chunk = chunks; chunk; chunk = chunk->next)
        chunk->order = count--;
    return largest;
}
