/* SPDX-License-Identifier: MIT */
/* mem.h - memory owned by tags.
 *
 * Every block belongs to a tag. A tag has its own allocator, can be emptied or destroyed in one call, can
 * have a mutex, a jump buffer for running out of memory, and a callback for its destruction.
 *
 * Which tag
 *   EKO_GLOBAL_TAG  shared by all threads, guarded by a mutex.
 *   EKO_THREAD_TAG  the calling thread's own, made on first use, without a lock. Its blocks must be freed by
 *                   the same thread: freed by another one they go to that thread's tag, which corrupts both
 *                   and is not detected. It lives until eko_threadEnd, eko_releaseTLSTag or eko_term.
 *   your own        from eko_createTagEx. Without flag 1 it is to be used by one thread at a time.
 * A block is freed with the tag it was taken from; another tag is not detected, except by a build with EKO_CHECKED.
 *
 * Blocks are aligned to 8 bytes, on every platform: too little for types that want 16, such as long double. No
 * request may exceed 0xFFFFFFFD bytes.
 *
 * Running out of memory
 *   A request that cannot be met, because memory or the limit is exhausted, writes one line
 *   "Out of memory. Called from %s:%u\n" with the caller's position, or one inside the library for calls that
 *   take none, to the log, then leaves by
 *   longjmp(jb, 1) when the tag has a jump buffer, else answers null. A request that is refused (size 0 or
 *   above the ceiling, copy without data, library not started, no such tag) answers null without a line or a jump.
 *   Library calls that allocate on a tag given by the caller report and jump in the same way, after they have
 *   released everything; where the library allocates for itself it reports, never jumps, and fails with its
 *   status.
 *   A jump buffer must be cleared, with eko_resetTag(NULL, tag), before the function that filled it returns,
 *   and a tag that has one belongs to one thread. In C++ nothing with a destructor may be alive between the
 *   call of setjmp and the request.
 *
 * Threads
 *   Any call may come from any thread, as far as the tag allows it. Nobody may be using a tag while it is
 *   destroyed, nor its blocks while it is emptied. A report keeps 980 characters of the caller's file name. */
#ifndef EKO_MEM_H
#define EKO_MEM_H

#include "../ekoplat.h"

EKO_EXTERN_C_BEGIN

/** A memory tag. */
typedef struct TAG_ENTRY* EKO_MEMTAG;

/** The two tags that are always there, once the library is started: see "Which tag" above. */
#define EKO_GLOBAL_TAG ((EKO_MEMTAG)0)
#define EKO_THREAD_TAG ((EKO_MEMTAG)(intptr_t)1)

/** No tag: the result of a failed creation. Compare with this, never with null. */
#define EKO_TAG_INVALID ((EKO_MEMTAG)(intptr_t)-1)

/** How a tag finds its blocks. */
typedef enum EKO_ALLOCATOR_TYPE {
    BLOCK_ALLOCATOR = 0, /**< size classes, constant time; memory of a class stays with the tag */
    LIST_ALLOCATOR = 1,  /**< best fit, joins neighbours and gives empty chunks back. Many free blocks have an
                              index, on the system heap and outside limit and figures, unless there is a
                              caller's buffer */
    STACK_ALLOCATOR = 2, /**< for owners that free all at once: a single free does nothing, extending asserts */
    LEGACY_ALLOCATOR = 3 /**< each block from malloc, outside limit and figures; for memory checkers. A second
                              free prints "Attempting to free previously freed memory" and does nothing else */
} EKO_ALLOCATOR_TYPE;

/** Called with its context when a tag is destroyed, before any memory is freed and with no lock held; not when
 *  the tag is only emptied. It must not destroy the tag. When the library stops, tags that are left are
 *  destroyed in the order of their creation; the callback then may touch nothing but its own tag: the other
 *  two kinds and new tags are refused, and starting or stopping the library hangs. */
typedef void (*EKO_DESTROY_FCN)(void* ctx);

/** Bytes now, and the highest that number has been. */
typedef struct EKO_MEM_INFO {
    size_t in_use;     /**< now */
    size_t max_in_use; /**< at most, so far */
} EKO_MEM_INFO;

/** Figures of a tag. They are the allocator's own bookkeeping, not a balance: those of a stack tag only grow,
 *  those of a list tag can fall below 0 (and wrap), those of a legacy tag are 0, and a large block that is
 *  extended lowers the capacity. */
typedef struct EKO_TAG_MEM_INFO {
    EKO_MEM_INFO bytes;    /**< handed out, rounded as the allocator rounds */
    EKO_MEM_INFO capacity; /**< held by the allocator for that */
} EKO_TAG_MEM_INFO;

/** Modes of eko_getMem. Exactly these combinations of the bits are used; others are not refused. */
#define EKO_MEM_PLAIN 1    /**< contents undefined */
#define EKO_MEM_ZERO 3     /**< set to zero */
#define EKO_MEM_COPY 5     /**< `size` bytes copied from `data` */
#define EKO_MEM_STRING 13  /**< copy of the string `data`, terminator included; `size` is ignored */
#define EKO_MEM_WSTRING 21 /**< copy of the wide string `data`, terminator included; `size` is ignored */

/* ---- the usual calls, with the caller's position ------------------------------------------------------- */

/** eko_getMem in its modes: a new block, one set to zero, a copy of bytes, of a string, of a wide string. */
#define EKO_ALLOC(size, tag) eko_getMem((size), (tag), EKO_MEM_PLAIN, NULL, __FILE__, __LINE__)
#define EKO_ZALLOC(size, tag) eko_getMem((size), (tag), EKO_MEM_ZERO, NULL, __FILE__, __LINE__)
#define EKO_DUP(data, size, tag) eko_getMem((size), (tag), EKO_MEM_COPY, (data), __FILE__, __LINE__)
#define EKO_STRDUP(str, tag) ((char*)eko_getMem(0, (tag), EKO_MEM_STRING, (str), __FILE__, __LINE__))
#define EKO_WCSDUP(str, tag) ((wchar_t*)eko_getMem(0, (tag), EKO_MEM_WSTRING, (str), __FILE__, __LINE__))
/** eko_extendMem and eko_freeMem. What EKO_EXTEND adds is undefined. */
#define EKO_EXTEND(ptr, newsize, tag) eko_extendMem((ptr), (newsize), (tag), 0, 0, __FILE__, __LINE__)
/** As EKO_EXTEND, with the `added` bytes at the end of the new block set to zero. */
#define EKO_ZEXTEND(ptr, newsize, tag, added) eko_extendMem((ptr), (newsize), (tag), 1, (added), __FILE__, __LINE__)
#define EKO_FREE(ptr, tag) eko_freeMem((ptr), (tag), __FILE__, __LINE__)

/** A tag for one thread at a time, and one that threads may share. EKO_TAG_INVALID on failure. */
#define EKO_TAG_CREATE(type) eko_createTagEx(NULL, 0, (type), NULL, NULL, __FILE__, __LINE__)
#define EKO_TAG_CREATE_SHARED(type) eko_createTagEx(NULL, 1, (type), NULL, NULL, __FILE__, __LINE__)
/** Free all memory of a tag at once; the second destroys the tag too. See eko_freeTagMem. */
#define EKO_TAG_EMPTY(tag) eko_freeTagMem((tag), 0, __FILE__, __LINE__)
#define EKO_TAG_DESTROY(tag) eko_freeTagMem((tag), 1, __FILE__, __LINE__)

/* ---- tags ------------------------------------------------------------------------------------------------ */

/** Creates a tag.
 *  jb           where to go when an allocation on this tag fails, or null.
 *  flags        1 gives it a mutex, for a tag shared by threads; 0 none.
 *  destroy_fcn  called with destroy_ctx at destruction, may be null.
 *  Returns the tag; EKO_TAG_INVALID when the library is not started, memory or the mutex cannot be had (a
 *  shared tag never comes without its mutex). A type outside the four asserts. Never jumps. */
EKO_API EKO_MEMTAG eko_createTagEx(jmp_buf* jb, int16 flags, EKO_ALLOCATOR_TYPE type, EKO_DESTROY_FCN destroy_fcn,
                                   void* destroy_ctx, const char* file, uint32 line);

/** Frees all memory of a tag at once; with `freetag` not 0 destroys the tag too, after its callback.
 *  tt must be a tag of one's own: EKO_GLOBAL_TAG, EKO_THREAD_TAG and EKO_TAG_INVALID are ignored. */
EKO_API void eko_freeTagMem(EKO_MEMTAG tt, int16 freetag, const char* file, uint32 line);

/** Sets the tag's jump buffer; null clears it. All three kinds of tag. */
EKO_API void eko_resetTag(jmp_buf* jb, EKO_MEMTAG tt);

/** Copies the tag's figures. Takes no lock, so on a tag in use by others they may be of different moments.
 *  EKO_THREAD_TAG creates the thread's tag if need be. Returns 0; 1002 when the library is not started or the
 *  tag does not resolve; 1013 for a null `mem_info`. */
EKO_API int32 eko_getTagMemInfo(EKO_MEMTAG tag, EKO_TAG_MEM_INFO* mem_info);

/** Destroys the calling thread's own tag and all it holds, if there is one. For threads that the library did
 *  not start, before they end. */
EKO_API void eko_releaseTLSTag(void);

/* ---- blocks ---------------------------------------------------------------------------------------------- */

/** Takes a block.
 *  size  bytes, 1 to 0xFFFFFFFD; ignored for the two string modes.
 *  mode  one of EKO_MEM_...; data is read for the copying modes only.
 *  Returns the block, or null: see "Running out of memory" above. May leave by longjmp. */
EKO_API void* eko_getMem(size_t size, EKO_MEMTAG tt, int32 mode, const void* data, const char* file, uint32 line);

/** Changes the size of a block, moving it if need be. Not on a stack tag.
 *  ptr      null takes a new block instead, zeroed when `clear` is set.
 *  newsize  bytes; 0 frees the block and answers null.
 *  clear    not 0: sets the last `incsize` bytes of the new block to zero; pass the number of bytes added.
 *  Returns the block; null when it was freed, or on failure: the old block is then untouched. May leave by
 *  longjmp. */
EKO_API void* eko_extendMem(const void* ptr, size_t newsize, EKO_MEMTAG tt, int32 clear, size_t incsize,
                            const char* file, uint32 line);

/** Frees a block of that tag; null is ignored. */
EKO_API void eko_freeMem(const void* ptr, EKO_MEMTAG tt, const char* file, uint32 line);

/* ---- limit and figures of the process -------------------------------------------------------------------- */

/** The limit, 0 for none; the caller's buffer, null for the system heap; and the bytes that all tags hold as
 *  large blocks, with the oddities noted at EKO_TAG_MEM_INFO. Read only. */
EKO_API extern size_t eko_memlimit;
EKO_API extern void* eko_membuffer;
EKO_API extern EKO_MEM_INFO eko_mem_stats;

/** Limits the memory of all tags together, legacy tags excepted. A plain limit may be changed at any time, also
 *  to less than is in use: then nothing more is taken from the system.
 *  ptr    null for the system heap; else a buffer, aligned to 8 bytes (16 is better), that serves for
 *         everything. It can only be given before eko_init and must outlive the last eko_term.
 *  limit  bytes, at least 4195328; with a buffer its size, of which the part divisible by 8 is used. 0 lifts a
 *         limit and is refused with a buffer, as is any limit while the library runs in a buffer.
 *  Returns 0, or 1002 when refused. The limit counts what tags hold; memory is taken from the system 4 MiB at
 *  a time, so the process can hold that much more. */
EKO_API int32 eko_setMemLimit(void* ptr, size_t limit);

/** Copies eko_mem_stats into those of the two pointers that are not null. */
EKO_API void eko_getMemUsage(size_t* curr_usage, size_t* max_usage);

/** Would report the use of memory; both do nothing in this build. */
EKO_API void eko_memReport(const char* format, ...) EKO_PRINTF_CHECK(1, 2);
EKO_API void eko_memReportTag(EKO_MEMTAG tt, const char* format, ...) EKO_PRINTF_CHECK(2, 3);

EKO_EXTERN_C_END

#endif
