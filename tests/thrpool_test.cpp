// SPDX-License-Identifier: MIT
// Thread pool: the life of jobs, draining, what happens when something cannot be had, and many jobs.
// LINK: --wrap=pthread_create --wrap=sysconf
#include <new>

#include "ekoqueue_int.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/syscalls.h"

struct PoolRecord { // how it begins
    uint32 numThreads, maxThreads;
    EKO_QUEUE* queue;
    EKO_MEMTAG tag;
};

static enum { NONE, OF_POOL, OF_QUEUE } exhausted; // the tag that has no memory once a worker is started
static long processors;                            // pretended to be online; 0 for the true number

// All requests on a tag fail until it is destroyed. The fault never ends: it would write to the tag.
static void exhaustForGood(EKO_MEMTAG tag)
{
    alignas(FailNthOnTag) static char fault[sizeof(FailNthOnTag)];
    new (fault) FailNthOnTag(tag, 1, FailNthAlloc::ALL_FROM_THERE);
}

EKO_WRAP(int, pthread_create, (pthread_t * tid, const pthread_attr_t* attr, void* (*fcn)(void*), void* worker))
{
    const PoolRecord* pool = static_cast<PoolRecord**>(worker)[1];
    if (exhausted)
        exhaustForGood(exhausted == OF_POOL ? pool->tag : pool->queue->mtag);
    return callFails("pthread_create") ? EAGAIN : __real_pthread_create(tid, attr, fcn, worker);
}

EKO_ANSWER(long, sysconf, (int name),
           name == _SC_NPROCESSORS_ONLN && processors ? processors : __real_sysconf(name))

static EKO_SEM gate; // an event that jobs wait for, reset at first

struct PoolTest : EkoTest {
    void SetUp() override
    {
        EkoTest::SetUp(), eko_queueFind(""), acceptUsage(), gate = EKO_EVENT_CREATE(), reset();
    }
    void TearDown() override { eko_syncDelete(gate), EkoTest::TearDown(); }
    static void reset() { eko_syncStart(gate); }
};

static EKO_THRPOOL* create(uint32 workers)
{
    EKO_THRPOOL* pool = nullptr;
    EXPECT_EQ(eko_thrpoolCreate(workers, &pool), 0);
    return pool;
}

static int32 waitAtGate(void*)
{
    return eko_syncWait(gate, EKO_FOREVER) + 77;
}

static EKO_THRPOOL_JOB* add(EKO_THRPOOL* pool, int32 status = 0, EKO_THRPOOL_CALLBACK_FCN callback = nullptr,
                            void* cbdata = nullptr)
{
    auto* job = reinterpret_cast<EKO_THRPOOL_JOB*>(pool); // anything but null
    EXPECT_EQ(eko_thrpoolAddJob(pool, waitAtGate, nullptr, callback, cbdata, &job), status);
    EXPECT_EQ(!job, status != 0);
    return job;
}

static EKO_THRPOOL_JOB* waitUntil(EKO_THRPOOL_JOB* job, EKO_THRPOOL_JOB_STATUS wanted)
{
    EKO_THRPOOL_JOB_STATUS status;
    until([&] { return eko_thrpoolJobStatus(job, &status) != 0 || status == wanted; });
    return job;
}

// To all questions about a job, which without a place for the answer are refused.
static std::string answers(const EKO_THRPOOL_JOB* job, bool place = true)
{
    EKO_THRPOOL_JOB_STATUS status = JOB_WAITING;
    uint64 nsecs;
    int32 rc;
    std::ostringstream text;
    text << eko_thrpoolJobStatus(job, place ? &status : nullptr) << ':' << status;
    text << ' ' << eko_thrpoolJobWaitTime(job, place ? &nsecs : nullptr);
    text << ' ' << eko_thrpoolJobExecTime(job, place ? &nsecs : nullptr);
    text << ' ' << eko_thrpoolJobResult(job, place ? &rc : nullptr) << ' ' << eko_thrpoolJobDelete(job);
    return text.str();
}

// A callback that outlives its job's deletion by the owner.
static void useDeletedJob(EKO_THRPOOL_JOB* job, void* deleted, int32 rc)
{
    until([=] { return static_cast<std::atomic<bool>*>(deleted)->load(); });
    int32 kept = 0;
    EXPECT_TRUE(eko_thrpoolJobResult(job, &kept) == 0 && kept == 77 && rc == 77);
}

TEST_F(PoolTest, pool_job_goes_through_its_states)
{
    EXPECT_DEATH((create(1), eko_queueClose(eko_queueFind("thread pool queue")), eko_sleep(10000)),
                 "assertion failed: status == EKO_OK"); // a worker cannot read
    EKO_THRPOOL* pool = create(1);
    std::atomic<bool> deleted = false;
    EKO_THRPOOL_JOB* first = waitUntil(add(pool, 0, useDeletedJob, &deleted), JOB_STARTED);
    EXPECT_EQ(answers(first), "0:1 0 1015 1015 1015");
    EKO_QUEUE* queue = reinterpret_cast<PoolRecord*>(pool)->queue;
    eko_queueClose(queue);
    add(pool, 3);
    queue->status = 0; // before the worker reads
    EXPECT_EQ(eko_thrpoolAddJob(pool, nullptr, nullptr, nullptr, nullptr, nullptr), 1013);
    EXPECT_EQ(eko_thrpoolAddJob(nullptr, waitAtGate, nullptr, nullptr, nullptr, nullptr), 1013);
    EXPECT_EQ(eko_thrpoolJobsLeft(pool), 1);
    EKO_THRPOOL_JOB* second = add(pool);
    EXPECT_EQ(answers(second), "0:0 1015 1015 1015 1015");
    eko_syncResume(gate);
    EXPECT_EQ(answers(waitUntil(first, JOB_FINISHED)), "0:2 0 0 0 0");
    deleted = true;
    EXPECT_EQ(answers(first, false) + ' ' + answers(nullptr), "1013:0 1013 1013 1013 0 1013:0 1013 1013 1013 1013");
    waitUntil(second, JOB_FINISHED);
    until([=] { return eko_thrpoolJobsLeft(pool) == 0; });
    eko_thrpoolDestroy(pool);
    eko_thrpoolDestroy(nullptr);
}

TEST_F(PoolTest, pool_exec_time_is_the_wait_time)
{
    EKO_THRPOOL* pool = create(1);
    EKO_THRPOOL_JOB* first = waitUntil(add(pool), JOB_STARTED); // runs 50 ms, for which the second waits
    EKO_THRPOOL_JOB* second = add(pool);
    eko_sleep(50);
    eko_syncResume(gate);
    waitUntil(second, JOB_FINISHED);
    uint64 waited, told;
    EXPECT_EQ(eko_thrpoolJobWaitTime(second, &waited) + eko_thrpoolJobExecTime(second, &told), 0);
    uint64 ran; // the record's last field, which no call tells
    memcpy(&ran, reinterpret_cast<char*>(first) + 5 * sizeof(void*) + 2 * sizeof(int32) + sizeof(uint64),
           sizeof(ran));
    EXPECT_TRUE(told == waited && waited - 49000000 < 600000000000 && ran - 49000000 < 600000000000) << waited;
    eko_thrpoolDestroy(pool);
}

TEST_F(PoolTest, pool_jobs_left_counts_all_workers)
{
    for (const auto& [online, workers] : {std::pair(1l, 2), std::pair(3l, 3)}) {
        processors = online;
        EKO_THRPOOL* pool = create(0);
        EXPECT_EQ(eko_thrpoolJobsLeft(pool) + eko_thrpoolJobsLeft(nullptr), 0);
        for (int i = 0; i < workers; ++i)
            waitUntil(add(pool), JOB_STARTED);
        for (int i = 0; i <= 3; add(pool), ++i)
            EXPECT_EQ(eko_thrpoolJobsLeft(pool), workers + i);
        eko_syncResume(gate);
        eko_thrpoolDestroy(pool);
        reset();
    }
}

TEST_F(PoolTest, pool_that_cannot_start_leaves_nothing)
{
    EKO_THRPOOL* untouched = nullptr;
    const auto status = [&] { return eko_thrpoolCreate(6, &untouched); };
    for (uint32 made = 0; made < 6 + 4; ++made) { // workers, or the tag's mutex and the queue's three
        const CallFault fault(made < 6 ? "pthread_create" : "eko_syncCreate_check", EAGAIN, 0, made % 6);
        EXPECT_EQ(status(), made < 6 ? 1002 : 1003) << made;
    }
    for (const auto tag : {OF_POOL, OF_QUEUE}) { // the one worker that there is ends without more memory
        exhausted = tag;
        EXPECT_TRUE(isOneReport(logged([&] { EXPECT_EQ(status(), 1003); }), "ekothrpool.cpp"));
    }
    EXPECT_EQ(eko_queueFind("thread pool queue"), nullptr);
    EXPECT_TRUE(!untouched && eko_thrpoolCreate(1, nullptr) == 1013);
}

TEST_F(PoolTest, pool_without_memory_goes_on_and_ends)
{
    EKO_THRPOOL* pool = create(2);
    for (int i = 0; i < 2; ++i)
        waitUntil(add(pool), JOB_STARTED);
    for (int i = 0; i < 10; ++i)
        add(pool); // they use up all spare records
    const auto addInVain = [=] { return isOneReport(logged([=] { add(pool, 1003); }), "ekothrpool.cpp"); };
    {
        const FailNthOnTag fault(reinterpret_cast<PoolRecord*>(pool)->tag, 1);
        EXPECT_TRUE(addInVain());
    }
    exhaustForGood(reinterpret_cast<PoolRecord*>(pool)->queue->mtag);
    EXPECT_TRUE(addInVain());
    EXPECT_EQ(eko_thrpoolJobsLeft(pool), 12);
    std::thread destroying(eko_thrpoolDestroy, pool);
    eko_sleep(50); // it finds no record for the messages that end the workers, until jobs are taken
    eko_syncResume(gate);
    destroying.join();
}

constexpr uint32 JOBS = 100000;
static std::atomic<uint32> wanted, added, run, ended;

static int32 runLink(void* counter)
{
    return static_cast<int32>((*static_cast<std::atomic<uint32>*>(counter))++);
}

// Each callback adds a job or two, until there are enough.
static void addNext(EKO_THRPOOL_JOB* job, void* data, int32 rc)
{
    EXPECT_EQ(eko_thrpoolJobDelete(job), 0);
    auto* pool = static_cast<EKO_THRPOOL*>(data);
    for (int32 i = 0; i <= rc % 2 && wanted++ < JOBS; ++i, ++added)
        EXPECT_EQ(eko_thrpoolAddJob(pool, runLink, &run, addNext, pool, nullptr), 0);
    ++ended;
}

TEST_F(PoolTest, pool_runs_all_jobs_and_what_they_add)
{
    for (const uint32 workers : {1u, 2u, 8u, 64u}) {
        EKO_THRPOOL* pool = create(workers);
        run = ended = 0, added = wanted = 100;
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(eko_thrpoolAddJob(pool, runLink, &run, addNext, pool, nullptr), 0);
        until([] { return added >= JOBS; });
        eko_thrpoolDestroy(pool);
        EXPECT_TRUE(run == JOBS && ended == JOBS) << run << ' ' << ended;
    }
}
