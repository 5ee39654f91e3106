// SPDX-License-Identifier: MIT
// Threads: starting them with the library's signal mask, priorities, ending and joining.

#include <sched.h>
#include <signal.h>

#include "ekoint.h"

namespace {

// SIGINT, SIGTERM and SIGCHLD, blocked in the calling thread while a new one inherits the mask: they reach only
// threads that were not started here, such as the process's main thread.
class InheritedSignalMask {
public:
    InheritedSignalMask()
    {
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGINT);
        sigaddset(&blocked, SIGTERM);
        sigaddset(&blocked, SIGCHLD);
        pthread_sigmask(SIG_BLOCK, &blocked, &previous_);
    }
    ~InheritedSignalMask() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
    InheritedSignalMask(const InheritedSignalMask&) = delete;
    InheritedSignalMask& operator=(const InheritedSignalMask&) = delete;

private:
    sigset_t previous_;
};

class ThreadAttributes {
public:
    ThreadAttributes(bool detached, uint32 stacksize)
    {
        pthread_attr_init(&attr_);
        if (detached)
            pthread_attr_setdetachstate(&attr_, PTHREAD_CREATE_DETACHED);
        if (stacksize)
            pthread_attr_setstacksize(&attr_, stacksize); // refused below the system's least: the default stays
    }
    ~ThreadAttributes() { pthread_attr_destroy(&attr_); }
    ThreadAttributes(const ThreadAttributes&) = delete;
    ThreadAttributes& operator=(const ThreadAttributes&) = delete;
    const pthread_attr_t* get() const { return &attr_; }

private:
    pthread_attr_t attr_;
};

// DELIBERATE: the caller's int32 function is the start routine as it is. Its result lands in the low half of the
// exit value, which nobody reads. The cast goes through an unspecific function type to say so.
using StartRoutine = void* (*)(void*);
StartRoutine asStartRoutine(EKO_THREAD_FCN fcn)
{
    return reinterpret_cast<StartRoutine>(reinterpret_cast<void (*)()>(fcn));
}

constexpr int16 UNREADABLE = -1; // a thread's scheduling cannot be read

// The range of priorities of a policy to one of the three levels; false for another level.
bool levelToPriority(int32 level, int32 min, int32 max, int32* priority)
{
    switch (level) {
    case EKO_PRIORITY_NORMAL:
        *priority = (min + max) / 2;
        return true;
    case EKO_PRIORITY_HIGH:
        *priority = (3 * max + min) / 4;
        return true;
    case EKO_PRIORITY_LOW:
        *priority = (3 * min + max) / 4;
        return true;
    default:
        return false;
    }
}

} // namespace

int16 eko_threadBeginEx(EKO_THREAD_FCN fcn, uint32 stacksize, void* arg, pthread_t* pTID, int32 /*priority*/,
                        const char* /*name*/)
{
    if (!libraryStarted())
        return EKO_FAILED;
    pthread_t tid;
    int rc;
    {
        const ThreadAttributes attributes(!pTID, stacksize);
        const InheritedSignalMask mask;
        rc = pthread_create(&tid, attributes.get(), asStartRoutine(fcn), arg);
    }
    if (rc != 0)
        return EKO_FAILED;
    if (pTID)
        *pTID = tid;
    return EKO_OK;
}

int16 eko_threadSetPriority(pthread_t tid, int32 priority)
{
    int policy;
    sched_param param;
    if (pthread_getschedparam(tid, &policy, &param) != 0)
        return UNREADABLE;
    const int max = sched_get_priority_max(policy);
    if (pthread_getschedparam(tid, &policy, &param) != 0)
        return UNREADABLE;
    const int min = sched_get_priority_min(policy);
    if (max == -1 || min == -1)
        return EKO_FAILED;
    int32 target;
    if (!levelToPriority(priority, min, max, &target))
        return EKO_FAILED;
    if (pthread_getschedparam(tid, &policy, &param) != 0)
        return UNREADABLE;
    param.sched_priority = target;
    return pthread_setschedparam(tid, policy, &param) == 0 ? static_cast<int16>(EKO_OK)
                                                           : static_cast<int16>(EKO_FAILED);
}

// Ends by unwinding the thread: no frame between here and the thread's function may be noexcept.
void eko_threadEnd(int32 rc)
{
    eko_releaseTLSTag();
    pthread_exit(reinterpret_cast<void*>(static_cast<intptr_t>(rc)));
}

pthread_t eko_threadId(void)
{
    return pthread_self();
}

int32 eko_threadJoin(pthread_t pTID)
{
    return pthread_join(pTID, nullptr) == 0 ? EKO_OK : EKO_FAILED;
}
