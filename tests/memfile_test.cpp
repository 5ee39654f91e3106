// Files in memory: paths and bytes against models, what is removed under others' hands, memory running out, threads.
//
// LINK: --wrap=malloc --wrap=calloc --wrap=realloc
#include <unistd.h>

#include <atomic>
#include <functional>
#include <random>

#include "ekomf_int.h"
#include "support/faults.h"
#include "support/fixture.h"

using namespace std::string_literals;

namespace {

constexpr uint32 FAILED = 0xFFFFFFFF, KIB = 1024;
thread_local MemResult result;
thread_local std::mt19937 dice;

// What the tests make is in /t/d, which is removed at the end with all it has.
class MemFileTest : public DiskTest {
protected:
    void SetUp() override
    {
        DiskTest::SetUp();
        prime();
    }
    void prime()
    {
        EXPECT_TRUE(make("/t/d/f") && make("/f") && remove("/t/d") + remove("/f") == 0);
        acceptUsage();
        before_ = bytes();
    }
    void TearDown() override
    {
        remove("/t/d");
        EXPECT_EQ(bytes(), before_);
        DiskTest::TearDown();
    }
    static EKO_FH open(const char* name)
    {
        return eko_fileOpen(name, OPEN_CREATE | OPEN_TRUNCATE, EKO_FILE_INMEMORY);
    }
    static uint64 size(const char* name) { return eko_fileLengthStat(name, EKO_FILE_INMEMORY); }
    static bool there(const char* name) { return eko_mfValidate(name, nullptr, &result) == 1; }
    static int32 remove(const char* name) { return eko_fileRemoveEx(name, EKO_FILE_INMEMORY); }
    static int32 rename(const char* a, const char* b)
    {
        return eko_fileRenameEx(a, EKO_FILE_INMEMORY, b, EKO_FILE_INMEMORY);
    }
    static bool make(const std::string& name, uint64 size = 0)
    {
        EKO_FH fh = open(name.c_str());
        const bool made = fh && eko_fileSetSize(fh, size) == 0;
        eko_fileClose(fh);
        return made;
    }
    static std::string next(EKO_MFDIR dir) // goes on where memory ran out
    {
        int32 isdir = 7;
        const char* name = eko_mfPathNext(dir, &isdir, &result);
        return name ? name + (isdir ? "/ "s : " "s) : result == MemResult::exhausted ? next(dir) : "";
    }
    static std::string list(const char* path)
    {
        EKO_MFDIR dir = eko_mfPathOpen(path, "*", &result);
        std::string all = dir ? "" : "none", name;
        while (!(name = next(dir)).empty())
            all += name;
        eko_mfPathClose(dir);
        return all;
    }
    static size_t bytes()
    {
        EKO_TAG_MEM_INFO info = {};
        eko_getTagMemInfo(mfGlobals()->mf_tag, &info);
        return info.bytes.in_use;
    }
    size_t before_ = 0;
};

// Normalisation as a list of steps, each with the "/" before it.
std::string modelOf(const std::string& path)
{
    std::vector<std::string> steps;
    std::string step, all;
    for (char c : path + '\0') {
        if (c != '/' && c != '\\' && c) {
            step += c;
            continue;
        }
        const std::string name = step.substr(step[0] == '/' ? 1 : 0);
        if (name == ".." && !steps.empty() && steps.back()[0] != '/')
            return "fails";
        if (name == ".." && !steps.empty())
            steps.pop_back();
        else if (name != ".." && !name.empty() && (name != "." || !c))
            steps.push_back(step);
        step = c ? "/" : name.empty() ? step : "";
    }
    for (const std::string& s : steps)
        all += s;
    return all + step;
}

TEST_F(MemFileTest, memfile_paths)
{
    EXPECT_EQ(modelOf("/a/./b//c") + modelOf("a/../b") + modelOf("/../x\\") + modelOf("/a/.."), "/a/b/cfails/x/");
    for (uint32 i = 0; i < 100000; ++i) {
        std::string path(dice() % 16, ' ');
        for (char& c : path)
            c = "/\\..ab"[dice() % 6];
        const std::string expected = modelOf(path), given = path;
        ASSERT_EQ(mfNormalize(path.data()) ? path.c_str() : "fails"s, expected) << given;
    }
    eko_nodisk();
    const char* const names[][3] = {{"f", "/F", "/./f"}, // the second is the same, the third another file
                                    {"stdin", "//STDIN", "/t/d/stdin"},
                                    {"/t/d/x/f", "t\\D\\y\\..\\x/F", "/t/d/x\\f"},
                                    {"/t/d/./f", "/t/D/./F", "/t/d/f"},
                                    {"/t/d//f", "\\t/d//f", "/t/d/f"},
                                    {"/t/d/x\\..", "/t/d/X\\..", "/t/d/.."}};
    for (const auto& [name, same, other] : names) {
        EXPECT_TRUE(make(name, 3) && size(same) == 3 && !there(other) && remove(other) == 1002) << name;
        EXPECT_TRUE(remove(same) == 0 && !eko_fileOpen(name, OPEN_READ_WRITE, EKO_FILE_INMEMORY)) << name;
    }
    EXPECT_TRUE(make("/g") && make("/t/d/g"));
    for (const char* name : {"", "/", "/t/d/", "/t/../f", "../f", "/t/d/x", "/t/d/g/f"})
        EXPECT_FALSE(make(name) || eko_fileModTimeStat(name, EKO_FILE_INMEMORY))
            << name; // no name, no place, no file
    for (const char* path : {"", "t/d", "/t/d/x/", "/t/..", "/g", "/T/none"})
        EXPECT_EQ(list(path), "none") << path;
    EXPECT_EQ(list("/") + list("./t/d\\x\\..") + list("/t/d/"), "g / ./ g x/ ");
    EXPECT_TRUE(remove("/g") == 0 && remove("/t") == 1002 && !there("/t")); // that is the file
}

// What a file holds up to the end of its last segment, the bytes behind its size included.
struct ModelFile {
    std::string store;
    uint64 size = 0, segments = 0;
    void resize(uint64 to)
    {
        uint64 end = 0, level = 8 * KIB;
        for (segments = 0; end < to; end += level, ++segments)
            level = segments > 3 && segments % 3 == 1 && segments < 17 ? level * 4 : level;
        store.resize(size_t(end), '\0');
        size = to;
    }
};

TEST_F(MemFileTest, memfile_bytes)
{
    EKO_FH fh = open("/t/d/f");
    const MF_FILE_ENTRY* file = fh->f_mem->entry;
    ModelFile model;
    for (uint32 kib : {8u, 24u, 32u, 64u, 128u, 256u, 512u, 1024u, 2048u, 4096u, 8192u, 16384u, 24576u}) {
        for (uint64 size : {kib * KIB - 1, kib * KIB, kib * KIB + 1}) {
            model.resize(size);
            EXPECT_TRUE(eko_fileSetSize(fh, size) == 0 && file->num_segments == model.segments) << size;
        }
    }
    EXPECT_EQ(file->num_segments, 19u);
    const size_t held = bytes();
    for (uint64 size : {uint64(1) << 54, uint64(1) << 55, uint64(1) << 63, ~uint64(0)}) {
        EXPECT_EQ(eko_fileSetSize(fh, size), 1003);
        EXPECT_TRUE(eko_fileSeek(fh, size - 2, SEEK_SET) == 0 && eko_fileWrite(fh, "abc", 3) == FAILED);
    }
    EXPECT_TRUE(bytes() == held && eko_fileSetSize(fh, 0) == 0 && eko_fileSeek(fh, 0, 3) == 1002);
    model.resize(0);
    for (uint64 i = 0, pos = ~uint64(0) - 2; i < 10000; ++i) { // each at the position, or at an offset
        const uint64 off = dice() % (700 * KIB) >> dice() % 20, at = dice() % 2 ? off : EKO_FILE_NO_OFFSET;
        const uint64 from = at == off ? off : pos, left = from < model.size ? model.size - from : 0;
        std::string text(1 + (dice() % (100 * KIB) >> dice() % 17), char('a' + i % 26)), got = text;
        const uint32 count = uint32(text.size()), op = uint32(dice() % 6);
        uint32 moved = 0;
        if (op < 2 && from < 1 << 30) {
            moved = eko_fileSeekWrite(fh, at, text.data(), count);
            ASSERT_EQ(moved, count);
            if (left < count)
                model.resize(from + count);
            model.store.replace(size_t(from), count, text);
        } else if (op < 4) {
            moved = eko_fileSeekRead(fh, at, got.data(), count);
            text = left ? model.store.substr(size_t(from), size_t(std::min<uint64>(count, left))) : "";
            ASSERT_EQ(got.substr(0, moved), text);
        } else if (op == 4) {
            const int32 origin = int32(dice() % 3);
            const uint64 by = origin ? 0 - off : off; // may end in front of the start, far beyond the end
            ASSERT_EQ(eko_fileSeek(fh, by, origin), 0);
            pos = by + (origin == 0 ? 0 : origin == 1 ? pos : model.size);
        } else {
            ASSERT_EQ(eko_fileSetSize(fh, off), 0);
            model.resize(off);
        }
        pos += at == off ? 0 : moved;
        ASSERT_TRUE(eko_fileLength(fh) == model.size && file->num_segments == model.segments);
    }
    const time64_t before = eko_timeSecs();
    EXPECT_EQ(eko_mfSeekWrite(fh->f_mem, model.size + 9, "", 0, &result), 0u); // a write like others
    EXPECT_TRUE(size("/T/D/F") == model.size + 9 && eko_fileModTimeStat("/t/d/f", EKO_FILE_INMEMORY) >= before);
    eko_fileClose(fh);
}

TEST_F(MemFileTest, memfile_removed_while_open)
{
    EKO_FH fh[] = {open("/t/d/x/a"), open("/t/d/x/a"), open("/t/d/x/y/b")};
    EKO_MFDIR dir = eko_mfPathOpen("/t/d/x", "*", &result);
    const size_t empty = bytes();
    EXPECT_EQ(eko_fileSetSize(fh[0], 1 << 20), 0);
    EXPECT_EQ(fh[0]->f_mem->entry->open_count, 2u);
    EXPECT_EQ(remove("/t/d/x"), 0);
    EXPECT_LT(bytes(), empty);
    EXPECT_TRUE(make("/t/d/x/a", 5)); // another one
    for (EKO_FH h : fh) {
        char c;
        EXPECT_TRUE(eko_fileLength(h) == 0 && eko_fileSetSize(h, 0) == 1002 && eko_fileRead(h, &c, 1) == 0);
        EXPECT_TRUE(eko_fileSeek(h, 0, SEEK_END) == 0 && eko_fileWrite(h, "x", 1) == FAILED);
    }
    EXPECT_EQ(next(dir), "");
    for (EKO_FH h : fh)
        eko_fileClose(h);
    eko_mfPathClose(dir);
}

TEST_F(MemFileTest, memfile_renames)
{
    EXPECT_TRUE(make("/t/d/one", 1) && make("/t/d/two", 2) && make("/t/d/three", 3) && make("/t/d/x/f"));
    EXPECT_TRUE(rename("/t/d/one", "/t/e/one") == 1002 && rename("/t/d/none", "/t/d/a") == 1002);
    EXPECT_TRUE(rename("/T/d/x/../TWO", "/t\\D/One") == 0 && rename("/t/d/three", "/t/d/ONE") == 0);
    EXPECT_TRUE(rename("/t/d/one", "/t/d/oNE") == 0 && rename("/t/d/x", "/t/d/one.") == 0);
    EXPECT_EQ(list("/t/d") + list("/t/d/One."), "oNE one./ f "); // each name once
    for (uint64 last = 3; last > 0; --last)
        EXPECT_TRUE(size("/t/d/one") == last && remove("/t/d/one") == 0) << last;
    EXPECT_EQ(remove("/t/d/one"), 1002);
}

TEST_F(MemFileTest, memfile_iteration_while_entries_come_and_go)
{
    for (const char* name : {"b.txt", "D.TXT", "c", "a.txt/f", "e.txt"})
        EXPECT_TRUE(make("/t/d/"s + name));
    EKO_MFDIR dir = eko_mfPathOpen("/t/d", "*.txt", &result);
    EXPECT_EQ(next(dir), "a.txt/ ");
    EXPECT_TRUE(remove("/t/d/a.txt") == 0 && make("/t/d/A!.txt") && make("/t/d/a1.TXT"));
    EXPECT_EQ(next(dir), "a1.TXT ");
    EXPECT_EQ(next(dir), "b.txt ");
    EXPECT_EQ(rename("/t/d/b.txt", "/t/d/z.txt"), 0);
    for (const char* name : {"D.TXT ", "e.txt ", "z.txt ", "", ""})
        EXPECT_EQ(next(dir), name);
    eko_mfPathClose(dir);
}

// Every request on either tag failing in turn: one report, the failure's result, and nothing half done.
TEST_F(MemFileTest, memfile_out_of_memory)
{
    std::string names;
    for (char c = '0'; c <= '9'; names += c++ + " "s) // the eleventh entry extends the array
        EXPECT_TRUE(make("/t/d/"s + c, c == '3'));
    EKO_FH fh = open("/t/d/0");
    const std::string data(100 * KIB, 'x');
    struct {
        std::function<uint64()> run;
        uint64 failed;
        std::function<void()> undo;
    } const cases[] = {
        {[] { return make("/t/d/x/y/f"); }, 0, [] { remove("/t/d/x"); }},
        {[&] { return eko_fileWrite(fh, data.data(), 100 * KIB); }, FAILED, [&] { eko_fileSetSize(fh, 0); }},
        {[&] { return eko_fileSetSize(fh, 100 * KIB); }, 1003, [&] { eko_fileSetSize(fh, 0); }},
        {[] { return rename("/t/d/1", "/t/d/zz"); }, 1002, [] { rename("/t/d/zz", "/t/d/1"); }},
        {[] { return remove("/t/d/2"); }, 1002, [] { make("/t/d/2"); }},
        {[] { return size("/t/d/3"); }, 0, [] {}}};
    for (EKO_MEMTAG tag : {mfGlobals()->mf_tag, EKO_THREAD_TAG}) {
        for (const auto& c : cases) {
            for (uint32 n = 1, fired = 1; fired; ++n) {
                uint64 got = 0;
                const std::string said = logged([&] {
                    const FailNthOnTag fault(tag, n);
                    got = c.run();
                    fired = fault.fired();
                });
                EXPECT_TRUE(!fired ||
                            matches(said, "Out of memory. Called from source/eko/ekofile[_a-z]*.cpp:[0-9]+\n"));
                EXPECT_TRUE(!fired || (got == c.failed && list("/t/d") == names && eko_fileLength(fh) == 0)) << n;
                EXPECT_TRUE(fired || got != c.failed);
                c.undo();
            }
        }
        for (uint32 n = 1, fired = 1; fired; ++n) {
            const FailNthOnTag fault(tag, n);
            const std::string got = list("/t/d");
            fired = fault.fired();
            EXPECT_TRUE(got == names || (fired && got == "none")) << got;
        }
    }
    eko_fileClose(fh);
}

// In the same few directories: what is read of a file is always one write, and in the end nothing is left.
TEST_F(MemFileTest, memfile_threads)
{
    const char* const names[] = {"/t/d/f", "/t/d/g", "/t/d/x/f", "/t/d/x/g", "/t/d/x/y/f", "/t/d/x", "/t/d/x/y"};
    inThreads(4, [&](uint32 self) {
        dice.seed(self);
        for (uint32 i = 0; i < 2000; ++i) {
            const char* name = names[dice() % 7];
            const std::string mine(64, char('a' + i % 26));
            std::string got(64, '?');
            EKO_FH fh = dice() % 2 ? open(name) : nullptr;
            if (fh) {
                const bool locked = dice() % 2 && eko_fileLock(fh) == 0;
                const bool wrote = eko_fileWrite(fh, mine.data(), 64) == 64;
                eko_fileSeek(fh, 0, SEEK_SET);
                got.resize(eko_fileRead(fh, got.data(), 64));
                EXPECT_TRUE(got.empty() || got == std::string(64, got[0]));
                EXPECT_TRUE(!locked || (wrote ? got == mine : got.empty()));
                if (locked)
                    eko_fileUnlock(fh);
                if (dice() % 4 == 0)
                    eko_fileSetSize(fh, 0);
                eko_fileClose(fh);
            } else if (dice() % 4 == 0) {
                remove(name);
            } else {
                rename(name, names[dice() % 7]);
                list("/t/d/x");
                size(name);
            }
        }
        eko_releaseTLSTag();
    });
}

TEST_F(MemFileTest, memfile_locked_file_holds_up_its_users_only)
{
    EKO_FH fh = open("/t/d/f"), other = open("/t/d/f");
    eko_fileWrite(fh, "old", 3);
    std::atomic<uint32> stage = 0;
    inThreads(3, [&](uint32 self) {
        if (self == 0)
            eko_fileLock(fh);
        if (self == 0)
            stage = 1;
        while (stage < (self ? 1u : 2u) || (self == 2 && there("/t/d/f")))
            std::this_thread::yield();
        if (self == 1) {
            EXPECT_EQ(remove("/t/d/f"), 0); // the name goes at once, the bytes when the lock does
        } else if (self == 2) {
            char c = 'n';
            EXPECT_TRUE(make("/t/d/f"));
            stage = 2;
            EXPECT_TRUE(eko_fileRead(other, &c, 1) != FAILED && c == 'n') << c;
        } else {
            usleep(10000);
            EXPECT_TRUE(eko_fileSeekWrite(fh, 0, "new", 3) == 3 && eko_fileLength(other) == 3);
            eko_fileUnlock(fh);
        }
        eko_releaseTLSTag();
    });
    EXPECT_EQ(eko_fileLength(fh), 0u);
    eko_fileClose(fh);
    eko_fileClose(other);
}

TEST_F(MemFileTest, memfile_deep_tree)
{
    std::string deep = "/t/d";
    for (uint32 i = 0; i < 50000; ++i)
        deep += "/x";
    EXPECT_TRUE(make(deep + "/f") && list(deep.c_str()) == "f " && remove("/t/d") == 0 && bytes() == before_);
    EXPECT_NE(open((deep + "/f").c_str()), nullptr); // and never closed
    EXPECT_NE(eko_mfPathOpen(deep.c_str(), "*", &result), nullptr);
    eko_term();
    ASSERT_EQ(eko_init(), 0);
    prime();
}

} // namespace
