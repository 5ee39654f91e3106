// The semaphore table: slots, mutexes, events. The system's clock and timed wait are replaced where a test says so.
// LINK: --wrap=gettimeofday --wrap=pthread_cond_timedwait --wrap=malloc --wrap=calloc --wrap=realloc
#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <set>

#include "ekotext_int.h"
#include "support/faults.h"
#include "support/fixture.h"

namespace {

std::vector<int> answers;        // of the timed wait, the last one again and again; none: the real wait and clock
std::vector<timespec> deadlines; // that it was given
timeval pretendedNow;            // a second later after each wait

} // namespace

EKO_WRAP(int, gettimeofday, (timeval * now, void* zone))
{
    if (answers.empty())
        return __real_gettimeofday(now, zone);
    *now = {pretendedNow.tv_sec + static_cast<time_t>(deadlines.size()), pretendedNow.tv_usec};
    return 0;
}

EKO_WRAP(int, pthread_cond_timedwait, (pthread_cond_t * c, pthread_mutex_t* m, const timespec* deadline))
{
    if (answers.empty())
        return __real_pthread_cond_timedwait(c, m, deadline);
    deadlines.push_back(*deadline);
    return answers[std::min(deadlines.size(), answers.size()) - 1];
}

namespace {

using SyncTest = EkoTest; // which checks after each test that every slot was given back

std::vector<EKO_SEM> create(int32 count)
{
    std::vector<EKO_SEM> sems(static_cast<size_t>(count));
    std::generate(sems.begin(), sems.end(), [] { return EKO_MUTEX_CREATE(); });
    return sems;
}

void deleteAll(const std::vector<EKO_SEM>& sems)
{
    std::for_each(sems.begin(), sems.end(), eko_syncDelete);
}

TEST_F(SyncTest, sync_rows_fill_up)
{
    const int32 before = syncSlotsInUse();
    std::vector<EKO_SEM> made[4] = {create(1024 - before)};
    const std::string said = logged([] {
        const FailNthOnTag fault(EKO_GLOBAL_TAG, 1);
        EXPECT_EQ(EKO_MUTEX_CREATE(), EKO_SEM_INVALID);
    });
    EXPECT_TRUE(isOneReport(said, "ekouxthreads.cpp"));
    const size_t bytes = currentUsage().globalBytes;
    deleteAll(create(1));
    const size_t block = currentUsage().globalBytes - bytes;
    deleteAll(made[0]);
    inThreads(4, [&made](uint32 i) { made[i] = create(32512); }); // together they need each new row
    EXPECT_LT(currentUsage().globalBytes, bytes + 128 * block);   // but its block only once
    std::for_each(made, made + 4, deleteAll);

    const std::vector<EKO_SEM> sems = create(131072 - before);
    EXPECT_EQ(std::set<EKO_SEM>(sems.begin(), sems.end()).size(), sems.size());
    EXPECT_EQ(logged([] { EXPECT_EQ(eko_syncCreate_check(EKO_SEM_EVENT, "caller.c", 7), EKO_SEM_INVALID); }),
              "Insufficient number of semaphores, called from caller.c:7\n");
    std::vector<size_t> freed(10000);
    std::generate(freed.begin(), freed.end(), [n = 0u]() mutable { return n++ * 77777 % 131000; });
    for (const size_t i : freed)
        eko_syncDelete(sems[i]);
    std::reverse(freed.begin(), freed.end()); // the first row with room serves, in it the slot freed last
    const auto row = [before](size_t i) { return (static_cast<size_t>(before) + i) / 1024; };
    std::stable_sort(freed.begin(), freed.end(), [row](size_t a, size_t b) { return row(a) < row(b); });
    for (const size_t i : freed)
        ASSERT_EQ(i % 2 ? EKO_MUTEX_CREATE() : EKO_EVENT_CREATE(), sems[i]);
    deleteAll(sems);
    deleteAll({EKO_SEM_INVALID, nullptr});
    EXPECT_EQ(syncSlotsInUse(), before);
    acceptUsage(); // the rows stay
}

TEST_F(SyncTest, sync_unknown_type_loses_a_slot)
{
    const int32 before = syncSlotsInUse();
    for (const int16 type : {int16(3), int16(0), int16(-1)})
        EXPECT_EQ(logged([&] { EXPECT_EQ(eko_syncCreate_check(type, "", 0), EKO_SEM_INVALID); }),
                  "Invalid semaphore type\n");
    EXPECT_EQ(syncSlotsInUse(), before + 3);
    eko_term();
    ASSERT_EQ(eko_init(), 0); // the fixture finds all of them there again
}

constexpr char BAD_MUTEX[] = "Invalid mutex\n";
constexpr char BAD_EVENT[] = "Invalid event\n";
const struct {
    void (*run)(EKO_SEM sem);
    const char* complaint;
} CALLS[] = {{eko_syncEnterExcl, BAD_MUTEX},
             {eko_syncExitExcl, BAD_MUTEX},
             {eko_syncStart, BAD_EVENT},
             {eko_syncResume, BAD_EVENT},
             {[](EKO_SEM sem) { EXPECT_EQ(eko_syncWait(sem, EKO_FOREVER), 1002); }, BAD_EVENT}};

TEST_F(SyncTest, sync_wrong_handles_are_reported_once)
{
    const EKO_SEM mutex = EKO_MUTEX_CREATE(), event = EKO_EVENT_CREATE(), deleted = EKO_EVENT_CREATE();
    eko_syncDelete(deleted);
    for (const EKO_SEM sem : {EKO_SEM(nullptr), EKO_SEM_INVALID, mutex, event, deleted}) {
        for (const auto& call : CALLS) {
            if (sem == (call.complaint == BAD_MUTEX ? mutex : event))
                continue;
            EXPECT_EQ(logged([&] { call.run(sem); }), call.complaint);
        }
    }
    const EKO_SEM good = eko_stdout_stack.sem;
    CapturedFd out(1), err(2);
    eko_stdout_stack.sem = event; // in the path of the reports themselves
    eko_log("said\n");
    eko_syncExitExcl(EKO_SEM_INVALID);
    eko_stdout_stack.sem = good;
    EXPECT_EQ(out.take(), std::string("said\n") + BAD_MUTEX);
    const std::string once = BAD_MUTEX; // for entering, and for leaving, of each of the two
    EXPECT_EQ(err.take(), once + once + once + once);
    deleteAll({mutex, event});
}

TEST_F(SyncTest, sync_inert_when_stopped)
{
    const EKO_SEM mutex = EKO_MUTEX_CREATE(), event = EKO_EVENT_CREATE(); // soon in freed memory
    eko_term();
    EXPECT_EQ(EKO_MUTEX_CREATE(), EKO_SEM_INVALID);
    for (const auto& call : CALLS)
        EXPECT_EQ(logged([&] { call.run(call.complaint == BAD_MUTEX ? mutex : event); }), "");
    deleteAll({mutex, event});
    ASSERT_EQ(eko_init(), 0);
}

// Takes the mutex twice for each increment, and the critical section once for each of the other count.
void expectExclusion(EKO_SEM mutex)
{
    int counts[2] = {0, 0};
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
    EXPECT_EQ(counts[0] + counts[1], 80000);
}

// The thread sanitizer takes this for a fault unless it is told before the process starts.
TEST(SyncMisuse, sync_exit_does_not_check_the_caller)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    setenv("TSAN_OPTIONS", "halt_on_error=1:report_mutex_bugs=0", 1);
    const auto misuse = [] {
        EXPECT_EQ(eko_init(), 0);
        const EKO_SEM mutex = EKO_MUTEX_CREATE();
        expectExclusion(mutex);
        eko_syncExitExcl(mutex); // nobody's
        expectExclusion(mutex);
        eko_syncEnterExcl(mutex);
        inThreads(1, [mutex](uint32) { eko_syncExitExcl(mutex); }); // another's
        expectExclusion(mutex);
        _exit(HasFailure() ? 1 : 0);
    };
#if EKO_CHECKED
    EXPECT_EXIT(misuse(), testing::ExitedWithCode(0), "^(Mutex left by a thread that does not hold it\n){2}$");
#else
    EXPECT_EXIT(misuse(), testing::ExitedWithCode(0), "^$");
#endif
}

TEST_F(SyncTest, sync_event_stays_as_it_was_set)
{
    const EKO_SEM event = EKO_EVENT_CREATE();
    EXPECT_EQ(eko_syncWait(event, EKO_FOREVER), 0); // new ones are signalled
    eko_syncStart(event);
    const uint64 start = eko_timeMilliSecs();
    EXPECT_EQ(eko_syncWait(event, 30), 1001);
    EXPECT_GE(eko_timeMilliSecs() - start, 30u);
    inThreads(5, [event](uint32 i) { // some wait by the time of the signal, others come later: all pass
        if (i > 0)
            EXPECT_EQ(eko_syncWait(event, i > 2 ? 600000 : EKO_FOREVER), 0);
        else
            eko_sleep(5), eko_syncResume(event);
    });
    eko_syncDelete(event);
}

TEST_F(SyncTest, sync_wait_restarts_its_period)
{
    const EKO_SEM event = EKO_EVENT_CREATE();
    eko_syncStart(event);
    pretendedNow = {1000, 250000};
    answers = {0, EINVAL, ETIMEDOUT}; // woken, refused, ran out
    EXPECT_EQ(eko_syncWait(event, 1500), 1001);
    EXPECT_EQ(deadlines.size(), 3u);
    time_t second = 1000; // each has a second more than the one before it
    for (const timespec& deadline : deadlines)
        EXPECT_TRUE(deadline.tv_sec == ++second && deadline.tv_nsec == 750000000);
    eko_syncDelete(event);
}

TEST_F(SyncTest, sync_timedwait_exact_second)
{
    constexpr time_t LAST = std::numeric_limits<time_t>::max();
    const struct {
        time_t now;
        uint32 t;
        int answer, result;
        timespec deadline;
    } cases[] = {{1000, 599, ETIMEDOUT, 1001, {1000, 999000000}}, {1000, 600, EINVAL, 0, {1000, 1000000000}},
                 {1000, 601, ETIME, 1001, {1001, 1000000}},       {1000, 2600, 0, 0, {1002, 1000000000}},
                 {1000, 0, EPERM, 0, {1000, 400000000}},          {LAST, 601, 0, 0, {LAST, 1000000}},
                 {LAST - 1, 4294967295u, 0, 0, {LAST, 695000000}}};
    for (const auto& c : cases) {
        pretendedNow = {c.now, 400000};
        answers = {c.answer};
        deadlines.clear();
        EXPECT_EQ(eko_posix_cond_timedwait(nullptr, nullptr, c.t), c.result) << c.t;
        EXPECT_EQ(deadlines[0].tv_sec, c.deadline.tv_sec) << c.t;
        EXPECT_EQ(deadlines[0].tv_nsec, c.deadline.tv_nsec) << c.t;
    }
    answers.clear();
}

} // namespace
