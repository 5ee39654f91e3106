// SPDX-License-Identifier: MIT
// Buffered streams of typed values, in network order: put and got one by one. The transport takes everything, or
// delivers the same bytes again and again.

#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>

#if BENCH_TIRPC
#include <rpc/xdr.h>
#endif

#include <algorithm>
#include <vector>

#include "bench.h"

namespace {

using namespace bench;

constexpr unsigned WRITE_BUFFER = 32768; // ours when it has grown
constexpr unsigned READ_BUFFER = 4096;
constexpr int16 NETWORK_ORDER = 1;

using Bytes = std::vector<char>;

class Transport {
public:
    explicit Transport(Bytes bytes) : bytes_(std::move(bytes)) {}
    size_t read(void* buf, size_t size)
    {
        const size_t part = std::min(size, bytes_.size() - next_);
        memcpy(buf, bytes_.data() + next_, part);
        next_ = next_ + part == bytes_.size() ? 0 : next_ + part;
        return part;
    }

private:
    Bytes bytes_;
    size_t next_ = 0;
};

constexpr size_t VALUE_BYTES = 65528;
constexpr size_t TEXT_BYTES = 16;
const char TEXT[] = "sixteen letters.";
static_assert(sizeof(TEXT) == TEXT_BYTES + 1);

Bytes values()
{
    Bytes bytes(VALUE_BYTES);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 7);
    return bytes;
}

Bytes frames()
{
    Bytes bytes;
    for (int i = 0; i < 3000; ++i) {
        const uint32 length = htonl(TEXT_BYTES);
        const char* image = reinterpret_cast<const char*>(&length);
        bytes.insert(bytes.end(), image, image + sizeof(length));
        bytes.insert(bytes.end(), TEXT, TEXT + TEXT_BYTES);
    }
    return bytes;
}

// ---- eko --------------------------------------------------------------------------------------------------

class EkoOutput {
public:
    static constexpr const char* NAME = "eko";
    EkoOutput() { must(eko_outputBuffCreate(drop, nullptr, NETWORK_ORDER, &stream_) == 0, "eko_outputBuffCreate"); }
    ~EkoOutput() { eko_outputBuffDestroy(stream_); }
    EkoOutput(const EkoOutput&) = delete;
    EkoOutput& operator=(const EkoOutput&) = delete;
    void put(int32 value) { eko_outputBuffPutInt32(stream_, value); }
    void put(int64 value) { eko_outputBuffPutInt64(stream_, value); }
    void put(const char* text) { eko_outputBuffPutStringWithLength(stream_, text); }

private:
    static int32 drop(const void*, const void*, uint32) { return 0; }
    EKO_OUTPUTBUFF stream_ = nullptr;
};

class EkoInput {
public:
    static constexpr const char* NAME = "eko";
    explicit EkoInput(Bytes bytes) : transport_(std::move(bytes))
    {
        must(eko_inputBuffCreate(read, &transport_, NETWORK_ORDER, &stream_) == 0, "eko_inputBuffCreate");
    }
    ~EkoInput() { eko_inputBuffDestroy(stream_); }
    EkoInput(const EkoInput&) = delete;
    EkoInput& operator=(const EkoInput&) = delete;
    void get(int32* value) { eko_inputBuffGetInt32(stream_, value); }
    void get(int64* value) { eko_inputBuffGetInt64(stream_, value); }
    void get(char* text, size_t size) { eko_inputBuffGetStringWithLength(stream_, text, size); }

private:
    static int32 read(const void* transport, void* buf, uint32 size, uint32* len, uint32)
    {
        *len = static_cast<uint32>(static_cast<Transport*>(const_cast<void*>(transport))->read(buf, size));
        return 0;
    }
    Transport transport_;
    EKO_INPUTBUFF stream_ = nullptr;
};

// ---- XDR record streams -----------------------------------------------------------------------------------

#if BENCH_TIRPC
class XdrOutput {
public:
    static constexpr const char* NAME = "xdr";
    XdrOutput()
    {
        xdrrec_create(&xdr_, WRITE_BUFFER, READ_BUFFER, this, nullptr, drop);
        xdr_.x_op = XDR_ENCODE;
    }
    ~XdrOutput() { xdr_destroy(&xdr_); }
    XdrOutput(const XdrOutput&) = delete;
    XdrOutput& operator=(const XdrOutput&) = delete;
    void put(int32 value) { xdr_int32_t(&xdr_, &value); }
    void put(int64 value)
    {
        int64_t copy = value;
        xdr_int64_t(&xdr_, &copy);
    }

private:
    static int drop(void*, void*, int size) { return size; }
    XDR xdr_;
};

class XdrInput {
public:
    static constexpr const char* NAME = "xdr";
    explicit XdrInput(Bytes bytes) : transport_(oneFragment(std::move(bytes)))
    {
        xdrrec_create(&xdr_, WRITE_BUFFER, READ_BUFFER, this, read, nullptr);
        xdr_.x_op = XDR_DECODE;
        must(xdrrec_skiprecord(&xdr_), "xdrrec_skiprecord"); // goes to the first one
    }
    ~XdrInput() { xdr_destroy(&xdr_); }
    XdrInput(const XdrInput&) = delete;
    XdrInput& operator=(const XdrInput&) = delete;
    void get(int32* value) { xdr_int32_t(&xdr_, value); }
    void get(int64* value)
    {
        int64_t got;
        xdr_int64_t(&xdr_, &got);
        *value = got;
    }

private:
    // A record that never ends is made of these.
    static Bytes oneFragment(Bytes bytes)
    {
        const uint32 header = htonl(static_cast<uint32>(bytes.size()));
        const char* image = reinterpret_cast<const char*>(&header);
        bytes.insert(bytes.begin(), image, image + sizeof(header));
        return bytes;
    }
    static int read(void* self, void* buf, int size)
    {
        return static_cast<int>(static_cast<XdrInput*>(self)->transport_.read(buf, static_cast<size_t>(size)));
    }
    Transport transport_;
    XDR xdr_;
};
#else
using XdrOutput = Absent;
using XdrInput = Absent;
#endif

// ---- stdio ------------------------------------------------------------------------------------------------

class StdioOutput {
public:
    static constexpr const char* NAME = "stdio";
    StdioOutput() : file_(fopencookie(nullptr, "w", {nullptr, drop, nullptr, nullptr}))
    {
        must(file_ && setvbuf(file_, nullptr, _IOFBF, WRITE_BUFFER) == 0, "fopencookie");
    }
    ~StdioOutput() { fclose(file_); }
    StdioOutput(const StdioOutput&) = delete;
    StdioOutput& operator=(const StdioOutput&) = delete;
    void put(const char* text)
    {
        const size_t length = strlen(text);
        const uint32 frame = htonl(static_cast<uint32>(length));
        fwrite_unlocked(&frame, 1, sizeof(frame), file_);
        fwrite_unlocked(text, 1, length, file_);
    }

private:
    static ssize_t drop(void*, const char*, size_t size) { return static_cast<ssize_t>(size); }
    FILE* file_;
};

class StdioInput {
public:
    static constexpr const char* NAME = "stdio";
    explicit StdioInput(Bytes bytes)
        : transport_(std::move(bytes)), file_(fopencookie(&transport_, "r", {read, nullptr, nullptr, nullptr}))
    {
        must(file_ && setvbuf(file_, nullptr, _IOFBF, READ_BUFFER) == 0, "fopencookie");
    }
    ~StdioInput() { fclose(file_); }
    StdioInput(const StdioInput&) = delete;
    StdioInput& operator=(const StdioInput&) = delete;
    void get(char* text, size_t size)
    {
        uint32 frame = 0;
        fread_unlocked(&frame, 1, sizeof(frame), file_);
        const size_t length = std::min<size_t>(size - 1, ntohl(frame));
        fread_unlocked(text, 1, length, file_);
        text[length] = '\0';
    }

private:
    static ssize_t read(void* transport, char* buf, size_t size)
    {
        return static_cast<ssize_t>(static_cast<Transport*>(transport)->read(buf, size));
    }
    Transport transport_;
    FILE* file_;
};

// ---- the work ---------------------------------------------------------------------------------------------

template <class Value> constexpr auto put = []<class Output>(State& state) {
    Output output;
    Value value = 0;
    for (auto _ : state)
        output.put(value++);
};

template <class Value> constexpr auto get = []<class Input>(State& state) {
    Input input(values());
    Value value = 0;
    for (auto _ : state) {
        input.get(&value);
        benchmark::DoNotOptimize(value);
    }
};

constexpr auto putText = []<class Output>(State& state) {
    Output output;
    const char* text = TEXT;
    for (auto _ : state) {
        benchmark::DoNotOptimize(text);
        output.put(text);
    }
};

constexpr auto getText = []<class Input>(State& state) {
    Input input(frames());
    char text[100];
    for (auto _ : state) {
        input.get(text, sizeof(text));
        benchmark::DoNotOptimize(text);
    }
    must(strcmp(text, TEXT) == 0, "getting strings");
};

const bool registered = item<EkoOutput, XdrOutput>("buffstream.put.int32", put<int32>) &&
                        item<EkoOutput, XdrOutput>("buffstream.put.int64", put<int64>) &&
                        item<EkoInput, XdrInput>("buffstream.get.int32", get<int32>) &&
                        item<EkoInput, XdrInput>("buffstream.get.int64", get<int64>) &&
                        item<EkoOutput, StdioOutput>("buffstream.put.string", putText) &&
                        item<EkoInput, StdioInput>("buffstream.get.string", getText);

} // namespace
