// SPDX-License-Identifier: MIT
// The semaphore table: slots, mutexes, events. The system's clock and timed wait are replaced.
// LINK: --wrap=gettimeofday --wrap=pthread_cond_timedwait
#include <sys/time.h>

#include <limits>

#include "support/faults.h"
#include "support/fixture.h"

static timeval pretended = {1000, 250000}; // the time, a second later after each timed wait
static std::vector<int> answers;           // of the timed wait, the last one again and again
static std::vector<timespec> deadlines;    // that it was given

EKO_WRAP(int, gettimeofday, (timeval * now, void*))
{
    *now = {pretended.tv_sec + static_cast<time_t>(deadlines.size()), pretended.tv_usec};
    return 0;
}

EKO_WRAP(int, pthread_cond_timedwait, (pthread_cond_t*, pthread_mutex_t*, const timespec* deadline))
{
    deadlines.push_back(*deadline);
    return answers[std::min(deadlines.size(), answers.size()) - 1];
}

using SyncTest = EkoTest; // which checks after each test that every slot was given back

static std::vector<EKO_SEM> create(int32 count)
{
    std::vector<EKO_SEM> sems(static_cast<size_t>(count));
    std::generate(sems.begin(), sems.end(), [] { return EKO_MUTEX_CREATE(); });
    return sems;
}

static void deleteAll(const std::vector<EKO_SEM>& sems)
{
    std::for_each(sems.begin(), sems.end(), eko_syncDelete);
}

TEST_F(SyncTest, sync_row_needs_a_block)
{
    std::vector<EKO_SEM> sems = create(1024 - syncSlotsInUse());
    const std::string said = logged([] {
        const FailNthOnTag fault(EKO_GLOBAL_TAG, 1);
        EXPECT_EQ(EKO_MUTEX_CREATE(), EKO_SEM_INVALID);
    });
    EXPECT_TRUE(isOneReport(said, "ekouxthreads.cpp"));
    inThreads(4, [](uint32) { deleteAll(create(1200)); });
    deleteAll(sems);
    acceptUsage(); // the rows stay
}

TEST_F(SyncTest, sync_first_row_with_room_serves_the_slot_freed_last)
{
    const int32 before = syncSlotsInUse();
    const std::vector<EKO_SEM> sems = create(131072 - before);
    EXPECT_EQ(syncSlotsInUse(), 131072);
    EXPECT_EQ(logged([] { EXPECT_EQ(eko_syncCreate_check(EKO_SEM_EVENT, "caller.c", 7), EKO_SEM_INVALID); }),
              "Insufficient number of semaphores, called from caller.c:7\n");
    for (const size_t i : {2000u, 5u, 2010u, 700u, 2005u, 9u})
        eko_syncDelete(sems[i]);
    for (const size_t i : {9u, 700u, 5u, 2005u, 2010u, 2000u})
        EXPECT_EQ(EKO_EVENT_CREATE(), sems[i]);
    deleteAll(sems);
    EXPECT_EQ(syncSlotsInUse(), before);
    acceptUsage();
}

TEST_F(SyncTest, sync_unknown_type_loses_a_slot)
{
    const int32 before = syncSlotsInUse();
    for (const int16 type : {int16(3), int16(0), int16(-1)})
        EXPECT_EQ(logged([=] { EXPECT_EQ(eko_syncCreate_check(type, "", 0), EKO_SEM_INVALID); }),
                  "Invalid semaphore type\n");
    EXPECT_EQ(syncSlotsInUse(), before + 3);
    eko_term();
    ASSERT_EQ(eko_init(), 0); // the fixture finds all of them there again
}

TEST_F(SyncTest, sync_wrong_handles_are_reported_once)
{
    const std::string badMutex = "Invalid mutex\n", badEvent = "Invalid event\n";
    const EKO_SEM mutex = EKO_MUTEX_CREATE(), event = EKO_EVENT_CREATE(), deleted = EKO_EVENT_CREATE();
    eko_syncDelete(deleted);
    const auto expect = [](EKO_SEM sem, const std::string& asMutex, const std::string& asEvent) {
        for (const auto call : {eko_syncEnterExcl, eko_syncExitExcl})
            EXPECT_EQ(logged([=] { call(sem); }), asMutex);
        for (const auto call : {eko_syncStart, eko_syncResume})
            EXPECT_EQ(logged([=] { call(sem); }), asEvent);
        const int status = eko_inited && asEvent.empty() ? 0 : 1002;
        EXPECT_EQ(logged([=] { EXPECT_EQ(eko_syncWait(sem, EKO_FOREVER), status); }), asEvent);
    };
    for (const EKO_SEM sem : {EKO_SEM(nullptr), EKO_SEM_INVALID, mutex, event, deleted})
        expect(sem, sem == mutex ? "" : badMutex, sem == event ? "" : badEvent);
    eko_term();
    expect(mutex, "", ""); // in freed memory
    deleteAll({mutex, event, nullptr, EKO_SEM_INVALID});
    ASSERT_EQ(eko_init(), 0);
}

TEST(SyncMisuse, sync_exit_does_not_check_the_caller)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    setenv("TSAN_OPTIONS", "halt_on_error=1:report_mutex_bugs=0", 1); // read as the process starts
    const auto useAndMisuse = [] {
        EXPECT_EQ(eko_init(), 0);
        const EKO_SEM mutex = EKO_MUTEX_CREATE();
        for (int round = 0; round < 2; ++round) {
            std::atomic<int> inside = 0;
            const auto visit = [&](uint32) {
                for (int i = 0; i < 50; ++i) {
                    for (const auto call : {eko_syncEnterExcl, eko_syncEnterExcl, eko_syncExitExcl})
                        call(mutex);
                    EXPECT_EQ(inside++, 0);
                    eko_sleep(i == 0 ? 5 : 0);
                    --inside;
                    eko_syncExitExcl(mutex);
                }
            };
            std::thread others([visit] { inThreads(3, visit); });
            visit(0);
            others.join();
            eko_syncEnterExcl(mutex);
            inThreads(1, [mutex](uint32) { eko_syncExitExcl(mutex); }); // another's
            eko_syncExitExcl(mutex);                                    // nobody's
        }
        pthread_t ended = 0; // inside; who has its identifier then is taken for it
        inThreads(1, [mutex, &ended](uint32) {
            ended = pthread_self();
            eko_syncEnterExcl(mutex);
        });
        inThreads(1, [mutex, ended](uint32) {
            if (ended == pthread_self())
                eko_syncEnterExcl(mutex);
        });
        _Exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(useAndMisuse(), testing::ExitedWithCode(0), "^(Mutex left by a thread that does not hold it\n)*$");
}

TEST_F(SyncTest, sync_wait_restarts_its_period)
{
    const EKO_SEM event = EKO_EVENT_CREATE();
    EXPECT_EQ(eko_syncWait(event, EKO_FOREVER), 0); // new ones are signalled, and stay so
    eko_syncStart(event);
    answers = {0, EINVAL, ETIMEDOUT}; // woken, refused, ran out
    EXPECT_EQ(eko_syncWait(event, 1500), 1001);
    for (uint32 i = 0; i < 3; ++i)
        EXPECT_TRUE(deadlines.at(i).tv_sec == time_t(1001 + i) && deadlines.at(i).tv_nsec == 750000000);
    EXPECT_EQ(eko_syncWait(event, 0), 1001);
    inThreads(5, [event](uint32 i) { // some wait by the time of the signal, others come later: all pass
        eko_sleep(2 * i);
        if (i == 3)
            eko_syncResume(event);
        EXPECT_EQ(eko_syncWait(event, EKO_FOREVER), 0);
    });
    eko_syncDelete(event);
}

TEST_F(SyncTest, sync_timedwait_exact_second)
{
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    constexpr time_t LAST = std::numeric_limits<time_t>::max();
    for (const auto& [now, t, answer, result, deadline] :
         {std::tuple<time_t, uint32, int, int, timespec>(1000, 599, ETIMEDOUT, 1001, {1000, 999000000}),
          {1000, 600, EINVAL, 0, {1000, 1000000000}},
          {1000, 601, ETIME, 1001, {1001, 1000000}},
          {1000, 2600, 0, 0, {1002, 1000000000}},
          {LAST - 1, 4294967295u, 0, 0, {LAST, 695000000}}}) {
        pretended = {now, 400000};
        answers = {answer};
        deadlines.clear();
        EXPECT_EQ(eko_posix_cond_timedwait(&cond, &mutex, t), result) << t;
        EXPECT_EQ(memcmp(&deadlines[0], &deadline, sizeof(timespec)), 0) << t;
    }
}
