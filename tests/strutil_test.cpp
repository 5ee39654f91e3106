// SPDX-License-Identifier: MIT
// Helpers for strings.
// LINK: --wrap=strerror_r
#include "support/faults.h"
#include "support/fixture.h"

static std::string longText; // what the system says of any error, unless empty

EKO_ANSWER(char*, strerror_r, (int err, char* buff, size_t len),
           longText.empty() ? __real_strerror_r(err, buff, len) : longText.data())

TEST_F(EkoTest, strutil_letters_numbers_copies)
{
    char text[] = "aZ5\xC3\xA9_z", dest[] = "-----!";
    wchar_t wide[] = L"aZ5\u00E9_z", wdest[] = L"-----!";
    EXPECT_STREQ(wcsupr(wide), L"AZ5\u00E9_Z"); // no letter in this locale
    EXPECT_STREQ((setlocale(LC_CTYPE, "C.UTF-8"), strupr(text)), "AZ5\xC3\xA9_Z");
    EXPECT_STREQ(strlwr(text), "az5\xC3\xA9_z");
    EXPECT_STREQ(wcsupr(wide), L"AZ5\u00C9_Z");
    EXPECT_STREQ(wcslwr(wide), L"az5\u00E9_z");
    EXPECT_EQ(eko_atoi64("-9223372036854775808"), INT64_MIN);
    EXPECT_EQ(eko_atoui64("18446744073709551615"), UINT64_MAX);
    EXPECT_STREQ(eko_strncpyZ(dest, "abcdef", 0), "-----!");
    EXPECT_EQ(std::string(eko_strncpyZ(dest, "abcdef", 4), 6), std::string("abc\0-!", 6));
    EXPECT_EQ(std::wstring(eko_wcsncpyZ(wdest, nullptr, 5), 6), std::wstring(L"\0\0\0\0\0!", 6));
}

TEST_F(EkoTest, strutil_words_and_error_texts)
{
    const char* const cases[] = {"a, ,b", "trim", "[a][b]", "a, ,b",        "",     "[a][ ][b]", "", "trim", "",
                                 " \t ",  "trim", "",       ",;a;,\tb c ;", "trim", "[a][b c]"};
    const char** words;
    uint32 count;
    for (auto c = cases; c != std::end(cases); c += 3) { // a text, whether to trim, and its words
        std::string text = c[0], got;
        EXPECT_EQ(eko_tokenize(text.data(), ",;", &words, &count, *c[1], EKO_GLOBAL_TAG), 0);
        for (uint32 i = 0; i < count; ++i)
            got += std::string("[") + words[i] + "]";
        EXPECT_EQ(got, c[2]);
        EXPECT_EQ(words == nullptr, got.empty());
        EKO_FREE(words, EKO_GLOBAL_TAG);
    }
    char buff[32] = "a,b,?";
    FailNthOnTag fault(EKO_GLOBAL_TAG, 2);
    const auto run = [&] { EXPECT_EQ(eko_tokenize(buff, ",", &words, &count, 0, EKO_GLOBAL_TAG), 1003); };
    EXPECT_TRUE(isOneReport(logged(run), "eko_strutil.cpp")); // and nothing is left
    EXPECT_EQ(eko_strerr(99999, buff, 1), 1014);
    EXPECT_EQ(eko_strerr(2, buff, 25), 1014);
    EXPECT_STREQ(buff, "No such file or director");
    EXPECT_EQ(eko_strerr(2, buff, 26), 0);
    EXPECT_EQ(eko_strerr(99999, buff, 8), 0);
    EXPECT_STREQ(buff, "Unknown");
    for (size_t length : {0u, 255u, 256u, 1500u}) {
        longText.assign(length, 'x');
        char* text = eko_strerr_alloc(2, EKO_GLOBAL_TAG);
        EXPECT_EQ(text, length ? longText : "No such file or directory");
        EKO_FREE(text, EKO_GLOBAL_TAG);
    }
}
