// SPDX-License-Identifier: MIT
// Thread pool: workers that take jobs from one message queue.
//
// Data      A pool is one stack tag, with a mutex since jobs are added from any thread: the pool's record, its
//           workers and all its jobs. A single free on such a tag gives nothing back, and that is needed: a
//           callback is still handed a job that its owner, who saw it finished, may have deleted.
// Locks     none of its own; the queue is all that callers and workers share.
// Unlocked  a job's status: what the worker wrote before is published with it. The list of workers, their states
//           and their number, which eko_thrpoolJobsLeft reads while others change them: its answer is an estimate.

#include "ekoqueue_int.h"

enum THREAD_STATE { THR_ACTIVE = 0, THR_WAITING = 1, THR_DONE = 2 };

struct _EKO_THRPOOL_THREAD {
    _EKO_THRPOOL_THREAD* next;
    EKO_THRPOOL* thrPool;
    THREAD_STATE state;
    pthread_t tid;
};
using EKO_THRPOOL_THREAD = _EKO_THRPOOL_THREAD;

struct _EKO_THRPOOL {
    uint32 numThreads; // workers running
    uint32 maxThreads; // workers wanted
    EKO_QUEUE_HANDLE queue;
    EKO_MEMTAG tag;
    EKO_THRPOOL_THREAD* threads; // newest first
};

struct _EKO_THRPOOL_JOB {
    const EKO_THRPOOL* thrPool;
    EKO_THRPOOL_FCN fcn;
    void* data;
    EKO_THRPOOL_CALLBACK_FCN callback;
    void* cbdata;
    EKO_THRPOOL_JOB_STATUS status;
    int32 rc;
    uint64 wait_nsecs; // first when it was queued
    uint64 exec_nsecs; // first when it was started
};

namespace {

constexpr uint32 LEAST_WORKERS = 2; // when the number is chosen here
constexpr uint32 DEFAULT_STACK = 0;
constexpr uint32 POLL_MILLISECS = 10;
constexpr int32 JOB_NOT_THERE_YET = 1015;
constexpr int32 CANNOT_JOIN_YET = 1010;

// ---- deliberate unlocked accesses -------------------------------------------------------------------------

EKO_THRPOOL_JOB_STATUS eko_job_status_get__race_condition_ok(const EKO_THRPOOL_JOB& job)
{
    return readPublished(job.status);
}
void eko_job_status_set__race_condition_ok(EKO_THRPOOL_JOB& job, EKO_THRPOOL_JOB_STATUS status)
{
    publish(job.status, status);
}
THREAD_STATE eko_worker_state_get__race_condition_ok(const EKO_THRPOOL_THREAD& worker)
{
    return readUnlocked(worker.state);
}
void eko_worker_state_set__race_condition_ok(EKO_THRPOOL_THREAD& worker, THREAD_STATE state)
{
    writeUnlocked(worker.state, state);
}
uint32 eko_num_threads_get__race_condition_ok(const EKO_THRPOOL& pool)
{
    return readUnlocked(pool.numThreads);
}
void eko_num_threads_set__race_condition_ok(EKO_THRPOOL& pool, uint32 count)
{
    writeUnlocked(pool.numThreads, count);
}
const EKO_THRPOOL_THREAD* eko_workers_get__race_condition_ok(const EKO_THRPOOL& pool)
{
    return readPublished(pool.threads);
}
void eko_workers_set__race_condition_ok(EKO_THRPOOL& pool, EKO_THRPOOL_THREAD* first)
{
    publish(pool.threads, first);
}

// ---- workers ----------------------------------------------------------------------------------------------

// A job is not touched after its callback, and only by the worker and the callback once it is published as
// finished.
void runJob(EKO_THRPOOL_THREAD& worker, EKO_THRPOOL_JOB& job)
{
    const uint64 start = eko_timeNanoSecs(); // the end of the waiting, and of the running the beginning
    job.wait_nsecs = start - job.wait_nsecs;
    eko_worker_state_set__race_condition_ok(worker, THR_ACTIVE);
    eko_job_status_set__race_condition_ok(job, JOB_STARTED);
    job.exec_nsecs = start;
    const int32 rc = job.fcn(job.data);
    job.rc = rc;
    job.exec_nsecs = eko_timeNanoSecs() - job.exec_nsecs;
    eko_job_status_set__race_condition_ok(job, JOB_FINISHED);
    if (job.callback)
        job.callback(&job, job.cbdata, rc);
    eko_worker_state_set__race_condition_ok(worker, THR_WAITING);
}

// The next job; null is the message to leave.
EKO_THRPOOL_JOB* nextJob(const EKO_THRPOOL& pool)
{
    void* job = nullptr;
    const int32 status = eko_queueRead(pool.queue, &job, nullptr, nullptr, EKO_FOREVER);
    EKO_ASSERT(status == EKO_OK);
    return static_cast<EKO_THRPOOL_JOB*>(job);
}

int32 work(void* arg)
{
    auto* worker = static_cast<EKO_THRPOOL_THREAD*>(arg);
    while (EKO_THRPOOL_JOB* job = nextJob(*worker->thrPool))
        runJob(*worker, *job);
    eko_worker_state_set__race_condition_ok(*worker, THR_DONE);
    eko_threadEnd(EKO_OK);
}

// With each worker the queue gets a spare record, for the message that will end it.
int32 startWorker(EKO_THRPOOL& pool, MemResult* result)
{
    auto* worker = tryZeroed<EKO_THRPOOL_THREAD>(pool.tag, result);
    if (!worker || !tryQueueReserve(pool.queue, result))
        return EKO_NO_MEMORY;
    worker->thrPool = &pool;
    worker->state = THR_WAITING;
    const int32 status =
        eko_threadBeginEx(work, DEFAULT_STACK, worker, &worker->tid, EKO_PRIORITY_NORMAL, "thread pool");
    if (status != EKO_OK)
        return status;
    worker->next = pool.threads;
    eko_workers_set__race_condition_ok(pool, worker);
    eko_num_threads_set__race_condition_ok(pool, pool.numThreads + 1);
    return EKO_OK;
}

int32 startWorkers(EKO_THRPOOL& pool, MemResult* result)
{
    int32 status = EKO_OK;
    while (status == EKO_OK && pool.numThreads < pool.maxThreads)
        status = startWorker(pool, result);
    return status;
}

// The message that ends a worker must arrive, or the joining never ends. Records come back with every job that is
// taken, and there are as many as workers, so it needs patience at most.
void tellOneToLeave(const EKO_THRPOOL& pool)
{
    MemResult result = MemResult::done;
    while (tryQueueWrite(pool.queue, nullptr, &result) == EKO_NO_MEMORY)
        eko_sleep(POLL_MILLISECS);
}

void joinWorker(EKO_THRPOOL& pool, EKO_THRPOOL_THREAD* worker)
{
    eko_workers_set__race_condition_ok(pool, worker->next);
    if (eko_threadJoin(worker->tid) == CANNOT_JOIN_YET) {
        while (eko_worker_state_get__race_condition_ok(*worker) != THR_DONE)
            eko_sleep(POLL_MILLISECS);
    }
    eko_num_threads_set__race_condition_ok(pool, pool.numThreads - 1);
    EKO_FREE(worker, pool.tag);
}

// The messages go behind the jobs in the queue, so that these are still run.
void stopWorkers(EKO_THRPOOL& pool)
{
    for (uint32 i = 0; i < pool.numThreads; ++i)
        tellOneToLeave(pool);
    while (pool.threads)
        joinWorker(pool, pool.threads);
    EKO_ASSERT(pool.numThreads == 0);
    EKO_ASSERT(eko_queueCount(pool.queue) == 0);
}

void freePool(const EKO_THRPOOL& pool)
{
    eko_queueDelete(pool.queue);
    EKO_TAG_DESTROY(pool.tag);
}

uint32 workersWanted(uint32 maxThreads)
{
    if (maxThreads != 0)
        return maxThreads;
    const uint32 processors = eko_getcpucount();
    return processors < LEAST_WORKERS ? LEAST_WORKERS : processors;
}

// A pool without workers, or null.
EKO_THRPOOL* makePool(uint32 maxThreads, MemResult* result)
{
    const EKO_MEMTAG tag = tryCreateTag(nullptr, 1, STACK_ALLOCATOR, nullptr, nullptr, result);
    EKO_THRPOOL* pool = tag != EKO_TAG_INVALID ? tryZeroed<EKO_THRPOOL>(tag, result) : nullptr;
    if (pool)
        pool->queue = eko_queueCreate("thread pool queue");
    if (!pool || !pool->queue) {
        EKO_TAG_DESTROY(tag);
        return nullptr;
    }
    pool->tag = tag;
    pool->maxThreads = workersWanted(maxThreads);
    return pool;
}

int32 createPool(uint32 maxThreads, EKO_THRPOOL** thrPool, MemResult* result)
{
    EKO_THRPOOL* pool = makePool(maxThreads, result);
    if (!pool)
        return EKO_NO_MEMORY;
    const int32 status = startWorkers(*pool, result);
    if (status != EKO_OK) {
        stopWorkers(*pool);
        freePool(*pool);
        return status;
    }
    *thrPool = pool;
    return EKO_OK;
}

// ---- jobs -------------------------------------------------------------------------------------------------

// The description sets every field, so the record need not be zeroed first.
int32 addJob(const EKO_THRPOOL& pool, const EKO_THRPOOL_JOB& description, EKO_THRPOOL_JOB** pjob, MemResult* result)
{
    auto* job =
        static_cast<EKO_THRPOOL_JOB*>(tryGetMem(sizeof(EKO_THRPOOL_JOB), pool.tag, EKO_MEM_PLAIN, nullptr, result));
    if (job)
        *job = description;
    if (pjob)
        *pjob = job;
    if (!job)
        return EKO_NO_MEMORY;
    job->wait_nsecs = eko_timeNanoSecs();
    const int32 status = tryQueueWrite(pool.queue, job, result);
    if (status != EKO_OK) {
        if (pjob)
            *pjob = nullptr;
        EKO_FREE(job, pool.tag);
    }
    return status;
}

// 0 when the question can be answered: its arguments are there, and the job has come that far.
int32 checkQuestion(const EKO_THRPOOL_JOB* job, const void* answer, EKO_THRPOOL_JOB_STATUS least)
{
    if (!job || !answer)
        return EKO_BAD_ARGUMENT;
    return eko_job_status_get__race_condition_ok(*job) < least ? JOB_NOT_THERE_YET : EKO_OK;
}

int32 tellWaitTime(const EKO_THRPOOL_JOB* job, uint64* pnsecs, EKO_THRPOOL_JOB_STATUS least)
{
    const int32 status = checkQuestion(job, pnsecs, least);
    if (status == EKO_OK)
        *pnsecs = job->wait_nsecs;
    return status;
}

} // namespace

// ---- interface --------------------------------------------------------------------------------------------

int32 eko_thrpoolCreate(uint32 maxThreads, EKO_THRPOOL** thrPool)
{
    if (!thrPool)
        return EKO_BAD_ARGUMENT;
    MemResult result = MemResult::done;
    const int32 status = createPool(maxThreads, thrPool, &result);
    memReportIf(result, __FILE__, __LINE__);
    return status;
}

void eko_thrpoolDestroy(EKO_THRPOOL* thrPool)
{
    if (!thrPool)
        return;
    stopWorkers(*thrPool);
    freePool(*thrPool);
}

int32 eko_thrpoolAddJob(const EKO_THRPOOL* thrPool, EKO_THRPOOL_FCN fcn, void* data,
                        EKO_THRPOOL_CALLBACK_FCN callback, void* cbdata, EKO_THRPOOL_JOB** pjob)
{
    if (!thrPool || !fcn)
        return EKO_BAD_ARGUMENT;
    MemResult result = MemResult::done;
    const EKO_THRPOOL_JOB description = {thrPool, fcn, data, callback, cbdata, JOB_WAITING, 0, 0, 0};
    const int32 status = addJob(*thrPool, description, pjob, &result);
    memReportIf(result, __FILE__, __LINE__);
    return status;
}

// DELIBERATE: with jobs in the queue every worker counts as busy, also one that is not; callers compare the figure
// with limits that were chosen for it. Pinned by pool_jobs_left_counts_all_workers.
int32 eko_thrpoolJobsLeft(const EKO_THRPOOL* thrPool)
{
    if (!thrPool)
        return 0;
    const int32 queued = eko_queueCount(thrPool->queue);
    if (queued > 0)
        return queued + static_cast<int32>(eko_num_threads_get__race_condition_ok(*thrPool));
    int32 active = 0;
    for (auto* worker = eko_workers_get__race_condition_ok(*thrPool); worker; worker = worker->next)
        active += eko_worker_state_get__race_condition_ok(*worker) == THR_ACTIVE ? 1 : 0;
    return active;
}

int32 eko_thrpoolJobStatus(const EKO_THRPOOL_JOB* job, EKO_THRPOOL_JOB_STATUS* pstatus)
{
    const int32 status = checkQuestion(job, pstatus, JOB_WAITING);
    if (status == EKO_OK)
        *pstatus = eko_job_status_get__race_condition_ok(*job);
    return status;
}

int32 eko_thrpoolJobWaitTime(const EKO_THRPOOL_JOB* job, uint64* pnsecs)
{
    return tellWaitTime(job, pnsecs, JOB_STARTED);
}

// DELIBERATE: tells the time waited; exec_nsecs is kept for the debugger. Callers' records hold this figure in both
// places. Pinned by pool_exec_time_is_the_wait_time.
int32 eko_thrpoolJobExecTime(const EKO_THRPOOL_JOB* job, uint64* pnsecs)
{
    return tellWaitTime(job, pnsecs, JOB_FINISHED);
}

int32 eko_thrpoolJobResult(const EKO_THRPOOL_JOB* job, int32* prc)
{
    const int32 status = checkQuestion(job, prc, JOB_FINISHED);
    if (status == EKO_OK)
        *prc = job->rc;
    return status;
}

int32 eko_thrpoolJobDelete(const EKO_THRPOOL_JOB* job)
{
    const int32 status = checkQuestion(job, job, JOB_FINISHED);
    if (status == EKO_OK)
        EKO_FREE(job, job->thrPool->tag);
    return status;
}
