// eko_format_int.h - integer fields: fetching the argument, laying the field out, writing it.
//
//      spaces | sign | prefix | zeros | digits with separators | spaces
//
// The layout is known in full before the first character is written.
#ifndef EKO_EKO_FORMAT_INT_H
#define EKO_EKO_FORMAT_INT_H

#include "eko_format_ctx.h"

template <class C> struct IntFormat {
    C sign;            // minus, plus, space; 0 for none
    const C* prefix;   // "0x", "0X", "0"; null for none
    int32 len;         // digits in tmp
    int32 spadlen;     // spaces: before the field when positive, after it when negative
    int32 zpadlen;     // zeros between prefix and digits
    int32 separators;  // characters that all thousands separators take
    C tmp[MAX_DIGITS]; // the digits, last one first
    uint64 uval;       // the magnitude
};

// ---- the argument ---------------------------------------------------------------------------------------

// A signed argument, widened to 64 bits by its sign, or by zeros when the directive is unsigned. Narrow is the
// type that the modifier names, Passed the one it is passed as.
template <class Narrow, class UnsignedNarrow, class Passed, class C> inline uint64 fetchAs(FormatCtx<C>& ctx)
{
    const Passed arg = va_arg(ctx.sctx->args, Passed);
    if (ctx.flags & F_UNSIGNED)
        return static_cast<UnsignedNarrow>(arg);
    return static_cast<uint64>(int64{static_cast<Narrow>(arg)});
}

template <class C> uint64 fetchInteger(FormatCtx<C>& ctx)
{
    switch (ctx.conv) {
    case C_CHAR:
        return fetchAs<int8, uint8, int>(ctx);
    case C_SHORT:
        return fetchAs<int16, uint16, int>(ctx);
    case C_LONG:
        return fetchAs<long, unsigned long, long>(ctx);
    case C_LLONG:
    case C_INTMAX:
        return fetchAs<int64, uint64, int64>(ctx);
    case C_SIZE:
        // DELIBERATE: unsigned even for %d. Callers print sizes with %zd. Pinned by Format.integers_depart_from_c.
        return va_arg(ctx.sctx->args, size_t);
    case C_PTRDIFF:
        // DELIBERATE: extended by its sign even for %u and %x, to 64 bits on every platform: callers print
        // differences with them. Pinned by Format.integers_depart_from_c.
        return static_cast<uint64>(int64{va_arg(ctx.sctx->args, ptrdiff_t)});
    case C_LDOUBLE:
        // DELIBERATE: takes no argument, so the next directive gets this one's; callers' formats are written
        // for that. Pinned by Format.integers_depart_from_c.
        return 0;
    case C_DEFAULT:
        break;
    }
    return fetchAs<int32, uint32, int>(ctx);
}

template <class C> inline bool isNegative(const FormatCtx<C>& ctx, uint64 value)
{
    return !(ctx.flags & F_UNSIGNED) && ctx.conv != C_SIZE && static_cast<int64>(value) < 0;
}

// ---- the layout -----------------------------------------------------------------------------------------

template <class C> int32 digitsOf(const FormatCtx<C>& ctx, uint64 value, C* out)
{
    const char* const table = ctx.flags & F_UPPER ? "0123456789ABCDEF" : "0123456789abcdef";
    switch (ctx.base) {
    case 8:
        return splitDigits<8, 0x40000000, 10>(value, out, table);
    case 16:
        return splitDigits<16, 0x10000000, 7>(value, out, table);
    default:
        return splitDigits<10, 1000000000, 9>(value, out, table);
    }
}

// Zero never has a prefix. The octal one is a digit, so it counts against the precision.
template <class C> void choosePrefix(FormatCtx<C>& ctx, IntFormat<C>& field)
{
    if (!(ctx.flags & (F_ALT | F_POINTER)) || field.uval == 0)
        return;
    if (ctx.base == 16) {
        field.prefix = TEXT_HEX<C>[ctx.flags & F_UPPER ? 1 : 0];
    } else if (ctx.base == 8) {
        field.prefix = TEXT_OCTAL<C>;
        // DELIBERATE: a precision of 0 thereby becomes none, so that %0#6.0o pads with zeros. Callers rely on
        // the width being filled that way. Pinned by Format.integers_depart_from_c.
        if (ctx.precision != NO_PRECISION)
            --ctx.precision;
    }
}

template <class C> void layOutPadding(const FormatCtx<C>& ctx, IntFormat<C>& field)
{
    // DELIBERATE: separators count against the precision here, and again beside it in the width, so a grouped
    // field can come out shorter than its width. Callers' columns rely on it.
    // Pinned by FormatLocale.groups_digits_and_counts_separators_against_the_precision.
    const int64 zeros = int64{ctx.precision} - field.separators - field.len;
    field.zpadlen = zeros > 0 ? static_cast<int32>(zeros) : 0;

    const int64 prefixLen = field.prefix ? static_cast<int64>(FormatTraits<C>::length(field.prefix)) : 0;
    const int32 digits = ctx.precision > field.len ? ctx.precision : field.len;
    field.spadlen = paddingTo(ctx, prefixLen + (field.sign ? 1 : 0) + field.separators + digits);

    if (ctx.flags & F_MINUS) {
        field.spadlen = -field.spadlen;
    } else if ((ctx.flags & F_ZERO) && ctx.precision == NO_PRECISION) {
        field.zpadlen = field.spadlen;
        field.spadlen = 0;
    }
}

template <class C> void layOutInteger(FormatCtx<C>& ctx, uint64 value, IntFormat<C>& field)
{
    const bool negative = isNegative(ctx, value);
    field.uval = negative ? 0 - value : value; // unsigned: the lowest value has no positive twin
    if (!(ctx.flags & F_UNSIGNED))
        field.sign = signFor(ctx, negative);
    field.len = digitsOf(ctx, field.uval, field.tmp);
    choosePrefix(ctx, field);
    if (ctx.precision == 0 && field.uval == 0)
        field.len = 0;
    field.separators = separatorsFor(ctx, field.len);
    layOutPadding(ctx, field);
}

// ---- the field ------------------------------------------------------------------------------------------

template <class C> void putInteger(FormatCtx<C>& ctx, uint64 value)
{
    IntFormat<C> field = {};
    layOutInteger(ctx, value, field);

    StrCtx<C>& sink = *ctx.sctx;
    putCopies(sink, C(' '), field.spadlen);
    if (field.sign)
        putChar(sink, field.sign);
    if (field.prefix)
        putText(sink, field.prefix, FormatTraits<C>::length(field.prefix));
    putCopies(sink, C('0'), field.zpadlen);
    putGrouped(ctx, field.tmp, field.len, field.separators);
    putCopies(sink, C(' '), -field.spadlen);
}

#endif
