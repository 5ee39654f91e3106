// SPDX-License-Identifier: MIT
// Operating-system files: the only place that talks to descriptors and names on disk. No state, no locks; a call is
// made once, as asked: nothing is retried when a signal interrupts it, and a short count is handed on.

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ekofile_int.h"

namespace {

constexpr mode_t NEW_FILE_MODE = 0666;
constexpr EKO_FILE_OFFSET NARROW_STAT_LIMIT = 0x7FFFFFFF;

static_assert(OPEN_WRITE == O_WRONLY && OPEN_READ_WRITE == O_RDWR && OPEN_CREATE == O_CREAT &&
              OPEN_TRUNCATE == O_TRUNC && OPEN_APPEND == O_APPEND);

int fdOf(EKO_FDESC desc)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(desc));
}
EKO_FDESC descOf(int fd)
{
    return reinterpret_cast<EKO_FDESC>(static_cast<intptr_t>(fd));
}

// The count of a read or write, after errno was cleared in front of it.
uint32 transferred(ssize_t count)
{
    return count < 0 && errno != 0 ? EKO_FILE_IO_FAILED : static_cast<uint32>(count);
}

// 32-bit builds answer by the 32-bit stat, for which a file of 2 GiB or more is absent. Said outright, so that it
// does not hang on the width that a build gives the system's call.
bool narrowStat(const char* path, struct stat64* st)
{
    if (stat64(path, st) != 0)
        return false;
    return sizeof(void*) > 4 || static_cast<EKO_FILE_OFFSET>(st->st_size) <= NARROW_STAT_LIMIT;
}

} // namespace

// ---- opening and closing ----------------------------------------------------------------------------------

int32 eko_open_file(const char* path, uint32 flags, EKO_FDESC* desc)
{
    const int fd = open64(path, static_cast<int>(flags), NEW_FILE_MODE);
    if (fd < 0)
        return errno; // the system's own number, not 1002: callers show it
    *desc = descOf(fd);
    return EKO_OK;
}

int32 eko_flOpenSync(const char* path, uint32 flags, EKO_FDESC* desc)
{
    const int32 error = eko_open_file(path, flags, desc);
    if (error != EKO_OK)
        *desc = EKO_FDESC_NONE;
    return error;
}

int32 eko_flOpen(const char* path, uint32 flags, uint16 /*xflags*/, EKO_FDESC* desc)
{
    return eko_flOpenSync(path, flags, desc);
}

int32 eko_flOpenStd(EKO_FDESC* desc, EKO_STD_HANDLE handle)
{
    switch (handle) {
    case EKO_STD_HANDLE_IN:
        *desc = descOf(STDIN_FILENO);
        return EKO_OK;
    case EKO_STD_HANDLE_OUT:
        *desc = descOf(STDOUT_FILENO);
        return EKO_OK;
    case EKO_STD_HANDLE_ERR:
        *desc = descOf(STDERR_FILENO);
        return EKO_OK;
    default:
        return EKO_FAILED;
    }
}

int32 eko_flClose(EKO_FDESC desc)
{
    return close(fdOf(desc));
}

// ---- moving bytes -----------------------------------------------------------------------------------------

int32 eko_flSeek(EKO_FDESC desc, EKO_FILE_OFFSET off, int32 origin)
{
    return lseek64(fdOf(desc), static_cast<off64_t>(off), origin) == -1 ? EKO_FAILED : EKO_OK;
}

uint32 eko_flWrite(EKO_FDESC desc, const void* buf, uint32 size)
{
    errno = 0;
    return transferred(write(fdOf(desc), buf, size));
}

uint32 eko_flRead(EKO_FDESC desc, void* buf, uint32 size)
{
    errno = 0;
    return transferred(read(fdOf(desc), buf, size));
}

uint32 eko_flSeekWrite(EKO_FDESC desc, EKO_FILE_OFFSET off, const void* buf, uint32 size)
{
    if (off == EKO_FILE_NO_OFFSET)
        return eko_flWrite(desc, buf, size);
    errno = 0;
    return transferred(pwrite64(fdOf(desc), buf, size, static_cast<off64_t>(off)));
}

uint32 eko_flSeekRead(EKO_FDESC desc, EKO_FILE_OFFSET off, void* buf, uint32 size)
{
    if (off == EKO_FILE_NO_OFFSET)
        return eko_flRead(desc, buf, size);
    errno = 0;
    return transferred(pread64(fdOf(desc), buf, size, static_cast<off64_t>(off)));
}

int32 eko_flSync(EKO_FDESC desc)
{
    return fsync(fdOf(desc)) == 0 ? EKO_OK : EKO_FAILED;
}

// ---- sizes, locks -----------------------------------------------------------------------------------------

EKO_FILE_OFFSET eko_flSize(EKO_FDESC desc)
{
    struct stat64 st;
    return fstat64(fdOf(desc), &st) == 0 ? static_cast<EKO_FILE_OFFSET>(st.st_size) : 0;
}

int32 eko_flSetSize(EKO_FDESC desc, EKO_FILE_OFFSET size)
{
    return ftruncate64(fdOf(desc), static_cast<off64_t>(size));
}

int32 eko_flLock(EKO_FDESC desc)
{
    return flock(fdOf(desc), LOCK_EX | LOCK_NB) == 0 ? EKO_OK : EKO_FAILED;
}

void eko_flUnlock(EKO_FDESC desc)
{
    flock(fdOf(desc), LOCK_UN | LOCK_NB);
}

// ---- names ------------------------------------------------------------------------------------------------

int32 eko_rename(const char* src, const char* dest)
{
    return rename(src, dest);
}

int32 eko_flRename(const char* src, const char* dest)
{
    return eko_rename(src, dest);
}

int32 eko_remove(const char* path)
{
    return remove(path);
}

int32 eko_flRemove(const char* path)
{
    return eko_remove(path);
}

int32 getFileType(const char* path, int32* isdir)
{
    struct stat64 st;
    const bool exists = narrowStat(path, &st);
    if (isdir)
        *isdir = exists && S_ISDIR(st.st_mode) ? 1 : 0;
    return exists ? 1 : 0;
}

// Without `isdir` by opening, which succeeds for a directory too and waits at a FIFO for its writer.
int32 eko_flValidate(const char* path, int32* isdir)
{
    if (isdir)
        return getFileType(path, isdir);
    EKO_FDESC desc = EKO_FDESC_NONE;
    if (eko_flOpenSync(path, O_RDONLY, &desc) != EKO_OK)
        return 0;
    eko_flClose(desc);
    return 1;
}

time64_t eko_flModTime(const char* path)
{
    struct stat64 st;
    return stat64(path, &st) == 0 ? st.st_mtime : -1;
}

EKO_FILE_OFFSET narrowStatSize(const char* path)
{
    struct stat64 st;
    return narrowStat(path, &st) ? static_cast<EKO_FILE_OFFSET>(st.st_size) : EKO_FILE_NO_OFFSET;
}
