// What several modules share: text compared without regard to case, and the formatter's arithmetic in extended
// precision, for its narrow and its wide form.
//
// Everything is long double by name: the results are the same on both word sizes, whatever unit the compiler
// uses for plain doubles. Powers of ten are stepped, not looked up: get_exponent and power_of_10 round alike
// this way, so that a value divided by the power of its exponent lies between 1 and 10, both included.

#include "ekoint.h"

namespace {

constexpr long double TWO_TO_63 = 9223372036854775808.0L;
constexpr long double ALL_ONES = 18446744073709551615.0L;
constexpr uint64 TOP_BIT = 0x8000000000000000u;

} // namespace

// Said here and not by the C library's call, whose order changes with the locale.
int32 compareNoCase(const char* a, const char* b)
{
    while (*a && upperAscii(*a) == upperAscii(*b)) {
        ++a;
        ++b;
    }
    return static_cast<uint8>(upperAscii(*a)) - static_cast<uint8>(upperAscii(*b));
}

// 10 to the power n; infinite or 0 where extended precision ends.
long double power_of_10(int32 n)
{
    long double power = 1.0L;
    for (; n > 0; --n)
        power *= 10.0L;
    for (; n < 0; ++n)
        power /= 10.0L;
    return power;
}

// The floor of the decimal logarithm of |value|, which must be finite; 0 for 0.
int32 get_exponent(long double value)
{
    const long double a = value < 0.0L ? -value : value;
    if (a == 0.0L)
        return 0;
    int32 exponent = 0;
    long double x = 1.0L;
    while (x > a) {
        x /= 10.0L;
        --exponent;
    }
    x = 10.0L;
    while (x <= a) {
        x *= 10.0L;
        ++exponent;
    }
    return exponent;
}

// x, at least 0, truncated; all ones when it does not fit. The signed conversion is the one the processor has.
uint64 cast_double(long double x)
{
    if (x >= ALL_ONES)
        return UINT64_MAX;
    if (x >= TWO_TO_63)
        return static_cast<uint64>(static_cast<int64>(x - TWO_TO_63)) | TOP_BIT;
    return static_cast<uint64>(static_cast<int64>(x));
}

// x, at least 0, rounded; a half goes up.
uint64 round_float(long double x)
{
    const uint64 i = cast_double(x);
    return x - static_cast<long double>(i) < 0.5L ? i : i + 1;
}
