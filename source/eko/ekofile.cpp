// SPDX-License-Identifier: MIT
// File handles: each binds a name to one backing, and applies the library's read-only and diskless modes.
//
// Data      A handle is one EKOFTAB; there is no table of handles and no limit. All of them, and their copies of
//           the names, are on the tag of the module's globals record.
// Locks     The tag's mutex, and one mutex per handle, made when eko_fileLock first needs it.
// Unlocked  the modes; the first creation of a handle's f_lock, by compare-and-swap.

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "ekomemmap_int.h"
#include "ekomf_int.h"

namespace {

struct EKO_FILE_GLOBALS {
    EKO_MEMTAG fileTag;
};

constexpr int16 SHARED = 1;

int32 file_eko_inited_get__race_condition_ok()
{
    return readUnlocked(eko_inited);
}

// ---- the module's record ----------------------------------------------------------------------------------

int32 eko_fileInit(void* data)
{
    auto* globals = static_cast<EKO_FILE_GLOBALS*>(data);
    globals->fileTag = tryCreateTag(nullptr, SHARED, BLOCK_ALLOCATOR, nullptr, nullptr);
    return globals->fileTag != EKO_TAG_INVALID ? EKO_OK : EKO_FAILED;
}

void eko_fileTerm(void* data)
{
    auto* globals = static_cast<EKO_FILE_GLOBALS*>(data);
    EKO_TAG_DESTROY(globals->fileTag);
    globals->fileTag = nullptr;
}

GlobalSlot fileSlot = {"ekofile", sizeof(EKO_FILE_GLOBALS), eko_fileInit, eko_fileTerm, nullptr, nullptr};

EKO_FILE_GLOBALS* eko_fileGlobals()
{
    return static_cast<EKO_FILE_GLOBALS*>(globalRecord(fileSlot));
}

bool hasDescriptor(const EKOFTAB* fh)
{
    return fh->f_desc != EKO_FDESC_NONE;
}

// ---- backings ---------------------------------------------------------------------------------------------

int32 openInMemory(EKOFTAB* fh, MemResult* result)
{
    fh->f_mem = eko_mfOpen(fh->f_name, fh->f_flags, result);
    return fh->f_mem ? EKO_OK : EKO_FAILED;
}

struct StdName {
    const char* name;
    EKO_STD_HANDLE handle;
};
constexpr StdName STD_NAMES[] = {
    {"stdout", EKO_STD_HANDLE_OUT}, {"stdin", EKO_STD_HANDLE_IN}, {"stderr", EKO_STD_HANDLE_ERR}};

bool openStd(EKOFTAB* fh)
{
    for (const StdName& std : STD_NAMES) {
        if (strcmp(fh->f_name, std.name) == 0) {
            fh->f_stdfile = 1;
            return eko_flOpenStd(&fh->f_desc, std.handle) == EKO_OK;
        }
    }
    return false;
}

int32 openDisk(EKOFTAB* fh)
{
    if (readOnlyMode() && (fh->f_flags & (OPEN_READ_WRITE | OPEN_CREATE | OPEN_WRITE)))
        return EKO_FAILED;
    if (disklessMode())
        return EKO_FAILED;
    return eko_flOpen(fh->f_name, fh->f_flags, fh->f_xflags, &fh->f_desc);
}

int32 openBacking(EKOFTAB* fh, MemResult* result)
{
    *result = MemResult::refused;
    if (fh->f_xflags & EKO_FILE_INMEMORY)
        return openInMemory(fh, result);
    return openStd(fh) ? EKO_OK : openDisk(fh);
}

// Only a disk file of one's own is mapped: a redirected standard stream would be extended by it.
bool toBeMapped(const EKOFTAB* fh)
{
    return (fh->f_xflags & EKO_FILE_MAPPED) && !fh->f_mem && !fh->f_stdfile;
}

// ---- records ----------------------------------------------------------------------------------------------

EKOFTAB* newRecord(const char* name, uint32 flags, uint16 xflags, EKO_MEMTAG tag, MemResult* result)
{
    EKOFTAB* fh = tryZeroed<EKOFTAB>(tag, result);
    if (!fh)
        return nullptr;
    fh->f_name = tryStrdup(name, tag, result);
    if (!fh->f_name) {
        EKO_FREE(fh, tag);
        return nullptr;
    }
    fh->f_desc = EKO_FDESC_NONE;
    fh->f_lock = EKO_SEM_INVALID;
    fh->f_flags = flags & OPEN_TRUNCATE ? flags | OPEN_CREATE : flags;
    fh->f_xflags = xflags;
    return fh;
}

// Frees the record and what it owns in memory; the thread's errno stays, for the caller to look at.
void freeRecord(EKOFTAB* fh, EKO_MEMTAG tag)
{
    const ErrnoGuard keepErrno;
    EKO_FREE(fh->f_name, tag);
    eko_syncDelete(fh->f_lock);
    EKO_FREE(fh, tag);
}

void closeBacking(EKOFTAB* fh)
{
    if (fh->f_map)
        eko_mapClose(fh->f_map);
    fh->f_map = nullptr;
    if (fh->f_mem) {
        eko_mfClose(fh->f_mem);
        fh->f_mem = nullptr;
        return;
    }
    if (!hasDescriptor(fh)) {
        if (strcmp(fh->f_name, "stdout") != 0)
            eko_log("Inconsistent file state %s\n", fh->f_name);
        return;
    }
    if (!fh->f_stdfile)
        eko_flClose(fh->f_desc);
    fh->f_desc = EKO_FDESC_NONE;
}

// The mutex behind eko_fileLock, made now if need be; the first one made wins.
EKO_SEM lockOf(EKOFTAB* fh)
{
    EKO_SEM sem = readPublished(fh->f_lock);
    if (sem != EKO_SEM_INVALID)
        return sem;
    EKO_SEM made = EKO_MUTEX_CREATE();
    if (__atomic_compare_exchange_n(&fh->f_lock, &sem, made, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
        return made;
    eko_syncDelete(made);
    return sem;
}

// What a positional call has to say when it failed.
uint32 checkedPositional(uint32 count, const char* what)
{
    if (count == EKO_FILE_IO_FAILED) {
        const ErrnoGuard keepErrno;
        eko_log("Failed to seek and %s, errno = %d\n", what, errno);
    }
    return count;
}

} // namespace

bool fileRecordExists()
{
    return eko_fileGlobals() != nullptr;
}

// ---- opening and closing ----------------------------------------------------------------------------------

EKO_FH tryOpenFile(const char* name, uint32 flags, uint16 xflags, int32* status)
{
    *status = EKO_FAILED;
    const EKO_FILE_GLOBALS* globals = eko_fileGlobals();
    if (!globals || file_eko_inited_get__race_condition_ok() <= 0 || !name)
        return nullptr;
    MemResult result;
    EKOFTAB* fh = newRecord(name, flags, xflags, globals->fileTag, &result);
    if (fh && openBacking(fh, &result) != EKO_OK) {
        freeRecord(fh, globals->fileTag);
        fh = nullptr;
    }
    if (fh && toBeMapped(fh) && eko_mapOpen(fh->f_desc, fh->f_flags, &fh->f_map, &result) != EKO_OK) {
        fh->f_map = nullptr;
        eko_fileClose(fh);
        fh = nullptr;
    }
    if (!fh) {
        if (result == MemResult::exhausted)
            *status = EKO_NO_MEMORY;
        return nullptr;
    }
    fh->f_flags &= ~(OPEN_TRUNCATE | OPEN_CREATE);
    *status = EKO_OK;
    return fh;
}

EKO_FH eko_fileOpen(const char* name, uint32 flags, uint16 xflags)
{
    int32 status;
    EKO_FH fh = tryOpenFile(name, flags, xflags, &status);
    if (status == EKO_NO_MEMORY)
        memReport(__FILE__, __LINE__);
    return fh;
}

EKO_FH eko_fileOpenW(const wchar_t* name, uint32 flags, uint16 xflags)
{
    MemResult result;
    char* narrow = tryConvToUTF8(name, EKO_UTF8_FAIL, EKO_THREAD_TAG, &result);
    if (!narrow) {
        if (result == MemResult::exhausted)
            memReport(__FILE__, __LINE__);
        return nullptr;
    }
    EKO_FH fh = eko_fileOpen(narrow, flags, xflags);
    const ErrnoGuard keepErrno;
    EKO_FREE(narrow, EKO_THREAD_TAG);
    return fh;
}

void eko_fileClose(EKO_FH fh)
{
    const EKO_FILE_GLOBALS* globals = eko_fileGlobals();
    if (!globals || !fh)
        return;
    closeBacking(fh);
    freeRecord(fh, globals->fileTag);
}

// ---- moving bytes -----------------------------------------------------------------------------------------

int32 eko_fileSeek(EKO_FH fh, EKO_FILE_OFFSET off, int32 origin)
{
    if (!fh || fh->f_map)
        return EKO_FAILED;
    return fh->f_mem ? eko_mfSeek(fh->f_mem, off, origin) : eko_flSeek(fh->f_desc, off, origin);
}

namespace {

uint32 writeInMemory(EKOFTAB* fh, const void* buf, uint32 size)
{
    MemResult result;
    const uint32 count = eko_mfWrite(fh->f_mem, buf, size, &result);
    memReportIf(result, __FILE__, __LINE__);
    return count;
}

uint32 writeAt(EKOFTAB* fh, EKO_FILE_OFFSET off, const void* buf, uint32 size, MemResult* result)
{
    if (fh->f_mem)
        return off == EKO_FILE_NO_OFFSET ? eko_mfWrite(fh->f_mem, buf, size, result)
                                         : eko_mfSeekWrite(fh->f_mem, off, buf, size, result);
    if (fh->f_map)
        return eko_mapSeekWrite(fh->f_map, off, buf, size, result);
    return hasDescriptor(fh) ? eko_flSeekWrite(fh->f_desc, off, buf, size) : EKO_FILE_IO_FAILED;
}

uint32 readAt(EKOFTAB* fh, EKO_FILE_OFFSET off, void* buf, uint32 size, MemResult* result)
{
    if (fh->f_mem)
        return off == EKO_FILE_NO_OFFSET ? eko_mfRead(fh->f_mem, buf, size)
                                         : eko_mfSeekRead(fh->f_mem, off, buf, size);
    if (fh->f_map)
        return eko_mapSeekRead(fh->f_map, off, buf, size, result);
    return hasDescriptor(fh) ? eko_flSeekRead(fh->f_desc, off, buf, size) : EKO_FILE_IO_FAILED;
}

} // namespace

// DELIBERATE: in read-only mode a write moves nothing and is no failure, here as in eko_fileSeekWrite, so that a
// program can run against files that it must not change. Pinned by file_read_only_mode.
uint32 eko_fileWrite(EKO_FH fh, const void* buf, uint32 size)
{
    if (!fh)
        return EKO_FILE_IO_FAILED;
    if (size == 0 || fh->f_map)
        return 0;
    if (fh->f_mem)
        return writeInMemory(fh, buf, size);
    if (readOnlyMode())
        return 0;
    const uint32 count = eko_flWrite(fh->f_desc, buf, size);
    if (count == EKO_FILE_IO_FAILED) {
        const ErrnoGuard keepErrno;
        fprintf(stderr, "Write failed, errno = %d\n", errno); // not the log: it may be the file that failed
    }
    return count;
}

uint32 eko_fileRead(EKO_FH fh, void* buf, uint32 size)
{
    if (!fh)
        return EKO_FILE_IO_FAILED;
    if (size == 0 || fh->f_map)
        return 0;
    if (fh->f_mem)
        return eko_mfRead(fh->f_mem, buf, size);
    const uint32 count = eko_flRead(fh->f_desc, buf, size);
    if (count == EKO_FILE_IO_FAILED) {
        const ErrnoGuard keepErrno;
        eko_log("Read failed, errno = %d\n", errno);
    }
    return count;
}

uint32 trySeekWrite(EKO_FH fh, EKO_FILE_OFFSET off, const void* buf, uint32 size, MemResult* result)
{
    *result = MemResult::done;
    if (!fh)
        return EKO_FILE_IO_FAILED;
    if (size == 0 || (readOnlyMode() && !fh->f_mem))
        return 0;
    return checkedPositional(writeAt(fh, off, buf, size, result), "write");
}

uint32 trySeekRead(EKO_FH fh, EKO_FILE_OFFSET off, void* buf, uint32 size, MemResult* result)
{
    *result = MemResult::done;
    if (!fh)
        return EKO_FILE_IO_FAILED;
    if (size == 0)
        return 0;
    return checkedPositional(readAt(fh, off, buf, size, result), "read");
}

uint32 eko_fileSeekWrite(EKO_FH fh, EKO_FILE_OFFSET off, const void* buf, uint32 size)
{
    MemResult result;
    const uint32 count = trySeekWrite(fh, off, buf, size, &result);
    memReportIf(result, __FILE__, __LINE__);
    return count;
}

uint32 eko_fileSeekRead(EKO_FH fh, EKO_FILE_OFFSET off, void* buf, uint32 size)
{
    MemResult result;
    const uint32 count = trySeekRead(fh, off, buf, size, &result);
    memReportIf(result, __FILE__, __LINE__);
    return count;
}

// ---- size, time, sync -------------------------------------------------------------------------------------

EKO_FILE_OFFSET eko_fileLength(EKO_FH fh)
{
    if (!fh)
        return 0;
    return fh->f_mem ? eko_mfSize(fh->f_mem) : eko_flSize(fh->f_desc);
}

EKO_FILE_OFFSET eko_fileLengthStat(const char* name, uint16 xflags)
{
    if (!name)
        return EKO_FILE_NO_OFFSET;
    if (!(xflags & EKO_FILE_INMEMORY))
        return narrowStatSize(name);
    MemResult result;
    const EKO_FILE_OFFSET size = eko_mfSizeStat(name, &result);
    memReportIf(result, __FILE__, __LINE__);
    return size;
}

namespace {

int32 setSizeInMemory(EKOFTAB* fh, EKO_FILE_OFFSET size)
{
    MemResult result;
    const int32 status = eko_mfSetSize(fh->f_mem, size, &result);
    memReportIf(result, __FILE__, __LINE__);
    return status;
}

} // namespace

int32 eko_fileSetSize(EKO_FH fh, EKO_FILE_OFFSET size)
{
    if (!fh)
        return EKO_FAILED;
    if (fh->f_map)
        return eko_mapSetSize(fh->f_map, size);
    if (fh->f_mem)
        return setSizeInMemory(fh, size);
    return readOnlyMode() ? -1 : eko_flSetSize(fh->f_desc, size);
}

int32 eko_fileSync(EKO_FH fh)
{
    if (!fh)
        return EKO_FAILED;
    if ((fh->f_xflags & (EKO_FILE_INMEMORY | EKO_FILE_NOSYNC)) || readOnlyMode())
        return EKO_OK;
    if (fh->f_map)
        eko_mapSync(fh->f_map);
    return eko_flSync(fh->f_desc); // behind the views: this is what makes them durable
}

time64_t eko_fileModTimeStat(const char* name, uint16 xflags)
{
    if (!name)
        return -1;
    if (!(xflags & EKO_FILE_INMEMORY))
        return disklessMode() ? -1 : eko_flModTime(name);
    MemResult result;
    const time64_t seconds = eko_mfModTime(name, &result);
    memReportIf(result, __FILE__, __LINE__);
    return seconds;
}

// ---- locks ------------------------------------------------------------------------------------------------

// The mutex stays entered until the unlock, so no guard holds it. It counts, the system's lock does not: after
// locking twice and unlocking once, other processes get in while this thread still holds the mutex.
int32 eko_fileLock(EKO_FH fh)
{
    if (!fh)
        return EKO_FAILED;
    if (fh->f_mem)
        return eko_mfLock(fh->f_mem);
    const EKO_SEM sem = lockOf(fh);
    if (sem != EKO_SEM_INVALID)
        eko_syncEnterExcl(sem);
    const int32 status = eko_flLock(fh->f_desc);
    if (status != EKO_OK && sem != EKO_SEM_INVALID)
        eko_syncExitExcl(sem);
    return status;
}

void eko_fileUnlock(EKO_FH fh)
{
    if (!fh)
        return;
    if (fh->f_mem) {
        eko_mfUnlock(fh->f_mem);
        return;
    }
    eko_flUnlock(fh->f_desc);
    const EKO_SEM sem = readPublished(fh->f_lock);
    if (sem != EKO_SEM_INVALID)
        eko_syncExitExcl(sem);
}
