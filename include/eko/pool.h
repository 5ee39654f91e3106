/* SPDX-License-Identifier: MIT */
/* pool.h - pools of memory items that are used again and again.
 *
 * A pool sits on a memory tag. An item that is given back waits in it for the next request, the last one given back
 * first, instead of going through the tag's allocator. It is memory only: what it held counts for nothing then.
 *
 *      eko_poolCreate(EKO_TAG_INVALID, EKO_POOL_FIXED_SIZE, "jobs", &pool);
 *      struct job* job = eko_poolGetMem(pool, sizeof *job, EKO_MEM_ZERO, NULL, __FILE__, __LINE__);
 *      eko_poolPut(pool, job);
 *      eko_poolDestroy(pool);
 *
 * Which tag    EKO_TAG_INVALID   the pool makes a tag of its own, and destroys it with all items.
 *              any other         the pool itself and its items come from there. It must outlive the pool.
 *              EKO_THREAD_TAG    is looked up at each call, and means the tag of the thread that calls then: a pool
 *                                on it belongs to the thread that created it, with a mutex or without.
 * Threads      A pool created with a name has a mutex, and any thread may use it, if its tag too is one for several
 *              threads: its own, EKO_GLOBAL_TAG, or one created with flag 1. Without a name: one thread at a time.
 *              Nobody may be using a pool while it is destroyed.
 * Size         An item needs the memory of a header besides: of two words. Items are aligned to 8 bytes.
 * Checkers     With eko_isPurifyRunning not 0, which must not change while there is a pool, nothing is kept and
 *              items have no header: eko_poolGetMem is eko_getMem on the pool's tag, eko_poolPut is eko_freeMem.
 * Null         A null handle, and any once the library has stopped, is ignored, or answered with null. */
#ifndef EKO_POOL_H
#define EKO_POOL_H

#include "mem.h"

EKO_EXTERN_C_BEGIN

/** A pool; null is none. */
typedef const void* EKO_POOL;

/** Which requests an item that waits is good for. */
typedef enum EKO_POOL_SIZE_INFO {
    EKO_POOL_FIXED_SIZE = 0, /**< any. Surprise: its size is not looked at, so every request must be of one size */
    EKO_POOL_VAR_SIZE = 1    /**< those that it is large enough for; else it is freed, and a new one made instead */
} EKO_POOL_SIZE_INFO;

/** Creates an empty pool, which may keep items while fewer than 1000 exist.
 *  tag      see above.
 *  semName  not null gives the pool a mutex; the text is not used.
 *  Returns 0 with the pool in `hPool`; 1003 when the library is not started, or memory, the mutex or the pool's own
 *  tag cannot be had; 1013 for a null `hPool`. Without memory on a tag of the caller's that has a jump buffer it
 *  leaves by longjmp. */
EKO_API int32 eko_poolCreate(EKO_MEMTAG tag, EKO_POOL_SIZE_INFO size_info, const char* semName, EKO_POOL* hPool);

/** Sets the number of items, waiting or held, from which on those given back are freed; 0 keeps none. Nothing is
 *  freed now. Without a lock, at any time: others may go by the old number a little longer. */
EKO_API void eko_poolSetMaxPooled(EKO_POOL hPool, uint32 max_items);

/** Takes an item.
 *  sz          bytes; 0 is as good as any.
 *  mode        EKO_MEM_ZERO sets them to 0, EKO_MEM_COPY copies them from `data`; any other leaves them undefined.
 *  file, line  the caller's position, for the report of exhausted memory.
 *  Returns the item, to be given back with eko_poolPut. Null for EKO_MEM_COPY without data. Null for more than the
 *  largest block of mem.h less the header; without memory it reports, once, then leaves by longjmp when the tag has
 *  a jump buffer, else answers null: in these two cases an item that was too small is gone from the pool. */
EKO_API void* eko_poolGetMem(EKO_POOL hPool, size_t sz, int32 mode, const void* data, const char* file,
                             uint32 line);

/** Gives an item of that pool back; null is ignored. Surprise: what counts are the items that exist, not those that
 *  wait. With a maximum of 2 and 3 items held, the first two that come back are freed, and the third is kept. */
EKO_API void eko_poolPut(EKO_POOL hPool, const void* ptr);

/** Destroys a pool and the items that wait in it; with a tag of its own also those that are still held. On any
 *  other tag these stay valid until the tag is emptied or ends. They cannot be freed one by one: an item is not the
 *  start of its block, and EKO_FREE of one corrupts the tag. */
EKO_API void eko_poolDestroy(EKO_POOL hPool);

EKO_EXTERN_C_END

#endif
