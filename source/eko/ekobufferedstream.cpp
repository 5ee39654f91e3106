// SPDX-License-Identifier: MIT
// Buffered binary streams: typed values over the caller's read and write callbacks.
//
// Data      A stream is a record and a buffer, on the global tag.
// Values    go through the integer that has their bytes, which is what is swapped. A swapped pattern is never held
//           in a float: on 32-bit x86 the mere passing on of one can alter it.
// Locks     none; nothing is held while a callback runs, but the block of the string that is being read.

#include <string.h>

#include <type_traits>

#include "ekomem_int.h"

namespace {

constexpr int32 STRING_CUT = -211;
constexpr int32 NO_MEMORY = -904;
constexpr uint32 BLOCK_SIZE = 4096; // of an input stream's buffer, and of an output stream's at first
constexpr uint32 GROWTH = 1024;
constexpr uint32 MAX_OUTPUT = 32768;
constexpr uint32 NULL_STRING = 0xFFFFFFFF; // in place of a length
constexpr uint32 MAX_WRITE = 0xFFFFFFFF;   // bytes of one call of the write callback
constexpr size_t WIDEST = sizeof(uint64);

struct INPUTBUFFEREDSTREAM {
    EKO_BUFFREADFCN readFcn;
    const void* dataCB;
    char* buf;
    uint32 size; // of the buffer
    uint32 len;  // bytes of the last read
    uint32 pos;  // of these, taken
    int16 byteswap;
    // The get that failed last, which goes on when it is made again. Values are gathered in `image`, so for them
    // any get of the same width is the same.
    void* unfinished;
    size_t wanted;
    size_t had; // 0 when there is nothing to go on with
    char image[WIDEST];
};

struct OUTPUTBUFFEREDSTREAM {
    EKO_BUFFWRITEFCN writeFcn;
    const void* dataCB;
    char* buf;
    uint32 max;  // to which the buffer may grow
    uint32 size; // now
    uint32 pos;  // bytes that wait
    int16 byteswap;
};

INPUTBUFFEREDSTREAM* inputOf(EKO_INPUTBUFF inBuff)
{
    return static_cast<INPUTBUFFEREDSTREAM*>(const_cast<void*>(inBuff));
}
OUTPUTBUFFEREDSTREAM* outputOf(EKO_OUTPUTBUFF outBuff)
{
    return static_cast<OUTPUTBUFFEREDSTREAM*>(const_cast<void*>(outBuff));
}

size_t least(size_t a, size_t b)
{
    return a < b ? a : b;
}

// ---- both kinds -------------------------------------------------------------------------------------------

// A record with its buffer, or null with a report.
template <class Stream> Stream* newStream()
{
    MemResult result;
    Stream* s = tryZeroed<Stream>(EKO_GLOBAL_TAG, &result);
    if (s) {
        s->buf = static_cast<char*>(tryGetMem(BLOCK_SIZE, EKO_GLOBAL_TAG, EKO_MEM_PLAIN, nullptr, &result));
        if (s->buf)
            return s;
        EKO_FREE(s, EKO_GLOBAL_TAG);
    }
    memReportIf(result, __FILE__, __LINE__);
    return nullptr;
}

template <class Stream> int32 deleteStream(Stream* s)
{
    if (!s)
        return EKO_BAD_ARGUMENT;
    if (!libraryStarted())
        return EKO_OK; // it went with the library
    EKO_FREE(s->buf, EKO_GLOBAL_TAG);
    EKO_FREE(s, EKO_GLOBAL_TAG);
    return EKO_OK;
}

// The integer that has a value's bytes.
template <class T> using Image = std::conditional_t<
    sizeof(T) == 1, uint8,
    std::conditional_t<sizeof(T) == 2, uint16, std::conditional_t<sizeof(T) == 4, uint32, uint64>>>;

uint8 swapped(uint8 image)
{
    return image;
}
uint16 swapped(uint16 image)
{
    return __builtin_bswap16(image);
}
uint32 swapped(uint32 image)
{
    return __builtin_bswap32(image);
}
uint64 swapped(uint64 image)
{
    return __builtin_bswap64(image);
}

// ---- reading ----------------------------------------------------------------------------------------------

// Reads the next block. A read that fails changes nothing, whatever it says about the number of bytes.
int32 readBlock(INPUTBUFFEREDSTREAM& s)
{
    uint32 len = 0;
    const int32 status = s.readFcn(s.dataCB, s.buf, s.size, &len, 0);
    if (status != 0)
        return status;
    s.len = static_cast<uint32>(least(len, s.size));
    s.pos = 0;
    return EKO_OK;
}

// Takes the bytes behind the first `*had`, which are there already, and counts them in it.
// DELIBERATE: a read that succeeds without bytes is repeated, for ever if need be. There is no status for the end:
// callbacks rely on being asked again while they have nothing yet. Pinned by
// BuffStreamTest.values_come_back_whatever_the_callback_does.
int32 inputBuffGet(INPUTBUFFEREDSTREAM& s, void* data, size_t size, size_t* had)
{
    while (*had < size) {
        const int32 status = s.pos == s.len ? readBlock(s) : EKO_OK;
        if (status != 0)
            return status;
        const size_t part = least(s.len - s.pos, size - *had);
        if (data)
            memcpy(static_cast<char*>(data) + *had, s.buf + s.pos, part);
        s.pos += static_cast<uint32>(part);
        *had += part;
    }
    return EKO_OK;
}

// The same, going on behind what it had when it failed.
int32 getOrGoOn(INPUTBUFFEREDSTREAM& s, void* data, size_t size)
{
    if (s.unfinished != data || s.wanted != size)
        s.had = 0;
    s.unfinished = data;
    s.wanted = size;
    const int32 status = inputBuffGet(s, data, size, &s.had);
    if (status == 0)
        s.had = 0;
    return status;
}

// The characters of a string; null skips them. There is no going on with them.
int32 getCharacters(INPUTBUFFEREDSTREAM& s, char* str, size_t length)
{
    size_t had = 0;
    return inputBuffGet(s, str, length, &had);
}

template <class T> void decode(const INPUTBUFFEREDSTREAM& s, const char* bytes, T* value)
{
    Image<T> image;
    memcpy(&image, bytes, sizeof(image));
    if (s.byteswap)
        image = swapped(image);
    memcpy(value, &image, sizeof(image));
}

// Apart from getValue, so that this one needs no room for what only a new block takes.
template <class T> [[gnu::noinline]] int32 gatherValue(INPUTBUFFEREDSTREAM& s, T* value)
{
    const int32 status = getOrGoOn(s, s.image, sizeof(T));
    if (status == 0)
        decode(s, s.image, value);
    return status;
}

// A value that lies in the buffer is taken from there. No get can then be gone on with: one that fails half-way has
// emptied the buffer, and what fills it again goes on with that get or ends it.
template <class T> int32 getValue(EKO_INPUTBUFF inBuff, T* value)
{
    INPUTBUFFEREDSTREAM* s = inputOf(inBuff);
    if (!s || !value)
        return EKO_BAD_ARGUMENT;
    const uint32 pos = s->pos; // read once: for all that the compiler knows, the value is stored over it
    if (s->len - pos < sizeof(T))
        return gatherValue(*s, value);
    s->pos = pos + static_cast<uint32>(sizeof(T));
    decode(*s, s->buf + pos, value);
    return EKO_OK;
}

// ---- writing ----------------------------------------------------------------------------------------------

int32 outBuffFlush(OUTPUTBUFFEREDSTREAM& s)
{
    if (s.pos == 0)
        return EKO_OK;
    const int32 status = s.writeFcn(s.dataCB, s.buf, s.pos);
    if (status == 0)
        s.pos = 0;
    return status;
}

// A step towards the maximum; without memory the buffer has reached it.
void grow(OUTPUTBUFFEREDSTREAM& s)
{
    const auto size = static_cast<uint32>(least(s.max, s.size + GROWTH));
    MemResult result;
    void* buf = tryExtendMem(s.buf, size, EKO_GLOBAL_TAG, &result);
    if (!buf) {
        s.max = s.size;
        memReportIf(result, __FILE__, __LINE__);
        return;
    }
    s.buf = static_cast<char*>(buf);
    s.size = size;
}

// Makes room in a full buffer.
// DELIBERATE: the step that reaches the maximum also flushes, before the new space is used: receivers know the
// 31744 bytes of the first write. Pinned by BuffStreamTest.output_grows_flushes_and_keeps_what_failed.
int32 makeRoom(OUTPUTBUFFEREDSTREAM& s)
{
    if (s.size < s.max)
        grow(s);
    return s.size >= s.max ? outBuffFlush(s) : EKO_OK;
}

int32 outBuffPut(OUTPUTBUFFEREDSTREAM& s, const void* data, size_t len)
{
    for (size_t put = 0; put < len;) {
        const int32 status = s.pos == s.size ? makeRoom(s) : EKO_OK;
        if (status != 0)
            return status;
        const size_t part = least(s.size - s.pos, len - put);
        memcpy(s.buf + s.pos, static_cast<const char*>(data) + put, part);
        s.pos += static_cast<uint32>(part);
        put += part;
    }
    return EKO_OK;
}

// Apart from putValue, which so keeps the value in a register.
template <class Bytes> [[gnu::noinline]] int32 putImage(OUTPUTBUFFEREDSTREAM& s, Bytes image)
{
    return outBuffPut(s, &image, sizeof(image));
}

template <class T> int32 putValue(EKO_OUTPUTBUFF outBuff, const T& value)
{
    OUTPUTBUFFEREDSTREAM* s = outputOf(outBuff);
    if (!s)
        return EKO_BAD_ARGUMENT;
    Image<T> image;
    memcpy(&image, &value, sizeof(image));
    if (s->byteswap)
        image = swapped(image);
    const uint32 pos = s->pos;
    if (s->size - pos < sizeof(image))
        return putImage(*s, image);
    s->pos = pos + static_cast<uint32>(sizeof(image));
    memcpy(s->buf + pos, &image, sizeof(image));
    return EKO_OK;
}

} // namespace

// ---- input ------------------------------------------------------------------------------------------------

int32 eko_inputBuffCreate(EKO_BUFFREADFCN readFcn, const void* dataCB, int16 byteswap, EKO_INPUTBUFF* inBuff)
{
    if (!readFcn || !inBuff)
        return EKO_BAD_ARGUMENT;
    auto* s = newStream<INPUTBUFFEREDSTREAM>();
    if (!s)
        return NO_MEMORY;
    s->readFcn = readFcn;
    s->dataCB = dataCB;
    s->size = BLOCK_SIZE;
    s->byteswap = byteswap;
    *inBuff = s;
    return EKO_OK;
}

int32 eko_inputBuffDestroy(EKO_INPUTBUFF inBuff)
{
    return deleteStream(inputOf(inBuff));
}

int32 eko_inputBuffGetChar(EKO_INPUTBUFF inBuff, char* value)
{
    return getValue(inBuff, value);
}

int32 eko_inputBuffGetInt16(EKO_INPUTBUFF inBuff, int16* value)
{
    return getValue(inBuff, value);
}

int32 eko_inputBuffGetInt32(EKO_INPUTBUFF inBuff, int32* value)
{
    return getValue(inBuff, value);
}

int32 eko_inputBuffGetInt64(EKO_INPUTBUFF inBuff, int64* value)
{
    return getValue(inBuff, value);
}

int32 eko_inputBuffGetFloat32(EKO_INPUTBUFF inBuff, float* value)
{
    return getValue(inBuff, value);
}

int32 eko_inputBuffGetFloat64(EKO_INPUTBUFF inBuff, double* value)
{
    return getValue(inBuff, value);
}

int32 eko_inputBuffGetBytes(EKO_INPUTBUFF inBuff, void* data, size_t size)
{
    return inBuff ? getOrGoOn(*inputOf(inBuff), data, size) : EKO_BAD_ARGUMENT;
}

int32 eko_inputBuffGetStringWithLength(EKO_INPUTBUFF inBuff, char* str, size_t size)
{
    if (!inBuff || (!str && size != 0))
        return EKO_BAD_ARGUMENT;
    uint32 length;
    int32 status = getValue(inBuff, &length);
    if (status != 0)
        return status;
    if (length == NULL_STRING)
        length = 0;
    const size_t taken = size == 0 ? 0 : least(size - 1, length);
    status = getCharacters(*inputOf(inBuff), str, taken);
    if (status != 0)
        return status;
    if (size != 0)
        str[taken] = '\0';
    if (size != 0 && taken == length)
        return EKO_OK;
    status = getCharacters(*inputOf(inBuff), nullptr, length - taken);
    return status != 0 ? status : STRING_CUT;
}

int32 eko_inputBuffGetString(EKO_INPUTBUFF inBuff, char** str)
{
    if (!inBuff || !str)
        return EKO_BAD_ARGUMENT;
    uint32 length;
    int32 status = getValue(inBuff, &length);
    if (status != 0)
        return status;
    if (length == NULL_STRING) {
        *str = nullptr;
        return EKO_OK;
    }
    MemResult result;
    const size_t size = static_cast<size_t>(length) + 1; // cannot wrap: the largest length is the null string's
    auto* text = static_cast<char*>(tryGetMem(size, EKO_THREAD_TAG, EKO_MEM_PLAIN, nullptr, &result));
    if (!text) {
        memFail(result, EKO_THREAD_TAG, __FILE__, __LINE__);
        return NO_MEMORY;
    }
    status = getCharacters(*inputOf(inBuff), text, length);
    if (status != 0) {
        EKO_FREE(text, EKO_THREAD_TAG);
        return status;
    }
    text[length] = '\0';
    *str = text;
    return EKO_OK;
}

int32 eko_inputBuffReset(EKO_INPUTBUFF inBuff)
{
    if (!inBuff)
        return EKO_BAD_ARGUMENT;
    INPUTBUFFEREDSTREAM& s = *inputOf(inBuff);
    s.pos = s.len = 0;
    s.had = 0;
    return EKO_OK;
}

// ---- output -----------------------------------------------------------------------------------------------

int32 eko_outputBuffCreate(EKO_BUFFWRITEFCN writeFcn, const void* dataCB, int16 byteswap, EKO_OUTPUTBUFF* outBuff)
{
    if (!writeFcn || !outBuff)
        return EKO_BAD_ARGUMENT;
    auto* s = newStream<OUTPUTBUFFEREDSTREAM>();
    if (!s)
        return NO_MEMORY;
    s->writeFcn = writeFcn;
    s->dataCB = dataCB;
    s->max = MAX_OUTPUT;
    s->size = BLOCK_SIZE;
    s->byteswap = byteswap;
    *outBuff = s;
    return EKO_OK;
}

int32 eko_outputBuffDestroy(EKO_OUTPUTBUFF outBuff)
{
    return deleteStream(outputOf(outBuff));
}

int32 eko_outputBuffFlush(EKO_OUTPUTBUFF outBuff)
{
    return outBuff ? outBuffFlush(*outputOf(outBuff)) : EKO_BAD_ARGUMENT;
}

int32 eko_outputBuffPutChar(EKO_OUTPUTBUFF outBuff, char value)
{
    return putValue(outBuff, value);
}

int32 eko_outputBuffPutInt16(EKO_OUTPUTBUFF outBuff, int16 value)
{
    return putValue(outBuff, value);
}

int32 eko_outputBuffPutInt32(EKO_OUTPUTBUFF outBuff, int32 value)
{
    return putValue(outBuff, value);
}

int32 eko_outputBuffPutInt64(EKO_OUTPUTBUFF outBuff, int64 value)
{
    return putValue(outBuff, value);
}

int32 eko_outputBuffPutFloat32(EKO_OUTPUTBUFF outBuff, float value)
{
    return putValue(outBuff, value);
}

int32 eko_outputBuffPutFloat64(EKO_OUTPUTBUFF outBuff, double value)
{
    return putValue(outBuff, value);
}

int32 eko_outputBuffPutBytes(EKO_OUTPUTBUFF outBuff, const void* data, size_t size)
{
    if (!outBuff || (!data && size != 0))
        return EKO_BAD_ARGUMENT;
    return outBuffPut(*outputOf(outBuff), data, size);
}

// DELIBERATE: no frame, though both readers of strings expect one: on the wire it is text of a length that both
// ends know. Pinned by BuffStreamTest.strings_are_framed_cut_and_skipped.
int32 eko_outputBuffPutString(EKO_OUTPUTBUFF outBuff, const char* str)
{
    return outBuff && str ? outBuffPut(*outputOf(outBuff), str, strlen(str)) : EKO_BAD_ARGUMENT;
}

int32 eko_outputBuffPutStringWithLength(EKO_OUTPUTBUFF outBuff, const char* str)
{
    if (!str)
        return putValue(outBuff, NULL_STRING);
    const size_t length = strlen(str);
    if (length >= NULL_STRING)
        return EKO_FAILED;
    const int32 status = putValue(outBuff, static_cast<uint32>(length));
    return status != 0 ? status : outBuffPut(*outputOf(outBuff), str, length);
}

int32 eko_outputBuffSendDirect(EKO_OUTPUTBUFF outBuff, const void* data, size_t size)
{
    if (!outBuff || (!data && size != 0))
        return EKO_BAD_ARGUMENT;
    if (size == 0)
        return EKO_OK;
    OUTPUTBUFFEREDSTREAM& s = *outputOf(outBuff);
    int32 status = outBuffFlush(s);
    for (size_t sent = 0; status == 0 && sent < size;) {
        const auto part = static_cast<uint32>(least(MAX_WRITE, size - sent));
        status = s.writeFcn(s.dataCB, static_cast<const char*>(data) + sent, part);
        sent += part;
    }
    return status;
}
