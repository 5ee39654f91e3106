// SPDX-License-Identifier: MIT
// Reports, the stacks that redirect them, chunks, and reports when memory, a file or a mutex is what is broken.
#include <set>

#include "ekotext_int.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/syscalls.h"

const std::string STAMP = "\\[[0-3][0-9]-[A-Z][a-z]{2}-2[0-9]{3} [0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\]";

// The text of a log without its stamps, one at the start of each line; all of it when one is not well formed.
static std::string unstamped(const std::string& log)
{
    std::string text, line;
    for (std::istringstream lines(log); std::getline(lines, line); text += line.substr(24) + "\n") {
        if (!matches(line.substr(0, 24), STAMP + "  "))
            return log;
    }
    return text;
}

class LogTest : public DiskTest {
protected:
    void TearDown() override { eko_log_close(), DiskTest::TearDown(); }
    std::string content(const char* name = "log") { return readFile(dir_.file(name)); }

    std::string name_ = dir_.file("log");
};

TEST(LogBare, log_outside_of_start_and_stop)
{
    TempDir dir;
    const std::string name = dir.file("log");
    for (int round = 0; round < 2; ++round) {
        CapturedFd out(1), err(2);
        EXPECT_EQ(eko_log("x=%d", 5), 3);
        EXPECT_EQ(eko_log_err("y=%d", 60), 4);
        EXPECT_EQ(eko_printf("nothing"), 0);
        for (auto open : {eko_log_open, eko_stdout_open, eko_stderr_open})
            EXPECT_EQ(open(name.c_str()), 1002);
        eko_log_close(), eko_stdout_close(), eko_stderr_close(), eko_flush(), eko_flushErr(), eko_log_flush();
        EXPECT_EQ(eko_log_create(name.c_str(), ""), 1002);
        EXPECT_EQ(eko_log_chunk_init(), nullptr);
        EXPECT_EQ(out.take(), "x=5");
        EXPECT_EQ(err.take(), "y=60");
        EXPECT_EQ(eko_init(), 0);
        eko_term();
    }
}

TEST_F(LogTest, log_lines_have_a_stamp)
{
    CapturedFd out(1), err(2);
    EXPECT_EQ(eko_log("no log open\n"), 12);
    EXPECT_EQ(eko_log_open(name_.c_str()), 0);
    EXPECT_EQ(eko_log("ready"), 5); // the line's end is the caller's
    EXPECT_EQ(eko_log(" %s\n", "set"), 5);
    EXPECT_EQ(eko_log_err("go\n"), 3);
    EXPECT_EQ(eko_log("x%f\n", 1e20), 0); // cannot be formatted
    EXPECT_EQ(eko_log("%s", ""), 0);
    EXPECT_TRUE(matches(content(), STAMP + "  ready" + STAMP + "   set\n" + STAMP + "  go\n" + STAMP + "  "));
    EXPECT_EQ(out.take(), "no log open\nready set\n");
    EXPECT_EQ(err.take(), "go\n");
}

TEST_F(LogTest, log_in_the_background)
{
    CapturedFd out(1), err(2);
    ASSERT_EQ(eko_log_open(name_.c_str()), 0);
    ASSERT_EQ(eko_stdout_open(dir_.file("out").c_str()), 0);
    eko_background = 1;
    EXPECT_EQ(eko_log("to stdout\n") + eko_log_err("to stderr\n"), 0);
    EXPECT_EQ(unstamped(content()), "to stdout\nto stderr\n");
    EXPECT_EQ(eko_printf("printed"), 7); // only reports are silenced
    eko_log_flush();
    EXPECT_EQ(content("out"), "");
    eko_background = 0;
    eko_log_flush();
    EXPECT_EQ(content("out"), "printed");
    eko_stdout_close();
    EXPECT_EQ(out.take() + err.take(), "");
}

TEST_F(LogTest, log_create_hides_the_open)
{
    EXPECT_EQ(eko_log_create(dir_.file("none/").c_str(), "log"), 0);
    EXPECT_EQ(eko_log_stack.root, nullptr);
    EXPECT_EQ(eko_log_create(dir_.file("db").c_str(), "server.log"), 0);
    EXPECT_EQ(logged([] { eko_log("x\n"); }), "x\n");
    EXPECT_EQ(unstamped(content("dbserver.log")), "x\n");
}

TEST_F(LogTest, log_texts_and_chunks_of_every_length)
{
    ASSERT_EQ(eko_log_open(name_.c_str()), 0);
    std::string all;
    const std::string console = logged([&] {
        for (int32 length : {1, 1023, 1024, 1025, 2048, 100000}) {
            const std::string line = std::string(size_t(length - 1), char('a' + length % 26)) + "\n";
            EXPECT_EQ(eko_log("%s", line.c_str()), length);
            EKO_LOG_CHUNK chunk = eko_log_chunk_init();
            eko_log_chunk(chunk, "%s, ", "one");
            eko_log_chunk(chunk, nullptr);
            eko_log_chunk(chunk, "x%f", 1e20); // cannot be formatted: left out
            eko_log_chunk_end(chunk, "%d%s", length, line.c_str());
            all += line + "one, " + std::to_string(length) + line;
            eko_log_chunk_end(eko_log_chunk_init(), nullptr); // nothing to write
        }
    });
    EXPECT_EQ(console, all);
    EXPECT_EQ(unstamped(content()), all);
}

TEST_F(LogTest, stack_names_share_a_stream)
{
    const uint32 before = openDescriptors();
    for (const char* name : {"log", "LOG", "log", "other"})
        ASSERT_EQ(eko_log_open(dir_.file(name).c_str()), 0);
    logged([] { eko_log("to the other\n"); });
    for (uint32 left : {1u, 1u, 1u, 0u}) {
        eko_log_close();
        EXPECT_EQ(openDescriptors(), before + left);
        logged([&] { eko_log("left %u\n", left); });
    }
    EXPECT_EQ(unstamped(content()), "left 1\nleft 1\nleft 1\n");
    EXPECT_EQ(access(dir_.file("LOG").c_str(), F_OK), -1);
}

TEST_F(LogTest, stack_redirects_and_silences)
{
    CapturedFd out(1), err(2);
    ASSERT_EQ(eko_stdout_open(dir_.file("out").c_str()), 0);
    EXPECT_EQ(eko_printf("to a %s", "file"), 9);
    EXPECT_EQ(eko_log(" reported"), 9);
    for (const char* none : {static_cast<const char*>(nullptr), ""}) {
        ASSERT_EQ(eko_stdout_open(none), 0);
        EXPECT_EQ(eko_printf("silent") + eko_log("silent") + eko_printfErr("E"), 1);
    }
    printf("by C");
    eko_flush();                             // the C library's, when silenced
    EXPECT_EQ(eko_stdout_open("stdout"), 0); // the one at the bottom
    EXPECT_EQ(eko_printf("+ours"), 5);
    for (int i = 0; i < 3; ++i)
        eko_stdout_close();
    EXPECT_EQ(eko_printf(" again"), 6);
    eko_stdout_close();
    EXPECT_EQ(content("out"), "to a file reported again");
    eko_stdout_close();
    eko_stdout_close();
    EXPECT_EQ(eko_printf("popped once too often"), 0);
    EXPECT_EQ(eko_stdout_open("stdout"), 0);
    EXPECT_EQ(eko_log("+back"), 5);
    eko_flushErr();
    EXPECT_EQ(out.take(), "by C+ours+back");
    EXPECT_EQ(err.take(), "EE");
    acceptUsage(); // the console's formatting buffer
}

TEST_F(LogTest, log_out_of_memory)
{
    const EKO_MEMTAG tags[] = {eko_log_stack.tag, EKO_GLOBAL_TAG, fileTag(), EKO_THREAD_TAG};
    for (const EKO_MEMTAG tag : tags) // a jump is for the callers' memory; all this is the library's own
        eko_resetTag(&exhaustedJump, tag);
    const auto failing = [&](int tag, uint32 n, auto action) {
        return logged([&] {
            FailNthOnTag fault(tags[tag], n, FailNthAlloc::ALL_FROM_THERE);
            action();
        });
    };
    const char* const statuses[] = {"1003 1003 1003 0 ", "1003 1003 0 ", "1003 1003 0 "};
    const auto open = [&] { // entry, info, name; stream, cache; handle, name
        const int32 status = eko_log_open(name_.c_str());
        EXPECT_EQ(status == 0, eko_log_stack.root != nullptr);
        return eko_log_close(), status;
    };
    for (int t = 0; t < 3; ++t)
        EXPECT_EQ(exhaust(tags[t], open, FailNthAlloc::ALL_FROM_THERE), statuses[t]);
    ASSERT_EQ(eko_log_open(name_.c_str()), 0);
    for (int t : {1, 3}) // a short report needs none
        EXPECT_EQ(failing(t, 1, [] { EXPECT_EQ(eko_log("%01022d\n", 7), 1023); }).size(), 1023u);
    const std::tuple<int, const char*, std::function<void()>> cases[] = {
        {3, "ekofile.cpp", [] { EXPECT_EQ(eko_fileOpenW(L"/", 0, 0), nullptr); }},
        {3, "eko_log.cpp", [] { EXPECT_EQ(eko_log("%01024d\n", 7), 0); }},
        {1, "eko_stack.cpp", [] { EXPECT_EQ(eko_printf("%01024d\n", 7), -1); }},
        {1, "eko_stream.cpp", [&] { EXPECT_EQ(eko_fopen(name_.c_str(), "r", EKO_FILE_MODE_UTF8), nullptr); }},
        {1, "eko_log.cpp", [] { eko_log_chunk_end(eko_log_chunk_init(), "there is none"); }},
        {3, "eko_log.cpp", [] { EXPECT_EQ(eko_log_create("no", "name"), 1002); }}};
    for (const auto& [tag, file, call] : cases)
        EXPECT_TRUE(isOneReport(failing(tag, 1, call), file)) << tag;
    eko_log_close();
    const EKO_LOG_CHUNK chunk = eko_log_chunk_init();
    eko_log_chunk(chunk, "kept ");
    EXPECT_TRUE(isOneReport(failing(1, 1, [&] { eko_log_chunk(chunk, "left out"); }), "eko_log.cpp"));
    EXPECT_EQ(logged([&] { eko_log_chunk_end(chunk, "too"); }), "kept too");
}

// A report's own trouble goes straight to standard error, without the locks in use.
TEST_F(LogTest, log_report_inside_a_report)
{
    ASSERT_EQ(eko_log_open(name_.c_str()), 0);
    const EKO_SEM bad = EKO_EVENT_CREATE();
    CapturedFd err(2);
    const std::string console = logged([&] {
        const EKO_SEM good = std::exchange(eko_log_stack.sem, bad);
        EXPECT_EQ(eko_log("outer\n"), 6);
        eko_log_stack.sem = good;
    });
    EXPECT_EQ(console, "outer\n");
    EXPECT_EQ(err.take(), "Invalid mutex\nInvalid mutex\n"); // entering and leaving
    eko_syncDelete(bad);
}

TEST_F(LogTest, log_threads_do_not_interleave)
{
    ASSERT_EQ(eko_log_open(name_.c_str()), 0);
    const auto line = [](uint32 t, int i) {
        return std::string(i % 3 ? 50 : 1500, char('a' + t)) + std::to_string(i);
    };
    const std::string console = logged([&] {
        CallFault slowly("write", 0, SIZE_MAX);
        inThreads(4, [&](uint32 t) {
            for (int i = 0; i < 60; ++i)
                eko_log("%s\n", line(t, i).c_str());
            eko_releaseTLSTag();
        });
    });
    eko_log_close();
    std::multiset<std::string> expected;
    for (int i = 0; i < 240; ++i)
        expected.insert(line(uint32(i) % 4, i / 4));
    for (const std::string& text : {unstamped(content()), console}) {
        std::istringstream lines(text);
        std::multiset<std::string> seen;
        for (std::string one; std::getline(lines, one);)
            seen.insert(one);
        EXPECT_EQ(seen, expected);
    }
    acceptUsage(); // the console's formatting buffer
}
