// SPDX-License-Identifier: MIT
// Formatting: single directives, lines and paths, into a buffer and into new strings.

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <wchar.h>

#include <array>
#include <random>
#include <string>

#if BENCH_APR
#include <apr_strings.h>
#endif
#if BENCH_FMT
#include <fmt/format.h>
#endif
#if BENCH_GLIB
#include <glib.h>
#endif
#if BENCH_STB
#include <stb_sprintf.h>
#endif

#include "bench.h"

namespace {

using namespace bench;

// ---- what is printed ------------------------------------------------------------------------------------

constexpr size_t VALUES = 1024; // of different lengths, too many for a processor to know by heart
constexpr size_t BUFFER = 256;

constexpr const char* NAMES[] = {"accounts", "a", "customer_orders", "ix", "order_items_by_date", "log"};

struct Values {
    std::array<int32, VALUES> small;
    std::array<int64, VALUES> large;
    std::array<double, VALUES> real; // 0.0001 to 100,000, of either sign
    std::array<const char*, VALUES> name;
};

Values makeValues()
{
    Values values;
    std::mt19937_64 random(1);
    for (size_t i = 0; i < VALUES; ++i) {
        values.small[i] = static_cast<int32>(random()) >> random() % 31;
        values.large[i] = static_cast<int64>(random()) >> random() % 63;
        double magnitude = 1e-13 * static_cast<double>(random() % 1000000000);
        for (uint64 power = random() % 10; power > 0; --power)
            magnitude *= 10;
        values.real[i] = random() % 2 ? magnitude : -magnitude;
        values.name[i] = NAMES[random() % std::size(NAMES)];
    }
    return values;
}

const Values VALUE = makeValues();

// An item gives its format in both spellings, and hands the arguments of line i to a printer.
struct Decimal {
    static constexpr char PRINTF[] = "%d";
    static constexpr char BRACES[] = "{}";
    static auto with(size_t i, auto print) { return print(VALUE.small[i]); }
};
struct LongDecimal {
    static constexpr char PRINTF[] = "%lld";
    static constexpr char BRACES[] = "{}";
    static auto with(size_t i, auto print) { return print(static_cast<long long>(VALUE.large[i])); }
};
struct Text {
    static constexpr char PRINTF[] = "%s";
    static constexpr char BRACES[] = "{}";
    static auto with(size_t i, auto print) { return print(VALUE.name[i]); }
};
struct Hexadecimal {
    static constexpr char PRINTF[] = "%08x";
    static constexpr char BRACES[] = "{:08x}";
    static auto with(size_t i, auto print) { return print(static_cast<uint32>(VALUE.small[i])); }
};

struct Real {
    static auto with(size_t i, auto print) { return print(VALUE.real[i]); }
};
struct Fixed : Real {
    static constexpr char PRINTF[] = "%f";
    static constexpr char BRACES[] = "{:f}";
};
struct FixedTwo : Real {
    static constexpr char PRINTF[] = "%.2f";
    static constexpr char BRACES[] = "{:.2f}";
};
struct Exponent : Real {
    static constexpr char PRINTF[] = "%e";
    static constexpr char BRACES[] = "{:e}";
};
struct General : Real {
    static constexpr char PRINTF[] = "%g";
    static constexpr char BRACES[] = "{:g}";
};

struct Line {
    static constexpr char PRINTF[] = "[%04d-%02d-%02d] %s: took %d of %lld bytes in %.3f ms\n";
    static constexpr char BRACES[] = "[{:04d}-{:02d}-{:02d}] {}: took {} of {} bytes in {:.3f} ms\n";
    static auto with(size_t i, auto print)
    {
        const int day = static_cast<int>(i);
        return print(2000 + day % 30, 1 + day % 12, 1 + day % 28, VALUE.name[i], VALUE.small[i],
                     static_cast<long long>(VALUE.large[i]), VALUE.real[i]);
    }
};
struct Path {
    static constexpr char PRINTF[] = "%s/%s/%s.%s";
    static constexpr char BRACES[] = "{}/{}/{}.{}";
    static auto with(size_t i, auto print) { return print("/var/lib/database", VALUE.name[i], "table", "dat"); }
};
struct Literal {
    static constexpr char PRINTF[] = "The quick brown fox jumps over the lazy dog, and on and on it runs ...";
    static constexpr char BRACES[] = "The quick brown fox jumps over the lazy dog, and on and on it runs ...";
    static_assert(sizeof(PRINTF) == 70 + 1);
    static auto with(size_t, auto print) { return print(); }
};
struct Name {
    static constexpr char PRINTF[] = "%s/%s.%d";
    static constexpr char BRACES[] = "{}/{}.{}";
    static auto with(size_t i, auto print) { return print("/var/lib/database", VALUE.name[i], VALUE.small[i]); }
};
struct Member {
    static constexpr char PRINTF[] = "%s=%d, ";
    static constexpr char BRACES[] = "{}={}, ";
    static auto with(size_t i, auto print) { return print(VALUE.name[i], VALUE.small[i]); }
};

// ---- into a buffer --------------------------------------------------------------------------------------
// The format is a variable here, or compilers would do some of the C library's work before the program runs.

template <auto FUNCTION> struct Printf {
    template <class Item> static void print(char* buffer, size_t i)
    {
        const char* format = opaque(Item::PRINTF);
        Item::with(i, [=](auto... args) { return FUNCTION(buffer, BUFFER, format, args...); });
    }
};
struct Eko : Printf<eko_snprintf> {
    static constexpr const char* NAME = "eko";
};
struct Glibc : Printf<snprintf> {
    static constexpr const char* NAME = "glibc";
};
#if BENCH_APR
struct Apr : Printf<apr_snprintf> {
    static constexpr const char* NAME = "apr";
};
#else
using Apr = Absent;
#endif
#if BENCH_STB
struct Stb : Printf<stbsp_snprintf> {
    static constexpr const char* NAME = "stb";
};
#else
using Stb = Absent;
#endif
#if BENCH_FMT
struct Fmt {
    static constexpr const char* NAME = "fmt";
    template <class Item> static void print(char* buffer, size_t i)
    {
        Item::with(i, [=](auto... args) { return fmt::format_to_n(buffer, BUFFER, Item::BRACES, args...); });
    }
};
#else
using Fmt = Absent;
#endif

template <class Item> constexpr auto into = []<class Printer>(State& state) {
    char buffer[BUFFER];
    size_t i = 0;
    for (auto _ : state) {
        Printer::template print<Item>(buffer, i);
        benchmark::DoNotOptimize(buffer);
        benchmark::ClobberMemory();
        i = (i + 1) % VALUES;
    }
};

// Each item only with peers that print the same: APR has no %lld, and prints 0.1 as .1 with %g.
const bool buffers[] = {
    item<Eko, Glibc, Apr, Fmt, Stb>("format.d", into<Decimal>),
    item<Eko, Glibc, Fmt, Stb>("format.lld", into<LongDecimal>),
    item<Eko, Glibc, Apr, Fmt, Stb>("format.s", into<Text>),
    item<Eko, Glibc, Apr, Fmt, Stb>("format.08x", into<Hexadecimal>),
    item<Eko, Glibc, Apr, Fmt, Stb>("format.f", into<Fixed>),
    item<Eko, Glibc, Apr, Fmt, Stb>("format.2f", into<FixedTwo>),
    item<Eko, Glibc, Apr, Fmt, Stb>("format.e", into<Exponent>),
    item<Eko, Glibc, Fmt, Stb>("format.g", into<General>),
    item<Eko, Glibc, Fmt>("format.line", into<Line>),
    item<Eko, Glibc, Fmt>("format.path", into<Path>),
    item<Eko, Glibc, Apr, Fmt, Stb>("format.literal", into<Literal>),
};

// ---- over wide characters -------------------------------------------------------------------------------

struct WideDecimal : Decimal {
    static constexpr wchar_t WIDE[] = L"%d";
};
struct WideLine : Line {
    static constexpr wchar_t WIDE[] = L"[%04d-%02d-%02d] %hs: took %d of %lld bytes in %.3f ms\n";
};

template <auto FUNCTION> struct WidePrintf {
    template <class Item> static void print(wchar_t* buffer, size_t i)
    {
        const wchar_t* format = opaque(Item::WIDE);
        Item::with(i, [=](auto... args) { return FUNCTION(buffer, BUFFER, format, args...); });
    }
};
struct EkoWide : WidePrintf<eko_snwprintf> {
    static constexpr const char* NAME = "eko";
};
struct GlibcWide : WidePrintf<swprintf> {
    static constexpr const char* NAME = "glibc";
};

template <class Item> constexpr auto intoWide = []<class Printer>(State& state) {
    wchar_t buffer[BUFFER];
    size_t i = 0;
    for (auto _ : state) {
        Printer::template print<Item>(buffer, i);
        benchmark::DoNotOptimize(buffer);
        benchmark::ClobberMemory();
        i = (i + 1) % VALUES;
    }
};

const bool wide[] = {
    item<EkoWide, GlibcWide>("format.wide.d", intoWide<WideDecimal>),
    item<EkoWide, GlibcWide>("format.wide.line", intoWide<WideLine>),
};

// ---- new and longer strings -----------------------------------------------------------------------------

struct EkoString {
    static constexpr const char* NAME = "eko";
    EkoString() = default;
    EkoString(const EkoString&) = delete;
    EkoString& operator=(const EkoString&) = delete;
    ~EkoString() { EKO_FREE(text_, EKO_THREAD_TAG); }

    template <class Item> void make(size_t i)
    {
        text_ = Item::with(i, [](auto... args) { return EKO_MAKESTR(EKO_THREAD_TAG, Item::PRINTF, args...); });
    }
    template <class Item> void append(size_t i)
    {
        text_ = Item::with(
            i, [this](auto... args) { return EKO_APPENDSTR(EKO_THREAD_TAG, text_, Item::PRINTF, args...); });
    }
    const char* text() const { return text_; }

private:
    char* text_ = nullptr;
};

#if BENCH_FMT
struct FmtString {
    static constexpr const char* NAME = "fmt";

    template <class Item> void make(size_t i)
    {
        text_ = Item::with(i, [](auto... args) { return fmt::format(Item::BRACES, args...); });
    }
    template <class Item> void append(size_t i)
    {
        Item::with(i, [this](auto... args) { fmt::format_to(std::back_inserter(text_), Item::BRACES, args...); });
    }
    const char* text() const { return text_.c_str(); }

private:
    std::string text_;
};
#else
using FmtString = Absent;
#endif

#if BENCH_GLIB
struct GlibString {
    static constexpr const char* NAME = "glib";
    GlibString() = default;
    GlibString(const GlibString&) = delete;
    GlibString& operator=(const GlibString&) = delete;
    ~GlibString() { g_string_free(string_, TRUE); }

    template <class Item> void append(size_t i)
    {
        Item::with(i, [this](auto... args) { g_string_append_printf(string_, Item::PRINTF, args...); });
    }
    const char* text() const { return string_->str; }

private:
    GString* string_ = g_string_new(nullptr);
};
#else
using GlibString = Absent;
#endif

constexpr auto make = []<class String>(State& state) {
    size_t i = 0;
    for (auto _ : state) {
        String string;
        string.template make<Name>(i);
        benchmark::DoNotOptimize(string.text());
        i = (i + 1) % VALUES;
    }
};

// A list of some 300 characters.
constexpr size_t MEMBERS = 16;

constexpr auto append = []<class String>(State& state) {
    size_t i = 0;
    for (auto _ : state) {
        String string;
        for (size_t end = i + MEMBERS; i < end; ++i)
            string.template append<Member>(i % VALUES);
        benchmark::DoNotOptimize(string.text());
    }
};

const bool strings[] = {
    item<EkoString, FmtString>("string.new", make),
    item<EkoString, FmtString, GlibString>("string.append", append),
};

} // namespace
