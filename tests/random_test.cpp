// Random numbers against the C++ library's own; rounding and alignment.
#include <cmath>

#include "support/faults.h"
#include "support/fixture.h"
#include "support/syscalls.h"

TEST_F(EkoTest, random_draws_are_those_of_the_standard)
{
    EKO_RAND r = nullptr;
    const auto create = [&](uint32 seed) { return eko_randDestroy(r), (r = eko_randCreate(seed)) ? 0 : 1003; };
    EXPECT_EQ(exhaust(EKO_GLOBAL_TAG, [&] { return create(5489); }), "1003 0 ");
    std::vector<uint32> drawn(200000), expected(drawn.size());
    const auto draw = [&] { return eko_randGetUInt32(r); };
    inThreads(4, [&](uint32 i) { std::generate_n(&drawn[i * 50000], 50000, draw); });
    std::ranges::generate(expected, std::mt19937());
    EXPECT_EQ((std::ranges::sort(drawn), drawn), (std::ranges::sort(expected), expected)); // each comes once
    for (uint32 i = 0; i < 2000; ++i) { // with each seed a new generator, and one that is anywhere in a block
        const uint32 seed = i / 2 * 0x9E3779B1;
        i % 2 ? eko_randResetSeed(r, seed) : void(create(seed));
        std::mt19937 model(i ? seed : 2381394812);
        for (uint64 n = 0, a; a = model(), n < (i < 2 ? 1000000 : i); ++n)
            ASSERT_TRUE(n % 5 == 0    ? eko_randGet(r) == int32(a % 0x80000000)
                        : n % 7 == 0  ? eko_randGetDouble(r) == std::ldexp(a, -32)
                        : n % 11 == 0 ? eko_randGetUInt64(r) == a * 4294967296 + model()
                                      : draw() == a);
    }
    const CallFault fault("eko_syncCreate_check", ENOMEM);
    EXPECT_EQ(create(0), 1003);
}

TEST(Align, align_rounds_and_follows_the_table)
{
    const auto up = [](double x, double y) { return eko_round(x) == y && eko_round(-x) == -y; };
    EXPECT_TRUE(up(0.5, 1) && up(2.5, 3) && up(0.4, 0) && up(1e9 + 0.25, 1e9) && up(0x1.FFFFFFFFFFFFFp-2, 1));
    EXPECT_TRUE(up(4503599627370497, 4503599627370498) && up(1e300, 1e300) && up(INFINITY, INFINITY));
    EXPECT_TRUE(std::isnan(eko_round(NAN)) && std::signbit(eko_round(-0.4)) && !std::signbit(eko_round(-0.0)));
    const uint32 bytes[] = {1, 2, 4, 4, 4, 4, 4};
    for (uint32 i = 0; i < 7 * 65536; ++i) {
        const uint32 a = bytes[i / 65536], at = eko_align(uint16(i), ALIGN_TYPE(i / 65536));
        ASSERT_TRUE(at % a == 0 && uint16(at - i) < a) << i;
    }
}
