// SPDX-License-Identifier: MIT
// eko_format_float.h - floating-point fields.
//
// A value is split into two integers, its integer part and its fraction times 10 ^ precision; from there on it is
// a matter of digits. In exponent style it is first divided by the power of ten of its exponent. All arithmetic
// is in extended precision, whose 64 bits hold both integers exactly: hence at most 19 fraction digits, and hence
// no fixed-style value from 18446744073709551615 on.
//
//      spaces | sign | zeros | integer digits with separators | point | fraction digits | exponent | spaces
#ifndef EKO_EKO_FORMAT_FLOAT_H
#define EKO_EKO_FORMAT_FLOAT_H

#include "eko_format_ctx.h"

constexpr int32 MAX_FRACTION_DIGITS = MAX_DECIMALS;
constexpr int32 MAX_EXPONENT_TEXT = 5; // e-123

// The texts are stored last character first. They, flen and leadfraczeros are set where a field is put piece by
// piece.
struct FltFormat {
    char sign = 0;           // minus, plus, space; 0 for none
    int32 elen = 0;          // characters of the exponent's text
    int32 ilen = 0;          // integer digits
    int32 flen = 0;          // digits of fracpart, 0 when it is 0
    int32 estyle = 0;        // 1 while printing with an exponent
    int32 padlen = 0;        // padding: before the field when positive, after it when negative
    int32 exponent = 0;      // decimal, in exponent style
    int32 emitpoint = 0;     // characters of the decimal point, 0 for no point
    int32 omitzeros = 0;     // 1 when trailing zeros of the fraction are dropped
    int32 omitcount = 0;     // fraction digits dropped
    int32 separators = 0;    // characters that all thousands separators take
    int32 leadfraczeros = 0; // zeros between the point and the digits of fracpart
    char econvert[MAX_EXPONENT_TEXT];
    char iconvert[MAX_DIGITS];
    char fconvert[MAX_DIGITS];
    uint64 intpart = 0;
    uint64 fracpart = 0; // the fraction times 10 ^ precision, of the digits that are not dropped
};

// ---- in eko_format.cpp ----------------------------------------------------------------------------------

// Takes the directive's argument, and takes it apart as far as the locale has no say in it. From there on
// ctx.precision is the number of fraction digits that are printed. For a value that is no number there is the sign
// only, and `word` receives "nan" or "inf" instead of null. False when the value cannot be printed.
bool takeFloat(Directive& ctx, Arguments& args, FltFormat& field, const char** word);

// ---- the field ------------------------------------------------------------------------------------------

template <class C> inline void layOutFloat(FormatCtx<C>& ctx, FltFormat& field)
{
    if (ctx.precision > 0 || (ctx.flags & F_ALT))
        field.emitpoint = static_cast<int32>(lengthOf(decimalPoint(ctx)));
    field.separators = separatorsFor(field.ilen, separatorLength(ctx));
    field.padlen = placedPadding(ctx, int64{field.ilen} + field.elen + ctx.precision + field.separators +
                                          field.emitpoint + (field.sign ? 1 : 0));
}

// The letter, the sign and the digits.
// DELIBERATE: of four digits, which only a long double has, the first is lost. Callers rely on exponents of at most
// five characters. Pinned by Format.floats_depart_from_c.
template <class C> inline void writeExponent(C* to, const Directive& ctx, const FltFormat& field)
{
    const uint32 magnitude = static_cast<uint32>(field.exponent < 0 ? -field.exponent : field.exponent);
    to[0] = ctx.flags & F_UPPER ? 'E' : 'e';
    to[1] = field.exponent < 0 ? '-' : '+';
    writeDecimal(to + field.elen, magnitude % 1000, field.elen - 2);
}

inline void storeExponent(const Directive& ctx, FltFormat& field)
{
    char text[MAX_EXPONENT_TEXT];
    writeExponent(text, ctx, field);
    storeReversed(field.econvert, text, field.elen);
}

// Digits are written where they belong, or piece by piece when the buffer ends in them.
template <class C> inline void putWhole(FormatCtx<C>& ctx, FltFormat& field)
{
    StrCtx<C>& sink = *ctx.sctx;
    const size_t n = static_cast<size_t>(field.ilen);
    if (field.separators > 0 || n > roomIn(sink)) {
        storeDigits(field.iconvert, field.intpart, field.ilen);
        putGrouped(ctx, field.iconvert, field.ilen, field.separators);
        return;
    }
    sink.len += n;
    writeDecimal(sink.str + sink.len, field.intpart, field.ilen);
}

template <class C> void putFractionPieces(FormatCtx<C>& ctx, FltFormat& field)
{
    StrCtx<C>& sink = *ctx.sctx;
    field.flen = field.fracpart > 0 ? countDecimals(field.fracpart) : 0;
    field.leadfraczeros = ctx.precision - field.flen;
    storeDigits(field.fconvert, field.fracpart, field.flen);
    putCopies(sink, C('0'), field.leadfraczeros);
    putReversed(sink, field.fconvert, field.flen);
    if (field.elen > 0)
        storeExponent(ctx, field);
    putReversed(sink, field.econvert, field.elen);
}

// The digits behind the point, and the exponent.
template <class C> inline void putFraction(FormatCtx<C>& ctx, FltFormat& field)
{
    StrCtx<C>& sink = *ctx.sctx;
    const size_t n = static_cast<size_t>(ctx.precision) + static_cast<size_t>(field.elen);
    if (n > roomIn(sink)) {
        putFractionPieces(ctx, field);
        return;
    }
    C* const to = sink.str + sink.len + ctx.precision;
    writeDecimal(to, field.fracpart, ctx.precision); // the zeros in front of it too
    if (field.elen > 0)
        writeExponent(to, ctx, field);
    sink.len += n;
}

template <class C> inline void putFloatField(FormatCtx<C>& ctx, FltFormat& field)
{
    StrCtx<C>& sink = *ctx.sctx;
    const bool zeros = ctx.flags & F_ZERO;
    if (!zeros)
        putCopies(sink, C(' '), field.padlen);
    if (field.sign)
        putChar(sink, C(field.sign));
    if (zeros)
        putCopies(sink, C('0'), field.padlen);
    putWhole(ctx, field);
    if (field.emitpoint > 0)
        putText(sink, decimalPoint(ctx), static_cast<size_t>(field.emitpoint));
    putFraction(ctx, field);
    putCopies(sink, C(' '), -field.padlen);
}

// False when the value cannot be printed.
template <class C> bool putFloat(FormatCtx<C>& ctx)
{
    FltFormat field;
    const char* word;
    if (!takeFloat(ctx, ctx.sctx->args, field, &word))
        return false;
    if (word) {
        putWord(ctx, field.sign, word, lengthOf(word));
        return true;
    }
    layOutFloat(ctx, field);
    putFloatField(ctx, field);
    return true;
}

#endif
