// SPDX-License-Identifier: MIT
// ekomem_int.h - inside the memory modules: tags, the table of an allocator's operations, large blocks, and the
// allocation calls for the library's own use.
#ifndef EKO_EKOMEM_INT_H
#define EKO_EKOMEM_INT_H

#include "ekoint.h"

// ---- for every module: allocation that neither reports nor jumps ------------------------------------------
//
// Inside the library memory is taken through these only. A lock, a file or a temporary may be held around them.
// When one fails, the exported function at the outer edge releases all that and then calls memReport (for
// memory that the library wanted for itself) or memFail (for memory on the caller's tag), once.

enum class MemResult {
    done,
    refused,  // not started, bad size, no data: null without a word
    exhausted // the allocator had none: to be reported
};

// As eko_getMem and eko_extendMem (`ptr` not null, `newsize` not 0); null on failure, `result` says why.
void* tryGetMem(size_t size, EKO_MEMTAG tt, int32 mode, const void* data, MemResult* result = nullptr);
void* tryExtendMem(const void* ptr, size_t newsize, EKO_MEMTAG tt, MemResult* result = nullptr);

// As eko_convToUTF8, without report or jump.
char* tryConvToUTF8(const wchar_t* wstr, int32 errorBehavior, EKO_MEMTAG tag, MemResult* result);

// As eko_convToWchar, without report or jump.
wchar_t* tryConvToWchar(const char* str, int32 errorBehavior, EKO_MEMTAG tag, MemResult* result);

// Characters that eko_utf8_to_wchar makes of a string, without the terminator; for what is not UTF-8, replaced or
// dropped.
size_t wideLength(const char* str, int32 errorBehavior);

// Takes the first character of a UTF-8 string that is not empty and moves behind it; U+FFFD for what is not UTF-8.
wchar_t nextWide(const char** s);

// As eko_makeStrVA and eko_makeStrV, without report or jump.
char* tryMakeStr(MemResult* result, EKO_MEMTAG tag, const char* fmt, ...) EKO_PRINTF_CHECK(3, 4);
char* tryMakeStrV(MemResult* result, EKO_MEMTAG tag, const char* fmt, va_list args) EKO_PRINTF_CHECK(3, 0);

// As eko_tokenize of valid pointers, without report or jump: 0 or 1003.
int32 tryTokenize(char* input, const char* tokens, const char*** words, uint32* numwords, bool trim, EKO_MEMTAG tag,
                  MemResult* result);

// Makes a tag without reporting; EKO_TAG_INVALID on failure.
EKO_MEMTAG tryCreateTag(jmp_buf* jb, int16 flags, EKO_ALLOCATOR_TYPE type, EKO_DESTROY_FCN destroy_fcn,
                        void* destroy_ctx, MemResult* result = nullptr);

// Logs "Out of memory. Called from %s:%u\n". Allocates nothing; silent inside a report.
void memReport(const char* file, uint32 line);

// The same when `result` is exhausted, for memory that the library wanted for itself.
inline void memReportIf(MemResult result, const char* file, uint32 line)
{
    if (result == MemResult::exhausted)
        memReport(file, line);
}

// When `result` is exhausted: reports, then jumps if the tag has a jump buffer. Nothing may be held.
void memFail(MemResult result, EKO_MEMTAG tt, const char* file, uint32 line);

// A copy of a string.
inline char* tryStrdup(const char* text, EKO_MEMTAG tt, MemResult* result = nullptr)
{
    return static_cast<char*>(tryGetMem(0, tt, EKO_MEM_STRING, text, result));
}

// A zero-filled record.
template <class T> inline T* tryZeroed(EKO_MEMTAG tt, MemResult* result = nullptr)
{
    return static_cast<T*>(tryGetMem(sizeof(T), tt, EKO_MEM_ZERO, nullptr, result));
}

// ---- tags -------------------------------------------------------------------------------------------------

using ALLOCATOR = void*; // an allocator's own state

struct ALLOCATOR_FCNS {
    void (*destroy_fcn)(ALLOCATOR alctr);
    void* (*alloc_fcn)(size_t size, ALLOCATOR alctr);
    void* (*realloc_fcn)(void* ptr, size_t size, ALLOCATOR alctr); // on null the old block stays valid
    void (*free_fcn)(void* ptr, ALLOCATOR alctr);
    void (*free_all_fcn)(ALLOCATOR alctr);                         // the allocator stays usable
    void (*mem_info_fcn)(ALLOCATOR alctr, EKO_TAG_MEM_INFO* info); // null for the static list allocator
};

struct TAG_ENTRY {
    TAG_ENTRY* t_next;
    TAG_ENTRY* t_prev;
    EKO_SEM t_sem;
    jmp_buf* t_jmpbuf;
    ALLOCATOR t_allocator;
    ALLOCATOR_FCNS t_fcns;
    EKO_DESTROY_FCN t_destroy_fcn;
    void* t_destroy_ctx;
#if EKO_CHECKED
    EKO_ALLOCATOR_TYPE t_type;
#endif
};

// Tags alive, and the record behind a caller's value (null when there is none), for tests.
int32 memTagsAlive();
TAG_ENTRY* memResolve(EKO_MEMTAG tt);

int32 eko_memInit();
void eko_memTerm();

// ---- allocators -------------------------------------------------------------------------------------------

ALLOCATOR block_allocator_create(ALLOCATOR_FCNS* fcns);
ALLOCATOR list_allocator_create(ALLOCATOR_FCNS* fcns);
ALLOCATOR stack_allocator_create(ALLOCATOR_FCNS* fcns);
ALLOCATOR legacy_allocator_create(ALLOCATOR_FCNS* fcns);
void create_static_list_allocator(void* alctr, uint32 size, ALLOCATOR_FCNS* fcns);

// Zero-filled records of the memory modules themselves, on the static tag.
void* eko_allocSmallBlock(size_t size);
void eko_freeSmallBlock(void* ptr);

// Large blocks, the source of every allocator's chunks. `mem_info` is the capacity figure of the caller.
void* eko_allocLargeBlock(size_t* size, EKO_MEM_INFO* mem_info);
void* eko_reallocLargeBlock(void* ptr, size_t size, EKO_MEM_INFO* mem_info);
void eko_freeLargeBlock(void* ptr, EKO_MEM_INFO* mem_info);
bool largeBlocksInUse();

#if EKO_CHECKED
// Whether a block lies in a chunk of that allocator: false for one of another tag.
bool block_allocator_owns(ALLOCATOR alctr, const void* ptr);
bool list_allocator_owns(ALLOCATOR alctr, const void* ptr);
bool stack_allocator_owns(ALLOCATOR alctr, const void* ptr);

// Bytes of a large block.
size_t largeBlockSize(const void* ptr);

inline bool within(const void* ptr, const void* start, size_t size)
{
    return reinterpret_cast<uintptr_t>(ptr) - reinterpret_cast<uintptr_t>(start) <= size; // its end: of no size
}
#endif

extern EKO_SEM largeBlockSem;

inline void eko_inc_mem_info(EKO_MEM_INFO* info, size_t size)
{
    const size_t in_use = readUnlocked(info->in_use) + size;
    writeUnlocked(info->in_use, in_use);
    if (in_use > readUnlocked(info->max_in_use))
        writeUnlocked(info->max_in_use, in_use);
}
inline void eko_dec_mem_info(EKO_MEM_INFO* info, size_t size)
{
    writeUnlocked(info->in_use, readUnlocked(info->in_use) - size);
}

// Figures are read without the tag's lock, one by one.
void copyMemInfo(const EKO_TAG_MEM_INFO& from, EKO_TAG_MEM_INFO* to);

// ---- sizes ------------------------------------------------------------------------------------------------

// Sums and roundings of sizes that can wrap; false when they do.
inline bool addSize(size_t a, size_t b, size_t* sum)
{
    return !__builtin_add_overflow(a, b, sum);
}
inline bool roundUp(size_t size, size_t multiple, size_t* rounded)
{
    if (!addSize(size, multiple - 1, rounded))
        return false;
    *rounded &= ~(multiple - 1);
    return true;
}

constexpr size_t BLOCK_ALIGNMENT = 8; // of every block handed out

#endif
