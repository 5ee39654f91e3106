// SPDX-License-Identifier: MIT
// Memory: taking, growing and giving back blocks; arenas that go with all their blocks.

#include <vector>

#include "allocators.h"

namespace {

using namespace bench;

// Sizes up to the largest, each as likely as the other, in an order that no predictor learns.
class Sizes {
public:
    explicit Sizes(size_t largest) : count_(largest - SMALLEST + 1) {}

    size_t next()
    {
        state_ = state_ * 6364136223846793005U + 1442695040888963407U;
        return SMALLEST + static_cast<size_t>((state_ >> 33) * count_ >> 31);
    }

private:
    static constexpr uint64_t SMALLEST = 16;
    uint64_t count_;
    uint64_t state_ = 20240229;
};

constexpr size_t MIXED = 512;
constexpr size_t SMALL = 64;

// ---- taking and giving back -----------------------------------------------------------------------------------

// Each step frees the oldest of that many blocks and takes a new one.
template <class Allocator> void replaceOldest(State& state, size_t alive)
{
    Allocator allocator;
    Sizes sizes(MIXED);
    std::vector<void*> blocks(alive);
    for (void*& block : blocks)
        block = allocator.take(sizes.next());
    size_t oldest = 0;
    for (auto _ : state) {
        allocator.give(blocks[oldest]);
        void* block = allocator.take(sizes.next());
        benchmark::DoNotOptimize(block);
        blocks[oldest] = block;
        oldest = oldest + 1 == alive ? 0 : oldest + 1;
    }
    for (void* block : blocks)
        allocator.give(block);
}

constexpr auto mixed = []<class Allocator>(State& state) { replaceOldest<Allocator>(state, 64); };
constexpr auto mixedByLive = []<class Allocator>(State& state) {
    replaceOldest<Allocator>(state, static_cast<size_t>(state.range(0)));
};

// ---- growing --------------------------------------------------------------------------------------------------

// A block that grows by 16 bytes at a time, and goes.
template <size_t LARGEST> constexpr auto grow = []<class Allocator>(State& state) {
    Allocator allocator;
    for (auto _ : state) {
        void* block = allocator.take(16);
        for (size_t size = 32; size <= LARGEST; size += 16) {
            block = allocator.grow(block, size);
            benchmark::DoNotOptimize(block);
        }
        allocator.give(block);
    }
};

// ---- arenas ---------------------------------------------------------------------------------------------------

// A linked list in an arena: each block is written to, and none is freed by itself.
template <class Arena> void fillArena(size_t blocks, size_t largest)
{
    Arena arena;
    Sizes sizes(largest);
    void* newest = nullptr;
    for (size_t i = 0; i < blocks; ++i) {
        void** block = static_cast<void**>(arena.take(sizes.next()));
        *block = newest;
        newest = block;
    }
    benchmark::DoNotOptimize(newest);
}

constexpr auto hundredThousand = []<class Arena>(State& state) {
    for (auto _ : state)
        fillArena<Arena>(100000, SMALL);
};
constexpr auto ten = []<class Arena>(State& state) {
    for (auto _ : state)
        fillArena<Arena>(10, MIXED);
};
constexpr auto arenaBySize = []<class Arena>(State& state) { // the time of one block
    while (state.KeepRunningBatch(state.range(0)))
        fillArena<Arena>(static_cast<size_t>(state.range(0)), SMALL);
};

const bool registered[] = {
    item<EkoBlockTag, Jemalloc>("alloc.block", mixed),
    item<EkoThreadTag, Jemalloc>("alloc.thread", mixed),
    item<EkoListTag, Glibc>("alloc.list", mixed),
    item<EkoGlobalTag, Glibc>("alloc.global", mixed),
    item<EkoStackTag, AprArena>("release.stack", hundredThousand),
    item<EkoBlockTag, AprArena>("release.block", hundredThousand),
    item<EkoStackTag, Talloc>("tag.ten", ten),
    item<EkoThreadTag, Mimalloc>("grow.8k", grow<8192>),
    item<EkoThreadTag, Glibc>("grow.64k", grow<65536>),

    item<EkoBlockTag, Jemalloc>("scale.block.live", {.sizes = {10, 100, 1000, 10000, 100000, 1000000}},
                                mixedByLive),
    item<EkoListTag, Jemalloc>("scale.list.live", {.sizes = {10, 100, 1000, 10000, 100000, 1000000}}, mixedByLive),
    item<EkoStackTag, AprArena>("scale.stack.live", {.sizes = {10, 100, 1000, 10000, 100000, 1000000}},
                                arenaBySize),
    item<EkoThreadTag, Jemalloc>("scale.alloc.threads", {.threads = 1}, mixed),
    item<EkoThreadTag, Jemalloc>("scale.alloc.threads", {.threads = 2}, mixed),
    item<EkoThreadTag, Jemalloc>("scale.alloc.threads", {.threads = 4}, mixed),
    item<EkoGlobalTag, Jemalloc>("scale.global.threads", {.threads = 1}, mixed),
    item<EkoGlobalTag, Jemalloc>("scale.global.threads", {.threads = 2}, mixed),
    item<EkoGlobalTag, Jemalloc>("scale.global.threads", {.threads = 4}, mixed),
};

} // namespace
