// SPDX-License-Identifier: MIT
// Paths, directories, and what is done to files by name: on disk and in memory, narrow and wide, and with faults.
#include <sys/time.h>

#include "ekomf_int.h"
#include "support/faults.h"
#include "support/stories.h"
#include "support/syscalls.h"

using Text = std::string;
using namespace std::string_literals;

constexpr uint16 MEM = EKO_FILE_INMEMORY;
const Text LONG(5000, 'n'), BYTES = readFile("/proc/self/exe").substr(0, 4103); // of 5 blocks

class PathTest : public DiskTest {
protected:
    void SetUp() override
    {
        DiskTest::SetUp();
        ASSERT_EQ(chdir(dir_.path().c_str()), 0);
        tell("put /m/x 1");
        acceptUsage(); // the record of files in memory, and a directory there
    }
    void TearDown() override { forget(), DiskTest::TearDown(); }
};

TEST_F(PathTest, path_texts)
{
    const Text here = dir_.path() + "/", fits = LONG.substr(0, 511), cut = '/' + LONG;
    const Text cases[] = {// directory, file, dirname and its status, is it a directory, is it full; the full path
                          "/a/b/c /a/b/ c /a/b 0 0 1 /a/b/c/",
                          "/a/./b/ /a/./b/ - /a/. 0 1 1 /a/./b/",
                          "/ / - / 0 1 1 /",
                          " -  . 0 -1 0 " + here,
                          "./ ./ - . 0 1 0 " + here,
                          "./c ./ c . 0 0 0 " + here + "./c/",
                          ". - . . 0 0 0 " + here,
                          ".. - .. . 0 0 0 " + here + "../",
                          cut + "/f " + cut + "/ f " + cut.substr(0, 511) + " 1014 0 1 " + cut + "/f/",
                          fits + "/f " + fits + "/ f " + fits + " 0 0 0 " + here + fits + "/f/"};
    char buf[512], *dir, *file;
    const EKO_MEMTAG tag = eko_createTagEx(&exhaustedJump, 0, BLOCK_ALLOCATOR, nullptr, nullptr, "", 0);
    for (const Text& wanted : cases) {
        const Text path = wanted.substr(0, wanted.find(' '));
        const char* const p = path.c_str();
        const int32 status = eko_pathSplitEx(p, &dir, &file, tag) + eko_dirnameEx(p, buf, tag);
        EXPECT_EQ(EKO_MAKESTR(tag, "%s %s %s %s %d %d %d %s", p, dir ? dir : "-", file ? file : "-", buf, status,
                              eko_pathIsDir(p), eko_pathIsFullyQualified(p), eko_fullpathEx(p, tag)),
                  wanted);
    }
    const Text step(240, 's'); // down to where the path is longer than any that the system takes, and up again
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(eko_dirCreate(step.c_str()) + chdir(step.c_str()), 0);
    EXPECT_EQ(strlen(eko_fullpathEx(nullptr, tag)), here.size() + 20 * 241);
    EXPECT_TRUE(!eko_getcwd(buf, sizeof(buf)) && errno == ERANGE);
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(chdir("..") + eko_dirRemove(step.c_str()), 0);
    EXPECT_EQ(eko_currdirEx(tag) + "/"s + eko_pathStripDrive("c"), here + "c");
    ASSERT_EQ(eko_dirCreate("gone") + chdir("gone") + eko_dirRemove((here + "gone").c_str()), 0);
    EXPECT_EQ(eko_fullpathEx("x", tag), nullptr); // there is no current directory
    ASSERT_EQ(chdir(here.c_str()), 0);
    eko_diskless = 1;
    EXPECT_STREQ(EKO_MAKESTR(tag, "%s %s", eko_currdirEx(tag), eko_fullpathEx("x", tag)), "/ /x/");
    eko_diskless = 0;

    setenv("TOV_TMPDIR", "tmp", 1);
    const Text id = "_[0-9A-Fa-fx]+_0*" + std::to_string(getpid());
    uint32 no = 999;
    EXPECT_TRUE(matches(eko_fileCreateTmpName(&no, "b", "e", 0, tag), "tmp/b" + id + "_999.e"));
    EXPECT_TRUE(matches(eko_fileCreateTmpName(&no, nullptr, nullptr, MEM, tag), "/temp" + id + "_1000.tmp"));
    EXPECT_DEATH(eko_fileCreateTmpName(nullptr, "", "", MEM, tag), "puFileNo");

    EKO_TAG_EMPTY(tag);
    const auto all = [&] {
        EKO_FREE(eko_fullpathEx("x", tag), tag), EKO_FREE(eko_fullpathEx("/x", tag), tag);
        EKO_FREE(eko_fileCreateTmpName(&no, "b", "", 0, tag), tag), eko_dirnameEx("/", buf, tag);
        return eko_pathSplitEx("a/b", &dir, &file, tag);
    };
    EXPECT_EQ(exhaust(tag, all), "jump jump jump jump jump jump jump 0 ");
    EKO_FREE(dir, tag), EKO_FREE(file, tag);
    EXPECT_EQ(infoOf(tag).bytes.in_use, 0u);
    EKO_TAG_DESTROY(tag);
}

TEST_F(PathTest, path_stories)
{
    // Directories, and walks through them.
    tell(R"(mkdir @ -; mkdir @ - 1006; put f 1; mkdir f - 1006; mkdir f/d - 1002; mkdir # - 1002; mkall # - 1002;
        mkall @ - 1006; mkall n/o/p -; is n/o/p (dir); mkall q/r/ - 1006; is q/r (dir); mkall f/g/h - 1002;
        mkall q/s/ -; mkall s\t -; is s\t (dir); mkall u\v/w -; is u/v/w (dir); rmdir none -; rmdir n - 1002;
        rmdir n/o/p -; is n/o/p (none); rmdir f - 1002; rmdir # - 1002; valid @ - 11; valid f - 1; valid none -;
        valid # -; put n/A.txt 1; put n/@.TXT 2; walk n *.txT 2; walk n @*t 1; walk n * 35; walk none * -1;
        walk f * -1; walk # * -1; put /m/d/B 1; put /m/d/y/@ 2; walk /m/d * 12; walk /m/d/y ?? 1; walk /m/no * -1;
        valid /m/d/y - 11; mode - r; mkdir e -; rmdir e -; mode - d; mkdir e - 1002; mkall e - 1002;
        rmdir none - 1002; walk n * -1; valid f -)");
    // Directories moved as a whole, file by file to a new one, to an old one, through memory, and not at all.
    tell(R"(mkdir s -; put s/@ 1; put s/g 2; mkdir s/u -; movedir s t; is t/u (dir); is s (none); mode - x;
        movedir t n/m; is n/m/@ 1; is n/m/g 2; is t/@ (none); is t/u (dir); movedir t n/m 1002; movedir t n/l;
        rmdir t/u -; movedir t n/m 1002; is t (none); movedir none v; is v (dir); movedir none v 1002;
        movedir n/m i/w/; is i/w/@ 1; mkdir i/x -; movedir i/x o/p/ 1006; is o/p (dir); is i/x (none);
        movedir i/w /m/d; is /m/d/@ 1; is i/w (none); movedir /m/d v; is v/@ 1; is /m/d/g (none);
        movedir v n/l/g/h; put f 3; movedir n/l/g/h f/g 1002; mkall y/@ -; put y/@/z 1; movedir n/l/g/h y 1002;
        movedir n/l/g/h # 1002; mode - r; movedir n/l/g/h z 1002; is n/l/g/h/@ 1; mode - d; movedir n y 1002)");
    // Names that count as the same.
    tell(R"(put a 1; move a A; cmp a A; movedir a A; is a 1; is A (none); cmp none NONE; move none NONE;
        copy a A; is A 1; copy a a; is a 1; copy none NONE 1002; copy /m/none /m/NONE; is /m/none (none);
        put /m/x 1; move /m/x /m/X; is /m/x 1; cmp /m/x /m/X; cmp /m/x x 1008; cmp x /m/x 1007)");
    // One entry under two names, two links to one file, no source, another file system, a copy that fails.
    tell(R"(put a 1; move a ./a; move ./a a; mkdir d -; move d/../a a; is a 1; move d d/; move d/. d; is d (dir);
        link a d/a; move a d/a; is a (none); link d/a d/h; move d/a d/h; is d/a (none); move d/h h; symlink h s;
        move s ./s; move s d/../h; is s 1; is h 1; move h s; is s 1; is h (none); mkdir e -; put e/f 2;
        symlink ../e/f d/f; movedir d/. e; is e/f 2; put /m/d/y/x 1; move /m/d/y/x /m/D 1002; is /m/d/y/x 1;
        move /m/d/y/no /m/d/Y 1002; is /m/d/y/x (none); put b 2; move none b 1002; is b (none); put /m/y 2;
        move none /m/y 1002; is /m/y (none); put /m/x 1; move /m/x /m/q/../x; is /m/x 1; move /m/x /m/y; is /m/y 1;
        put b 2; mode - x; move b @; is @ 2; is b (none); move @ none/c 1002; is @ 2; move @ # 1002; is @ 2)");
    // Modes, removing and renaming.
    tell(R"(put @ 1; put b 2; mode - r; remove @ - 1002; rename @ c 1002; move @ b 1002; copy @ b 1002;
        cmp @ b 1002; is @ 1; copy @ /m/x; move @ /m/y; is @ 1; mode - -; is /m/y 1; mode - d; copy @ /m/x 1002;
        cmp @ b 1007; remove @ - 1002; rename @ c 1002; move @ b 1002; rename /m/x c 1002; mode - -; is b 2;
        rename @ c; is c 1; remove c -; remove c - -1; rename c d -1; rename /m/x d 1002; rename /m/x /m/@;
        is /m/@ 1; rename /m/@ /m/x)");
    // Names that are none.
    tell(R"(copy bad b 1002; copy a bad 1002; cmp bad b 1002; cmp a bad 1002; move bad b 1002; move a bad 1002;
        rename bad b 1002 1003; rename a bad 1002 1003; movedir bad b 1002; movedir a bad 1002; walk . bad -1;
        remove bad - 1002 1003; mkdir bad - 1002; mkall bad - 1002; rmdir bad - 1002; walk bad * -1; valid bad -)");
    ASSERT_EQ(put("/m/x", "1"), 0);
    EXPECT_EQ(eko_fileRemoveExW(L"/m/x", MEM), -1); // on disk, where there is none
    EXPECT_EQ(get("/m/x"), "1");
}

// Sizes around a block, and around what is read at once, in every direction, over every kind of old destination.
// Only the blocks that it does not hold are written.
TEST_F(PathTest, path_bytes)
{
    const Text many = readFile("/proc/self/exe");
    for (const uint32 size : {0u, 1u, 1023u, 1024u, 1025u, 4103u, 65536u, 66666u})
        for (const auto& [a, b] : {std::pair("a", "b"), {"a", "/m/y"}, {"/m/x", "b"}, {"/m/x", "/m/y"}}) {
            const Text bytes = many.substr(0, size);
            Text speckled = bytes;
            for (uint32 at = 700; at < size; at += at / 2)
                speckled[at] ^= 1;
            for (const Text& old : {bytes, bytes + "tail", bytes.substr(0, size / 2), Text(size, '!'), speckled}) {
                uint32 missing = 0;
                for (uint32 at = 0; at < size; at += 1024) {
                    const uint32 block = std::min(1024u, size - at);
                    missing += at + block > old.size() || old.compare(at, block, bytes, at, block) != 0;
                }
                ASSERT_EQ(put(a, bytes) + put(b, old), 0);
                EXPECT_EQ(eko_fileCmpEx(a, flagsOf(a), b, flagsOf(b)), old == bytes ? 0 : 1002);
                CallFault writes("pwrite64", 0, 1024); // at a time
                EXPECT_EQ(eko_fileCopyEx(a, flagsOf(a), b, flagsOf(b)), 0);
                EXPECT_EQ(writes.calls(), flagsOf(b) ? 0 : missing) << size;
                EXPECT_EQ(get(b), bytes);
            }
            EXPECT_EQ(eko_fileMoveEx(a, flagsOf(a), b, flagsOf(b)), 0);
            EXPECT_EQ(get(b) + get(a), bytes + "(none)");
        }
}

TEST_F(PathTest, path_faults)
{
    const auto faulty = [](auto op, const char* dest, const char* call, int error, size_t most, uint32 spared) {
        eko_fileRemove("c");
        CallFault fault(call, error, most, spared);
        int32 status = 0;
        logged([&] { status = op("a", dest); });
        return status;
    };
    ASSERT_EQ(put("a", BYTES) + put("b", BYTES), 0);
    for (uint32 k = 0; k < 13; ++k) {
        EXPECT_EQ(faulty(eko_fileCopy, "c", "pread64", EIO, 0, k), k < 1 ? 1002 : 0);
        EXPECT_EQ(faulty(eko_fileCopy, "c", "pwrite64", EIO, 0, k), k < 1 ? 1002 : 0);
        EXPECT_EQ(faulty(eko_fileCopy, "c", "open64", EMFILE, 0, k), k < 2 ? 1002 : 0);
        EXPECT_EQ(faulty(eko_fileCmp, "b", "open64", EMFILE, 0, k), k == 0 ? 1007 : k == 1 ? 1008 : 0);
        EXPECT_EQ(faulty(eko_fileCmp, "b", "pread64", EIO, 0, k), k < 3 ? 1002 : 0); // but behind the second's end
    }
    EXPECT_EQ(faulty(eko_fileCopy, "c", "pread64", 0, 0, 0), 1002); // the source has become shorter
    EXPECT_EQ(faulty(eko_fileCopy, "c", "fstat64", EIO, 0, 0), 1002);
    EXPECT_EQ(faulty(eko_fileCopy, "c", "pread64", 0, 100, 0), 0); // blocks in pieces
    EXPECT_EQ(get("c"), BYTES);
    EXPECT_EQ(faulty(eko_fileCopy, "b", "pread64", 0, 1500, 1), 0); // in the second block of the destination's
    const timeval longAgo[] = {{1, 0}, {1, 0}};
    EXPECT_EQ(utimes("b", longAgo), 0);
    EXPECT_EQ(faulty(eko_fileCopy, "b", "pread64", 0, 1024, 1), 0); // between two, so that none is written
    EXPECT_EQ(eko_fileModTimeStat("b", 0), 1);
    EXPECT_EQ(faulty(eko_fileCmp, "b", "pread64", 0, 1500, 1), 0);
    EXPECT_EQ(faulty(eko_fileCmp, "b", "pread64", 0, 1000, 1), 1002);   // in the first
    EXPECT_EQ(faulty(eko_fileCopy, "c", "pwrite64", 0, 1124, 0), 1002); // a full disk
    EXPECT_EQ(get("c"), BYTES.substr(0, 1124));

    const auto copy = [] { return eko_fileCopy("a", "c"); };
    const auto cmp = [] { return eko_fileCmp("a", "b"); };
    EXPECT_EQ(exhaust(nullptr, copy, FailNthAlloc::ALL_FROM_THERE), "1002 0 ");
    EXPECT_EQ(exhaust(nullptr, cmp, FailNthAlloc::ALL_FROM_THERE), "1003 0 ");
    for (const auto& op : {std::function<int32()>(copy), std::function<int32()>(cmp)}) {
        const FailNthOnTag readAhead(nullptr, 1);
        EXPECT_TRUE(op() == 0 && readAhead.fired() && get("c") == BYTES);
    }
    EXPECT_EQ(exhaust(fileTag(), copy), "1002 1002 1002 1002 0 ");
    EXPECT_EQ(exhaust(fileTag(), cmp), "1007 1007 1008 1008 0 ");
    EXPECT_EQ(exhaust(EKO_THREAD_TAG, [] { return eko_dirCreateAll("d/e/f"); }), "1003 0 ");
    EXPECT_EQ(eko_fileMove("a", "d/e/f/a"), 0);
    EXPECT_EQ(exhaust(EKO_THREAD_TAG, [] { return eko_dirMove("d/e/f", "d/e"); }), "1003 1003 0 ");
    const auto there = [] { return eko_fileMoveEx("d/e/a", 0, "/m/y", MEM); }; // nothing is lost until it succeeds
    EXPECT_TRUE(matches(exhaust(EKO_THREAD_TAG, there), "(1002 )+0 "));
    const auto inside = [] { return eko_fileMoveEx("/m/y", MEM, "/m/d/y", MEM); };
    EXPECT_TRUE(matches(exhaust(mfGlobals()->mf_tag, inside), "(1002 )+0 "));
    EXPECT_EQ(get("/m/d/y") + std::to_string(put("\xFFz", "")), BYTES + "0");
    const auto walk = [] { // over a name that is no UTF-8
        EKO_DIR dir = eko_pathOpenW(L".", L"?z");
        const wchar_t* name = eko_pathNextW(dir, nullptr);
        const int32 status = name && *name == 0xFFFD ? 0 : 1;
        return eko_pathClose(dir), status;
    };
    EXPECT_EQ(exhaust(nullptr, walk), "1 1 1 1 1 1 1 1 0 ");
    EXPECT_EQ(exhaust(nullptr, [] { return eko_fileRemoveW(L"c"); }), "1003 0 ");
}
