// SPDX-License-Identifier: MIT
// Object pools: an item taken and given back.

#include "allocators.h"

namespace {

using namespace bench;

template <bool MUTEX> class EkoPool {
public:
    static constexpr const char* NAME = "eko";
    EkoPool()
    {
        const char* mutexName = MUTEX ? "bench" : nullptr;
        must(eko_poolCreate(EKO_TAG_INVALID, EKO_POOL_FIXED_SIZE, mutexName, &pool_) == 0, "eko_poolCreate");
    }
    ~EkoPool() { eko_poolDestroy(pool_); }
    EkoPool(const EkoPool&) = delete;
    EkoPool& operator=(const EkoPool&) = delete;

    void* take(size_t size) { return eko_poolGetMem(pool_, size, EKO_MEM_PLAIN, nullptr, __FILE__, __LINE__); }
    void give(void* item) { eko_poolPut(pool_, item); }

private:
    EKO_POOL pool_ = nullptr;
};

constexpr auto getPut = []<class Allocator>(State& state) {
    Allocator allocator;
    for (auto _ : state) {
        void* item = allocator.take(64);
        benchmark::DoNotOptimize(item);
        allocator.give(item);
    }
};

const bool registered[] = {
    item<EkoPool<false>, Jemalloc>("pool.plain", getPut),
    item<EkoPool<true>, Glibc>("pool.mutex", getPut),
};

} // namespace
