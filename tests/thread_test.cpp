// Threads, thread-local storage, atomics, clocks.
//
// Scheduling, the clock and the creation of a thread are replaced where a test says so.
// LINK: --wrap=pthread_getschedparam --wrap=pthread_setschedparam --wrap=sched_get_priority_min
// LINK: --wrap=sched_get_priority_max --wrap=gettimeofday --wrap=pthread_create
#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/time.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "ekomem_int.h"
#include "support/fixture.h"

namespace {

struct {
    bool pretended;
    int min, max;
    uint32 readsLeft; // of a thread's scheduling, before one fails
    int set;          // the priority that was set
    int setResult;
} scheduler;

timeval* pretendedNow = nullptr; // null: the real clock
bool refuseThreads = false;

} // namespace

EKO_WRAP(int, pthread_getschedparam, (pthread_t tid, int* policy, sched_param* param))
{
    if (!scheduler.pretended)
        return __real_pthread_getschedparam(tid, policy, param);
    *policy = SCHED_RR;
    param->sched_priority = 1;
    return scheduler.readsLeft-- == 0 ? ESRCH : 0;
}

EKO_WRAP(int, pthread_setschedparam, (pthread_t tid, int policy, const sched_param* param))
{
    if (!scheduler.pretended)
        return __real_pthread_setschedparam(tid, policy, param);
    EXPECT_EQ(policy, SCHED_RR);
    scheduler.set = param->sched_priority;
    return scheduler.setResult;
}

EKO_WRAP(int, sched_get_priority_min, (int policy))
{
    return scheduler.pretended ? scheduler.min : __real_sched_get_priority_min(policy);
}

EKO_WRAP(int, sched_get_priority_max, (int policy))
{
    return scheduler.pretended ? scheduler.max : __real_sched_get_priority_max(policy);
}

EKO_WRAP(int, gettimeofday, (timeval * now, void* zone))
{
    if (!pretendedNow)
        return __real_gettimeofday(now, zone);
    *now = *pretendedNow;
    return 0;
}

EKO_WRAP(int, pthread_create, (pthread_t * tid, const pthread_attr_t* attr, void* (*fcn)(void*), void* arg))
{
    return refuseThreads ? EAGAIN : __real_pthread_create(tid, attr, fcn, arg);
}

namespace {

using ThreadTest = EkoTest;

// The signals of 1..31 that the calling thread blocks, a bit each.
uint32 blockedSignals()
{
    sigset_t set;
    pthread_sigmask(SIG_SETMASK, nullptr, &set);
    uint32 bits = 0;
    for (int sig = 1; sig < 32; ++sig)
        bits |= sigismember(&set, sig) == 1 ? 1u << sig : 0;
    return bits;
}

constexpr uint32 INTERRUPT_TERMINATE_CHILD = 1u << 2 | 1u << 15 | 1u << 17;

struct Seen {
    EKO_SEM done;
    pthread_t id;
    uint32 blocked;
    int detached;
    size_t stack;
};

int32 look(void* arg)
{
    Seen* seen = static_cast<Seen*>(arg);
    seen->id = eko_threadId();
    seen->blocked = blockedSignals();
    pthread_attr_t attr;
    pthread_getattr_np(pthread_self(), &attr);
    pthread_attr_getdetachstate(&attr, &seen->detached);
    pthread_attr_getstacksize(&attr, &seen->stack);
    pthread_attr_destroy(&attr);
    eko_syncResume(seen->done);
    return -1;
}

TEST_F(ThreadTest, thread_joinable_with_signals_blocked)
{
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, SIGUSR1);
    sigaddset(&own, SIGTERM);
    pthread_sigmask(SIG_SETMASK, &own, nullptr);
    const uint32 before = blockedSignals();
    Seen seen = {};
    pthread_t tid;
    ASSERT_EQ(eko_threadBeginEx(look, 1 << 20, &seen, &tid, 1, "name"), 0);
    EXPECT_EQ(blockedSignals(), before);
    EXPECT_EQ(eko_threadJoin(tid), 0);
    EXPECT_TRUE(pthread_equal(seen.id, tid));
    EXPECT_FALSE(pthread_equal(seen.id, eko_threadId()));
    EXPECT_EQ(seen.blocked, before | INTERRUPT_TERMINATE_CHILD);
    EXPECT_EQ(seen.detached, PTHREAD_CREATE_JOINABLE);
    EXPECT_EQ(seen.stack, size_t(1 << 20));
    ASSERT_EQ(eko_threadBeginEx(look, 1, &seen, &tid, 0, nullptr), 0); // too small: the default
    EXPECT_EQ(eko_threadJoin(tid), 0);
    EXPECT_GT(seen.stack, size_t(1 << 14));
}

TEST_F(ThreadTest, thread_without_an_identifier_is_detached)
{
    static Seen seen; // the thread may be in its last steps when the test ends
    seen.done = EKO_EVENT_CREATE();
    eko_syncStart(seen.done);
    ASSERT_EQ(eko_threadBeginEx(look, 0, &seen, nullptr, 0, nullptr), 0);
    EXPECT_EQ(eko_syncWait(seen.done, EKO_FOREVER), 0);
    EXPECT_EQ(seen.detached, PTHREAD_CREATE_DETACHED);
    EXPECT_EQ(seen.blocked & INTERRUPT_TERMINATE_CHILD, INTERRUPT_TERMINATE_CHILD);
    eko_syncDelete(seen.done);
}

TEST_F(ThreadTest, thread_that_cannot_be_made)
{
    const pthread_t self = eko_threadId();
    pthread_t tid = self;
    Seen seen = {};
    const uint32 before = blockedSignals();
    refuseThreads = true;
    EXPECT_EQ(eko_threadBeginEx(look, 0, &seen, &tid, 0, nullptr), 1002);
    refuseThreads = false;
    EXPECT_EQ(blockedSignals(), before);
    EXPECT_EQ(tid, self);
    eko_term();
    EXPECT_EQ(eko_threadBeginEx(look, 0, &seen, &tid, 0, nullptr), 1002); // before a start
    eko_term();
    EXPECT_EQ(eko_threadBeginEx(look, 0, &seen, &tid, 0, nullptr), 1002); // after a stray stop
    ASSERT_EQ(eko_init(), 0);
    ASSERT_EQ(eko_init(), 0);
    EXPECT_EQ(seen.blocked, 0u);
    acceptUsage();
}

int32 useTag(void* arg)
{
    EXPECT_NE(EKO_ALLOC(100, EKO_THREAD_TAG), nullptr);
    if (!arg)
        return 0;
    [] { eko_threadEnd(-1); }();
    *static_cast<bool*>(arg) = true;
    return 0;
}

TEST_F(ThreadTest, thread_end_gives_its_tag_back)
{
    const int32 before = memTagsAlive();
    bool returned = false;
    pthread_t tid;
    ASSERT_EQ(eko_threadBeginEx(useTag, 0, &returned, &tid, 0, nullptr), 0);
    EXPECT_EQ(eko_threadJoin(tid), 0);
    EXPECT_FALSE(returned);
    EXPECT_EQ(memTagsAlive(), before);
    ASSERT_EQ(eko_threadBeginEx(useTag, 0, nullptr, &tid, 0, nullptr), 0);
    EXPECT_EQ(eko_threadJoin(tid), 0);
    EXPECT_EQ(memTagsAlive(), before + 1); // one that returns keeps it until the library stops
    acceptUsage();
}

TEST_F(ThreadTest, thread_priorities_divide_the_range)
{
    const struct {
        int min, max, low, normal, high;
    } cases[] = {{1, 99, 25, 50, 74}, {0, 0, 0, 0, 0}, {-10, 5, -6, -2, 1}, {0, 3, 0, 1, 2}};
    scheduler.pretended = true;
    const auto set = [](int32 priority, uint32 reads = 3) {
        scheduler.readsLeft = reads;
        return eko_threadSetPriority(eko_threadId(), priority);
    };
    for (const auto& c : cases) {
        scheduler.min = c.min;
        scheduler.max = c.max;
        EXPECT_EQ(set(EKO_PRIORITY_LOW), 0);
        EXPECT_EQ(scheduler.set, c.low);
        EXPECT_EQ(set(EKO_PRIORITY_NORMAL), 0);
        EXPECT_EQ(scheduler.set, c.normal);
        EXPECT_EQ(set(EKO_PRIORITY_HIGH), 0);
        EXPECT_EQ(scheduler.set, c.high);
    }
    scheduler.set = -7;
    for (const int32 level : {2, -2, INT_MAX, INT_MIN})
        EXPECT_EQ(set(level), 1002);
    for (uint32 reads = 0; reads < 3; ++reads)
        EXPECT_EQ(set(0, reads), -1);
    scheduler.max = -1;
    EXPECT_EQ(set(0), 1002);
    scheduler.min = -1;
    scheduler.max = 99;
    EXPECT_EQ(set(0), 1002);
    EXPECT_EQ(scheduler.set, -7); // none of these got as far
    scheduler.min = 1;
    scheduler.setResult = EPERM;
    EXPECT_EQ(set(1), 1002);
    scheduler.pretended = false;
}

TEST(Thread, thread_local_values)
{
    pthread_key_t key;
    void* value = &key;
    EXPECT_EQ(eko_tlsCreateKey(nullptr), 1013);
    ASSERT_EQ(eko_tlsCreateKey(&key), 0);
    EXPECT_EQ(eko_tlsGetPtr(key, &value), 0);
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(eko_tlsGetPtr(key, nullptr), 1002);
    EXPECT_EQ(eko_tlsSetPtr(key, &key), 0);
    std::thread([key] {
        void* other = &other;
        EXPECT_EQ(eko_tlsGetPtr(key, &other), 0);
        EXPECT_EQ(other, nullptr);
        EXPECT_EQ(eko_tlsSetPtr(key, &other), 0); // no destructor looks at it
    }).join();
    EXPECT_EQ(eko_tlsGetPtr(key, &value), 0);
    EXPECT_EQ(value, &key);
    EXPECT_EQ(eko_tlsDestroyKey(key), 0);
    EXPECT_EQ(eko_tlsDestroyKey(key), 1003);
    EXPECT_EQ(eko_tlsSetPtr(key, nullptr), 1003);

    std::vector<pthread_key_t> keys;
    while (eko_tlsCreateKey(&key) == 0)
        keys.push_back(key);
    EXPECT_EQ(eko_tlsCreateKey(&key), 1003);
    EXPECT_EQ(key, keys.back());
    for (const pthread_key_t each : keys)
        EXPECT_EQ(eko_tlsDestroyKey(each), 0);
}

TEST(Thread, thread_atomics)
{
    volatile uint32 v = 6;
    EXPECT_EQ(eko_atomicSetUInt32(&v, 5, 7), 0u);
    EXPECT_EQ(v, 6u);
    EXPECT_EQ(eko_atomicSetUInt32(&v, 6, 0), 1u);
    EXPECT_EQ(eko_atomicDecrUInt32WithVal(&v), 0xFFFFFFFFu);
    EXPECT_EQ(eko_atomicIncrUInt32WithVal(&v), 0u);
    EXPECT_EQ(eko_atomicIncrUInt32WithVal(&v), 1u);
    inThreads(4, [&v](uint32) {
        for (int i = 0; i < 100000; ++i) {
            eko_atomicIncrUInt32(&v);
            eko_atomicIncrUInt32WithVal(&v);
            eko_atomicDecrUInt32(&v);
            while (true) {
                const uint32 old = __atomic_load_n(&v, __ATOMIC_RELAXED);
                if (eko_atomicSetUInt32(&v, old, old + 3))
                    break;
            }
        }
    });
    EXPECT_EQ(v, 1600001u);
}

TEST(Thread, thread_clocks)
{
    timeval now = {1700000000, 123456};
    pretendedNow = &now;
    EXPECT_EQ(eko_timeMilliSecs(), 1700000000123u);
    EXPECT_EQ(eko_timeNanoSecs(), 1700000000123456000u);
    pretendedNow = nullptr;
    const time_t before = time(nullptr);
    const time64_t seconds = eko_timeSecs();
    const int32 seed = eko_seed();
    const uint64 millis = eko_timeMilliSecs();
    const time_t after = time(nullptr) + 1; // the coarse clock may lag a little
    EXPECT_TRUE(before <= seconds && seconds <= after);
    EXPECT_TRUE(before <= seed && seed <= after);
    EXPECT_TRUE(uint64(before) * 1000 <= millis && millis <= uint64(after + 1) * 1000);
    EXPECT_EQ(eko_getcpucount(), uint32(sysconf(_SC_NPROCESSORS_ONLN)));
}

TEST(Thread, thread_local_time)
{
    setenv("TZ", "XYZ-1:30", 1);
    tzset();
    struct tm tm = {};
    EXPECT_EQ(eko_timeLocaltime(86399, &tm), &tm);
    EXPECT_EQ(tm.tm_mday, 2);
    EXPECT_EQ(tm.tm_hour, 1);
    EXPECT_EQ(tm.tm_min, 29);
    EXPECT_EQ(tm.tm_sec, 59);
    EXPECT_EQ(eko_timeLocaltime(-5400, &tm), &tm);
    EXPECT_EQ(tm.tm_mday, 1);
    EXPECT_EQ(tm.tm_hour, 0);
    if (sizeof(time_t) == 8) {
        EXPECT_EQ(eko_timeLocaltime(INT64_MAX, &tm), nullptr);
    } else {
        EXPECT_EQ(eko_timeLocaltime((1ll << 32) + 86400, &tm), &tm); // narrowed
        EXPECT_EQ(tm.tm_mday, 2);
        EXPECT_EQ(tm.tm_year, 70);
    }
}

TEST(Thread, thread_sleeps_through_signals)
{
    static volatile sig_atomic_t signals;
    struct sigaction action = {};
    action.sa_handler = [](int) { signals = signals + 1; };
    sigaction(SIGALRM, &action, nullptr);
    const itimerval each20ms = {{0, 20000}, {0, 20000}};
    const itimerval never = {};
    timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    setitimer(ITIMER_REAL, &each20ms, nullptr);
    eko_sleep(1100);
    setitimer(ITIMER_REAL, &never, nullptr);
    clock_gettime(CLOCK_MONOTONIC, &end);
    EXPECT_GE((end.tv_sec - start.tv_sec) * 1000 + (end.tv_nsec - start.tv_nsec) / 1000000, 1100);
    EXPECT_GT(signals, 3);
}

} // namespace
