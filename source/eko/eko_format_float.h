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

struct FltFormat {
    char sign;           // minus, plus, space; 0 for none
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
    char econvert[5];    // the exponent's text and the digits, each last one first
    char iconvert[MAX_DIGITS];
    char fconvert[MAX_DIGITS];
    uint64 intpart;
    uint64 fracpart; // the fraction times 10 ^ precision
};

// ---- in eko_format.cpp ----------------------------------------------------------------------------------

// Takes the directive's argument, and takes it apart into a field that is all zero, as far as the locale has no say
// in it. From there on ctx.precision is the number of fraction digits that are printed. For a value that is no
// number there is the sign only, and `word` receives "nan" or "inf" instead of null. False when the value cannot
// be printed.
bool takeFloat(Directive& ctx, va_list& args, FltFormat& field, const char** word);

// ---- the field ------------------------------------------------------------------------------------------

template <class C> void layOutFloat(FormatCtx<C>& ctx, FltFormat& field)
{
    if (ctx.precision > 0 || (ctx.flags & F_ALT))
        field.emitpoint = static_cast<int32>(lengthOf(decimalPoint(ctx)));
    field.separators = separatorsFor(field.ilen, separatorLength(ctx));
    field.padlen = placedPadding(ctx, int64{field.ilen} + field.elen + ctx.precision + field.separators +
                                          field.emitpoint + (field.sign ? 1 : 0));
}

template <class C> void putFraction(FormatCtx<C>& ctx, const FltFormat& field)
{
    StrCtx<C>& sink = *ctx.sctx;
    if (field.emitpoint > 0)
        putText(sink, decimalPoint(ctx), static_cast<size_t>(field.emitpoint));
    putCopies(sink, C('0'), field.leadfraczeros);
    putReversed(sink, field.fconvert + field.omitcount, field.flen - field.omitcount);
}

template <class C> void putFloatField(FormatCtx<C>& ctx, const FltFormat& field)
{
    StrCtx<C>& sink = *ctx.sctx;
    const bool zeros = ctx.flags & F_ZERO;
    if (!zeros)
        putCopies(sink, C(' '), field.padlen);
    if (field.sign)
        putChar(sink, C(field.sign));
    if (zeros)
        putCopies(sink, C('0'), field.padlen);
    putGrouped(ctx, field.iconvert, field.ilen, field.separators);
    putFraction(ctx, field);
    putReversed(sink, field.econvert, field.elen);
    putCopies(sink, C(' '), -field.padlen);
}

// False when the value cannot be printed.
template <class C> bool putFloat(FormatCtx<C>& ctx)
{
    FltFormat field = {};
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
