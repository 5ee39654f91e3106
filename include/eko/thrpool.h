/* SPDX-License-Identifier: MIT */
/* thrpool.h - a fixed number of worker threads that run the jobs given to them.
 *
 * Jobs are taken in the order in which they were added and run by whichever worker is free; with several workers
 * they end in any order. A job is a function, its argument, and perhaps a callback that hears of the end. Both run
 * on a worker, with SIGINT, SIGTERM and SIGCHLD blocked and the worker's own EKO_THREAD_TAG; they must return: no
 * longjmp, exception or eko_threadEnd may leave them. Callbacks of several jobs can run at the same time.
 *
 * Adding, and all questions about jobs, may come from any thread, jobs and callbacks included, but not from a
 * signal handler. No call leaves by longjmp. None cancels a job or waits for one: let its callback signal an event.
 * A job that waits for another one hangs when all workers do so.
 *
 * Ending   The pool's owner destroys it, not in a job or callback of its own, and before the last eko_term, which
 *          hangs otherwise. From then on nobody may add, not even a job: the process is aborted, by an assertion,
 *          when a job stays behind. Where jobs add jobs, first wait until all are done. For that count them: from
 *          1, up before each adding, down in each callback, and down by the owner when its own jobs are added;
 *          whoever comes to 0 signals an event.
 * Memory   What data and cbdata point to is the caller's; the callback is the place to free it. A job's record
 *          lives until its pool is destroyed, also when eko_thrpoolJobDelete was called: a pool grows with each job
 *          it ever had, by 64 bytes, or 48 with 32-bit pointers. One that runs for months is to be made anew now
 *          and then. */
#ifndef EKO_THRPOOL_H
#define EKO_THRPOOL_H

#include "../ekoplat.h"

EKO_EXTERN_C_BEGIN

/** A pool. */
typedef struct _EKO_THRPOOL EKO_THRPOOL;
/** A job of a pool, valid until the pool is destroyed. */
typedef struct _EKO_THRPOOL_JOB EKO_THRPOOL_JOB;

/** A job's function, called with the job's data. Its result is kept for eko_thrpoolJobResult. */
typedef int32 (*EKO_THRPOOL_FCN)(void* data);
/** Called after a job, on the worker that ran it, when the job already counts as finished. */
typedef void (*EKO_THRPOOL_CALLBACK_FCN)(EKO_THRPOOL_JOB* job, void* cbdata, int32 rc);

/** How far a job is. */
typedef enum EKO_THRPOOL_JOB_STATUS {
    JOB_WAITING = 0, /**< in the queue */
    JOB_STARTED = 1, /**< a worker runs it */
    JOB_FINISHED = 2 /**< result and times are final; the callback has been or is being called */
} EKO_THRPOOL_JOB_STATUS;

/** Creates a pool and starts all its workers.
 *  maxThreads  how many; 0 for as many as processors are online, but at least 2.
 *  thrPool     receives the pool, on success only.
 *  Returns 0; 1003 when the library is not started or memory, the job queue or its semaphores cannot be had; 1002
 *  when a worker cannot be started, after the others have ended; 1013 for a null `thrPool`. */
EKO_API int32 eko_thrpoolCreate(uint32 maxThreads, EKO_THRPOOL** thrPool);

/** Waits until all jobs added so far have run and their callbacks returned, ends the workers, and frees the pool
 *  and its jobs. Null is ignored. */
EKO_API void eko_thrpoolDestroy(EKO_THRPOOL* thrPool);

/** Adds a job behind those that wait.
 *  fcn, data         the function and what it is called with.
 *  callback, cbdata  likewise at the end; callback may be null.
 *  pjob              receives the job, where not null, before the job can start; null when the status is 1003 or 3.
 *  Returns 0; 1013 for a null pool or function; 1003 without memory: the pool is as before; 3 when the pool's
 *  queue is closed. That can be found by its name, "thread pool queue", but is not to be touched: workers assert
 *  that they can read it. */
EKO_API int32 eko_thrpoolAddJob(const EKO_THRPOOL* thrPool, EKO_THRPOOL_FCN fcn, void* data,
                                EKO_THRPOOL_CALLBACK_FCN callback, void* cbdata, EKO_THRPOOL_JOB** pjob);

/** An estimate of the jobs whose callbacks have not returned. Surprise: while jobs wait in the queue every worker
 *  is counted as busy, so it can be too high; it is 0 for an instant when a worker has taken the last job and not
 *  begun it. So 0 does not tell that all is done: see "Ending" above. While the pool is being destroyed, the
 *  messages that end the workers are counted like jobs. 0 for null. */
EKO_API int32 eko_thrpoolJobsLeft(const EKO_THRPOOL* thrPool);

/** How far a job is. A thread that sees JOB_FINISHED also sees what the job wrote. Returns 0; 1013 for null. */
EKO_API int32 eko_thrpoolJobStatus(const EKO_THRPOOL_JOB* job, EKO_THRPOOL_JOB_STATUS* pstatus);

/** Nanoseconds that a job waited in the queue, by the wall clock: a clock set back meanwhile makes them huge.
 *  Returns 0; 1013 for null; 1015 while it still waits. */
EKO_API int32 eko_thrpoolJobWaitTime(const EKO_THRPOOL_JOB* job, uint64* pnsecs);

/** The same figure as eko_thrpoolJobWaitTime. Surprise: not the time that the job ran. Returns 0; 1013 for null;
 *  1015 until it has finished. */
EKO_API int32 eko_thrpoolJobExecTime(const EKO_THRPOOL_JOB* job, uint64* pnsecs);

/** What the job's function returned. Returns 0; 1013 for null; 1015 until it has finished. */
EKO_API int32 eko_thrpoolJobResult(const EKO_THRPOOL_JOB* job, int32* prc);

/** Gives a job up: the caller does not use it again. Nothing is freed, and nothing is lost without this call. The
 *  callback may still be running, with a valid job. Returns 0; 1013 for null; 1015 until it has finished. */
EKO_API int32 eko_thrpoolJobDelete(const EKO_THRPOOL_JOB* job);

EKO_EXTERN_C_END

#endif
