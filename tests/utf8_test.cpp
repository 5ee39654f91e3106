// Wide strings and UTF-8, against iconv, against a model of ill-formed subparts, and at the edges of buffers.
#include <iconv.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "eko.h"
#include "support/fixture.h"

namespace {

constexpr uint32 LAST = 0x10FFFF;

// iconv between UTF-8 and UTF-32; nothing for invalid input.
template <class To, class From> std::optional<std::basic_string<To>> iconvert(const std::basic_string<From>& text)
{
    static const iconv_t cd = sizeof(To) == 1 ? iconv_open("UTF-8", "UTF-32LE") : iconv_open("UTF-32LE", "UTF-8");
    std::basic_string<To> out(text.size() * 4, To());
    char* in = const_cast<char*>(reinterpret_cast<const char*>(text.data()));
    char* dest = reinterpret_cast<char*>(out.data());
    size_t inLeft = text.size() * sizeof(From), destLeft = out.size() * sizeof(To);
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    if (iconv(cd, &in, &inLeft, &dest, &destLeft) == size_t(-1))
        return std::nullopt;
    out.resize(out.size() - destLeft / sizeof(To));
    return out;
}

uint32 intoBuffer(char* dest, const wchar_t* src, size_t len, int32 mode)
{
    return eko_wchar_to_utf8(dest, src, uint32(len), mode);
}
uint32 intoBuffer(wchar_t* dest, const char* src, size_t len, int32 mode)
{
    return eko_utf8_to_wchar(dest, src, uint32(len), mode);
}

template <class To, class From>
std::optional<std::basic_string<To>> converted(const std::basic_string<From>& text, int32 mode)
{
    std::basic_string<To> out(text.size() * 4 + 1, To());
    const uint32 n = intoBuffer(out.data(), text.c_str(), out.size(), mode);
    if (n == EKO_UTF8_FAILED)
        return std::nullopt;
    out.resize(n);
    return out;
}

// All the cut-off beginnings of well-formed characters, as iconv writes those.
const std::set<std::string>& beginnings()
{
    static const std::set<std::string> all = [] {
        std::set<std::string> found;
        for (uint32 val = 0x80; val <= LAST; ++val)
            if (const auto bytes = iconvert<char>(std::wstring(1, wchar_t(val))))
                for (size_t n = 1; n < bytes->size(); ++n)
                    found.insert(bytes->substr(0, n));
        return found;
    }();
    return all;
}

// What a conversion gives when each maximal ill-formed subpart becomes `substitute`.
std::wstring modelled(const std::string& text, const std::wstring& substitute)
{
    std::wstring out;
    for (size_t at = 0, n; at < text.size(); at += n) {
        n = 1;
        while (at + n < text.size() && beginnings().count(text.substr(at, n)))
            ++n;
        if (n > 1 && beginnings().count(text.substr(at, n)) == 0 && !iconvert<wchar_t>(text.substr(at, n)))
            --n;
        out += iconvert<wchar_t>(text.substr(at, n)).value_or(substitute);
    }
    return out;
}

} // namespace

TEST(Utf8, every_code_point_agrees_with_iconv)
{
    for (uint32 val = 1; val <= LAST + 3; ++val) {
        const std::wstring wide(1, wchar_t(val));
        const auto expected = iconvert<char>(wide);
        uint8 bytes[4];
        uint32 count = 0;
        const int32 rc = eko_utf8_codes(val, bytes, &count);
        ASSERT_EQ(rc, expected ? UTF8_OKAY : val > LAST ? UTF8_INVALID : UTF8_NEED_SURROGATE) << val;
        ASSERT_EQ(converted<char>(wide, EKO_UTF8_FAIL), expected) << val;
        if (expected) {
            ASSERT_EQ(std::string(bytes, bytes + count), *expected) << val;
            ASSERT_EQ(converted<wchar_t>(*expected, EKO_UTF8_FAIL), wide) << val;
        }
    }
    EXPECT_EQ(converted<char>(std::wstring(1, wchar_t(-1)), EKO_UTF8_REPLACE), "\xEF\xBF\xBD");
    uint32 count = 7;
    EXPECT_EQ(eko_utf8_codes('a', nullptr, &count), UTF8_INVALID);
    EXPECT_EQ(count, 7u);
}

TEST(Utf8, random_bytes_agree_with_iconv_and_the_model)
{
    // Bytes at the borders of what may follow what, so that many strings are almost right.
    const std::string bytes = "az\x7F\x80\x8F\x90\x9F\xA0\xBF\xC1\xC2\xDF\xE0\xE1\xED\xEF\xF0\xF1\xF4\xF5\xFF";
    std::mt19937 random(1);
    int valid = 0;
    for (int round = 0; round < 100000; ++round) {
        std::string text(random() % 12, 'x');
        for (char& c : text)
            c = round % 2 ? bytes[random() % bytes.size()] : char(random() % 255 + 1);
        const auto expected = iconvert<wchar_t>(text);
        valid += expected.has_value();
        ASSERT_EQ(converted<wchar_t>(text, EKO_UTF8_FAIL), expected) << testing::PrintToString(text);
        ASSERT_EQ(converted<wchar_t>(text, EKO_UTF8_REPLACE), modelled(text, L"\xFFFD"));
        ASSERT_EQ(converted<wchar_t>(text, EKO_UTF8_DROP), modelled(text, L""));
    }
    EXPECT_GT(valid, 10000);
    // The Unicode standard's own example.
    const std::string example = "\x61\xF1\x80\x80\xE1\x80\xC2\x62\x80\x63\x80\xBF\x64";
    EXPECT_EQ(converted<wchar_t>(example, EKO_UTF8_REPLACE), L"a\xFFFD\xFFFD\xFFFD\x62\xFFFD\x63\xFFFD\xFFFD\x64");
}

TEST(Utf8, random_wide_characters_agree_with_iconv)
{
    const uint32 values[] = {'a', 0x7F, 0x80, 0x7FF, 0x800, 0xD7FF, 0xD800, 0xDFFF, 0xE000, 0xFFFF, LAST, LAST + 1};
    std::mt19937 random(2);
    for (int round = 0; round < 100000; ++round) {
        std::wstring text(random() % 6, L'x'), kept, replaced;
        for (wchar_t& c : text) {
            c = wchar_t(values[random() % std::size(values)]);
            const bool good = iconvert<char>(std::wstring(1, c)).has_value();
            kept += good ? std::wstring(1, c) : L"";
            replaced += good ? c : L'\xFFFD';
        }
        ASSERT_EQ(converted<char>(text, EKO_UTF8_FAIL), iconvert<char>(text));
        ASSERT_EQ(converted<char>(text, EKO_UTF8_DROP), iconvert<char>(kept));
        ASSERT_EQ(converted<char>(text, EKO_UTF8_REPLACE), iconvert<char>(replaced));
    }
}

// Every size from none to one to spare: whole characters only, terminated, and not a unit further.
template <class To, class From> void tryEverySize(const std::basic_string<From>& text)
{
    const std::basic_string<To> whole = *iconvert<To>(text);
    for (size_t size = 0; size <= whole.size() + 2; ++size) {
        std::basic_string<To> buffer(whole.size() + 4, To('#'));
        const uint32 n = intoBuffer(buffer.data(), text.c_str(), size, EKO_UTF8_FAIL);
        ASSERT_EQ(n, size > whole.size() ? whole.size() : EKO_UTF8_FAILED) << size;
        ASSERT_EQ(buffer.substr(size), std::basic_string<To>(buffer.size() - size, To('#')));
        if (size == 0)
            continue;
        const std::basic_string<To> stored = buffer.c_str();
        ASSERT_LT(stored.size(), size);
        ASSERT_EQ(whole.substr(0, stored.size()), stored);
        ASSERT_TRUE(iconvert<From>(stored));
        ASSERT_GT(stored.size() + 4, std::min(size - 1, whole.size())) << "could have held one more";
    }
}

TEST(Utf8, buffers_hold_whole_characters_and_nothing_is_stored_past_them)
{
    const std::wstring texts[] = {L"", L"a", L"abcdefghijklmnopqrst", L"a\x00E4\x20AC\x1F600z", L"abcdefg\x1F600"};
    for (const std::wstring& text : texts) {
        tryEverySize<char>(text);
        tryEverySize<wchar_t>(*iconvert<char>(text));
    }
    char bytes[4] = "###";
    EXPECT_EQ(eko_wchar_to_utf8(bytes, L"a\xD800\x62", 4, EKO_UTF8_FAIL), EKO_UTF8_FAILED);
    EXPECT_STREQ(bytes, "a");
    EXPECT_EQ(eko_wchar_to_utf8(bytes, nullptr, 4, EKO_UTF8_DROP), EKO_UTF8_FAILED);
    EXPECT_STREQ(bytes, "");
    EXPECT_EQ(eko_utf8_to_wchar(nullptr, "a", 4, EKO_UTF8_DROP), EKO_UTF8_FAILED);
}

// Source and destination each end with their page, the next one being closed.
template <class Unit> Unit* endOfPage()
{
    const size_t page = size_t(sysconf(_SC_PAGESIZE));
    void* map = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_EQ(mprotect(static_cast<char*>(map) + page, page, PROT_NONE), 0);
    return reinterpret_cast<Unit*>(static_cast<char*>(map) + page);
}

template <class To, class From> void tryRuns(From odd)
{
    From* const srcEnd = endOfPage<From>();
    To* const destEnd = endOfPage<To>();
    for (size_t length = 0; length < 40; ++length) {
        for (size_t at = 0; at <= length; ++at) { // where the one that is not ASCII stands; at the end: nowhere
            From* const src = srcEnd - length - 1;
            for (size_t i = 0; i < length; ++i)
                src[i] = From(i == at ? odd : From('0' + i));
            src[length] = 0;
            const size_t expected = at < length ? length - 1 : length;
            To* const dest = destEnd - expected - 1;
            ASSERT_EQ(intoBuffer(dest, src, expected + 1, EKO_UTF8_DROP), expected);
            for (size_t i = 0; i < expected; ++i)
                ASSERT_EQ(dest[i], To('0' + i + (i >= at))) << length << " " << at << " " << i;
            ASSERT_EQ(dest[expected], To());
        }
    }
}

TEST(Utf8, ascii_runs_of_every_length_and_alignment_stay_within_their_pages)
{
    tryRuns<wchar_t>(char(0x80));
    tryRuns<char>(wchar_t(0xD800));
    tryRuns<char>(wchar_t(LAST + 1));
    tryRuns<char>(wchar_t(0x80000041)); // only its highest bit tells it from an A
}

class Utf8Copies : public EkoTest {};

TEST_F(Utf8Copies, are_on_the_tag_and_null_for_what_cannot_be_converted)
{
    const EKO_MEMTAG tag = EKO_TAG_CREATE(BLOCK_ALLOCATOR);
    char* utf8 = eko_convToUTF8(L"\x20AC 5", EKO_UTF8_FAIL, tag);
    ASSERT_STREQ(utf8, "\xE2\x82\xAC 5");
    wchar_t* wide = eko_convToWchar(utf8, EKO_UTF8_FAIL, tag);
    ASSERT_STREQ(wide, L"\x20AC 5");
    EKO_FREE(utf8, tag);
    EKO_FREE(wide, tag);
    const wchar_t* argv[] = {L"minidb", L"", L"\x00E9\x74\x00E9", L"\xD800", nullptr};
    char** args = eko_convArgvToUTF8(4, argv, EKO_UTF8_REPLACE, tag);
    ASSERT_TRUE(args);
    EXPECT_STREQ(args[0], "minidb");
    EXPECT_STREQ(args[1], "");
    EXPECT_STREQ(args[2], "\xC3\xA9t\xC3\xA9");
    EXPECT_STREQ(args[3], "\xEF\xBF\xBD");
    EXPECT_EQ(args[4], nullptr);
    EKO_FREE(args, tag); // one block holds all
    EKO_TAG_MEM_INFO info;
    ASSERT_EQ(eko_getTagMemInfo(tag, &info), 0);
    EXPECT_EQ(info.bytes.in_use, 0u);
    EXPECT_EQ(eko_convArgvToUTF8(4, argv, EKO_UTF8_FAIL, tag), nullptr);
    EXPECT_EQ(eko_convArgvToUTF8(5, argv, EKO_UTF8_DROP, tag), nullptr);
    EXPECT_EQ(eko_convArgvToUTF8(-1, argv, EKO_UTF8_DROP, tag), nullptr);
    EXPECT_EQ(eko_convToUTF8(nullptr, EKO_UTF8_DROP, tag), nullptr);
    EXPECT_EQ(eko_convToUTF8(L"a\xDFFF", 7, tag), nullptr);
    EXPECT_EQ(eko_convToWchar("a\xC0\x80", EKO_UTF8_FAIL, tag), nullptr);
    EKO_TAG_DESTROY(tag);
}

TEST_F(Utf8Copies, without_memory_leave_by_the_tags_jump_buffer)
{
    static jmp_buf jb;
    static EKO_MEMTAG tag;
    static volatile int jumps;
    static const std::string text(6 << 20, 'x'); // more than the limit, eight times that as wide characters
    static const std::wstring wide(6 << 20, L'x');
    tag = EKO_TAG_CREATE(BLOCK_ALLOCATOR);
    ASSERT_EQ(eko_setMemLimit(nullptr, 5 << 20), 0);
    EXPECT_EQ(eko_convToUTF8(wide.c_str(), EKO_UTF8_FAIL, tag), nullptr);
    jumps = 0;
    if (setjmp(jb) != 0)
        jumps = jumps + 1;
    eko_resetTag(&jb, tag);
    const wchar_t* const argv[] = {wide.c_str()};
    if (jumps == 0)
        eko_convToUTF8(wide.c_str(), EKO_UTF8_FAIL, tag);
    if (jumps == 1)
        eko_convToWchar(text.c_str(), EKO_UTF8_FAIL, tag);
    if (jumps == 2)
        eko_convArgvToUTF8(1, argv, EKO_UTF8_FAIL, tag);
    EXPECT_EQ(jumps, 3);
    eko_resetTag(nullptr, tag);
    EKO_TAG_DESTROY(tag);
    ASSERT_EQ(eko_setMemLimit(nullptr, 0), 0);
}
