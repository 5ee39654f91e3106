// SPDX-License-Identifier: MIT
// Message queues between threads.
//
// Data      A queue is one tag: its record, its name, its node in the module's list and the records of its messages
//           all come from there, so one call frees it. Records of messages that were read are kept and used again.
// Locks     queueTabMutex guards the list of queues, and is never held together with a queue's own. mtSem makes
//           readers take turns and is held while one waits; exclSem guards the messages; mtSem comes first.
// Unlocked  the closed flag, the count, whether there is a name. The count is only a hint where no lock is held: an
//           empty queue is looked at again under exclSem.
//
// Waking up  A reader that finds nothing resets the event under exclSem and then waits; a writer signals it under
//           exclSem: no message can come between look and reset unseen. Closing takes no lock: it sets the flag and
//           then signals, while a reader resets and then looks at the flag once more. Both go to the flag by one
//           atomic exchange, so whichever is second sees what the first did: the reader the flag, or the closer's
//           signal comes behind the reset. To signal what is signalled already would change nothing, and writes and
//           resets both hold exclSem: a write leaves it out unless there was a reset in between.

#include <string.h>

#include "ekoqueue_int.h"

namespace {

constexpr int32 QUEUE_IS_EMPTY = 2;
constexpr int32 QUEUE_IS_CLOSED = 3;
constexpr int32 ANY_MESSAGE = -1; // of eko_queuePurge

GlobalSlot queueSlot = {
    "ekoqueue", sizeof(EKO_QUEUE_GLOBALS), eko_queueInit, eko_queueTerm, nullptr, nullptr,
};

// ---- deliberate unlocked accesses -------------------------------------------------------------------------

bool eko_queue_closed_get__race_condition_ok(const EKO_QUEUE& q)
{
    return (readUnlocked(q.status) & QUEUE_CLOSED) != 0;
}
// The same behind the reset of the event.
bool eko_queue_closed_since_reset__race_condition_ok(EKO_QUEUE& q)
{
    return (__atomic_fetch_or(&q.status, static_cast<uint16>(0), __ATOMIC_SEQ_CST) & QUEUE_CLOSED) != 0;
}
void eko_queue_closed_set__race_condition_ok(EKO_QUEUE& q)
{
    __atomic_fetch_or(&q.status, QUEUE_CLOSED, __ATOMIC_SEQ_CST);
}
bool eko_queue_named_get__race_condition_ok(const EKO_QUEUE& q)
{
    return readUnlocked(q.name) != nullptr;
}
int32 eko_queue_count_get__race_condition_ok(const EKO_QUEUE& q)
{
    return readUnlocked(q.count);
}
void eko_queue_count_add__race_condition_ok(EKO_QUEUE& q, int32 change)
{
    writeUnlocked(q.count, readUnlocked(q.count) + change);
}

// ---- handles ----------------------------------------------------------------------------------------------

EKO_QUEUE* queueOf(EKO_QUEUE_HANDLE queueHandle)
{
    return static_cast<EKO_QUEUE*>(queueHandle);
}

void complainOfHandle()
{
    eko_log("Invalid queue handle");
}

// The queue of a handle, or null, with a message, for a null handle.
EKO_QUEUE* givenQueue(EKO_QUEUE_HANDLE queueHandle)
{
    if (!queueHandle)
        complainOfHandle();
    return queueOf(queueHandle);
}

// The same for calls that also look at the name.
// DELIBERATE: a queue whose name is null is reported and then used like any other: to callers the message is a
// hint, not a refusal. Pinned by queue_without_a_name_is_reported_and_used.
EKO_QUEUE* namedQueue(EKO_QUEUE_HANDLE queueHandle)
{
    if (!queueHandle || !eko_queue_named_get__race_condition_ok(*queueOf(queueHandle)))
        complainOfHandle();
    return queueOf(queueHandle);
}

// ---- messages, with exclSem held --------------------------------------------------------------------------

void addSpare(EKO_QUEUE& q, QUEMSG* record)
{
    record->next = q.avail;
    q.avail = record;
}

QUEMSG* newRecord(const EKO_QUEUE& q, MemResult* result)
{
    return static_cast<QUEMSG*>(tryGetMem(sizeof(QUEMSG), q.mtag, EKO_MEM_PLAIN, nullptr, result));
}

QUEMSG* takeSpare(EKO_QUEUE& q, MemResult* result)
{
    QUEMSG* record = q.avail;
    if (!record)
        return newRecord(q, result);
    q.avail = record->next;
    return record;
}

void link(EKO_QUEUE& q, QUEMSG* record, int16 qFlag)
{
    record->next = nullptr;
    if (!q.head) {
        q.head = q.tail = record;
    } else if (qFlag & EKO_QUEUE_HEAD) {
        record->next = q.head;
        q.head = record;
    } else {
        q.tail->next = record;
        q.tail = record;
    }
    eko_queue_count_add__race_condition_ok(q, 1);
}

// Unlinks the message behind `before`, the first one for null, and makes its record a spare one.
void unlink(EKO_QUEUE& q, QUEMSG* before)
{
    QUEMSG*& place = before ? before->next : q.head;
    QUEMSG* record = place;
    place = record->next;
    if (q.tail == record)
        q.tail = before;
    eko_queue_count_add__race_condition_ok(q, -1);
    addSpare(q, record);
}

void purge(EKO_QUEUE& q, int32 msgid)
{
    QUEMSG* before = nullptr;
    QUEMSG* next;
    for (QUEMSG* record = q.head; record; record = next) {
        next = record->next;
        if (msgid == ANY_MESSAGE || record->msgid == msgid)
            unlink(q, before);
        else
            before = record;
    }
}

// ---- writing ----------------------------------------------------------------------------------------------

// With exclSem held.
void signalOnce(EKO_QUEUE& q)
{
    if (q.signalled)
        return;
    q.signalled = true;
    eko_syncResume(q.entrySem);
}

// On EKO_NO_MEMORY exclSem stays held.
int32 writeMessage(EKO_QUEUE& q, const QUEMSG& message, int16 qFlag, MemResult* result)
{
    eko_syncEnterExcl(q.exclSem);
    if (eko_queue_closed_get__race_condition_ok(q)) {
        eko_syncExitExcl(q.exclSem);
        return QUEUE_IS_CLOSED;
    }
    QUEMSG* record = takeSpare(q, result);
    if (!record)
        return EKO_NO_MEMORY;
    *record = message;
    link(q, record, qFlag);
    signalOnce(q);
    eko_syncExitExcl(q.exclSem);
    return EKO_OK;
}

// ---- reading, with mtSem held -----------------------------------------------------------------------------

// Whether the queue is empty; then the event is reset, to be signalled by the next message.
bool resetWhenEmpty(EKO_QUEUE& q)
{
    const SemGuard lock(q.exclSem);
    if (q.head)
        return false;
    q.signalled = false;
    eko_syncStart(q.entrySem);
    return true;
}

// Returns 0 when there should be a message to take.
int32 awaitMessage(EKO_QUEUE& q, uint32 timeout)
{
    if (eko_queue_closed_get__race_condition_ok(q))
        return QUEUE_IS_CLOSED;
    if (eko_queue_count_get__race_condition_ok(q) != 0)
        return EKO_OK;
    if (timeout == 0)
        return QUEUE_IS_EMPTY;
    if (!resetWhenEmpty(q))
        return EKO_OK;
    if (eko_queue_closed_since_reset__race_condition_ok(q))
        return QUEUE_IS_CLOSED;
    if (eko_syncWait(q.entrySem, timeout) == EKO_TIMED_OUT)
        return EKO_TIMED_OUT;
    return eko_queue_closed_get__race_condition_ok(q) ? QUEUE_IS_CLOSED : EKO_OK;
}

// Takes the first message, and leaves mtSem.
// DELIBERATE: without a message both mutexes stay held. Nothing but a purge behind a waiting reader's back leads
// here; callers take it for the end of the queue and count on nobody going on with it. Pinned by
// queue_purged_under_a_reader_stays_locked.
int32 fetchMessage(EKO_QUEUE& q, QUEMSG* message)
{
    eko_syncEnterExcl(q.exclSem);
    if (!q.head) {
        eko_log("unexpected empty queue on %s", q.name);
        return EKO_FAILED;
    }
    *message = *q.head;
    unlink(q, nullptr);
    eko_syncExitExcl(q.exclSem);
    eko_syncExitExcl(q.mtSem);
    return EKO_OK;
}

// ---- creation and deletion --------------------------------------------------------------------------------

void deleteSemaphores(EKO_SEM entrySem, EKO_SEM mtSem, EKO_SEM exclSem)
{
    eko_syncDelete(entrySem);
    eko_syncDelete(mtSem);
    eko_syncDelete(exclSem);
}

// All three, or none.
bool createSemaphores(EKO_QUEUE& q)
{
    q.mtSem = q.exclSem = EKO_SEM_INVALID;
    q.entrySem = EKO_EVENT_CREATE(); // signalled
    q.signalled = true;
    if (q.entrySem != EKO_SEM_INVALID)
        q.mtSem = EKO_MUTEX_CREATE();
    if (q.mtSem != EKO_SEM_INVALID)
        q.exclSem = EKO_MUTEX_CREATE();
    if (q.exclSem != EKO_SEM_INVALID)
        return true;
    deleteSemaphores(q.entrySem, q.mtSem, q.exclSem);
    return false;
}

// Fills the queue's tag; null when something cannot be had, with no more than the tag to free.
EKO_QUEUE_NODE* makeQueue(EKO_MEMTAG tag, const char* name, MemResult* result)
{
    EKO_QUEUE_NODE* node = tryZeroed<EKO_QUEUE_NODE>(tag, result);
    EKO_QUEUE* q = node ? tryZeroed<EKO_QUEUE>(tag, result) : nullptr;
    if (!q)
        return nullptr;
    q->mtag = tag;
    if (!createSemaphores(*q))
        return nullptr;
    q->name = tryStrdup(name ? name : "", tag, result);
    if (!q->name) {
        deleteSemaphores(q->entrySem, q->mtSem, q->exclSem);
        return nullptr;
    }
    node->hQ = q;
    return node;
}

// Unlinks a queue, if it is listed, and counts it off. Returns how many are left.
int16 unlist(EKO_QUEUE_GLOBALS& globals, EKO_QUEUE_HANDLE queueHandle)
{
    const SemGuard lock(globals.queueTabMutex);
    EKO_QUEUE_NODE** place = &globals.qList;
    while (*place && (*place)->hQ != queueHandle)
        place = &(*place)->next;
    if (*place)
        *place = (*place)->next;
    // DELIBERATE: counted off whether or not it was listed; a negative count is what tells callers that their
    // deletions do not match. Pinned by queue_unlisted_deletion_is_counted.
    return --globals.nQueues;
}

// mtSem, entered last when a queue goes.
// DELIBERATE: readers enter it first. The reversed order keeps writers out before readers, and hangs when a reader
// is inside, which callers are to see to. Pinned by queue_deletion_waits_for_a_reader. The thread sanitizer's
// search for such reversals is the reason for the second form: trying adds no order to its records.
void enterReaders(EKO_SEM mtSem)
{
#if EKO_THREAD_SANITIZER
    while (!syncTryEnter(mtSem))
        eko_sleep(1);
#else
    eko_syncEnterExcl(mtSem);
#endif
}

void destroyQueue(const EKO_QUEUE& q)
{
    const EKO_SEM entrySem = q.entrySem; // the record goes with the tag
    const EKO_SEM mtSem = q.mtSem;
    const EKO_SEM exclSem = q.exclSem;
    eko_syncEnterExcl(exclSem);
    enterReaders(mtSem);
    EKO_TAG_DESTROY(q.mtag);
    eko_syncExitExcl(mtSem);
    eko_syncExitExcl(exclSem);
    deleteSemaphores(entrySem, mtSem, exclSem);
}

} // namespace

// ---- module control ---------------------------------------------------------------------------------------

EKO_QUEUE_GLOBALS* eko_queueGlobals()
{
    return static_cast<EKO_QUEUE_GLOBALS*>(globalRecord(queueSlot));
}

int32 eko_queueInit(void* data)
{
    auto* globals = static_cast<EKO_QUEUE_GLOBALS*>(data);
    globals->nQueues = 0;
    globals->qList = nullptr;
    globals->queueTabMutex = EKO_MUTEX_CREATE();
    return globals->queueTabMutex == EKO_SEM_INVALID ? EKO_FAILED : EKO_OK;
}

void eko_queueTerm(void* data)
{
    auto* globals = static_cast<EKO_QUEUE_GLOBALS*>(data);
    EKO_QUEUE_NODE* next;
    for (EKO_QUEUE_NODE* node = globals->qList; node; node = next) {
        next = node->next; // the node goes with its queue
        destroyQueue(*queueOf(node->hQ));
    }
    globals->qList = nullptr;
    globals->nQueues = 0;
    eko_syncDelete(globals->queueTabMutex);
    globals->queueTabMutex = EKO_SEM_INVALID;
}

// ---- interface --------------------------------------------------------------------------------------------

EKO_QUEUE_HANDLE eko_queueCreate(const char* qName)
{
    EKO_QUEUE_GLOBALS* globals = eko_queueGlobals();
    if (!globals)
        return nullptr;
    MemResult result = MemResult::done;
    const EKO_MEMTAG tag = tryCreateTag(nullptr, 0, BLOCK_ALLOCATOR, nullptr, nullptr, &result);
    EKO_QUEUE_NODE* node = tag != EKO_TAG_INVALID ? makeQueue(tag, qName, &result) : nullptr;
    if (!node) {
        EKO_TAG_DESTROY(tag);
        memReportIf(result, __FILE__, __LINE__);
        return nullptr;
    }
    const SemGuard lock(globals->queueTabMutex);
    node->next = globals->qList;
    globals->qList = node;
    ++globals->nQueues;
    return node->hQ;
}

void eko_queueDelete(EKO_QUEUE_HANDLE queueHandle)
{
    // The state comes first: once the library has stopped, the handle points into freed memory.
    EKO_QUEUE_GLOBALS* globals = queueHandle ? eko_queueGlobals() : nullptr;
    if (!globals || !eko_queue_named_get__race_condition_ok(*queueOf(queueHandle)))
        return;
    const int16 left = unlist(*globals, queueHandle);
    destroyQueue(*queueOf(queueHandle));
    if (left < 0)
        eko_log("Deleted too many queues");
}

EKO_QUEUE_HANDLE eko_queueFind(const char* queueName)
{
    EKO_QUEUE_GLOBALS* globals = queueName ? eko_queueGlobals() : nullptr;
    if (!globals)
        return nullptr;
    const SemGuard lock(globals->queueTabMutex);
    for (const EKO_QUEUE_NODE* node = globals->qList; node; node = node->next) {
        const EKO_QUEUE& q = *queueOf(node->hQ);
        if (eko_queue_named_get__race_condition_ok(q) && strcmp(q.name, queueName) == 0)
            return node->hQ;
    }
    return nullptr;
}

// DELIBERATE: without memory exclSem stays held. No caller survives that, and nobody is to go on with a queue that
// has lost a message. Pinned by queue_without_memory_stays_locked.
int32 eko_queueWrite(EKO_QUEUE_HANDLE queueHandle, void* buf, uint32 bufLen, int32 msgid, int16 qFlag)
{
    EKO_QUEUE* q = namedQueue(queueHandle);
    if (!q)
        return EKO_FAILED;
    MemResult result = MemResult::done;
    const int32 status = writeMessage(*q, {nullptr, static_cast<char*>(buf), bufLen, msgid}, qFlag, &result);
    memReportIf(result, __FILE__, __LINE__);
    return status;
}

int32 tryQueueWrite(EKO_QUEUE_HANDLE queueHandle, void* buf, MemResult* result)
{
    EKO_QUEUE* q = queueOf(queueHandle);
    const int32 status = writeMessage(*q, {nullptr, static_cast<char*>(buf), 0, 0}, EKO_QUEUE_TAIL, result);
    if (status == EKO_NO_MEMORY)
        eko_syncExitExcl(q->exclSem);
    return status;
}

bool tryQueueReserve(EKO_QUEUE_HANDLE queueHandle, MemResult* result)
{
    EKO_QUEUE* q = queueOf(queueHandle);
    const SemGuard lock(q->exclSem);
    QUEMSG* record = newRecord(*q, result);
    if (record)
        addSpare(*q, record);
    return record != nullptr;
}

int32 eko_queueRead(EKO_QUEUE_HANDLE queueHandle, void** buf, uint32* bufLen, int32* pmsgid, uint32 timeout)
{
    EKO_QUEUE* q = namedQueue(queueHandle);
    if (!q)
        return EKO_FAILED;
    if (!buf)
        return EKO_BAD_ARGUMENT;
    eko_syncEnterExcl(q->mtSem);
    int32 status = awaitMessage(*q, timeout);
    if (status != EKO_OK) {
        eko_syncExitExcl(q->mtSem);
        return status;
    }
    QUEMSG message;
    status = fetchMessage(*q, &message);
    if (status != EKO_OK)
        return status;
    *buf = message.msg;
    if (bufLen)
        *bufLen = message.len;
    if (pmsgid)
        *pmsgid = message.msgid;
    return EKO_OK;
}

void eko_queuePurge(EKO_QUEUE_HANDLE queueHandle, int32 msgid)
{
    EKO_QUEUE* q = namedQueue(queueHandle);
    if (!q || eko_queue_closed_get__race_condition_ok(*q))
        return;
    const SemGuard lock(q->exclSem);
    purge(*q, msgid);
}

void eko_queueClose(EKO_QUEUE_HANDLE queueHandle)
{
    EKO_QUEUE* q = givenQueue(queueHandle);
    if (!q)
        return;
    eko_queue_closed_set__race_condition_ok(*q);
    eko_syncResume(q->entrySem);
}

int32 eko_queueCount(EKO_QUEUE_HANDLE queueHandle)
{
    const EKO_QUEUE* q = givenQueue(queueHandle);
    return q ? eko_queue_count_get__race_condition_ok(*q) : EKO_FAILED;
}
