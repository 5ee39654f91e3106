// Wildcards, directories as they are listed, files read and written through mapped views.
#include <random>

#include "ekofile_int.h"
#include "support/fixture.h"

namespace {

// The rules word for word, each pair of positions worked out once, from the ends backwards.
bool modelMatch(const std::string& name, const std::string& pattern)
{
    const size_t n = name.size(), m = pattern.size();
    const auto same = [](char a, char b) { return toupper(a) == toupper(b); };
    std::vector<std::vector<bool>> fits(n + 1, std::vector<bool>(m + 2));
    for (size_t p = m + 1; p-- > 0;)
        for (size_t i = n + 1; i-- > 0;) {
            if (p == m)
                fits[i][p] = i == n;
            else if (pattern[p] != '*')
                fits[i][p] = i < n && (pattern[p] == '?' || same(pattern[p], name[i])) && fits[i + 1][p + 1];
            else if (p + 1 == m)
                fits[i][p] = true;
            else
                for (size_t at = i; at < n && !fits[i][p]; ++at)
                    fits[i][p] = same(name[at], pattern[p + 1]) && fits[at + 1][p + 2];
        }
    return fits[0][0];
}

TEST(Match, match_as_the_rules_say)
{
    std::mt19937 random(4711);
    uint32 matched = 0;
    const auto text = [&](const char* letters, uint32 most) {
        std::string s(random() % (most + 1), ' ');
        for (char& c : s)
            c = letters[random() % strlen(letters)];
        return s;
    };
    for (int32 k = 0; k < 300000; ++k) {
        const std::string name = text(k % 2 ? "aAb" : "aB*?", 9), pattern = text(k % 3 ? "ab*?" : "a*", 7);
        const bool model = modelMatch(name, pattern);
        ASSERT_EQ(eko_match(name.c_str(), pattern.c_str()), model) << name << " against " << pattern;
        matched += model;
    }
    EXPECT_GT(matched, 20000u);
    EXPECT_LT(matched, 280000u);
    std::string stars = "*\xE4";
    for (int32 k = 0; k < 2000; ++k)
        stars += "*a?";
    EXPECT_FALSE(eko_match(std::string(5000, 'A').c_str(), stars.c_str()));
    EXPECT_TRUE(eko_match(("\xE4" + std::string(5000, 'A')).c_str(), stars.c_str()));
    EXPECT_FALSE(eko_match("\xC4", "\xE4")); // only ASCII letters have a case
}

TEST(Match, match_takes_what_follows_a_star_literally)
{
    EXPECT_TRUE(eko_match("Report.TXT", "*.txt"));
    EXPECT_TRUE(eko_match("abc", "a?c"));
    EXPECT_FALSE(eko_match("ab", "a?c"));
    EXPECT_TRUE(eko_match("a?", "*?"));
    EXPECT_FALSE(eko_match("ab", "*?"));
    EXPECT_TRUE(eko_match("a*", "**"));
    EXPECT_FALSE(eko_match("ab", "**"));
}

} // namespace
