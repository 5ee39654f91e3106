// SPDX-License-Identifier: MIT
// Mutexes and events, and how they hold out when there are many of them or several threads.

#include <pthread.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

#include "bench.h"

namespace {

using namespace bench;

// ---- mutexes ----------------------------------------------------------------------------------------------

class EkoMutex {
public:
    static constexpr const char* NAME = "eko";
    EkoMutex() : sem_(EKO_MUTEX_CREATE()) { must(sem_ != EKO_SEM_INVALID, "eko_syncCreate_check"); }
    ~EkoMutex() { eko_syncDelete(sem_); }
    EkoMutex(const EkoMutex&) = delete;
    EkoMutex& operator=(const EkoMutex&) = delete;
    void enter() { eko_syncEnterExcl(sem_); }
    void leave() { eko_syncExitExcl(sem_); }

private:
    EKO_SEM sem_;
};

template <int TYPE> class PosixMutex {
public:
    static constexpr const char* NAME = "pthread";
    PosixMutex()
    {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, TYPE);
        must(pthread_mutex_init(&mutex_, &attributes) == 0, "pthread_mutex_init");
        pthread_mutexattr_destroy(&attributes);
    }
    ~PosixMutex() { pthread_mutex_destroy(&mutex_); }
    PosixMutex(const PosixMutex&) = delete;
    PosixMutex& operator=(const PosixMutex&) = delete;
    void enter() { pthread_mutex_lock(&mutex_); }
    void leave() { pthread_mutex_unlock(&mutex_); }

private:
    pthread_mutex_t mutex_;
};

using NormalMutex = PosixMutex<PTHREAD_MUTEX_NORMAL>;
using RecursiveMutex = PosixMutex<PTHREAD_MUTEX_RECURSIVE>;

constexpr auto pair = []<class Mutex>(State& state) {
    Mutex mutex;
    for (auto _ : state) {
        mutex.enter();
        mutex.leave();
    }
};

// All threads want the same mutex.
constexpr auto contended = []<class Mutex>(State& state) {
    static Mutex* mutex;
    if (state.thread_index() == 0)
        mutex = new Mutex;
    for (auto _ : state) { // begins and ends together
        mutex->enter();
        mutex->leave();
    }
    if (state.thread_index() == 0)
        delete mutex;
};

constexpr auto reentry = []<class Mutex>(State& state) {
    Mutex mutex;
    mutex.enter();
    for (auto _ : state) {
        mutex.enter();
        mutex.leave();
    }
    mutex.leave();
};

// ---- events -----------------------------------------------------------------------------------------------

class EkoEvent {
public:
    static constexpr const char* NAME = "eko";
    EkoEvent() : sem_(EKO_EVENT_CREATE()) { must(sem_ != EKO_SEM_INVALID, "eko_syncCreate_check"); }
    ~EkoEvent() { eko_syncDelete(sem_); }
    EkoEvent(const EkoEvent&) = delete;
    EkoEvent& operator=(const EkoEvent&) = delete;
    void set() { eko_syncResume(sem_); }
    void wait() { eko_syncWait(sem_, EKO_FOREVER); }
    void reset() { eko_syncStart(sem_); }

private:
    EKO_SEM sem_;
};

class PosixEvent {
public:
    static constexpr const char* NAME = "pthread";
    void set()
    {
        pthread_mutex_lock(&mutex_);
        signalled_ = true;
        pthread_cond_broadcast(&condition_);
        pthread_mutex_unlock(&mutex_);
    }
    void wait()
    {
        pthread_mutex_lock(&mutex_);
        while (!signalled_)
            pthread_cond_wait(&condition_, &mutex_);
        pthread_mutex_unlock(&mutex_);
    }
    void reset()
    {
        pthread_mutex_lock(&mutex_);
        signalled_ = false;
        pthread_mutex_unlock(&mutex_);
    }

private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condition_ = PTHREAD_COND_INITIALIZER;
    bool signalled_ = false;
};

constexpr auto signalAndWait = []<class Event>(State& state) {
    Event event;
    for (auto _ : state) {
        event.set();
        event.wait();
        event.reset();
    }
};

// ---- many of them -----------------------------------------------------------------------------------------

template <class Mutex> std::vector<std::unique_ptr<Mutex>> alive(size_t count)
{
    std::vector<std::unique_ptr<Mutex>> mutexes(count);
    for (auto& mutex : mutexes)
        mutex = std::make_unique<Mutex>();
    return mutexes;
}

// Each mutex in its turn, in an order that no cache foresees.
constexpr auto pairAmongMany = []<class Mutex>(State& state) {
    auto mutexes = alive<Mutex>(static_cast<size_t>(state.range(0)));
    std::shuffle(mutexes.begin(), mutexes.end(), std::mt19937());
    size_t next = 0;
    for (auto _ : state) {
        mutexes[next]->enter();
        mutexes[next]->leave();
        next = next + 1 < mutexes.size() ? next + 1 : 0;
    }
};

constexpr auto createAmongMany = []<class Mutex>(State& state) {
    const auto mutexes = alive<Mutex>(static_cast<size_t>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(std::make_unique<Mutex>());
};

// Each thread has a mutex of its own, made one after the other.
constexpr auto ownMutexes = []<class Mutex>(State& state) {
    static std::vector<std::unique_ptr<Mutex>> mutexes;
    if (state.thread_index() == 0)
        mutexes = alive<Mutex>(static_cast<size_t>(state.threads()));
    for (auto _ : state) { // begins and ends together
        mutexes[static_cast<size_t>(state.thread_index())]->enter();
        mutexes[static_cast<size_t>(state.thread_index())]->leave();
    }
    if (state.thread_index() == 0)
        mutexes.clear();
};

const std::initializer_list<int64_t> NUMBERS = {10, 100, 1'000, 10'000, 100'000, 130'000};

bool registerThreads(int threads)
{
    const Options options = {.threads = threads, .wall = true};
    return item<EkoMutex, NormalMutex>("scale.mutex_shared.threads", options, contended) &&
           item<EkoMutex, NormalMutex>("scale.mutex_each.threads", options, ownMutexes);
}

const bool registered =
    item<EkoMutex, NormalMutex>("mutex.pair", pair) &&
    item<EkoMutex, NormalMutex>("mutex.contended", {.threads = 2}, contended) &&
    item<EkoMutex, RecursiveMutex>("mutex.reentry", reentry) &&
    item<EkoEvent, PosixEvent>("event.signal", signalAndWait) &&
    item<EkoMutex, NormalMutex>("scale.mutex_pair.alive", {.sizes = NUMBERS}, pairAmongMany) &&
    item<EkoMutex, NormalMutex>("scale.mutex_create.alive", {.sizes = NUMBERS}, createAmongMany) &&
    registerThreads(1) && registerThreads(2) && registerThreads(4);

} // namespace
