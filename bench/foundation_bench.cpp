// What the foundation costs beside what the C library offers for the same: memory, text, locks.

#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>

#include "eko.h"

namespace {

constexpr size_t SIZES[] = {24, 200, 1500, 7000}; // one in each of a few size classes
constexpr size_t BLOCKS = 64;                     // alive at once

// Takes and frees blocks of mixed sizes, oldest first.
template <class Take, class Give> void churn(benchmark::State& state, Take take, Give give)
{
    void* blocks[BLOCKS] = {};
    size_t i = 0;
    for (auto _ : state) {
        void*& block = blocks[i % BLOCKS];
        give(block);
        block = take(SIZES[i % 4]);
        benchmark::DoNotOptimize(block);
        ++i;
    }
    for (void* block : blocks)
        give(block);
}

void memoryOnTag(benchmark::State& state, EKO_MEMTAG tag)
{
    churn(
        state, [=](size_t size) { return EKO_ALLOC(size, tag); }, [=](void* block) { EKO_FREE(block, tag); });
}

void memoryOfNewTag(benchmark::State& state, EKO_ALLOCATOR_TYPE type)
{
    const EKO_MEMTAG tag = EKO_TAG_CREATE(type);
    memoryOnTag(state, tag);
    EKO_TAG_DESTROY(tag);
}

BENCHMARK_CAPTURE(memoryOnTag, thread, EKO_THREAD_TAG);
BENCHMARK_CAPTURE(memoryOnTag, global, EKO_GLOBAL_TAG);
BENCHMARK_CAPTURE(memoryOfNewTag, list, LIST_ALLOCATOR);
BENCHMARK_CAPTURE(memoryOfNewTag, legacy, LEGACY_ALLOCATOR);

void memoryOfMalloc(benchmark::State& state)
{
    churn(state, malloc, free);
}
BENCHMARK(memoryOfMalloc);

using Snprintf = int (*)(char* str, size_t size, const char* fmt, ...);

void formatLine(benchmark::State& state, Snprintf print)
{
    char line[128];
    for (auto _ : state)
        benchmark::DoNotOptimize(
            print(line, sizeof(line), "%s:%d: page %u of %08x, %5.2f%%", "log", 42, 7u, 99u, 12.5));
}
BENCHMARK_CAPTURE(formatLine, eko, eko_snprintf);
BENCHMARK_CAPTURE(formatLine, libc, snprintf);

void mutexOfEko(benchmark::State& state)
{
    const EKO_SEM sem = EKO_MUTEX_CREATE();
    for (auto _ : state) {
        eko_syncEnterExcl(sem);
        eko_syncExitExcl(sem);
    }
    eko_syncDelete(sem);
}
BENCHMARK(mutexOfEko);

void mutexOfPosix(benchmark::State& state)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : state) {
        pthread_mutex_lock(&mutex);
        pthread_mutex_unlock(&mutex);
    }
}
BENCHMARK(mutexOfPosix);

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (eko_init() != 0)
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    eko_term();
    return 0;
}
