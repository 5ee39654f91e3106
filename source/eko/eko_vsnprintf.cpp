// SPDX-License-Identifier: MIT
// The formatter over bytes: what the engine needs to know about char, and the exported calls.

#include <langinfo.h>
#include <string.h>

#include "eko_format.h"

template <> struct FormatTraits<char> {
    // Read by nl_langinfo, which gives the texts of localeconv() without filling in all the rest of it.
    struct Locale {
        const char* decimal_point = nullptr;
        const char* thousands_sep = nullptr;
    };

    static const char* decimalPoint(Locale& lc) { return text(lc.decimal_point, RADIXCHAR); }
    static const char* thousandsSep(Locale& lc) { return text(lc.thousands_sep, THOUSEP); }
    static constexpr bool CONVERTS_BYTES = false;

    // Most runs are so short that the call would cost more than it saves.
    static const char* runEnd(const char* fmt)
    {
        constexpr int SHORT_RUN = 10;
        for (int i = 0; i < SHORT_RUN; ++i, ++fmt) {
            if (*fmt == '%' || *fmt == 0)
                return fmt;
        }
        return strchrnul(fmt, '%');
    }

private:
    static const char* text(const char*& kept, nl_item which)
    {
        if (!kept)
            kept = nl_langinfo(which);
        return kept;
    }
};

using STR_CTX = StrCtx<char>;
using FORMAT_CTX = FormatCtx<char>;
using INT_FORMAT = IntFormat;
using FLT_FORMAT = FltFormat;

static_assert(sizeof(INT_FORMAT::tmp) == 43 && sizeof(FLT_FORMAT::econvert) == 5);

int eko_vsnprintf(char* str, size_t size, const char* fmt, va_list args)
{
    return formatV(str, size, fmt, args);
}

int eko_snprintf(char* str, size_t size, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int len = formatV(str, size, fmt, args);
    va_end(args);
    return len;
}

char* tryMakeStr(MemResult* result, EKO_MEMTAG tag, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    char* const str = tryMakeStrV(result, tag, fmt, args);
    va_end(args);
    return str;
}

char* tryMakeStrV(MemResult* result, EKO_MEMTAG tag, const char* fmt, va_list args)
{
    return tryAppend<char>(tag, nullptr, fmt, args, result);
}

char* eko_makeStrV(const char* file, uint32 line, EKO_MEMTAG tag, const char* fmt, va_list args)
{
    return appendV<char>(file, line, tag, nullptr, fmt, args);
}

char* eko_appendStrV(const char* file, uint32 line, EKO_MEMTAG tag, const char* str, const char* fmt, va_list args)
{
    return appendV(file, line, tag, str, fmt, args);
}

char* eko_makeStrVA(const char* file, uint32 line, EKO_MEMTAG tag, const char* fmt, ...)
{
    MemResult result;
    va_list args;
    va_start(args, fmt);
    char* const str = tryAppend<char>(tag, nullptr, fmt, args, &result);
    va_end(args);
    return orFail(str, result, tag, file, line);
}

char* eko_appendStrVA(const char* file, uint32 line, EKO_MEMTAG tag, const char* str, const char* fmt, ...)
{
    MemResult result;
    va_list args;
    va_start(args, fmt);
    char* const longer = tryAppend(tag, str, fmt, args, &result);
    va_end(args);
    return orFail(longer, result, tag, file, line);
}
