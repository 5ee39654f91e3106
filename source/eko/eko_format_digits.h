// SPDX-License-Identifier: MIT
// eko_format_digits.h - the digits of an unsigned number, written where they belong: how many there are is known
// before the first is written.
#ifndef EKO_EKO_FORMAT_DIGITS_H
#define EKO_EKO_FORMAT_DIGITS_H

#include <string.h>

#include "ekoint.h"

constexpr int32 MAX_DIGITS = 43;   // of one number; 64 bits in octal have 22
constexpr int32 MAX_DECIMALS = 19; // a power of ten with so many zeros fits 64 bits

inline constexpr uint64 POWERS_OF_10[MAX_DECIMALS + 1] = {
    1,
    10,
    100,
    1000,
    10000,
    100000,
    1000000,
    10000000,
    100000000,
    1000000000,
    10000000000,
    100000000000,
    1000000000000,
    10000000000000,
    100000000000000,
    1000000000000000,
    10000000000000000,
    100000000000000000,
    1000000000000000000,
    10000000000000000000u,
};

// ---- how many -------------------------------------------------------------------------------------------
// At least one: 0 has a digit.

inline int32 bitsOf(uint64 value)
{
    return 64 - __builtin_clzll(value | 1);
}

// 1233 / 4096 is log10(2), near enough for 64 bits: a number of b bits has one digit more than that of b, or as
// many. A one in the last place leaves the number of digits as it is.
inline int32 countDecimals(uint64 value)
{
    const int32 fewest = bitsOf(value) * 1233 >> 12;
    return fewest + ((value | 1) >= POWERS_OF_10[fewest] ? 1 : 0);
}

inline int32 countDigits(uint64 value, uint32 base)
{
    switch (base) {
    case 8:
        return (bitsOf(value) + 2) / 3;
    case 16:
        return (bitsOf(value) + 3) / 4;
    default:
        return countDecimals(value);
    }
}

// ---- writing --------------------------------------------------------------------------------------------
// n places that end at `end` are written, with zeros in front of a number that has fewer digits. None has more.

// All numbers of two digits, as text.
template <uint32 BASE> struct DIGIT_PAIRS {
    char of[2 * BASE * BASE];
};
template <uint32 BASE> constexpr DIGIT_PAIRS<BASE> digitPairs(const char* digits)
{
    DIGIT_PAIRS<BASE> pairs = {};
    for (uint32 i = 0; i < BASE * BASE; ++i) {
        pairs.of[2 * i] = digits[i / BASE];
        pairs.of[2 * i + 1] = digits[i % BASE];
    }
    return pairs;
}
inline constexpr char LOWER_DIGITS[] = "0123456789abcdef";
inline constexpr char UPPER_DIGITS[] = "0123456789ABCDEF";
inline constexpr DIGIT_PAIRS<10> DECIMALS = digitPairs<10>(LOWER_DIGITS);
inline constexpr DIGIT_PAIRS<16> LOWER_HEX = digitPairs<16>(LOWER_DIGITS);
inline constexpr DIGIT_PAIRS<16> UPPER_HEX = digitPairs<16>(UPPER_DIGITS);

template <uint32 BASE> inline void writePair(char* to, const DIGIT_PAIRS<BASE>& pairs, uint32 pair)
{
    memcpy(to, &pairs.of[2 * pair], 2);
}
template <uint32 BASE> inline void writePair(wchar_t* to, const DIGIT_PAIRS<BASE>& pairs, uint32 pair)
{
    to[0] = pairs.of[2 * pair];
    to[1] = pairs.of[2 * pair + 1];
}

// Eight digits at a time as long as there are more than 32 bits: dividing those is a call where registers have 32.
template <class C> inline void writeDecimal(C* end, uint64 value, int32 n)
{
    for (; value > UINT32_MAX; value /= 100000000, n -= 8) {
        const uint32 eight = static_cast<uint32>(value % 100000000);
        const uint32 high = eight / 10000;
        const uint32 low = eight % 10000;
        end -= 8;
        writePair(end, DECIMALS, high / 100);
        writePair(end + 2, DECIMALS, high % 100);
        writePair(end + 4, DECIMALS, low / 100);
        writePair(end + 6, DECIMALS, low % 100);
    }
    uint32 rest = static_cast<uint32>(value);
    for (; n >= 2; n -= 2, rest /= 100)
        writePair(end -= 2, DECIMALS, rest % 100);
    if (n > 0)
        end[-1] = static_cast<C>('0' + rest);
}

template <class C, class UInt> inline void writeHex(C* end, UInt value, int32 n, const DIGIT_PAIRS<16>& pairs)
{
    for (; n >= 2; n -= 2, value >>= 8)
        writePair(end -= 2, pairs, value & 0xFF);
    if (n > 0)
        end[-1] = C(pairs.of[2 * (value & 0xF) + 1]);
}

template <class C> inline void writeOctal(C* end, uint64 value, int32 n)
{
    for (; n > 0; --n, value >>= 3)
        *--end = static_cast<C>('0' + (value & 7));
}

template <class C>
[[gnu::always_inline]] inline void writeDigits(C* end, uint64 value, int32 n, uint32 base, bool upper)
{
    if (base == 10)
        writeDecimal(end, value, n);
    else if (base == 8)
        writeOctal(end, value, n);
    else if (value > UINT32_MAX)
        writeHex(end, value, n, upper ? UPPER_HEX : LOWER_HEX);
    else
        writeHex(end, static_cast<uint32>(value), n, upper ? UPPER_HEX : LOWER_HEX);
}

// The n characters of a text, last one first.
inline void storeReversed(char* to, const char* text, int32 n)
{
    while (n > 0)
        *to++ = text[--n];
}

// n digits, at most MAX_DIGITS, stored last one first.
inline void storeDigits(char* to, uint64 value, int32 n, uint32 base = 10, bool upper = false)
{
    char digits[MAX_DIGITS];
    writeDigits(digits + n, value, n, base, upper);
    storeReversed(to, digits, n);
}

#endif
