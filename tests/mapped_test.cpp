// Wildcards, directories as they are listed, files read and written through mapped views.
//
// LINK: --wrap=malloc --wrap=calloc --wrap=realloc --wrap=eko_syncCreate_check --wrap=readdir64
// LINK: --wrap=open64 --wrap=read --wrap=write --wrap=pread64 --wrap=pwrite64 --wrap=lseek64 --wrap=fsync
// LINK: --wrap=ftruncate64 --wrap=fstat64 --wrap=stat64 --wrap=flock --wrap=mmap64 --wrap=localtime_r
#include <dirent.h>
#include <sys/stat.h>

#include <map>
#include <random>

#include "ekofile_int.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/syscalls.h"

namespace {

bool typesUnknown; // as on a file system that does not list them

} // namespace

EKO_WRAP(dirent64*, readdir64, (DIR * dir))
{
    dirent64* entry = __real_readdir64(dir);
    if (entry && typesUnknown)
        entry->d_type = DT_UNKNOWN;
    return entry;
}

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

class DirTest : public DiskTest {
protected:
    using Names = std::map<std::string, int32>;

    // What is listed, up to 100 names, with the type of each; `meanwhile` runs after the first.
    Names list(const std::string& path, const char* pattern, void (*meanwhile)(const std::string&) = nullptr)
    {
        Names names;
        EKO_DIR_ENTRY dir = eko_flPathOpen(path.c_str(), pattern, &result_);
        int32 isdir = 7;
        for (const char* name; dir && names.size() < 100 && (name = eko_flPathNext(dir, &isdir, &result_));) {
            EXPECT_TRUE(names.emplace(name, isdir).second) << name;
            if (meanwhile && names.size() == 1)
                meanwhile(path);
        }
        if (dir)
            eko_flPathClose(dir);
        return names;
    }

    MemResult result_ = MemResult::done;
};

TEST_F(DirTest, directory_lists_names_and_types)
{
    const std::string sub = dir_.file("sub");
    mkdir(sub.c_str(), 0777);
    mkdir((sub + "/inner.TXT").c_str(), 0777);
    writeFile(sub + "/a.txt", "");
    writeFile(sub + "/b", "");
    EXPECT_EQ(symlink(".", (sub + "/link.txt").c_str()), 0);
    for (bool unknown : {false, true}) {
        typesUnknown = unknown; // then links are followed
        const Names texts = {{"inner.TXT", 1}, {"a.txt", 0}, {"link.txt", unknown}};
        EXPECT_EQ(list(sub, "*.txt"), texts);
        EXPECT_EQ(list(sub, "?"), Names({{".", 1}, {"b", 0}}));
        EXPECT_EQ(list(sub, "*").size(), 6u);
        uint32 n = 0;
        for (bool fired = true; fired;) {
            FailNthOnTag noMemory(EKO_GLOBAL_TAG, ++n); // the record, its two copies, the name, what is its type
            const Names names = list(sub, "inner.*");
            fired = noMemory.fired();
            EXPECT_EQ(names, n <= 4 ? Names() : Names({{"inner.TXT", !fired}})) << n;
            EXPECT_EQ(result_, MemResult(fired && n <= 4 ? MemResult::exhausted : MemResult::done));
        }
        EXPECT_EQ(n > 5, unknown);
        CallFault removed("stat64", ENOENT);
        EXPECT_EQ(list(sub, "inner.*"), Names({{"inner.TXT", !unknown}}));
    }
    EXPECT_EQ(list(sub + "/b", "*"), Names());
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(list(dir_.path() + "/" + std::string(5000, 'x'), "*"), Names());
    EXPECT_EQ(result_, MemResult::refused);

    for (int32 k = 0; k < 50; ++k)
        writeFile(sub + "/" + std::to_string(k) + ".many", "");
    const Names many = list(sub, "*.many", [](const std::string& path) {
        for (int32 k = 0; k < 50; ++k)
            writeFile(path + "/" + std::to_string(k) + ".more", "");
    });
    EXPECT_EQ(many.size(), 50u);
    mkdir((sub + "/inner.TXT/gone").c_str(), 0777);
    EXPECT_LE(list(sub + "/inner.TXT/gone", "*", [](const std::string& path) { rmdir(path.c_str()); }).size(), 2u);
}

} // namespace
