// SPDX-License-Identifier: MIT
// Wide strings and UTF-8, against iconv, at the ends of pages, and in buffers of every size.
#include <iconv.h>
#include <sys/mman.h>

#include <optional>

#include "support/faults.h"
#include "support/fixture.h"

constexpr uint32 LAST = 0x10FFFF;

template <class Unit> using Text = std::basic_string<Unit>;

// iconv between UTF-8 and UTF-32; nothing for invalid input.
template <class To, class From> std::optional<Text<To>> iconvert(const Text<From>& text)
{
    static const iconv_t cd = sizeof(To) == 1 ? iconv_open("UTF-8", "UTF-32LE") : iconv_open("UTF-32LE", "UTF-8");
    Text<To> out(text.size() * 4, To());
    char* in = const_cast<char*>(reinterpret_cast<const char*>(text.data()));
    char* dest = reinterpret_cast<char*>(out.data());
    size_t inLeft = text.size() * sizeof(From), destLeft = out.size() * sizeof(To);
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    const bool valid = iconv(cd, &in, &inLeft, &dest, &destLeft) != size_t(-1);
    return valid ? std::optional(out.substr(0, out.size() - destLeft / sizeof(To))) : std::nullopt;
}

// As many units as end with their page, the next one being closed. The same again at the next call.
template <class Unit> Unit* room(size_t units)
{
    static const size_t page = size_t(sysconf(_SC_PAGESIZE));
    static void* const map = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    static Unit* const end = reinterpret_cast<Unit*>(static_cast<char*>(map) + page);
    static const int closed = mprotect(end, page, PROT_NONE);
    return closed == 0 ? end - units : nullptr;
}

// The text that a destination of `size` units then holds; nothing when the call fails, `*cut` is what it stored.
template <class To, class From>
std::optional<Text<To>> converted(const Text<From>& text, int32 mode, size_t size, Text<To>* cut = nullptr)
{
    From* const src = room<From>(text.size() + 1);
    src[text.copy(src, text.size())] = 0;
    To* const dest = room<To>(size);
    uint32 n;
    if constexpr (sizeof(To) == 1)
        n = eko_wchar_to_utf8(dest, src, uint32(size), mode);
    else
        n = eko_utf8_to_wchar(dest, src, uint32(size), mode);
    if (cut && size > 0)
        *cut = dest;
    return n == EKO_UTF8_FAILED ? std::nullopt : std::optional(Text<To>(dest, n + 1).substr(0, n));
}

// What it gives in each mode, the last one in every size of destination.
template <class To, class From>
void tryAllModes(const Text<From>& text, const Text<To>& dropped, const Text<To>& replaced)
{
    SCOPED_TRACE(testing::PrintToString(text));
    const auto whole = iconvert<To>(text);
    ASSERT_EQ(converted<To>(text, EKO_UTF8_DROP, dropped.size() + 1), dropped);
    ASSERT_EQ(converted<To>(text, EKO_UTF8_REPLACE, replaced.size() + 1), replaced);
    for (size_t size = 0; size <= dropped.size() + 2; ++size) {
        Text<To> cut;
        const auto result = converted(text, EKO_UTF8_FAIL, size, &cut);
        ASSERT_EQ(result, whole && size > whole->size() ? whole : std::nullopt);
        ASSERT_TRUE(dropped.starts_with(cut) && iconvert<From>(cut)) << "only whole characters";
        ASSERT_TRUE(!whole || cut.size() + 4 >= std::min(size, whole->size())) << "could have held one more";
    }
}

// Whether it is the cut-off beginning of a character.
static bool begins(const std::string& bytes)
{
    static const char* const rests[] = {"\x80", "\x80\x80", "\x80\x80\x80", "\xBF\x80", "\xBF\x80\x80"};
    return std::ranges::any_of(rests, [&](auto rest) { return iconvert<wchar_t>(bytes + rest).has_value(); });
}

// Each maximal ill-formed subpart becomes `substitute`.
static std::wstring modelled(const std::string& text, const std::wstring& substitute)
{
    std::wstring out;
    for (size_t at = 0, n; at < text.size(); at += n) {
        for (n = 1; at + n < text.size() && begins(text.substr(at, n)); ++n)
            if (!begins(text.substr(at, n + 1)) && !iconvert<wchar_t>(text.substr(at, n + 1)))
                break;
        out += iconvert<wchar_t>(text.substr(at, n)).value_or(substitute);
    }
    return out;
}

TEST(Utf8, every_code_point_agrees_with_iconv)
{
    for (uint32 val = 1; val <= LAST + 3; ++val) {
        const std::wstring wide(1, wchar_t(val));
        const auto expected = iconvert<char>(wide);
        char bytes[5] = "";
        uint32 count = 0;
        const int32 rc = eko_utf8_codes(val, reinterpret_cast<uint8*>(bytes), &count);
        ASSERT_EQ(rc, expected ? UTF8_OKAY : val > LAST ? UTF8_INVALID : UTF8_NEED_SURROGATE) << val;
        ASSERT_EQ(std::string(bytes, count), expected.value_or("")) << val;
        ASSERT_EQ(converted<char>(wide, EKO_UTF8_FAIL, 5), expected) << val;
        ASSERT_EQ(converted<wchar_t>(expected.value_or("x"), EKO_UTF8_FAIL, 2), expected ? wide : L"x") << val;
    }
    EXPECT_EQ(eko_utf8_codes('a', nullptr, nullptr), UTF8_INVALID);
}

// Many are almost right, by bytes at the borders of what may follow what, and many are ASCII for the most part.
TEST(Utf8, random_texts_agree_with_iconv_and_the_model)
{
    const std::string bytes = "az\x7F\x80\x8F\x90\x9F\xA0\xBF\xC1\xC2\xDF\xE0\xE1\xED\xEF\xF0\xF1\xF4\xF5\xFF";
    const uint32 values[] = {0x7F,   0x80,   0x7FF,   0x800, 0xD7FF,   0xD800,     0xDFFF,
                             0xE000, 0xFFFF, 0x10000, LAST,  LAST + 1, 0x80000041, 0xFFFFFFFF};
    std::mt19937 random(1);
    for (uint32 round = 0; round < 60000 && !HasFatalFailure(); ++round) {
        std::string text(random() % 32, 'x');
        for (char& c : text)
            c = random() % 32 < round % 33 ? bytes[random() % bytes.size()] : char('0' + random() % 64);
        tryAllModes<wchar_t>(text, modelled(text, L""), modelled(text, L"\xFFFD"));
        std::wstring wide(random() % 32, L'x'), kept, replaced;
        for (wchar_t& c : wide) {
            c = wchar_t(random() % 32 < round % 33 ? values[random() % std::size(values)] : '0' + random() % 64);
            const bool good = iconvert<char>(std::wstring(1, c)).has_value();
            kept.append(good, c);
            replaced += good ? c : L'\xFFFD';
        }
        tryAllModes<char>(wide, *iconvert<char>(kept), *iconvert<char>(replaced));
    }
}

using Utf8Copies = EkoTest;

TEST_F(Utf8Copies, are_on_the_tag_or_null_and_without_memory_leave_by_its_jump_buffer)
{
    const EKO_MEMTAG tag = EKO_TAG_CREATE(BLOCK_ALLOCATOR);
    char* const utf8 = eko_convToUTF8(L"\x20AC 5", EKO_UTF8_FAIL, tag);
    wchar_t* const wide = eko_convToWchar("\xE2\x82\xAC 5", EKO_UTF8_FAIL, tag);
    EXPECT_STREQ(utf8, "\xE2\x82\xAC 5");
    EXPECT_STREQ(wide, L"\x20AC 5");
    const wchar_t* const argv[] = {L"minidb", L"", L"\x00E9\x74\x00E9", L"\xD800", nullptr};
    char** const args = eko_convArgvToUTF8(4, argv, EKO_UTF8_REPLACE, tag);
    const char* const expected[] = {"minidb", "", "\xC3\xA9t\xC3\xA9", "\xEF\xBF\xBD", nullptr};
    for (int i = 0; i <= 4; ++i)
        EXPECT_STREQ(args[i], expected[i]);
    for (void* block : {static_cast<void*>(utf8), static_cast<void*>(wide), static_cast<void*>(args)})
        EKO_FREE(block, tag); // one holds all of argv
    EXPECT_EQ(infoOf(tag).bytes.in_use, 0u);
    for (const auto& [count, mode] : {std::pair(4, EKO_UTF8_FAIL), {5, EKO_UTF8_DROP}, {-1, EKO_UTF8_DROP}})
        EXPECT_EQ(eko_convArgvToUTF8(count, argv, mode, tag), nullptr);
    EXPECT_EQ(eko_convToUTF8(L"a\xDFFF", 7, tag), nullptr);
    EXPECT_EQ(eko_convToWchar(nullptr, EKO_UTF8_DROP, tag), nullptr);
    EXPECT_EQ(eko_utf8_to_wchar(nullptr, "a", 4, EKO_UTF8_DROP), EKO_UTF8_FAILED);

    const auto all = [&] { // how many there are
        char* const narrow = eko_convToUTF8(L"a", EKO_UTF8_FAIL, tag);
        wchar_t* const widened = eko_convToWchar("a", EKO_UTF8_FAIL, tag);
        return (narrow != nullptr) + (widened != nullptr) + (eko_convArgvToUTF8(3, argv, 0, tag) != nullptr);
    };
    eko_resetTag(&exhaustedJump, tag);
    EXPECT_EQ(exhaust(tag, all), "jump jump jump 3 ");
    EKO_TAG_DESTROY(tag);
}
