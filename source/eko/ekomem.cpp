// SPDX-License-Identifier: MIT
// Tagged memory: tags, the calls that allocate on them, the limit of the process.
//
// Data      A TAG_ENTRY holds the tag's allocator and the table of its operations; the four allocators are modules
//           of their own. All tags are on one list, except static_list_tag, which lives in static storage and
//           provides the TAG_ENTRY records and the allocators' states, so that making a tag never asks the system
//           heap for them.
// Locks     A tag's t_sem guards its allocator. tagTabSem guards only the list. largeBlockSem is taken inside an
//           allocator, so after a tag's mutex. Destruction holds the tag's mutex, then takes tagTabSem, then that
//           of the static tag. EKO_SEM_INVALID is "no mutex", which is what each of them is before start and after
//           stop.
// Unlocked  whether the library is started or stopping; the limit; the figures of a tag.
//
// Two layers. The try... calls find no memory in silence, so they may be used with locks and files held. The
// exported calls report a failure and may then jump out of the library, so they hold nothing at that point.

#include <string.h>

#include "eko_block_allocator.h"
#include "eko_stack_allocator.h"
#include "ekolog_int.h"

// What the list allocator's state needs, seen from here as raw storage.
constexpr size_t STATIC_ALLOCATOR_SIZE = 64;

namespace {

constexpr int32 ZERO_BIT = 2;
constexpr int32 COPY_BIT = 4;
constexpr int32 STRING_BITS = 8 | 16;
constexpr size_t MAX_REQUEST = 0xFFFFFFFD; // in every build
constexpr size_t MIN_LIMIT = 4195328;      // the first chunk of large blocks, and 1 KiB
constexpr int16 SHARED = 1;
constexpr int16 NOT_SHARED = 0;

pthread_key_t tagTLSkey;
TAG_ENTRY* tagGlobal;              // null while memory is not started
uint32 session;                    // which start of memory this is; 0 while it is not started
uint32 sessions;                   // that there have been
uintptr_t lastNoTag = UINTPTR_MAX; // as LAST_NO_TAG; while memory is not started, no value is a record
TAG_ENTRY* taglisthead;
TAG_ENTRY* taglisttail;
EKO_SEM tagTabSem = EKO_SEM_INVALID;
TAG_ENTRY static_list_tag;
alignas(BLOCK_ALIGNMENT) unsigned char static_list_allocator[STATIC_ALLOCATOR_SIZE];

bool mem_eko_inited_get__race_condition_ok()
{
    return readUnlocked(eko_inited) > 0;
}

// The semaphore table may be gone already while everything is torn down.
bool terminatingNow()
{
    return readUnlocked(eko_terminating) != 0;
}

// The values that mean no record are neighbours: -1, 0, 1. One more than each is this at most.
constexpr uintptr_t LAST_NO_TAG = 2;

bool isRealTag(EKO_MEMTAG tt)
{
    return reinterpret_cast<uintptr_t>(tt) + 1 > LAST_NO_TAG;
}

// ---- tags -------------------------------------------------------------------------------------------------

using AllocatorCreate = ALLOCATOR (*)(ALLOCATOR_FCNS* fcns);
constexpr AllocatorCreate ALLOCATOR_CREATES[] = {block_allocator_create, list_allocator_create,
                                                 stack_allocator_create, legacy_allocator_create};
constexpr uint32 ALLOCATOR_TYPES = sizeof(ALLOCATOR_CREATES) / sizeof(ALLOCATOR_CREATES[0]);

uint32 select_allocator(EKO_ALLOCATOR_TYPE type)
{
    const uint32 chosen = static_cast<uint32>(memoryCheckerRuns() ? LEGACY_ALLOCATOR : type);
    EKO_ASSERT(chosen < ALLOCATOR_TYPES);
    return chosen;
}

#if EKO_CHECKED
using AllocatorOwns = bool (*)(ALLOCATOR alctr, const void* ptr);
constexpr AllocatorOwns ALLOCATOR_OWNS[] = {block_allocator_owns, list_allocator_owns, stack_allocator_owns,
                                            nullptr};

void rememberType(TAG_ENTRY* tag, uint32 type)
{
    tag->t_type = static_cast<EKO_ALLOCATOR_TYPE>(type);
}

// Whether a block may be freed or extended on that tag. The legacy allocator looks for itself.
bool owns(const TAG_ENTRY* tag, const void* ptr)
{
    const AllocatorOwns allocatorOwns = ALLOCATOR_OWNS[tag->t_type];
    return !allocatorOwns || allocatorOwns(tag->t_allocator, ptr);
}
#else
void rememberType(TAG_ENTRY*, uint32) {}
bool owns(const TAG_ENTRY*, const void*)
{
    return true;
}
#endif

// The same, and says so when not. Locks and files may be held, so that neither the log nor memory is used.
bool ownedBy(const TAG_ENTRY* tag, const void* ptr)
{
    if (owns(tag, ptr))
        return true;
    sayDirectly("Block %p is not of the tag it is given to\n", ptr);
    return false;
}

// The allocator's own functions, entered without a call where that is the usual thing. The table decides: another
// function there is another allocator.

// A block from a list of the block allocator or from the top chunk of the stack allocator; null when it is not
// there.
[[gnu::always_inline]] inline void* takeUsual(TAG_ENTRY* tag, size_t size)
{
    if (tag->t_fcns.alloc_fcn == block_allocator_alloc)
        return takeListed(tag->t_allocator, size);
    return tag->t_fcns.alloc_fcn == stack_allocator_alloc ? takeFromTop(tag->t_allocator, size) : nullptr;
}

void* takeFrom(TAG_ENTRY* tag, size_t size)
{
    void* block = takeUsual(tag, size);
    return block ? block : tag->t_fcns.alloc_fcn(size, tag->t_allocator);
}

[[gnu::always_inline]] inline void giveTo(TAG_ENTRY* tag, void* ptr)
{
    const bool usual = tag->t_fcns.free_fcn == block_allocator_free;
    if (!usual || !giveListed(tag->t_allocator, ptr))
        tag->t_fcns.free_fcn(ptr, tag->t_allocator);
}

void freeEntry(TAG_ENTRY* tag)
{
    eko_freeMem(tag, &static_list_tag, __FILE__, __LINE__);
}

// A tag that is on no list yet, or EKO_TAG_INVALID with nothing left behind.
TAG_ENTRY* allocTag(jmp_buf* jb, int16 flags, EKO_ALLOCATOR_TYPE type, EKO_DESTROY_FCN destroy_fcn,
                    void* destroy_ctx, MemResult* result)
{
    const uint32 chosen = select_allocator(type);
    TAG_ENTRY* tag = tryZeroed<TAG_ENTRY>(&static_list_tag, result);
    if (!tag)
        return EKO_TAG_INVALID;
    tag->t_allocator = ALLOCATOR_CREATES[chosen](&tag->t_fcns);
    if (!tag->t_allocator) {
        *result = MemResult::exhausted;
        freeEntry(tag);
        return EKO_TAG_INVALID;
    }
    rememberType(tag, chosen);
    tag->t_jmpbuf = jb;
    tag->t_destroy_fcn = destroy_fcn;
    tag->t_destroy_ctx = destroy_ctx;
    tag->t_sem = EKO_SEM_INVALID;
    if (flags != SHARED)
        return tag;
    tag->t_sem = EKO_MUTEX_CREATE();
    if (tag->t_sem != EKO_SEM_INVALID)
        return tag;
    // A shared tag without its mutex would silently run unlocked. The table has said why there is none.
    *result = MemResult::refused;
    tag->t_fcns.destroy_fcn(tag->t_allocator);
    freeEntry(tag);
    return EKO_TAG_INVALID;
}

void linkTag(TAG_ENTRY* tag)
{
    const SemGuard lock(tagTabSem);
    tag->t_next = nullptr;
    tag->t_prev = taglisttail;
    (taglisttail ? taglisttail->t_next : taglisthead) = tag;
    taglisttail = tag;
}

void unlinkTag(TAG_ENTRY* tag)
{
    const SemGuard lock(tagTabSem);
    (tag->t_prev ? tag->t_prev->t_next : taglisthead) = tag->t_next;
    (tag->t_next ? tag->t_next->t_prev : taglisttail) = tag->t_prev;
}

TAG_ENTRY* makeTag(jmp_buf* jb, int16 flags, EKO_ALLOCATOR_TYPE type, EKO_DESTROY_FCN destroy_fcn,
                   void* destroy_ctx, MemResult* result)
{
    TAG_ENTRY* tag = allocTag(jb, flags, type, destroy_fcn, destroy_ctx, result);
    if (tag != EKO_TAG_INVALID)
        linkTag(tag);
    return tag;
}

// The calling thread's tag as it was last found, so that most requests need no look at the thread's storage. It is
// that of one start of memory: after the next one the thread has no tag, whatever is remembered here.
struct RememberedTag {
    TAG_ENTRY* tag;
    uint32 session;
};
__thread RememberedTag rememberedTag __attribute__((tls_model("initial-exec")));

// The calling thread's tag if it has one already.
TAG_ENTRY* existingTLSTag()
{
    void* tag = nullptr;
    if (!tagGlobal || eko_tlsGetPtr(tagTLSkey, &tag) != EKO_OK)
        return nullptr;
    return static_cast<TAG_ENTRY*>(tag);
}

TAG_ENTRY* makeTLSTag(MemResult* result)
{
    TAG_ENTRY* tag = tryCreateTag(nullptr, NOT_SHARED, BLOCK_ALLOCATOR, nullptr, nullptr, result);
    if (tag == EKO_TAG_INVALID)
        return nullptr;
    if (eko_tlsSetPtr(tagTLSkey, tag) != EKO_OK) {
        EKO_TAG_DESTROY(tag);
        return nullptr;
    }
    return tag;
}

TAG_ENTRY* getTLSTag(MemResult* result)
{
    TAG_ENTRY* tag = existingTLSTag();
    if (!tag && tagGlobal)
        tag = makeTLSTag(result);
    const uint32 current = readUnlocked(session);
    rememberedTag = {current ? tag : nullptr, current};
    return tag;
}

// The tag that a caller's value means, when it is known without a lock or a call; null leaves it to getCorrectTag.
TAG_ENTRY* tagAtHand(EKO_MEMTAG tt)
{
    if (reinterpret_cast<uintptr_t>(tt) + 1 > readUnlocked(lastNoTag))
        return tt;
    const bool known = tt == EKO_THREAD_TAG && rememberedTag.session == readUnlocked(session);
    return known ? rememberedTag.tag : nullptr;
}

// The tag that a caller's value means; null when there is none. While the library stops, null is nobody's tag.
TAG_ENTRY* getCorrectTag(EKO_MEMTAG tt, MemResult* result)
{
    if (tt == EKO_GLOBAL_TAG)
        return tagGlobal;
    if (tt == EKO_THREAD_TAG)
        return getTLSTag(result);
    return tt == EKO_TAG_INVALID ? nullptr : tt;
}

// The mutex to take around a free; none while the library stops.
EKO_SEM semForFreeing(const TAG_ENTRY* tag)
{
    return terminatingNow() ? EKO_SEM_INVALID : tag->t_sem;
}

// Gives the emptied tag's own record back. The mutex that `tag` had is in a record that is gone by then, so the
// caller has saved it.
void destroyEmptied(TAG_ENTRY* tag)
{
    unlinkTag(tag);
    tag->t_fcns.destroy_fcn(tag->t_allocator);
    freeEntry(tag);
}

// ---- requests ---------------------------------------------------------------------------------------------

// Checks a request and finds its size in bytes.
bool validateGetMem(size_t* size, int32 mode, const void* data)
{
    if (!mem_eko_inited_get__race_condition_ok())
        return false;
    if (*size == 0 && !(mode & STRING_BITS))
        return false;
    if ((mode & COPY_BIT) && !data)
        return false;
    if (mode == EKO_MEM_STRING) {
        EKO_ASSERT(data);
        *size = strlen(static_cast<const char*>(data)) + 1;
    } else if (mode == EKO_MEM_WSTRING) {
        EKO_ASSERT(data);
        *size = (wcslen(static_cast<const wchar_t*>(data)) + 1) * sizeof(wchar_t);
    }
    return *size <= MAX_REQUEST;
}

bool validateExtendMemory(const void* ptr, size_t newsize, EKO_MEMTAG tt)
{
    if (!mem_eko_inited_get__race_condition_ok())
        return false;
    if (newsize == 0) {
        EKO_FREE(ptr, tt);
        return false;
    }
    return newsize <= MAX_REQUEST;
}

void fill(void* block, size_t size, int32 mode, const void* data)
{
    if (mode & ZERO_BIT) // wins over the copy
        memset(block, 0, size);
    else if (mode & COPY_BIT)
        memcpy(block, data, size);
}

jmp_buf* jumpBufferOf(EKO_MEMTAG tt)
{
    MemResult ignored;
    const TAG_ENTRY* tag = tt == EKO_THREAD_TAG ? existingTLSTag() : getCorrectTag(tt, &ignored);
    if (!tag)
        return nullptr;
    const SemGuard lock(tag->t_sem);
    return tag->t_jmpbuf;
}

void clearLast(void* block, size_t size, size_t count)
{
    count = count < size ? count : size;
    memset(static_cast<char*>(block) + (size - count), 0, count);
}

} // namespace

// ---- for the library's own use ----------------------------------------------------------------------------

void* tryGetMem(size_t size, EKO_MEMTAG tt, int32 mode, const void* data, MemResult* result)
{
    MemResult ignored;
    if (!result)
        result = &ignored;
    *result = MemResult::refused;
    if (!validateGetMem(&size, mode, data))
        return nullptr;
    TAG_ENTRY* tag = getCorrectTag(tt, result);
    if (!tag)
        return nullptr;
    void* block;
    {
        const SemGuard lock(tag->t_sem);
        block = takeFrom(tag, size);
    }
    *result = block ? MemResult::done : MemResult::exhausted;
    if (block)
        fill(block, size, mode, data);
    return block;
}

void* tryExtendMem(const void* ptr, size_t newsize, EKO_MEMTAG tt, MemResult* result)
{
    MemResult ignored;
    if (!result)
        result = &ignored;
    *result = MemResult::refused;
    if (!validateExtendMemory(ptr, newsize, tt))
        return nullptr;
    TAG_ENTRY* tag = getCorrectTag(tt, result);
    if (!tag)
        return nullptr;
    void* block;
    {
        const SemGuard lock(tag->t_sem);
        if (!ownedBy(tag, ptr))
            return nullptr;
        block = tag->t_fcns.realloc_fcn(const_cast<void*>(ptr), newsize, tag->t_allocator);
    }
    *result = block ? MemResult::done : MemResult::exhausted;
    return block;
}

EKO_MEMTAG tryCreateTag(jmp_buf* jb, int16 flags, EKO_ALLOCATOR_TYPE type, EKO_DESTROY_FCN destroy_fcn,
                        void* destroy_ctx, MemResult* result)
{
    MemResult ignored;
    if (!result)
        result = &ignored;
    *result = MemResult::refused;
    if (!mem_eko_inited_get__race_condition_ok() || !tagGlobal)
        return EKO_TAG_INVALID; // while the library stops, too: a callback may not add to what is destroyed
    return makeTag(jb, flags, type, destroy_fcn, destroy_ctx, result);
}

// The text fits the 1024 bytes that the log has on the stack, a longer name being cut, so nothing is allocated;
// inside a report nothing is said.
void memReport(const char* file, uint32 line)
{
    if (!insideReport())
        eko_log("Out of memory. Called from %.980s:%u\n", file, line);
}

void memFail(MemResult result, EKO_MEMTAG tt, const char* file, uint32 line)
{
    if (result != MemResult::exhausted)
        return;
    memReport(file, line);
    jmp_buf* jb = jumpBufferOf(tt);
    if (jb)
        longjmp(*jb, 1);
}

void* eko_allocSmallBlock(size_t size)
{
    return tryGetMem(size, &static_list_tag, EKO_MEM_ZERO, nullptr);
}

void eko_freeSmallBlock(void* ptr)
{
    EKO_FREE(ptr, &static_list_tag);
}

// ---- start and stop ---------------------------------------------------------------------------------------

namespace {

void startStaticTag()
{
    memset(&static_list_tag, 0, sizeof(static_list_tag));
    rememberType(&static_list_tag, LIST_ALLOCATOR);
    static_list_tag.t_sem = EKO_SEM_INVALID;
    static_list_tag.t_allocator = static_list_allocator;
    create_static_list_allocator(static_list_allocator, sizeof(static_list_tag.t_allocator),
                                 &static_list_tag.t_fcns);
}

bool createMutexes()
{
    EKO_SEM* const sems[] = {&tagGlobal->t_sem, &tagTabSem, &largeBlockSem, &static_list_tag.t_sem};
    bool complete = true;
    for (EKO_SEM* sem : sems) {
        *sem = EKO_MUTEX_CREATE();
        complete = complete && *sem != EKO_SEM_INVALID;
    }
    if (complete)
        return true;
    // The mutexes live in a block of the global tag: they go while it is still there, and before it is taken down
    // without locks.
    for (EKO_SEM* sem : sems) {
        eko_syncDelete(*sem);
        *sem = EKO_SEM_INVALID;
    }
    return false;
}

void destroyGlobalTag()
{
    TAG_ENTRY* tag = tagGlobal;
    tagGlobal = nullptr;
    writeUnlocked(session, uint32{0});
    writeUnlocked(lastNoTag, UINTPTR_MAX);
    EKO_TAG_DESTROY(tag);
}

bool startTags()
{
    MemResult ignored;
    TAG_ENTRY* tag = makeTag(nullptr, NOT_SHARED, BLOCK_ALLOCATOR, nullptr, nullptr, &ignored);
    if (tag == EKO_TAG_INVALID)
        return false;
    tagGlobal = tag;
    if (createMutexes())
        return true;
    destroyGlobalTag();
    return false;
}

// The semaphore table has deleted every mutex and freed their memory: no handle may be looked at any more.
void forgetMutexes()
{
    tagTabSem = EKO_SEM_INVALID;
    largeBlockSem = EKO_SEM_INVALID;
    static_list_tag.t_sem = EKO_SEM_INVALID;
    for (TAG_ENTRY* tag = taglisthead; tag; tag = tag->t_next)
        tag->t_sem = EKO_SEM_INVALID;
}

} // namespace

int32 eko_memInit()
{
    taglisthead = nullptr;
    taglisttail = nullptr;
    startStaticTag();
    if (eko_tlsCreateKey(&tagTLSkey) != EKO_OK)
        return EKO_FAILED;
    if (startTags()) {
        sessions += sessions == UINT32_MAX ? 2 : 1; // never 0
        writeUnlocked(session, sessions);
        writeUnlocked(lastNoTag, LAST_NO_TAG);
        return EKO_OK;
    }
    eko_tlsDestroyKey(tagTLSkey);
    return EKO_FAILED;
}

// Tags of other threads that did not release theirs are on the list and go with it. Callbacks run after the global
// tag has gone: for them it is nobody's.
void eko_memTerm()
{
    forgetMutexes();
    eko_releaseTLSTag();
    destroyGlobalTag();
    while (taglisthead)
        EKO_TAG_DESTROY(taglisthead);
    eko_tlsDestroyKey(tagTLSkey);
    EKO_TAG_EMPTY(&static_list_tag);
    EKO_ASSERT(!largeBlocksInUse());
}

// ---- tags -------------------------------------------------------------------------------------------------

int32 memTagsAlive()
{
    const SemGuard lock(tagTabSem);
    int32 count = 0;
    for (const TAG_ENTRY* tag = taglisthead; tag; tag = tag->t_next)
        ++count;
    return count;
}

TAG_ENTRY* memResolve(EKO_MEMTAG tt)
{
    MemResult ignored;
    return getCorrectTag(tt, &ignored);
}

EKO_MEMTAG eko_createTagEx(jmp_buf* jb, int16 flags, EKO_ALLOCATOR_TYPE type, EKO_DESTROY_FCN destroy_fcn,
                           void* destroy_ctx, const char* file, uint32 line)
{
    MemResult result;
    const EKO_MEMTAG tag = tryCreateTag(jb, flags, type, destroy_fcn, destroy_ctx, &result);
    if (result == MemResult::exhausted)
        memReport(file, line);
    return tag;
}

void eko_freeTagMem(EKO_MEMTAG tt, int16 freetag, const char* /*file*/, uint32 /*line*/)
{
    if (!mem_eko_inited_get__race_condition_ok() || !isRealTag(tt))
        return;
    if (freetag && tt->t_destroy_fcn)
        tt->t_destroy_fcn(tt->t_destroy_ctx);
    const EKO_SEM sem = semForFreeing(tt);
    {
        const SemGuard lock(sem);
        tt->t_fcns.free_all_fcn(tt->t_allocator);
        if (freetag)
            destroyEmptied(tt);
    }
    if (freetag)
        eko_syncDelete(sem); // none when there was none
}

void eko_resetTag(jmp_buf* jb, EKO_MEMTAG tt)
{
    if (!mem_eko_inited_get__race_condition_ok())
        return;
    MemResult result = MemResult::refused;
    TAG_ENTRY* tag = getCorrectTag(tt, &result);
    if (!tag) {
        if (result == MemResult::exhausted)
            memReport(__FILE__, __LINE__);
        return;
    }
    const SemGuard lock(tag->t_sem);
    tag->t_jmpbuf = jb;
}

int32 eko_getTagMemInfo(EKO_MEMTAG tag, EKO_TAG_MEM_INFO* mem_info)
{
    if (!mem_eko_inited_get__race_condition_ok())
        return EKO_FAILED;
    if (!mem_info)
        return EKO_BAD_ARGUMENT;
    MemResult result = MemResult::refused;
    const TAG_ENTRY* entry = getCorrectTag(tag, &result);
    if (result == MemResult::exhausted)
        memReport(__FILE__, __LINE__);
    if (!entry || !entry->t_fcns.mem_info_fcn)
        return EKO_FAILED;
    entry->t_fcns.mem_info_fcn(entry->t_allocator, mem_info);
    return EKO_OK;
}

void eko_releaseTLSTag(void)
{
    if (!mem_eko_inited_get__race_condition_ok())
        return;
    TAG_ENTRY* tag = existingTLSTag();
    if (!tag)
        return;
    eko_tlsSetPtr(tagTLSkey, nullptr);
    rememberedTag.tag = nullptr;
    EKO_TAG_DESTROY(tag);
}

// ---- blocks -----------------------------------------------------------------------------------------------
//
// Most requests are plain ones on a tag without a mutex, met by a list of the block allocator or by the top chunk
// of the stack allocator. They are tried first, and do there what the general way would do. Whatever is different
// about a request, it goes the general way.

namespace {

bool isUnlocked(const TAG_ENTRY* tag)
{
    return tag && tag->t_sem == EKO_SEM_INVALID;
}

bool giveAtHand(void* ptr, EKO_MEMTAG tt)
{
    TAG_ENTRY* tag = tagAtHand(tt);
    if (!ptr || !isUnlocked(tag) || !owns(tag, ptr))
        return false;
    giveTo(tag, ptr);
    return true;
}

// Whether the block holds that many bytes already.
bool holdsAtHand(const void* ptr, size_t newsize, EKO_MEMTAG tt)
{
    TAG_ENTRY* tag = tagAtHand(tt);
    const bool usual = isUnlocked(tag) && tag->t_fcns.realloc_fcn == block_allocator_realloc;
    return usual && ptr && newsize && owns(tag, ptr) && blockHeaderOf(const_cast<void*>(ptr))->hdr.size >= newsize;
}

// A plain request of a size that is not refused, on a tag without a mutex.
void* getPlainMem(size_t size, TAG_ENTRY* tag, EKO_MEMTAG tt, const char* file, uint32 line)
{
    void* block = tag->t_fcns.alloc_fcn(size, tag->t_allocator);
    if (!block)
        memFail(MemResult::exhausted, tt, file, line);
    return block;
}

// Out of line and with the arguments where they are, so that the usual way saves and moves no registers for it.
[[gnu::noinline]] void* getMem(size_t size, EKO_MEMTAG tt, int32 mode, const void* data, const char* file,
                               uint32 line)
{
    TAG_ENTRY* tag = mode == EKO_MEM_PLAIN ? tagAtHand(tt) : nullptr;
    if (isUnlocked(tag) && size - 1 < MAX_REQUEST) // not 0
        return getPlainMem(size, tag, tt, file, line);
    MemResult result;
    void* block = tryGetMem(size, tt, mode, data, &result);
    if (!block)
        memFail(result, tt, file, line);
    return block;
}

[[gnu::noinline]] void freeMem(void* ptr, EKO_MEMTAG tt)
{
    if (!mem_eko_inited_get__race_condition_ok() || !ptr)
        return;
    MemResult ignored;
    TAG_ENTRY* tag = getCorrectTag(tt, &ignored);
    if (!tag)
        return;
    const SemGuard lock(semForFreeing(tag));
    if (ownedBy(tag, ptr))
        giveTo(tag, ptr);
}

} // namespace

void* eko_getMem(size_t size, EKO_MEMTAG tt, int32 mode, const void* data, const char* file, uint32 line)
{
    if (mode != EKO_MEM_PLAIN)
        return getMem(size, tt, mode, data, file, line);
    TAG_ENTRY* tag = tagAtHand(tt);
    void* block = isUnlocked(tag) ? takeUsual(tag, size) : nullptr;
    return block ? block : getMem(size, tt, EKO_MEM_PLAIN, nullptr, file, line);
}

void* eko_extendMem(const void* ptr, size_t newsize, EKO_MEMTAG tt, int32 clear, size_t incsize, const char* file,
                    uint32 line)
{
    if (!clear && holdsAtHand(ptr, newsize, tt))
        return const_cast<void*>(ptr);
    if (!ptr)
        return eko_getMem(newsize, tt, clear ? EKO_MEM_ZERO : EKO_MEM_PLAIN, nullptr, file, line);
    MemResult result;
    void* block = tryExtendMem(ptr, newsize, tt, &result);
    if (!block)
        memFail(result, tt, file, line);
    else if (clear)
        clearLast(block, newsize, incsize);
    return block;
}

void eko_freeMem(const void* ptr, EKO_MEMTAG tt, const char* /*file*/, uint32 /*line*/)
{
    void* block = const_cast<void*>(ptr);
    if (!giveAtHand(block, tt))
        freeMem(block, tt);
}

// ---- limit and figures of the process ---------------------------------------------------------------------

int32 eko_setMemLimit(void* ptr, size_t limit)
{
    if (mem_eko_inited_get__race_condition_ok() && (ptr || readUnlocked(eko_membuffer)))
        return EKO_FAILED;
    if (limit != 0 && limit < MIN_LIMIT)
        return EKO_FAILED;
    if (ptr && (limit == 0 || reinterpret_cast<uintptr_t>(ptr) % BLOCK_ALIGNMENT != 0))
        return EKO_FAILED; // no room for anything, or every block misaligned
    writeUnlocked(eko_memlimit, limit);
    writeUnlocked(eko_membuffer, ptr); // the null that it was already, when others may be reading it
    return EKO_OK;
}

void eko_getMemUsage(size_t* curr_usage, size_t* max_usage)
{
    if (curr_usage)
        *curr_usage = readUnlocked(eko_mem_stats.in_use);
    if (max_usage)
        *max_usage = readUnlocked(eko_mem_stats.max_in_use);
}

void eko_memReport(const char*, ...) {}

void eko_memReportTag(EKO_MEMTAG, const char*, ...) {}

void copyMemInfo(const EKO_TAG_MEM_INFO& from, EKO_TAG_MEM_INFO* to)
{
    to->bytes.in_use = readUnlocked(from.bytes.in_use);
    to->bytes.max_in_use = readUnlocked(from.bytes.max_in_use);
    to->capacity.in_use = readUnlocked(from.capacity.in_use);
    to->capacity.max_in_use = readUnlocked(from.capacity.max_in_use);
}
