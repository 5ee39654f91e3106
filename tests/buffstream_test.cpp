// SPDX-License-Identifier: MIT
// Buffered binary streams: values in both byte orders, against a file made in Python, over bad callbacks.
// LINK: --wrap=strlen
#include <bit>

#include "support/faults.h"
#include "support/fixture.h"

using namespace std::literals;

static size_t claimedLength; // what strlen is to say, when not 0
EKO_ANSWER(size_t, strlen, (const char* str), claimedLength ? claimedLength : __real_strlen(str))

static const std::string LONG(40000, 'x'), REFERENCE[] = {
#include "data/buffstream.inc"
};
constexpr bool NARROW = sizeof(size_t) == 4;

class BuffStreamTest : public EkoTest {
protected:
    void TearDown() override
    {
        close();
        EkoTest::TearDown();
    }
    void close()
    {
        eko_inputBuffDestroy(in_);
        eko_outputBuffDestroy(out_);
        in_ = out_ = nullptr;
    }
    int32 open(bool swap, const std::string& bytes = "")
    {
        close();
        bytes_ = bytes;
        at_ = 0;
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
        *len = uint32(t.bytes_.copy(static_cast<char*>(buf), any % 256 ? any % 4 : size, t.at_));
        t.at_ += *len;
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

    // Writes the values that data/buffstream.py has too, or takes and compares them, again after each failure.
    void play(uint64 bits, bool writing)
    {
        writing_ = writing;
        for (uint32 i = 0; i < 1200; ++i) {
            const uint64 kind = (draw(bits) >> 33) % 6, nan = kind == 4 ? 0x7F81807F : 0x7FF100000000F07F;
            const uint64 image = kind > 3 && bits >> 63 ? nan : bits; // in either order like a signalling NaN
            ASSERT_EQ(kind == 0   ? value(eko_outputBuffPutChar, eko_inputBuffGetChar, image)
                      : kind == 1 ? value(eko_outputBuffPutInt16, eko_inputBuffGetInt16, image)
                      : kind == 2 ? value(eko_outputBuffPutInt32, eko_inputBuffGetInt32, image)
                      : kind == 3 ? value(eko_outputBuffPutInt64, eko_inputBuffGetInt64, image)
                      : kind == 4 ? value(eko_outputBuffPutFloat32, eko_inputBuffGetFloat32, image)
                                  : value(eko_outputBuffPutFloat64, eko_inputBuffGetFloat64, image),
                      0);
        }
    }
    // Loading a float may alter it: 32-bit x86 passes integers in the same place, of which the first bytes are taken.
    template <class T> int32 value(int32 (*put)(EKO_OUTPUTBUFF, T), int32 (*get)(EKO_INPUTBUFF, T*), uint64 image)
    {
        T value[1], got[1] = {};
        memcpy(value, &image, sizeof(T));
        if (writing_)
            return NARROW ? std::bit_cast<int32 (*)(EKO_OUTPUTBUFF, uint64)>(put)(out_, image)
                          : put(out_, value[0]);
        while (const int32 status = get(in_, got))
            if (status != 77 || at_ == bytes_.size() || got[0] != T{})
                return status;
        return memcmp(got, value, sizeof(T));
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

TEST_F(BuffStreamTest, only_the_same_call_goes_on)
{
    std::string chars(8192, ' '), got;
    const auto next = [&](const std::string& more, size_t size, bool skip = false) { // when so much more has come
        bytes_ += more;
        got += eko_inputBuffGetBytes(in_, skip ? nullptr : chars.data(), size) ? "?" : chars.substr(0, size);
    };
    open(true);
    next("ab", 3), next("cd", 2), next("e", 2), next("f", 2), next("g", 2);
    EXPECT_EQ(eko_inputBuffReset(in_), 0);
    next("hi", 2), next("j", 2, true), next("k", 2, true), next(LONG.substr(0, 5000), 6000);
    next(LONG.substr(0, 1000) + "\0\0\0\2l"s, 6000);
    EXPECT_EQ(eko_inputBuffGetStringWithLength(in_, chars.data(), 3), 77);
    next("mn", 2);
    EXPECT_EQ(got, "?cd?ef?hi?hi?" + LONG.substr(0, 6000) + "mn");
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
    EXPECT_EQ(taken(-1) + taken(11), "01234567890 null0 0 77 01234567890 0 0 77 ");
    EXPECT_EQ(taken(10) + taken(1) + taken(0), "012345678-211 0 0 77 -211 0 0 77 ?-211 ?-211 ?-211 77 ");
    open(true);
    EXPECT_FALSE(eko_outputBuffPutString(out_, "ab") || eko_outputBuffPutStringWithLength(out_, "cd") ||
                 eko_outputBuffPutStringWithLength(out_, nullptr) || eko_outputBuffPutStringWithLength(out_, "") ||
                 eko_outputBuffPutBytes(out_, "\0e", 2) || eko_outputBuffFlush(out_));
    EXPECT_EQ(bytes_, "ab\0\0\0\2cd\xFF\xFF\xFF\xFF\0\0\0\0\0e"s);
    for (jmp_buf* jump : {static_cast<jmp_buf*>(nullptr), &exhaustedJump}) {
        open(false, "\0\0\0\0\xFD\xFF\xFF\xFF"s), str = nullptr;
        eko_resetTag(jump, EKO_THREAD_TAG);
        EXPECT_EQ(exhaust(EKO_THREAD_TAG, [&] { return eko_inputBuffGetString(in_, &str); }),
                  jump ? "jump -904 " : "-904 -904 ");
        EXPECT_EQ(str, nullptr);
    }
    EXPECT_EQ(exhaust(EKO_GLOBAL_TAG, [&] { return open(false); }), "-904 -904 -904 -904 0 ");
    const int32 refused[] = {eko_inputBuffCreate(nullptr, this, 0, &in_),
                             eko_outputBuffCreate(write, this, 0, nullptr),
                             eko_inputBuffGetChar(in_, nullptr),
                             eko_inputBuffGetString(in_, nullptr),
                             eko_inputBuffReset(nullptr),
                             eko_inputBuffGetBytes(nullptr, &str, 0),
                             eko_outputBuffPutBytes(out_, nullptr, 1),
                             eko_inputBuffGetStringWithLength(in_, nullptr, 1),
                             eko_outputBuffPutString(out_, nullptr),
                             eko_outputBuffPutStringWithLength(nullptr, nullptr),
                             eko_outputBuffSendDirect(out_, nullptr, 1),
                             eko_inputBuffDestroy(nullptr),
                             eko_outputBuffFlush(nullptr)};
    for (const int32 status : refused)
        EXPECT_EQ(status, 1013);
}
