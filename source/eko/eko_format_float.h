// eko_format_float.h - floating-point fields.
//
// A value is split into two integers, its integer part and its fraction times 10 ^ precision; from there on it is
// a matter of digits. In exponent style it is first divided by the power of ten of its exponent. All arithmetic
// is in extended precision, whose 64 bits hold both integers exactly: hence at most 19 fraction digits, and hence
// no fixed-style value from 18446744073709551615 on.
//
//      spaces | sign | zeros | integer digits with separators | point | zeros, fraction digits | exponent | spaces
#ifndef EKO_EKO_FORMAT_FLOAT_H
#define EKO_EKO_FORMAT_FLOAT_H

#include "eko_format_ctx.h"

constexpr int32 DEFAULT_PRECISION = 6;
constexpr int32 MAX_FRACTION_DIGITS = 19;
constexpr int32 MAX_EXPONENT_DIGITS = 3;

constexpr uint64 POWERS_OF_10[MAX_FRACTION_DIGITS + 1] = {
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

template <class C> struct FltFormat {
    C sign;              // minus, plus, space; 0 for none
    int32 elen;          // characters of the exponent's text
    int32 ilen;          // integer digits
    int32 flen;          // digits of fracpart, 0 when it is 0
    int32 estyle;        // 1 while printing with an exponent
    int32 padlen;        // padding: before the field when positive, after it when negative
    int32 exponent;      // decimal, in exponent style
    int32 emitpoint;     // characters of the decimal point, 0 for no point
    int32 omitzeros;     // 1 when trailing zeros of the fraction are dropped
    int32 omitcount;     // fraction digits dropped
    int32 separators;    // characters that all thousands separators take
    int32 leadfraczeros; // zeros between the point and the digits of fracpart
    C econvert[5];       // the exponent's text and the digits, each last one first
    C iconvert[MAX_DIGITS];
    C fconvert[MAX_DIGITS];
    uint64 intpart;
    uint64 fracpart; // the fraction times 10 ^ precision
};

// ---- splitting the value --------------------------------------------------------------------------------

// Carries a fraction that was rounded up to 1, and an integer part that is 10 into the exponent. It is 10 after
// a carry, and also when the division by the power of ten was rounded up to it.
template <class C> void carry(FltFormat<C>& field, uint64 one)
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

// False when the integer part does not fit.
template <class C> bool splitValue(FormatCtx<C>& ctx, FltFormat<C>& field, long double value)
{
    // DELIBERATE: the digits of a larger precision are not printed, and not counted. Callers rely on getting
    // no digits that the arithmetic does not have. Pinned by Format.floats_depart_from_c.
    if (ctx.precision > MAX_FRACTION_DIGITS)
        ctx.precision = MAX_FRACTION_DIGITS;
    long double u = value < 0.0L ? -value : value;
    if (field.estyle)
        u /= power_of_10(field.exponent);
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
template <class C> bool splitInStyle(FormatCtx<C>& ctx, FltFormat<C>& field, long double value)
{
    if (!(ctx.flags & (F_GSTYLE | F_ESTYLE)))
        return splitValue(ctx, field, value);

    const bool general = ctx.flags & F_GSTYLE;
    if (general) {
        --ctx.precision; // counted digits before and behind the point; one is before it in exponent style
        field.omitzeros = ctx.flags & F_ALT ? 0 : 1;
    }
    field.estyle = 1;
    field.exponent = get_exponent(value);
    if (!splitValue(ctx, field, value))
        return false;
    // Only now is the exponent final: rounding may have raised it.
    if (!general || ctx.precision + 1 <= field.exponent || field.exponent < -4)
        return true;
    ctx.precision -= field.exponent;
    field.estyle = 0;
    return splitValue(ctx, field, value);
}

// ---- the layout -----------------------------------------------------------------------------------------

// The letter, the sign and at least two digits.
template <class C> void layOutExponent(const FormatCtx<C>& ctx, FltFormat<C>& field)
{
    int32 rest = field.exponent < 0 ? -field.exponent : field.exponent;
    int32 n = 0;
    // DELIBERATE: of four digits, which only a long double has, the first is lost. Callers rely on exponents
    // of at most five characters. Pinned by Format.floats_depart_from_c.
    do {
        field.econvert[n++] = C('0' + rest % 10);
        rest /= 10;
    } while (n < 2 || (rest > 0 && n < MAX_EXPONENT_DIGITS));
    field.econvert[n++] = field.exponent < 0 ? '-' : '+';
    field.econvert[n++] = ctx.flags & F_UPPER ? 'E' : 'e';
    field.elen = n;
}

// From here on ctx.precision is the number of fraction digits that are printed.
template <class C> void layOutFraction(FormatCtx<C>& ctx, FltFormat<C>& field)
{
    field.flen = field.fracpart > 0 ? decimalDigits(field.fracpart, field.fconvert) : 0;
    field.leadfraczeros = ctx.precision - field.flen;
    if (!field.omitzeros)
        return;
    if (field.flen == 0) {
        field.omitcount = ctx.precision;
        field.leadfraczeros = 0;
    } else {
        while (field.fconvert[field.omitcount] == '0')
            ++field.omitcount;
    }
    ctx.precision -= field.omitcount;
}

template <class C> void layOutFloat(FormatCtx<C>& ctx, FltFormat<C>& field)
{
    if (field.estyle)
        layOutExponent(ctx, field);
    field.ilen = decimalDigits(field.intpart, field.iconvert);
    layOutFraction(ctx, field);
    if (ctx.precision > 0 || (ctx.flags & F_ALT))
        field.emitpoint = static_cast<int32>(FormatTraits<C>::length(decimalPoint(ctx)));
    field.separators = separatorsFor(ctx, field.ilen);
    field.padlen = paddingTo(ctx, int64{field.ilen} + field.elen + ctx.precision + field.separators +
                                      field.emitpoint + (field.sign ? 1 : 0));
    if (ctx.flags & F_MINUS)
        field.padlen = -field.padlen;
}

// ---- the field ------------------------------------------------------------------------------------------

template <class C> void putFraction(FormatCtx<C>& ctx, const FltFormat<C>& field)
{
    StrCtx<C>& sink = *ctx.sctx;
    if (field.emitpoint > 0)
        putText(sink, decimalPoint(ctx), static_cast<size_t>(field.emitpoint));
    putCopies(sink, C('0'), field.leadfraczeros);
    putReversed(sink, field.fconvert + field.omitcount, field.flen - field.omitcount);
}

template <class C> void putFloatField(FormatCtx<C>& ctx, const FltFormat<C>& field)
{
    StrCtx<C>& sink = *ctx.sctx;
    const bool zeros = ctx.flags & F_ZERO;
    if (!zeros)
        putCopies(sink, C(' '), field.padlen);
    if (field.sign)
        putChar(sink, field.sign);
    if (zeros)
        putCopies(sink, C('0'), field.padlen);
    putGrouped(ctx, field.iconvert, field.ilen, field.separators);
    putFraction(ctx, field);
    putReversed(sink, field.econvert, field.elen);
    putCopies(sink, C(' '), -field.padlen);
}

template <class C> long double fetchFloat(FormatCtx<C>& ctx)
{
    if (ctx.conv == C_LDOUBLE)
        return va_arg(ctx.sctx->args, long double);
    return static_cast<long double>(va_arg(ctx.sctx->args, double));
}

// "nan" or "inf" for a value that is no number, else null.
template <class C> const C* wordFor(const FormatCtx<C>& ctx, long double value)
{
    const int upper = ctx.flags & F_UPPER ? 1 : 0;
    if (value != value)
        return TEXT_NAN<C>[upper];
    if (value != 0.0L && value + value == value)
        return TEXT_INF<C>[upper];
    return nullptr;
}

// False when the value cannot be printed.
template <class C> bool putFloat(FormatCtx<C>& ctx)
{
    const long double value = fetchFloat(ctx);
    FltFormat<C> field = {};
    if (ctx.precision == NO_PRECISION)
        ctx.precision = DEFAULT_PRECISION;
    // DELIBERATE: decided by comparing, so negative zero and NaN have no minus. Callers compare texts and rely
    // on one zero. Pinned by Format.floats_depart_from_c.
    field.sign = signFor(ctx, value < 0.0L);
    if (const C* word = wordFor(ctx, value)) {
        putWord(ctx, field.sign, word, FormatTraits<C>::length(word));
        return true;
    }
    if (!splitInStyle(ctx, field, value))
        return false;
    layOutFloat(ctx, field);
    putFloatField(ctx, field);
    return true;
}

#endif
