// eko_format_ctx.h - what one formatting call works on: the sink, the directive, and how text gets into the sink.
//
// Everything is a template over the character type C, char or wchar_t; lengths are in characters. What differs
// between the two is in FormatTraits<C>, which the module that instantiates the engine provides:
//
//      using Locale = ...;                        the locale's conventions, read when first needed; {} is unread
//      static const C* decimalPoint(Locale&);     null when the locale gives none
//      static const C* thousandsSep(Locale&);
//      static size_t length(const C* str);
//      static size_t length(const C* str, size_t max);    never looks at more than max characters
//      static C character(int arg);               what %c prints
#ifndef EKO_EKO_FORMAT_CTX_H
#define EKO_EKO_FORMAT_CTX_H

#include <string.h>

#include "ekoint.h"

template <class C> struct FormatTraits;

// Bits of FormatCtx::flags.
constexpr uint16 F_MINUS = 0x001;    // padding goes after the field
constexpr uint16 F_PLUS = 0x002;     // non-negative signed values get a plus
constexpr uint16 F_SPACE = 0x004;    // or a space; F_PLUS wins
constexpr uint16 F_ALT = 0x008;      // prefixes of integers; point and trailing zeros of floats stay
constexpr uint16 F_ZERO = 0x010;     // pads with zeros
constexpr uint16 F_GROUP = 0x020;    // thousands separators
constexpr uint16 F_UPPER = 0x040;    // upper-case digits, prefix, exponent letter, NAN, INF
constexpr uint16 F_UNSIGNED = 0x080; // the integer has no sign
constexpr uint16 F_GSTYLE = 0x100;   // %g
constexpr uint16 F_ESTYLE = 0x200;   // %e
constexpr uint16 F_POINTER = 0x400;  // prefix as for F_ALT

constexpr int32 NO_PRECISION = -1;
constexpr size_t MAX_DIGITS = 43; // of one number; 64 bits in octal have 22

// The output of one call.
template <class C> struct StrCtx {
    C* str;      // the caller's buffer, null for a sizing pass
    size_t len;  // characters produced so far, those that did not fit included; stays at SIZE_MAX when beyond
    size_t size; // characters in `str`, the terminator's included; 0 when it is null
    va_list args;
#if EKO_CHECKED
    const C* extended; // the string that is being appended to, or null, and its length: no argument may lie in it
    size_t extendedLen;
#endif
};

// One directive.
template <class C> struct FormatCtx {
    uint16 flags;
    CONV conv;
    uint32 base; // 8, 10, 16
    int32 width;
    int32 precision; // NO_PRECISION when none was given
    StrCtx<C>* sctx;
    const C* fmt; // cursor in the format
    typename FormatTraits<C>::Locale lc;
};

// ---- fixed texts ----------------------------------------------------------------------------------------

template <class C> inline constexpr C TEXT_NULL[] = {'(', 'n', 'u', 'l', 'l', ')', 0};
template <class C> inline constexpr C TEXT_NIL[] = {'(', 'n', 'i', 'l', ')', 0};
template <class C> inline constexpr C TEXT_NAN[2][4] = {{'n', 'a', 'n', 0}, {'N', 'A', 'N', 0}}; // [upper]
template <class C> inline constexpr C TEXT_INF[2][4] = {{'i', 'n', 'f', 0}, {'I', 'N', 'F', 0}};
template <class C> inline constexpr C TEXT_HEX[2][3] = {{'0', 'x', 0}, {'0', 'X', 0}};
template <class C> inline constexpr C TEXT_OCTAL[] = {'0', 0};
template <class C> inline constexpr C TEXT_POINT[] = {'.', 0};
template <class C> inline constexpr C TEXT_COMMA[] = {',', 0};

// ---- the sink -------------------------------------------------------------------------------------------
// Text is stored as far as it fits in front of the last place, which is the terminator's, and counted in full.

template <class C> inline size_t roomIn(const StrCtx<C>& sink)
{
    return sink.len < sink.size ? sink.size - sink.len - 1 : 0;
}

// Counts n characters. A count that wrapped would store behind the end of the buffer again, and three widths of
// 2147483647 are enough for that where size_t has 32 bits.
template <class C> inline void countOut(StrCtx<C>& sink, size_t n)
{
    if (__builtin_add_overflow(sink.len, n, &sink.len))
        sink.len = SIZE_MAX;
}

template <class C> inline void putChar(StrCtx<C>& sink, C c)
{
    if (roomIn(sink) > 0)
        sink.str[sink.len] = c;
    countOut(sink, 1);
}

// How many of n characters are stored.
template <class C> inline size_t fitting(const StrCtx<C>& sink, size_t n)
{
    const size_t room = roomIn(sink);
    return n < room ? n : room;
}

template <class C> inline void putText(StrCtx<C>& sink, const C* text, size_t n)
{
    if (const size_t stored = fitting(sink, n))
        memcpy(sink.str + sink.len, text, stored * sizeof(C));
    countOut(sink, n);
}

// n copies of c; nothing when n is 0 or below, which is how padding that belongs on the other side says so.
template <class C> inline void putCopies(StrCtx<C>& sink, C c, int32 n)
{
    if (n <= 0)
        return;
    if (const size_t stored = fitting(sink, static_cast<size_t>(n))) {
        C* const to = sink.str + sink.len;
        for (size_t i = 0; i < stored; ++i) // compilers make a memset of it where C is a byte
            to[i] = c;
    }
    countOut(sink, static_cast<size_t>(n));
}

// n digits that are stored last one first; nothing when n is 0 or below.
template <class C> inline void putReversed(StrCtx<C>& sink, const C* digits, int32 n)
{
    if (n <= 0)
        return;
    if (roomIn(sink) >= static_cast<size_t>(n)) {
        C* to = sink.str + sink.len;
        for (int32 i = n; i-- > 0;)
            *to++ = digits[i];
        countOut(sink, static_cast<size_t>(n));
        return;
    }
    for (int32 i = n; i-- > 0;)
        putChar(sink, digits[i]);
}

template <class C> inline void terminate(StrCtx<C>& sink)
{
    if (sink.len < sink.size)
        sink.str[sink.len] = 0;
    else if (sink.size > 0)
        sink.str[sink.size - 1] = 0;
}

// ---- layout ---------------------------------------------------------------------------------------------

// What is missing to the width, not below 0. A field can be longer than an int32 says.
template <class C> inline int32 paddingTo(const FormatCtx<C>& ctx, int64 fieldLen)
{
    const int64 padding = int64{ctx.width} - fieldLen;
    return padding > 0 ? static_cast<int32>(padding) : 0;
}

// A word instead of digits: the sign, if any, and n characters, padded with spaces.
template <class C> void putWord(FormatCtx<C>& ctx, C sign, const C* word, size_t n)
{
    int32 padLen = paddingTo(ctx, static_cast<int64>(n) + (sign ? 1 : 0));
    if (ctx.flags & F_MINUS)
        padLen = -padLen;
    StrCtx<C>& sink = *ctx.sctx;
    putCopies(sink, C(' '), padLen);
    if (sign)
        putChar(sink, sign);
    putText(sink, word, n);
    putCopies(sink, C(' '), -padLen);
}

template <class C> inline C signFor(const FormatCtx<C>& ctx, bool negative)
{
    if (negative)
        return '-';
    if (ctx.flags & F_PLUS)
        return '+';
    return ctx.flags & F_SPACE ? C(' ') : C(0);
}

// ---- digits and the locale ------------------------------------------------------------------------------

template <class C> inline const C* decimalPoint(FormatCtx<C>& ctx)
{
    const C* point = FormatTraits<C>::decimalPoint(ctx.lc);
    return point ? point : TEXT_POINT<C>;
}

template <class C> inline const C* thousandsSep(FormatCtx<C>& ctx)
{
    const C* sep = FormatTraits<C>::thousandsSep(ctx.lc);
    return sep ? sep : TEXT_COMMA<C>;
}

// Characters that the separators between groups of three of n digits take. Zero can have no digits at all
// (%'.0d), and that is no reason to count less than no separator.
template <class C> int32 separatorsFor(FormatCtx<C>& ctx, int32 n)
{
    if (!(ctx.flags & F_GROUP) || n == 0)
        return 0;
    const int32 groups = (n + 2) / 3;
    return (groups - 1) * static_cast<int32>(FormatTraits<C>::length(thousandsSep(ctx)));
}

// A number's digits, stored last one first, with separators when they take any characters.
template <class C> void putGrouped(FormatCtx<C>& ctx, const C* digits, int32 n, int32 separators)
{
    StrCtx<C>& sink = *ctx.sctx;
    if (separators == 0) {
        putReversed(sink, digits, n);
        return;
    }
    const C* const sep = thousandsSep(ctx);
    const size_t sepLen = FormatTraits<C>::length(sep);
    for (int32 i = n; i-- > 0;) {
        putChar(sink, digits[i]);
        if (i > 0 && i % 3 == 0)
            putText(sink, sep, sepLen);
    }
}

// Stores the digits of a value last one first, at least one, and returns how many. BASE_CHUNK is
// BASE ^ CHUNK_DIGITS and fits 32 bits: dividing 64 bits costs a function call where registers have 32, so that
// is done once for many digits, and not at all for a value that fits.
template <uint32 BASE, uint32 BASE_CHUNK, int32 CHUNK_DIGITS, class C>
inline int32 splitDigits(uint64 value, C* out, const char* table)
{
    int32 n = 0;
    while (value > UINT32_MAX) {
        uint32 chunk = static_cast<uint32>(value % BASE_CHUNK);
        value /= BASE_CHUNK;
        for (int32 i = 0; i < CHUNK_DIGITS; ++i, chunk /= BASE)
            out[n++] = C(table[chunk % BASE]);
    }
    uint32 rest = static_cast<uint32>(value);
    do {
        out[n++] = C(table[rest % BASE]);
        rest /= BASE;
    } while (rest > 0);
    return n;
}

template <class C> int32 decimalDigits(uint64 value, C* out)
{
    return splitDigits<10, 1000000000, 9>(value, out, "0123456789");
}

#endif
