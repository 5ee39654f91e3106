/* SPDX-License-Identifier: MIT */
/* sync.h - mutexes, events, the critical section.
 *
 * An EKO_SEM names a mutex or an event in one process-wide table of 131,072 slots. Handles are addresses of
 * slots: a handle used after its deletion may name the next object in that slot, which is not detected.
 * All calls may come from any thread. When the library is not started they do nothing, but for the critical section
 * and eko_posix_cond_timedwait, which do not need it. None leaves by longjmp. */
#ifndef EKO_SYNC_H
#define EKO_SYNC_H

#include "../ekoplat.h"

EKO_EXTERN_C_BEGIN

/** A mutex or an event. */
typedef const void* EKO_SEM;

/** "None", and the result of a failed creation. Compare with this, never with null. */
#define EKO_SEM_INVALID ((EKO_SEM)(intptr_t)-1)

/** Types for eko_syncCreate_check. */
#define EKO_SEM_MUTEX ((int16)1)
#define EKO_SEM_EVENT ((int16)2)

/** Waits without limit. */
#define EKO_FOREVER 0xFFFFFFFFu

/** A new mutex, free, or event, signalled. EKO_SEM_INVALID on failure. */
#define EKO_MUTEX_CREATE() eko_syncCreate_check(EKO_SEM_MUTEX, __FILE__, __LINE__)
#define EKO_EVENT_CREATE() eko_syncCreate_check(EKO_SEM_EVENT, __FILE__, __LINE__)

/** Creates a mutex (EKO_SEM_MUTEX) or an event (EKO_SEM_EVENT).
 *  file, line  the caller's position, named in "Insufficient number of semaphores, called from %s:%d\n",
 *              which is logged when the table is full.
 *  A new event is signalled: waiters pass until eko_syncStart.
 *  Returns the handle; EKO_SEM_INVALID when the library is not started, the table is full, no memory can be
 *  had, or the type is neither ("Invalid semaphore type\n" is logged, and one slot is lost until stop). */
EKO_API EKO_SEM eko_syncCreate_check(int16 type, const char* file, int32 line);

/** Deletes a mutex or an event; EKO_SEM_INVALID and null are ignored. Nobody may hold it or wait on it. No other
 *  handle is checked: deleting twice gives one slot to several later creations. */
EKO_API void eko_syncDelete(EKO_SEM sem);

/** Enters a mutex, waiting for it. A thread may enter again what it holds, and leaves as often.
 *  A handle that is no mutex logs "Invalid mutex\n" and does not block. */
EKO_API void eko_syncEnterExcl(EKO_SEM sem);

/** Leaves a mutex once. Surprise: the caller's identity is not checked; leaving what another thread holds
 *  frees it, and leaving a free one makes its count -1, from which the next enter recovers. A handle that is no
 *  mutex logs "Invalid mutex\n". */
EKO_API void eko_syncExitExcl(EKO_SEM sem);

/** Resets an event, so that later waiters block. A handle that is no event logs "Invalid event\n". */
EKO_API void eko_syncStart(EKO_SEM sem);

/** Signals an event: all present and later waiters pass, until the next eko_syncStart. A waiter can miss a
 *  signal that is reset at once. A handle that is no event logs "Invalid event\n". */
EKO_API void eko_syncResume(EKO_SEM sem);

/** Waits until an event is signalled.
 *  timeout  milliseconds; 0 only tests; EKO_FOREVER waits without limit. Measured by the wall clock and
 *           again from the start after each wake-up that finds the event reset, so a wait lasts at least
 *           this long and may last longer. A clock that is set meanwhile makes it longer or shorter.
 *  Returns 0 signalled; 1001 not signalled in time; 1002 library not started, or no event ("Invalid event\n"
 *  is logged for the latter). */
EKO_API int16 eko_syncWait(EKO_SEM sem, uint32 timeout);

/** Enters and leaves the one critical section of the library, which start and stop use too. Works before eko_init.
 *  Not recursive: entering twice deadlocks, and so does eko_init or eko_term inside it. */
EKO_API void eko_enterCritSec(void);
EKO_API void eko_exitCritSec(void);

/** Waits on a POSIX condition variable, whose mutex the caller holds, for at most `t` milliseconds by the
 *  wall clock; 0xFFFFFFFF is not special here. Returns 1001 when the time ran out; 0 otherwise, which includes
 *  wake-ups without a signal and every error of the system's call. Surprise: a deadline whose nanoseconds come to
 *  exactly one second is handed on uncarried; the system refuses it, and that too reads as 0. */
EKO_API int16 eko_posix_cond_timedwait(pthread_cond_t* c, pthread_mutex_t* m, uint32 t);

EKO_EXTERN_C_END

#endif
