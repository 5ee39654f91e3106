// SPDX-License-Identifier: MIT
// Random numbers: single draws from a generator that threads share, and seeding it again.

#if BENCH_GLIB
#include <glib.h>
#endif

#include "bench.h"
#include "locked_twister.h"

namespace {

using namespace bench;

class EkoRandom {
public:
    static constexpr const char* NAME = "eko";
    EkoRandom() : rand_(eko_randCreate(5489)) { must(rand_ != nullptr, "eko_randCreate"); }
    ~EkoRandom() { eko_randDestroy(rand_); }
    EkoRandom(const EkoRandom&) = delete;
    EkoRandom& operator=(const EkoRandom&) = delete;
    uint32 draw32() { return eko_randGetUInt32(rand_); }
    uint64 draw64() { return eko_randGetUInt64(rand_); }
    double drawDouble() { return eko_randGetDouble(rand_); }
    void seed(uint32 seed) { eko_randResetSeed(rand_, seed); }

private:
    EKO_RAND rand_;
};

class StdRandom {
public:
    static constexpr const char* NAME = "std";
    uint32 draw32() { return twister_.draw(); }
    uint64 draw64()
    {
        const uint64 high = twister_.draw();
        return high << 32 | twister_.draw();
    }
    double drawDouble() { return twister_.draw() / 4294967296.0; }

private:
    LockedTwister twister_;
};

#if BENCH_GLIB
class GlibRandom {
public:
    static constexpr const char* NAME = "glib";
    GlibRandom() : rand_(g_rand_new_with_seed(5489)) {}
    ~GlibRandom() { g_rand_free(rand_); }
    GlibRandom(const GlibRandom&) = delete;
    GlibRandom& operator=(const GlibRandom&) = delete;
    uint32 draw32() { return g_rand_int(rand_); }
    void seed(uint32 seed) { g_rand_set_seed(rand_, seed); }

private:
    GRand* rand_;
};
#else
using GlibRandom = Absent;
#endif

constexpr auto draw32 = []<class Random>(State& state) {
    Random random;
    for (auto _ : state)
        benchmark::DoNotOptimize(random.draw32());
};

constexpr auto draw64 = []<class Random>(State& state) {
    Random random;
    for (auto _ : state)
        benchmark::DoNotOptimize(random.draw64());
};

constexpr auto drawDouble = []<class Random>(State& state) {
    Random random;
    for (auto _ : state)
        benchmark::DoNotOptimize(random.drawDouble());
};

// With the first draw, until which the peer puts off the making of its numbers.
constexpr auto seeding = []<class Random>(State& state) {
    Random random;
    uint32 seed = 0;
    for (auto _ : state) {
        random.seed(++seed);
        benchmark::DoNotOptimize(random.draw32());
    }
};

const bool registered = item<EkoRandom, StdRandom>("random.uint32", draw32) &&
                        item<EkoRandom, StdRandom>("random.double", drawDouble) &&
                        item<EkoRandom, StdRandom>("random.uint64", draw64) &&
                        item<EkoRandom, GlibRandom>("random.seed", seeding);

} // namespace
