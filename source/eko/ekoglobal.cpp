// SPDX-License-Identifier: MIT
// Named globals: modules that keep process-wide state reach it through here, and so need no place in the order of
// the library's start. A record is created, zero-filled, when its module is first used, and deleted at stop.
//
// Data      eko_globals_list, an array sorted by name in strcmp order, growing by 5.
// Locks     eko_globals_sem guards all of it. Callbacks run under it; it is recursive, so they may fetch globals
//           themselves: after each callback an entry is found again by its record, never by its old place.
// Unlocked  the slots of the library's own modules: their record is published when it is complete, so that
//           finding it takes no lock. That also keeps this mutex in front of the modules' own in the nesting
//           order: a module that holds its mutex can open a file without coming back here.

#include <string.h>

#include "ekomem_int.h"

namespace {

struct EKO_GLOBAL_ENTRY {
    const char* name; // the registry's own copy
    void* data;
    size_t size;
    EKO_GLOBAL_DELETE_FCN delete_fcn;
};

constexpr uint32 GROWTH = 5;
constexpr uint32 NOT_FOUND = 0xFFFFFFFF;

EKO_GLOBAL_ENTRY* eko_globals_list;
uint32 eko_globals_num;
uint32 eko_globals_max;
EKO_SEM eko_globals_sem = EKO_SEM_INVALID;
bool terminating;           // eko_globalTerm runs: nothing is created any more
GlobalSlot* publishedSlots; // of the library's own modules, those that hold a record

// A create callback that runs; on the stack of its caller.
struct RunningCreate {
    const void* data;
    const RunningCreate* outer; // the one whose callback led here
};
const RunningCreate* runningCreates;

// After a failed growth the list is gone while max says there is room: nothing is found or added until the next
// start.
bool listLost()
{
    return !eko_globals_list && eko_globals_max > 0;
}

// The entry of that name, or null with the offset at which it belongs.
EKO_GLOBAL_ENTRY* findGlobalEntry(const char* name, uint32* poffset)
{
    int32 low = 0;
    int32 high = static_cast<int32>(eko_globals_num) - 1;
    int32 mid = 0;
    int order = 0;
    while (high >= low) {
        mid = (low + high) / 2;
        order = strcmp(name, eko_globals_list[mid].name);
        if (order == 0)
            return &eko_globals_list[mid];
        if (order > 0)
            low = mid + 1;
        else
            high = mid - 1;
    }
    *poffset = static_cast<uint32>(order <= 0 ? mid : mid + 1);
    return nullptr;
}

// A callback that fetched a global may have lost the list.
uint32 offsetOfRecord(const void* data)
{
    for (uint32 i = 0; i < eko_globals_num && !listLost(); ++i) {
        if (eko_globals_list[i].data == data)
            return i;
    }
    return NOT_FOUND;
}

// Makes room for one entry at `offset`, cleared.
bool expand_list(uint32 offset, MemResult* result)
{
    if (eko_globals_num == eko_globals_max) {
        // DELIBERATE: the list takes the result even when it is null, with max already raised. The registry is
        // then unusable until the library is stopped, and every caller gets 1003 instead of a part of its state.
        // Pinned by global_failed_growth_needs_a_restart.
        eko_globals_max += GROWTH;
        const size_t bytes = eko_globals_max * sizeof(EKO_GLOBAL_ENTRY);
        void* list = eko_globals_list ? tryExtendMem(eko_globals_list, bytes, EKO_GLOBAL_TAG, result)
                                      : tryGetMem(bytes, EKO_GLOBAL_TAG, EKO_MEM_PLAIN, nullptr, result);
        eko_globals_list = static_cast<EKO_GLOBAL_ENTRY*>(list);
        if (!eko_globals_list)
            return false;
    }
    EKO_GLOBAL_ENTRY* entry = eko_globals_list + offset;
    memmove(entry + 1, entry, (eko_globals_num - offset) * sizeof(*entry));
    memset(entry, 0, sizeof(*entry));
    ++eko_globals_num;
    return true;
}

// No module may find a record that is about to go.
void withdrawSlotsOf(const void* record)
{
    for (GlobalSlot** link = &publishedSlots; *link;) {
        GlobalSlot* slot = *link;
        if (slot->record == record) {
            *link = slot->next;
            publish(slot->record, static_cast<void*>(nullptr));
        } else {
            link = &slot->next;
        }
    }
}

void removeEntry(uint32 offset)
{
    EKO_GLOBAL_ENTRY* entry = eko_globals_list + offset;
    if (entry->data)
        withdrawSlotsOf(entry->data);
    eko_freeMem(entry->name, EKO_GLOBAL_TAG, __FILE__, __LINE__);
    eko_freeMem(entry->data, EKO_GLOBAL_TAG, __FILE__, __LINE__);
    --eko_globals_num;
    memmove(entry, entry + 1, (eko_globals_num - offset) * sizeof(*entry));
}

void cleanupGlobalEntry(uint32 offset)
{
    void* data = eko_globals_list[offset].data;
    const EKO_GLOBAL_DELETE_FCN delete_fcn = eko_globals_list[offset].delete_fcn;
    if (delete_fcn) {
        delete_fcn(data);
        offset = offsetOfRecord(data); // the callback may have fetched globals, and so moved entries
    }
    if (offset != NOT_FOUND)
        removeEntry(offset);
}

int32 runCreate(EKO_GLOBAL_CREATE_FCN create_fcn, void* data)
{
    const RunningCreate self = {data, runningCreates};
    runningCreates = &self;
    const int32 status = create_fcn(data);
    runningCreates = self.outer;
    return status;
}

bool beingCreated(const void* data)
{
    const RunningCreate* create = runningCreates;
    while (create && create->data != data)
        create = create->outer;
    return create != nullptr;
}

// Adds an entry at `offset` and runs its create callback; answers its record, or null with nothing added.
void* addGlobalEntry(const char* name, size_t size, EKO_GLOBAL_CREATE_FCN create_fcn,
                     EKO_GLOBAL_DELETE_FCN delete_fcn, uint32 offset, MemResult* result)
{
    if (!expand_list(offset, result))
        return nullptr;
    EKO_GLOBAL_ENTRY* entry = eko_globals_list + offset;
    entry->size = size;
    entry->data = tryGetMem(size, EKO_GLOBAL_TAG, EKO_MEM_ZERO, nullptr, result);
    if (entry->data)
        entry->name = tryStrdup(name, EKO_GLOBAL_TAG, result);
    if (!entry->name) {
        removeEntry(offset);
        return nullptr;
    }
    void* data = entry->data;
    const bool created = !create_fcn || runCreate(create_fcn, data) == EKO_OK;
    offset = offsetOfRecord(data);
    if (offset == NOT_FOUND)
        return nullptr;
    if (!created) {
        cleanupGlobalEntry(offset); // its delete_fcn is still null
        return nullptr;
    }
    eko_globals_list[offset].delete_fcn = delete_fcn;
    return data;
}

// The record of that name, made if need be.
void* findOrAdd(const char* name, size_t size, EKO_GLOBAL_CREATE_FCN create_fcn, EKO_GLOBAL_DELETE_FCN delete_fcn,
                MemResult* result)
{
    if (listLost())
        return nullptr;
    uint32 offset;
    const EKO_GLOBAL_ENTRY* entry = findGlobalEntry(name, &offset);
    if (entry)
        return entry->data;
    if (terminating)
        return nullptr;
    return addGlobalEntry(name, size, create_fcn, delete_fcn, offset, result);
}

// The registry's mutex is entered by hand: a callback runs under it, and a guard may not be alive across one.
void* findOrAddLocked(const char* name, size_t size, EKO_GLOBAL_CREATE_FCN create_fcn,
                      EKO_GLOBAL_DELETE_FCN delete_fcn)
{
    MemResult result = MemResult::done;
    eko_syncEnterExcl(eko_globals_sem);
    void* data = findOrAdd(name, size, create_fcn, delete_fcn, &result);
    eko_syncExitExcl(eko_globals_sem);
    if (result == MemResult::exhausted)
        memReport(__FILE__, __LINE__);
    return data;
}

bool usable()
{
    return libraryStarted() && eko_globals_sem != EKO_SEM_INVALID;
}

// A module that fetches its own record inside its create callback gets it, but for the other threads it is not
// there before the callback has succeeded.
void publishSlot(GlobalSlot& slot, void* record)
{
    const SemGuard lock(eko_globals_sem);
    if (beingCreated(record) || readUnlocked(slot.record))
        return;
    slot.next = publishedSlots;
    publishedSlots = &slot;
    publish(slot.record, record);
}

void withdrawAllSlots()
{
    for (; publishedSlots; publishedSlots = publishedSlots->next)
        publish(publishedSlots->record, static_cast<void*>(nullptr));
}

} // namespace

int32 eko_globalGet(const char* name, size_t size, EKO_GLOBAL_CREATE_FCN create_fcn,
                    EKO_GLOBAL_DELETE_FCN delete_fcn, void** pglobal)
{
    if (!name || size == 0 || !pglobal)
        return EKO_BAD_ARGUMENT;
    if (!usable())
        return EKO_NO_MEMORY;
    void* data = findOrAddLocked(name, size, create_fcn, delete_fcn);
    if (!data)
        return EKO_NO_MEMORY;
    *pglobal = data;
    return EKO_OK;
}

void* globalRecord(GlobalSlot& slot)
{
    void* record = readPublished(slot.record);
    if (record || eko_globalGet(slot.name, slot.size, slot.createFcn, slot.deleteFcn, &record) != EKO_OK)
        return record;
    publishSlot(slot, record);
    return record;
}

int32 eko_globalInit()
{
    eko_globals_list = nullptr;
    eko_globals_num = 0;
    eko_globals_max = 0;
    terminating = false;
    runningCreates = nullptr;
    eko_globals_sem = EKO_MUTEX_CREATE();
    return eko_globals_sem != EKO_SEM_INVALID ? EKO_OK : EKO_FAILED;
}

// Deletes from the last name to the first. No other thread may use the library now, so no mutex is taken. While it
// runs, callbacks still find what is left. What a failed growth lost stays lost: its delete callbacks do not run.
void eko_globalTerm()
{
    terminating = true;
    if (listLost())
        eko_globals_num = 0;
    while (eko_globals_num > 0)
        cleanupGlobalEntry(eko_globals_num - 1);
    withdrawAllSlots();
    eko_freeMem(eko_globals_list, EKO_GLOBAL_TAG, __FILE__, __LINE__);
    eko_globals_list = nullptr;
    eko_globals_max = 0;
    eko_syncDelete(eko_globals_sem);
    eko_globals_sem = EKO_SEM_INVALID;
}
