// SPDX-License-Identifier: MIT
// Object pools: items that were given back, handed out again.
//
// Data      A pool is one record on its tag. An item has a header, which links it while it waits.
// Locks     The pool's mutex, if it has one, guards the list of items that wait, and a tag of the pool's own, which
//           has no mutex. The mutex of any other tag comes after it. No report or jump happens under either.
// Unlocked  the number of items and its maximum. The number is changed by one atomic instruction each time, so that
//           it stays right; what is decided by it may be a moment old, and then an item more or less is kept.

#include <string.h>

#include "ekomem_int.h"

namespace {

constexpr uint32 DEFAULT_MAX_POOLED = 1000;

struct EKO_POOL_HDR {
    EKO_POOL_HDR* next; // while it waits
    size_t size;        // that the item was made with
};
static_assert(sizeof(EKO_POOL_HDR) % BLOCK_ALIGNMENT == 0, "the item behind it is aligned");

struct EKO_POOL_CTX {
    EKO_POOL_HDR* next; // the last item given back
    EKO_MEMTAG tag;
    EKO_SEM sem;      // EKO_SEM_INVALID for a pool without one
    uint32 local_tag; // 1 when the tag is the pool's own
    uint32 count;     // items that exist, waiting or held
    uint32 max_pooled_items;
    EKO_POOL_SIZE_INFO size_info;
};

// ---- deliberate unlocked accesses -------------------------------------------------------------------------

uint32 eko_pool_count_get__race_condition_ok(const EKO_POOL_CTX& pool)
{
    return readUnlocked(pool.count);
}
void eko_pool_count_inc__race_condition_ok(EKO_POOL_CTX& pool)
{
    __atomic_fetch_add(&pool.count, 1, __ATOMIC_RELAXED);
}
void eko_pool_count_dec__race_condition_ok(EKO_POOL_CTX& pool)
{
    __atomic_fetch_sub(&pool.count, 1, __ATOMIC_RELAXED);
}
uint32 eko_pool_max_get__race_condition_ok(const EKO_POOL_CTX& pool)
{
    return readUnlocked(pool.max_pooled_items);
}
void eko_pool_max_set__race_condition_ok(EKO_POOL_CTX& pool, uint32 max_items)
{
    writeUnlocked(pool.max_pooled_items, max_items);
}

// ---- handles and items ------------------------------------------------------------------------------------

// The pool of a handle, or null. The state comes first: once the library has stopped, handles point into freed
// memory.
EKO_POOL_CTX* poolOf(EKO_POOL hPool)
{
    return libraryStarted() ? static_cast<EKO_POOL_CTX*>(const_cast<void*>(hPool)) : nullptr;
}

EKO_POOL_HDR* headerOf(const void* ptr)
{
    return static_cast<EKO_POOL_HDR*>(const_cast<void*>(ptr)) - 1;
}

// A checker is to see each item come and go. The answer must not change while there are pools.
bool poolingIsDisabled()
{
    return memoryCheckerRuns();
}

// The mutex to hold around the use of the tag. One that is not the pool's own looks after itself.
EKO_SEM semForTag(const EKO_POOL_CTX& pool)
{
    return pool.local_tag ? pool.sem : EKO_SEM_INVALID;
}

void* takeFromTag(const EKO_POOL_CTX& pool, size_t size, int32 mode, const void* data, MemResult* result)
{
    const SemGuard lock(semForTag(pool));
    return tryGetMem(size, pool.tag, mode, data, result);
}

void giveToTag(const EKO_POOL_CTX& pool, const void* block)
{
    const SemGuard lock(semForTag(pool));
    EKO_FREE(block, pool.tag);
}

// ---- taking -----------------------------------------------------------------------------------------------

// The item given back last, or null.
EKO_POOL_HDR* pop(EKO_POOL_CTX& pool)
{
    const SemGuard lock(pool.sem);
    EKO_POOL_HDR* item = pool.next;
    if (item)
        pool.next = item->next;
    return item;
}

// The same for a pool without a mutex, if that item serves the request; else null, and it stays.
EKO_POOL_HDR* popIfLarge(EKO_POOL_CTX& pool, size_t sz)
{
    EKO_POOL_HDR* item = pool.next;
    if (!item || (pool.size_info == EKO_POOL_VAR_SIZE && item->size < sz))
        return nullptr;
    pool.next = item->next;
    return item;
}

EKO_POOL_HDR* newItem(const EKO_POOL_CTX& pool, size_t sz, MemResult* result)
{
    size_t size;
    if (!addSize(sz, sizeof(EKO_POOL_HDR), &size))
        return nullptr;
    auto* item = static_cast<EKO_POOL_HDR*>(takeFromTag(pool, size, EKO_MEM_PLAIN, nullptr, result));
    if (item)
        item->size = sz;
    return item;
}

// A larger item in place of one that is too small: as many exist as before, or one less when there is none.
EKO_POOL_HDR* replace(EKO_POOL_CTX& pool, const EKO_POOL_HDR* small, size_t sz, MemResult* result)
{
    giveToTag(pool, small);
    EKO_POOL_HDR* item = newItem(pool, sz, result);
    if (!item)
        eko_pool_count_dec__race_condition_ok(pool);
    return item;
}

// DELIBERATE: a pool of fixed size hands out what it has, whatever is asked for: its callers ask for one size, and
// count on not paying for a look at it. Pinned by PoolTest.items_are_used_again.
EKO_POOL_HDR* takeItem(EKO_POOL_CTX& pool, size_t sz, MemResult* result)
{
    EKO_POOL_HDR* item = pop(pool);
    if (item && pool.size_info == EKO_POOL_VAR_SIZE && item->size < sz)
        return replace(pool, item, sz, result);
    if (item)
        return item;
    item = newItem(pool, sz, result);
    if (item)
        eko_pool_count_inc__race_condition_ok(pool);
    return item;
}

// An item with its contents, or null.
void* takeFilled(EKO_POOL_CTX& pool, size_t sz, int32 mode, const void* data, MemResult* result)
{
    if (mode == EKO_MEM_COPY && !data)
        return nullptr;
    EKO_POOL_HDR* item = takeItem(pool, sz, result);
    if (!item)
        return nullptr;
    if (mode == EKO_MEM_ZERO)
        memset(item + 1, 0, sz);
    else if (mode == EKO_MEM_COPY)
        memcpy(item + 1, data, sz);
    return item + 1;
}

// ---- creation ---------------------------------------------------------------------------------------------

// Gives back what a pool consists of. Its record goes with the tag, or before: what is needed later is passed.
void release(EKO_POOL_CTX* pool, EKO_MEMTAG tag, bool ownTag)
{
    if (ownTag)
        EKO_TAG_DESTROY(tag);
    else
        EKO_FREE(pool, tag);
}

// Makes a pool on its tag; null, with the tag destroyed if it is the pool's own, when something cannot be had.
EKO_POOL_CTX* makePool(EKO_MEMTAG tag, bool ownTag, bool withMutex, MemResult* result)
{
    EKO_POOL_CTX* pool = tryZeroed<EKO_POOL_CTX>(tag, result);
    const EKO_SEM sem = pool && withMutex ? EKO_MUTEX_CREATE() : EKO_SEM_INVALID;
    if (!pool || (withMutex && sem == EKO_SEM_INVALID)) {
        release(pool, tag, ownTag);
        return nullptr;
    }
    pool->tag = tag;
    pool->sem = sem;
    pool->local_tag = ownTag;
    pool->max_pooled_items = DEFAULT_MAX_POOLED;
    return pool;
}

} // namespace

// ---- interface --------------------------------------------------------------------------------------------

int32 eko_poolCreate(EKO_MEMTAG tag, EKO_POOL_SIZE_INFO size_info, const char* semName, EKO_POOL* hPool)
{
    if (!hPool)
        return EKO_BAD_ARGUMENT;
    MemResult result = MemResult::done;
    const bool ownTag = tag == EKO_TAG_INVALID;
    const EKO_MEMTAG used = ownTag ? tryCreateTag(nullptr, 0, BLOCK_ALLOCATOR, nullptr, nullptr, &result) : tag;
    EKO_POOL_CTX* pool = used == EKO_TAG_INVALID ? nullptr : makePool(used, ownTag, semName != nullptr, &result);
    if (!pool) {
        if (ownTag)
            memReportIf(result, __FILE__, __LINE__);
        else
            memFail(result, tag, __FILE__, __LINE__);
        return EKO_NO_MEMORY;
    }
    pool->size_info = size_info;
    *hPool = pool;
    return EKO_OK;
}

void eko_poolSetMaxPooled(EKO_POOL hPool, uint32 max_items)
{
    EKO_POOL_CTX* pool = poolOf(hPool);
    if (pool)
        eko_pool_max_set__race_condition_ok(*pool, max_items);
}

namespace {

[[gnu::noinline]] void* getMem(EKO_POOL_CTX& pool, size_t sz, int32 mode, const void* data, const char* file,
                               uint32 line)
{
    MemResult result = MemResult::refused;
    void* ptr = poolingIsDisabled() ? takeFromTag(pool, sz, mode, data, &result)
                                    : takeFilled(pool, sz, mode, data, &result);
    if (!ptr)
        memFail(result, pool.tag, file, line);
    return ptr;
}

void push(EKO_POOL_CTX& pool, EKO_POOL_HDR* item)
{
    item->next = pool.next;
    pool.next = item;
}

// DELIBERATE: what is compared with the maximum is how many items exist, not how many wait: a pool whose items are all
// out shrinks as they come back. Pinned by PoolTest.items_are_kept_while_few_exist.
bool hasRoom(const EKO_POOL_CTX& pool)
{
    return eko_pool_count_get__race_condition_ok(pool) < eko_pool_max_get__race_condition_ok(pool);
}

[[gnu::noinline]] void put(EKO_POOL_CTX& pool, const void* ptr)
{
    if (poolingIsDisabled()) {
        giveToTag(pool, ptr);
        return;
    }
    const SemGuard lock(pool.sem);
    if (hasRoom(pool)) {
        push(pool, headerOf(ptr));
    } else {
        EKO_FREE(headerOf(ptr), pool.tag);
        eko_pool_count_dec__race_condition_ok(pool);
    }
}

// Whether items of a pool come and go without a lock and without their tag.
bool isPlain(const EKO_POOL_CTX& pool)
{
    return pool.sem == EKO_SEM_INVALID && !poolingIsDisabled();
}

} // namespace

void* eko_poolGetMem(EKO_POOL hPool, size_t sz, int32 mode, const void* data, const char* file, uint32 line)
{
    EKO_POOL_CTX* pool = poolOf(hPool);
    if (!pool)
        return nullptr;
    EKO_POOL_HDR* item = mode == EKO_MEM_PLAIN && isPlain(*pool) ? popIfLarge(*pool, sz) : nullptr;
    return item ? item + 1 : getMem(*pool, sz, mode, data, file, line);
}

void eko_poolPut(EKO_POOL hPool, const void* ptr)
{
    EKO_POOL_CTX* pool = poolOf(hPool);
    if (!pool || !ptr)
        return;
    if (isPlain(*pool) && hasRoom(*pool))
        push(*pool, headerOf(ptr));
    else
        put(*pool, ptr);
}

void eko_poolDestroy(EKO_POOL hPool)
{
    EKO_POOL_CTX* pool = poolOf(hPool);
    if (!pool)
        return;
    const EKO_SEM sem = pool->sem; // the record goes first
    {
        const SemGuard lock(sem);
        EKO_POOL_HDR* next;
        for (EKO_POOL_HDR* item = pool->next; item; item = next) {
            next = item->next;
            EKO_FREE(item, pool->tag);
        }
        release(pool, pool->tag, pool->local_tag != 0);
    }
    eko_syncDelete(sem);
}
