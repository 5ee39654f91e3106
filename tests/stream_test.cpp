// SPDX-License-Identifier: MIT
// Text streams: marks, characters both ways, the cache at its borders and against a model, lines, faults.
#include "ekotext_int.h"
#include "support/fixture.h"
#include "support/syscalls.h"

using namespace std::string_literals;

constexpr EKO_FILE_MODE UNKNOWN = EKO_FILE_MODE_UNKNOWN, UTF8 = EKO_FILE_MODE_UTF8, UTF16 = EKO_FILE_MODE_UTF16;
const std::string LE = "\xFF\xFE"; // the mark of UTF-16

class StreamTest : public DiskTest {
protected:
    void TearDown() override { closed(), DiskTest::TearDown(); }
    std::string content() { return readFile(name_); }
    std::string closed() { return eko_fclose(std::exchange(s_, nullptr)), content(); }
    void open(const char* mode, EKO_FILE_MODE fmode = UTF8) // in place of the one that was open
    {
        closed();
        s_ = eko_fopen(name_.c_str(), mode, fmode);
    }
    void reading(const std::string& bytes, EKO_FILE_MODE fmode = UTF8, const char* mode = "r")
    {
        closed();
        writeFile(name_, bytes);
        open(mode, fmode);
    }
    std::string rest() // what is left to read, up to the end or 10,000 bytes
    {
        std::string text;
        for (int32 c; text.size() < 10000 && (c = eko_fgetc(s_)) != -1;)
            text += char(c);
        return text;
    }

    std::string name_ = dir_.file("text");
    EKO_FILE_STREAM s_ = nullptr;
};

// Bytes that neither end a line nor a file, in that many units.
static std::string pattern(size_t size, const std::string& behind = "")
{
    std::string text;
    for (size_t i = 0; i < size; ++i)
        text += char('!' + i * 7 % 90) + behind;
    return text;
}

TEST_F(StreamTest, stream_marks)
{
    const std::string ends = LE + pattern(511, "\0"s); // a border of the cache behind them
    // The bytes, the mode given, the one found, the length of the mark, the text.
    const std::tuple<std::string, EKO_FILE_MODE, EKO_FILE_MODE, size_t, std::string> cases[] = {
        {"\xEF\xBB\xBF\x61\x62", UTF16, UTF8, 3, "ab"},
        {"\xEF\xBB\xBF", UNKNOWN, UTF8, 3, ""},
        {"\xEF\xFF\x61\0"s, UTF8, UTF16, 2, "a"},
        {"\xFE\xFF\x61\0"s, UTF8, UTF16, 2, "a"}, // not swapped
        {LE, UNKNOWN, UTF16, 2, ""},
        {"", UTF16, UTF8, 0, ""},
        {"\xEF\xBB\x41", UTF16, UTF8, 0, "\xEF\xBB\x41"},
        {"\xEF\xBB", UTF8, UTF8, 0, "\xEF\xBB"}, // cut ones keep the mode given
        {"\xEF\xBB", UTF16, UTF16, 0, "\xEB\xAF\xAF"},
        {"\xEF", UNKNOWN, UNKNOWN, 0, std::string(10000, 0)},
        {ends.substr(2) + "\xC3", UTF16, UTF8, 0, ends.substr(2) + "\xC3"},
        {ends + "\x3D\xD8\x00\xDE"s, UTF8, UTF16, 2, pattern(511) + "\xF0\x9F\x98\x80"}, // a pair
        {ends + "a\0\x3D\xD8\x00\xDE"s, UTF8, UTF16, 2, pattern(511) + "a\xF0\x9F\x98\x80"},
        {LE + "\x00\xDC\x61\x00"s, UTF8, UTF16, 2, ".a"},                 // a low surrogate alone
        {LE + "\x3D\xD8\x41\0z\0"s, UTF8, UTF16, 2, "\xF0\x9F\x91\x81z"}, // a high one takes what follows
        {LE + "a\0\x3D\xD8"s, UTF8, UTF16, 2, "a"},                       // and nothing at the end
        {LE + "\xE9\x00\xAC\x20\0\0b"s, UTF8, UTF16, 2, "\xC3\xA9\xE2\x82\xAC\0"s}}; // half a unit
    for (const auto& [bytes, given, found, mark, text] : cases) {
        SCOPED_TRACE(testing::PrintToString(bytes));
        reading(bytes, given, nullptr);
        EXPECT_EQ(static_cast<const EKO_FILE_CTX*>(s_)->fmode, found);
        EXPECT_EQ(rest(), text);
        EXPECT_EQ(eko_fseek(s_, 0, 0), 0); // behind the mark
        EXPECT_EQ(static_cast<const EKO_FILE_CTX*>(s_)->fh->off, mark);
    }
}

TEST_F(StreamTest, stream_modes)
{
    const std::string old = pattern(3000);
    const std::pair<const char*, std::string> cases[] = {{"w", "new"},    {"a", old + "new"}, {"a+", old + "new"},
                                                         {"w++x", "new"}, {"rw", "new"},      {"r", old}};
    for (const auto& [mode, after] : cases) { // in which writing "new" into the old file ends with that
        SCOPED_TRACE(mode);
        CapturedFd err(2);
        reading(old, UNKNOWN, mode);
        logged([&] { EXPECT_EQ(eko_fputs("new", s_), 3); });
        EXPECT_EQ(closed(), after);
        EXPECT_EQ(err.take(), mode == "r"s ? "Write failed, errno = 9\n" : "");
        reading("a\0"s, UTF16, mode); // marks are written, but for reading
        EXPECT_EQ(closed(), (after == "new" ? "" : "a\0"s) + (after == old ? "" : LE));
    }
    EXPECT_EQ(eko_fopen_std("stdin"), nullptr);
    EXPECT_DEATH(open("w", EKO_FILE_MODE(3)), "ctx->fmode == EKO_FILE_MODE_UTF8");
}

TEST_F(StreamTest, stream_bad_mode_leaks_its_record)
{
    for (const char* mode : {"x", "rb", "w+t"}) {
        const size_t before = infoOf(EKO_GLOBAL_TAG).bytes.in_use;
        EXPECT_EQ((open(mode), s_), nullptr);
        EXPECT_GE(infoOf(EKO_GLOBAL_TAG).bytes.in_use, before + sizeof(EKO_FILE_CTX)) << mode;
    }
    acceptUsage();
}

TEST_F(StreamTest, stream_reads_signed_characters)
{
    reading("a\xC3\x80\xFF\x7Fgh\xFFij\nkl");
    for (int32 expected : {97, -61, -128, -1, 127})
        EXPECT_EQ(eko_fgetc(s_), expected);
    char buf[10];
    for (const char* expected : {"gh", "ij\n", "kl"})
        EXPECT_STREQ(eko_fgets(buf, 10, s_), expected);
    EXPECT_EQ(eko_fgets(buf, 10, s_), nullptr);
}

TEST_F(StreamTest, stream_push_back)
{
    for (EKO_FILE_MODE mode : {UTF8, UTF16}) {
        reading(mode == UTF8 ? "\xF0\x9F\x98\x80\nab\n" : LE + "\x3D\xD8\x00\xDE\n\0a\0b\0\n\0"s);
        EXPECT_EQ(eko_fgetc(s_), int8(0xF0)); // three more bytes may wait, and take none of the 20 places
        for (int32 i = 1; i <= 20; ++i)
            EXPECT_EQ(eko_fungetc(i * 1000, s_), i * 1000);
        EXPECT_EQ(eko_fungetc(7, s_), -1);
        for (int32 i = 20; i >= 1; --i)
            EXPECT_EQ(eko_fgetc(s_), i * 1000);
        eko_fungetc('!', s_);
        char buf[10];
        for (const char* expected : {"!\x9F\x98\x80\n", "ab\n"})
            EXPECT_STREQ(eko_fgets(buf, 10, s_), expected);
        for (int32 i = 0; i < 2; ++i) {
            EXPECT_EQ(eko_fseek(s_, 0, 0), 0); // forgets it, and what is left of a character
            EXPECT_EQ(eko_fgetc(s_), int8(0xF0));
            eko_fungetc('?', s_);
        }
    }
}

// A character that arrives is reported as failed; bytes before its last one are accepted.
TEST_F(StreamTest, stream_utf16_writing_reports_failure)
{
    open("w", UTF16);
    // A arrives, the next three do not; then U+00E9, U+20AC, with what cannot follow, and U+1F600.
    const std::string bytes = "A\x80\xC1\xF5\xC3\xA9\xE2x\xC3\x82\xAC\xF0\x9F\x98\x80", results = "000010100101110";
    for (size_t i = 0; i < bytes.size(); ++i) // bytes may be signed
        EXPECT_EQ(eko_fputc(i % 2 ? uint8(bytes[i]) : bytes[i], s_), results[i] - '0') << i;
    EXPECT_EQ(eko_fputs("BC", s_), -1);
    EXPECT_EQ(eko_fprintf(s_, "%s", "\xC3\xA9\x44"), -1);
    EXPECT_EQ(closed(), LE + "A\0\xE9\0\xAC\x20\x3D\xD8\x00\xDE\x42\0\xE9\0"s);
}

TEST_F(StreamTest, stream_cache_borders)
{
    for (size_t size : {1u, 1023u, 1024u, 1025u, 2048u, 2049u, 4500u}) {
        const std::string text = pattern(size);
        for (int way = 0; way < 3; ++way) {
            SCOPED_TRACE(testing::Message() << size << " bytes, way " << way);
            open("w");
            int32 put = way == 1 ? eko_fputs(text.c_str(), s_) : way == 2 ? eko_fprintf(s_, "%s", text.c_str()) : 0;
            for (size_t i = 0; way == 0 && i < size; ++i)
                put += eko_fputc(text[i], s_);
            EXPECT_EQ(put, int32(size));
            EXPECT_EQ(content(), text.substr(0, (size - 1) / 1024 * 1024)); // the last 1..1024 are pending
            EXPECT_EQ(eko_fflush(s_), 0);
            EXPECT_EQ(content(), text);
            EXPECT_EQ(eko_fprintf(s_, "%*d", int32(size) + 1, 7), int32(size) + 1); // one more than had room
            open("r");
            EXPECT_EQ(rest(), text + std::string(size, ' ') + "7");
        }
    }
}

// Random reads and seeks that stay within the bytes held, against a string and a position in it.
TEST_F(StreamTest, stream_random_reads_and_seeks)
{
    std::mt19937 random(5);
    std::string text = pattern(1024);
    for (size_t i = 0; i < text.size(); i += 1 + random() % 60)
        text[i] = '\n';
    reading(text + "behind");
    for (size_t step = 0, pos = 0; step < 20000; ++step) {
        char buf[64];
        const size_t most = 1 + random() % 63, line = std::min(most - 1, text.find('\n', pos) - pos) + 1;
        if (random() % 2 && pos + line <= text.size()) {
            ASSERT_STREQ(eko_fgets(buf, int32(most) + 1, s_), text.substr(pos, line).c_str());
            pos += line;
        } else if (random() % 2 && pos < text.size()) {
            ASSERT_EQ(eko_fgetc(s_), text[pos++]);
        } else {
            const int32 to = int32(random() % 1024), bases[] = {0, int32(pos), 1030}, origin = int32(random() % 3);
            ASSERT_EQ(eko_fseek(s_, to - bases[origin], origin), 0);
            pos = size_t(to);
        }
    }
}

// The file itself is never positioned: far away, what comes is what follows the bytes read last.
TEST_F(StreamTest, stream_far_seek_reads_on)
{
    const std::string text = pattern(5000);
    reading(text);
    const std::tuple<int32, int32, int32, char> cases[] = {
        {0, 0, 0, text[0]},           {4000, 0, 0, text[1024]},        {0, 0, 0, text[2048]},
        {0, 2, 0, char(-1)},          {-1, 2, 0, text[3072]}, // the end dropped the bytes held
        {0, -1, 1002, text[3073]},    {0, 3, 1002, text[3074]},        {-1, 0, 1002, text[3075]},
        {-5005, 1, 1002, text[3076]}, {INT32_MIN, 2, 1002, text[3077]}};
    for (const auto& [off, origin, status, next] : cases) {
        EXPECT_EQ(eko_fseek(s_, off, origin), status) << off;
        EXPECT_EQ(eko_fgetc(s_), next) << off;
    }
}

TEST_F(StreamTest, stream_seek_writes_what_is_pending)
{
    open("w");
    eko_fputs("first", s_);
    EXPECT_EQ(eko_fseek(s_, 2, 0), 0);
    EXPECT_EQ(content(), "first");
    EXPECT_EQ(logged([&] { eko_fputs("second", s_); }), "Read failed, errno = 9\n"); // inside the old length
    open("r+");
    EXPECT_EQ(rest(), "firstsecond"); // in sequence, wherever the position was
    eko_fputs("third", s_);           // at the end it has read to
    open("r+");
    EXPECT_EQ(eko_fgetc(s_), 'f');
    eko_fputs("X", s_);
    EXPECT_EQ(eko_fflush(s_), 0);
    EXPECT_EQ(eko_fgetc(s_), -1);              // from behind all that was read; nothing is held any more
    EXPECT_EQ(closed(), "firstsecondthirdfX"); // with what was read in front of it
}

TEST_F(StreamTest, stream_lines)
{
    // The length of a last line without a line end, and that of the buffer before and after.
    const std::tuple<size_t, uint32, uint32> cases[] = {{250, 100, 400}, {250, 0, 400},   {98, 100, 200},
                                                        {99, 100, 200},  {100, 100, 300}, {199, 100, 300},
                                                        {5, 1, 201},     {5, 7, 107}};
    for (const auto& [length, start, end] : cases) {
        SCOPED_TRACE(testing::Message() << length << " from " << start);
        reading(pattern(length));
        uint32 len = start;
        char* buf = static_cast<char*>(EKO_ALLOC(start ? start : 100, EKO_THREAD_TAG));
        EXPECT_STREQ(eko_fGetLine(s_, &buf, &len, EKO_THREAD_TAG), pattern(length).c_str());
        EXPECT_EQ(len, end);
        EXPECT_EQ(eko_fGetLine(s_, &buf, &len, EKO_THREAD_TAG), nullptr);
        reading("\n" + pattern(length) + "\n" + pattern(length * 20) + "\nab\xFF\x63\n\xFF+behind");
        for (const std::string& line : {""s, pattern(length), pattern(length * 20), "abc"s})
            EXPECT_STREQ(eko_fGetLine(s_, &buf, &len, EKO_THREAD_TAG), (line + "\n").c_str()); // without the 0xFF
        EXPECT_EQ(eko_fGetLine(s_, &buf, &len, EKO_THREAD_TAG), nullptr);
        EXPECT_GT(len, length * 20); // as it was
        EKO_FREE(buf, EKO_THREAD_TAG);
    }
    char text[10] = "########";
    reading("\xEF", UNKNOWN); // its mode stays unknown: characters without end, but no line
    EXPECT_EQ(eko_fgets(text, 10, s_), nullptr);
    reading("abcd\n");
    EXPECT_EQ(eko_fgets(text, 0, s_), nullptr);
    EXPECT_STREQ(eko_fgets(text, 1, s_), "");
    EXPECT_STREQ(eko_fgets(text, 4, s_), "abc");
    EXPECT_EQ(text[4], '#');
}

TEST_F(StreamTest, stream_faults_of_the_file)
{
    const std::string text = pattern(5000);
    CapturedFd err(2);
    for (size_t most : {0u, 100u}) { // the disk is full, or full after 100 bytes
        open("w");
        {
            CallFault fault("write", most ? 0 : ENOSPC, most);
            EXPECT_EQ(eko_fputs(text.c_str(), s_), -1);
            EXPECT_EQ(fault.calls(), 1u);
        }
        EXPECT_EQ(content().size(), most);
        EXPECT_EQ(eko_fflush(s_), 0); // what was taken is still there
        EXPECT_EQ(closed(), text.substr(0, 1024));
    }
    EXPECT_EQ(err.take(), "Write failed, errno = 28\n");

    reading(text);
    EXPECT_EQ(logged([&] {
                  CallFault fault("read", EINTR);
                  EXPECT_EQ(rest(), text.substr(0, 1024));
                  EXPECT_EQ(fault.calls(), 1u);
              }),
              "Read failed, errno = 4\n");
    CallFault fault("read", 0, 999); // it can be tried again, and short counts are not the end
    EXPECT_EQ(rest(), text.substr(1024));
}

TEST_F(StreamTest, stream_fflush_reverses_failure)
{
    open("w", UTF16);
    EXPECT_EQ(eko_fflush(s_), 0);
    eko_fputc(0xC3, s_);
    EXPECT_EQ(eko_fflush(s_), -1); // incomplete
    {
        CallFault fault("fsync", EIO);
        EXPECT_EQ(eko_fflush(s_), 0);
        EXPECT_EQ(fault.calls(), 1u);
    }
    eko_fputc(0xA9, s_);
    eko_fputc(0xC3, s_);
    {
        CapturedFd err(2);
        CallFault fault("write", EIO);
        EXPECT_EQ(eko_fflush(s_), 0);
        EXPECT_EQ(eko_fseek(s_, 0, 0), 1002);
        EXPECT_EQ(err.take(), "Write failed, errno = 5\nWrite failed, errno = 5\n");
    }
    EXPECT_EQ(eko_fflush(s_), -1);
    EXPECT_EQ(content(), LE + "\xE9\0"s);
}
