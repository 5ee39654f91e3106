// SPDX-License-Identifier: MIT
// syscalls.h - makes system calls fail, and the creation of a mutex or event.
// LINK: --wrap=open64 --wrap=read --wrap=write --wrap=pread64 --wrap=pwrite64 --wrap=lseek64 --wrap=fsync
// LINK: --wrap=ftruncate64 --wrap=fstat64 --wrap=stat64 --wrap=flock --wrap=mmap64
// LINK: --wrap=eko_syncCreate_check --wrap=close --wrap=remove --wrap=rename
#ifndef EKO_TESTS_SYSCALLS_H
#define EKO_TESTS_SYSCALLS_H

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base.h"

// While alive, each call of that name (one of those above) fails with errno `error`, or with an `error` of 0 takes
// a millisecond and moves at most `most` bytes; the first `spared` calls do neither, nor do those behind the next
// `times`. One at a time, and no other thread running when it comes or goes.
extern struct CallFaulty {
    const char* call; // "" when none has the fault
    int error;
    size_t most;
    uint32 spared, times, calls;
} callFaulty;
class CallFault {
public:
    explicit CallFault(const char* call, int error, size_t most = 0, uint32 spared = 0, uint32 times = INT32_MAX)
    {
        callFaulty = {call, error, most, spared, times, 0};
    }
    ~CallFault() { callFaulty.call = ""; }
    static uint32 calls() { return __atomic_load_n(&callFaulty.calls, __ATOMIC_RELAXED); } // made so far
};

// Asked in front of each such call: whether it is to fail. errno is set then.
bool callFails(const char* call);

// In a forked child: the process is killed (SIGKILL) in front of the n-th call, whichever of those above it is.
void dieAtCall(uint32 n);

#endif
