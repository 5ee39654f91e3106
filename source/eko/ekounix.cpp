// SPDX-License-Identifier: MIT
// Operating-system layer: its start, clocks, atomics, thread-local storage, the processor count.

#include <errno.h>
#include <execinfo.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "ekoint.h"

namespace {

constexpr rlim_t OPEN_FILES_WITHOUT_HARD_LIMIT = 1024;

void raiseOpenFileLimit()
{
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    const rlim_t wanted = limit.rlim_max == RLIM_INFINITY ? OPEN_FILES_WITHOUT_HARD_LIMIT : limit.rlim_max;
    if (limit.rlim_cur < wanted)
        limit.rlim_cur = wanted;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// The C library loads its unwinder and its time zone when they are first needed, which fails when descriptors or
// memory have run out by then: a thread could not end, a report could not be stamped. Both are had now.
void loadWhatIsNeededLate()
{
    void* frame;
    backtrace(&frame, 1);
    tzset();
}

timeval wallClock()
{
    timeval now;
    gettimeofday(&now, nullptr);
    return now;
}

} // namespace

// ---- start and stop ---------------------------------------------------------------------------------------

uint32 startedBy;

int32 eko_osInit()
{
    startedBy = eko_get_pid();
    raiseOpenFileLimit();
    signal(SIGPIPE, SIG_IGN); // writing to a closed pipe is a status, not the end of the process
    loadWhatIsNeededLate();
    return EKO_OK;
}

void eko_osTerm() {}

// ---- clocks -----------------------------------------------------------------------------------------------

void eko_sleep(uint32 recMillisecs)
{
    timespec left = {static_cast<time_t>(recMillisecs / 1000), static_cast<long>(recMillisecs % 1000) * 1000000};
    while (nanosleep(&left, &left) != 0)
        ;
}

int32 eko_seed(void)
{
    return static_cast<int32>(time(nullptr));
}

time64_t eko_timeSecs(void)
{
    return time(nullptr);
}

uint64 eko_timeMilliSecs(void)
{
    const timeval now = wallClock();
    return static_cast<uint64>(now.tv_sec) * 1000 + static_cast<uint64>(now.tv_usec) / 1000;
}

uint64 eko_timeNanoSecs(void)
{
    const timeval now = wallClock();
    return (static_cast<uint64>(now.tv_sec) * 1000000 + static_cast<uint64>(now.tv_usec)) * 1000;
}

struct tm* eko_timeLocaltime(time64_t tm, struct tm* res)
{
    const time_t narrowed = static_cast<time_t>(tm);
    return localtime_r(&narrowed, res);
}

// ---- atomics ----------------------------------------------------------------------------------------------

uint32 eko_atomicSetUInt32(volatile uint32* data, uint32 oldval, uint32 newval)
{
    return __atomic_compare_exchange_n(data, &oldval, newval, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST) ? 1 : 0;
}

void eko_atomicIncrUInt32(volatile uint32* data)
{
    __atomic_fetch_add(data, 1u, __ATOMIC_SEQ_CST);
}

void eko_atomicDecrUInt32(volatile uint32* data)
{
    __atomic_fetch_sub(data, 1u, __ATOMIC_SEQ_CST);
}

uint32 eko_atomicIncrUInt32WithVal(volatile uint32* data)
{
    return __atomic_add_fetch(data, 1u, __ATOMIC_SEQ_CST);
}

uint32 eko_atomicDecrUInt32WithVal(volatile uint32* data)
{
    return __atomic_sub_fetch(data, 1u, __ATOMIC_SEQ_CST);
}

// ---- thread-local storage ---------------------------------------------------------------------------------

int32 eko_tlsCreateKey(pthread_key_t* pkey)
{
    if (!pkey)
        return EKO_BAD_ARGUMENT;
    pthread_key_t key;
    if (pthread_key_create(&key, nullptr) != 0)
        return EKO_NO_MEMORY;
    pthread_setspecific(key, nullptr);
    *pkey = key;
    return EKO_OK;
}

int32 eko_tlsDestroyKey(pthread_key_t key)
{
    return pthread_key_delete(key) == 0 ? EKO_OK : EKO_NO_MEMORY;
}

int32 eko_tlsGetPtr(pthread_key_t key, void** ptr)
{
    if (!ptr)
        return EKO_FAILED; // not 1013, unlike the calls beside it
    *ptr = pthread_getspecific(key);
    return EKO_OK;
}

int32 eko_tlsSetPtr(pthread_key_t key, void* ptr)
{
    return pthread_setspecific(key, ptr) == 0 ? EKO_OK : EKO_NO_MEMORY;
}

// ---- processors -------------------------------------------------------------------------------------------

uint32 eko_getcpucount(void)
{
    return static_cast<uint32>(sysconf(_SC_NPROCESSORS_ONLN));
}
