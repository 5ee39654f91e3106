// SPDX-License-Identifier: MIT
// Message queues: in one thread, between threads, and with many messages in them.

#if BENCH_APRUTIL
#include <apr_queue.h>

#include "apr_pool.h"
#endif
#if BENCH_GLIB
#include <glib.h>
#endif

#include <thread>
#include <vector>

#include "bench.h"

namespace {

using namespace bench;

// ---- the queues: at most `capacity` messages are in one at a time --------------------------------------------

class EkoQueue {
public:
    static constexpr const char* NAME = "eko";
    explicit EkoQueue(size_t /*capacity*/) : queue_(eko_queueCreate("bench")) { must(queue_, "eko_queueCreate"); }
    ~EkoQueue() { eko_queueDelete(queue_); }
    EkoQueue(const EkoQueue&) = delete;
    EkoQueue& operator=(const EkoQueue&) = delete;
    void write(void* message) { eko_queueWrite(queue_, message, 0, 0, EKO_QUEUE_TAIL); }
    void* read()
    {
        void* message = nullptr;
        eko_queueRead(queue_, &message, nullptr, nullptr, EKO_FOREVER);
        return message;
    }

private:
    EKO_QUEUE_HANDLE queue_;
};

#if BENCH_APRUTIL
class AprQueue {
public:
    static constexpr const char* NAME = "apr";
    explicit AprQueue(size_t capacity)
    {
        const auto size = static_cast<unsigned>(capacity);
        must(apr_queue_create(&queue_, size, pool_.get()) == APR_SUCCESS, "apr_queue_create");
    }
    void write(void* message) { apr_queue_push(queue_, message); }
    void* read()
    {
        void* message = nullptr;
        apr_queue_pop(queue_, &message);
        return message;
    }

private:
    AprPool pool_;
    apr_queue_t* queue_ = nullptr;
};
#else
using AprQueue = Absent;
#endif

#if BENCH_GLIB
class GlibQueue {
public:
    static constexpr const char* NAME = "glib";
    explicit GlibQueue(size_t /*capacity*/) : queue_(g_async_queue_new()) {}
    ~GlibQueue() { g_async_queue_unref(queue_); }
    GlibQueue(const GlibQueue&) = delete;
    GlibQueue& operator=(const GlibQueue&) = delete;
    void write(void* message) { g_async_queue_push(queue_, message); }
    void* read() { return g_async_queue_pop(queue_); }

private:
    GAsyncQueue* queue_;
};
#else
using GlibQueue = Absent;
#endif

int message; // what is sent: its address

// ---- one thread -------------------------------------------------------------------------------------------

template <class Queue> void burst(State& state, size_t length)
{
    Queue queue(length);
    for (auto _ : state) {
        for (size_t i = 0; i < length; ++i)
            queue.write(&message);
        for (size_t i = 0; i < length; ++i)
            benchmark::DoNotOptimize(queue.read());
    }
}
constexpr auto one = []<class Queue>(State& state) { burst<Queue>(state, 1); };
constexpr auto thousand = []<class Queue>(State& state) { burst<Queue>(state, 1000); };

constexpr auto withDepth = []<class Queue>(State& state) {
    const auto depth = static_cast<size_t>(state.range(0));
    Queue queue(depth + 1);
    for (size_t i = 0; i < depth; ++i)
        queue.write(&message);
    for (auto _ : state) {
        queue.write(&message);
        benchmark::DoNotOptimize(queue.read());
    }
};

// ---- threads ----------------------------------------------------------------------------------------------

constexpr size_t MESSAGES = 100'000; // all producers together, through a queue that has room for them

// Time is per message, the starting and ending of the producers included.
template <class Queue> void produceAndConsume(State& state, size_t producers)
{
    Queue queue(MESSAGES);
    while (state.KeepRunningBatch(MESSAGES)) {
        std::vector<std::thread> threads;
        for (size_t i = 0; i < producers; ++i) {
            threads.emplace_back([&queue, producers] {
                for (size_t sent = 0; sent < MESSAGES / producers; ++sent)
                    queue.write(&message);
            });
        }
        for (size_t received = 0; received < MESSAGES; ++received)
            must(queue.read() == &message, "reading a queue");
        for (std::thread& thread : threads)
            thread.join();
    }
}
constexpr auto oneToOne = []<class Queue>(State& state) { produceAndConsume<Queue>(state, 1); };
constexpr auto fourToOne = []<class Queue>(State& state) { produceAndConsume<Queue>(state, 4); };
constexpr auto manyToOne = []<class Queue>(State& state) {
    produceAndConsume<Queue>(state, static_cast<size_t>(state.range(0)));
};

const Options WALL = {.wall = true};
const Options DEPTHS = {.sizes = {10, 100, 1'000, 10'000, 100'000, 1'000'000, 10'000'000}};
const Options PRODUCERS = {.wall = true, .sizes = {1, 2, 4}};

const bool registered = item<EkoQueue, AprQueue, GlibQueue>("queue.one", one) &&
                        item<EkoQueue, AprQueue, GlibQueue>("queue.burst", thousand) &&
                        item<EkoQueue, AprQueue, GlibQueue>("queue.one_to_one", WALL, oneToOne) &&
                        item<EkoQueue, AprQueue, GlibQueue>("queue.four_to_one", WALL, fourToOne) &&
                        item<EkoQueue, AprQueue>("scale.queue.depth", DEPTHS, withDepth) &&
                        item<EkoQueue, AprQueue>("scale.queue.producers", PRODUCERS, manyToOne);

} // namespace
