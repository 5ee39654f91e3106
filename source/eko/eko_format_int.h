// SPDX-License-Identifier: MIT
// eko_format_int.h - integer fields: fetching the argument, laying the field out, writing it.
//
//      spaces | sign | prefix | zeros | digits with separators | spaces
//
// The layout is known in full before the first character is written. So the digits are written where they belong; a
// field that is cut by the buffer's end, or has separators, is put piece by piece and takes them from the record.
#ifndef EKO_EKO_FORMAT_INT_H
#define EKO_EKO_FORMAT_INT_H

#include "eko_format_ctx.h"

struct IntFormat {
    char sign = 0;                // minus, plus, space; 0 for none
    const char* prefix = nullptr; // "0x", "0X", "0"; null for none
    int32 prefixLen = 0;
    int32 len = 0;        // digits
    int32 spadlen = 0;    // spaces: before the field when positive, after it when negative
    int32 zpadlen = 0;    // zeros between prefix and digits
    int32 separators = 0; // characters that all thousands separators take
    char tmp[MAX_DIGITS]; // the digits, last one first; set by what puts them one by one
    uint64 uval = 0;      // the magnitude
};

// ---- the argument ---------------------------------------------------------------------------------------

// The directive's argument when it has a modifier, as fetchInteger; in eko_format.cpp.
uint64 fetchModified(const Directive& ctx, Arguments& args);

// The directive's argument, an integer or a pointer, widened to 64 bits: by its sign, or by zeros when the
// directive is unsigned.
inline uint64 fetchInteger(const Directive& ctx, Arguments& args)
{
    if (ctx.flags & F_POINTER)
        return static_cast<uint64>(int64{reinterpret_cast<intptr_t>(va_arg(args, const void*))}); // by its sign
    if (ctx.conv != C_DEFAULT)
        return fetchModified(ctx, args);
    const int32 arg = va_arg(args, int);
    return ctx.flags & F_UNSIGNED ? static_cast<uint32>(arg) : static_cast<uint64>(int64{arg});
}

// ---- the layout -----------------------------------------------------------------------------------------

inline bool isNegative(const Directive& ctx, uint64 value)
{
    return !(ctx.flags & F_UNSIGNED) && ctx.conv != C_SIZE && static_cast<int64>(value) < 0;
}

// Zero never has a prefix. The octal one is a digit, so it counts against the precision.
inline void choosePrefix(Directive& ctx, IntFormat& field)
{
    if (!(ctx.flags & (F_ALT | F_POINTER)) || field.uval == 0)
        return;
    if (ctx.base == 16) {
        field.prefix = ctx.flags & F_UPPER ? "0X" : "0x";
        field.prefixLen = 2;
    } else if (ctx.base == 8) {
        field.prefix = "0";
        field.prefixLen = 1;
        // DELIBERATE: a precision of 0 thereby becomes none, so that %0#6.0o pads with zeros. Callers rely on
        // the width being filled that way. Pinned by Format.integers_depart_from_c.
        if (ctx.precision != NO_PRECISION)
            --ctx.precision;
    }
}

inline void layOutPadding(const Directive& ctx, IntFormat& field)
{
    // DELIBERATE: separators count against the precision here, and again beside it in the width, so a grouped
    // field can come out shorter than its width. Callers' columns rely on it.
    // Pinned by FormatLocale.groups_digits_and_counts_separators_against_the_precision.
    const int64 zeros = int64{ctx.precision} - field.separators - field.len;
    field.zpadlen = zeros > 0 ? static_cast<int32>(zeros) : 0;

    const int32 digits = ctx.precision > field.len ? ctx.precision : field.len;
    field.spadlen = paddingTo(ctx, int64{field.prefixLen} + (field.sign ? 1 : 0) + field.separators + digits);

    if (ctx.flags & F_MINUS) {
        field.spadlen = -field.spadlen;
    } else if ((ctx.flags & F_ZERO) && ctx.precision == NO_PRECISION) {
        field.zpadlen = field.spadlen;
        field.spadlen = 0;
    }
}

// The octal prefix changes the directive's precision.
[[gnu::always_inline]] inline void layOutInteger(Directive& ctx, uint64 value, int32 separatorLen, IntFormat& field)
{
    const bool negative = isNegative(ctx, value);
    field.uval = negative ? 0 - value : value; // unsigned: the lowest value has no positive twin
    if (!(ctx.flags & F_UNSIGNED))
        field.sign = signFor(ctx, negative);
    field.len = countDigits(field.uval, ctx.base);
    choosePrefix(ctx, field);
    if (ctx.precision == 0 && field.uval == 0)
        field.len = 0;
    field.separators = separatorsFor(field.len, separatorLen);
    layOutPadding(ctx, field);
}

// ---- the field ------------------------------------------------------------------------------------------

// Sign, prefix, zeros and digits, `places` characters for zeros and digits.
template <class C> inline void writeInteger(C* to, const Directive& ctx, const IntFormat& field, int32 places)
{
    if (field.sign)
        *to++ = C(field.sign);
    for (int32 i = 0; i < field.prefixLen; ++i)
        *to++ = C(field.prefix[i]);
    writeDigits(to + places, field.uval, places, ctx.base, ctx.flags & F_UPPER);
}

// The same, piece by piece.
template <class C> [[gnu::noinline]] void putPieces(FormatCtx<C>& ctx, IntFormat& field)
{
    StrCtx<C>& sink = *ctx.sctx;
    if (field.sign)
        putChar(sink, C(field.sign));
    putText(sink, field.prefix, static_cast<size_t>(field.prefixLen));
    putCopies(sink, C('0'), field.zpadlen);
    storeDigits(field.tmp, field.uval, field.len, ctx.base, ctx.flags & F_UPPER);
    putGrouped(ctx, field.tmp, field.len, field.separators);
}

template <class C> inline void putIntegerField(FormatCtx<C>& ctx, IntFormat& field)
{
    StrCtx<C>& sink = *ctx.sctx;
    putCopies(sink, C(' '), field.spadlen);
    const int32 places = field.zpadlen + field.len; // as the width or the precision has, or as the digits take
    const size_t n = static_cast<size_t>((field.sign ? 1 : 0) + field.prefixLen) + static_cast<size_t>(places);
    if (field.separators > 0 || n > roomIn(sink)) {
        putPieces(ctx, field);
    } else {
        writeInteger(sink.str + sink.len, ctx, field, places);
        sink.len += n;
    }
    putCopies(sink, C(' '), -field.spadlen);
}

template <class C> [[gnu::noinline]] void putLaidOutInteger(FormatCtx<C>& ctx, uint64 value)
{
    IntFormat field;
    layOutInteger(ctx, value, separatorLength(ctx), field);
    putIntegerField(ctx, field);
}

// No more than a sign and the digits, which is what most directives ask for: there is nothing to lay out.
template <class C> inline void putBareInteger(FormatCtx<C>& ctx, uint64 value)
{
    StrCtx<C>& sink = *ctx.sctx;
    const bool negative = isNegative(ctx, value);
    const uint64 magnitude = negative ? 0 - value : value;
    const int32 places = countDigits(magnitude, ctx.base);
    const size_t n = static_cast<size_t>(places) + (negative ? 1 : 0);
    if (n > roomIn(sink)) {
        putLaidOutInteger(ctx, value);
        return;
    }
    C* const to = sink.str + sink.len;
    *to = '-'; // or the first digit over it
    writeDigits(to + n, magnitude, places, ctx.base, ctx.flags & F_UPPER);
    sink.len += n;
}

template <class C> inline bool isBare(const FormatCtx<C>& ctx)
{
    return (ctx.flags & ~(F_UNSIGNED | F_UPPER)) == 0 && ctx.width == 0 && ctx.precision == NO_PRECISION;
}

template <class C> inline void putInteger(FormatCtx<C>& ctx)
{
    const uint64 value = fetchInteger(ctx, ctx.sctx->args);
    if (isBare(ctx))
        putBareInteger(ctx, value);
    else if ((ctx.flags & F_POINTER) && value == 0)
        putWord(ctx, 0, TEXT_NIL, lengthToPrint(ctx, TEXT_NIL));
    else
        putLaidOutInteger(ctx, value);
}

#endif
