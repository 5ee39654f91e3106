// Text streams: marks, characters both ways, the cache at its borders and against a model, lines, faults.
//
// LINK: --wrap=malloc --wrap=calloc --wrap=realloc
// LINK: --wrap=open64 --wrap=read --wrap=write --wrap=pread64 --wrap=pwrite64 --wrap=lseek64 --wrap=fsync
// LINK: --wrap=ftruncate64 --wrap=fstat64 --wrap=stat64 --wrap=flock --wrap=mmap64 --wrap=localtime_r
// LINK: --wrap=eko_syncCreate_check
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <random>
#include <vector>

#include "ekotext_int.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/syscalls.h"

using namespace std::string_literals;

namespace {

constexpr EKO_FILE_MODE UNKNOWN = EKO_FILE_MODE_UNKNOWN, UTF8 = EKO_FILE_MODE_UTF8, UTF16 = EKO_FILE_MODE_UTF16;

const std::string LE = "\xFF\xFE"; // the mark of UTF-16

class StreamTest : public DiskTest {
protected:
    EKO_FILE_STREAM reading(const std::string& bytes, EKO_FILE_MODE fmode = UTF8, const char* mode = "r")
    {
        writeFile(name_, bytes);
        return eko_fopen(name_.c_str(), mode, fmode);
    }
    EKO_FILE_STREAM writing(EKO_FILE_MODE fmode = UTF8) { return eko_fopen(name_.c_str(), "w", fmode); }
    std::string content() { return readFile(name_); }

    std::string name_ = dir_.file("text");
};

// What is left to read, up to the end or 10,000 bytes.
std::string rest(EKO_FILE_STREAM s)
{
    std::string text;
    for (int32 c; text.size() < 10000 && (c = eko_fgetc(s)) != -1;)
        text += char(c);
    return text;
}

// Bytes that neither end a line nor a file.
std::string pattern(size_t size)
{
    std::string text(size, 0);
    for (size_t i = 0; i < size; ++i)
        text[i] = char('!' + i * 7 % 90);
    return text;
}

const EKO_FILE_CTX* contextOf(EKO_FILE_STREAM s)
{
    return static_cast<const EKO_FILE_CTX*>(s);
}

// ---- opening ----------------------------------------------------------------------------------------------

TEST_F(StreamTest, stream_marks)
{
    struct {
        std::string bytes;
        EKO_FILE_MODE given;
        EKO_FILE_MODE found;
        uint32 mark;
        std::string text;
    } const cases[] = {{"\xEF\xBB\xBF\x61\x62\x63", UTF16, UTF8, 3, "abc"},
                       {"\xEF\xBB\xBF", UNKNOWN, UTF8, 3, ""},
                       {"\xEF\xFF\x61\0"s, UTF8, UTF16, 2, "a"},
                       {LE + "a\0"s, UTF8, UTF16, 2, "a"},
                       {"\xFE\xFF\x61\0"s, UTF8, UTF16, 2, "a"}, // not swapped
                       {"\xFF\xFE", UNKNOWN, UTF16, 2, ""},
                       {"", UTF16, UTF8, 0, ""},
                       {"A", UTF16, UTF8, 0, "A"},
                       {"\xEF\xBB\x41", UTF16, UTF8, 0, "\xEF\xBB\x41"},
                       {"\xEF\x41", UTF16, UTF8, 0, "\xEF\x41"},
                       {"\xFE\xFE\xFE", UTF16, UTF8, 0, "\xFE\xFE\xFE"},
                       {"\xEF\xBB", UTF8, UTF8, 0, "\xEF\xBB"}, // cut ones keep the mode given
                       {"\xEF", UTF8, UTF8, 0, "\xEF"},
                       {"\xFE", UTF8, UTF8, 0, "\xFE"},
                       {"\xEF\xBB", UTF16, UTF16, 0, "\xEB\xAF\xAF"},
                       {"\xFF", UTF16, UTF16, 0, ""},
                       {"\xEF", UNKNOWN, UNKNOWN, 0, std::string(10000, 0)}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.bytes));
        EKO_FILE_STREAM s = reading(c.bytes, c.given, nullptr);
        EXPECT_EQ(contextOf(s)->fmode, c.found);
        EXPECT_EQ(contextOf(s)->bom_off, c.mark);
        EXPECT_EQ(rest(s), c.text);
        eko_fclose(s);
    }
    EKO_FILE_STREAM s = reading("\xEF\xBB\xBF\x61\x62\x63");
    EXPECT_EQ(eko_fgetc(s), 'a');
    EXPECT_EQ(eko_fseek(s, 0, 0), 0);
    EXPECT_EQ(rest(s), "abc");
    eko_fclose(s);
}

// Detection reads no further than it must, and loses nothing of what came piecemeal.
TEST_F(StreamTest, stream_marks_in_pipes)
{
    for (const std::string& head : {"A"s, "\xEF\x41"s, "\xEF\xBB\x41"s}) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        for (size_t i = 0; i < head.size(); ++i)
            ASSERT_EQ(write(ends[1], &head[i], 1), 1);
        CallFault byteByByte("read", 0, 1);
        EKO_FILE_STREAM s = eko_fopen(("/dev/fd/" + std::to_string(ends[0])).c_str(), "r", UNKNOWN);
        EXPECT_EQ(byteByByte.calls(), head.size());
        for (char c : head)
            EXPECT_EQ(eko_fgetc(s), c);
        ASSERT_EQ(write(ends[1], "later", 5), 5);
        EXPECT_EQ(eko_fgetc(s), 'l');
        close(ends[1]);
        EXPECT_EQ(rest(s), "ater");
        eko_fclose(s);
        close(ends[0]);
    }
}

TEST_F(StreamTest, stream_modes)
{
    struct {
        const char* mode;
        std::string after; // writing "new" into a file of "long text"
    } const cases[] = {{"w", "new"},           {"a", "long textnew"}, {"w+", "new"},
                       {"a+", "long textnew"}, {"w++x", "new"},       {"rw", "new"},
                       {"r", "long text"},     {"r+", "long textnew"}}; // lands behind what was read into the cache
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode);
        CapturedFd err(2);
        EKO_FILE_STREAM s = reading("long text", UNKNOWN, c.mode);
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(contextOf(s)->fmode, UTF8);
        EXPECT_EQ(eko_fputs("new", s), 3);
        eko_fclose(s);
        EXPECT_EQ(content(), c.after);
        EXPECT_EQ(err.take(), c.mode == "r"s ? "Write failed, errno = 9\n" : "");
    }
    for (const char* mode : {"w", "a", "r+"}) { // marks: written by w and a, not by r+
        eko_fclose(reading(LE + "a\0"s, UTF16, mode));
        EXPECT_EQ(content(), *mode == 'w' ? "\xFF\xFE"s : *mode == 'a' ? LE + "a\0\xFF\xFE"s : LE + "a\0"s);
    }
    EXPECT_EQ(eko_fopen(dir_.file("none").c_str(), "r", UTF8), nullptr);
    EXPECT_EQ(eko_fopen(nullptr, "r", UTF8), nullptr);
    EXPECT_EQ(eko_fopenEx(name_.c_str(), "w", UTF8, EKO_FILE_INMEMORY), nullptr);
    EXPECT_EQ(eko_fopen_std("stdin"), nullptr);
    eko_fclose(nullptr);
    EXPECT_DEATH(eko_fopen(name_.c_str(), "w", EKO_FILE_MODE(3)), "ctx->fmode == EKO_FILE_MODE_UTF8");
}

TEST_F(StreamTest, stream_bad_mode_leaks_its_record)
{
    for (const char* mode : {"x", "rb", "w+t", "R"}) {
        const size_t before = currentUsage().globalBytes;
        EXPECT_EQ(eko_fopen(name_.c_str(), mode, UTF8), nullptr);
        EXPECT_GE(currentUsage().globalBytes, before + sizeof(EKO_FILE_CTX)) << mode;
    }
    EXPECT_EQ(access(name_.c_str(), F_OK), -1);
    acceptUsage();
}

TEST_F(StreamTest, stream_out_of_memory)
{
    for (uint32 n = 1; n <= 2; ++n) { // the stream and its cache
        FailNthOnTag fault(EKO_GLOBAL_TAG, n);
        EXPECT_TRUE(isOneReport(logged([&] { EXPECT_EQ(writing(), nullptr); }), "eko_stream.cpp"));
    }
    EKO_FILE_STREAM s = writing();
    for (const char* text : {"short", "longer than it was"}) { // a first buffer, and one extended
        {
            FailNthOnTag fault(EKO_GLOBAL_TAG, 1);
            EXPECT_TRUE(
                isOneReport(logged([&] { EXPECT_EQ(eko_fprintf(s, "<%s>", text), -1); }), "eko_stream.cpp"));
        }
        EXPECT_EQ(eko_fprintf(s, "<%s>", text), int32(strlen(text) + 2));
    }
    eko_fclose(s);
    EXPECT_EQ(content(), "<short><longer than it was>");
}

// ---- characters -------------------------------------------------------------------------------------------

TEST_F(StreamTest, stream_reads_signed_characters)
{
    EKO_FILE_STREAM s = reading("a\xC3\x80\xFF\x7F");
    for (int32 expected : {97, -61, -128, -1, 127, -1})
        EXPECT_EQ(eko_fgetc(s), expected);
    eko_fclose(s);

    char buf[10];
    s = reading("ab\xFF\x63\x64\nef");
    for (const char* expected : {"ab", "cd\n", "ef"})
        EXPECT_STREQ(eko_fgets(buf, 10, s), expected);
    EXPECT_EQ(eko_fgets(buf, 10, s), nullptr);
    eko_fclose(s);
    EXPECT_EQ(eko_fgetc(nullptr), -1);
}

TEST_F(StreamTest, stream_utf16_reading)
{
    struct {
        std::string units;
        std::string text;
    } const cases[] = {{"\x3D\xD8\x00\xDE"s, "\xF0\x9F\x98\x80"},             // a pair
                       {"\xFF\xDB\xFF\xDF"s, "\xF4\x8F\xBF\xBF"},             // the last one
                       {"\x00\xDC\x61\x00"s, ".a"},                           // a low surrogate alone
                       {"\x3D\xD8\x41\x00\x62\x00"s, "\xF0\x9F\x91\x81\x62"}, // a high one takes what follows
                       {"\x61\x00\x3D\xD8"s, "a"},                            // and nothing at the end
                       {"\xE9\x00\xAC\x20\x00\x00\x61\x00"s, "\xC3\xA9\xE2\x82\xAC\0a"s},
                       {"\x61\x00\x62"s, "a"}}; // half a unit
    for (const auto& c : cases) {
        for (size_t before : {0u, 510u, 511u}) { // units in front: borders of the cache fall between and into pairs
            std::string bytes = "\xFF\xFE";
            for (size_t i = 0; i < before; ++i)
                bytes += "x\0"s;
            EKO_FILE_STREAM s = reading(bytes + c.units);
            EXPECT_EQ(rest(s), std::string(before, 'x') + c.text) << testing::PrintToString(c.units) << before;
            eko_fclose(s);
        }
    }
    EKO_FILE_STREAM s = reading(LE + "a\0\n\0\xAC\x20\n\0"s);
    char buf[10];
    for (const char* expected : {"a\n", "\xE2\x82\xAC\n"})
        EXPECT_STREQ(eko_fgets(buf, 10, s), expected);
    eko_fclose(s);
}

// A character that arrives is reported as failed; bytes before its last one are accepted.
TEST_F(StreamTest, stream_utf16_writing_reports_failure)
{
    EKO_FILE_STREAM s = writing(UTF16);
    struct {
        int32 byte;
        int32 result;
    } const bytes[] = {{'A', 0},  {0x80, 0}, {0xC1, 0}, {0xF5, 0},  {0xFF, 0}, // A arrives, the others do not
                       {0xC3, 1}, {0xA9, 0},                                   // U+00E9
                       {0xE2, 1}, {'x', 0},  {0xC3, 0}, {0x82, 1},  {0xAC, 0}, // U+20AC, and what cannot follow
                       {0xF0, 1}, {0x9F, 1}, {0x98, 1}, {-0x80, 0},            // U+1F600; bytes may be signed
                       {0xEF, 1}, {0xBF, 1}, {0xBF, 0}};                       // U+FFFF
    for (const auto& b : bytes)
        EXPECT_EQ(eko_fputc(b.byte, s), b.result) << b.byte;
    EXPECT_EQ(eko_fputs("BC", s), -1);
    EXPECT_EQ(eko_fprintf(s, "%s", "\xC3\xA9\x44"), -1);
    EXPECT_EQ(eko_fputs("", s), 0);
    eko_fclose(s);
    EXPECT_EQ(content(), LE + "A\0\xE9\0\xAC\x20\x3D\xD8\x00\xDE\xFF\xFF\x42\0\xE9\0"s);
}

TEST_F(StreamTest, stream_push_back)
{
    EKO_FILE_STREAM s = reading(LE + "\x3D\xD8\x00\xDE\x61\x00"s);
    EXPECT_EQ(eko_fgetc(s), int8(0xF0)); // three more bytes wait, and take none of the 20 places
    for (int32 i = 1; i <= 20; ++i)
        EXPECT_EQ(eko_fungetc(i * 1000, s), i * 1000);
    EXPECT_EQ(eko_fungetc(7, s), -1);
    for (int32 i = 20; i >= 1; --i)
        EXPECT_EQ(eko_fgetc(s), i * 1000);
    EXPECT_EQ(eko_fgetc(s), int8(0x9F));
    eko_fungetc('!', s);
    char buf[10];
    EXPECT_STREQ(eko_fgets(buf, 10, s), "!\x98\x80\x61");
    eko_fclose(s);
    s = eko_fopen(name_.c_str(), "r", UTF8);
    for (int32 i = 0; i < 2; ++i) {
        EXPECT_EQ(eko_fgetc(s), int8(0xF0));
        eko_fungetc('?', s);
        EXPECT_EQ(eko_fseek(s, 0, 0), 0); // forgets it, and what is left of the character
    }
    eko_fclose(s);
    s = reading("text\nmore");
    eko_fungetc('\n', s);
    eko_fungetc('#', s);
    EXPECT_STREQ(eko_fgets(buf, 10, s), "#\n");
    EXPECT_STREQ(eko_fgets(buf, 10, s), "text\n");
    eko_fungetc('?', s);
    EXPECT_EQ(eko_fseek(s, 0, 0), 0);
    EXPECT_EQ(eko_fgetc(s), 't');
    eko_fclose(s);
    EXPECT_EQ(eko_fungetc('a', nullptr), -1);
}

// ---- the cache --------------------------------------------------------------------------------------------

TEST_F(StreamTest, stream_cache_borders)
{
    for (size_t size : {1u, 1023u, 1024u, 1025u, 2047u, 2048u, 2049u, 5000u}) {
        const std::string text = pattern(size);
        for (int way = 0; way < 3; ++way) {
            SCOPED_TRACE(testing::Message() << size << " bytes, way " << way);
            EKO_FILE_STREAM s = writing();
            if (way < 2) {
                EXPECT_EQ(way == 0 ? eko_fputs(text.c_str(), s) : eko_fprintf(s, "%s", text.c_str()), int32(size));
            }
            for (size_t i = 0; way == 2 && i < size; ++i)
                EXPECT_EQ(eko_fputc(text[i], s), 1);
            EXPECT_EQ(content(), text.substr(0, (size - 1) / 1024 * 1024)); // the last 1..1024 are pending
            EXPECT_EQ(eko_fflush(s), 0);
            EXPECT_EQ(content(), text);
            EXPECT_EQ(eko_fputc('.', s), 1);
            eko_fclose(s);
            EXPECT_EQ(content(), text + ".");
        }
        EKO_FILE_STREAM s = eko_fopen(name_.c_str(), "r", UTF8);
        EXPECT_EQ(rest(s), text + ".");
        EXPECT_EQ(eko_fgetc(s), -1);
        eko_fclose(s);
    }
}

// Random reads and seeks that stay within the bytes held, against a string and a position in it.
TEST_F(StreamTest, stream_random_reads_and_seeks)
{
    std::mt19937 random(5);
    std::string text = pattern(1024);
    for (size_t i = 0; i < text.size(); i += 1 + random() % 60)
        text[i] = '\n';
    EKO_FILE_STREAM s = reading(text + "behind");
    std::string back; // pushed back, last one first to be read
    size_t pos = 0;
    for (int step = 0; step < 20000; ++step) {
        const size_t room = text.size() - pos;
        char buf[64];
        switch (random() % 6) {
        case 0:
            if (back.empty() && room == 0)
                break;
            EXPECT_EQ(eko_fgetc(s), back.empty() ? text[pos++] : back.back());
            if (!back.empty())
                back.pop_back();
            break;
        case 1: {
            const size_t n = 2 + random() % 62;
            if (n - 1 > back.size() + room)
                break;
            const std::string next = std::string(back.rbegin(), back.rend()) + text.substr(pos, 64);
            const std::string expected = next.substr(0, std::min(n - 2, next.find('\n')) + 1);
            ASSERT_STREQ(eko_fgets(buf, int32(n), s), expected.c_str());
            pos += expected.size() - std::min(expected.size(), back.size());
            back.resize(back.size() - std::min(expected.size(), back.size()));
            break;
        }
        case 2:
            if (back.size() < 20) {
                back += char('a' + random() % 26);
                EXPECT_EQ(eko_fungetc(back.back(), s), back.back());
            }
            break;
        default: {
            const size_t target = random() % text.size();
            const int32 origin = int32(random() % 3);
            const size_t base = origin == 0 ? 0 : origin == 1 ? pos : text.size() + 6;
            ASSERT_EQ(eko_fseek(s, int32(target) - int32(base), origin), 0);
            pos = target;
            back.clear();
        }
        }
    }
    eko_fclose(s);
}

// The file itself is never positioned: far away, what comes is what follows the bytes read last.
TEST_F(StreamTest, stream_far_seek_reads_on)
{
    const std::string text = pattern(5000);
    EKO_FILE_STREAM s = reading(text);
    EXPECT_EQ(eko_fgetc(s), text[0]);
    EXPECT_EQ(eko_fseek(s, 4000, 0), 0);
    EXPECT_EQ(eko_fgetc(s), text[1024]);
    EXPECT_EQ(eko_fseek(s, 0, 0), 0);
    EXPECT_EQ(eko_fgetc(s), text[2048]);
    EXPECT_EQ(eko_fseek(s, 0, 2), 0);
    EXPECT_EQ(eko_fgetc(s), -1);
    EXPECT_EQ(eko_fseek(s, -1, 2), 0); // the end dropped the bytes held
    EXPECT_EQ(eko_fgetc(s), text[3072]);

    EXPECT_EQ(eko_fseek(s, 5, 0), 0);
    for (int32 origin : {-1, 3})
        EXPECT_EQ(eko_fseek(s, 0, origin), 1002);
    EXPECT_EQ(eko_fseek(s, -1, 0), 1002);
    EXPECT_EQ(eko_fseek(s, -6, 1), 1002);
    EXPECT_EQ(eko_fseek(s, INT32_MIN, 2), 1002);
    EXPECT_EQ(contextOf(s)->fh->off, 5u);
    EXPECT_EQ(eko_fseek(nullptr, 0, 0), 1002);
    eko_fclose(s);
}

TEST_F(StreamTest, stream_seek_writes_what_is_pending)
{
    EKO_FILE_STREAM s = writing();
    eko_fputs("first", s);
    EXPECT_EQ(eko_fseek(s, 2, 0), 0);
    EXPECT_EQ(content(), "first");
    EXPECT_EQ(logged([&] { eko_fputs("second", s); }), "Read failed, errno = 9\n"); // inside the old length
    CapturedFd err(2);
    {
        CallFault fault("write", EIO);
        EXPECT_EQ(eko_fseek(s, 0, 0), 1002);
    }
    eko_fclose(s);
    EXPECT_EQ(content(), "firstsecond"); // in sequence, wherever the position was
    s = eko_fopen(name_.c_str(), "r+", UTF8);
    EXPECT_EQ(rest(s), "firstsecond");
    eko_fputs("third", s); // at the end it has read to
    eko_fclose(s);
    EXPECT_EQ(content(), "firstsecondthird");
    s = eko_fopen(name_.c_str(), "r+", UTF8);
    EXPECT_EQ(eko_fgetc(s), 'f');
    eko_fputs("X", s);
    EXPECT_EQ(eko_fflush(s), 0);
    EXPECT_EQ(eko_fgetc(s), -1); // from behind all that was read; nothing is held any more
    eko_fclose(s);
    EXPECT_EQ(content(), "firstsecondthirdfX"); // with what was read in front of it
}

// However long the file is that stands behind one, and although it could be read.
TEST_F(StreamTest, stream_standard_streams_are_only_written)
{
    const std::string old = pattern(3000);
    writeFile(name_, old);
    const int saved = dup(1), fd = open(name_.c_str(), O_RDWR);
    dup2(fd, 1);
    EKO_FILE_STREAM s = eko_fopen_std("stdout");
    EXPECT_EQ(eko_fputs(std::string(2000, 'n').c_str(), s), 2000);
    eko_fclose(s);
    EXPECT_EQ(write(1, ".", 1), 1); // still open
    dup2(saved, 1);
    close(saved);
    close(fd);
    EXPECT_EQ(content(), std::string(2000, 'n') + "." + old.substr(2001));
}

// Refills inside the old length fail, and say so; the text arrives.
TEST_F(StreamTest, stream_appends_to_a_long_file)
{
    const std::string old = pattern(3000), text = pattern(2000);
    EKO_FILE_STREAM s = reading(old, UTF8, "a");
    EXPECT_EQ(logged([&] { EXPECT_EQ(eko_fputs(text.c_str(), s), 2000); }), "Read failed, errno = 9\n");
    eko_fclose(s);
    EXPECT_EQ(content(), old + text);
}

// ---- lines ------------------------------------------------------------------------------------------------

TEST_F(StreamTest, stream_fgets)
{
    char buf[8];
    EKO_FILE_STREAM s = reading("abc\n\nlast");
    EXPECT_EQ(eko_fgets(nullptr, 8, s), nullptr);
    EXPECT_EQ(eko_fgets(buf, 0, s), nullptr);
    EXPECT_EQ(eko_fgets(buf, 8, nullptr), nullptr);
    EXPECT_STREQ(eko_fgets(buf, 1, s), "");
    memset(buf, '#', sizeof(buf));
    EXPECT_STREQ(eko_fgets(buf, 4, s), "abc");
    EXPECT_EQ(buf[4], '#');
    for (const char* expected : {"\n", "\n", "last"})
        EXPECT_STREQ(eko_fgets(buf, 5, s), expected);
    EXPECT_EQ(eko_fgets(buf, 5, s), nullptr);
    eko_fclose(s);
}

TEST_F(StreamTest, stream_lines_of_every_length)
{
    std::vector<std::string> lines;
    std::string all;
    for (size_t length :
         {0u, 1u, 97u, 98u, 99u, 100u, 101u, 198u, 199u, 200u, 201u, 1022u, 1023u, 1024u, 1025u, 3000u, 0u, 5u}) {
        lines.push_back(pattern(length) + "\n");
        all += lines.back();
    }
    EKO_FILE_STREAM s = reading(all);
    char* buf = nullptr;
    uint32 len = 0;
    for (const std::string& line : lines)
        ASSERT_STREQ(eko_fGetLine(s, &buf, &len, EKO_THREAD_TAG), line.c_str());
    EXPECT_EQ(eko_fGetLine(s, &buf, &len, EKO_THREAD_TAG), nullptr);
    EXPECT_EQ(len, 3100u);
    EKO_FREE(buf, EKO_THREAD_TAG);
    eko_fclose(s);

    struct {
        size_t length; // of a last line without a line end
        uint32 start, end;
    } const cases[] = {{250, 100, 400}, {250, 0, 400},   {98, 100, 200}, {99, 100, 200},
                       {100, 100, 300}, {199, 100, 300}, {5, 1, 201},    {5, 7, 107}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.length << " from " << c.start);
        s = reading(pattern(c.length));
        len = c.start;
        buf = static_cast<char*>(EKO_ALLOC(c.start ? c.start : 100, EKO_THREAD_TAG));
        EXPECT_STREQ(eko_fGetLine(s, &buf, &len, EKO_THREAD_TAG), pattern(c.length).c_str());
        EXPECT_EQ(len, c.end);
        EKO_FREE(buf, EKO_THREAD_TAG);
        eko_fclose(s);
    }
}

TEST_F(StreamTest, stream_lines_end)
{
    char* buf = nullptr;
    uint32 len = 0;
    EKO_FILE_STREAM s = reading("\xEF", UNKNOWN); // its mode stays unknown
    EXPECT_EQ(eko_fgetc(s), 0);
    EXPECT_EQ(eko_fGetLine(s, &buf, &len, EKO_THREAD_TAG), nullptr);
    char text[10];
    EXPECT_EQ(eko_fgets(text, 10, s), nullptr);
    EXPECT_EQ(eko_fGetLine(nullptr, &buf, &len, EKO_THREAD_TAG), nullptr);
    EXPECT_EQ(eko_fGetLine(s, nullptr, &len, EKO_THREAD_TAG), nullptr);
    EXPECT_EQ(eko_fGetLine(s, &buf, nullptr, EKO_THREAD_TAG), nullptr);
    eko_fclose(s);
    s = reading("ab\xFF\x63\x64\n\xFF+behind");
    EXPECT_STREQ(eko_fGetLine(s, &buf, &len, EKO_THREAD_TAG), "abcd\n"); // within a line it is left out
    EXPECT_EQ(eko_fGetLine(s, &buf, &len, EKO_THREAD_TAG), nullptr);
    EKO_FREE(buf, EKO_THREAD_TAG);
    eko_fclose(s);
}

TEST_F(StreamTest, stream_line_out_of_memory)
{
    EKO_MEMTAG tag = EKO_TAG_CREATE(LIST_ALLOCATOR);
    for (uint32 n = 1; n <= 4; ++n) { // the block, and growing it to 200, 300, 400
        EKO_FILE_STREAM s = reading(pattern(250));
        char* buf = nullptr;
        uint32 len = 0;
        const std::string said = logged([&] {
            FailNthOnTag fault(tag, n);
            EXPECT_EQ(eko_fGetLine(s, &buf, &len, tag), nullptr);
        });
        EXPECT_TRUE(isOneReport(said, "eko_stream.cpp"));
        EXPECT_EQ(len, (n - 1) * 100);
        if (buf) {
            EXPECT_STREQ(buf, pattern(std::min(n * 100 - 101, 250u)).c_str());
            memset(buf, '#', len);
        }
        EKO_FREE(buf, tag);
        eko_fclose(s);
    }
    EKO_TAG_DESTROY(tag);
}

// ---- faults -----------------------------------------------------------------------------------------------

TEST_F(StreamTest, stream_failed_write_ends)
{
    const std::string text = pattern(5000);
    CapturedFd err(2);
    for (size_t most : {0u, 100u}) { // the disk is full, or full after 100 bytes
        EKO_FILE_STREAM s = writing();
        {
            CallFault fault("write", most ? 0 : ENOSPC, most);
            EXPECT_EQ(eko_fputs(text.c_str(), s), -1);
            EXPECT_EQ(fault.calls(), 1u);
            EXPECT_EQ(content().size(), most);
        }
        EXPECT_EQ(eko_fflush(s), 0); // what was taken is still there
        EXPECT_EQ(content(), text.substr(0, 1024));
        eko_fclose(s);
    }
    EXPECT_EQ(err.take(), "Write failed, errno = 28\n");

    signal(SIGXFSZ, SIG_IGN);
    rlimit old;
    getrlimit(RLIMIT_FSIZE, &old);
    const rlimit small = {1500, old.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    EKO_FILE_STREAM s = writing();
    EXPECT_EQ(eko_fprintf(s, "%s", text.c_str()), -1);
    for (int i = 0; i < 2000; ++i)
        eko_fputc('x', s);
    EXPECT_EQ(eko_fputc('x', s), 0);
    eko_fclose(s);
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_EQ(content(), text.substr(0, 1500));

    s = writing();
    eko_rdonly();
    EXPECT_EQ(eko_fputs(text.c_str(), s), -1);
    eko_fclose(s);
    EXPECT_EQ(content(), "");
}

TEST_F(StreamTest, stream_fflush_reverses_failure)
{
    EKO_FILE_STREAM s = writing(UTF16);
    EXPECT_EQ(eko_fflush(s), 0);
    eko_fputc(0xC3, s);
    EXPECT_EQ(eko_fflush(s), -1); // incomplete
    {
        CallFault fault("fsync", EIO);
        EXPECT_EQ(eko_fflush(s), 0);
        EXPECT_EQ(fault.calls(), 1u);
    }
    eko_fputc(0xA9, s);
    CapturedFd err(2);
    {
        CallFault fault("write", EIO);
        EXPECT_EQ(eko_fflush(s), 0);
        eko_fputc(0xC3, s);
        EXPECT_EQ(eko_fflush(s), 0);
        EXPECT_EQ(err.take(), "Write failed, errno = 5\nWrite failed, errno = 5\n");
    }
    EXPECT_EQ(eko_fflush(s), -1);
    eko_fclose(s);
    EXPECT_EQ(content(), "\xFF\xFE\xE9\0"s);
    EXPECT_EQ(eko_fflush(nullptr), 0);
}

TEST_F(StreamTest, stream_read_errors_end_the_file)
{
    const std::string text = pattern(2000);
    EKO_FILE_STREAM s = reading(text);
    EXPECT_EQ(eko_fgetc(s), text[0]);
    EXPECT_EQ(logged([&] {
                  CallFault fault("read", EINTR);
                  EXPECT_EQ(rest(s), text.substr(1, 1023));
                  EXPECT_EQ(fault.calls(), 1u);
              }),
              "Read failed, errno = 4\n");
    EXPECT_EQ(rest(s), text.substr(1024)); // and can be tried again
    eko_fclose(s);
    CallFault fault("read", 0, 7); // short counts are not the end
    s = reading(text);
    EXPECT_EQ(rest(s), text);
    eko_fclose(s);
}

TEST_F(StreamTest, stream_formats)
{
    EKO_FILE_STREAM s = writing();
    EXPECT_EQ(eko_fprintf(s, "%d-%s", 12, "ab"), 5);
    EXPECT_EQ(eko_fprintf(s, "%s", ""), 0);
    EXPECT_EQ(eko_fprintf(s, "x%f", 1e20), -1);
    for (int32 width : {6, 7, 3000}) // buffers that are one byte short, and many
        EXPECT_EQ(eko_fprintf(s, "%*d", width, 7), width);
    EXPECT_EQ(eko_fprintf(s, "%c", 0), 1);
    EXPECT_EQ(eko_fprintf(nullptr, "x"), -1);
    EXPECT_EQ(eko_fputs("x", nullptr), -1);
    EXPECT_EQ(eko_fputc('x', nullptr), 0);
    eko_fclose(s);
    EXPECT_EQ(content(),
              "12-ab" + std::string(5, ' ') + "7" + std::string(6, ' ') + "7" + std::string(2999, ' ') + "7\0"s);
}

} // namespace
