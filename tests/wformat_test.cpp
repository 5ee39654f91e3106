// SPDX-License-Identifier: MIT
// The wide formatter: held against the narrow one, and what only it has.
// LINK: --wrap=nl_langinfo
#include "support/faults.h"
#include "support/fixture.h"
#include <langinfo.h>
#include <locale.h>

static struct lconv locale = {}; // what the library finds: a point and commas at first
EKO_WRAP(char*, nl_langinfo, (nl_item item))
{
    return item == RADIXCHAR ? locale.decimal_point : locale.thousands_sep;
}

// A call that takes an argument list, as one that takes arguments.
template <auto CALL, class... Before> static auto listed(Before... before, const wchar_t* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const auto result = CALL(before..., fmt, args);
    va_end(args);
    return result;
}
const auto formatV = listed<eko_vsnwprintf, wchar_t*, size_t>;
const auto makeV = listed<eko_makeWStrV, const char*, uint32, EKO_MEMTAG>;
const auto appendV = listed<eko_appendWStrV, const char*, uint32, EKO_MEMTAG, const wchar_t*>;

TEST(WideFormatUnstarted, prints_what_the_narrow_one_prints_and_takes_no_memory)
{
    std::mt19937 rng(20);
    const FailNthAlloc none(1);
    for (int i = 0; i < 20000 && !HasFailure(); ++i) {
        std::string fmt = "%*.*d";
        std::istringstream list("d hhi hhn ho u hx X c lc % y Ld ld zd td tx p llo jX s zs hs f E g a Le LF Lg");
        for (std::string conversion; list >> conversion; fmt += conversion)
            fmt += "%" + std::string("-+ #0'0-'+ #").substr(rng() % 9, rng() % 4) +
                   std::string("29.17").substr(rng() % 6, rng() % 6);
        const int n = int(rng()), columns = n % 30, precision = i % 26 - 1, ascii = i % 128;
        const auto big = static_cast<int64>(rng() * 0x9E3779B97F4A7C15u >> rng() % 64);
        const auto word = static_cast<long>(i % 20 ? big : 0);
        const auto x = i % 30 ? ldexpl(big | n, rng() % 9 ? int(rng() % 65) - 64 : 1500) : NAN;
        const auto print = [&](auto call, auto fill, auto str) { // cut at any size
            std::basic_string<decltype(fill)> text(700, fill), format(fmt.begin(), fmt.end());
            return std::pair<int, std::wstring>{
                call(text.data(), size_t(i % 700), format.data(), columns, precision, n, n, n, &text.back(), n, n,
                     n, n, ascii, ascii, word, word, word, word, word, big, big, i % 40 ? str : nullptr, str,
                     "jklmnop", double(x), double(x), double(x), double(x), x, x, x),
                {text.begin(), text.end()}};
        };
        ASSERT_EQ(print(i % 2 ? eko_snwprintf : formatV, L'~', L"abcde"), print(eko_snprintf, '~', "abcde")) << fmt;
    }
    EXPECT_FALSE(FailNthAlloc::fired());
}

using WideFormat = EkoTest;
TEST_F(WideFormat, makes_strings_of_wide_text_utf8_and_locale_and_is_null_or_jumps_without_memory)
{
    EXPECT_TRUE(setlocale(LC_CTYPE, "C.UTF-8"));
    locale.decimal_point = const_cast<char*>("\xFF.\xE2\x80"); // no character, and half of one
    locale.thousands_sep = const_cast<char*>("\xE2\x80\xAF<1234567890123456789>");
    const std::vector<char> open{'\xC3', '\xA9', '\xE2', '\x82', '\xAC'}; // what is behind it must not be read
    for (const char* statuses : {"0 1 ", "jump 1 "}) {
        const EKO_MEMTAG tag = EKO_TAG_CREATE(LEGACY_ALLOCATOR);
        eko_resetTag(*statuses == 'j' ? &exhaustedJump : nullptr, tag);
        wchar_t *str = nullptr, *longer;
        const auto atLast = [&](auto make) { // with each request failing in turn
            EXPECT_EQ(exhaust(tag, [&] { return (longer = make()) && (str = longer); }), statuses);
        };
        atLast([&] { return EKO_MAKEWSTR(tag, L"%s%4.1ls%c%lc|", L"\u20ac", L"\U0001f600x", 0x20AC, -1); });
        atLast([&] { return EKO_APPENDWSTR(tag, str, L"%hs%.3hs|", "z\xE2\x82\xED", "\xF0\x9F\x98\x80\xA0zz"); });
        atLast(
            [&] { return appendV("tests/", 1, tag, str, L"%4.*hs%.5hs%.6hs|", 2, open.data(), nullptr, nullptr); });
        atLast([&] { return appendV("tests/", 1, tag, str, L"%\u00e4%\u0164%'26.1f|", 1234.5); });
        EXPECT_EQ(makeV("tests/", 1, EKO_GLOBAL_TAG, L"%1073741824d", 1), nullptr);
        EXPECT_STREQ(str, L"\u20ac   \U0001f600\u20ac\xFFFFFFFF|z\uFFFD\uFFFD\U0001f600\uFFFDz|"
                          L"  \u00e9\u20ac(null)|  1\u202f<1234567890123234\uFFFD.\uFFFD\uFFFD5|");
        EKO_TAG_DESTROY(tag);
    }
}
