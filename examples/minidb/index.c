/* SPDX-License-Identifier: MIT */
/* index.c - a hash table with open addressing, at most three quarters full, that doubles.
 *
 * The table and the bytes have a tag each, because they live differently: tables are replaced by larger ones,
 * while bytes stay until all of them go, which is what a stack tag is for. */
#include <string.h>

#include "minidb.h"

#define FIRST_CAPACITY 1024u
#define MAX_CAPACITY 0x4000000u /* slots, so that a table's size fits in 32 bits */

/* FNV-1a. */
static uint32 hashOf(const char* key, uint32 keyLen)
{
    uint32 hash = 2166136261u;
    for (uint32 i = 0; i < keyLen; ++i)
        hash = (hash ^ (uint8)key[i]) * 16777619u;
    return hash;
}

/* The slot of that key, or the free one where it belongs. There always is a free one. */
static ENTRY* slotOf(ENTRY* slots, uint32 capacity, const char* key, uint32 keyLen, uint32 hash)
{
    for (uint32 i = hash & (capacity - 1);; i = (i + 1) & (capacity - 1)) {
        const PAIR* pair = &slots[i].pair;
        if (!pair->key || (slots[i].hash == hash && pair->keyLen == keyLen && memcmp(pair->key, key, keyLen) == 0))
            return &slots[i];
    }
}

static bool grow(INDEX* index)
{
    const uint32 capacity = index->capacity ? index->capacity * 2 : FIRST_CAPACITY;
    if (capacity > MAX_CAPACITY) {
        complain("more than %u different keys", index->count);
        return false;
    }
    ENTRY* slots = EKO_ZALLOC(capacity * sizeof(ENTRY), index->tableTag);
    if (!slots)
        return false;
    for (uint32 i = 0; i < index->capacity; ++i) {
        const ENTRY* old = &index->slots[i];
        if (old->pair.key)
            *slotOf(slots, capacity, old->pair.key, old->pair.keyLen, old->hash) = *old;
    }
    EKO_FREE(index->slots, index->tableTag);
    index->slots = slots;
    index->capacity = capacity;
    return true;
}

bool indexOpen(INDEX* index)
{
    return makeTag(&index->tableTag, LIST_ALLOCATOR) && makeTag(&index->bytesTag, STACK_ALLOCATOR);
}

void indexClose(INDEX* index)
{
    EKO_TAG_DESTROY(index->tableTag);
    EKO_TAG_DESTROY(index->bytesTag);
}

void indexEmpty(INDEX* index)
{
    EKO_TAG_EMPTY(index->tableTag);
    EKO_TAG_EMPTY(index->bytesTag);
    index->slots = NULL;
    index->capacity = index->count = 0;
}

bool indexPut(INDEX* index, const PAIR* pair, bool keepValue, EKO_FILE_OFFSET at)
{
    if (index->count >= index->capacity / 4 * 3 && !grow(index))
        return false;
    const uint32 hash = hashOf(pair->key, pair->keyLen);
    ENTRY* entry = slotOf(index->slots, index->capacity, pair->key, pair->keyLen, hash);
    const bool added = entry->pair.key == NULL;
    if (keepValue || added) {
        const uint32 valueLen = keepValue ? pair->valueLen : 0;
        char* bytes = EKO_ALLOC(pair->keyLen + valueLen, index->bytesTag);
        if (!bytes)
            return false;
        memcpy(bytes, pair->key, pair->keyLen);
        memcpy(bytes + pair->keyLen, pair->value, valueLen);
        entry->pair.key = bytes;
        entry->pair.value = keepValue ? bytes + pair->keyLen : NULL;
        index->count += added;
    }
    entry->pair.keyLen = pair->keyLen;
    entry->pair.valueLen = pair->valueLen;
    entry->at = at;
    entry->hash = hash;
    return true;
}

const ENTRY* indexFind(const INDEX* index, const char* key, uint32 keyLen)
{
    if (index->capacity == 0)
        return NULL;
    const ENTRY* entry = slotOf(index->slots, index->capacity, key, keyLen, hashOf(key, keyLen));
    return entry->pair.key ? entry : NULL;
}
