// SPDX-License-Identifier: MIT
// eko_format_ctx.h - what one formatting call works on: the sink, the directive, and how text gets into the sink.
//
// What depends on the character type C, char or wchar_t, is a template over it; lengths are in characters. Signs,
// prefixes and words are ASCII, kept as bytes and widened on their way into a wide sink. What else differs between
// the two types is in FormatTraits<C>, which the module that instantiates the engine provides:
//
//      struct Locale;                             the locale's conventions, read when first needed; made unread
//      static const C* decimalPoint(Locale&);     null when the locale gives none
//      static const C* thousandsSep(Locale&);
//      static constexpr bool CONVERTS_BYTES;      whether %hs takes UTF-8 and converts it
//      static const C* runEnd(const C* fmt);      the next '%', or the end of the format
//
// Every directive of every call passes here. So its pieces are written in place where they fit, as blocks, and
// small ones without a call; which bytes are stored and counted is the same for all ways.
#ifndef EKO_EKO_FORMAT_CTX_H
#define EKO_EKO_FORMAT_CTX_H

#include <string.h>
#include <wchar.h>

#include <type_traits>

#include "eko_format_digits.h"

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

// A va_list as a parameter has it: where the type is an array, that is the address of the caller's, whose arguments
// are thus used up without being copied first.
using Arguments = std::decay_t<va_list>;

// The output of one call.
template <class C> struct StrCtx {
    StrCtx(C* buffer, size_t bufferSize, va_list list) : str(buffer), size(buffer ? bufferSize : 0), args(list) {}

    C* str;         // the caller's buffer, null for a sizing pass
    size_t len = 0; // characters produced so far, those that did not fit included; stays at SIZE_MAX when beyond
    size_t size;    // characters in `str`, the terminator's included; 0 when it is null
    Arguments args;
#if EKO_CHECKED
    const C* extended = nullptr; // the string that is being appended to, and its length: no argument may lie in it
    size_t extendedLen = 0;
#endif
};

// What a directive says.
struct Directive {
    uint16 flags = 0;
    CONV conv = C_DEFAULT;
    uint32 base = 0; // 8, 10, 16
    int32 width = 0;
    int32 precision = NO_PRECISION; // NO_PRECISION when none was given
};

// One directive and what it works with.
template <class C> struct FormatCtx : Directive {
    FormatCtx(StrCtx<C>& sink, const C* directive) : sctx(&sink), fmt(directive) {}

    StrCtx<C>* sctx;
    const C* fmt; // cursor in the format
    typename FormatTraits<C>::Locale lc;
};

// ---- fixed texts ----------------------------------------------------------------------------------------

inline constexpr char TEXT_NULL[] = "(null)";
inline constexpr char TEXT_NIL[] = "(nil)";
template <class C> inline constexpr C TEXT_POINT[] = {'.', 0};
template <class C> inline constexpr C TEXT_COMMA[] = {',', 0};

// ---- lengths --------------------------------------------------------------------------------------------
// With a maximum they never look at more characters than that.

inline size_t lengthOf(const char* str)
{
    return strlen(str);
}
inline size_t lengthOf(const wchar_t* str)
{
    return wcslen(str);
}
inline size_t lengthOf(const char* str, size_t max)
{
    return strnlen(str, max);
}
inline size_t lengthOf(const wchar_t* str, size_t max)
{
    return wcsnlen(str, max);
}

// How much of a string the directive prints.
template <class T> inline size_t lengthToPrint(const Directive& ctx, const T* str)
{
    return ctx.precision == NO_PRECISION ? lengthOf(str) : lengthOf(str, static_cast<size_t>(ctx.precision));
}

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

// memcpy, without a call for the few bytes that most pieces have: they are taken whole before any is stored.
inline void copyChars(char* to, const char* from, size_t n)
{
    const auto copyEnds = [=](auto first, auto last) { // which may overlap
        memcpy(&first, from, sizeof(first));
        memcpy(&last, from + n - sizeof(last), sizeof(last));
        memcpy(to, &first, sizeof(first));
        memcpy(to + n - sizeof(last), &last, sizeof(last));
    };
    if (n > 16)
        memcpy(to, from, n);
    else if (n >= 8)
        copyEnds(uint64{}, uint64{});
    else if (n >= 4)
        copyEnds(uint32{}, uint32{});
    else
        for (size_t i = 0; i < n; ++i)
            to[i] = from[i];
}
inline void copyChars(wchar_t* to, const wchar_t* from, size_t n)
{
    wmemcpy(to, from, n);
}
inline void copyChars(wchar_t* to, const char* from, size_t n) // ASCII, widened
{
    for (size_t i = 0; i < n; ++i)
        to[i] = from[i];
}

template <class C, class T> inline void putText(StrCtx<C>& sink, const T* text, size_t n)
{
    if (const size_t stored = fitting(sink, n))
        copyChars(sink.str + sink.len, text, stored);
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

// n characters that are stored last one first; nothing when n is 0 or below.
template <class C> inline void putReversed(StrCtx<C>& sink, const char* text, int32 n)
{
    while (n > 0)
        putChar(sink, C(text[--n]));
}

template <class C> inline void terminate(StrCtx<C>& sink)
{
    if (sink.len < sink.size)
        sink.str[sink.len] = 0;
    else if (sink.size > 0)
        sink.str[sink.size - 1] = 0;
}

// ---- layout ---------------------------------------------------------------------------------------------

inline char signFor(const Directive& ctx, bool negative)
{
    if (negative)
        return '-';
    if (ctx.flags & F_PLUS)
        return '+';
    return ctx.flags & F_SPACE ? ' ' : 0;
}

// What is missing to the width, not below 0. A field can be longer than an int32 says.
inline int32 paddingTo(const Directive& ctx, int64 fieldLen)
{
    const int64 padding = int64{ctx.width} - fieldLen;
    return padding > 0 ? static_cast<int32>(padding) : 0;
}

// The same, negative when it belongs behind the field.
inline int32 placedPadding(const Directive& ctx, int64 fieldLen)
{
    const int32 padding = paddingTo(ctx, fieldLen);
    return ctx.flags & F_MINUS ? -padding : padding;
}

// A word instead of digits: the sign, if any, and n characters, padded with spaces.
template <class C, class T> void putWord(FormatCtx<C>& ctx, char sign, const T* word, size_t n)
{
    const int32 padLen = placedPadding(ctx, static_cast<int64>(n) + (sign ? 1 : 0));
    StrCtx<C>& sink = *ctx.sctx;
    putCopies(sink, C(' '), padLen);
    if (sign)
        putChar(sink, C(sign));
    putText(sink, word, n);
    putCopies(sink, C(' '), -padLen);
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

// Characters that one separator takes in this directive.
template <class C> inline int32 separatorLength(FormatCtx<C>& ctx)
{
    return ctx.flags & F_GROUP ? static_cast<int32>(lengthOf(thousandsSep(ctx))) : 0;
}

// Characters that the separators between groups of three of n digits take. Zero can have no digits at all
// (%'.0d), and that is no reason to count less than no separator.
inline int32 separatorsFor(int32 n, int32 separatorLen)
{
    return n == 0 ? 0 : ((n + 2) / 3 - 1) * separatorLen;
}

// A number's digits, stored last one first, with separators when they take any characters.
template <class C> void putGrouped(FormatCtx<C>& ctx, const char* digits, int32 n, int32 separators)
{
    StrCtx<C>& sink = *ctx.sctx;
    if (separators == 0) {
        putReversed(sink, digits, n);
        return;
    }
    const C* const sep = thousandsSep(ctx);
    const size_t sepLen = lengthOf(sep);
    for (int32 i = n; i-- > 0;) {
        putChar(sink, C(digits[i]));
        if (i > 0 && i % 3 == 0)
            putText(sink, sep, sepLen);
    }
}

#endif
