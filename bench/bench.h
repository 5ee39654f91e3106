// SPDX-License-Identifier: MIT
// The bench's frame: an item of work, written once, run by every implementation that is there.
//
//   struct Eko    { static constexpr const char* NAME = "eko";   static void* take(size_t size); ... };
//   struct Malloc { static constexpr const char* NAME = "glibc"; static void* take(size_t size); ... };
//
//   const bool registered = bench::item<Eko, Malloc>("alloc.mixed", []<class Allocator>(bench::State& state) {
//       for (auto _ : state)
//           ...
//   });
//
// registers alloc.mixed@eko and alloc.mixed@glibc. A peer whose library the build does not have is an alias of
// bench::Absent and is left out; one that is looked for at run time says so in a static bool there(). What is asked
// of an item stands in goals.tsv.

#ifndef EKO_BENCH_H
#define EKO_BENCH_H

#include <benchmark/benchmark.h>

#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <type_traits>

#include "eko.h"

namespace bench {

using State = benchmark::State;

struct Absent {};

// How an item is run beside the defaults: one thread, its processor time, in nanoseconds.
struct Options {
    int threads = 1;                           // more than one: measured by the clock, in every thread
    bool wall = false;                         // measured by the clock: the work waits, or others do it
    std::initializer_list<int64_t> sizes = {}; // run once for each, as state.range(0); the name ends in "/size"
};

template <class Implementation, class Work>
void implementation(const std::string& item, const Options& options, Work work)
{
    if constexpr (!std::is_same_v<Implementation, Absent>) {
        if constexpr (requires { Implementation::there(); }) {
            if (!Implementation::there())
                return;
        }
        auto* run = benchmark::RegisterBenchmark((item + "@" + Implementation::NAME).c_str(), [work](State& state) {
            work.template operator()<Implementation>(state);
        });
        if (options.threads > 1)
            run->Threads(options.threads);
        if (options.wall || options.threads > 1)
            run->UseRealTime();
        for (int64_t size : options.sizes)
            run->Arg(size);
    }
}

template <class... Implementations, class Work> bool item(const char* name, const Options& options, Work work)
{
    (implementation<Implementations>(name, options, work), ...);
    return true;
}

template <class... Implementations, class Work> bool item(const char* name, Work work)
{
    return item<Implementations...>(name, Options{}, work);
}

// The pointer, of which the compiler then knows nothing. (benchmark::DoNotOptimize would do, but in 32 bits gcc may
// lose a variable that is read again behind it.)
template <class T> T* opaque(T* pointer)
{
    __asm__ volatile("" : "+r"(pointer) : : "memory");
    return pointer;
}

// Ends the bench when something that must work does not: a figure of failed work is worth nothing.
inline void must(bool worked, const char* what)
{
    if (!worked) {
        fprintf(stderr, "bench: %s failed\n", what);
        exit(1);
    }
}

// A peer that would take over malloc for the whole program when it was linked: loaded beside it instead.
void* symbolOf(const char* library, const char* name); // null when there is none

} // namespace bench

#endif // EKO_BENCH_H
