// SPDX-License-Identifier: MIT
// Semaphore table: every mutex and every event of the process, and the library's critical section.
//
// Data      128 rows of 1024 slots. A row's block of slots is allocated when the row is first needed, in one
//           piece, and freed when the library stops. A handle is the address of its slot.
//
//               sem_table  [0] entry --> | slot 0 | slot 1 | ... | slot 1023 |
//                              avail --> index of the first free slot; a free slot holds the next index, -1 ends
//                          [1] entry = null: never needed
//
//           The first row with a free slot serves a request, and in it the slot freed last. Rows that are known
//           to be full are not looked at.
// Locks     semTabMutex guards the rows, the first of them that can serve, and the slots' avail. Nothing is
//           requested inside it: a new block is allocated with it released. globalMutex is the critical section; it
//           comes before every other lock.
// Unlocked  the module's state, the rows' end of life, a mutex's count and id, an event's flag. A thread finds
//           its own id in a mutex only if it put it there while holding it; every other thread falls through to
//           the lock.
//
// State comes first, the handle second: once the library has stopped, handles point into freed memory, and it is
// the test of the state in front of every access that makes calls with them harmless.

#include <errno.h>
#include <string.h>
#include <sys/time.h>

#include "ekolog_int.h"
#include "ekomem_int.h"

namespace {

constexpr int32 ROWS = 128;
constexpr int16 SLOTS_PER_ROW = 1024;
constexpr int16 CHAIN_END = -1;   // avail of the last free slot, and of a full row
constexpr int16 SLOT_IN_USE = -2; // avail of a slot in use
constexpr int16 NO_TYPE = 0;

struct EKO_MUTEX_ENTRY {
    pthread_mutex_t mutex;
    int32 count;  // times the owner has entered; 0 when free
    pthread_t id; // the owner; 0 when free
};

struct EKO_EVENT_ENTRY {
    pthread_cond_t cond;
    pthread_mutex_t mutex; // guards flag for waiters
    int16 flag;            // 1 signalled, 0 reset
};

struct EKO_SEM_TABLE;

// Slots begin with a cache line, so that threads which are in different mutexes do not wait for each other's lines.
constexpr size_t CACHE_LINE = 64;

struct alignas(CACHE_LINE) EKO_SEM_ENTRY {
    union {
        EKO_MUTEX_ENTRY m;
        EKO_EVENT_ENTRY e;
    } obj;
    int16 type;
    int16 avail;
    EKO_SEM_TABLE* owner;
};

struct EKO_SEM_TABLE {
    EKO_SEM_ENTRY* entry;
    int16 avail;
    void* block; // the memory in which the entries are
};

constexpr size_t BLOCK_BYTES = sizeof(EKO_SEM_ENTRY) * SLOTS_PER_ROW + CACHE_LINE - BLOCK_ALIGNMENT;

enum : int32 { SYNC_STOPPED = 0, SYNC_RUNNING = 1, SYNC_SHUTTING_DOWN = -1 };

EKO_SEM_TABLE sem_table[ROWS];
int32 firstRow = 0; // the rows in front of it are full
int32 eko_sync_inited = SYNC_STOPPED;
int32 rowsFreed = 0; // 1 once shutdown has freed the rows: nothing may touch a slot any more
pthread_mutex_t semTabMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t globalMutex = PTHREAD_MUTEX_INITIALIZER;

// ---- deliberate unlocked accesses -------------------------------------------------------------------------

int32 uxthreads_eko_inited_get__race_condition_ok()
{
    return readUnlocked(eko_inited);
}
void eko_count_inc__race_condition_ok(EKO_MUTEX_ENTRY& m)
{
    writeUnlocked(m.count, readUnlocked(m.count) + 1);
}
int32 eko_count_dec__race_condition_ok(EKO_MUTEX_ENTRY& m)
{
    const int32 count = readUnlocked(m.count) - 1;
    writeUnlocked(m.count, count);
    return count;
}
int32 eko_count_get__race_condition_ok(const EKO_MUTEX_ENTRY& m)
{
    return readUnlocked(m.count);
}
void eko_count_set__race_condition_ok(EKO_MUTEX_ENTRY& m, int32 count)
{
    writeUnlocked(m.count, count);
}
void eko_id_set__race_condition_ok(EKO_MUTEX_ENTRY& m, pthread_t id)
{
    writeUnlocked(m.id, id);
}
pthread_t eko_id_get__race_condition_ok(const EKO_MUTEX_ENTRY& m)
{
    return readUnlocked(m.id);
}

bool running()
{
    return readUnlocked(eko_sync_inited) == SYNC_RUNNING;
}

// ---- slots ------------------------------------------------------------------------------------------------

bool isHandle(EKO_SEM sem)
{
    return sem != EKO_SEM_INVALID && sem != nullptr;
}

EKO_SEM_ENTRY* slotOf(EKO_SEM sem)
{
    return static_cast<EKO_SEM_ENTRY*>(const_cast<void*>(sem));
}

// The slot of a handle of that type; otherwise logs `complaint` and answers null. While the table does not run, null
// without a look at the handle.
EKO_SEM_ENTRY* checkedSlot(EKO_SEM sem, int16 type, const char* complaint)
{
    if (!running())
        return nullptr;
    if (isHandle(sem) && slotOf(sem)->type == type)
        return slotOf(sem);
    eko_log("%s", complaint);
    return nullptr;
}
EKO_SEM_ENTRY* mutexSlot(EKO_SEM sem)
{
    return checkedSlot(sem, EKO_SEM_MUTEX, "Invalid mutex\n");
}
EKO_SEM_ENTRY* eventSlot(EKO_SEM sem)
{
    return checkedSlot(sem, EKO_SEM_EVENT, "Invalid event\n");
}

void installBlock(EKO_SEM_TABLE& row, void* block)
{
    const auto address = reinterpret_cast<uintptr_t>(block);
    const size_t toNextLine = (CACHE_LINE - address % CACHE_LINE) % CACHE_LINE;
    auto* entry = reinterpret_cast<EKO_SEM_ENTRY*>(static_cast<char*>(block) + toNextLine);
    for (int16 i = 0; i < SLOTS_PER_ROW; ++i) {
        entry[i].avail = static_cast<int16>(i + 1);
        entry[i].owner = &row;
    }
    entry[SLOTS_PER_ROW - 1].avail = CHAIN_END;
    row.entry = entry;
    row.avail = 0;
    row.block = block;
}

enum class Search { found, needsBlock, full };

// Takes the first free slot. A row without a block gets *spare, if there is one, and else ends the search.
Search takeSlot(void** spare, EKO_SEM_ENTRY** slot)
{
    PosixGuard lock(semTabMutex);
    for (; firstRow < ROWS; ++firstRow) {
        EKO_SEM_TABLE& row = sem_table[firstRow];
        if (!row.entry) {
            if (!*spare)
                return Search::needsBlock;
            installBlock(row, *spare);
            *spare = nullptr;
        }
        if (row.avail != CHAIN_END) {
            *slot = &row.entry[row.avail];
            row.avail = (*slot)->avail;
            (*slot)->avail = SLOT_IN_USE;
            return Search::found;
        }
    }
    return Search::full;
}

void* newBlock(MemResult* result)
{
    return tryGetMem(BLOCK_BYTES, EKO_GLOBAL_TAG, EKO_MEM_ZERO, nullptr, result);
}

// A slot marked as in use, or null. Another thread may install a block while this one allocates: the search then
// starts again, and the block is given back.
EKO_SEM_ENTRY* semGetNewEntry(const char* file, int32 line)
{
    EKO_SEM_ENTRY* slot = nullptr;
    void* spare = nullptr;
    Search search;
    MemResult memory = MemResult::done;
    while ((search = takeSlot(&spare, &slot)) == Search::needsBlock && (spare = newBlock(&memory)) != nullptr)
        ;
    eko_freeMem(spare, EKO_GLOBAL_TAG, __FILE__, __LINE__);
    if (search == Search::full)
        eko_log("Insufficient number of semaphores, called from %s:%d\n", file, line);
    else if (memory == MemResult::exhausted)
        memReport(__FILE__, __LINE__);
    return slot;
}

// Destroys what the operating system knows of a slot's object; a slot whose creation was refused has none.
void psemDelete(EKO_SEM_ENTRY* sem)
{
    if (sem->type == EKO_SEM_MUTEX) {
        pthread_mutex_destroy(&sem->obj.m.mutex);
    } else if (sem->type == EKO_SEM_EVENT) {
        pthread_mutex_destroy(&sem->obj.e.mutex);
        pthread_cond_destroy(&sem->obj.e.cond);
    }
}

void giveSlotBack(EKO_SEM_ENTRY* sem, EKO_SEM_TABLE* row)
{
    PosixGuard lock(semTabMutex);
    sem->avail = row->avail;
    row->avail = static_cast<int16>(sem - row->entry);
    const auto index = static_cast<int32>(row - sem_table);
    if (index < firstRow)
        firstRow = index;
}

#if EKO_CHECKED
void checkLeaver(const EKO_MUTEX_ENTRY& m)
{
    if (eko_count_get__race_condition_ok(m) < 1 || !pthread_equal(eko_id_get__race_condition_ok(m), pthread_self()))
        eko_log_err("Mutex left by a thread that does not hold it\n");
}
// Not by the log, which stops before the table does.
void checkNotHeld(const EKO_SEM_ENTRY& slot, const char* when)
{
    if (slot.type == EKO_SEM_MUTEX && eko_count_get__race_condition_ok(slot.obj.m) > 0)
        sayDirectly("Mutex %p still held at %s\n", static_cast<const void*>(&slot), when);
}
#else
void checkLeaver(const EKO_MUTEX_ENTRY&) {}
void checkNotHeld(const EKO_SEM_ENTRY&, const char*) {}
#endif

void freeRow(EKO_SEM_TABLE& row)
{
    for (int32 i = 0; i < SLOTS_PER_ROW; ++i) {
        if (row.entry[i].avail == SLOT_IN_USE) {
            checkNotHeld(row.entry[i], "the stop of the library");
            psemDelete(&row.entry[i]);
        }
    }
    eko_freeMem(row.block, EKO_GLOBAL_TAG, __FILE__, __LINE__);
}

} // namespace

// ---- module control ---------------------------------------------------------------------------------------

int32 eko_syncInit()
{
    memset(sem_table, 0, sizeof(sem_table));
    firstRow = 0;
    writeUnlocked(rowsFreed, 0);
    writeUnlocked(eko_sync_inited, static_cast<int32>(SYNC_RUNNING));
    return EKO_OK;
}

// Only the stopping thread is left, so the walk takes no lock. The row pointers stay as they are until the next
// start; rowsFreed keeps later deletions, which this state still allows, away from them.
void eko_syncShutdown()
{
    writeUnlocked(eko_sync_inited, static_cast<int32>(SYNC_SHUTTING_DOWN));
    for (EKO_SEM_TABLE& row : sem_table) {
        if (row.entry)
            freeRow(row);
    }
    writeUnlocked(rowsFreed, 1);
}

void eko_syncTerm()
{
    writeUnlocked(eko_sync_inited, static_cast<int32>(SYNC_STOPPED));
}

int32 syncSlotsInUse()
{
    const PosixGuard lock(semTabMutex);
    int32 count = 0;
    for (const EKO_SEM_TABLE& row : sem_table) {
        for (int32 i = 0; row.entry && i < SLOTS_PER_ROW; ++i)
            count += row.entry[i].avail == SLOT_IN_USE ? 1 : 0;
    }
    return count;
}

// ---- creation and deletion --------------------------------------------------------------------------------

EKO_SEM eko_syncCreate_check(int16 type, const char* file, int32 line)
{
    if (!running() || uxthreads_eko_inited_get__race_condition_ok() <= 0)
        return EKO_SEM_INVALID;
    EKO_SEM_ENTRY* slot = semGetNewEntry(file, line);
    if (!slot)
        return EKO_SEM_INVALID;
    slot->type = type;
    if (type == EKO_SEM_MUTEX) {
        pthread_mutex_init(&slot->obj.m.mutex, nullptr);
        eko_count_set__race_condition_ok(slot->obj.m, 0); // id only counts while count is not 0
    } else if (type == EKO_SEM_EVENT) {
        pthread_mutex_init(&slot->obj.e.mutex, nullptr);
        pthread_cond_init(&slot->obj.e.cond, nullptr);
        writeUnlocked(slot->obj.e.flag, static_cast<int16>(1));
    } else {
        // DELIBERATE: the slot stays taken until the library stops; each such call costs one, and the callers'
        // handles are numbered accordingly. Pinned by sync_unknown_type_loses_a_slot.
        eko_log("Invalid semaphore type\n");
        return EKO_SEM_INVALID;
    }
    return slot;
}

void eko_syncDelete(EKO_SEM sem)
{
    if (readUnlocked(eko_sync_inited) == SYNC_STOPPED || readUnlocked(rowsFreed) || !isHandle(sem))
        return;
    EKO_SEM_ENTRY* slot = slotOf(sem);
    EKO_SEM_TABLE* row = slot->owner;
    checkNotHeld(*slot, "its deletion");
    psemDelete(slot);
    slot->type = NO_TYPE;
    giveSlotBack(slot, row);
}

// ---- mutexes ----------------------------------------------------------------------------------------------

namespace {

// What pthread_self answers, kept for want of a quicker call. It never changes in a thread, and is never 0.
pthread_t callingThread()
{
    static __thread pthread_t self __attribute__((tls_model("initial-exec")));
    if (self == 0)
        self = pthread_self();
    return self;
}

// Whether the calling thread is in already; then it is so once more.
bool enteredAgain(EKO_MUTEX_ENTRY& m)
{
    if (eko_count_get__race_condition_ok(m) == 0 ||
        !pthread_equal(eko_id_get__race_condition_ok(m), callingThread()))
        return false;
    eko_count_inc__race_condition_ok(m);
    return true;
}

void becomeOwner(EKO_MUTEX_ENTRY& m)
{
    eko_id_set__race_condition_ok(m, callingThread());
    eko_count_set__race_condition_ok(m, 1);
}

} // namespace

void eko_syncEnterExcl(EKO_SEM sem)
{
    EKO_SEM_ENTRY* slot = mutexSlot(sem);
    if (!slot)
        return;
    EKO_MUTEX_ENTRY& m = slot->obj.m;
    if (enteredAgain(m))
        return;
    pthread_mutex_lock(&m.mutex);
    becomeOwner(m);
}

#if EKO_THREAD_SANITIZER
bool syncTryEnter(EKO_SEM sem)
{
    EKO_SEM_ENTRY* slot = mutexSlot(sem);
    if (!slot || enteredAgain(slot->obj.m))
        return true;
    if (pthread_mutex_trylock(&slot->obj.m.mutex) != 0)
        return false;
    becomeOwner(slot->obj.m);
    return true;
}
#endif

// DELIBERATE: who leaves is not checked. A leave without an enter takes the count to -1 and unlocks a free mutex;
// the next enter works because id is 0. Pinned by sync_exit_does_not_check_the_caller.
void eko_syncExitExcl(EKO_SEM sem)
{
    EKO_SEM_ENTRY* slot = mutexSlot(sem);
    if (!slot)
        return;
    EKO_MUTEX_ENTRY& m = slot->obj.m;
    checkLeaver(m);
    if (eko_count_dec__race_condition_ok(m) < 1) {
        eko_id_set__race_condition_ok(m, 0);
        pthread_mutex_unlock(&m.mutex);
    }
}

// ---- events -----------------------------------------------------------------------------------------------

void eko_syncStart(EKO_SEM sem)
{
    EKO_SEM_ENTRY* slot = eventSlot(sem);
    if (slot)
        writeUnlocked(slot->obj.e.flag, static_cast<int16>(0)); // without the event's mutex, on purpose
}

void eko_syncResume(EKO_SEM sem)
{
    EKO_SEM_ENTRY* slot = eventSlot(sem);
    if (!slot)
        return;
    PosixGuard lock(slot->obj.e.mutex);
    writeUnlocked(slot->obj.e.flag, static_cast<int16>(1));
    pthread_cond_broadcast(&slot->obj.e.cond);
}

// DELIBERATE: each wake-up that finds the event reset waits the whole time again. Callers poll with short times
// and count on at least that long. Pinned by sync_wait_restarts_its_period.
int16 eko_syncWait(EKO_SEM sem, uint32 timeout)
{
    EKO_SEM_ENTRY* slot = eventSlot(sem);
    if (!slot)
        return EKO_FAILED;
    EKO_EVENT_ENTRY& e = slot->obj.e;
    PosixGuard lock(e.mutex);
    int16 result = EKO_OK;
    while (readUnlocked(e.flag) == 0 && result != EKO_TIMED_OUT) {
        if (timeout == EKO_FOREVER)
            pthread_cond_wait(&e.cond, &e.mutex);
        else
            result = eko_posix_cond_timedwait(&e.cond, &e.mutex, timeout);
    }
    return result;
}

int16 eko_posix_cond_timedwait(pthread_cond_t* c, pthread_mutex_t* m, uint32 t)
{
    constexpr long NANOS_PER_SEC = 1000000000;
    timeval now;
    gettimeofday(&now, nullptr);
    time_t seconds;
    long nanos = static_cast<long>(now.tv_usec) * 1000 + static_cast<long>(t % 1000) * 1000000;
    time_t wholeSeconds = static_cast<time_t>(t / 1000);
    // DELIBERATE: a sum of exactly one second is not carried; the system then refuses the deadline and the call
    // reads as a wake-up, after which eko_syncWait waits once more. Pinned by sync_timedwait_exact_second.
    if (nanos > NANOS_PER_SEC) {
        wholeSeconds += nanos / NANOS_PER_SEC;
        nanos %= NANOS_PER_SEC;
    }
    if (__builtin_add_overflow(now.tv_sec, wholeSeconds, &seconds))
        seconds = static_cast<time_t>(sizeof(time_t) == 4 ? INT32_MAX : INT64_MAX); // 32-bit clocks end in 2038
    const timespec deadline = {seconds, nanos};
    const int rc = pthread_cond_timedwait(c, m, &deadline);
    return rc == ETIME || rc == ETIMEDOUT ? static_cast<int16>(EKO_TIMED_OUT) : static_cast<int16>(EKO_OK);
}

// ---- critical section -------------------------------------------------------------------------------------

void eko_enterCritSec(void)
{
    pthread_mutex_lock(&globalMutex);
}

void eko_exitCritSec(void)
{
    pthread_mutex_unlock(&globalMutex);
}
