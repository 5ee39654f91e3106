// Message queues: order, waiting, closing, what stays locked, and many threads at once.
#include <algorithm>
#include <atomic>
#include <deque>
#include <memory>
#include <random>

#include "ekoqueue_int.h"
#include "support/faults.h"
#include "support/fixture.h"

namespace {

class QueueTest : public EkoTest {
protected:
    void SetUp() override
    {
        EkoTest::SetUp();
        eko_queueDelete(eko_queueCreate("first use makes the module's record"));
        acceptUsage();
    }
};

EKO_QUEUE* record(EKO_QUEUE_HANDLE queue)
{
    return static_cast<EKO_QUEUE*>(queue);
}

// Whether another thread gets into a mutex within a tenth of a second. If not, that thread is left behind.
bool freeForOthers(EKO_SEM sem)
{
    auto entered = std::make_shared<std::atomic<bool>>(false);
    std::thread([=] {
        eko_syncEnterExcl(sem);
        eko_syncExitExcl(sem);
        *entered = true;
    }).detach();
    for (int i = 0; i < 100 && !*entered; ++i)
        eko_sleep(1);
    return *entered;
}

// "status:text:len:id"
std::string readOne(EKO_QUEUE_HANDLE queue, uint32 timeout)
{
    void* text = nullptr;
    uint32 len = 0;
    int32 id = 0;
    const int32 status = eko_queueRead(queue, &text, &len, &id, timeout);
    return std::to_string(status) + ':' + (text ? static_cast<char*>(text) : "") + ':' + std::to_string(len) + ':' +
           std::to_string(id);
}

TEST_F(QueueTest, queue_agrees_with_a_model)
{
    EKO_QUEUE_HANDLE queue = eko_queueCreate("model");
    std::deque<std::pair<uint32, int32>> model;
    std::mt19937 random(1);
    for (uint32 step = 0; step < 20000; ++step) {
        const int32 id = static_cast<int32>(random() % 5);
        const auto flags = static_cast<int16>(random());
        std::pair<uint32, int32> message;
        void* text = nullptr;
        const auto action = random() % 20;
        if (action == 0) {
            eko_queuePurge(queue, id == 0 ? -1 : id);
            std::erase_if(model, [&](auto& m) { return id == 0 || m.second == id; });
        } else if (action <= 10) {
            ASSERT_EQ(eko_queueWrite(queue, &model, step, id, flags), 0);
            flags & 2 ? model.emplace_front(step, id) : model.emplace_back(step, id);
        } else {
            ASSERT_EQ(eko_queueRead(queue, &text, &message.first, &message.second, 0), model.empty() ? 2 : 0);
            ASSERT_TRUE(model.empty() || (message == model.front() && text == &model)) << step;
            if (!model.empty())
                model.pop_front();
        }
        ASSERT_EQ(eko_queueCount(queue), static_cast<int32>(model.size()));
    }
    eko_queueDelete(queue);
}

TEST_F(QueueTest, queue_is_found_by_name)
{
    EKO_QUEUE_HANDLE older = eko_queueCreate("same");
    EKO_QUEUE_HANDLE newer = eko_queueCreate("same");
    EKO_QUEUE_HANDLE unnamed = eko_queueCreate(nullptr);
    EXPECT_EQ(eko_queueFind("same"), newer);
    EXPECT_EQ(eko_queueFind(""), unnamed);
    EXPECT_TRUE(!eko_queueFind("Same") && !eko_queueFind(nullptr));
    eko_queueDelete(newer);
    EXPECT_EQ(eko_queueFind("same"), older);
    eko_queueDelete(unnamed);
    eko_queueDelete(older);
}

TEST_F(QueueTest, queue_without_a_name_is_reported_and_used)
{
    char text[] = "text";
    EKO_QUEUE_HANDLE queue = eko_queueCreate("q");
    char* name = std::exchange(record(queue)->name, nullptr);
    EXPECT_EQ(logged([&] { EXPECT_EQ(eko_queueWrite(queue, text, 4, 7, 0), 0); }), "Invalid queue handle");
    EXPECT_EQ(logged([&] { EXPECT_EQ(readOne(queue, 0), "0:text:4:7"); }), "Invalid queue handle");
    EXPECT_EQ(logged([&] { eko_queuePurge(queue, -1); }), "Invalid queue handle");
    eko_queueDelete(queue); // ignored
    record(queue)->name = name;
    EXPECT_EQ(eko_queueRead(queue, nullptr, nullptr, nullptr, 0), 1013);
    eko_queueDelete(queue);
    const std::string five = logged([&] {
        EXPECT_EQ(eko_queueWrite(nullptr, nullptr, 0, 0, 0) + eko_queueCount(nullptr), 2004);
        EXPECT_EQ(readOne(nullptr, 0), "1002::0:0");
        eko_queuePurge(nullptr, -1), eko_queueClose(nullptr), eko_queueDelete(nullptr);
    });
    EXPECT_TRUE(matches(five, "(Invalid queue handle){5}"));
}

TEST_F(QueueTest, queue_waits_and_closes)
{
    EKO_QUEUE_HANDLE queue = eko_queueCreate("q");
    char text[] = "late";
    const uint64 begun = eko_timeMilliSecs();
    EXPECT_EQ(readOne(queue, 200), "1001::0:0");
    EXPECT_GE(eko_timeMilliSecs() - begun, 199u);
    for (const uint32 timeout : {20000u, EKO_FOREVER}) {
        std::thread reader([&] { EXPECT_EQ(readOne(queue, timeout), "0:late:5:-3"); });
        eko_sleep(30);
        EXPECT_EQ(eko_queueWrite(queue, text, 5, -3, 0), 0);
        reader.join();
    }
    std::thread first([&] { EXPECT_EQ(readOne(queue, EKO_FOREVER), "3::0:0"); });
    eko_sleep(30);
    std::thread second([&] { EXPECT_EQ(readOne(queue, 0), "3::0:0"); }); // or waits for the first to be woken
    eko_sleep(30);
    eko_queueClose(queue);
    first.join(), second.join();
    EXPECT_EQ(eko_queueWrite(queue, text, 5, 0, 0), 3);
    EXPECT_EQ(readOne(queue, 0), "3::0:0");
    EXPECT_TRUE(freeForOthers(record(queue)->mtSem) && freeForOthers(record(queue)->exclSem));
    eko_queueDelete(queue);

    EXPECT_EQ(eko_queueWrite(queue = eko_queueCreate("q"), text, 5, 0, 0), 0);
    eko_queueClose(queue);
    eko_queuePurge(queue, -1); // not when closed
    EXPECT_EQ(eko_queueCount(queue), 1);
    eko_queueDelete(queue);
}

// A message that comes between a reader's two looks leaves nothing locked: the reader is stopped between them.
TEST_F(QueueTest, queue_message_found_at_the_second_look)
{
    EKO_QUEUE_HANDLE queue = eko_queueCreate("q");
    char text[] = "between";
    eko_syncEnterExcl(record(queue)->exclSem);
    std::thread reader([&] {
        EXPECT_EQ(readOne(queue, 20000), "0:between:7:0");
        EXPECT_TRUE(freeForOthers(record(queue)->exclSem) && freeForOthers(record(queue)->mtSem));
    });
    eko_sleep(50);
    EXPECT_EQ(eko_queueWrite(queue, text, 7, 0, 0), 0);
    eko_syncExitExcl(record(queue)->exclSem);
    reader.join();
    eko_queueDelete(queue);
}

// ---- what stays locked, in processes of their own ---------------------------------------------------------

// Ends the process with 0 when the two mutexes are held, or free, for other threads as told.
[[noreturn]] void endUnlessHeld(EKO_QUEUE_HANDLE queue, bool excl, bool mt)
{
    _exit(freeForOthers(record(queue)->exclSem) != excl && freeForOthers(record(queue)->mtSem) != mt ? 0 : 1);
}

[[noreturn]] void writeWithoutMemory()
{
    EKO_QUEUE_HANDLE queue = eko_queueCreate("q");
    const FailNthOnTag fault(record(queue)->mtag, 1);
    if (eko_queueWrite(queue, nullptr, 0, 0, 0) != 1003 || eko_queueCount(queue) != 0)
        _exit(2);
    endUnlessHeld(queue, true, false);
}

[[noreturn]] void purgeUnderAReader()
{
    EKO_QUEUE_HANDLE queue = eko_queueCreate("q");
    std::thread reader([&] {
        const std::string got = readOne(queue, EKO_FOREVER);
        got == "1002::0:0" ? endUnlessHeld(queue, true, true) : _exit(2);
    });
    eko_sleep(50); // until it waits
    eko_syncEnterExcl(record(queue)->exclSem);
    eko_queueWrite(queue, nullptr, 0, 0, 0);
    eko_queuePurge(queue, -1);
    eko_syncExitExcl(record(queue)->exclSem);
    reader.join();
    _exit(3);
}

[[noreturn]] void deleteUnderAReader()
{
    EKO_QUEUE_HANDLE queue = eko_queueCreate("q");
    std::thread([=] { readOne(queue, EKO_FOREVER), _exit(2); }).detach();
    eko_sleep(50);
    std::thread([=] { eko_queueDelete(queue), _exit(3); }).detach();
    eko_sleep(50);
    endUnlessHeld(queue, true, true);
}

TEST_F(QueueTest, queue_without_memory_stays_locked)
{
    EXPECT_EXIT(writeWithoutMemory(), testing::ExitedWithCode(0), "");
    EKO_QUEUE_HANDLE queue = eko_queueCreate("q");
    MemResult result = MemResult::done;
    {
        const FailNthOnTag fault(record(queue)->mtag, 1);
        EXPECT_EQ(tryQueueWrite(queue, nullptr, &result), 1003); // the pool's form does not
    }
    EXPECT_TRUE(freeForOthers(record(queue)->exclSem));
    EXPECT_TRUE(isOneReport(logged([&] {
                                const FailNthOnTag fault(record(queue)->mtag, 1);
                                EXPECT_EQ(eko_queueWrite(queue, nullptr, 0, 0, 0), 1003);
                            }),
                            "ekoqueue.cpp"));
    eko_syncExitExcl(record(queue)->exclSem);
    eko_queueDelete(queue);
}

TEST_F(QueueTest, queue_purged_under_a_reader_stays_locked)
{
    EXPECT_EXIT(purgeUnderAReader(), testing::ExitedWithCode(0), "");
}

TEST_F(QueueTest, queue_deletion_waits_for_a_reader)
{
    EXPECT_EXIT(deleteUnderAReader(), testing::ExitedWithCode(0), "");
}

// ---- creation, and the end of the library -----------------------------------------------------------------

std::vector<EKO_SEM> takeAllSemaphores()
{
    std::vector<EKO_SEM> taken;
    logged([&] {
        for (EKO_SEM sem; (sem = EKO_MUTEX_CREATE()) != EKO_SEM_INVALID;)
            taken.push_back(sem);
    });
    return taken;
}

TEST_F(QueueTest, queue_creation_fails_without_a_trace)
{
    for (EKO_SEM sem : takeAllSemaphores())
        eko_syncDelete(sem);
    acceptUsage(); // the table stays
    std::vector<EKO_SEM> taken = takeAllSemaphores();
    for (int spare = 0; spare < 3; ++spare, taken.pop_back()) {
        logged([&] { EXPECT_EQ(eko_queueCreate("q"), nullptr) << spare; });
        eko_syncDelete(taken.back());
    }
    eko_queueDelete(eko_queueCreate("q"));
    for (EKO_SEM sem : taken)
        eko_syncDelete(sem);

    const NoMoreMemory exhausted;
    EXPECT_TRUE(isOneReport(logged([&] { EXPECT_EQ(eko_queueCreate("q"), nullptr); }), "ekoqueue.cpp"));
}

TEST_F(QueueTest, queue_unlisted_deletion_is_counted)
{
    EKO_QUEUE_HANDLE queue = eko_queueCreate("q");
    EKO_QUEUE_NODE* listed = std::exchange(eko_queueGlobals()->qList, nullptr);
    eko_queueGlobals()->nQueues = 0;
    EXPECT_EQ(listed->hQ, queue);
    EXPECT_EQ(logged([&] { eko_queueDelete(queue); }), "Deleted too many queues");
    EXPECT_EQ(eko_queueGlobals()->nQueues, -1);
    EXPECT_EQ(logged([&] { eko_queueDelete(eko_queueCreate("q")); }), "Deleted too many queues");
}

TEST_F(QueueTest, queue_left_over_goes_with_the_library)
{
    EXPECT_EQ(eko_queueWrite(eko_queueCreate("a"), nullptr, 0, 0, 0), 0);
    eko_queueCreate("b");
    CapturedFd said(2); // a build with checks would tell of mutexes still held
    eko_term();
    EXPECT_EQ(eko_queueCreate("c"), nullptr);
    EXPECT_EQ(eko_init(), 0);
    EXPECT_EQ(eko_queueFind("a"), nullptr);
    EXPECT_EQ(eko_queueGlobals()->nQueues, 0);
    EXPECT_EQ(said.take(), "");
    acceptUsage();
}

// ---- many threads -----------------------------------------------------------------------------------------

constexpr uint32 MESSAGES = EKO_THREAD_SANITIZER ? 250000 : 1000000;
constexpr int32 PURGED = 7;

// What each message is goes by its number. Those of a writer that go to the tail keep their order.
constexpr bool toHead(uint32 number)
{
    return number % 16 == 0;
}
constexpr bool mayBePurged(uint32 number)
{
    return number % 10 == 3;
}

class QueueCrowdTest : public QueueTest, public testing::WithParamInterface<std::pair<uint32, uint32>> {
protected:
    void write(uint32 writer)
    {
        for (uint32 number = writer; number < MESSAGES; number += writers_) {
            const int32 id = mayBePurged(number) ? PURGED : 100;
            const int16 place = toHead(number) ? EKO_QUEUE_HEAD : EKO_QUEUE_TAIL;
            ASSERT_EQ(eko_queueWrite(queue_, &seen_[number], number, id, place), 0);
        }
    }

    void read()
    {
        uint32 last[4] = {};
        void* place;
        uint32 number;
        int32 status;
        const uint32 timeouts[] = {EKO_FOREVER, 0, 1, 20};
        for (uint32 i = 0; (status = eko_queueRead(queue_, &place, &number, nullptr, timeouts[i % 4])) != 3; ++i) {
            if (status != 0)
                continue;
            ASSERT_TRUE(place == &seen_[number] && seen_[number]++ == 0) << number;
            ASSERT_TRUE(toHead(number) || last[number % writers_] <= number) << number;
            last[number % writers_] = toHead(number) ? last[number % writers_] : number;
            missing_ -= mayBePurged(number) ? 0 : 1;
        }
    }

    void purgeNowAndThen() // with the readers' mutex, so that no reader is inside
    {
        for (; !written_; eko_sleep(1)) {
            const SemGuard lock(record(queue_)->mtSem);
            eko_queuePurge(queue_, PURGED);
        }
    }

    const uint32 writers_ = GetParam().first;
    const uint32 readers_ = GetParam().second;
    EKO_QUEUE_HANDLE queue_ = nullptr;
    std::vector<std::atomic<uint8>> seen_ = std::vector<std::atomic<uint8>>(MESSAGES);
    std::atomic<uint32> missing_ = MESSAGES - MESSAGES / 10; // to be read, and not to be purged
    std::atomic<bool> written_ = false;
};

TEST_P(QueueCrowdTest, nothing_is_lost_or_comes_twice)
{
    queue_ = eko_queueCreate("crowd");
    std::vector<std::thread> others;
    for (uint32 i = 0; i < readers_; ++i)
        others.emplace_back([&] { read(); });
    others.emplace_back([&] { purgeNowAndThen(); });
    inThreads(writers_, [&](uint32 writer) { write(writer); });
    written_ = true;
    while (missing_ > 0)
        eko_sleep(1);
    eko_sleep(5); // now one reader waits for a message, and the others for their turn
    eko_queueClose(queue_);
    for (std::thread& other : others)
        other.join();
    EXPECT_FALSE(std::any_of(seen_.begin(), seen_.end(), [&](auto& seen) {
        return seen == 0 && !mayBePurged(static_cast<uint32>(&seen - seen_.data()));
    }));
    eko_queueDelete(queue_);
}
INSTANTIATE_TEST_SUITE_P(crowds, QueueCrowdTest,
                         testing::Values(std::pair(1u, 1u), std::pair(4u, 1u), std::pair(1u, 4u),
                                         std::pair(4u, 4u)),
                         [](auto& crowd) {
                             return std::to_string(crowd.param.first) + "x" + std::to_string(crowd.param.second);
                         });

// Closing against the moment at which a reader begins to wait: a close that was missed would never end.
TEST_F(QueueTest, queue_close_is_never_missed)
{
    for (int i = 0; i < 2000; ++i) {
        EKO_QUEUE_HANDLE queue = eko_queueCreate("q");
        inThreads(2, [&](uint32 closing) {
            if (closing)
                eko_queueClose(queue);
            else
                EXPECT_EQ(readOne(queue, EKO_FOREVER), "3::0:0");
        });
        eko_queueDelete(queue);
    }
}

} // namespace
