/* SPDX-License-Identifier: MIT */
/* format.h - the library's own printf, over bytes and over wide characters.
 *
 * C99's snprintf with departures that callers rely on:
 *   - width is ignored for %c and %%; %c emits the low byte of its int;
 *   - %a and %A print as %f and %F; there is no hexadecimal floating output;
 *   - floats are computed in extended precision, rounded half up, with at most 19 fraction digits; the rest
 *     of a larger precision is not printed. Negative zero and NaN print without a minus;
 *   - a fixed-style float whose integer part is 18446744073709551615 or more makes the whole call fail;
 *   - of an exponent of four digits, which only a long double has, the last three are printed;
 *   - %s of a null pointer prints "(null)", or nothing when the precision is below 6; %p of one "(nil)";
 *   - %p of 32 bits is widened with its sign: 0x80000000 prints as 0xffffffff80000000;
 *   - with z values are unsigned even for d, with t signed even for u and x;
 *   - with L an integer conversion takes no argument and prints 0, and %n stores nothing;
 *   - l changes nothing for s and c: %ls takes a char string, whatever compilers think; a program that uses it
 *     defines EKO_NO_FORMAT_CHECKS (ekoplat.h). Wide text is converted with eko_convToUTF8 first, or printed by the
 *     wide calls;
 *   - an unknown conversion, such as %S or %C, prints nothing and takes no argument; a lone % at the end is
 *     ignored;
 *   - the ' flag puts the locale's thousands separator into the digits of d, i, u and floats, and of o, x;
 *     separators count against the precision of an integer;
 *   - the prefix 0 of %#o counts against the precision: 0 then is none, and zero, which has no prefix, prints
 *     nothing with %#.0o;
 *   - a width or precision above 2147483647 makes the whole call fail.
 * %n stores as many bits as its modifier says: 32 without one, the platform's width with l, z and t.
 *
 * The wide calls do the same, directive for directive, over wchar_t: all sizes, lengths, widths, precisions and
 * counts are in wide characters. There
 *   - %s takes a wide string, also with l or any other modifier but h;
 *   - %hs takes a UTF-8 string, which is converted on its way out: what is not UTF-8 prints as U+FFFD, as with
 *     EKO_UTF8_REPLACE. A precision counts the characters printed, each U+FFFD too, and a string of that many
 *     characters needs no terminator unless the last one is cut short;
 *   - %c emits its int as a wide character, whatever its value and modifier; %lc is no different;
 *   - decimal point and thousands separator are the locale's, converted by its LC_CTYPE, at most 15 characters of
 *     each; what is no character there becomes U+FFFD.
 * wprintf takes %s otherwise: compilers check no wide format, and formats written for it need another look.
 *
 * The calls keep no state and may come from any thread, but read the locale: nobody may call setlocale
 * meanwhile. They do not need the library to be started, except those that allocate. */
#ifndef EKO_FORMAT_H
#define EKO_FORMAT_H

#include "mem.h"

EKO_EXTERN_C_BEGIN

/** Formats into `str`, of `size` bytes, always terminated when size is not 0. The format is never null.
 *  str  may be null, to measure.
 *  Returns the length of the whole text without its terminator, of which size - 1 bytes were stored; -1 when
 *  the format fails or the text has 0x7FFFFFFF bytes or more. The text in front of a failing directive is
 *  stored, and terminated. `args` is left as C leaves it: used up. */
EKO_API int eko_vsnprintf(char* str, size_t size, const char* fmt, va_list args) EKO_PRINTF_CHECK(3, 0);
EKO_API int eko_snprintf(char* str, size_t size, const char* fmt, ...) EKO_PRINTF_CHECK(3, 4);

/** Formats into a new string of exactly the needed size, on `tag`.
 *  file, line  the caller's position, for the report of a failed allocation.
 *  Returns the string, to be freed on the same tag; null when the format fails or memory runs out. May leave
 *  by longjmp. */
EKO_API char* eko_makeStrV(const char* file, uint32 line, EKO_MEMTAG tag, const char* fmt, va_list args)
    EKO_PRINTF_CHECK(4, 0);
EKO_API char* eko_makeStrVA(const char* file, uint32 line, EKO_MEMTAG tag, const char* fmt, ...)
    EKO_PRINTF_CHECK(4, 5);

/** Appends formatted text to a string, which is extended to exactly the needed size.
 *  tag  the string's tag; not a stack tag.
 *  str  the string, or null for an empty one. It must not be among the arguments: it may move.
 *  Returns the string, possibly moved; null on failure: the old string is then untouched and still the
 *  caller's. May leave by longjmp. */
EKO_API char* eko_appendStrV(const char* file, uint32 line, EKO_MEMTAG tag, const char* str, const char* fmt,
                             va_list args) EKO_PRINTF_CHECK(5, 0);
EKO_API char* eko_appendStrVA(const char* file, uint32 line, EKO_MEMTAG tag, const char* str, const char* fmt, ...)
    EKO_PRINTF_CHECK(5, 6);

/** The same with the caller's position: EKO_MAKESTR(tag, fmt, ...), EKO_APPENDSTR(tag, str, fmt, ...). */
#define EKO_MAKESTR(tag, ...) eko_makeStrVA(__FILE__, __LINE__, (tag), __VA_ARGS__)
#define EKO_APPENDSTR(tag, str, ...) eko_appendStrVA(__FILE__, __LINE__, (tag), (str), __VA_ARGS__)

/** The same over wide characters, with sizes in wide characters: as eko_vsnprintf and eko_snprintf. */
EKO_API int eko_vsnwprintf(wchar_t* str, size_t count, const wchar_t* fmt, va_list args);
EKO_API int eko_snwprintf(wchar_t* str, size_t count, const wchar_t* fmt, ...);

/** As eko_makeStrV and eko_makeStrVA. */
EKO_API wchar_t* eko_makeWStrV(const char* file, uint32 line, EKO_MEMTAG tag, const wchar_t* fmt, va_list args);
EKO_API wchar_t* eko_makeWStrVA(const char* file, uint32 line, EKO_MEMTAG tag, const wchar_t* fmt, ...);

/** As eko_appendStrV and eko_appendStrVA. */
EKO_API wchar_t* eko_appendWStrV(const char* file, uint32 line, EKO_MEMTAG tag, const wchar_t* str,
                                 const wchar_t* fmt, va_list args);
EKO_API wchar_t* eko_appendWStrVA(const char* file, uint32 line, EKO_MEMTAG tag, const wchar_t* str,
                                  const wchar_t* fmt, ...);

/** The same with the caller's position: EKO_MAKEWSTR(tag, fmt, ...), EKO_APPENDWSTR(tag, str, fmt, ...). */
#define EKO_MAKEWSTR(tag, ...) eko_makeWStrVA(__FILE__, __LINE__, (tag), __VA_ARGS__)
#define EKO_APPENDWSTR(tag, str, ...) eko_appendWStrVA(__FILE__, __LINE__, (tag), (str), __VA_ARGS__)

EKO_EXTERN_C_END

#endif
