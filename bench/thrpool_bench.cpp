// SPDX-License-Identifier: MIT
// The thread pool: tiny jobs, and nothing but their way through the pool.

#if BENCH_APRUTIL
#include <apr_thread_pool.h>

#include "apr_pool.h"
#endif
#if BENCH_GLIB
#include <glib.h>
#endif

#include <latch>

#include "bench.h"

namespace {

using namespace bench;

constexpr unsigned WORKERS = 2;
constexpr ptrdiff_t JOBS = 100'000;

void countDown(void* latch)
{
    static_cast<std::latch*>(latch)->count_down();
}

class EkoThreadPool {
public:
    static constexpr const char* NAME = "eko";
    EkoThreadPool() { must(eko_thrpoolCreate(WORKERS, &pool_) == 0, "eko_thrpoolCreate"); }
    ~EkoThreadPool() { eko_thrpoolDestroy(pool_); }
    EkoThreadPool(const EkoThreadPool&) = delete;
    EkoThreadPool& operator=(const EkoThreadPool&) = delete;
    void add(std::latch* latch) { eko_thrpoolAddJob(pool_, job, latch, nullptr, nullptr, nullptr); }

private:
    static int32 job(void* latch)
    {
        countDown(latch);
        return 0;
    }
    EKO_THRPOOL* pool_ = nullptr;
};

#if BENCH_APRUTIL
class AprThreadPool {
public:
    static constexpr const char* NAME = "apr";
    AprThreadPool()
    {
        const apr_status_t made = apr_thread_pool_create(&threads_, WORKERS, WORKERS, pool_.get());
        must(made == APR_SUCCESS, "apr_thread_pool_create");
    }
    ~AprThreadPool() { apr_thread_pool_destroy(threads_); }
    AprThreadPool(const AprThreadPool&) = delete;
    AprThreadPool& operator=(const AprThreadPool&) = delete;
    void add(std::latch* latch)
    {
        apr_thread_pool_push(threads_, job, latch, APR_THREAD_TASK_PRIORITY_NORMAL, nullptr);
    }

private:
    static void* APR_THREAD_FUNC job(apr_thread_t*, void* latch)
    {
        countDown(latch);
        return nullptr;
    }
    AprPool pool_;
    apr_thread_pool_t* threads_ = nullptr;
};
#else
using AprThreadPool = Absent;
#endif

#if BENCH_GLIB
class GlibThreadPool {
public:
    static constexpr const char* NAME = "glib";
    GlibThreadPool() : pool_(g_thread_pool_new(job, nullptr, WORKERS, TRUE, nullptr)) {}
    ~GlibThreadPool() { g_thread_pool_free(pool_, FALSE, TRUE); }
    GlibThreadPool(const GlibThreadPool&) = delete;
    GlibThreadPool& operator=(const GlibThreadPool&) = delete;
    void add(std::latch* latch) { g_thread_pool_push(pool_, latch, nullptr); }

private:
    static void job(void* latch, void*) { countDown(latch); }
    GThreadPool* pool_;
};
#else
using GlibThreadPool = Absent;
#endif

// From the first job added to the last one done. A pool is new each time, as ours keeps the records of its jobs.
constexpr auto tinyJobs = []<class Pool>(State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        {
            Pool pool;
            std::latch done(JOBS);
            state.ResumeTiming();
            for (ptrdiff_t i = 0; i < JOBS; ++i)
                pool.add(&done);
            done.wait();
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
};

const bool registered =
    item<EkoThreadPool, AprThreadPool, GlibThreadPool>("thrpool.jobs", {.wall = true}, tinyJobs);

} // namespace
