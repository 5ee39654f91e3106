// SPDX-License-Identifier: MIT
// The formatter over wide characters: what the engine needs to know about wchar_t, and the exported calls.

#include <langinfo.h>

#include "eko_format.h"

constexpr size_t LOCALE_CHARS = 16; // of one of the locale's texts, terminator included
constexpr wchar_t REPLACEMENT = 0xFFFD;

// The locale's conventions, widened.
struct TOV_WLCONV {
    const wchar_t* decimal_point = nullptr; // in `texts` once it is read
    const wchar_t* thousands_sep = nullptr;
    wchar_t texts[2][LOCALE_CHARS]; // set when read: most directives do not want them
};

namespace {

// A text of the locale, in the locale's encoding, as far as it fits. ASCII is the same in all of them and is not
// worth asking for: mbrtowc may load tables when it is called for the first time, and formatting takes no memory.
void widenText(const char* text, wchar_t* to)
{
    const ErrnoGuard keepErrno;
    const char* const end = text + strlen(text);
    wmemset(to, 0, LOCALE_CHARS);
    for (size_t n = 0; n < LOCALE_CHARS - 1 && text < end; ++n) {
        const auto byte = static_cast<uint8>(*text);
        to[n] = byte;
        size_t taken = 1;
        if (byte >= 0x80) {
            mbstate_t state = {};
            taken = mbrtowc(&to[n], text, static_cast<size_t>(end - text), &state);
        }
        if (taken > static_cast<size_t>(end - text)) { // no character, or only the start of one
            to[n] = REPLACEMENT;
            taken = 1;
        }
        text += taken;
    }
}

} // namespace

template <> struct FormatTraits<wchar_t> {
    using Locale = TOV_WLCONV;

    static const wchar_t* decimalPoint(Locale& lc) { return text(lc.decimal_point, RADIXCHAR, lc.texts[0]); }
    static const wchar_t* thousandsSep(Locale& lc) { return text(lc.thousands_sep, THOUSEP, lc.texts[1]); }
    static constexpr bool CONVERTS_BYTES = true;

    static const wchar_t* runEnd(const wchar_t* fmt)
    {
        while (*fmt != '%' && *fmt != 0)
            ++fmt;
        return fmt;
    }

private:
    static const wchar_t* text(const wchar_t*& kept, nl_item which, wchar_t* to)
    {
        if (!kept)
            kept = widened(nl_langinfo(which), to);
        return kept;
    }
    static const wchar_t* widened(const char* text, wchar_t* to)
    {
        if (!text)
            return nullptr;
        widenText(text, to);
        return to;
    }
};

using WSTR_CTX = StrCtx<wchar_t>;
using FORMATW_CTX = FormatCtx<wchar_t>;
using INT_FORMAT_W = IntFormat; // the digits are ASCII in both engines
using FLT_FORMAT_W = FltFormat;

static_assert(sizeof(wchar_t) == 4);

int eko_vsnwprintf(wchar_t* str, size_t count, const wchar_t* fmt, va_list args)
{
    return formatV(str, count, fmt, args);
}

int eko_snwprintf(wchar_t* str, size_t count, const wchar_t* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int len = formatV(str, count, fmt, args);
    va_end(args);
    return len;
}

wchar_t* eko_makeWStrV(const char* file, uint32 line, EKO_MEMTAG tag, const wchar_t* fmt, va_list args)
{
    return appendV<wchar_t>(file, line, tag, nullptr, fmt, args);
}

wchar_t* eko_appendWStrV(const char* file, uint32 line, EKO_MEMTAG tag, const wchar_t* str, const wchar_t* fmt,
                         va_list args)
{
    return appendV(file, line, tag, str, fmt, args);
}

wchar_t* eko_makeWStrVA(const char* file, uint32 line, EKO_MEMTAG tag, const wchar_t* fmt, ...)
{
    MemResult result;
    va_list args;
    va_start(args, fmt);
    wchar_t* const str = tryAppend<wchar_t>(tag, nullptr, fmt, args, &result);
    va_end(args);
    return orFail(str, result, tag, file, line);
}

wchar_t* eko_appendWStrVA(const char* file, uint32 line, EKO_MEMTAG tag, const wchar_t* str, const wchar_t* fmt,
                          ...)
{
    MemResult result;
    va_list args;
    va_start(args, fmt);
    wchar_t* const longer = tryAppend(tag, str, fmt, args, &result);
    va_end(args);
    return orFail(longer, result, tag, file, line);
}
