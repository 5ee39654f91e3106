// Memory: taking, growing and giving back blocks.

#include "allocators.h"

namespace {

using namespace bench;

// Takes and frees blocks of 16 to 512 bytes, oldest first.
constexpr size_t ALIVE = 64;

constexpr auto mixed = []<class Allocator>(State& state) {
    void* blocks[ALIVE];
    unsigned i = 0;
    for (void*& block : blocks)
        block = Allocator::take(16);
    for (auto _ : state) {
        void*& block = blocks[i % ALIVE];
        Allocator::give(block);
        block = Allocator::take(16 + (i * 2654435761U >> 7) % 497);
        benchmark::DoNotOptimize(block);
        ++i;
    }
    for (void* block : blocks)
        Allocator::give(block);
};

const bool registered = item<EkoThreadTag, Jemalloc>("alloc.thread", mixed);

} // namespace
