// The semaphore table: slots, mutexes, events, and what is done with broken handles.
//
// The clock and the timed wait of the system are replaced where a test says so.
// LINK: --wrap=gettimeofday --wrap=pthread_cond_timedwait --wrap=malloc --wrap=calloc --wrap=realloc
#include <errno.h>
#include <stdlib.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "ekotext_int.h"
#include "support/faults.h"
#include "support/fixture.h"

namespace {

constexpr char BAD_MUTEX[] = "Invalid mutex\n";
constexpr char BAD_EVENT[] = "Invalid event\n";

timeval* pretendedNow = nullptr; // null: the real clock
struct {
    std::vector<int> answers; // what the timed wait returns, the last one again and again; none: the real one
    std::vector<timespec> deadlines;
} waits;

} // namespace

EKO_WRAP(int, gettimeofday, (timeval * now, void* zone))
{
    if (!pretendedNow)
        return __real_gettimeofday(now, zone);
    *now = *pretendedNow;
    return 0;
}

EKO_WRAP(int, pthread_cond_timedwait, (pthread_cond_t * c, pthread_mutex_t* m, const timespec* deadline))
{
    if (waits.answers.empty())
        return __real_pthread_cond_timedwait(c, m, deadline);
    waits.deadlines.push_back(*deadline);
    pretendedNow->tv_sec += pretendedNow->tv_sec < 2000 ? 1 : 0;
    return waits.answers[std::min(waits.deadlines.size(), waits.answers.size()) - 1];
}

namespace {

using SyncTest = EkoTest;

// The EkoTest fixture checks after each test that every slot was given back.
std::vector<EKO_SEM> create(size_t count)
{
    std::vector<EKO_SEM> sems(count);
    for (EKO_SEM& sem : sems)
        sem = EKO_MUTEX_CREATE();
    return sems;
}

void deleteAll(const std::vector<EKO_SEM>& sems)
{
    for (const EKO_SEM sem : sems)
        eko_syncDelete(sem);
}

// Runs what the thread sanitizer takes for misuse of a mutex in a process of its own, where it is told not to.
#define EXPECT_DONE(statement) \
    GTEST_FLAG_SET(death_test_style, "threadsafe"); \
    const char* given = getenv("TSAN_OPTIONS"); \
    const std::string quiet = std::string(given ? given : "") + ":report_mutex_bugs=0:report_destroy_locked=0"; \
    setenv("TSAN_OPTIONS", quiet.c_str(), 1); \
    EXPECT_EXIT( \
        { \
            alarm(40); \
            statement; \
            _exit(HasFailure() ? 1 : 0); \
        }, \
        testing::ExitedWithCode(0), "")

TEST_F(SyncTest, sync_slot_freed_last_is_taken_first)
{
    const std::vector<EKO_SEM> sems = create(3);
    eko_syncDelete(sems[0]);
    eko_syncDelete(sems[2]);
    eko_syncDelete(sems[1]);
    const EKO_SEM event = EKO_EVENT_CREATE(); // of either type
    EXPECT_EQ(event, sems[1]);
    EXPECT_EQ(EKO_MUTEX_CREATE(), sems[2]);
    EXPECT_EQ(EKO_MUTEX_CREATE(), sems[0]);
    deleteAll(sems);
    eko_syncDelete(EKO_SEM_INVALID);
    eko_syncDelete(nullptr);
}

// The first slot of all went to the first mutex of all, that of the global tag.
TEST_F(SyncTest, sync_1025th_opens_the_next_row)
{
    const char* first = static_cast<const char*>(memResolve(EKO_GLOBAL_TAG)->t_sem);
    std::vector<EKO_SEM> sems = create(static_cast<size_t>(1024 - syncSlotsInUse()));
    const std::ptrdiff_t slotSize = static_cast<const char*>(sems[1]) - static_cast<const char*>(sems[0]);
    for (const EKO_SEM sem : sems) {
        EXPECT_GT(static_cast<const char*>(sem), first);
        EXPECT_LT(static_cast<const char*>(sem), first + 1024 * slotSize);
    }
    const std::vector<EKO_SEM> next = create(2);
    EXPECT_TRUE(next[0] < first || next[0] >= first + 1024 * slotSize);
    EXPECT_EQ(static_cast<const char*>(next[1]) - static_cast<const char*>(next[0]), slotSize);
    eko_syncDelete(sems[7]);
    EXPECT_EQ(EKO_MUTEX_CREATE(), sems[7]);
    deleteAll(sems);
    deleteAll(next);
    EXPECT_EQ(EKO_MUTEX_CREATE(), sems.back()); // the first row again, though the other was freed last
    eko_syncDelete(sems.back());
    acceptUsage(); // the new row stays
}

TEST_F(SyncTest, sync_full_table)
{
    const int32 before = syncSlotsInUse();
    std::vector<EKO_SEM> sems = create(static_cast<size_t>(131072 - before));
    EXPECT_EQ(std::count(sems.begin(), sems.end(), EKO_SEM_INVALID), 0);
    EXPECT_EQ(logged([] { EXPECT_EQ(eko_syncCreate_check(EKO_SEM_EVENT, "caller.c", 7), EKO_SEM_INVALID); }),
              "Insufficient number of semaphores, called from caller.c:7\n");
    eko_syncDelete(sems[100000]);
    EXPECT_EQ(EKO_MUTEX_CREATE(), sems[100000]);
    deleteAll(sems);
    EXPECT_EQ(syncSlotsInUse(), before);
    std::sort(sems.begin(), sems.end());
    EXPECT_EQ(std::unique(sems.begin(), sems.end()), sems.end());
    acceptUsage();
}

TEST_F(SyncTest, sync_unknown_type_loses_a_slot)
{
    const EKO_SEM next = EKO_MUTEX_CREATE();
    eko_syncDelete(next);
    int32 lost = syncSlotsInUse();
    for (const int16 type : {int16(3), int16(0), int16(-1)}) {
        EXPECT_EQ(logged([&] { EXPECT_EQ(eko_syncCreate_check(type, "", 0), EKO_SEM_INVALID); }),
                  "Invalid semaphore type\n");
        EXPECT_EQ(syncSlotsInUse(), ++lost);
    }
    EXPECT_EQ(logged([&] { eko_syncEnterExcl(next); }), BAD_MUTEX);
    eko_term();
    ASSERT_EQ(eko_init(), 0); // all there again
    EXPECT_EQ(syncSlotsInUse(), lost - 3);
    acceptUsage();
}

TEST_F(SyncTest, sync_creation_without_memory)
{
    const std::vector<EKO_SEM> sems = create(static_cast<size_t>(1024 - syncSlotsInUse()));
    const std::string said = logged([] {
        const FailNthOnTag fault(EKO_GLOBAL_TAG, 1);
        EXPECT_EQ(EKO_MUTEX_CREATE(), EKO_SEM_INVALID);
        EXPECT_TRUE(fault.fired());
    });
    EXPECT_TRUE(isOneReport(said, "ekouxthreads.cpp"));
    const EKO_SEM sem = EKO_MUTEX_CREATE();
    EXPECT_NE(sem, EKO_SEM_INVALID);
    eko_syncDelete(sem);
    deleteAll(sems);
    acceptUsage();
}

EKO_SEM quicker;
void* (*allocOfGlobalTag)(size_t size, ALLOCATOR alctr);

// Another creation comes first while the block for the new row is being allocated.
void* overtakenAlloc(size_t size, ALLOCATOR alctr)
{
    memResolve(EKO_GLOBAL_TAG)->t_fcns.alloc_fcn = allocOfGlobalTag;
    quicker = EKO_MUTEX_CREATE();
    return allocOfGlobalTag(size, alctr);
}

TEST_F(SyncTest, sync_superfluous_block_is_given_back)
{
    const std::vector<EKO_SEM> sems = create(static_cast<size_t>(1024 - syncSlotsInUse()));
    const auto slot = static_cast<const char*>(sems[1]) - static_cast<const char*>(sems[0]);
    const size_t before = currentUsage().globalBytes;
    TAG_ENTRY* tag = memResolve(EKO_GLOBAL_TAG);
    allocOfGlobalTag = tag->t_fcns.alloc_fcn;
    tag->t_fcns.alloc_fcn = overtakenAlloc;
    const EKO_SEM sem = EKO_MUTEX_CREATE();
    EXPECT_EQ(sem, static_cast<const char*>(quicker) + slot);
    EXPECT_LT(currentUsage().globalBytes, before + 1500 * static_cast<size_t>(slot));
    eko_syncDelete(sem);
    eko_syncDelete(quicker);
    deleteAll(sems);
    acceptUsage();
}

TEST_F(SyncTest, sync_threads_open_rows)
{
    std::vector<std::vector<EKO_SEM>> made(4);
    inThreads(4, [&made](uint32 i) { made[i] = create(1500); });
    std::vector<EKO_SEM> all;
    for (const auto& sems : made)
        all.insert(all.end(), sems.begin(), sems.end());
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::unique(all.begin(), all.end()), all.end());
    deleteAll(all);
    acceptUsage();
}

TEST_F(SyncTest, sync_wrong_handles_are_reported_once)
{
    const EKO_SEM mutex = EKO_MUTEX_CREATE();
    const EKO_SEM event = EKO_EVENT_CREATE();
    const EKO_SEM deleted = EKO_EVENT_CREATE();
    eko_syncDelete(deleted);
    for (const EKO_SEM sem : {EKO_SEM(nullptr), EKO_SEM_INVALID, event, deleted}) {
        EXPECT_EQ(logged([=] { eko_syncEnterExcl(sem); }), BAD_MUTEX);
        EXPECT_EQ(logged([=] { eko_syncExitExcl(sem); }), BAD_MUTEX);
    }
    for (const EKO_SEM sem : {EKO_SEM(nullptr), EKO_SEM_INVALID, mutex, deleted}) {
        EXPECT_EQ(logged([=] { eko_syncStart(sem); }), BAD_EVENT);
        EXPECT_EQ(logged([=] { eko_syncResume(sem); }), BAD_EVENT);
        EXPECT_EQ(logged([=] { EXPECT_EQ(eko_syncWait(sem, EKO_FOREVER), 1002); }), BAD_EVENT);
    }
    eko_syncDelete(mutex);
    eko_syncDelete(event);
}

// The report of a broken mutex goes through the console, whose own mutex is the broken one.
TEST_F(SyncTest, sync_broken_mutex_in_the_path_of_reports)
{
    const EKO_SEM good = eko_stdout_stack.sem;
    const EKO_SEM event = EKO_EVENT_CREATE();
    for (const EKO_SEM broken : {event, EKO_SEM(nullptr)}) {
        CapturedFd out(1), err(2);
        eko_stdout_stack.sem = broken;
        eko_log("said\n");
        eko_syncExitExcl(EKO_SEM_INVALID);
        eko_stdout_stack.sem = good;
        EXPECT_EQ(out.take(), std::string("said\n") + BAD_MUTEX);
        const std::string once = BAD_MUTEX; // for entering, and for leaving, of each of the two
        EXPECT_EQ(err.take(), once + once + once + once);
    }
    eko_syncDelete(event);
}

TEST(SyncStopped, sync_inert_when_stopped)
{
    EKO_SEM mutex = EKO_SEM_INVALID, event = EKO_SEM_INVALID;
    for (int round = 0; round < 2; ++round) { // before the first start; with handles into freed memory
        CapturedFd out(1), err(2);
        EXPECT_EQ(EKO_MUTEX_CREATE(), EKO_SEM_INVALID);
        eko_syncEnterExcl(mutex);
        eko_syncExitExcl(mutex);
        eko_syncStart(event);
        eko_syncResume(event);
        EXPECT_EQ(eko_syncWait(event, EKO_FOREVER), 1002);
        eko_syncDelete(mutex);
        EXPECT_EQ(out.take() + err.take(), "");
        if (round == 0) {
            ASSERT_EQ(eko_init(), 0);
            mutex = EKO_MUTEX_CREATE();
            event = EKO_EVENT_CREATE();
            eko_term();
        }
    }
}

// Leaves a mutex that the caller holds once; another thread is kept out until then.
void expectHeld(EKO_SEM mutex)
{
    const EKO_SEM trying = EKO_EVENT_CREATE();
    eko_syncStart(trying);
    bool left = false;
    std::thread other([&] {
        eko_syncResume(trying);
        eko_syncEnterExcl(mutex);
        EXPECT_TRUE(left);
        eko_syncExitExcl(mutex);
    });
    EXPECT_EQ(eko_syncWait(trying, EKO_FOREVER), 0);
    eko_sleep(20); // in which the other would get in, were it let
    left = true;
    eko_syncExitExcl(mutex);
    other.join();
    eko_syncDelete(trying);
}

TEST_F(SyncTest, sync_mutex_is_recursive_for_its_owner)
{
    const EKO_SEM mutex = EKO_MUTEX_CREATE();
    for (int i = 0; i < 3; ++i)
        eko_syncEnterExcl(mutex);
    eko_syncExitExcl(mutex);
    eko_syncExitExcl(mutex);
    expectHeld(mutex);
    eko_syncDelete(mutex);
}

TEST_F(SyncTest, sync_mutex_excludes)
{
    const EKO_SEM mutex = EKO_MUTEX_CREATE();
    int counts[2] = {0, 0}; // in a mutex, in the critical section
    inThreads(4, [&](uint32) {
        for (int i = 0; i < 10000; ++i) {
            eko_syncEnterExcl(mutex);
            eko_syncEnterExcl(mutex);
            eko_syncExitExcl(mutex);
            ++counts[0];
            eko_syncExitExcl(mutex);
            eko_enterCritSec();
            ++counts[1];
            eko_exitCritSec();
        }
    });
    EXPECT_EQ(counts[0], 40000);
    EXPECT_EQ(counts[1], 40000);
    eko_syncDelete(mutex);
}

TEST_F(SyncTest, sync_exit_does_not_check_the_caller)
{
    EXPECT_DONE({
        const EKO_SEM mutex = EKO_MUTEX_CREATE();
        const auto visit = [mutex] {
            eko_syncEnterExcl(mutex);
            eko_syncExitExcl(mutex);
        };
        visit();
        eko_syncExitExcl(mutex); // nobody's
        eko_syncEnterExcl(mutex);
        expectHeld(mutex);
        eko_syncEnterExcl(mutex);
        std::thread([mutex] { eko_syncExitExcl(mutex); }).join(); // another's
        std::thread(visit).join();
        visit();
    });
}

#if EKO_CHECKED
TEST_F(SyncTest, sync_checked_build_reports_misuse)
{
    EXPECT_DONE({
        const EKO_SEM mutex = EKO_MUTEX_CREATE();
        CapturedFd err(2);
        eko_syncExitExcl(mutex);
        EXPECT_EQ(err.take(), "Mutex left by a thread that does not hold it\n");
        eko_syncEnterExcl(mutex);
        char expected[100];
        eko_snprintf(expected, sizeof(expected), "Mutex %p still held at the stop of the library\n", mutex);
        eko_term();
        EXPECT_EQ(err.take(), expected);
    });
}
#endif

TEST_F(SyncTest, sync_event_stays_as_it_was_set)
{
    const EKO_SEM event = EKO_EVENT_CREATE();
    EXPECT_EQ(eko_syncWait(event, EKO_FOREVER), 0); // new ones are signalled
    EXPECT_EQ(eko_syncWait(event, 0), 0);
    eko_syncStart(event);
    EXPECT_EQ(eko_syncWait(event, 0), 1001);
    const uint64 start = eko_timeMilliSecs();
    EXPECT_EQ(eko_syncWait(event, 30), 1001);
    EXPECT_GE(eko_timeMilliSecs() - start, 30u);
    inThreads(5, [event](uint32 i) { // some wait by the time of the signal, others come later: all pass
        if (i > 0)
            EXPECT_EQ(eko_syncWait(event, i > 2 ? 600000 : EKO_FOREVER), 0);
        else
            eko_sleep(5), eko_syncResume(event);
    });
    EXPECT_EQ(eko_syncWait(event, 0), 0);
    eko_syncStart(event);
    EXPECT_EQ(eko_syncWait(event, 0), 1001);
    eko_syncDelete(event);
}

TEST_F(SyncTest, sync_wait_restarts_its_period)
{
    timeval now = {1000, 250000}; // a second later after each wait
    const EKO_SEM event = EKO_EVENT_CREATE();
    eko_syncStart(event);
    pretendedNow = &now;
    waits.answers = {0, EINVAL, ETIMEDOUT}; // woken, refused, ran out
    EXPECT_EQ(eko_syncWait(event, 1500), 1001);
    ASSERT_EQ(waits.deadlines.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(waits.deadlines[i].tv_sec, 1001 + time_t(i));
        EXPECT_EQ(waits.deadlines[i].tv_nsec, 750000000);
    }
    eko_syncDelete(event);
}

TEST_F(SyncTest, sync_timedwait_exact_second)
{
    constexpr time_t LAST = std::numeric_limits<time_t>::max();
    const struct {
        time_t now;
        uint32 t;
        int answer;
        int16 result;
        time_t seconds;
        long nanos;
    } cases[] = {{1000, 599, ETIMEDOUT, 1001, 1000, 999000000}, {1000, 600, EINVAL, 0, 1000, 1000000000},
                 {1000, 601, ETIME, 1001, 1001, 1000000},       {1000, 2600, 0, 0, 1002, 1000000000},
                 {1000, 0, EPERM, 0, 1000, 400000000},          {LAST, 601, 0, 0, LAST, 1000000},
                 {LAST - 1, 4294967295u, 0, 0, LAST, 695000000}};
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    for (const auto& c : cases) {
        timeval now = {c.now, 400000};
        pretendedNow = &now;
        waits.deadlines.clear();
        waits.answers = {c.answer};
        EXPECT_EQ(eko_posix_cond_timedwait(&cond, &mutex, c.t), c.result) << c.t;
        ASSERT_EQ(waits.deadlines.size(), 1u);
        EXPECT_EQ(waits.deadlines[0].tv_sec, c.seconds) << c.t;
        EXPECT_EQ(waits.deadlines[0].tv_nsec, c.nanos) << c.t;
    }
    waits.answers.clear();
    timeval now = {1000, 400000};
    pretendedNow = &now;
    pthread_mutex_lock(&mutex);
    EXPECT_EQ(eko_posix_cond_timedwait(&cond, &mutex, 600), 0); // long past, but the system refuses it
    EXPECT_EQ(eko_posix_cond_timedwait(&cond, &mutex, 601), 1001);
    pthread_mutex_unlock(&mutex);
}

} // namespace
