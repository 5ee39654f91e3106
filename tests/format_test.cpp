// SPDX-License-Identifier: MIT
// The formatter: its departures from C by literals, everything else against the C library. No locale needs to be
// installed: the tests choose its conventions.
// LINK: --wrap=nl_langinfo
#include <float.h>
#include <langinfo.h>
#include <limits.h>
#include <locale.h>
#include <math.h>
#include <sys/mman.h>
#include <unistd.h>

#include <random>
#include <string>

#include "ekoint.h"
#include "support/faults.h"
#include "support/fixture.h"

static struct lconv locale = {}; // what the library finds: nothing, which is a point and commas
static int localeReads = 0;

EKO_WRAP(char*, nl_langinfo, (nl_item item))
{
    ++localeReads;
    return item == RADIXCHAR ? locale.decimal_point : locale.thousands_sep;
}

namespace {

// eko_vsnprintf, whose formats are thus hidden from the compiler, which warns of most of what is tested here.
int print(char* buf, size_t size, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int len = eko_vsnprintf(buf, size, fmt, args);
    va_end(args);
    return len;
}

// The whole text, "-1:" in front when the call says so.
template <class... Args> std::string text(const char* fmt, Args... args)
{
    char buf[512];
    const int len = print(buf, sizeof buf, fmt, args...);
    EXPECT_TRUE(len == -1 || size_t(len) == strlen(buf)) << fmt;
    return (len < 0 ? "-1:" : "") + std::string(buf);
}

// Whether the C library prints the same.
template <class... Args> testing::AssertionResult agrees(const char* fmt, Args... args)
{
    char theirs[512];
    snprintf(theirs, sizeof theirs, fmt, args...);
    return text(fmt, args...) == theirs
               ? testing::AssertionSuccess()
               : testing::AssertionFailure() << fmt << ": " << text(fmt, args...) << ", not " << theirs;
}

// ---- the departures -------------------------------------------------------------------------------------

TEST(Format, texts_depart_from_c)
{
    EXPECT_EQ(text("%5c|%-5c|%.0c|%c|%5%|%-08.3%", 'a', 'b', 'c', 0x141), "a|b|c|A|%|%"); // no width
    EXPECT_EQ(text("%8s|%-8s|%.6s|%.5s|%4.0s|", nullptr, nullptr, nullptr, nullptr, nullptr),
              "  (null)|(null)  |(null)||    |"); // all of it or nothing
    EXPECT_EQ(text("%010p|%-7p|%.2p", nullptr, nullptr, nullptr), "     (nil)|(nil)  |(n");
    EXPECT_EQ(text("a%yb%5.2Sc%!d%d", 3), "abcd3"); // unknown conversions are silent
    EXPECT_EQ(text("%jjd%zzd%ttd%LLd%llld|%hhhd|%5*d|%\xC3\xA9"), "ddddd|d|d|\xA9");
    static const char cutOff[] = "ab%\0cd%-08.3l\0%d";
    EXPECT_EQ(text(cutOff) + text(cutOff + 4), "abcd");
}

TEST(Format, integers_depart_from_c)
{
    EXPECT_EQ(text("%zd|%+zi", -1l, -1l), text("%lu|+%lu", -1l, -1l));                         // unsigned
    EXPECT_EQ(text("%td|%tx|%tu", -1l, -1l, -1l), "-1|ffffffffffffffff|18446744073709551615"); // always extended
    EXPECT_EQ(text("%Lu%Lx%+Li|%Ld|%d%Ln|%d", 5, 6), "00+0|0|5|6");                   // L takes no argument
    EXPECT_EQ(text("%#.0o|%0#6.0o|%0#6.1o|%#.0o", 8, 8, 8, 0), "010|000010|   010|"); // # takes a precision of 0
    EXPECT_EQ(text("%7p|%-7p|%07p|%.4p|%+p", 1l, 2l, 3l, 4l, 5l), "    0x1|0x2    |0x00003|0x0004|0x5");
    EXPECT_EQ(text("%p", 0x80000000ul), text("%#llx", static_cast<long long>(long(0x80000000ul)))); // by its sign
}

TEST(Format, n_stores_by_modifier)
{
    for (const std::string modifier : {"", "hh", "h", "l", "ll", "j", "z", "t"}) {
        const std::string fmt = "%300d%" + modifier + "n.";
        std::string ours(12, '\xEE'), theirs = ours;
        EXPECT_EQ(eko_snprintf(nullptr, 0, fmt.c_str(), 1, ours.data()), 301); // counts, stored or not
        snprintf(nullptr, 0, fmt.c_str(), 1, theirs.data());
        EXPECT_EQ(ours, theirs) << fmt;
    }
}

TEST(Format, floats_depart_from_c)
{
    EXPECT_EQ(text("%a|%.1A|%A", 1.5, 2.5, double(INFINITY)), "1.500000|2.5|INF"); // as f
    EXPECT_EQ(text("%f|%g|%+e|%f|%+5E", -0.0, -0.0, -0.0, -double(NAN), -double(NAN)),
              "0.000000|0|+0.000000e+00|nan| +NAN"); // without a minus
    // At most 19 digits of a fraction, which the width knows, and the last three of an exponent.
    EXPECT_EQ(text("%.30f|%.20f|%26.30e", 0.5, 0.25, 1.),
              "0.5000000000000000000|0.2500000000000000000| 1.0000000000000000000e+00");
    EXPECT_EQ(text("%.1Le|%.1Le|%.0Le|%.1Le", 1e1234L, 1e-4012L, 1e4000L, LDBL_MAX),
              "1.0e+234|1.0e-012|1e+000|1.2e+932");
    // A half goes up, with all its carries.
    EXPECT_EQ(text("%.2f|%.0f|%.0f|%.0f|%.1e|%.2g|%g", 0.125, 0.5, 2.5, -0.5, 1.25, 0.125, 999999.5),
              "0.13|1|3|-1|1.3e+00|0.13|1e+06");
    EXPECT_EQ(text("%.1f|%.0f|%.0e|%.2e", 9.96875, 99.5, 9.5, 9999.0), "10.0|100|1e+01|1.00e+04");
    EXPECT_EQ(text("ab%Lfcd", 18446744073709551615.0L), "-1:ab"); // fixed style has 64 bits
    EXPECT_EQ(text("%.0Lf|%.1Lf|%.1Lf", 18446744073709551614.0L, -9223372036854775809.0L, 9223372036854775807.5L),
              "18446744073709551614|-9223372036854775809.0|9223372036854775807.5");
    EXPECT_EQ(text("%.19Lf", 3 - 0x1p-61L), "2.9999999999999999996");       // whose double is 3
    EXPECT_EQ(text("%.25g|%.25g", 1e19, 2e19), "-1:10000000000000000000|"); // general style turns fixed
    EXPECT_EQ(text("a%Le", LDBL_TRUE_MIN), "-1:a");                         // its power of ten is 0
}

// ---- against the C library ------------------------------------------------------------------------------

std::mt19937_64 rng(20);

int below(int n)
{
    return int(rng() % unsigned(n));
}

// One directive with the argument, of the modifier's and conversion's type: random flags, then a width and a
// precision, as digits or as arguments.
template <class T>
testing::AssertionResult agreesAtRandom(const std::string& flags, int precisions, const std::string& conv, T value)
{
    std::string fmt = "<%";
    for (int n = below(4); n > 0; --n)
        fmt += flags[size_t(below(int(flags.size())))];
    if (below(4) == 0)
        return agrees((fmt + "*.*" + conv + ">").c_str(), below(60) - 30, below(precisions) - 1, value);
    if (below(2))
        fmt += std::to_string(1 + below(30));
    if (below(2))
        fmt += '.' + (below(8) ? std::to_string(below(precisions)) : std::string());
    return agrees((fmt + conv + ">").c_str(), value);
}

// Left out because the results differ, and tested above: negative z and t, # and o with a precision of 0.
TEST(Format, integers_agree_with_the_c_library)
{
    for (int i = 0; i < 100000; ++i) {
        const uint64 magnitude = below(50) ? (rng() | 1) >> below(64) : uint64{1} << 63;
        const auto value = static_cast<long long>(below(2) ? magnitude : 0 - magnitude);
        const std::string conv(1, "diuxX"[below(5)]);
        for (const char* const modifier : {"hh", "h", ""})
            ASSERT_TRUE(agreesAtRandom("-+ #0", 25, modifier + conv, int(value)));
        for (const char* const modifier : {"ll", "j"})
            ASSERT_TRUE(agreesAtRandom("-+ #0", 25, modifier + conv, value));
        for (const char* const modifier : {"l", "z", "t"})
            ASSERT_TRUE(agreesAtRandom("-+ #0", 25, modifier + conv, long(size_t(value) >> (*modifier != 'l'))));
        ASSERT_TRUE(agreesAtRandom("-+ 0", 25, "llo", value));
        ASSERT_TRUE(agrees("<%#*.*llo>", below(60) - 30, 1 + below(25), value));
    }
}

TEST(Format, strings_agree_with_the_c_library_and_are_not_read_behind_their_precision)
{
    for (int i = 0; i < 20000; ++i)
        ASSERT_TRUE(agreesAtRandom("-+ #0", 25, "s", &"abcdefghijklmnopqrst"[below(21)]));
    const size_t page = size_t(sysconf(_SC_PAGESIZE));
    void* const pages = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    char* const end = static_cast<char*>(pages) + page;
    ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
    memcpy(end - 3, "xyz", 3);
    EXPECT_EQ(text("%.3s|%.*s|%.0s", end - 3, 2, end - 2, end), "xyz|yz|");
}

// A significand of 53 random bits is no tie at nine digits or fewer, nor near enough to one for the rounding of
// extended precision (2^-64 for each power of ten) to matter; there both libraries must agree. Fixed style keeps
// to values with enough fraction bits for that, or none.
TEST(Format, floats_agree_with_the_c_library)
{
    static const char* const scaled[] = {"e", "E", "g", "G"};
    for (int i = 0; i < 50000; ++i) {
        const double significand = double(rng() >> 11 | uint64{1} << 52 | 1) * (below(2) ? 0x1p-52 : -0x1p-52);
        const auto extended = static_cast<long double>(rng() | 1);
        const double value = ldexp(significand, below(1990) - 990);
        ASSERT_EQ(strtod(text("%.18e", value).c_str(), nullptr), value); // 19 digits tell any two apart
        ASSERT_TRUE(agreesAtRandom("-+ #0", 9, scaled[below(4)], value));
        ASSERT_TRUE(agreesAtRandom("-+ #0", 9, scaled[below(4)], ldexp(significand, below(40) - 20)));
        ASSERT_TRUE(agreesAtRandom("-+ #0", 9, "f", ldexp(significand, below(40) - 20)));
        ASSERT_TRUE(agreesAtRandom("-+ #0", 9, "F", ldexp(significand, 52 + below(12))));
        ASSERT_TRUE(agreesAtRandom("-+ #0", 9, "Le", ldexpl(extended, below(6000) - 3000)));
    }
}

TEST(Format, chosen_floats_agree_with_the_c_library)
{
    for (const double value : {1e6, 1e19, 0.0001, 1e-5, 0.09, 0.000099999996, DBL_MAX, HUGE_VAL, -HUGE_VAL})
        for (const char* fmt : {"%g", "%#g", "%.0g|", "%#.0g", "%.3G", "%+9.1e", "% -9.2E|", "%08e", "%#010.0e"})
            EXPECT_TRUE(agrees(fmt, value));
}

// ---- the locale, buffers and lengths --------------------------------------------------------------------

void use(const char* point, const char* separator)
{
    locale.decimal_point = const_cast<char*>(point);
    locale.thousands_sep = const_cast<char*>(separator);
}

TEST(FormatLocale, groups_digits_and_counts_separators_against_the_precision)
{
    use("::", "<>");
    EXPECT_EQ(text("%'7d|%-'7d|%'10.1f|%#.0f", 1234, 1234, 1234.5, 3.), " 1<>234|1<>234 | 1<>234::5|3::");
    use(".", "");
    EXPECT_EQ(text("%'9.1f|%'d", 1234.5, 1234567), "   1234.5|1234567");
    use(nullptr, nullptr);
    EXPECT_EQ(text("%'5d|%'d|%'d|%'d", 123, 1000, -123456, 0), "  123|1,000|-123,456|0");
    EXPECT_EQ(text("%'x|%'#o|%'lld", 0xABCDEF0, 01234, LLONG_MIN), "a,bcd,ef0|01,234|-9,223,372,036,854,775,808");
    EXPECT_EQ(text("%'8d|%-'8d|%'08d", 12345, 12345, 12345), "  12,345|12,345  |0012,345");
    EXPECT_EQ(text("%'.1Lf|%'.0f|%'e|%'g", 1e18L, 999., 1e6, 123456.),
              "1,000,000,000,000,000,000.0|999|1.000000e+06|123,456");
    EXPECT_EQ(text("%'9.1f|%'-9.1f|%'09.1f", 1234.5, 1234.5, 1234.5), "  1,234.5|1,234.5  |001,234.5");
    EXPECT_EQ(text("%'.10d|%'12.10d|%'14.10d", 1234567, 1234567, 1234567), "01,234,567|01,234,567|  01,234,567");
    EXPECT_EQ(text("[%'.0d][%'3.0d]", 0, 0), "[][   ]"); // no digits, no separators: not one less than none
    use(".", "");
    localeReads = 0;
    text("%d %x %s %p %c %.0f %g %f", 1, 2, "3", "4", 5, 6.0, 7.0, double(NAN));
    text("%'.1f %'d %.1f", 1234.5, 1234567, 1.5);
    EXPECT_EQ(localeReads, 4); // each text at most once a directive, and only when it is needed
}

TEST(Format, cuts_at_every_size)
{
    const char* const fmt = "run%%%c%7d|%-7d|%07d|%8s|%#.4x|%'d|%08.3f|%-12.3e|%d%s.";
    const std::string all = "run%c    -42|-42    |-000042|  string|0x00ff|1,234,567|-003.063|1.500e+03   |-42end.";
    for (size_t size = 0; size <= all.size() + 2; ++size) {
        std::string buf(all.size() + 8, '\xEE'), expected = buf;
        if (size > 0)
            expected.replace(0, std::min(size, all.size() + 1), all.substr(0, size - 1) + '\0');
        for (char* const dest : {buf.data(), static_cast<char*>(nullptr)}) // none: whatever the size says
            ASSERT_EQ(
                print(dest, size, fmt, 'c', -42, -42, -42, "string", 255, 1234567, -3.0625, 1500.0, -42, "end"),
                int(all.size()));
        ASSERT_EQ(buf, expected) << size;
    }
}

TEST(Format, numbers_that_do_not_fit_and_texts_of_2147483647_bytes_fail_the_call)
{
    for (const char* fmt : {"ab%99999999999dcd", "ab%2147483648dcd", "ab%.2147483648dcd", "ab%*dcd"})
        EXPECT_EQ(text(fmt, INT_MIN, 1), "-1:ab") << fmt;
    EXPECT_EQ(text("ab%.*dcd%.*f", INT_MIN, 1, -2, 1.5), "ab1cd1.500000"); // negative: no precision
    for (const char* fmt : {"%2147483646d", "%-2147483646d", "%.2147483646d", "%2147483645d+"})
        EXPECT_EQ(print(nullptr, 0, fmt, 1), INT_MAX - 1) << fmt;
    for (const char* fmt : {"%2147483647d", "%2147483646d+", "%-+#2147483647.2147483647x",
                            "%2147483647d%2147483647d%4d"}) { // 2 more than 32 bits count
        std::string buf(8, '#');
        EXPECT_EQ(print(buf.data(), 5, fmt, 1, 1, 1), -1) << fmt;
        EXPECT_EQ(buf.substr(4), std::string("\0###", 4)) << fmt;
    }
}

// eko_makeStrV, or eko_appendStrV when there is a string.
char* formatV(EKO_MEMTAG tag, const char* str, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    char* const longer = str ? eko_appendStrV(__FILE__, __LINE__, tag, str, fmt, args)
                             : eko_makeStrV(__FILE__, __LINE__, tag, fmt, args);
    va_end(args);
    return longer;
}

using FormatStrings = EkoTest;

// More arguments of each class than registers, so that both passes read them from everywhere. The tag's blocks
// come from malloc: the address sanitizer sees a block that is too short.
TEST_F(FormatStrings, are_made_and_appended_to_from_all_arguments)
{
    const EKO_MEMTAG tag = EKO_TAG_CREATE(LEGACY_ALLOCATOR);
    const char* const fmt = "%d %d %d %d %d %d %d %.0f %.0f %.0f %.0f %.0f %.0f %.0f %.0f %.0f %.0Lf %s,";
    std::string expected = "1made";
    char* str = formatV(tag, nullptr, "%d%s", 1, "made");
    EXPECT_EQ(EKO_MAKESTR(tag, "%d%s", 1, "made"), expected);
    for (const int length : {510, 511, 512, 513}) // around what is formatted once
        EXPECT_EQ(EKO_MAKESTR(tag, "%*d", length, 7), std::string(size_t(length) - 1, ' ') + '7');
    for (int i = 0; i < 100; ++i) {
        str = formatV(tag, str, fmt, 1, 2, 3, 4, 5, 6, 7, 1., 2., 3., 4., 5., 6., 7., 8., 9., 10.L, "end");
        expected += "1 2 3 4 5 6 7 1 2 3 4 5 6 7 8 9 10 end,";
        ASSERT_EQ(str, expected);
    }
    EKO_TAG_DESTROY(tag);
}

// Without memory, first on a tag without a jump buffer, then with one; and a format that fails, which does not jump.
TEST_F(FormatStrings, that_cannot_be_made_are_null_or_jump_and_the_old_one_stays)
{
    const EKO_MEMTAG tag = EKO_TAG_CREATE(LIST_ALLOCATOR);
    for (const char* statuses : {"0 1 ", "jump 1 "}) {
        EXPECT_EQ(exhaust(tag, [=] { return formatV(tag, nullptr, "%d", 1) != nullptr; }), statuses);
        const char* old = EKO_MAKESTR(tag, "old");
        EXPECT_EQ(exhaust(tag, [=] { return !strcmp(old, "old") && formatV(tag, old, "%99d", 1); }), statuses);
        eko_resetTag(&exhaustedJump, tag);
    }
    char* const str = EKO_MAKESTR(tag, "old");
    EXPECT_EQ(EKO_MAKESTR(tag, "%f", 1e20), nullptr);
    EXPECT_EQ(EKO_APPENDSTR(tag, str, "new%f", 1e20), nullptr);
#if EKO_CHECKED
    EXPECT_EQ(EKO_APPENDSTR(tag, str, "%s", str + 3), nullptr); // it would move under the format
#endif
    EXPECT_STREQ(str, "old");
    EKO_TAG_DESTROY(tag);
}

} // namespace
