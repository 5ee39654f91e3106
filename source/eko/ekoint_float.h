// SPDX-License-Identifier: MIT
// ekoint_float.h - the formatter's arithmetic in extended precision.
//
// Everything is long double by name: the results are the same on both word sizes, whatever unit the compiler uses
// for plain doubles. Powers of ten are stepped, not looked up, and a value's exponent is found by the same steps,
// so that the value divided by the power of its exponent lies between 1 and 10, both included.
//
// Inline, since a long double goes through memory to a function, in halves that the processor has to wait for.
#ifndef EKO_EKOINT_FLOAT_H
#define EKO_EKOINT_FLOAT_H

#include "ekoint.h"

constexpr long double TWO_TO_63 = 9223372036854775808.0L;
constexpr long double ALL_ONES = 18446744073709551615.0L;
constexpr uint64 TOP_BIT = 0x8000000000000000u;
constexpr long double DOUBLE_IS_NEAR = 2251799813685248.0L; // 2^51: up to here a double is less than 1/2 away

// 10 to the power n; infinite or 0 where extended precision ends.
inline long double power_of_10(int32 n)
{
    long double power = 1.0L;
    for (; n > 0; --n)
        power *= 10.0L;
    for (; n < 0; ++n)
        power /= 10.0L;
    return power;
}

// The floor of the decimal logarithm of |value|, which must be finite; 0 for 0. `power` receives power_of_10 of it,
// to which the steps lead: they are the same.
inline int32 get_exponent(long double value, long double* power)
{
    const long double a = __builtin_fabsl(value);
    int32 exponent = 0;
    *power = 1.0L;
    if (a == 0.0L)
        return 0;
    while (*power > a) {
        *power /= 10.0L;
        --exponent;
    }
    long double next = 10.0L;
    while (next <= a) {
        *power = next;
        next *= 10.0L;
        ++exponent;
    }
    return exponent;
}

// x, at least 0, truncated; all ones when it does not fit. The signed conversion is the one the processor has, and
// the one from a double needs no change of the rounding mode, which takes most of the time: a double is near enough
// to tell the integer, or the one above it.
inline uint64 cast_double(long double x)
{
    if (x < DOUBLE_IS_NEAR) {
        const int64 i = static_cast<int64>(static_cast<double>(x));
        return static_cast<uint64>(i - (static_cast<long double>(i) > x ? 1 : 0));
    }
    if (x >= ALL_ONES)
        return UINT64_MAX;
    if (x >= TWO_TO_63)
        return static_cast<uint64>(static_cast<int64>(x - TWO_TO_63)) | TOP_BIT;
    return static_cast<uint64>(static_cast<int64>(x));
}

// x, at least 0, rounded; a half goes up. Where a double is near, an integer one above the truncated x does not
// matter: then x is less than a half below it, and it is the result.
inline uint64 round_float(long double x)
{
    if (x < DOUBLE_IS_NEAR) {
        const int64 i = static_cast<int64>(static_cast<double>(x));
        return static_cast<uint64>(x - static_cast<long double>(i) < 0.5L ? i : i + 1);
    }
    const uint64 i = cast_double(x);
    return x - static_cast<long double>(i) < 0.5L ? i : i + 1;
}

#endif
