// SPDX-License-Identifier: MIT
// The part of the formatter that does not depend on the character type and is not in every directive's way:
// arguments taken, floats taken apart. Here once for the narrow and the wide engine.

#include "eko_format.h"
#include "ekoint_float.h"

namespace {

// ---- integers -------------------------------------------------------------------------------------------

// A signed argument, widened to 64 bits by its sign, or by zeros when the directive is unsigned. Narrow is the
// type that the modifier names, Passed the one it is passed as.
template <class Narrow, class UnsignedNarrow, class Passed> uint64 fetchAs(const Directive& ctx, Arguments& args)
{
    const Passed arg = va_arg(args, Passed);
    if (ctx.flags & F_UNSIGNED)
        return static_cast<UnsignedNarrow>(arg);
    return static_cast<uint64>(int64{static_cast<Narrow>(arg)});
}

// ---- floats ---------------------------------------------------------------------------------------------

constexpr int32 DEFAULT_PRECISION = 6;

long double fetchFloat(const Directive& ctx, Arguments& args)
{
    if (ctx.conv == C_LDOUBLE)
        return va_arg(args, long double);
    return static_cast<long double>(va_arg(args, double));
}

// "nan" or "inf" for a value that is no number, else null.
const char* wordFor(const Directive& ctx, const long double& value)
{
    const bool upper = ctx.flags & F_UPPER;
    if (value != value)
        return upper ? "NAN" : "nan";
    if (value != 0.0L && value + value == value)
        return upper ? "INF" : "inf";
    return nullptr;
}

// Carries a fraction that was rounded up to 1, and an integer part that is 10 into the exponent. It is 10 after
// a carry, and also when the division by the power of ten was rounded up to it.
void carry(FltFormat& field, uint64 one)
{
    if (field.fracpart >= one) {
        ++field.intpart;
        field.fracpart = 0;
    }
    if (field.estyle && field.intpart == 10) {
        field.intpart = 1;
        ++field.exponent;
    }
}

// False when the integer part does not fit. `power` is the one of the exponent, in exponent style.
bool splitValue(Directive& ctx, FltFormat& field, const long double& value, const long double& power)
{
    // DELIBERATE: the digits of a larger precision are not printed, and not counted. Callers rely on getting
    // no digits that the arithmetic does not have. Pinned by Format.floats_depart_from_c.
    if (ctx.precision > MAX_FRACTION_DIGITS)
        ctx.precision = MAX_FRACTION_DIGITS;
    long double u = __builtin_fabsl(value); // of either sign, as often as not: no branch
    if (field.estyle)
        u /= power;
    field.intpart = cast_double(u);
    // DELIBERATE: the whole call fails, it does not print such a value in another way. Callers rely on -1 as
    // the sign of a value that is out of range. Pinned by Format.floats_depart_from_c.
    // A long double so small that its power of ten is 0 comes out as infinite here, and fails like that.
    if (field.intpart == UINT64_MAX)
        return false;
    const uint64 one = POWERS_OF_10[ctx.precision];
    // DELIBERATE: a half goes up, not to the even digit. Callers rely on 0.125 being 0.13.
    // Pinned by Format.floats_depart_from_c.
    field.fracpart = round_float((u - static_cast<long double>(field.intpart)) * static_cast<long double>(one));
    carry(field, one);
    return true;
}

// Takes the value apart in the directive's style.
bool splitInStyle(Directive& ctx, FltFormat& field, const long double& value)
{
    if (!(ctx.flags & (F_GSTYLE | F_ESTYLE)))
        return splitValue(ctx, field, value, 1.0L);

    const bool general = ctx.flags & F_GSTYLE;
    if (general) {
        --ctx.precision; // counted digits before and behind the point; one is before it in exponent style
        field.omitzeros = ctx.flags & F_ALT ? 0 : 1;
    }
    long double power;
    field.estyle = 1;
    field.exponent = get_exponent(value, &power);
#if EKO_CHECKED
    EKO_ASSERT(power == power_of_10(field.exponent));
#endif
    if (!splitValue(ctx, field, value, power))
        return false;
    // Only now is the exponent final: rounding may have raised it.
    if (!general || ctx.precision + 1 <= field.exponent || field.exponent < -4)
        return true;
    ctx.precision -= field.exponent;
    field.estyle = 0;
    return splitValue(ctx, field, value, 1.0L);
}

// The fraction then ends with its last digit that is not 0.
void omitZeros(Directive& ctx, FltFormat& field)
{
    if (field.fracpart == 0) {
        field.omitcount = ctx.precision;
    } else {
        for (; field.fracpart % 10 == 0; field.fracpart /= 10)
            ++field.omitcount;
    }
    ctx.precision -= field.omitcount;
}

void layOutDigits(Directive& ctx, FltFormat& field)
{
    if (field.estyle)
        field.elen = field.exponent > -100 && field.exponent < 100 ? MAX_EXPONENT_TEXT - 1 : MAX_EXPONENT_TEXT;
    field.ilen = countDecimals(field.intpart);
    if (field.omitzeros)
        omitZeros(ctx, field);
}

// ---- the count ------------------------------------------------------------------------------------------

template <class Int> void storeAs(size_t count, Arguments& args)
{
    *va_arg(args, Int*) = static_cast<Int>(count);
}

} // namespace

// ---- for both engines -----------------------------------------------------------------------------------

uint64 fetchModified(const Directive& ctx, Arguments& args)
{
    switch (ctx.conv) {
    case C_CHAR:
        return fetchAs<int8, uint8, int>(ctx, args);
    case C_SHORT:
        return fetchAs<int16, uint16, int>(ctx, args);
    case C_LONG:
        return fetchAs<long, unsigned long, long>(ctx, args);
    case C_LLONG:
    case C_INTMAX:
        return fetchAs<int64, uint64, int64>(ctx, args);
    case C_SIZE:
        // DELIBERATE: unsigned even for %d. Callers print sizes with %zd. Pinned by Format.integers_depart_from_c.
        return va_arg(args, size_t);
    case C_PTRDIFF:
        // DELIBERATE: extended by its sign even for %u and %x, to 64 bits on every platform: callers print
        // differences with them. Pinned by Format.integers_depart_from_c.
        return static_cast<uint64>(int64{va_arg(args, ptrdiff_t)});
    case C_LDOUBLE:
        // DELIBERATE: takes no argument, so the next directive gets this one's; callers' formats are written
        // for that. Pinned by Format.integers_depart_from_c.
        return 0;
    case C_DEFAULT:
        break;
    }
    return fetchAs<int32, uint32, int>(ctx, args);
}

bool takeFloat(Directive& ctx, Arguments& args, FltFormat& field, const char** word)
{
    const long double value = fetchFloat(ctx, args);
    // DELIBERATE: decided by comparing, so negative zero and NaN have no minus. Callers compare texts and rely
    // on one zero. Pinned by Format.floats_depart_from_c.
    field.sign = signFor(ctx, value < 0.0L);
    *word = wordFor(ctx, value);
    if (*word)
        return true;
    if (ctx.precision == NO_PRECISION)
        ctx.precision = DEFAULT_PRECISION;
    if ((ctx.flags & F_GSTYLE) && ctx.precision == 0)
        ctx.precision = 1;
    if (!splitInStyle(ctx, field, value))
        return false;
    layOutDigits(ctx, field);
    return true;
}

void storeCount(const Directive& ctx, size_t count, Arguments& args)
{
    switch (ctx.conv) {
    case C_DEFAULT:
        return storeAs<int32>(count, args);
    case C_CHAR:
        return storeAs<int8>(count, args);
    case C_SHORT:
        return storeAs<int16>(count, args);
    case C_LONG:
        return storeAs<long>(count, args);
    case C_LLONG:
    case C_INTMAX:
        return storeAs<int64>(count, args);
    case C_SIZE:
        return storeAs<size_t>(count, args);
    case C_PTRDIFF:
        return storeAs<ptrdiff_t>(count, args);
    case C_LDOUBLE:
        return; // DELIBERATE: takes no argument, as %Ld. Pinned by Format.integers_depart_from_c.
    }
}
