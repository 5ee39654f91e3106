// Thread pool: the life of jobs, draining, what happens when something cannot be had, and many jobs.
// LINK: --wrap=pthread_create --wrap=sysconf
#include <errno.h>
#include <unistd.h>

#include <atomic>

#include "ekoqueue_int.h"
#include "support/faults.h"
#include "support/fixture.h"

static std::atomic<int> startsLeft = -1; // of threads, until one fails; below 0 none does
static long processors = 0;              // pretended to be online; 0 for the true number

EKO_WRAP(int, pthread_create, (pthread_t * tid, const pthread_attr_t* attr, void* (*fcn)(void*), void* arg))
{
    return startsLeft-- == 0 ? EAGAIN : __real_pthread_create(tid, attr, fcn, arg);
}

EKO_WRAP(long, sysconf, (int name))
{
    return name == _SC_NPROCESSORS_ONLN && processors ? processors : __real_sysconf(name);
}

namespace {

class PoolTest : public EkoTest {
protected:
    void SetUp() override
    {
        EkoTest::SetUp();
        eko_queueDelete(eko_queueCreate("first use makes the module's record"));
        acceptUsage();
    }
};

EKO_THRPOOL* create(uint32 workers)
{
    EKO_THRPOOL* pool = nullptr;
    EXPECT_EQ(eko_thrpoolCreate(workers, &pool), 0);
    return pool;
}

EKO_QUEUE* jobQueue()
{
    return static_cast<EKO_QUEUE*>(eko_queueFind("thread pool queue"));
}

int32 waitFor(void* event)
{
    return eko_syncWait(event, EKO_FOREVER) + 77;
}

// An event that jobs wait for.
class Gate {
public:
    Gate() { eko_syncStart(sem_); }
    ~Gate() { eko_syncDelete(sem_); }
    void open() { eko_syncResume(sem_); }
    EKO_THRPOOL_JOB* addTo(EKO_THRPOOL* pool, EKO_THRPOOL_CALLBACK_FCN callback = nullptr, void* cbdata = nullptr)
    {
        EKO_THRPOOL_JOB* job = nullptr;
        EXPECT_EQ(eko_thrpoolAddJob(pool, waitFor, const_cast<void*>(sem_), callback, cbdata, &job), 0);
        return job;
    }

private:
    EKO_SEM sem_ = EKO_EVENT_CREATE();
};

EKO_THRPOOL_JOB_STATUS statusOf(const EKO_THRPOOL_JOB* job)
{
    EKO_THRPOOL_JOB_STATUS status;
    EXPECT_EQ(eko_thrpoolJobStatus(job, &status), 0);
    return status;
}

void waitUntil(const EKO_THRPOOL_JOB* job, EKO_THRPOOL_JOB_STATUS status)
{
    while (statusOf(job) != status)
        eko_sleep(1);
}

// Answers to the questions about a job that are refused until it is far enough or, without a place for them, altogether.
std::string answers(const EKO_THRPOOL_JOB* job, bool place = true)
{
    uint64 nsecs;
    int32 rc;
    std::string text;
    for (const int32 status : {eko_thrpoolJobWaitTime(job, place ? &nsecs : nullptr),
                               eko_thrpoolJobExecTime(job, place ? &nsecs : nullptr),
                               eko_thrpoolJobResult(job, place ? &rc : nullptr), eko_thrpoolJobDelete(job)})
        text += std::to_string(status) + ' ';
    return text;
}

// A callback that outlives its job's deletion by the owner.
void useDeletedJob(EKO_THRPOOL_JOB* job, void* data, int32 rc)
{
    EXPECT_EQ(statusOf(job), JOB_FINISHED);
    EXPECT_EQ(rc, 77);
    auto* deleted = static_cast<std::atomic<bool>*>(data);
    while (!*deleted)
        eko_sleep(1);
    EXPECT_EQ(eko_thrpoolJobResult(job, &rc), 0);
    EXPECT_EQ(rc, 77);
}

TEST_F(PoolTest, pool_job_goes_through_its_states)
{
    EKO_THRPOOL* pool = create(1);
    Gate gate;
    std::atomic<bool> deleted = false;
    EKO_THRPOOL_JOB* first = gate.addTo(pool, useDeletedJob, &deleted);
    EKO_THRPOOL_JOB* second = gate.addTo(pool);
    waitUntil(first, JOB_STARTED);
    EXPECT_EQ(answers(first), "0 1015 1015 1015 ");
    EXPECT_EQ(statusOf(second), JOB_WAITING);
    EXPECT_EQ(answers(second), "1015 1015 1015 1015 ");
    gate.open();
    waitUntil(first, JOB_FINISHED);
    EXPECT_EQ(answers(first), "0 0 0 0 ");
    deleted = true;
    waitUntil(second, JOB_FINISHED);
    EXPECT_EQ(eko_thrpoolAddJob(pool, nullptr, nullptr, nullptr, nullptr, nullptr), 1013);
    EXPECT_EQ(eko_thrpoolAddJob(nullptr, waitFor, nullptr, nullptr, nullptr, nullptr), 1013);
    EXPECT_EQ(answers(first, false) + answers(nullptr), "1013 1013 1013 0 1013 1013 1013 1013 ");
    EXPECT_EQ(eko_thrpoolJobStatus(first, nullptr) + eko_thrpoolJobStatus(nullptr, nullptr), 2026);
    eko_thrpoolDestroy(pool);
    eko_thrpoolDestroy(nullptr);
    EXPECT_EQ(eko_thrpoolCreate(1, nullptr), 1013);
}

TEST_F(PoolTest, pool_exec_time_is_the_wait_time)
{
    EKO_THRPOOL* pool = create(1);
    Gate gate;
    gate.addTo(pool);
    EKO_THRPOOL_JOB* second = gate.addTo(pool); // waits at least 50 ms, and runs for no time
    eko_sleep(50);
    gate.open();
    waitUntil(second, JOB_FINISHED);
    uint64 waited = 0;
    uint64 ran = 0;
    EXPECT_EQ(eko_thrpoolJobWaitTime(second, &waited) + eko_thrpoolJobExecTime(second, &ran), 0);
    EXPECT_GE(waited, 49000000u);
    EXPECT_EQ(ran, waited);
    eko_thrpoolDestroy(pool);
}

TEST_F(PoolTest, pool_jobs_left_counts_all_workers)
{
    for (const auto& [online, workers] : {std::pair(1l, 2), std::pair(3l, 3)}) {
        processors = online;
        EKO_THRPOOL* pool = create(0);
        EXPECT_EQ(eko_thrpoolJobsLeft(pool), 0);
        Gate gate;
        EKO_THRPOOL_JOB* last = nullptr;
        for (int i = 0; i < workers; ++i)
            waitUntil(last = gate.addTo(pool), JOB_STARTED);
        EXPECT_EQ(eko_thrpoolJobsLeft(pool), workers);
        for (int i = 1; i <= 3; ++i) {
            gate.addTo(pool);
            EXPECT_EQ(eko_thrpoolJobsLeft(pool), workers + i);
        }
        EXPECT_EQ(eko_thrpoolJobsLeft(nullptr), 0);
        gate.open();
        eko_thrpoolDestroy(pool);
    }
    processors = 0;
}

TEST_F(PoolTest, pool_that_cannot_start_leaves_nothing)
{
    EKO_THRPOOL* untouched = nullptr;
    for (const int before : {0, 1, 5}) {
        startsLeft = before;
        EXPECT_EQ(eko_thrpoolCreate(6, &untouched), 1002) << before;
    }
    startsLeft = -1;
    pthread_attr_t attr; // as in a process whose default stack cannot be had
    pthread_getattr_default_np(&attr);
    size_t usual = 0;
    pthread_attr_getstacksize(&attr, &usual);
    pthread_attr_setstacksize(&attr, (SIZE_MAX / 8 * 7) & ~size_t{65535});
    EXPECT_EQ(pthread_setattr_default_np(&attr), 0);
    EXPECT_EQ(eko_thrpoolCreate(2, &untouched), 1002);
    pthread_attr_setstacksize(&attr, usual);
    pthread_setattr_default_np(&attr);
    const NoMoreMemory exhausted;
    EXPECT_TRUE(
        matches(logged([&] { EXPECT_EQ(eko_thrpoolCreate(2, &untouched), 1003); }), "Out of memory[^\n]*\n"));
    EXPECT_TRUE(!untouched && !jobQueue());
}

TEST_F(PoolTest, pool_without_memory_goes_on_and_ends)
{
    EKO_THRPOOL* pool = create(2);
    Gate gate;
    for (int i = 0; i < 2; ++i)
        waitUntil(gate.addTo(pool), JOB_STARTED);
    for (int i = 0; i < 10; ++i)
        gate.addTo(pool); // they use up all spare records
    EKO_QUEUE* queue = jobQueue();
    EKO_THRPOOL_JOB* none = nullptr;
    static auto* fault = new FailNthOnTag(queue->mtag, 1, FailNthAlloc::ALL_FROM_THERE); // the tag goes first
    EXPECT_TRUE(isOneReport(
        logged([&] { EXPECT_EQ(eko_thrpoolAddJob(pool, waitFor, nullptr, nullptr, nullptr, &none), 1003); }),
        "ekothrpool.cpp"));
    EXPECT_EQ(none, nullptr);
    std::thread destroying([&] { eko_thrpoolDestroy(pool); });
    eko_sleep(50); // it finds no record for the messages that end the workers, until jobs are taken
    gate.open();
    destroying.join();
    EXPECT_TRUE(fault && FailNthOnTag::fired());
}

TEST_F(PoolTest, pool_worker_asserts_that_it_can_read)
{
    EXPECT_DEATH((create(1), eko_queueClose(jobQueue()), eko_sleep(10000)), "assertion failed: status == EKO_OK");
}

// ---- many jobs --------------------------------------------------------------------------------------------

constexpr uint32 JOBS = 100000;

struct Chain {
    EKO_THRPOOL* pool;
    std::atomic<uint32> wanted, added, run, ended;
};

int32 runLink(void* chain)
{
    return static_cast<int32>(static_cast<Chain*>(chain)->run++);
}

void addLink(Chain* chain);

// Each callback adds a job or two, until there are enough.
void addNext(EKO_THRPOOL_JOB* job, void* data, int32 rc)
{
    auto* chain = static_cast<Chain*>(data);
    EXPECT_EQ(eko_thrpoolJobDelete(job), 0);
    for (int32 i = 0; i <= rc % 2 && chain->wanted++ < JOBS; ++i)
        addLink(chain);
    ++chain->ended;
}

void addLink(Chain* chain)
{
    EXPECT_EQ(eko_thrpoolAddJob(chain->pool, runLink, chain, addNext, chain, nullptr), 0);
    ++chain->added;
}

TEST_F(PoolTest, pool_runs_all_jobs_and_what_they_add)
{
    for (const uint32 workers : {1u, 2u, 8u, 64u}) {
        Chain chain = {create(workers), 100, 0, 0, 0};
        for (int i = 0; i < 100; ++i)
            addLink(&chain);
        while (chain.added < JOBS)
            eko_sleep(1);
        eko_thrpoolDestroy(chain.pool);
        EXPECT_EQ(chain.run, JOBS);
        EXPECT_EQ(chain.ended, JOBS);
    }
}

} // namespace
