/* SPDX-License-Identifier: MIT */
/* thread.h - threads, thread-local storage, atomics, clocks. All calls may come from any thread. */
#ifndef EKO_THREAD_H
#define EKO_THREAD_H

#include "../ekoplat.h"

EKO_EXTERN_C_BEGIN

/* ---- threads ------------------------------------------------------------------------------------------ */

/** A thread's function. Its result is discarded. It should leave through eko_threadEnd: returning works, but
 *  keeps the thread's memory tag until the library stops. */
typedef int32 (*EKO_THREAD_FCN)(void* arg);

/** Priorities for eko_threadSetPriority. */
#define EKO_PRIORITY_LOW (-1)
#define EKO_PRIORITY_NORMAL 0
#define EKO_PRIORITY_HIGH 1

/** Starts a thread with SIGINT, SIGTERM and SIGCHLD blocked; the caller's own mask is unchanged.
 *  stacksize  bytes; 0, or less than the system's least size, gives the default.
 *  fcn        not null.
 *  pTID       receives the thread's identifier, on success only; the thread is then to be joined. Null starts it
 *             detached: nothing tells when it has left the library, so it should not live at the last eko_term.
 *  priority, name  accepted and not used; see eko_threadSetPriority.
 *  Returns 0; 1002 when the library is not started or the thread cannot be made. */
EKO_API int16 eko_threadBeginEx(EKO_THREAD_FCN fcn, uint32 stacksize, void* arg, pthread_t* pTID, int32 priority,
                                const char* name);

/** Puts a thread to a quarter (low), the middle (normal) or three quarters (high) of the range of its
 *  scheduling policy. Returns 0; -1 when its scheduling cannot be read, as that of a thread that has ended; 1002
 *  for another priority or when the system refuses. Surprise: the system's ordinary policy has a range of one
 *  value, so 0 is returned and nothing changes; a real-time policy, SCHED_FIFO or SCHED_RR, has more. */
EKO_API int16 eko_threadSetPriority(pthread_t tid, int32 priority);

/** Ends the calling thread, destroying its memory tag first. Nobody gets to see `rc`. Does not return: the thread
 *  is unwound, so no caller up to the thread's function may be noexcept, or swallow every exception. On the main
 *  thread it waits for the others, and the process then ends with 0. */
EKO_API EKO_NORETURN void eko_threadEnd(int32 rc);

/** The calling thread's identifier. */
EKO_API pthread_t eko_threadId(void);

/** Waits until a thread has ended. Returns 0, or 1002 when it cannot be joined. */
EKO_API int32 eko_threadJoin(pthread_t pTID);

/* ---- thread-local storage ------------------------------------------------------------------------------ */

/** Makes a key, null in every thread, without a destructor. It is the caller's: it needs no eko_init and survives
 *  eko_term. Returns 0; 1013 for null; 1003 none left. */
EKO_API int32 eko_tlsCreateKey(pthread_key_t* pkey);
/** Returns 0, or 1003 when the key cannot be destroyed. */
EKO_API int32 eko_tlsDestroyKey(pthread_key_t key);
/** Stores the calling thread's value in `*ptr`, null when never set. Returns 0, or 1002 for a null `ptr`. */
EKO_API int32 eko_tlsGetPtr(pthread_key_t key, void** ptr);
/** Sets the calling thread's value. Returns 0, or 1003 when it cannot be set. */
EKO_API int32 eko_tlsSetPtr(pthread_key_t key, void* ptr);

/* ---- atomics: each one locked instruction and a full barrier; usable before eko_init -------------------- */

/** Sets `*data` to `newval` if it is `oldval`. Returns 1 if so, else 0 with `*data` unchanged. */
EKO_API uint32 eko_atomicSetUInt32(volatile uint32* data, uint32 oldval, uint32 newval);
EKO_API void eko_atomicIncrUInt32(volatile uint32* data);
EKO_API void eko_atomicDecrUInt32(volatile uint32* data);
/** These two return the value after the change; counting wraps. */
EKO_API uint32 eko_atomicIncrUInt32WithVal(volatile uint32* data);
EKO_API uint32 eko_atomicDecrUInt32WithVal(volatile uint32* data);

/* ---- clocks, by the wall clock ------------------------------------------------------------------------- */

/** Sleeps for that many milliseconds, signals notwithstanding; 0xFFFFFFFF is not special here. */
EKO_API void eko_sleep(uint32 recMillisecs);
/** Time since 1970-01-01 UTC. Nanoseconds have the resolution of a microsecond. */
EKO_API time64_t eko_timeSecs(void);
EKO_API uint64 eko_timeMilliSecs(void);
EKO_API uint64 eko_timeNanoSecs(void);
/** Breaks a time down into local time. Returns `res`, which must not be null, or null when the year cannot be
 *  represented. Where time_t has 32 bits, the time is narrowed to them. */
EKO_API struct tm* eko_timeLocaltime(time64_t tm, struct tm* res);

/** Number of processors online. */
EKO_API uint32 eko_getcpucount(void);

EKO_EXTERN_C_END

#endif
