// SPDX-License-Identifier: MIT
// Message queues: order, waiting, closing, what stays locked, and many threads at once.
#include <deque>

#include "ekoqueue_int.h"
#include "support/faults.h"
#include "support/fixture.h"

class QueueTest : public EkoTest {
protected:
    void SetUp() override
    {
        EkoTest::SetUp();
        eko_queueDelete(eko_queueCreate("first use makes the module's record"));
        acceptUsage();
        q_ = static_cast<EKO_QUEUE*>(eko_queueCreate("q"));
    }
    void TearDown() override
    {
        eko_queueDelete(q_);
        EkoTest::TearDown();
    }

    // "status:text:len:id"
    std::string read(uint32 timeout)
    {
        void* text = nullptr;
        uint32 len = 0;
        int32 id = 0;
        const std::string status = std::to_string(eko_queueRead(q_, &text, &len, &id, timeout));
        return status + ':' + (text ? static_cast<char*>(text) : "") + ':' + std::to_string(len) + ':' +
               std::to_string(id);
    }
    int32 write(int32 id = 0, int16 flag = 0) { return eko_queueWrite(q_, text_, 5, id, flag); }

    // The mutexes that a thread is in: "excl mt ", or less. A semaphore's slot begins with its mutex.
    std::string held()
    {
        const auto name = [](EKO_SEM sem, const char* ifHeld) {
            auto* mutex = static_cast<pthread_mutex_t*>(const_cast<void*>(sem));
            return pthread_mutex_trylock(mutex) == 0 && pthread_mutex_unlock(mutex) == 0 ? "" : ifHeld;
        };
        return std::string(name(q_->exclSem, "excl ")) + name(q_->mtSem, "mt ");
    }

    void untilHeld(const char* mutexes)
    {
        until([=, this] { return held() == mutexes; });
    }

    EKO_QUEUE* q_ = nullptr;
    char text_[5] = "text";
};

TEST_F(QueueTest, queue_agrees_with_a_model)
{
    std::deque<std::pair<int32, std::string>> model; // a message's identifier, and what its reader is to get
    std::mt19937 random(1);
    for (uint32 step = 0; step < 20000; ++step) {
        const int32 id = static_cast<int32>(random() % 5);
        const auto flags = static_cast<int16>(random());
        const auto action = random() % 20;
        if (action == 0) {
            eko_queuePurge(q_, id == 0 ? -1 : id);
            std::erase_if(model, [&](auto& m) { return id == 0 || m.first == id; });
        } else if (action <= 10) {
            ASSERT_EQ(eko_queueWrite(q_, text_, step, id, flags), 0);
            const auto expected = "0:text:" + std::to_string(step) + ':' + std::to_string(id);
            flags & 2 ? model.emplace_front(id, expected) : model.emplace_back(id, expected);
        } else if (model.empty()) {
            ASSERT_EQ(read(0), "2::0:0");
        } else {
            ASSERT_EQ(read(0), model.front().second);
            model.pop_front();
        }
        ASSERT_EQ(eko_queueCount(q_), static_cast<int32>(model.size()));
    }
    EXPECT_EQ(write(), 0);
    eko_queueClose(q_), eko_queuePurge(q_, -1); // closed, it keeps what it has
    EXPECT_EQ(eko_queueCount(q_), static_cast<int32>(model.size() + 1));
    EXPECT_EQ(read(0), "3::0:0");
}

TEST_F(QueueTest, queue_is_found_by_name)
{
    EKO_QUEUE_HANDLE newer = eko_queueCreate("q");
    EKO_QUEUE_HANDLE unnamed = eko_queueCreate(nullptr);
    EXPECT_EQ(eko_queueFind("q"), newer);
    EXPECT_EQ(eko_queueFind(""), unnamed);
    EXPECT_TRUE(!eko_queueFind("Q") && !eko_queueFind(nullptr));
    eko_queueDelete(newer);
    EXPECT_EQ(eko_queueFind("q"), q_);
    eko_queueDelete(unnamed);
}

TEST_F(QueueTest, queue_without_a_name_is_reported_and_used)
{
    char* name = std::exchange(q_->name, nullptr);
    EXPECT_EQ(logged([&] { EXPECT_EQ(write(7), 0); }), "Invalid queue handle");
    EXPECT_EQ(logged([&] { EXPECT_EQ(read(0), "0:text:5:7"); }), "Invalid queue handle");
    EXPECT_EQ(logged([&] { eko_queuePurge(q_, -1); }), "Invalid queue handle");
    EXPECT_EQ(eko_queueFind("q"), nullptr);
    eko_queueDelete(q_); // ignored
    EXPECT_EQ(eko_queueGlobals()->nQueues, 1);
    q_->name = name;
    EXPECT_EQ(eko_queueRead(q_, nullptr, nullptr, nullptr, 0), 1013);
    const std::string five = logged([&] {
        EXPECT_EQ(eko_queueWrite(nullptr, nullptr, 0, 0, 0) + eko_queueCount(nullptr), 2004);
        EXPECT_EQ(eko_queueRead(nullptr, nullptr, nullptr, nullptr, 0), 1002);
        eko_queuePurge(nullptr, -1), eko_queueClose(nullptr), eko_queueDelete(nullptr);
    });
    EXPECT_TRUE(matches(five, "(Invalid queue handle){5}"));
}

TEST_F(QueueTest, queue_waits_and_closes)
{
    const uint64 begun = eko_timeMilliSecs();
    EXPECT_EQ(read(200), "1001::0:0");
    EXPECT_GE(eko_timeMilliSecs() - begun, 199u);
    for (const bool waiting : {true, false}) { // the first reader waits, or is stopped between its two looks
        for (const bool closing : {false, true}) {
            std::jthread first, second;
            const SemGuard lock(waiting ? EKO_SEM_INVALID : q_->exclSem);
            first = std::jthread([&] { EXPECT_EQ(read(EKO_FOREVER), closing ? "3::0:0" : "0:text:5:-3"); });
            untilHeld(waiting ? "mt " : "excl mt ");
            second = std::jthread([&] { EXPECT_EQ(read(0), closing ? "3::0:0" : "2::0:0"); }); // has to wait too
            eko_sleep(40);
            EXPECT_TRUE(waiting || eko_syncWait(q_->entrySem, 0) == 0); // the reset belongs to the second look
            closing ? eko_queueClose(q_) : void(write(-3));
        }
        EXPECT_EQ(write(), 3);
        EXPECT_EQ(read(0), "3::0:0");
        EXPECT_EQ(held(), "");
        eko_queueDelete(q_);
        q_ = static_cast<EKO_QUEUE*>(eko_queueCreate("q"));
    }
}

TEST_F(QueueTest, queue_without_memory_stays_locked)
{
    MemResult result = MemResult::done;
    EXPECT_TRUE(write() == 0 && write() == 0 && tryQueueReserve(q_, &result)); // 2 records to use again, and 1
    EXPECT_EQ(read(0), "0:text:5:0");
    eko_queuePurge(q_, -1);
    const std::string said = logged([&] {
        const FailNthOnTag fault(q_->mtag, 1, FailNthAlloc::ALL_FROM_THERE);
        EXPECT_TRUE(write() == 0 && write() == 0 && write() == 0);
        EXPECT_EQ(tryQueueWrite(q_, nullptr, &result), 1003); // the pool's form leaves
        EXPECT_EQ(held(), "");
        EXPECT_EQ(write(), 1003);
        EXPECT_EQ(held(), "excl ");
    });
    EXPECT_TRUE(isOneReport(said, "ekoqueue.cpp"));
    EXPECT_EQ(eko_queueCount(q_), 3);
    eko_syncExitExcl(q_->exclSem);
}

TEST_F(QueueTest, queue_purged_under_a_reader_stays_locked)
{
    const std::string said = logged([&] {
        std::jthread reader([&] {
            EXPECT_EQ(read(EKO_FOREVER), "1002::0:0");
            EXPECT_EQ(held(), "excl mt ");
            eko_syncExitExcl(q_->exclSem), eko_syncExitExcl(q_->mtSem);
        });
        until([this] { return eko_syncWait(q_->entrySem, 0) != 0; }); // the reader has found nothing, and reset it
        const SemGuard lock(q_->exclSem);
        write(), eko_queuePurge(q_, -1);
    });
    EXPECT_EQ(said, "unexpected empty queue on q");
}

TEST_F(QueueTest, queue_deletion_waits_for_a_reader)
{
    std::atomic<bool> deleted = false;
    std::thread reader([&] { EXPECT_EQ(read(EKO_FOREVER), "3::0:0"); });
    untilHeld("mt ");
    std::thread deleter([&] { eko_queueDelete(q_), deleted = true; });
    untilHeld("excl mt ");
    eko_sleep(20);
    ASSERT_FALSE(deleted);
    EXPECT_EQ(eko_queueFind("q"), nullptr); // the list is free
    eko_queueClose(q_);                     // takes no lock, and so lets both go on
    reader.join(), deleter.join();
    q_ = nullptr;
}

TEST_F(QueueTest, queue_unlisted_deletion_is_counted)
{
    EKO_QUEUE_GLOBALS* globals = eko_queueGlobals();
    EXPECT_EQ(globals->nQueues, 1);
    EXPECT_EQ(std::exchange(globals->qList, nullptr)->hQ, q_);
    globals->nQueues = 0;
    EXPECT_EQ(logged([&] { eko_queueDelete(std::exchange(q_, nullptr)); }), "Deleted too many queues");
    EXPECT_EQ(globals->nQueues, -1);
    EXPECT_EQ(logged([&] { eko_queueDelete(eko_queueCreate("q")); }), "Deleted too many queues");
}

TEST_F(QueueTest, queue_left_over_goes_with_the_library)
{
    eko_queueCreate("another");
    EXPECT_EQ(write(), 0);
    CapturedFd said(2); // a build with checks would tell of mutexes still held
    eko_term();
    eko_queueDelete(std::exchange(q_, nullptr)); // nothing any more
    EXPECT_TRUE(!eko_queueCreate("c") && !eko_queueFind("q"));
    EXPECT_TRUE(eko_init() == 0 && !eko_queueFind("q"));
    EXPECT_EQ(said.take(), "");
    acceptUsage();
}

// ---- many threads -----------------------------------------------------------------------------------------

constexpr uint32 MESSAGES = EKO_THREAD_SANITIZER ? 250000 : 1000000;

// What each message is goes by its number. Those of a writer that go to the tail keep their order.
constexpr auto toHead = [](uint32 number) { return number % 16 == 0; };

class QueueCrowdTest : public QueueTest, public testing::WithParamInterface<std::pair<uint32, uint32>> {
protected:
    void writeAll(uint32 writer)
    {
        for (uint32 number = writer; number < MESSAGES; number += writers_) {
            const int16 place = toHead(number) ? EKO_QUEUE_HEAD : EKO_QUEUE_TAIL;
            ASSERT_EQ(eko_queueWrite(q_, &seen_[number], number, 0, place), 0);
        }
    }

    void readAll()
    {
        uint32 last[4] = {};
        void* place;
        uint32 number;
        int32 status;
        const uint32 timeouts[] = {EKO_FOREVER, 0, 1, 20};
        for (uint32 i = 0; (status = eko_queueRead(q_, &place, &number, nullptr, timeouts[i % 4])) != 3; ++i) {
            if (status != 0)
                continue;
            ASSERT_TRUE(place == &seen_[number] && seen_[number]++ == 0) << number;
            ASSERT_TRUE(toHead(number) || std::exchange(last[number % writers_], number) <= number) << number;
            --missing_;
        }
    }

    const uint32 writers_ = GetParam().first;
    const uint32 readers_ = GetParam().second;
    std::vector<std::atomic<uint8>> seen_ = std::vector<std::atomic<uint8>>(MESSAGES);
    std::atomic<uint32> missing_ = MESSAGES; // to be read
};

TEST_P(QueueCrowdTest, nothing_is_lost_or_comes_twice)
{
    inThreads(writers_ + readers_, [&](uint32 i) {
        i < readers_ ? readAll() : writeAll(i - readers_);
        until([this] { return missing_ == 0; }); // none is read twice: then each was read
        eko_sleep(5); // now one reader waits for a message, and the others for their turn
        eko_queueClose(q_);
    });
}
INSTANTIATE_TEST_SUITE_P(crowds, QueueCrowdTest,
                         testing::Values(std::pair(1u, 1u), std::pair(4u, 1u), std::pair(1u, 4u),
                                         std::pair(4u, 4u)));
