// SPDX-License-Identifier: MIT
#include "support/syscalls.h"

#include <signal.h>
#include <string.h>

#include "ekoint.h"
#include "support/fixture.h"

CallFaulty callFaulty = {"", 0, 0, 0, 0, 0};
static uint32 deadlyCall; // calls to the one in front of which the process dies; 0 when none

void dieAtCall(uint32 n)
{
    deadlyCall = n;
}

bool callFails(const char* call)
{
    if (deadlyCall && --deadlyCall == 0)
        raise(SIGKILL);
    CallFaulty& fault = callFaulty;
    if (strcmp(fault.call, call) ||
        __atomic_fetch_add(&fault.calls, 1, __ATOMIC_RELAXED) - fault.spared >= fault.times)
        return false;
    errno = fault.error;
    return fault.error || usleep(1000);
}

static size_t allowed(const char* call, size_t size)
{
    const bool limited = !strcmp(callFaulty.call, call) && CallFault::calls() > callFaulty.spared;
    return limited && size > callFaulty.most ? callFaulty.most : size;
}

// FAILED when the fault is on it, else the real one with ARGS.
#define WRAP(type, name, params, args, failed) \
    EKO_ANSWER(type, name, params, callFails(#name) ? failed : __real_##name args)

WRAP(int, open64, (const char* path, int flags, mode_t mode), (path, flags, mode), -1)
WRAP(ssize_t, read, (int fd, void* buf, size_t n), (fd, buf, allowed("read", n)), -1)
WRAP(ssize_t, write, (int fd, const void* buf, size_t n), (fd, buf, allowed("write", n)), -1)
WRAP(ssize_t, pread64, (int fd, void* buf, size_t n, off64_t off), (fd, buf, allowed("pread64", n), off), -1)
WRAP(ssize_t, pwrite64, (int fd, const void* buf, size_t n, off64_t off), (fd, buf, allowed("pwrite64", n), off),
     -1)
WRAP(off64_t, lseek64, (int fd, off64_t off, int whence), (fd, off, whence), -1)
WRAP(int, fsync, (int fd), (fd), -1)
WRAP(int, ftruncate64, (int fd, off64_t size), (fd, size), -1)
WRAP(int, fstat64, (int fd, struct stat64* st), (fd, st), -1)
WRAP(int, stat64, (const char* path, struct stat64* st), (path, st), -1)
WRAP(int, flock, (int fd, int how), (fd, how), -1)
WRAP(void*, mmap64, (void* at, size_t n, int prot, int flags, int fd, off64_t off), (at, n, prot, flags, fd, off),
     MAP_FAILED)
WRAP(EKO_SEM, eko_syncCreate_check, (int16 type, const char* file, int32 line), (type, file, line), EKO_SEM_INVALID)
WRAP(int, close, (int fd), (fd), -1)
WRAP(int, remove, (const char* path), (path), -1)
WRAP(int, rename, (const char* from, const char* to), (from, to), -1)
