// SPDX-License-Identifier: MIT
// Files read and written through mapped views: for each open one a cache of at most ten views.
//
// Data      A file is cut into granules of 1 MiB; a view maps one of them, or the rest of the file where that is
//           less. They hang in a list, the one used last in front; the one at its end makes room for the eleventh.
//
//               EKO_MAPINFO  root --> view <--> view <--> ... <--> view <-- tail
//
// Locks     Each map has a mutex, held through every call, so no view goes while bytes are copied. The mutex
//           outlives the map: at the close it retires into a list of the module's globals record, from which the
//           next open takes one. retiredMutex guards that list; nothing is requested inside it.
// Lengths   The system ends a process that touches a mapped page behind the end of the file. So a view is made only
//           of what lies inside `size` and inside the file's length at that moment; and when a length could not be
//           set, all views go, to be made anew under that check. What `size` bounds can then be touched, unless
//           somebody else shortens the file.

#include <errno.h>
#include <string.h>

#include "ekomemmap_int.h"

struct EKO_MAPVIEW {
    void* mem;
    uint32 size;         // bytes mapped
    EKO_FILE_OFFSET off; // of the first byte in the file, a multiple of VIEW_GRANULE
    EKO_MAPINFO* mapInfo;
    EKO_MAPVIEW* next; // towards the tail
    EKO_MAPVIEW* prev;
};

namespace {

// A mutex and its place among the retired ones, so that retiring it needs no memory.
struct MAP_MUTEX {
    EKO_SEM sem;
    MAP_MUTEX* next;
};

} // namespace

struct EKO_MAPINFO {
    uint32 num_views;
    int32 resizeNeedsClose; // views must go before the file's length changes
    EKO_OSMAP osinfo;       // null while the map is being made
    EKO_FDESC desc;         // the handle's
    uint32 flags;           // of the open
    EKO_FILE_OFFSET size;   // the file's length when it was opened, then the last one asked for
    EKO_SEM sem;
    EKO_MAPVIEW* root;
    EKO_MAPVIEW* tail;
    MAP_MUTEX* mutex;   // around sem
    bool lengthRefused; // the system did not set the file's length to `size`
};

namespace {

constexpr uint32 VIEW_GRANULE = 1024 * 1024;
constexpr uint32 MAX_VIEWS = 10;

bool isWritable(const EKO_MAPINFO* map)
{
    return (map->flags & (OPEN_WRITE | OPEN_READ_WRITE)) != 0;
}

uint32 offsetInGranule(EKO_FILE_OFFSET off)
{
    return static_cast<uint32>(off % VIEW_GRANULE);
}

uint32 lesser(uint32 a, uint32 b)
{
    return a < b ? a : b;
}

// ---- mutexes ----------------------------------------------------------------------------------------------

struct EKO_MEMMAP_GLOBALS {
    MAP_MUTEX* retired;
};

pthread_mutex_t retiredMutex = PTHREAD_MUTEX_INITIALIZER;

void destroyMutex(MAP_MUTEX* mutex)
{
    eko_syncDelete(mutex->sem);
    EKO_FREE(mutex, EKO_GLOBAL_TAG);
}

void eko_memmapTerm(void* data)
{
    MAP_MUTEX* mutex = static_cast<EKO_MEMMAP_GLOBALS*>(data)->retired;
    while (mutex) {
        MAP_MUTEX* next = mutex->next;
        destroyMutex(mutex);
        mutex = next;
    }
}

GlobalSlot memmapSlot = {"ekomemmap", sizeof(EKO_MEMMAP_GLOBALS), nullptr, eko_memmapTerm, nullptr, nullptr};

EKO_MEMMAP_GLOBALS* eko_memmapGlobals()
{
    return static_cast<EKO_MEMMAP_GLOBALS*>(globalRecord(memmapSlot));
}

MAP_MUTEX* createMutex(MemResult* result)
{
    auto* mutex = tryZeroed<MAP_MUTEX>(EKO_GLOBAL_TAG, result);
    if (!mutex)
        return nullptr;
    mutex->sem = EKO_MUTEX_CREATE();
    if (mutex->sem == EKO_SEM_INVALID) {
        *result = MemResult::refused; // what was missing is reported already
        destroyMutex(mutex);
        return nullptr;
    }
    return mutex;
}

MAP_MUTEX* takeMutex(MemResult* result)
{
    *result = MemResult::refused;
    EKO_MEMMAP_GLOBALS* globals = eko_memmapGlobals();
    if (!globals)
        return nullptr;
    {
        const PosixGuard lock(retiredMutex);
        MAP_MUTEX* mutex = globals->retired;
        if (mutex) {
            globals->retired = mutex->next;
            return mutex;
        }
    }
    return createMutex(result);
}

// DELIBERATE: a map's mutex is not deleted when the map is closed, but kept for the next one. There are never more
// of them than maps were open at a time, so a program that opens and closes all day does not use up the semaphore
// table. Pinned by mapped_opens_share_mutexes.
void retireMutex(MAP_MUTEX* mutex)
{
    EKO_MEMMAP_GLOBALS* globals = eko_memmapGlobals();
    if (!globals) { // the library stops, and the list has gone before this map
        destroyMutex(mutex);
        return;
    }
    const PosixGuard lock(retiredMutex);
    mutex->next = globals->retired;
    globals->retired = mutex;
}

// ---- views ------------------------------------------------------------------------------------------------

void putInFront(EKO_MAPINFO* map, EKO_MAPVIEW* view)
{
    view->prev = nullptr;
    view->next = map->root;
    (map->root ? map->root->prev : map->tail) = view;
    map->root = view;
}

void takeOut(EKO_MAPINFO* map, EKO_MAPVIEW* view)
{
    (view->prev ? view->prev->next : map->root) = view->next;
    (view->next ? view->next->prev : map->tail) = view->prev;
}

// Out of the list, but still mapped.
EKO_MAPVIEW* takeLast(EKO_MAPINFO* map)
{
    EKO_MAPVIEW* view = map->tail;
    takeOut(map, view);
    --map->num_views;
    return view;
}

void dropLast(EKO_MAPINFO* map)
{
    EKO_MAPVIEW* view = takeLast(map);
    eko_mpUnmapView(view->mem, view->size);
    EKO_FREE(view, EKO_GLOBAL_TAG);
}

void dropAllViews(EKO_MAPINFO* map)
{
    while (map->tail)
        dropLast(map);
}

EKO_MAPVIEW* lookUpView(EKO_MAPINFO* map, EKO_FILE_OFFSET off)
{
    EKO_MAPVIEW* view = map->root;
    while (view && view->off != off)
        view = view->next;
    return view;
}

// Bytes of the view that begins at `off`, which is inside `size`.
uint32 viewSizeAt(const EKO_MAPINFO* map, EKO_FILE_OFFSET off)
{
    const EKO_FILE_OFFSET rest = map->size - off;
    return rest <= VIEW_GRANULE ? static_cast<uint32>(rest) : VIEW_GRANULE;
}

// Maps `size` bytes in a record that is in no list. Its own view makes room for them; one of that size is replaced.
int32 mapInto(EKO_MAPVIEW* view, EKO_FILE_OFFSET off, uint32 size)
{
    EKO_MAPINFO* map = view->mapInfo;
    const bool inside = off + size <= eko_flSize(map->desc);
    if (view->mem && inside && view->size == size)
        return eko_mpReplaceView(map->osinfo, off, size, view->mem);
    if (view->mem)
        eko_mpUnmapView(view->mem, view->size);
    return inside ? eko_mpMapView(map->osinfo, off, size, &view->mem) : EKO_NO_MEMORY;
}

// Makes a view of what lies at `off`, instead of the one used longest ago when there are enough.
int32 makeView(EKO_MAPINFO* map, EKO_FILE_OFFSET off, EKO_MAPVIEW** made, MemResult* result)
{
    EKO_MAPVIEW* view =
        map->num_views >= MAX_VIEWS ? takeLast(map) : tryZeroed<EKO_MAPVIEW>(EKO_GLOBAL_TAG, result);
    if (!view)
        return EKO_NO_MEMORY;
    view->mapInfo = map;
    const uint32 size = viewSizeAt(map, off);
    const int32 status = mapInto(view, off, size);
    if (status != EKO_OK) {
        EKO_FREE(view, EKO_GLOBAL_TAG);
        return status;
    }
    view->size = size;
    view->off = off;
    putInFront(map, view);
    ++map->num_views;
    *made = view;
    return EKO_OK;
}

// The view that begins at `addr`, in front of the list; 1003 when it cannot be mapped.
int32 findMapView(EKO_MAPINFO* map, EKO_FILE_OFFSET addr, EKO_MAPVIEW** found, MemResult* result)
{
    EKO_ASSERT(((addr) % (1024 * 1024ULL)) == 0);
    if (addr >= map->size) // a view may still be there from before the file was cut
        return EKO_NO_MEMORY;
    EKO_MAPVIEW* view = lookUpView(map, addr);
    if (!view)
        return makeView(map, addr, found, result);
    takeOut(map, view);
    putInFront(map, view);
    *found = view;
    return EKO_OK;
}

// ---- lengths ----------------------------------------------------------------------------------------------

void setLength(EKO_MAPINFO* map, EKO_FILE_OFFSET size)
{
    map->size = size;
    map->lengthRefused = eko_flSetSize(map->desc, size) != 0;
    if (map->lengthRefused)
        dropAllViews(map);
}

// Sets the length of the file, and the map's, to the next multiple of the granule. It shrinks, too.
//
// DELIBERATE: nothing is done when the size is such a multiple already, not even for 0 or beyond the file's end.
// Callers give a file its true length through a handle that is not mapped. Pinned by
// files_behave_as_their_model.
//
// DELIBERATE: it is no failure of the resize when the system refuses the length. What lies behind the file's end
// fails when it is read or written, so nobody fails for room that is never used. Pinned by
// mapped_views_lie_inside_the_file.
int32 resizeMap(EKO_MAPINFO* map, EKO_FILE_OFFSET size)
{
    const uint32 over = offsetInGranule(size);
    if (over == 0)
        return EKO_OK;
    EKO_FILE_OFFSET rounded;
    if (__builtin_add_overflow(size, VIEW_GRANULE - over, &rounded))
        return EKO_FAILED;
    setLength(map, rounded);
    if (!map->osinfo)
        return EKO_OK;
    if (map->resizeNeedsClose)
        dropAllViews(map);
    return eko_mpResizeMap(map->osinfo, map->size);
}

// Makes the map reach to `end` before a write.
bool makeRoom(EKO_MAPINFO* map, EKO_FILE_OFFSET end)
{
    if (end >= map->size)
        return resizeMap(map, end) == EKO_OK;
    if (map->lengthRefused)
        setLength(map, map->size); // there may be room now
    return true;
}

// ---- maps -------------------------------------------------------------------------------------------------

int32 setUpMap(EKO_MAPINFO* map, MemResult* result)
{
    map->size = eko_flSize(map->desc);
    if (isWritable(map)) {
        const int32 status = resizeMap(map, map->size);
        if (status != EKO_OK)
            return status;
    }
    const int32 status =
        eko_mpCreateMap(map->desc, map->size, isWritable(map), &map->resizeNeedsClose, &map->osinfo);
    if (status == EKO_NO_MEMORY)
        *result = MemResult::exhausted;
    return status;
}

} // namespace

int32 eko_mapOpen(EKO_FDESC desc, uint32 flags, EKO_MAP* map, MemResult* result)
{
    auto* info = tryZeroed<EKO_MAPINFO>(EKO_GLOBAL_TAG, result);
    if (!info)
        return EKO_NO_MEMORY;
    info->desc = desc;
    info->flags = flags;
    info->mutex = takeMutex(result);
    if (!info->mutex) {
        EKO_FREE(info, EKO_GLOBAL_TAG);
        return EKO_NO_MEMORY;
    }
    info->sem = info->mutex->sem;
    const int32 status = setUpMap(info, result);
    if (status != EKO_OK) {
        retireMutex(info->mutex);
        EKO_FREE(info, EKO_GLOBAL_TAG);
        return status;
    }
    *map = info;
    return EKO_OK;
}

void eko_mapClose(EKO_MAP map)
{
    {
        const SemGuard lock(map->sem);
        dropAllViews(map);
        eko_mpCloseMap(map->osinfo);
    }
    retireMutex(map->mutex);
    EKO_FREE(map, EKO_GLOBAL_TAG);
}

uint32 eko_mapSeekRead(EKO_MAP map, EKO_FILE_OFFSET off, void* buf, uint32 size, MemResult* result)
{
    errno = 0; // the caller logs it, also where it is not the system that refuses
    if (off == EKO_FILE_NO_OFFSET || !buf)
        return EKO_FILE_IO_FAILED;
    const SemGuard lock(map->sem);
    uint32 total = 0;
    while (total < size && off < map->size) {
        const uint32 within = offsetInGranule(off);
        EKO_MAPVIEW* view;
        if (findMapView(map, off - within, &view, result) != EKO_OK)
            return EKO_FILE_IO_FAILED;
        const uint32 piece = lesser(view->size - within, size - total);
        memcpy(static_cast<char*>(buf) + total, static_cast<const char*>(view->mem) + within, piece);
        off += piece;
        total += piece;
    }
    return total;
}

// DELIBERATE: the offset stays where the write begins, so what crosses a multiple of 1 MiB is not written behind
// it: each further piece is written over the first one, though the file grows to hold them all. Callers cut their
// writes there, and files of those that do not keep their contents and their length. Pinned by
// files_behave_as_their_model.
uint32 eko_mapSeekWrite(EKO_MAP map, EKO_FILE_OFFSET off, const void* buf, uint32 size, MemResult* result)
{
    if (size == 0)
        return 0;
    errno = 0;
    EKO_FILE_OFFSET end;
    if (!isWritable(map) || !buf || __builtin_add_overflow(off, size, &end))
        return EKO_FILE_IO_FAILED;
    const SemGuard lock(map->sem);
    if (!makeRoom(map, end))
        return EKO_FILE_IO_FAILED;
    const uint32 within = offsetInGranule(off);
    uint32 total = 0;
    while (total < size) {
        EKO_MAPVIEW* view;
        if (findMapView(map, off - within, &view, result) != EKO_OK)
            return EKO_FILE_IO_FAILED;
        const uint32 piece = lesser(VIEW_GRANULE - within, size - total);
        memcpy(static_cast<char*>(view->mem) + within, static_cast<const char*>(buf) + total, piece);
        total += piece;
    }
    return total;
}

// A flush of length 0 starts nothing by itself: what makes the bytes durable is the caller's fsync right behind it,
// and to flush whole views in front of that would only wait twice.
void eko_mapSync(EKO_MAP map)
{
    const SemGuard lock(map->sem);
    for (const EKO_MAPVIEW* view = map->root; view; view = view->next)
        eko_mpFlushView(view->mem, 0);
    eko_mpFlushMap(map->osinfo);
}

int32 eko_mapSetSize(EKO_MAP map, EKO_FILE_OFFSET size)
{
    const SemGuard lock(map->sem);
    return resizeMap(map, size) == EKO_OK ? 0 : -1;
}
