// SPDX-License-Identifier: MIT
// Conversion between wide strings and UTF-8.
//
// Idea    One loop, convert(), serves both directions, all calls, and both measuring and writing: it decodes a
//         code point, lets the caller's errorBehavior decide about what is none, and encodes it to an Output,
//         which without a buffer only counts. The directions differ in decode() and encode() alone.
// Speed   Where a whole machine word of ASCII follows, it is tested and moved at once. The length is known by
//         then (strlen, wcslen), so no word reaches over the terminator.
// Locks   none, and no state.

#include <string.h>

#include "ekomem_int.h"

namespace {

constexpr uint32 LAST_CODE_POINT = 0x10FFFF;
constexpr uint32 REPLACEMENT = 0xFFFD;
constexpr uint32 ILL_FORMED = 0xFFFFFFFF; // decoded instead of a code point
constexpr uint32 MAX_UNITS_PER_CHAR = 4;

bool isSurrogate(uint32 val)
{
    return val >= 0xD800 && val <= 0xDFFF;
}

// ---- one character ----------------------------------------------------------------------------------------

// Each reads the character at `s`, not past the terminator, and returns the units it took, at least 1. What is
// ill-formed gives ILL_FORMED and takes the maximal subpart: the longest start of some well-formed sequence.

// The second byte's range depends on the first; that alone keeps out overlong forms, surrogates and values
// above the last code point. The terminator is in no range, so a sequence that it cuts ends in front of it.
size_t decode(const char* s, uint32* val)
{
    const auto* bytes = reinterpret_cast<const uint8*>(s);
    const uint8 lead = bytes[0];
    *val = lead;
    if (lead < 0x80)
        return 1;
    *val = ILL_FORMED;
    if (lead < 0xC2 || lead > 0xF4)
        return 1;
    const uint32 trail = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
    uint8 lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    uint8 highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    uint32 bits = lead & (0x3Fu >> trail);
    for (uint32 i = 1; i <= trail; ++i) {
        if (bytes[i] < lowest || bytes[i] > highest)
            return i;
        bits = bits << 6 | (bytes[i] & 0x3Fu);
        lowest = 0x80;
        highest = 0xBF;
    }
    *val = bits;
    return trail + 1;
}

size_t decode(const wchar_t* s, uint32* val)
{
    *val = static_cast<uint32>(*s);
    if (*val > LAST_CODE_POINT || isSurrogate(*val))
        *val = ILL_FORMED;
    return 1;
}

// Each stores a code point and returns its units.
uint32 encode(uint32 val, char* units)
{
    if (val < 0x80) {
        units[0] = static_cast<char>(val);
        return 1;
    }
    const uint32 count = val < 0x800 ? 2 : val < 0x10000 ? 3 : 4;
    for (uint32 i = count - 1; i > 0; --i) {
        units[i] = static_cast<char>(0x80 | (val & 0x3F));
        val >>= 6;
    }
    const uint32 mark = 0xF00u >> count; // as many ones as bytes: C0, E0, F0 in the low byte
    units[0] = static_cast<char>(mark | val);
    return count;
}

uint32 encode(uint32 val, wchar_t* units)
{
    units[0] = static_cast<wchar_t>(val);
    return 1;
}

// ---- output -------------------------------------------------------------------------------------------------

template <class Unit> struct Output {
    Unit* dest;  // null: only count
    size_t room; // units that fit, terminator not included
    size_t used;

    size_t left() const { return room - used; }
};

// An Output that counts as far as a size in bytes, terminator included, can go.
template <class Unit> Output<Unit> counting()
{
    return {nullptr, SIZE_MAX / sizeof(Unit) - 1, 0};
}

// All units of a character or none.
template <class Unit> bool put(Output<Unit>& out, uint32 val)
{
    Unit units[MAX_UNITS_PER_CHAR];
    const uint32 count = encode(val, units);
    if (count > out.left())
        return false;
    if (out.dest)
        memcpy(out.dest + out.used, units, count * sizeof(Unit));
    out.used += count;
    return true;
}

// ---- runs of ASCII ------------------------------------------------------------------------------------------

using Word = size_t;
constexpr size_t RUN = sizeof(Word); // characters moved at once

constexpr Word NOT_ASCII_BYTES = ~Word(0) / 0xFF * 0x80;                          // 80 in every byte
constexpr Word NOT_ASCII_WIDE = ~Word(0) / 0xFFFFFFFF * Word(0xFFFFFFFFu - 0x7F); // FFFFFF80 in every 4 bytes

bool isAsciiRun(const char* s)
{
    Word word;
    memcpy(&word, s, sizeof word);
    return (word & NOT_ASCII_BYTES) == 0;
}

bool isAsciiRun(const wchar_t* s)
{
    Word words[RUN * sizeof(wchar_t) / sizeof(Word)];
    static_assert(sizeof words == 4 * sizeof(Word));
    memcpy(words, s, sizeof words);
    return ((words[0] | words[1] | words[2] | words[3]) & NOT_ASCII_WIDE) == 0;
}

void moveAsciiRun(wchar_t* dest, const char* s)
{
    Word word;
    memcpy(&word, s, sizeof word);
    for (size_t i = 0; i < RUN; ++i)
        dest[i] = static_cast<wchar_t>(word >> (8 * i) & 0x7F);
}

void moveAsciiRun(char* dest, const wchar_t* s)
{
    Word word = 0;
    for (size_t i = 0; i < RUN; ++i)
        word |= static_cast<Word>(s[i]) << (8 * i);
    memcpy(dest, &word, sizeof word);
}

// Moves ASCII while a whole run of it stands in `s` and fits; returns where it stopped.
template <class To, class From> const From* moveAscii(Output<To>& out, const From* s, const From* end)
{
    while (static_cast<size_t>(end - s) >= RUN && out.left() >= RUN && isAsciiRun(s)) {
        if (out.dest)
            moveAsciiRun(out.dest + out.used, s);
        out.used += RUN;
        s += RUN;
    }
    return s;
}

// ---- strings --------------------------------------------------------------------------------------------------

const char* endOf(const char* s)
{
    return s + strlen(s);
}
const wchar_t* endOf(const wchar_t* s)
{
    return s + wcslen(s);
}

// The string without its terminator. On failure `out` holds what came before.
template <class To, class From> EKO_UTF8_RESULT convert(Output<To>& out, const From* s, int32 errorBehavior)
{
    const From* const end = endOf(s);
    for (;;) {
        s = moveAscii(out, s, end);
        if (s == end)
            return UTF8_OKAY;
        uint32 val;
        s += decode(s, &val);
        if (val == ILL_FORMED) {
            if (errorBehavior == EKO_UTF8_DROP)
                continue;
            if (errorBehavior != EKO_UTF8_REPLACE)
                return UTF8_INVALID;
            val = REPLACEMENT;
        }
        if (!put(out, val))
            return UTF8_OUTOFSPACE;
    }
}

template <class To, class From> uint32 convertInto(To* dest, const From* src, uint32 destlen, int32 errorBehavior)
{
    if (!dest || destlen == 0)
        return EKO_UTF8_FAILED;
    Output<To> out{dest, destlen - 1, 0};
    const bool done = src && convert(out, src, errorBehavior) == UTF8_OKAY;
    dest[out.used] = 0;
    return done ? static_cast<uint32>(out.used) : EKO_UTF8_FAILED;
}

template <class To, class From>
To* tryNewCopy(const From* src, int32 errorBehavior, EKO_MEMTAG tag, MemResult* result)
{
    *result = MemResult::refused;
    Output<To> out = counting<To>();
    if (!src || convert(out, src, errorBehavior) != UTF8_OKAY)
        return nullptr;
    const size_t bytes = (out.used + 1) * sizeof(To); // cannot wrap: counting() stops short of that
    auto* copy = static_cast<To*>(tryGetMem(bytes, tag, EKO_MEM_PLAIN, nullptr, result));
    if (!copy)
        return nullptr;
    out = {copy, out.used, 0};
    convert(out, src, errorBehavior);
    copy[out.used] = 0;
    return copy;
}

template <class To, class From> To* newCopy(const From* src, int32 errorBehavior, EKO_MEMTAG tag)
{
    MemResult result;
    To* copy = tryNewCopy<To>(src, errorBehavior, tag, &result);
    memFail(result, tag, __FILE__, __LINE__);
    return copy;
}

// The strings one behind the other, each terminated. `table` receives where each begins; null when counting.
bool convertAll(Output<char>& out, char** table, int32 argc, const wchar_t* const* argv, int32 errorBehavior)
{
    for (int32 i = 0; i < argc; ++i) {
        if (table)
            table[i] = out.dest + out.used;
        if (!argv[i] || convert(out, argv[i], errorBehavior) != UTF8_OKAY || !put(out, 0))
            return false;
    }
    return true;
}

} // namespace

// ---- for the library's own use ---------------------------------------------------------------------------------

char* tryConvToUTF8(const wchar_t* wstr, int32 errorBehavior, EKO_MEMTAG tag, MemResult* result)
{
    return tryNewCopy<char>(wstr, errorBehavior, tag, result);
}

wchar_t* tryConvToWchar(const char* str, int32 errorBehavior, EKO_MEMTAG tag, MemResult* result)
{
    return tryNewCopy<wchar_t>(str, errorBehavior, tag, result);
}

size_t wideLength(const char* str, int32 errorBehavior)
{
    Output<wchar_t> out = counting<wchar_t>();
    convert(out, str, errorBehavior);
    return out.used;
}

wchar_t nextWide(const char** s)
{
    uint32 val;
    *s += decode(*s, &val);
    return static_cast<wchar_t>(val == ILL_FORMED ? REPLACEMENT : val);
}

// ---- exported -------------------------------------------------------------------------------------------------

char* eko_convToUTF8(const wchar_t* wstr, int32 errorBehavior, EKO_MEMTAG tag)
{
    return newCopy<char>(wstr, errorBehavior, tag);
}

wchar_t* eko_convToWchar(const char* str, int32 errorBehavior, EKO_MEMTAG tag)
{
    return newCopy<wchar_t>(str, errorBehavior, tag);
}

uint32 eko_wchar_to_utf8(char* dest, const wchar_t* src, uint32 destlen, int32 errorBehavior)
{
    return convertInto(dest, src, destlen, errorBehavior);
}

uint32 eko_utf8_to_wchar(wchar_t* dest, const char* src, uint32 destlen, int32 errorBehavior)
{
    return convertInto(dest, src, destlen, errorBehavior);
}

int32 eko_utf8_codes(uint32 val, uint8* bytes, uint32* nobytes)
{
    if (isSurrogate(val))
        return UTF8_NEED_SURROGATE;
    if (val > LAST_CODE_POINT || !bytes || !nobytes)
        return UTF8_INVALID;
    *nobytes = encode(val, reinterpret_cast<char*>(bytes));
    return UTF8_OKAY;
}

// The block is the table of pointers with the strings behind it.
char** eko_convArgvToUTF8(int32 argc, const wchar_t* const* argv, int32 errorBehavior, EKO_MEMTAG tag)
{
    if (!argv || argc < 0)
        return nullptr;
    size_t tableSize;
    if (__builtin_mul_overflow(static_cast<size_t>(argc) + 1, sizeof(char*), &tableSize))
        return nullptr;
    Output<char> out{nullptr, SIZE_MAX - tableSize, 0};
    if (!convertAll(out, nullptr, argc, argv, errorBehavior))
        return nullptr;
    MemResult result = MemResult::refused;
    auto* table = static_cast<char**>(tryGetMem(tableSize + out.used, tag, EKO_MEM_PLAIN, nullptr, &result));
    if (!table) {
        memFail(result, tag, __FILE__, __LINE__);
        return nullptr;
    }
    out = {reinterpret_cast<char*>(table) + tableSize, out.used, 0};
    convertAll(out, table, argc, argv, errorBehavior);
    table[argc] = nullptr;
    return table;
}
