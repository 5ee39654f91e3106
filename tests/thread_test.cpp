// SPDX-License-Identifier: MIT
// Threads, thread-local storage, atomics, clocks. The creation of a thread is watched, its scheduling is replaced.
// LINK: --wrap=pthread_getschedparam --wrap=pthread_setschedparam --wrap=sched_get_priority_min
// LINK: --wrap=sched_get_priority_max --wrap=pthread_create
#include <signal.h>
#include <unistd.h>

#include "ekomem_int.h"
#include "support/fixture.h"

static struct {
    int refusal, detached;
    size_t stack;
    sigset_t blocked;
} creation;
static struct {
    int min, max, readsLeft, setResult, set; // readsLeft: of the scheduling, before one fails
} scheduler;

EKO_WRAP(int, pthread_create, (pthread_t * tid, const pthread_attr_t* attr, void* (*fcn)(void*), void* arg))
{
    pthread_attr_getdetachstate(attr, &creation.detached);
    pthread_attr_getstacksize(attr, &creation.stack);
    pthread_sigmask(SIG_SETMASK, nullptr, &creation.blocked);
    return creation.refusal ? creation.refusal : __real_pthread_create(tid, attr, fcn, arg);
}

EKO_ANSWER(int, sched_get_priority_min, (int), scheduler.min)
EKO_ANSWER(int, sched_get_priority_max, (int policy), policy == SCHED_RR ? scheduler.max : -9)
EKO_ANSWER(int, pthread_getschedparam, (pthread_t, int* policy, sched_param*),
           (*policy = SCHED_RR, scheduler.readsLeft--) ? 0 : 1)
EKO_ANSWER(int, pthread_setschedparam, (pthread_t, int, const sched_param* param),
           (scheduler.set = param->sched_priority, scheduler.setResult))

using ThreadTest = EkoTest;

TEST_F(ThreadTest, thread_begins_with_signals_blocked)
{
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, SIGUSR1);
    sigaddset(&own, SIGTERM);
    pthread_sigmask(SIG_SETMASK, &own, nullptr);
    const EKO_THREAD_FCN note = [](void* id) {
        if (id)
            *static_cast<pthread_t*>(id) = eko_threadId();
        return -1;
    };
    pthread_t tid, noted = {};
    for (const uint32 stack : {0u, 1u, 1u << 20}) { // the second is too small: the default
        ASSERT_EQ(eko_threadBeginEx(note, stack, nullptr, nullptr, 1, "name"), 0);
        EXPECT_EQ(creation.detached, PTHREAD_CREATE_DETACHED);
        ASSERT_EQ(eko_threadBeginEx(note, stack, &noted, &tid, 0, nullptr), 0);
        EXPECT_EQ(creation.detached, PTHREAD_CREATE_JOINABLE);
        EXPECT_EQ(eko_threadJoin(tid), 0);
        EXPECT_TRUE(pthread_equal(noted, tid));
        EXPECT_TRUE(stack > 1 ? creation.stack == stack : creation.stack != stack);
    }
    creation.refusal = EAGAIN;
    EXPECT_EQ(eko_threadBeginEx(note, 0, &noted, &tid, 0, nullptr), 1002);
    pthread_sigmask(SIG_SETMASK, nullptr, &own);
    for (const int sig : {SIGUSR1, SIGTERM, SIGINT, SIGCHLD, SIGHUP}) {
        EXPECT_EQ(sigismember(&creation.blocked, sig), sig != SIGHUP); // inherited by the new one
        EXPECT_EQ(sigismember(&own, sig), sig == SIGUSR1 || sig == SIGTERM);
    }
    creation.refusal = 0;
}

static int32 useTag(void* ends)
{
    EXPECT_NE(EKO_ALLOC(100, EKO_THREAD_TAG), nullptr);
    if (ends)
        [] { eko_threadEnd(-1); }();
    return 0;
}

TEST_F(ThreadTest, thread_end_gives_its_tag_back)
{
    const int32 before = memTagsAlive();
    for (int kept = 0; kept < 2; ++kept) { // by one that returns, until the library stops
        pthread_t tid;
        ASSERT_EQ(eko_threadBeginEx(useTag, 0, kept ? nullptr : &tid, &tid, 0, nullptr), 0);
        EXPECT_EQ(eko_threadJoin(tid), 0);
        EXPECT_EQ(memTagsAlive(), before + kept);
    }
    acceptUsage();
}

TEST(Thread, thread_priorities_divide_the_range)
{
    const int cases[][7] = {{1, 99, 3, 0, EKO_PRIORITY_LOW, 0, 25},
                            {1, 99, 3, 0, EKO_PRIORITY_NORMAL, 0, 50},
                            {-10, 5, 3, 0, EKO_PRIORITY_HIGH, 0, 1},
                            {-10, 5, 3, EPERM, EKO_PRIORITY_LOW, 1002, -6},
                            {1, 99, 3, 0, 2, 1002, -7},
                            {1, 99, 0, 0, 0, -1, -7},
                            {1, 99, 1, 0, 0, -1, -7},
                            {-1, 99, 3, 0, 0, 1002, -7},
                            {1, -1, 3, 0, 0, 1002, -7}};
    for (const auto& [min, max, readsLeft, setResult, level, status, set] : cases) {
        scheduler = {min, max, readsLeft, setResult, -7};
        EXPECT_EQ(eko_threadSetPriority(eko_threadId(), level), status) << min << ' ' << level;
        EXPECT_EQ(scheduler.set, set) << min << ' ' << level;
    }
}

TEST(Thread, thread_local_values)
{
    pthread_key_t key;
    std::vector<pthread_key_t> keys;
    while (eko_tlsCreateKey(&key) == 0)
        keys.push_back(key);
    void *value = nullptr, *set = &key;
    EXPECT_EQ(eko_tlsCreateKey(&key), 1003);
    EXPECT_EQ(eko_tlsCreateKey(nullptr), 1013);
    EXPECT_EQ(eko_tlsGetPtr(key, nullptr), 1002);
    EXPECT_EQ(eko_tlsSetPtr(key, set) + eko_tlsGetPtr(key, &value), 0);
    EXPECT_EQ(value, set);
    for (const pthread_key_t each : keys)
        EXPECT_EQ(eko_tlsDestroyKey(each), 0);
    EXPECT_EQ(eko_tlsDestroyKey(key), 1003);
    EXPECT_EQ(eko_tlsSetPtr(key, nullptr), 1003);
}

TEST(Thread, thread_atomics)
{
    volatile uint32 v = 0;
    EXPECT_EQ(eko_atomicDecrUInt32WithVal(&v), 0xFFFFFFFFu);
    EXPECT_EQ(eko_atomicIncrUInt32WithVal(&v), 0u);
    inThreads(4, [&v](uint32) {
        for (int i = 0; i < 100000; ++i) {
            eko_atomicIncrUInt32(&v);
            eko_atomicIncrUInt32WithVal(&v);
            eko_atomicDecrUInt32(&v);
            for (uint32 old = 0; !eko_atomicSetUInt32(&v, old, old + 3);)
                old = __atomic_load_n(&v, __ATOMIC_RELAXED);
            eko_atomicDecrUInt32WithVal(&v);
        }
    });
    EXPECT_EQ(v, 1200000u);
}

TEST(Thread, thread_clocks_and_sleep_through_signals)
{
    static volatile sig_atomic_t signals;
    signal(SIGALRM, [](int) { signals = signals + 1; });
    const auto now = [] {
        timespec time;
        clock_gettime(CLOCK_REALTIME, &time);
        return static_cast<uint64>(time.tv_sec) * 1000000 + static_cast<uint64>(time.tv_nsec) / 1000;
    };
    const uint64 start = now(), micros = eko_timeNanoSecs() / 1000, millis = eko_timeMilliSecs(), end = now();
    EXPECT_TRUE(start <= micros && micros / 1000 <= millis && millis <= end / 1000);
    const auto seconds = static_cast<uint64>(eko_timeSecs()), seed = static_cast<uint64>(eko_seed());
    EXPECT_TRUE(start / 1000000 <= seconds + 1 && seconds <= seed && seed <= now() / 1000000); // they may lag
    ualarm(20000, 20000);
    eko_sleep(1100);
    ualarm(0, 0);
    EXPECT_GE(now() - end, 1100000u);
    EXPECT_GT(signals, 3);
    EXPECT_EQ(eko_getcpucount(), uint32(sysconf(_SC_NPROCESSORS_ONLN)));
}
