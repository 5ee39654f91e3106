// Threads, thread-local storage, atomics, clocks. The creation of a thread and its scheduling are replaced.
// LINK: --wrap=pthread_getschedparam --wrap=pthread_setschedparam --wrap=sched_get_priority_min
// LINK: --wrap=sched_get_priority_max --wrap=pthread_create
#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/time.h>
#include <unistd.h>

#include "ekomem_int.h"
#include "support/fixture.h"

namespace {

bool refuseThreads = false;
struct {
    int min, max, readsLeft, set, setResult;
} scheduler; // readsLeft: of a thread's scheduling, before one fails

} // namespace

EKO_WRAP(int, pthread_create, (pthread_t * tid, const pthread_attr_t* attr, void* (*fcn)(void*), void* arg))
{
    return refuseThreads ? EAGAIN : __real_pthread_create(tid, attr, fcn, arg);
}

EKO_WRAP(int, pthread_getschedparam, (pthread_t, int* policy, sched_param*))
{
    *policy = SCHED_RR;
    return scheduler.readsLeft-- == 0 ? ESRCH : 0;
}

EKO_WRAP(int, pthread_setschedparam, (pthread_t, int policy, const sched_param* param))
{
    scheduler.set = policy == SCHED_RR ? param->sched_priority : INT_MAX;
    return scheduler.setResult;
}

EKO_WRAP(int, sched_get_priority_min, (int))
{
    return scheduler.min;
}
EKO_WRAP(int, sched_get_priority_max, (int))
{
    return scheduler.max;
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

struct {
    EKO_SEM done;
    pthread_t id;
    uint32 blocked;
    int detached;
    size_t stack;
} seen;

int32 look(void*)
{
    seen.id = eko_threadId();
    seen.blocked = blockedSignals();
    pthread_attr_t attr;
    pthread_getattr_np(pthread_self(), &attr);
    pthread_attr_getdetachstate(&attr, &seen.detached);
    pthread_attr_getstacksize(&attr, &seen.stack);
    pthread_attr_destroy(&attr);
    eko_syncResume(seen.done);
    return -1;
}

TEST_F(ThreadTest, thread_begins_with_signals_blocked)
{
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, SIGUSR1);
    sigaddset(&own, SIGTERM);
    pthread_sigmask(SIG_SETMASK, &own, nullptr);
    const uint32 before = blockedSignals();
    seen.done = EKO_EVENT_CREATE();
    for (const uint32 stack : {0u, 1u, 1u << 20}) { // the second is too small: the default
        for (const bool joinable : {true, false}) {
            pthread_t tid;
            eko_syncStart(seen.done);
            ASSERT_EQ(eko_threadBeginEx(look, stack, &seen, joinable ? &tid : nullptr, 1, "name"), 0);
            EXPECT_EQ(eko_syncWait(seen.done, EKO_FOREVER), 0);
            EXPECT_EQ(seen.detached, joinable ? PTHREAD_CREATE_JOINABLE : PTHREAD_CREATE_DETACHED);
            EXPECT_TRUE(!joinable || (pthread_equal(seen.id, tid) && eko_threadJoin(tid) == 0));
            EXPECT_EQ(seen.stack == 1u << 20, stack == 1u << 20);
            EXPECT_EQ(seen.blocked, before | 1u << SIGINT | 1u << SIGTERM | 1u << SIGCHLD);
            EXPECT_EQ(blockedSignals(), before);
        }
    }
    eko_syncDelete(seen.done);

    seen.blocked = 0;
    pthread_t tid = eko_threadId();
    for (int32 started = 1; started >= -1; --started) { // not, refused; after a stop; after a stray one
        refuseThreads = started == 1;
        EXPECT_EQ(eko_threadBeginEx(look, 0, &seen, &tid, 0, nullptr), 1002);
        EXPECT_EQ(blockedSignals(), before);
        eko_term();
    }
    EXPECT_TRUE(pthread_equal(tid, eko_threadId()));
    while (eko_inited < 1)
        ASSERT_EQ(eko_init(), 0);
    EXPECT_EQ(seen.blocked, 0u);
}

int32 useTag(void* returned)
{
    EXPECT_NE(EKO_ALLOC(100, EKO_THREAD_TAG), nullptr);
    if (returned)
        [] { eko_threadEnd(-1); }();
    return 0;
}

TEST_F(ThreadTest, thread_end_gives_its_tag_back)
{
    const int32 before = memTagsAlive();
    for (const bool ends : {true, false}) { // one that returns keeps it until the library stops
        pthread_t tid;
        ASSERT_EQ(eko_threadBeginEx(useTag, 0, ends ? &tid : nullptr, &tid, 0, nullptr), 0);
        EXPECT_EQ(eko_threadJoin(tid), 0);
        EXPECT_EQ(memTagsAlive(), ends ? before : before + 1);
    }
    acceptUsage();
}

TEST_F(ThreadTest, thread_priorities_divide_the_range)
{
    const struct {
        int min, max, readsLeft, setResult, level, status, set;
    } cases[] = {
        {1, 99, 3, 0, EKO_PRIORITY_LOW, 0, 25},
        {1, 99, 3, 0, EKO_PRIORITY_NORMAL, 0, 50},
        {1, 99, 3, 0, EKO_PRIORITY_HIGH, 0, 74},
        {-10, 5, 3, 0, EKO_PRIORITY_LOW, 0, -6},
        {-10, 5, 3, 0, EKO_PRIORITY_NORMAL, 0, -2},
        {-10, 5, 3, 0, EKO_PRIORITY_HIGH, 0, 1},
        {0, 3, 3, 0, EKO_PRIORITY_HIGH, 0, 2},
        {1, 99, 3, EPERM, EKO_PRIORITY_HIGH, 1002, 74},
        {1, 99, 3, 0, 2, 1002, -7},
        {1, 99, 3, 0, INT_MIN, 1002, -7},
        {1, 99, 0, 0, 0, -1, -7},
        {1, 99, 1, 0, 0, -1, -7},
        {1, 99, 2, 0, 0, -1, -7},
        {-1, 99, 3, 0, 0, 1002, -7},
        {1, -1, 3, 0, 0, 1002, -7},
    };
    for (const auto& c : cases) {
        scheduler = {c.min, c.max, c.readsLeft, -7, c.setResult};
        EXPECT_EQ(eko_threadSetPriority(eko_threadId(), c.level), c.status) << &c - cases;
        EXPECT_EQ(scheduler.set, c.set) << &c - cases;
    }
}

TEST(Thread, thread_local_values)
{
    pthread_key_t key;
    EXPECT_EQ(eko_tlsCreateKey(nullptr), 1013);
    std::vector<pthread_key_t> keys;
    while (eko_tlsCreateKey(&key) == 0)
        keys.push_back(key);
    EXPECT_EQ(eko_tlsCreateKey(&key), 1003);
    ASSERT_EQ(key, keys.back());
    EXPECT_EQ(eko_tlsGetPtr(key, nullptr), 1002);
    inThreads(2, [key](uint32) {
        void* value = &value;
        EXPECT_EQ(eko_tlsGetPtr(key, &value), 0);
        EXPECT_EQ(value, nullptr);
        EXPECT_EQ(eko_tlsSetPtr(key, &value), 0); // no destructor looks at it
        EXPECT_EQ(eko_tlsGetPtr(key, &value), 0);
        EXPECT_EQ(value, &value);
    });
    for (const pthread_key_t each : keys)
        EXPECT_EQ(eko_tlsDestroyKey(each), 0);
    EXPECT_EQ(eko_tlsDestroyKey(key), 1003);
    EXPECT_EQ(eko_tlsSetPtr(key, nullptr), 1003);
}

TEST(Thread, thread_atomics)
{
    volatile uint32 v = 6;
    EXPECT_EQ(eko_atomicSetUInt32(&v, 5, 7), 0u);
    EXPECT_EQ(eko_atomicSetUInt32(&v, 6, 0), 1u);
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

uint64 nanosOf(clockid_t clock)
{
    timespec now;
    clock_gettime(clock, &now);
    return static_cast<uint64>(now.tv_sec) * 1000000000 + static_cast<uint64>(now.tv_nsec);
}

TEST(Thread, thread_clocks)
{
    const uint64 before = nanosOf(CLOCK_REALTIME) / 1000;
    const uint64 nanos = eko_timeNanoSecs(), millis = eko_timeMilliSecs();
    const uint64 seconds = static_cast<uint64>(eko_timeSecs()), seed = static_cast<uint64>(eko_seed());
    const uint64 after = nanosOf(CLOCK_REALTIME) / 1000;
    EXPECT_TRUE(before * 1000 <= nanos && nanos <= after * 1000);
    EXPECT_TRUE(before / 1000 <= millis && millis <= after / 1000);
    for (const uint64 coarse : {seconds, seed}) // may lag a little
        EXPECT_TRUE(before - 100000 <= (coarse + 1) * 1000000 && coarse * 1000000 <= after);
    EXPECT_EQ(eko_getcpucount(), uint32(sysconf(_SC_NPROCESSORS_ONLN)));
}

TEST(Thread, thread_local_time)
{
    setenv("TZ", "XYZ-1:30", 1);
    tzset();
    char text[100];
    struct tm tm = {};
    for (const time64_t time : {time64_t(86399), (time64_t(1) << 32) + 86399}) {
        EXPECT_EQ(eko_timeLocaltime(time, &tm), &tm);
        strftime(text, sizeof(text), "%F %T", &tm);
        EXPECT_STREQ(text, time > 86399 && sizeof(time_t) == 8 ? "2106-02-08 07:58:15" : "1970-01-02 01:29:59");
    }
    EXPECT_EQ(eko_timeLocaltime(INT64_MAX, &tm), sizeof(time_t) == 8 ? nullptr : &tm); // narrowed
}

TEST(Thread, thread_sleeps_through_signals)
{
    static volatile sig_atomic_t signals;
    signal(SIGALRM, [](int) { signals = signals + 1; });
    const itimerval each20ms = {{0, 20000}, {0, 20000}}, never = {};
    const uint64 start = nanosOf(CLOCK_MONOTONIC);
    setitimer(ITIMER_REAL, &each20ms, nullptr);
    eko_sleep(1100);
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_GE(nanosOf(CLOCK_MONOTONIC) - start, 1100000000u);
    EXPECT_GT(signals, 3);
}

} // namespace
