// SPDX-License-Identifier: MIT
// Random numbers, by the Mersenne Twister MT19937, and rounding.
//
// Data   A generator's MT is a block of 624 words, given out one by one from `curr` on; at the end the next block
//        is made of it in place.
// Locks  The generator's own mutex, around everything but the tempering, which has the word for itself. Nothing is
//        taken inside it.

#include <string.h>

#include "ekomem_int.h"

namespace {

constexpr uint32 WORDS = 624;
constexpr uint32 FAR_WORD = 397;
constexpr uint32 UPPER_MASK = 0x80000000;
constexpr uint32 LOWER_MASK = 0x7FFFFFFF;
constexpr uint32 MATRIX = 0x9908B0DF;
constexpr uint32 SEED_FACTOR = 1812433253;
constexpr uint32 DEFAULT_SEED = 0x8DF1337C;
constexpr double TWO_TO_32 = 4294967296.0;

struct EKO_RAND_CTX {
    uint32* curr; // the next word to be given out
    uint32* end;  // behind the last one
    EKO_SEM sem;
    uint32 MT[WORDS + 1]; // one more, which only marks the end
};

EKO_RAND_CTX* generatorOf(EKO_RAND rand)
{
    return static_cast<EKO_RAND_CTX*>(const_cast<void*>(rand));
}

// A word of the next block: of its own, the one behind it and one far from it.
uint32 twisted(uint32 word, uint32 next, uint32 far)
{
    const uint32 y = (word & UPPER_MASK) | (next & LOWER_MASK);
    return far ^ (y >> 1) ^ ((0 - (y & 1)) & MATRIX);
}

// Words FROM to TO - 1 of the next block, whose far ones are at a fixed distance. Without a modulo, and with a
// multiple of four turns, compilers do four turns of such a loop at once: none needs what the three before it make.
template <uint32 FROM, uint32 TO, int32 DISTANCE> void generateWords(EKO_RAND_CTX& g)
{
    for (int32 k = FROM; k < static_cast<int32>(TO); ++k)
        g.MT[k] = twisted(g.MT[k], g.MT[k + 1], g.MT[k + DISTANCE]);
}

// Makes the next block, in order: from WRAPPED on the far words are new ones, and for the last so is the one
// behind it.
void eko_randGenerateNumbers(EKO_RAND_CTX& g)
{
    constexpr uint32 WRAPPED = WORDS - FAR_WORD;
    constexpr uint32 FOURS = WRAPPED / 4 * 4;
    generateWords<0, FOURS, FAR_WORD>(g);
    generateWords<FOURS, WRAPPED, FAR_WORD>(g);
    static_assert((WORDS - 1 - WRAPPED) % 4 == 0);
    generateWords<WRAPPED, WORDS - 1, -static_cast<int32>(WRAPPED)>(g);
    g.MT[WORDS - 1] = twisted(g.MT[WORDS - 1], g.MT[0], g.MT[FAR_WORD - 1]);
    g.curr = g.MT;
}

void eko_randSetSeed(EKO_RAND_CTX& g, uint32 seed)
{
    const SemGuard lock(g.sem);
    uint32 word = seed;
    g.MT[0] = word;
    for (uint32 i = 1; i < WORDS; ++i) {
        word = SEED_FACTOR * (word ^ (word >> 30)) + i;
        g.MT[i] = word;
    }
    eko_randGenerateNumbers(g);
}

// With the mutex held.
uint32 nextWord(EKO_RAND_CTX& g)
{
    if (g.curr == g.end)
        eko_randGenerateNumbers(g);
    return *g.curr++;
}

uint32 tempered(uint32 y)
{
    y ^= y >> 11;
    y ^= (y << 7) & 0x9D2C5680;
    y ^= (y << 15) & 0xEFC60000;
    return y ^ (y >> 18);
}

uint32 eko_randGetNext(EKO_RAND_CTX& g)
{
    uint32 word;
    {
        const SemGuard lock(g.sem);
        word = nextWord(g);
    }
    return tempered(word);
}

// The number without its fraction, which infinities and NaN do not have. By its bits: floor and its like are in a
// library of their own, which C programs are not linked with, and the compiler's forms of them may call those.
double withoutFraction(double value)
{
    constexpr int FRACTION_BITS = 52;
    constexpr int EXPONENT_BIAS = 1023;
    uint64 image; // in memory, and so a double, whatever a register could hold
    memcpy(&image, &value, sizeof(image));
    const int exponent = static_cast<int>(image >> FRACTION_BITS & 0x7FF) - EXPONENT_BIAS;
    if (exponent >= FRACTION_BITS)
        return value;
    const uint64 sign = image & (uint64{1} << 63);
    image = exponent < 0 ? sign : image & ~((uint64{1} << (FRACTION_BITS - exponent)) - 1);
    memcpy(&value, &image, sizeof(value));
    return value;
}

} // namespace

// ---- generators -------------------------------------------------------------------------------------------

EKO_RAND eko_randCreate(uint32 seed)
{
    MemResult result;
    auto* g = tryZeroed<EKO_RAND_CTX>(EKO_GLOBAL_TAG, &result);
    if (!g) {
        memReportIf(result, __FILE__, __LINE__);
        return nullptr;
    }
    g->sem = EKO_MUTEX_CREATE();
    if (g->sem == EKO_SEM_INVALID) {
        EKO_FREE(g, EKO_GLOBAL_TAG);
        return nullptr;
    }
    g->end = &g->MT[WORDS];
    // DELIBERATE: 0 is replaced here only, and taken as it is when a generator is seeded again: either sequence is
    // one that callers have kept. Pinned by EkoTest.random_draws_are_those_of_the_standard.
    eko_randSetSeed(*g, seed ? seed : DEFAULT_SEED);
    return g;
}

void eko_randDestroy(EKO_RAND rand)
{
    if (!rand || !libraryStarted()) // once that has stopped the generator is gone
        return;
    eko_syncDelete(generatorOf(rand)->sem);
    EKO_FREE(rand, EKO_GLOBAL_TAG);
}

void eko_randResetSeed(EKO_RAND rand, uint32 seed)
{
    eko_randSetSeed(*generatorOf(rand), seed);
}

int32 eko_randGet(EKO_RAND rand)
{
    return static_cast<int32>(eko_randGetNext(*generatorOf(rand)) & LOWER_MASK);
}

uint32 eko_randGetUInt32(EKO_RAND rand)
{
    return eko_randGetNext(*generatorOf(rand));
}

// Both words under one hold of the mutex: neighbours in the sequence, as they are for two draws that no other
// thread comes between.
uint64 eko_randGetUInt64(EKO_RAND rand)
{
    EKO_RAND_CTX& g = *generatorOf(rand);
    uint32 high;
    uint32 low;
    {
        const SemGuard lock(g.sem);
        high = nextWord(g);
        low = nextWord(g);
    }
    return uint64{tempered(high)} << 32 | tempered(low);
}

double eko_randGetDouble(EKO_RAND rand)
{
    return eko_randGetUInt32(rand) / TWO_TO_32;
}

// ---- rounding ---------------------------------------------------------------------------------------------

// DELIBERATE: the sum is made in extended precision and rounded to a double before its fraction is cut off, which
// moves the number below a half and the odd numbers above 2^52; stored results were rounded so. What is left is
// cut off towards zero: that is down from 0 on, and up below. Pinned by
// Align.align_rounds_and_follows_the_table.
double eko_round(double lfVal)
{
    const long double half = lfVal >= 0 ? 0.5L : -0.5L;
    return withoutFraction(static_cast<double>(lfVal + half));
}
