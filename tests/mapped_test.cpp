// SPDX-License-Identifier: MIT
// Wildcards, directories as they are listed, files read and written through mapped views.
// LINK: --wrap=readdir64
#include <dirent.h>
#include <fnmatch.h>

#include "ekofile_int.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/syscalls.h"

EKO_WRAP(dirent64*, readdir64, (DIR * dir)) // as on a file system that does not list what "s..." is
{
    dirent64* entry = __real_readdir64(dir);
    return entry && entry->d_name[0] == 's' ? (entry->d_type = DT_UNKNOWN, entry) : entry;
}

constexpr uint32 MIB = 1024 * 1024;

class MappedTest : public DiskTest {
protected:
    void SetUp() override
    {
        DiskTest::SetUp();
        for (EKO_FH fh : {open(0), open(0), open(0)}) // so many mutexes are kept
            eko_fileClose(fh);
        acceptUsage();
    }
    EKO_FH open(uint64 size, int flags = O_RDWR, uint16 xflags = EKO_FILE_MAPPED) // the file made anew
    {
        writeFile(name_, "0123456789");
        EXPECT_EQ(truncate64(name_.c_str(), off64_t(size)), 0);
        return eko_fileOpen(name_.c_str(), uint32(flags), xflags);
    }
    std::string get(uint64 off, size_t size)
    {
        std::string s(size, '?'); // that stays when the read fails
        return s.substr(0, eko_fileSeekRead(fh_, off, s.data(), uint32(size)));
    }
    int32 put(uint64 at, std::string s) { return int32(eko_fileSeekWrite(fh_, at, s.data(), uint32(s.size()))); }
    std::string list(const std::string& path, const char* pattern) // the names, each with its type behind it
    {
        std::string names;
        EKO_DIR_ENTRY dir = eko_flPathOpen(path.c_str(), pattern, &result_);
        for (int32 isdir = 7; const char* name = dir ? eko_flPathNext(dir, &isdir, &result_) : nullptr;)
            names += name + std::to_string(isdir);
        if (dir)
            eko_flPathClose(dir);
        return names;
    }
    const std::string name_ = dir_.file("mapped");
    MemResult result_;
    EKO_FH fh_ = nullptr;
};

TEST(Match, match_takes_what_follows_a_star_literally)
{
    std::minstd_rand random(4711);
    for (uint32 k = 0; k < 300000; ++k) {
        std::string name, pattern, model; // where brackets make a literal
        for (size_t n = random() % 9; n > 0; --n)
            name += "aA*?b"[random() % (k % 4 + 2)];
        for (size_t n = random() % 9; n > 0; --n, model += pattern.back())
            pattern += "a*?b"[random() % (k % 3 + 2)];
        for (size_t at = 0; (at = model.find('*', at) + 1) && at < model.size(); at += 3)
            model.replace(at, 1, {'[', model[at], ']'});
        ASSERT_EQ(eko_match(name.c_str(), pattern.c_str()), !fnmatch(model.c_str(), name.c_str(), FNM_CASEFOLD))
            << name << " against " << pattern;
    }
    EXPECT_FALSE(eko_match("\xC4", "\xE4")); // only ASCII letters have a case
    EXPECT_FALSE(eko_match(std::string(5000, '*').c_str(), (std::string(4000, '*') + "a").c_str()));
}

TEST_F(MappedTest, directory_lists_names_and_types)
{
    const std::string path = dir_.path(), sub = path + "/sub";
    EXPECT_EQ(mkdir(sub.c_str(), 0777) + symlink(".", (path + "/link").c_str()), 0);
    EXPECT_EQ(list(path, "S*") + list(path, "l*") + list(path, "m?pped") + list(path, "?"), "sub1link0mapped0.1");
    EXPECT_EQ(list(path, "*").size(), strlen(".1..1sub1link0mapped0"));
    EXPECT_EQ(list(name_, "*") + list(std::string(5000, '/') + "x", "*"), "");
    EKO_DIR_ENTRY dir = eko_flPathOpen(sub.c_str(), "*", &result_);
    rmdir(sub.c_str());
    EXPECT_EQ(eko_flPathNext(dir, nullptr, &result_), nullptr);
    eko_flPathClose(dir);
}

class DiskBackingTest : public MappedTest, public testing::WithParamInterface<uint16> {};
INSTANTIATE_TEST_SUITE_P(Files, DiskBackingTest, testing::Values(EKO_FILE_MAPPED, uint16(0)));

TEST_P(DiskBackingTest, files_behave_as_their_model)
{
    std::minstd_rand random(815);
    std::string model, exe = readFile("/proc/self/exe"), noise = exe + exe;
    const bool mapped = GetParam() == EKO_FILE_MAPPED; // else lengths are exact, and there is a position
    fh_ = open(0, O_RDWR, GetParam());
    for (uint32 k = 0; k < 2000; ++k) {
        const size_t within = random() % 2 ? random() % MIB : (MIB - random() % 5) % MIB; // often at a border
        const size_t off = random() % 13 * MIB + within, n = 1 + random() % (k % 9 ? 9 : MIB), end = off + n;
        const size_t piece = mapped ? MIB - within : n; // each at the same place
        if (k % 3 == 0) {
            EXPECT_EQ(eko_fileSetSize(fh_, off), 0);
            model.resize(!mapped ? off : within ? off - within + MIB : model.size());
        } else {
            EXPECT_EQ(eko_fileSeek(fh_, k % 2 ? 0 : off, SEEK_SET), mapped ? 1002 : 0);
            const size_t reached = !mapped ? end : end % MIB ? end - end % MIB + MIB : 0;
            model.resize(std::max(reached, model.size()));
            EXPECT_EQ(put(mapped || k % 2 ? off : EKO_FILE_NO_OFFSET, noise.substr(k, n)),
                      off < model.size() ? int32(n) : -1);
            for (size_t at = 0; off < model.size() && at < n; at += piece)
                noise.copy(&model[off], std::min(piece, n - at), k + at);
        }
        const size_t from = random() % (model.size() + 1);
        ASSERT_TRUE(get(from, 3 * n) == model.substr(from, 3 * n) && eko_fileLength(fh_) == model.size()) << k;
    }
    EXPECT_TRUE(readFile(name_) == model);
    eko_fileClose(fh_);
}

TEST_F(MappedTest, mapped_views_lie_inside_the_file)
{
    fh_ = open(uint64(5120) * MIB);
    const std::string said = logged([&] {
        FailNthOnTag noMemory(EKO_GLOBAL_TAG, 1);
        EXPECT_EQ(get(0, 1), "?");
    });
    EXPECT_TRUE(matches(said, "Failed to seek and read, errno = 0\nOut of memory\\. .*/ekofile\\.cpp:[0-9]+\n"));
    const CallFault maps("mmap64", 0);
    for (int64 granule : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 4096, 0, 4096, 1})
        EXPECT_EQ(put(uint64(granule) * MIB, "view"), 4);
    EXPECT_EQ(maps.calls(), 12u);                                     // the one used longest ago makes room
    FILE* const out = std::exchange(stdout, fopen("/dev/null", "r")); // nobody can be told, and the reason stays
    {
        const CallFault fault("mmap64", ENOMEM, 0, 0, 1); // and is gone when the new one cannot be mapped
        EXPECT_EQ(get(20 * MIB, 1), "?");
        for (uint32 granule = 2; granule < 10; ++granule)
            EXPECT_EQ(get(granule * MIB, 4), "view") << granule;
    }
    EXPECT_EQ(truncate64(name_.c_str(), 20 * MIB), 0); // by somebody else
    EXPECT_EQ(get(20 * MIB, 1), "?");
    EXPECT_EQ(eko_fileSync(fh_) + eko_fileSetSize(fh_, 1), 0); // views of what was behind are left
    EXPECT_EQ(put(2 * MIB - 1, "x"), -1);
    for (const char* call : {"ftruncate64", "fstat64", "mmap64"}) {
        CallFault fault(call, ENOSPC);
        EXPECT_TRUE(put(9 * MIB, "x") == -1 && errno == ENOSPC && get(9 * MIB, 1) == "?") << call;
    }
    fclose(std::exchange(stdout, out));
    EXPECT_EQ(put(9 * MIB, "x"), 1); // there is room again
    EXPECT_EQ(eko_fileSeekRead(fh_, 0, nullptr, 1) & eko_fileSeekWrite(fh_, 0, nullptr, 1), EKO_FILE_IO_FAILED);
    EXPECT_EQ(eko_fileSetSize(fh_, uint64(-5)), -1);
    EXPECT_EQ(put(uint64(-2), "four") & put(EKO_FILE_NO_OFFSET, "1"), -1);
    EXPECT_EQ(get(uint64(-2), 4) + get(EKO_FILE_NO_OFFSET, 4), "????");
    eko_fileClose(fh_);
    for (int flags : {O_RDONLY, O_WRONLY}) { // a page cannot be written only
        fh_ = open(9, flags);
        EXPECT_EQ(put(0, "x"), -1);
        EXPECT_EQ(get(5, 5), flags == O_RDONLY ? "5678" : "?????");
        EXPECT_EQ(eko_fileLength(fh_), flags == O_RDONLY ? 9 : MIB);
        EXPECT_EQ(eko_fileSetSize(fh_, 200), 0);
        EXPECT_EQ(get(5, 5), "?????"); // as if it had that length
        eko_fileClose(fh_);
    }
}

// The last one mostly lies below the first one in memory, and must not be replaced by one that reaches into it.
TEST_F(MappedTest, mapped_views_of_two_lengths)
{
    fh_ = open(11 * MIB);
    for (uint32 granule = 0; granule < 11; ++granule)
        EXPECT_EQ(put(granule * MIB, std::to_string(10 + granule)), 2);
    eko_fileClose(fh_);
    EXPECT_EQ(truncate64(name_.c_str(), 10 * MIB + 2), 0);
    fh_ = eko_fileOpen(name_.c_str(), O_RDONLY, EKO_FILE_MAPPED);
    for (uint32 granule : {0u, 10u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 0u, 9u, 0u, 10u, 1u, 2u, 10u})
        EXPECT_EQ(get(granule * MIB, 2), std::to_string(10 + granule));
    eko_fileClose(fh_);
    EXPECT_EQ(readFile("/proc/self/maps").find(name_), std::string::npos);
}

TEST_F(MappedTest, mapped_opens_share_mutexes)
{
    fh_ = open(0);
    const EKO_FH others[] = {open(0), open(0)};
    for (uint32 n = 0; n < 4; ++n) { // the map and a mutex, then the map and the system's
        FailNthOnTag noMemory(EKO_GLOBAL_TAG, n % 2 + 1);
        EXPECT_TRUE(isOneReport(logged([&] { EXPECT_EQ(open(0), nullptr); }), "ekofile.cpp")) << n;
        eko_fileClose(n % 2 ? others[n / 2] : nullptr);
    }
    inThreads(2, [&](uint32 i) {
        for (uint32 k = 100; k < 600; ++k) {
            const EKO_FH other = eko_fileOpen(name_.c_str(), O_RDONLY, EKO_FILE_MAPPED);
            const uint64 off = (k * 3 + i) % 14 * MIB + i * 8;
            EXPECT_TRUE(put(off, std::to_string(k)) == 3 && get(off, 3) == std::to_string(k)) << k;
            eko_fileClose(other);
        }
    });
    eko_fileClose(fh_);
    EXPECT_EQ(readFile("/proc/self/maps").find(name_), std::string::npos);
}
