// SPDX-License-Identifier: MIT
// eko_format.h - the formatter: printf for one character type, with the departures that eko/format.h lists.
//
// A call walks its format. Runs of ordinary characters go to the sink as they are; a '%' makes a fresh directive
// (FormatCtx), which is parsed in a fixed order - flags, width, precision, length modifier, conversion - and
// written by the function of its kind. A directive that fails ends the walk; what was written before stays.
//
// Memory  Nothing is allocated: records of known size on the stack. The calls that make strings allocate once,
//         when they know the length: a short text is copied from the stack then, a longer one formatted again.
// State   None between calls. The locale is read per directive, when a separator or a point is needed.
//
// The engine is a template over the character type and is instantiated by one module for each. Fields of
// integers and floats have headers of their own; what does not depend on the character type is in eko_format.cpp.
#ifndef EKO_EKO_FORMAT_H
#define EKO_EKO_FORMAT_H

#include "eko_format_ctx.h"
#include "eko_format_float.h"
#include "eko_format_int.h"
#include "ekomem_int.h"

// ---- conversions ----------------------------------------------------------------------------------------

enum KIND : uint8 { K_UNKNOWN, K_PERCENT, K_INTEGER, K_CHAR, K_STRING, K_COUNT, K_FLOAT };

struct CONVERSION {
    KIND kind;
    uint8 base;
    uint16 flags; // set by the conversion character
};

struct CONVERSION_ROW {
    const char* letters;
    CONVERSION conversion;
};

inline constexpr CONVERSION_ROW CONVERSION_ROWS[] = {
    {"%", {K_PERCENT, 0, 0}},
    {"c", {K_CHAR, 0, 0}},
    {"s", {K_STRING, 0, 0}},
    {"n", {K_COUNT, 0, 0}},
    {"p", {K_INTEGER, 16, F_UNSIGNED | F_POINTER}},
    {"di", {K_INTEGER, 10, 0}},
    {"o", {K_INTEGER, 8, F_UNSIGNED}},
    {"u", {K_INTEGER, 10, F_UNSIGNED}},
    {"x", {K_INTEGER, 16, F_UNSIGNED}},
    {"X", {K_INTEGER, 16, F_UNSIGNED | F_UPPER}},
    {"e", {K_FLOAT, 10, F_ESTYLE}},
    {"E", {K_FLOAT, 10, F_ESTYLE | F_UPPER}},
    {"g", {K_FLOAT, 10, F_GSTYLE}},
    {"G", {K_FLOAT, 10, F_GSTYLE | F_UPPER}},
    // DELIBERATE: a is f. There is no hexadecimal output of floats and callers rely on a readable number.
    // Pinned by Format.floats_depart_from_c.
    {"fa", {K_FLOAT, 10, 0}},
    {"FA", {K_FLOAT, 10, F_UPPER}},
};

// The rows by character, so that a directive finds its own in one step.
struct CONVERSION_TABLE {
    CONVERSION of[128];
};
constexpr CONVERSION_TABLE conversionsByLetter()
{
    CONVERSION_TABLE table = {};
    for (const CONVERSION_ROW& row : CONVERSION_ROWS) {
        for (const char* letter = row.letters; *letter; ++letter)
            table.of[static_cast<uint8>(*letter)] = row.conversion;
    }
    return table;
}
inline constexpr CONVERSION_TABLE CONVERSIONS = conversionsByLetter();

// The flags from space to the digit 0; 0 is no flag.
constexpr char FIRST_FLAG = ' ';
constexpr char LAST_FLAG = '0';
inline constexpr uint16 FLAGS[LAST_FLAG - FIRST_FLAG + 1] = {
    F_SPACE, 0, 0, F_ALT, 0, 0, 0, F_GROUP, 0, 0, 0, F_PLUS, 0, F_MINUS, 0, 0, F_ZERO,
};

// ---- parsing a directive --------------------------------------------------------------------------------

template <class C> inline bool isDigit(C c)
{
    return c >= '0' && c <= '9';
}

template <class C> inline void parseFlags(FormatCtx<C>& ctx)
{
    for (; *ctx.fmt >= FIRST_FLAG && *ctx.fmt <= LAST_FLAG; ++ctx.fmt) {
        const uint16 flag = FLAGS[*ctx.fmt - FIRST_FLAG];
        if (flag == 0)
            return;
        ctx.flags |= flag;
    }
}

// Reads a run of digits; false when the number does not fit.
template <class C> bool parseNumber(FormatCtx<C>& ctx, int32* number)
{
    int32 n = 0;
    for (; isDigit(*ctx.fmt); ++ctx.fmt) {
        const int32 digit = static_cast<int32>(*ctx.fmt - '0');
        if (n > (INT32_MAX - digit) / 10)
            return false;
        n = n * 10 + digit;
    }
    *number = n;
    return true;
}

template <class C> inline bool parseWidth(FormatCtx<C>& ctx)
{
    if (*ctx.fmt != '*')
        return parseNumber(ctx, &ctx.width);
    ++ctx.fmt;
    const int width = va_arg(ctx.sctx->args, int);
    if (width == INT32_MIN)
        return false; // its negation is as much too large as 2147483648 in digits
    if (width < 0)
        ctx.flags |= F_MINUS;
    ctx.width = width < 0 ? -width : width;
    return true;
}

template <class C> inline bool parsePrecision(FormatCtx<C>& ctx)
{
    if (*ctx.fmt != '.')
        return true;
    ++ctx.fmt;
    if (*ctx.fmt != '*')
        return parseNumber(ctx, &ctx.precision); // 0 when there is no digit
    ++ctx.fmt;
    const int precision = va_arg(ctx.sctx->args, int);
    ctx.precision = precision < 0 ? NO_PRECISION : precision;
    return true;
}

// One letter, or the same twice.
template <class C> inline void takeModifier(FormatCtx<C>& ctx, CONV once, CONV twice)
{
    const C letter = *ctx.fmt++;
    ctx.conv = once;
    if (*ctx.fmt == letter && twice != once) {
        ++ctx.fmt;
        ctx.conv = twice;
    }
}

template <class C> inline void parseModifier(FormatCtx<C>& ctx)
{
    switch (*ctx.fmt) {
    case 'h':
        return takeModifier(ctx, C_SHORT, C_CHAR);
    case 'l':
        return takeModifier(ctx, C_LONG, C_LLONG);
    case 'L':
        return takeModifier(ctx, C_LDOUBLE, C_LDOUBLE);
    case 'j':
        return takeModifier(ctx, C_INTMAX, C_INTMAX);
    case 't':
        return takeModifier(ctx, C_PTRDIFF, C_PTRDIFF);
    case 'z':
        return takeModifier(ctx, C_SIZE, C_SIZE);
    default:
        return;
    }
}

// ---- strings --------------------------------------------------------------------------------------------

// DELIBERATE: all of "(null)" or nothing; callers never get a part of it to see.
// Pinned by Format.texts_depart_from_c.
template <class C> void putNullString(FormatCtx<C>& ctx)
{
    const size_t len = lengthOf(TEXT_NULL);
    const bool whole = ctx.precision == NO_PRECISION || static_cast<size_t>(ctx.precision) >= len;
    putWord(ctx, 0, TEXT_NULL, whole ? len : 0);
}

// UTF-8, converted on its way out; widths and precisions are in characters of the output. What is not UTF-8 prints
// as U+FFFD. With a precision the string needs no terminator behind that many complete characters.
template <class C> void putConverted(FormatCtx<C>& ctx, const char* str)
{
    const size_t max = ctx.precision == NO_PRECISION ? SIZE_MAX : static_cast<size_t>(ctx.precision);
    size_t n = 0;
    for (const char* s = str; n < max && *s; ++n)
        nextWide(&s);
    const int32 padLen = placedPadding(ctx, static_cast<int64>(n));
    putCopies(*ctx.sctx, C(' '), padLen);
    for (; n > 0; --n)
        putChar(*ctx.sctx, nextWide(&str));
    putCopies(*ctx.sctx, C(' '), -padLen);
}

#if EKO_CHECKED
// The block of the string that is appended to may move before the argument is read for the second time.
template <class C> bool isSafeArgument(const FormatCtx<C>& ctx, const void* str)
{
    const StrCtx<C>& sink = *ctx.sctx;
    if (!str || !sink.extended || str < sink.extended || str > sink.extended + sink.extendedLen)
        return true;
    eko_log_err("A string is appended to itself by the formatter\n");
    return false;
}
#else
template <class C> constexpr bool isSafeArgument(const FormatCtx<C>&, const void*)
{
    return true;
}
#endif

// False when the directive fails.
template <class C> bool putString(FormatCtx<C>& ctx)
{
    const void* const arg = va_arg(ctx.sctx->args, const void*);
    if (!isSafeArgument(ctx, arg))
        return false;
    if (!arg) {
        putNullString(ctx);
        return true;
    }
    if constexpr (FormatTraits<C>::CONVERTS_BYTES) {
        if (ctx.conv == C_SHORT) {
            putConverted(ctx, static_cast<const char*>(arg));
            return true;
        }
    }
    const C* const str = static_cast<const C*>(arg);
    if (ctx.width == 0)
        putText(*ctx.sctx, str, lengthToPrint(ctx, str));
    else
        putWord(ctx, 0, str, lengthToPrint(ctx, str));
    return true;
}

// ---- the count, in eko_format.cpp -----------------------------------------------------------------------

// Stores the characters produced so far through the directive's argument.
void storeCount(const Directive& ctx, size_t count, Arguments& args);

// ---- the walk -------------------------------------------------------------------------------------------

// Writes the directive. False when it fails, and the call with it.
template <class C> bool convert(FormatCtx<C>& ctx, KIND kind)
{
    switch (kind) {
    case K_PERCENT:
        // DELIBERATE: no width for this and for %c; callers rely on exactly one character.
        // Pinned by Format.texts_depart_from_c.
        putChar(*ctx.sctx, C('%'));
        return true;
    case K_CHAR:
        putChar(*ctx.sctx, static_cast<C>(va_arg(ctx.sctx->args, int)));
        return true;
    case K_INTEGER:
        putInteger(ctx);
        return true;
    case K_STRING:
        return putString(ctx);
    case K_COUNT:
        storeCount(ctx, ctx.sctx->len, ctx.sctx->args);
        return true;
    case K_FLOAT:
        return putFloat(ctx);
    case K_UNKNOWN:
        return true; // DELIBERATE: silent, without an argument. Pinned by Format.texts_depart_from_c.
    }
    return true;
}

template <class C> inline const CONVERSION& conversionFor(C letter)
{
    static constexpr CONVERSION NONE = {K_UNKNOWN, 0, 0};
    return letter < 0 || letter > 127 ? NONE : CONVERSIONS.of[static_cast<uint8>(letter)];
}

// Flags, width, precision and modifier; false when a number does not fit.
template <class C> bool parseDirective(FormatCtx<C>& ctx)
{
    parseFlags(ctx);
    if (!parseWidth(ctx) || !parsePrecision(ctx))
        return false;
    parseModifier(ctx);
    return true;
}

// Handles what follows a '%' and moves the cursor behind it. False when the directive fails.
template <class C> inline bool putDirective(StrCtx<C>& sink, const C** fmt)
{
    FormatCtx<C> ctx(sink, *fmt);
    const CONVERSION* conversion = &conversionFor(*ctx.fmt);
    if (conversion->kind == K_UNKNOWN) { // most directives are a letter, and no letter begins anything else
        if (!parseDirective(ctx))
            return false;
        conversion = &conversionFor(*ctx.fmt);
    }
    if (*ctx.fmt != 0)
        ++ctx.fmt; // whatever it is; but a format that ends inside a directive ends there
    *fmt = ctx.fmt;
    ctx.base = conversion->base;
    ctx.flags |= conversion->flags;
    return convert(ctx, conversion->kind);
}

template <class C> bool walkFormat(StrCtx<C>& sink, const C* fmt)
{
    for (;;) {
        if (*fmt != '%' && *fmt != 0) {
            const C* const run = fmt;
            fmt = FormatTraits<C>::runEnd(run + 1);
            putText(sink, run, static_cast<size_t>(fmt - run));
        }
        if (*fmt == 0)
            return true;
        ++fmt;
        if (!putDirective(sink, &fmt))
            return false;
    }
}

// Formats into a sink, with its arguments. Returns what the exported calls return.
template <class C> int formatInto(StrCtx<C>& sink, const C* fmt)
{
    const bool done = walkFormat(sink, fmt);
    terminate(sink);
    return done && sink.len < INT32_MAX ? static_cast<int>(sink.len) : -1;
}

// As the exported calls; uses the arguments up.
template <class C> int formatV(C* str, size_t size, const C* fmt, va_list args)
{
    StrCtx<C> sink(str, size, args);
    return formatInto(sink, fmt);
}

// ---- new and longer strings -----------------------------------------------------------------------------
// tryAppend is quiet, for the exported calls to report when no argument list is open any more: memFail may leave
// by longjmp.

constexpr size_t SHORT_TEXT = 512; // characters that are formatted once, and copied when their block is there

// The bytes of a string of old + added characters and its terminator; false when that wraps.
template <class C> inline bool bytesFor(size_t old, int added, size_t* bytes)
{
    size_t chars;
    return addSize(old, static_cast<size_t>(added) + 1, &chars) && !__builtin_mul_overflow(chars, sizeof(C), bytes);
}

// The length of the text to append to `str`, or -1; the text is in `text` if it fits there.
template <class C> int formatBeside(C* text, size_t size, const C* str, size_t oldLen, const C* fmt, va_list args)
{
    StrCtx<C> sink(text, size, args);
#if EKO_CHECKED
    sink.extended = str;
    sink.extendedLen = oldLen;
#else
    (void)str, (void)oldLen;
#endif
    return formatInto(sink, fmt);
}

// The string's block with room for `added` characters more, or a new one for null.
template <class C> C* tryMakeRoom(EKO_MEMTAG tag, const C* str, size_t oldLen, int added, MemResult* result)
{
    size_t bytes;
    if (!bytesFor<C>(oldLen, added, &bytes)) {
        *result = MemResult::exhausted;
        return nullptr;
    }
    return static_cast<C*>(str ? tryExtendMem(str, bytes, tag, result)
                               : tryGetMem(bytes, tag, EKO_MEM_PLAIN, nullptr, result));
}

// The string `str`, or an empty one for null, with the formatted text behind it. Uses the arguments up.
template <class C> C* tryAppend(EKO_MEMTAG tag, const C* str, const C* fmt, va_list args, MemResult* result)
{
    *result = MemResult::refused;
    C text[SHORT_TEXT];
    va_list again;
    va_copy(again, args);
    const size_t oldLen = str ? lengthOf(str) : 0;
    const int added = formatBeside(text, SHORT_TEXT, str, oldLen, fmt, args);
    C* const longer = added < 0 ? nullptr : tryMakeRoom(tag, str, oldLen, added, result);
    if (longer) {
        const size_t size = static_cast<size_t>(added) + 1;
        if (size <= SHORT_TEXT)
            copyChars(longer + oldLen, text, size);
        else
            formatV(longer + oldLen, size, fmt, again);
    }
    va_end(again);
    return longer;
}

// What an exported call ends with.
template <class C> C* orFail(C* str, MemResult result, EKO_MEMTAG tag, const char* file, uint32 line)
{
    if (!str)
        memFail(result, tag, file, line);
    return str;
}

template <class C>
C* appendV(const char* file, uint32 line, EKO_MEMTAG tag, const C* str, const C* fmt, va_list args)
{
    MemResult result;
    C* const longer = tryAppend(tag, str, fmt, args, &result);
    return orFail(longer, result, tag, file, line);
}

#endif
