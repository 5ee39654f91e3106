// SPDX-License-Identifier: MIT
// A pool of the peer APR, which most of its calls want.

#ifndef EKO_BENCH_APR_POOL_H
#define EKO_BENCH_APR_POOL_H

#include <apr_general.h>
#include <apr_pools.h>

#include "bench.h"

namespace bench {

class AprPool {
public:
    AprPool()
    {
        static const apr_status_t started = apr_initialize();
        must(started == APR_SUCCESS, "apr_initialize");
        must(apr_pool_create(&pool_, nullptr) == APR_SUCCESS, "apr_pool_create");
    }
    ~AprPool() { apr_pool_destroy(pool_); }
    AprPool(const AprPool&) = delete;
    AprPool& operator=(const AprPool&) = delete;
    apr_pool_t* get() const { return pool_; }

private:
    apr_pool_t* pool_ = nullptr;
};

} // namespace bench

#endif // EKO_BENCH_APR_POOL_H
