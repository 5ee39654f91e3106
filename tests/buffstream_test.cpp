// Buffered binary streams: values in both byte orders, against a file made in Python, over bad callbacks.
// LINK: --wrap=strlen
#include <string.h>

#include <bit>

#include "support/faults.h"
#include "support/fixture.h"

using namespace std::literals;

static size_t claimedLength; // what strlen is to say, when not 0
EKO_ANSWER(size_t, strlen, (const char* str), claimedLength ? claimedLength : __real_strlen(str))

static const std::string REFERENCE[] = {
#include "data/buffstream.inc"
};
static const std::string LONG(40000, 'x');
constexpr bool NARROW = sizeof(size_t) == 4;

class BuffStreamTest : public EkoTest {
protected:
    void TearDown() override { close(), EkoTest::TearDown(); }
    void close() { eko_inputBuffDestroy(in_), eko_outputBuffDestroy(out_), in_ = out_ = nullptr; }
    int32 open(bool swap, const std::string& bytes = "")
    {
        close(), bytes_ = bytes, at_ = 0;
        const int32 status = eko_inputBuffCreate(read, this, swap, &in_);
        return status ? status : eko_outputBuffCreate(write, this, swap, &out_);
    }
    static uint64 draw(uint64& seed) { return seed = seed * 6364136223846793005u + 1442695040888963407u; }

    // The streams read from `bytes_`, behind whose end there is the failure 77, and write to it.
    static int32 read(const void* self, void* buf, uint32 size, uint32* len, uint32 reserved)
    {
        auto& t = *static_cast<BuffStreamTest*>(const_cast<void*>(self));
        const uint64 any = t.random_ ? draw(t.random_) >> 33 : 0; // for 0 to 3 bytes, a failure, or all and more
        *len = 9;                                                 // not to be believed, in a failure
        if (size != 4096 || reserved != 0 || any % 5 == 1 || t.at_ == t.bytes_.size())
            return 77;
        t.at_ += * len = uint32(t.bytes_.copy(static_cast<char*>(buf), any % 256 ? any % 4 : size, t.at_));
        *len += *len == size;
        return 0;
    }
    static int32 write(const void* self, const void* data, uint32 len)
    {
        auto& t = *static_cast<BuffStreamTest*>(const_cast<void*>(self));
        t.sizes_ += std::to_string(len) + ' ';
        t.bytes_.append(static_cast<const char*>(data), t.failure_ || len > LONG.size() ? 0 : len);
        return t.failure_;
    }

    // Writes the values that data/buffstream.py makes too, or takes and compares them, again after each failure.
    void play(uint64 bits, bool writing)
    {
        writing_ = writing;
        for (uint32 i = 0; i < 800; ++i) {
            const uint64 kind = (draw(bits) >> 33) % 10;
            const std::string text = kind == 9 ? "" : std::to_string(bits).substr(0, uint32(bits >> 40) % 23);
            kind == 0   ? value(eko_outputBuffPutChar, eko_inputBuffGetChar, char(bits))
            : kind == 1 ? value(eko_outputBuffPutInt16, eko_inputBuffGetInt16, int16(bits))
            : kind == 2 ? value(eko_outputBuffPutInt32, eko_inputBuffGetInt32, int32(bits))
            : kind == 3 ? value(eko_outputBuffPutInt64, eko_inputBuffGetInt64, int64(bits))
            : kind == 4 ? value(eko_outputBuffPutFloat32, eko_inputBuffGetFloat32, float(int16(bits)) / 16)
            : kind == 5 ? value(eko_outputBuffPutFloat64, eko_inputBuffGetFloat64, double(int32(bits)) / 1024)
            : writing   ? putText(kind, text)
                        : getText(kind, text);
        }
    }
    template <class T> void value(auto put, auto get, T expected)
    {
        T got = expected;
        while (const int32 status = writing_ ? put(out_, expected) : get(in_, &(got = T{})))
            ASSERT_TRUE(status == 77 && at_ < bytes_.size());
        EXPECT_EQ(got, expected);
    }
    void putText(uint64 kind, const std::string& text)
    {
        const char* const str = kind == 9 ? nullptr : text.c_str();
        const auto put = kind == 7 ? eko_outputBuffPutString : eko_outputBuffPutStringWithLength;
        EXPECT_EQ(kind == 6 ? eko_outputBuffPutBytes(out_, str, text.size()) : put(out_, str), 0);
    }
    void getText(uint64 kind, const std::string& text)
    {
        std::string got(text.size(), ' ');
        if (kind >= 8)
            value(eko_outputBuffPutInt32, eko_inputBuffGetInt32, kind == 8 ? int32(text.size()) : -1);
        while (eko_inputBuffGetBytes(in_, got.data(), got.size()) != 0)
            ASSERT_LT(at_, bytes_.size());
        EXPECT_EQ(got, text);
    }
    // A pattern that loading a float alters. On 32-bit x86 an integer is passed in the same place, and untouched.
    template <class T> void pattern(auto put, auto get, auto bits)
    {
        const auto putBits = std::bit_cast<int32 (*)(EKO_OUTPUTBUFF, decltype(bits))>(put);
        EXPECT_EQ(NARROW ? putBits(out_, bits) : put(out_, std::bit_cast<T>(bits)), 0);
        T got[1];
        EXPECT_FALSE(eko_outputBuffFlush(out_) || get(in_, got) || memcmp(got, &bits, sizeof(bits)) != 0);
    }

    EKO_INPUTBUFF in_ = nullptr, out_ = nullptr;
    std::string bytes_, sizes_;       // `sizes_` of the writes
    size_t at_ = 0;                   // of the next read
    uint64 random_ = 0;               // not 0: reads misbehave
    int32 failure_ = 0, writing_ = 0; // `failure_` of writes
};

TEST_F(BuffStreamTest, values_come_back_whatever_the_callback_does)
{
    for (uint32 seed = 0; seed < 80; ++seed) {
        EXPECT_EQ(open(seed % 2), 0);
        play(seed, true);
        EXPECT_EQ(eko_outputBuffFlush(out_), 0);
        EXPECT_TRUE(seed > 1 || bytes_ == REFERENCE[seed]);
        random_ = seed > 3 ? seed : 0;
        play(seed, false);
        EXPECT_EQ(at_, bytes_.size());
        random_ = 0;
        pattern<float>(eko_outputBuffPutFloat32, eko_inputBuffGetFloat32, 0x7F81807Fu); // also when it is swapped
        pattern<double>(eko_outputBuffPutFloat64, eko_inputBuffGetFloat64, uint64(0x7FF100000000F07F));
    }
}

TEST_F(BuffStreamTest, output_grows_flushes_and_keeps_what_failed)
{
    const auto put = [&](size_t size) { return eko_outputBuffPutBytes(out_, LONG.data(), size); };
    const auto send = [&](const void* data, size_t size) { return eko_outputBuffSendDirect(out_, data, size); };
    open(false), failure_ = 9;
    EXPECT_TRUE(put(40000) == 9 && eko_outputBuffFlush(out_) == 9 && send(nullptr, 0) == 0 && send("", 1) == 9);
    failure_ = 0;
    EXPECT_FALSE(put(1024) || put(40000) || send("direct", 6) || eko_outputBuffFlush(out_));
    EXPECT_TRUE(bytes_ == std::string(72768, 'x') + "direct");
    EXPECT_FALSE(open(false) || put(40000) || send(LONG.data(), NARROW ? ~size_t(0) : size_t(uint64(5) << 31)));
    claimedLength = 0xFFFFFFFF;
    EXPECT_TRUE(NARROW || eko_outputBuffPutStringWithLength(out_, "") == 1002);
    claimedLength = 0;
    EXPECT_FALSE(eko_outputBuffFlush(out_) || open(false));
    const FailNthOnTag fault(EKO_GLOBAL_TAG, 2, FailNthAlloc::ALL_FROM_THERE);
    EXPECT_TRUE(isOneReport(logged([&] { EXPECT_EQ(put(10000), 0); }), "ekobufferedstream.cpp"));
    EXPECT_EQ(sizes_, "31744 31744 31744 32768 32768 7232 6 31744 8256 4294967295 "s +
                          (NARROW ? "" : "4294967295 2147483650 ") + "5120 "); // and grows no more
}

TEST_F(BuffStreamTest, strings_are_framed_cut_and_skipped)
{
    char* str = nullptr;
    const auto taken = [&](int32 size) { // framed strings, into that many bytes, or in new blocks for -1
        open(true, LONG + "\0\0\0\n0123456789\xFF\xFF\xFF\xFF\0\0\0\0\0\0\0\1"s);
        EXPECT_FALSE(eko_inputBuffGetBytes(in_, nullptr, 1) || (at_ = 30000, eko_inputBuffReset(in_)) ||
                     eko_inputBuffGetBytes(in_, nullptr, 10000));
        std::string got;
        for (int32 status = 0; status == 0 || status == -211; got += std::to_string(status) + ' ') {
            char chars[100] = "?";
            status = size < 0 ? eko_inputBuffGetString(in_, &(str = nullptr))
                              : eko_inputBuffGetStringWithLength(in_, size ? (str = chars) : nullptr, size_t(size));
            got += status == 77 ? "" : size == 0 ? chars : str ? str : "null";
            EKO_FREE(size < 0 ? str : nullptr, EKO_THREAD_TAG);
        }
        return got;
    };
    EXPECT_EQ(taken(-1), "01234567890 null0 0 77 ");
    EXPECT_EQ(taken(11), "01234567890 0 0 77 ");
    EXPECT_EQ(taken(10), "012345678-211 0 0 77 ");
    EXPECT_EQ(taken(1), "-211 0 0 77 ");
    EXPECT_EQ(taken(0), "?-211 ?-211 ?-211 77 ");
    const auto getString = [&] { return eko_inputBuffGetString(in_, &str); };
    for (jmp_buf* jump : {static_cast<jmp_buf*>(nullptr), &exhaustedJump}) {
        open(false, "\0\0\0\0\xFD\xFF\xFF\xFF"s), str = nullptr;
        eko_resetTag(jump, EKO_THREAD_TAG);
        EXPECT_EQ(exhaust(EKO_THREAD_TAG, getString), jump ? "jump -904 " : "-904 -904 ");
        EXPECT_EQ(str, nullptr);
    }
    EXPECT_EQ(exhaust(EKO_GLOBAL_TAG, [&] { return open(false); }), "-904 -904 -904 -904 0 ");
    EXPECT_EQ(eko_inputBuffCreate(nullptr, this, 0, &in_) + eko_outputBuffCreate(write, this, 0, nullptr) +
                  eko_inputBuffGetChar(in_, nullptr) + eko_inputBuffGetString(in_, nullptr) +
                  eko_inputBuffGetBytes(nullptr, &str, 0) + eko_inputBuffGetStringWithLength(in_, nullptr, 1) +
                  eko_inputBuffReset(nullptr) + eko_outputBuffFlush(nullptr) +
                  eko_outputBuffPutBytes(out_, nullptr, 1) + eko_outputBuffPutString(out_, nullptr) +
                  eko_inputBuffDestroy(nullptr) + eko_outputBuffPutStringWithLength(nullptr, nullptr) +
                  eko_outputBuffSendDirect(out_, nullptr, 1),
              13 * 1013);
}
