// SPDX-License-Identifier: MIT
// Operating-system mappings: views of a file in memory. A map is only a note of the descriptor and the protection;
// views map the file directly, so there is nothing to resize or flush at the level of the map.

#include <errno.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

#include "ekofile_int.h"

namespace {

// DELIBERATE: 32-bit builds map modulo 4 GiB, for the call that they are made for takes 32 bits of offset. Callers
// keep mapped files below that. Pinned by file_of_5_gib_and_views.
off64_t mappableOffset(EKO_FILE_OFFSET off)
{
    return static_cast<off64_t>(sizeof(void*) > 4 ? off : static_cast<uint32>(off));
}

// Maps a range, where the system likes it or over what is at `place`; null when that fails.
void* mapAt(void* place, EKO_OSMAP map, EKO_FILE_OFFSET off, uint32 size)
{
    const int fd = static_cast<int>(reinterpret_cast<intptr_t>(map->desc));
    const int flags = place ? MAP_SHARED | MAP_FIXED : MAP_SHARED;
    void* address = mmap64(place, size, map->access, flags, fd, mappableOffset(off));
    if (address == MAP_FAILED)
        address = nullptr;
    if (!address) {
        const ErrnoGuard keepErrno; // the caller logs it, wherever this goes
        printf("mmap(NULL, %u, %d, %d, %u) failed with error %d\n", size, map->access, fd, static_cast<uint32>(off),
               errno);
    }
    return address;
}

} // namespace

int32 eko_mpCreateMap(EKO_FDESC desc, EKO_FILE_OFFSET /*size*/, int32 writable, int32* resizeNeedsClose,
                      EKO_OSMAP* map)
{
    MemResult result;
    auto* info = static_cast<EKO_OSMAPINFO*>(
        tryGetMem(sizeof(EKO_OSMAPINFO), EKO_GLOBAL_TAG, EKO_MEM_PLAIN, nullptr, &result));
    *resizeNeedsClose = 0;
    if (!info)
        return EKO_NO_MEMORY;
    info->desc = desc;
    info->access = writable ? PROT_READ | PROT_WRITE : PROT_READ;
    *map = info;
    return EKO_OK;
}

void eko_mpCloseMap(EKO_OSMAP map)
{
    EKO_FREE(map, EKO_GLOBAL_TAG);
}

int32 eko_mpResizeMap(EKO_OSMAP, EKO_FILE_OFFSET)
{
    return EKO_OK;
}

void eko_mpFlushMap(EKO_OSMAP) {}

int32 eko_mpMapView(EKO_OSMAP map, EKO_FILE_OFFSET off, uint32 size, void** view)
{
    void* address = mapAt(nullptr, map, off, size);
    if (!address)
        return EKO_NO_MEMORY;
    *view = address;
    return EKO_OK;
}

int32 eko_mpReplaceView(EKO_OSMAP map, EKO_FILE_OFFSET off, uint32 size, void* view)
{
    return mapAt(view, map, off, size) ? EKO_OK : EKO_NO_MEMORY;
}

// Most of what it costs to fill a large block for the first time is a page fault for each 4 KiB. A system without
// large pages, or without one that is free, goes on as before.
void mpPreferLargePages(void* mem, size_t size)
{
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto start = reinterpret_cast<uintptr_t>(mem);
    const uintptr_t firstPage = (start + page - 1) & ~(page - 1);
    const uintptr_t end = (start + size) & ~(page - 1);
    const ErrnoGuard keepErrno;
    if (firstPage < end)
        madvise(reinterpret_cast<void*>(firstPage), end - firstPage, MADV_HUGEPAGE);
}

void eko_mpUnmapView(void* view, size_t size)
{
    munmap(view, size);
}

void eko_mpFlushView(void* view, size_t size)
{
    msync(view, size, MS_SYNC);
}
