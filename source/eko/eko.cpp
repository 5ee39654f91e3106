// SPDX-License-Identifier: MIT
// Lifecycle: start and stop of the library, its process-wide modes; assertions.
//
// Start and stop are serialised by the critical section. Everybody else reads the variables below without a lock.
// The count is raised before the start's work and lowered after the stop's, since the modules that start and stop
// ask for it: other threads may only come once eko_init has returned.

#include <errno.h>
#include <stdlib.h>

#include "ekolog_int.h"
#include "ekotext_int.h"

int32 eko_inited;
int32 eko_terminating;
int32 eko_readonly;
int32 eko_diskless;
int32 eko_background;
int32 purifyRunning;

char* eko_tmp; // name of the temporary directory once it was looked up, on the global tag

namespace {

// Each changes the count by one and returns what it was. Only inside the critical section.
int32 eko_inited_inc__race_condition_ok()
{
    return __atomic_fetch_add(&eko_inited, 1, __ATOMIC_ACQ_REL);
}
int32 eko_inited_dec__race_condition_ok()
{
    return __atomic_fetch_sub(&eko_inited, 1, __ATOMIC_ACQ_REL);
}

int32 startStdout()
{
    return eko_fileStackInit(&eko_stdout_stack, "stdout");
}
int32 startStderr()
{
    return eko_fileStackInit(&eko_stderr_stack, "stderr");
}
int32 startLog()
{
    return eko_fileStackInit(&eko_log_stack, nullptr);
}
void stopStdout()
{
    eko_fileStackTerm(&eko_stdout_stack);
}
void stopStderr()
{
    eko_fileStackTerm(&eko_stderr_stack);
}

using StopCall = void (*)();

// What undoes a start, newest first. The semaphore table stops in two calls around memory: its shutdown frees
// through the memory module, its end comes after it.
constexpr StopCall STOPS[] = {stopStderr,       stopStdout,  eko_osTerm,  eko_globalTerm,
                              eko_syncShutdown, eko_memTerm, eko_syncTerm};
constexpr size_t STOP_COUNT = sizeof(STOPS) / sizeof(STOPS[0]);

struct StartStep {
    int32 (*start)();
    size_t undoFrom; // where in STOPS to begin when it fails
};
constexpr StartStep STARTS[] = {{eko_syncInit, STOP_COUNT},
                                {eko_memInit, STOP_COUNT - 1},
                                {eko_globalInit, 4},
                                {eko_osInit, 3},
                                {startStdout, 2},
                                {startStderr, 1},
                                {startLog, 0}};

void stopFrom(size_t first)
{
    for (size_t i = first; i < STOP_COUNT; ++i)
        STOPS[i]();
}

void forgetTmpdir()
{
    EKO_FREE(readPublished(eko_tmp), EKO_GLOBAL_TAG);
    publish(eko_tmp, static_cast<char*>(nullptr));
}

// DELIBERATE: log, standard output, standard error, in this order, which is not that of the start reversed. A
// destroyed log stack is silent, so what the others' last flushes have to say still reaches the console. Pinned by
// lifecycle_stops_log_first.
void stopLibrary()
{
    eko_fileStackTerm(&eko_log_stack);
    eko_fileStackTerm(&eko_stdout_stack);
    eko_fileStackTerm(&eko_stderr_stack);
    forgetTmpdir();
    publish(eko_terminating, 1);
    eko_osTerm();
    eko_globalTerm();
    eko_syncShutdown();
    eko_memTerm();
    eko_syncTerm();
    publish(eko_terminating, 0);
}

} // namespace

int32 _eko_init()
{
    for (const StartStep& step : STARTS) {
        if (step.start() != EKO_OK) {
            stopFrom(step.undoFrom);
            return EKO_FAILED;
        }
    }
    return EKO_OK;
}

int32 eko_init(void)
{
    int32 status = EKO_OK;
    eko_enterCritSec();
    if (eko_inited_inc__race_condition_ok() == 0) {
        status = _eko_init();
        if (status != EKO_OK)
            eko_inited_dec__race_condition_ok(); // not started, and may be tried again
    }
    eko_exitCritSec();
    return status;
}

// DELIBERATE: the count is lowered by every call, below 0 too; the eko_init that brings it back to 0 starts
// nothing. Programs that stop once too often rely on the next start being without effect. Pinned by
// lifecycle_stray_term.
void eko_term(void)
{
    eko_enterCritSec();
    if (eko_inited_get__race_condition_ok() == 1)
        stopLibrary();
    eko_inited_dec__race_condition_ok();
    eko_exitCritSec();
}

void eko_rdonly(void)
{
    writeUnlocked(eko_readonly, 1);
}

void eko_nodisk(void)
{
    writeUnlocked(eko_diskless, 1);
}

int32 eko_isPurifyRunning(void)
{
    return readUnlocked(purifyRunning);
}

// ---- assertions, errno ------------------------------------------------------------------------------------

void eko_assertFailed(const char* expr, const char* file, int line)
{
    sayDirectly("%s:%d: assertion failed: %s\n", file, line, expr);
    abort();
}

ErrnoGuard::ErrnoGuard() : saved_(errno) {}

ErrnoGuard::~ErrnoGuard()
{
    errno = saved_;
}
