// SPDX-License-Identifier: MIT
// Random numbers against the C++ library's own; rounding and alignment.
#include <cmath>

#include "support/faults.h"
#include "support/fixture.h"
#include "support/syscalls.h"

constexpr uint32 FIXED_SEED = 2381394812; // in place of 0, for a new generator

// The next number, drawn in one of four ways, is the model's.
static ::testing::AssertionResult drawsAs(std::mt19937& model, EKO_RAND r, uint32 way)
{
    const uint64 first = model();
    const bool same = way % 5 == 0    ? eko_randGet(r) == static_cast<int32>(first % 0x80000000)
                      : way % 7 == 0  ? eko_randGetDouble(r) == std::ldexp(first, -32)
                      : way % 11 == 0 ? eko_randGetUInt64(r) == (first << 32 | model())
                                      : eko_randGetUInt32(r) == first;
    return same ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << "draw " << way;
}

TEST_F(EkoTest, random_draws_are_those_of_the_standard)
{
    for (const uint32 seed : {0U, 1U, 5489U, 0x80000000U, 0xFFFFFFFFU}) {
        EKO_RAND r = eko_randCreate(seed);
        std::mt19937 model(seed ? seed : FIXED_SEED);
        for (uint32 i = 0; i < 1'000'000; ++i)
            ASSERT_TRUE(drawsAs(model, r, i));
        eko_randDestroy(r);
    }
    EKO_RAND r = eko_randCreate(1);
    for (uint32 i = 0; i < 2000; ++i) { // from any place in a block
        std::mt19937 model(i * 0x9E3779B1);
        eko_randResetSeed(r, i * 0x9E3779B1);
        for (uint32 n = 0; n < i; ++n)
            ASSERT_TRUE(drawsAs(model, r, n)) << "seed number " << i;
    }
    eko_randDestroy(r);
}

TEST_F(EkoTest, random_draws_of_four_threads_are_the_sequence)
{
    constexpr uint32 EACH = 50'000;
    EKO_RAND r = eko_randCreate(5489);
    std::vector<uint32> drawn(4 * EACH), expected(drawn.size());
    inThreads(4, [&](uint32 i) { std::generate_n(&drawn[i * EACH], EACH, [r] { return eko_randGetUInt32(r); }); });
    std::ranges::generate(expected, std::mt19937());
    std::ranges::sort(drawn);
    std::ranges::sort(expected);
    EXPECT_TRUE(drawn == expected);
    eko_randDestroy(r);
}

TEST_F(EkoTest, random_without_memory_or_mutex)
{
    EKO_RAND r = nullptr;
    EXPECT_EQ(exhaust(EKO_GLOBAL_TAG, [&] { return (r = eko_randCreate(0)) ? 0 : 1003; }), "1003 0 ");
    eko_randDestroy(r);
    const CallFault fault("eko_syncCreate_check", ENOMEM);
    EXPECT_EQ(eko_randCreate(0), nullptr);
}

TEST_F(EkoTest, random_generator_ends_with_the_library)
{
    EKO_RAND r = eko_randCreate(1);
    eko_term();
    eko_randDestroy(r);
    EXPECT_EQ(eko_init(), 0);
}

TEST(Align, align_rounds_and_follows_the_table)
{
    const double cases[][2] = {{0.5, 1},
                               {2.5, 3},
                               {0.4, 0},
                               {1e9 + 0.25, 1e9},
                               {1e300, 1e300},
                               {INFINITY, INFINITY},
                               {0x1.FFFFFFFFFFFFFp-2, 1},             // the sum is rounded before floor
                               {4503599627370497, 4503599627370498}}; // and so odd numbers from 2^52 on move
    for (const auto& [x, rounded] : cases) {
        EXPECT_EQ(eko_round(x), rounded);
        EXPECT_EQ(eko_round(-x), -rounded);
    }
    EXPECT_TRUE(std::isnan(eko_round(NAN)));
    EXPECT_TRUE(std::signbit(eko_round(-0.4)));
    EXPECT_FALSE(std::signbit(eko_round(-0.0))); // which is not below 0
    const uint32 bytes[] = {1, 2, 4, 4, 4, 4, 4};
    for (uint32 type = 0; type < std::size(bytes); ++type) {
        for (uint32 offset = 0; offset < 65536; ++offset) {
            const uint32 aligned = eko_align(static_cast<uint16>(offset), static_cast<ALIGN_TYPE>(type));
            ASSERT_EQ(aligned, (offset + bytes[type] - 1) / bytes[type] * bytes[type] % 65536);
        }
    }
}
