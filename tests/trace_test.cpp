// SPDX-License-Identifier: MIT
// Trace: the ring against a model of its lines, the file, faults, many threads, start and stop.
// LINK: --wrap=open64 --wrap=eko_freeMem
#include "support/faults.h"
#include "support/fixture.h"

static std::map<const void*, int> alive; // numbers of the lines in memory, by where they are
static std::vector<int> freed;
static const char* refused = "?"; // part of the names that cannot be opened
EKO_WRAP(void, eko_freeMem, (const void* ptr, EKO_MEMTAG tt, const char* file, uint32 line))
{
    if (const auto found = alive.find(ptr); found != alive.end())
        freed.push_back(found->second), alive.erase(found);
    __real_eko_freeMem(ptr, tt, file, line);
}
EKO_ANSWER(int, open64, (const char* path, int flags, mode_t mode),
           strstr(path, refused) ? (errno = EACCES, -1) : __real_open64(path, flags, mode))

struct TraceTest : DiskTest {
    void SetUp() override { DiskTest::SetUp(), setenv("TMPDIR", dir_.path().c_str(), 1), restart(); }
    void restart() { eko_term(), eko_init(), eko_trace(nullptr), acceptUsage(); } // closes the trace file
    static std::string id() // the sign goes through all 64 bits
    {
        return "0x" + (std::ostringstream() << std::hex << int64(intptr_t(pthread_self()))).str() + ": ";
    }
    const std::string file_ = "/tov_trace_" + std::to_string(getpid()) + ".log", name_ = dir_.path() + file_;
    const std::string opened_ = "Tracing into file '" + name_ + "'\n";
};

// From the 1001st on each line frees the one 999 in front of it, to which entry 1 points; the first is never freed.
TEST_F(TraceTest, trace_ring_frees_the_next_slot)
{
    const char* const* const slots = *eko_trace_list;
    EXPECT_EQ(std::count(slots, slots + 2000, nullptr), 2000);
    for (int n = 0; n++ < 2500; freed.clear()) {
        eko_trace("%s %d", "line", n), alive[**eko_trace_list] = n;
        EXPECT_EQ(freed, n > 1000 ? std::vector{n - 999} : std::vector<int>{});
        ASSERT_EQ(*eko_trace_list, slots + (n - 1) % 1000);
        for (int e = 0; e < (n % 500 < 2 ? 1000 : 1); ++e) {
            const int is = e ? n - 1000 + e : n; // the number of the line there
            const char* const entry = (*eko_trace_list)[e];
            EXPECT_TRUE(slots[e] == slots[e + 1000] && !entry == (is < 1)) << n << " " << e;
            EXPECT_TRUE(is < 1 || (n > 1000 && e == 1) || entry == id() + "line " + std::to_string(is)) << n;
        }
    }
    eko_term(), eko_trace("x"), eko_traceFile("x");
    EXPECT_EQ(eko_trace_list, nullptr);
    eko_init(), restart();
}

TEST_F(TraceTest, trace_file_is_opened_and_said_once_when_it_can_be)
{
    const std::string text(5000, 'x');
    EXPECT_EQ(logged([] { eko_rdonly(), eko_traceFile("x"), eko_readonly = 0; }), "");
    EXPECT_EQ(logged([] { eko_nodisk(), eko_traceFile("x"), eko_diskless = 0; }), "");
    EXPECT_EQ(logged([] { refused = "tov_trace", errno = 7, eko_traceFile("%f", 1e30), eko_traceFile("x"); }), "");
    EXPECT_TRUE(errno == 7 && access(name_.c_str(), F_OK) == -1 && chdir(dir_.path().c_str()) == 0);
    refused = "?", writeFile(name_, std::string(6000, 'o')); // longer than what comes instead
    EXPECT_EQ(logged([&] { eko_traceFile("%d%% %s\n", 5, text.c_str()), eko_traceFile("x"); }), opened_);
    EXPECT_EQ(readFile(name_), id() + "5% " + text + "\n" + id() + "x"); // at once, and without a mark
    restart(), refused = "tov_dirtest";                                  // no directory will do
    EXPECT_EQ(logged([] { eko_traceFile("y"); }), "Tracing into file '." + file_ + "'\n");
    EXPECT_TRUE(readFile(name_) == id() + "y" && infoOf(EKO_THREAD_TAG).bytes.in_use == 0);
    restart();
}

// Each request fails in turn: a line is lost, that is said once, without a jump, and nothing is left on the tags.
TEST_F(TraceTest, trace_without_memory)
{
    void* record = nullptr;
    eko_globalGet("ekotrace", 1, nullptr, nullptr, &record);
    const EKO_MEMTAG ofLines = static_cast<EKO_MEMTAG*>(record)[1];
    const EKO_MEMTAG tags[] = {EKO_THREAD_TAG, ofLines, EKO_GLOBAL_TAG, fileTag()};
    const char* const moves[] = {"0 1 1 1 1 ", "0 1 1 ", "1 1 1 ", "1 1 1 1 1 "}; // how far the list goes
    const auto trace = [] {
        const char* const* const before = *eko_trace_list;
        return eko_trace("x"), eko_traceFile("x"), int32(*eko_trace_list - before);
    };
    refused = "tov_trace", eko_trace("x");
    for (int i = 0; i < 4; eko_resetTag(nullptr, tags[i++]))
        EXPECT_EQ((eko_resetTag(&exhaustedJump, tags[i]), exhaust(tags[i], trace)), moves[i]) << i;
    EXPECT_EQ(infoOf(ofLines).bytes.in_use, 480u);
}

// Each thread's lines are whole and in order, in the file and then in memory, where the main thread's last stay.
TEST_F(TraceTest, trace_threads)
{
    const auto trace = [](int first, int end) {
        for (int n = first; n < end; ++n)
            (first == 0 && n < 13 ? eko_traceFile : eko_trace)("%s %d\n", id().c_str(), n);
    };
    trace(-997, 3);
    const std::string said = logged([=] { inThreads(4, [=](uint32) { trace(0, 262), eko_releaseTLSTag(); }); });
    std::string text = readFile(name_), stamp, self;
    for (int e = 2; e <= 1000; ++e)
        text += (*eko_trace_list)[e % 1000];
    std::istringstream in(text);
    std::map<std::string, int> seen;
    for (int n; in >> stamp >> self >> n; ++seen[stamp])
        EXPECT_TRUE(stamp == self && n == seen[stamp]) << stamp << n;
    EXPECT_TRUE(said == opened_ && seen.size() == 5) << said;
    restart();
}
