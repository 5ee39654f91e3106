// SPDX-License-Identifier: MIT
// Files in memory: names and bytes against models, removal under others' hands, memory running out, threads.
// LINK: --wrap=eko_syncCreate_check
#include <filesystem>

#include "ekomf_int.h"
#include "support/faults.h"
#include "support/fixture.h"

using namespace std::string_literals;
static std::function<bool()> meanwhile; // runs once, where a mutex is made, which fails when that does
EKO_WRAP(EKO_SEM, eko_syncCreate_check, (int16 type, const char* file, int32 line))
{
    const auto other = std::exchange(meanwhile, nullptr);
    return !other || other() ? __real_eko_syncCreate_check(type, file, line) : EKO_SEM_INVALID;
}
constexpr uint16 MEM = EKO_FILE_INMEMORY;
constexpr uint32 FAILED = 0xFFFFFFFF, KIB = 1024;
static thread_local MemResult result;
static thread_local std::mt19937 dice;

// What the tests make is in /t/d, which is removed at the end with all it has.
struct MemFileTest : DiskTest {
    void SetUp() override
    {
        DiskTest::SetUp();
        EXPECT_TRUE(make("/t/d/f") && make("/f") && remove("/t/d") + remove("/f") == 0);
        acceptUsage();
        before_ = used();
    }
    void TearDown() override
    {
        EXPECT_TRUE((remove("/t/d"), used() == before_));
        DiskTest::TearDown();
    }
    static EKO_FH open(const std::string& name) { return eko_fileOpen(name.c_str(), OPEN_TRUNCATE, MEM); }
    static bool closed(EKO_FH fh) { return fh && (eko_fileClose(fh), true); }
    static bool make(const std::string& name) { return closed(open(name)); }
    static int32 remove(const char* name) { return eko_fileRemoveEx(name, MEM); }
    static int32 rename(const char* from, const char* to) { return eko_fileRenameEx(from, MEM, to, MEM); }
    static EKO_MFDIR at(const std::string& path) { return eko_mfPathOpen(path.c_str(), "*t*", &result); }
    static std::string list(EKO_MFDIR dir, int32 isdir = 7) // to the end, and closed
    {
        std::string all = dir ? "" : "none";
        while (const char* name = eko_mfPathNext(dir, &isdir, &result))
            all += name + (isdir ? "/ "s : " "s);
        eko_mfPathClose(dir);
        return result == MemResult::exhausted ? "none" : all;
    }
    static EKO_MEMTAG tag() { return mfGlobals()->mf_tag; }
    static size_t used() { return infoOf(tag()).bytes.in_use; }
    size_t before_ = 0;
};

TEST_F(MemFileTest, memfile_names)
{
    const auto normal = [](std::string path) { return mfNormalize(path.data()) ? path.c_str() : "fails"s; };
    EXPECT_EQ(normal("./x") + normal("a/../b") + normal("/a/..") + normal("a\\."), "/xfailsa/.");
    for (uint32 i = 0; i < 100000; ++i) {
        std::string path(dice() % 16, ' ');
        for (char& c : path)
            c = "//..ab"[dice() % 6];
        ASSERT_EQ(normal("/" + path + "\\x"), std::filesystem::path("/" + path + "/x").lexically_normal()) << path;
    }
    eko_nodisk();
    const char* const names[] = {"stdin",   "//STDIN",  "/./stdin", "/t/d/./f", "/t/D/./F",         "/t/d/f",
                                 "/t/d//f", "\\t/d//f", "/t/d/f",   "/t/d/t/f", "t\\D\\y\\..\\t/F", "/t/d/t\\f"};
    for (uint32 i = 0; i < 12; i += 3) // a name, the same, another
        EXPECT_TRUE(make(names[i]) && remove(names[i + 2]) && remove(names[i + 1]) == 0 && remove(names[i])) << i;
    EXPECT_TRUE(make("/at") && make("/t/d/at") && !make("/t/d/t") && !eko_fileOpen("/t/d/h", OPEN_READ_WRITE, MEM));
    EXPECT_FALSE(eko_fileOpen("/t/d/t", OPEN_READ_WRITE, MEM) || eko_fileLengthStat("/t/d/t", MEM)); // a directory
    for (const char* name : {"", "t/d/", "/t/../f", "../f", "/t/d/at/f", "/t/d/h/"})
        EXPECT_FALSE(make(name) || at(name)) << name; // no name, no place, a file on the way
    EXPECT_EQ(list(at("/")) + list(at("./t/d\\t\\..")) + list(at("/t/d/")), "at at t/ ");
    EXPECT_TRUE(remove("/at") == 0 && remove("/t") == 1002); // that is the file
    EXPECT_TRUE(make("/t/d/1st") && make("/t/d/two") && rename("/t/d/h", "/t/d/a") == 1002);
    for (const char* elsewhere : {"/t/t", "/t/x/t", "/t/d/t/t"})
        EXPECT_EQ(rename("/t/d/t", elsewhere), 1002);
    EXPECT_TRUE(rename("/T/d/t/../TWO", "/t\\D/1St") == 0 && rename("/t/d/t", "/t/d/1ST") == 0);
    for (std::string last : {"1ST/ ", "1St ", "1st "}) // each name once, the one renamed last in front
        EXPECT_TRUE(list(at("/t/d")) == last + "at " && remove("/t/d/1st") == 0) << last;
    int32 isdir = 7;
    EXPECT_TRUE(make("/t/d/t/f") && eko_mfValidate("/T/D/T", &isdir, &result) == 1 && isdir == 1);
    EKO_MFDIR dir = at("/t/d");
    EXPECT_STREQ(eko_mfPathNext(dir, nullptr, &result), "at");
    EXPECT_TRUE(remove("/t/d/at") == 0 && make("/t/d/a1") && make("/t/d/h.T") && make("/t/d/!.t"));
    EXPECT_EQ(list(dir), "h.T t/ ");
}

TEST_F(MemFileTest, memfile_bytes)
{
    EKO_FH fh = open("/t/d/f");
    std::string store; // to the end of the last segment: with the bytes behind the size
    uint64 size = 0, segments = 0, pos = 0;
    for (uint32 i = 0; i < 10000; ++i) { // at the position, or at an offset
        const uint64 off = i % 50 ? dice() % (700 * KIB) >> dice() % 20 : (8 * KIB << dice() % 12) + dice() % 3 - 1;
        const uint64 bases[] = {0, pos, size}, at = i % 2 ? off : EKO_FILE_NO_OFFSET, op = i % 50 ? dice() % 3 : 0;
        const uint32 count = 1 + uint32(dice() % (100 * KIB) >> dice() % 17), origin = i % 3;
        std::string text(count, char('a' + i % 26));
        ASSERT_EQ(eko_fileSeek(fh, off - bases[origin], int32(origin)), 0);
        if (op == 0 || (op == 1 && off + count > size)) {
            uint64 end = 0, each = 8 * KIB;
            size = op == 0 ? off : off + count;
            for (segments = 0; end < size; end += each, ++segments)
                each *= segments > 3 && segments < 17 && segments % 3 == 1 ? 4u : 1u;
            store.resize(size_t(end), '\0');
        }
        const size_t from = size_t(std::min(off, size)), left = size_t(std::min<uint64>(size - from, count));
        const std::string there = (op == 1 ? store.replace(from, left, text) : store).substr(from, left);
        ASSERT_TRUE(op > 0 || eko_fileSetSize(fh, off) == 0) << off;
        ASSERT_TRUE(op != 1 || eko_fileSeekWrite(fh, at, text.data(), count) == count) << off;
        ASSERT_TRUE(op < 2 || (text.resize(eko_fileSeekRead(fh, at, text.data(), count)), text == there)) << off;
        ASSERT_TRUE(eko_fileLength(fh) == size && fh->f_mem->entry->num_segments == segments) << off;
        pos = off + (op == 0 || at == off ? 0 : left);
    }
    const size_t held = eko_fileSeek(fh, 0, 3) == 1002 && eko_fileSetSize(fh, 0) == 0 ? used() : 0;
    for (uint32 shift : {0u, 1u, 9u, 10u}) // more segments than can be counted, or pointed at
        EXPECT_EQ(eko_fileSetSize(fh, ~uint64(0) >> shift), 1003);
    EXPECT_TRUE(eko_fileSeek(fh, uint64(-3), SEEK_SET) == 0 && eko_fileWrite(fh, "abc", 3) == FAILED);
    EXPECT_TRUE(used() == held && eko_fileSeek(fh, 3, SEEK_CUR) == 0 && eko_fileWrite(fh, "abc", 3) == 3);
    EXPECT_TRUE(eko_fileLength(fh) == 3 && eko_fileSetSize(fh, 8192 * KIB) == 0 && used() - held == 8192 * KIB);
    EXPECT_TRUE(eko_mfSeekWrite(fh->f_mem, 9000 * KIB, "", 0, &result) == 0 && closed(fh)); // also writes
    EXPECT_TRUE(eko_fileLengthStat("/T/D/F", MEM) == 9000 * KIB && eko_fileModTimeStat("/t/d/f", MEM) > 9);
}

TEST_F(MemFileTest, memfile_stream_overwrites)
{
    EKO_FH fh = open("/t/d/s");
    EXPECT_EQ(eko_fileWrite(fh, "old", 3), 3u);
    EKO_FILE_STREAM stream = eko_fopenEx("/t/d/s", "w", EKO_FILE_MODE_UTF8, MEM); // cuts nothing
    eko_fputc('n', stream);
    eko_fclose(stream);
    char text[4] = "";
    EXPECT_EQ(eko_fileSeekRead(fh, 0, text, 3), 3u);
    EXPECT_STREQ(text, "nld");
    eko_fileClose(fh);
}

// The name goes at once, the bytes as soon as nobody has the file locked, which holds up its own users only.
TEST_F(MemFileTest, memfile_removed_while_open)
{
    EKO_FH fh[] = {open("/t/d/x/a"), open("/t/d/x/a"), open("/t/d/x/y/b")};
    EKO_MFDIR dir = at("/t/d/x");
    EXPECT_TRUE(eko_fileWrite(fh[0], "old", 3) == 3 && eko_fileLock(fh[0]) == 0);
    char made = 0, c = 'n';
    std::thread remover([] { EXPECT_TRUE(remove("/t/d/x") == 0 && (eko_releaseTLSTag(), true)); });
    std::thread reader([&] {
        until([] { return !eko_mfValidate("/t/d/x", nullptr, &result); });
        publish(made, make("/t/d/x/a") ? 'y' : 'n');
        EXPECT_TRUE(eko_fileRead(fh[1], &c, 1) != FAILED && c == 'n' && (eko_releaseTLSTag(), true)) << c;
    });
    until([&] { return readPublished(made) != 0; });
    EXPECT_TRUE(made == 'y' && eko_fileSeekWrite(fh[0], 0, "new", 3) == 3 && eko_fileLength(fh[1]) == 3);
    eko_fileUnlock(fh[0]);
    remover.join();
    reader.join();
    for (EKO_FH h : fh) {
        EXPECT_TRUE(eko_fileLength(h) == 0 && eko_fileSetSize(h, 0) == 1002 && eko_fileSeek(h, 0, SEEK_SET) == 0);
        EXPECT_TRUE(eko_fileWrite(h, "x", 1) == FAILED && eko_fileRead(h, &c, 1) == 0 && closed(h));
    }
    EXPECT_EQ(list(dir), "");
}

// Every request on either tag failing in turn: one report, the failure's result, and nothing half done.
TEST_F(MemFileTest, memfile_out_of_memory)
{
    const std::string data(100 * KIB, 'x');
    EKO_FH fh = nullptr;
    const std::function<bool()> cases[] = {
        [] { return make("/t/d/x/y/f"); }, [&] { return eko_fileWrite(fh, data.data(), 100 * KIB) != FAILED; },
        [] { return rename("/t/d/1t", "/t/d/zz") != 1002; }, [] { return remove("/t/d/2t") != 1002; },
        [] { return list(at("/t/d")) != "none"; }};
    for (uint32 i = 0, fired = 0, done; i < 5 * 2 * 25; ++i) {
        std::string names;
        for (char c = '0'; c <= '9'; names += c++ + "t "s) // the eleventh entry extends the array
            EXPECT_TRUE(make("/t/d/"s + c + "t"));
        fh = open("/t/d/0t");
        const std::string said = logged([&] {
            const FailNthOnTag fault(i % 2 ? tag() : EKO_THREAD_TAG, i / 10 + 1);
            done = cases[i % 5]();
            fired = fault.fired();
        });
        EXPECT_TRUE(done != fired && (!fired || (list(at("/t/d")) == names && eko_fileLength(fh) == 0))) << i;
        EXPECT_TRUE(fired && i % 5 < 4 ? isOneReport(said, "ekofile[_a-z]*.cpp") : said == "") << i << said;
        EXPECT_TRUE(closed(fh) && remove("/t/d") == 0);
    }
}

// What others make, or remove, of the way to a file while its missing part is built.
TEST_F(MemFileTest, memfile_made_meanwhile)
{
    std::string all;
    for (std::string other : {"/t/d/xt/t", "/t/d/xt/yt/t", "/t/d/xt/yt/t/t", "/t/d/xt/yt", "all", "none/"}) {
        meanwhile = (make("/t/d/g"), [other] { return other == "all" ? remove("/t/d") == 0 : make(other); });
        all += make("/t/d/xt/yt/t") ? "made " : "not ";
        all += list(at("/t/d/xt")) + list(at("/t/d/xt/yt")) + "| ";
        remove("/t/d");
    }
    EXPECT_EQ(all, "made t yt/ t | made yt/ t | not yt/ t/ | not yt none| made yt/ t | not nonenone| ");
}

// In the same few directories: what is read of a file is always one write, and in the end nothing is left.
TEST_F(MemFileTest, memfile_threads)
{
    const char* const names[] = {"/t/d/f", "/t/d/g", "/t/d/x/f", "/t/d/x/g", "/t/d/x/y/f", "/t/d/x", "/t/d/x/y"};
    inThreads(4, [&](uint32 self) {
        dice.seed(self);
        for (uint32 i = 0; i < 2000; ++i) {
            std::string text(64, char('a' + i % 26));
            if (EKO_FH fh = dice() % 2 ? open(names[dice() % 7]) : nullptr) {
                EXPECT_TRUE(eko_fileWrite(fh, text.data(), 64) == 64 || eko_fileLength(fh) == 0);
                text.resize(eko_fileSeekRead(fh, 0, text.data(), 64));
                EXPECT_TRUE(text == std::string(text.size(), text[0]) &&
                            eko_fileSetSize(fh, dice() % 2 * 64) != 1003);
                eko_fileClose(fh);
            } else if (dice() % 4 ? rename(names[dice() % 7], names[dice() % 7]) : remove(names[dice() % 7])) {
                list(at("/t/d/x"));
            }
        }
        eko_releaseTLSTag();
    });
}

TEST_F(MemFileTest, memfile_deep_trees_and_stop)
{
    std::string deep = "/t/d";
    for (uint32 i = 0; i < 50000; ++i)
        deep += "/t";
    EXPECT_TRUE(make(deep + "/f.t") && list(at(deep)) == "f.t " && remove("/t/d") == 0 && used() == before_);
    EXPECT_TRUE(open(deep + "/f") && at(deep)); // and never closed
    eko_term();
    SetUp();
}
