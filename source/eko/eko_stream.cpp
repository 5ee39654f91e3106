// SPDX-License-Identifier: MIT
// Text streams: opening, byte-order marks, reading and writing characters, over the cache of eko_streamcache.cpp.
//
// Data    An EKO_FILE_CTX and its cache, both on the global tag, since a stream is opened on any thread.
// Locks   none: one thread at a time.

#include <string.h>

#include "eko_streamcache.h"
#include "ekotext_int.h"

namespace {

constexpr int32 END_OF_FILE = -1;
constexpr size_t MODE_CHARS = 3; // of a mode string that count
constexpr int32 LONE_LOW_SURROGATE = '.';
constexpr uint32 LINE_STEP = 100; // eko_fGetLine starts with this and grows by it
constexpr uint32 LONG_LINE = 65536;

EKO_FILE_CTX* contextOf(EKO_FILE_STREAM stream)
{
    return static_cast<EKO_FILE_CTX*>(const_cast<void*>(stream));
}

// Bytes come to the caller as signed characters, so that 0xFF is the end of the file.
int32 signedByte(uint8 byte)
{
    return static_cast<int8>(byte);
}

// ---- opening ----------------------------------------------------------------------------------------------

struct OpenMode {
    uint32 flags;
    bool writing;
};

bool parseMode(const char* mode, OpenMode* open)
{
    *open = {0, false};
    for (size_t i = 0; mode && i < MODE_CHARS && mode[i]; ++i) {
        switch (mode[i]) {
        case 'r':
            open->flags = 0;
            break;
        case 'w':
            *open = {OPEN_WRITE | OPEN_CREATE | OPEN_TRUNCATE, true};
            break;
        case 'a':
            *open = {OPEN_WRITE | OPEN_CREATE | OPEN_APPEND, true};
            break;
        case '+':
            open->flags = (open->flags & ~OPEN_WRITE) | OPEN_READ_WRITE;
            break;
        default:
            return false;
        }
    }
    return true;
}

bool isStandardStream(const char* name)
{
    return strcmp(name, "stdout") == 0 || strcmp(name, "stderr") == 0;
}

void writeMark(EKO_FILE_CTX* ctx)
{
    constexpr uint8 LITTLE_ENDIAN_MARK[] = {0xFF, 0xFE};
    if (ctx->fmode == EKO_FILE_MODE_UTF16) {
        cacheWrite(ctx->fh, LITTLE_ENDIAN_MARK, sizeof(LITTLE_ENDIAN_MARK));
        ctx->bom_off = sizeof(LITTLE_ENDIAN_MARK);
        return;
    }
    EKO_ASSERT(ctx->fmode == EKO_FILE_MODE_UTF8);
}

struct Mark {
    uint8 bytes[3];
    uint32 length;
    EKO_FILE_MODE mode;
};

// DELIBERATE: EF FF counts as UTF-16 beside the usual marks; files written by old tools of the engine begin so. All
// UTF-16 is read in the machine's order, whatever its mark. Pinned by stream_marks.
constexpr Mark MARKS[] = {{{0xEF, 0xBB, 0xBF}, 3, EKO_FILE_MODE_UTF8},
                          {{0xEF, 0xFF, 0}, 2, EKO_FILE_MODE_UTF16},
                          {{0xFF, 0xFE, 0}, 2, EKO_FILE_MODE_UTF16},
                          {{0xFE, 0xFF, 0}, 2, EKO_FILE_MODE_UTF16}};

// The mark that `count` bytes are, or the first one that they begin; null when they are neither.
const Mark* markBeginning(const uint8* head, uint32 count)
{
    for (const Mark& mark : MARKS) {
        if (count <= mark.length && memcmp(head, mark.bytes, count) == 0)
            return &mark;
    }
    return nullptr;
}

// Reads no further than it must: behind a pipe or a terminal the next byte may be long in coming. A file that ends
// within something that began like a mark keeps the caller's mode.
void detectMark(EKO_FILE_CTX* ctx)
{
    const uint8* head = ctx->fh->buff;
    uint32 count = 0;
    const Mark* mark = markBeginning(head, count);
    while (mark && count < mark->length && cacheHead(ctx->fh, count + 1) > count)
        mark = markBeginning(head, ++count);
    if (mark && count == mark->length) {
        ctx->fmode = mark->mode;
        ctx->bom_off = mark->length;
        cacheSkip(ctx->fh, count);
    } else if (!mark || count == 0) {
        ctx->fmode = EKO_FILE_MODE_UTF8;
    }
}

// The thread's errno stays: whoever opens a stream may look at why it failed.
void freeStream(EKO_FILE_CTX* ctx)
{
    const ErrnoGuard keepErrno;
    EKO_FREE(ctx->buf, EKO_GLOBAL_TAG);
    EKO_FREE(ctx, EKO_GLOBAL_TAG);
}

} // namespace

EKO_FILE_STREAM tryOpenStream(const char* name, const char* mode, EKO_FILE_MODE fmode, uint16 xflags, int32* status)
{
    *status = EKO_FAILED;
    if (!name)
        return nullptr;
    MemResult result;
    EKO_FILE_CTX* ctx = tryZeroed<EKO_FILE_CTX>(EKO_GLOBAL_TAG, &result);
    if (!ctx) {
        *status = result == MemResult::exhausted ? EKO_NO_MEMORY : EKO_FAILED;
        return nullptr;
    }
    OpenMode open;
    if (!parseMode(mode, &open))
        // DELIBERATE: the record is lost until the library stops. A bad mode is a slip in the caller's source, and
        // the engine finds it by the leak. Pinned by stream_bad_mode_leaks_its_record.
        return nullptr;
    ctx->fh = tryOpenCache(name, open.flags, xflags, isStandardStream(name), status);
    if (!ctx->fh) {
        freeStream(ctx);
        return nullptr;
    }
    ctx->fmode = open.writing && fmode == EKO_FILE_MODE_UNKNOWN ? EKO_FILE_MODE_UTF8 : fmode;
    if (open.writing)
        writeMark(ctx);
    else
        detectMark(ctx);
    *status = EKO_OK;
    return ctx;
}

EKO_FILE_STREAM eko_fopenEx(const char* name, const char* mode, EKO_FILE_MODE fmode, uint16 xflags)
{
    int32 status;
    const EKO_FILE_STREAM stream = tryOpenStream(name, mode, fmode, xflags, &status);
    if (status == EKO_NO_MEMORY)
        memReport(__FILE__, __LINE__);
    return stream;
}

EKO_FILE_STREAM eko_fopen(const char* name, const char* mode, EKO_FILE_MODE fmode)
{
    return eko_fopenEx(name, mode, fmode, 0);
}

EKO_FILE_STREAM eko_fopen_std(const char* stdfile)
{
    return stdfile && isStandardStream(stdfile) ? eko_fopen(stdfile, "w", EKO_FILE_MODE_UTF8) : nullptr;
}

void eko_fclose(EKO_FILE_STREAM stream)
{
    if (!stream)
        return;
    EKO_FILE_CTX* ctx = contextOf(stream);
    closeCache(ctx->fh);
    freeStream(ctx);
}

// ---- reading ----------------------------------------------------------------------------------------------

namespace {

bool readUnit(EKO_FILE_CTX* ctx, uint16* unit)
{
    if (cacheRead(ctx->fh, unit, sizeof(*unit)) != sizeof(*unit))
        return false;
    if (ctx->swap)
        *unit = __builtin_bswap16(*unit);
    return true;
}

bool isHighSurrogate(uint32 unit)
{
    return (unit & 0xFC00) == 0xD800;
}
bool isLowSurrogate(uint32 unit)
{
    return (unit & 0xFC00) == 0xDC00;
}

// The next character of a UTF-16 file: its first UTF-8 byte; the others wait in ctx->decoded.
int32 readUtf16(EKO_FILE_CTX* ctx)
{
    uint16 unit;
    if (!readUnit(ctx, &unit))
        return END_OF_FILE;
    if (isLowSurrogate(unit))
        return LONE_LOW_SURROGATE;
    uint32 codePoint = unit;
    if (isHighSurrogate(unit)) {
        uint16 low; // taken for a low surrogate, whatever it is
        if (!readUnit(ctx, &low))
            return END_OF_FILE;
        codePoint = 0x10000 + (unit & 0x3FFu) * 1024 + (low & 0x3FFu);
    }
    uint8 bytes[4];
    uint32 count;
    if (eko_utf8_codes(codePoint, bytes, &count) != UTF8_OKAY)
        return END_OF_FILE;
    while (count > 1)
        ctx->decoded.values[ctx->decoded.count++] = signedByte(bytes[--count]);
    return signedByte(bytes[0]);
}

int32 readUtf8(EKO_FILE_CTX* ctx)
{
    uint8 byte;
    return cacheReadByte(ctx->fh, &byte) ? signedByte(byte) : END_OF_FILE;
}

// DELIBERATE: bytes 0x80..0xFF are negative, and 0xFF is the end of the file. Callers compare with -1 and index
// tables by signed characters. Pinned by stream_reads_signed_characters.
int32 readChar(EKO_FILE_CTX* ctx)
{
    if (ctx->pboff)
        return ctx->pbstack[--ctx->pboff];
    if (ctx->decoded.count)
        return ctx->decoded.values[--ctx->decoded.count];
    switch (ctx->fmode) {
    case EKO_FILE_MODE_UTF8:
        return readUtf8(ctx);
    case EKO_FILE_MODE_UTF16:
        return readUtf16(ctx);
    default:
        return 0;
    }
}

// Copies from the cache's buffer through the next line end, byte 0xFF or `room` bytes; `ended` is set at the end of
// the file, which 0xFF is, and at the line end. Answers the count.
uint32 readRun(EKO_FILE_CTX* ctx, char* str, uint32 room, bool* ended)
{
    uint32 available;
    const uint8* bytes = cachePeek(ctx->fh, &available);
    if (available == 0) {
        *ended = true;
        return 0;
    }
    uint32 count = available < room ? available : room;
    if (const void* newline = memchr(bytes, '\n', count)) {
        count = static_cast<uint32>(static_cast<const uint8*>(newline) - bytes) + 1;
        *ended = true;
    }
    uint32 skipped = 0;
    if (const void* eof = cachePlain(ctx->fh, count) ? nullptr : memchr(bytes, 0xFF, count)) {
        count = static_cast<uint32>(static_cast<const uint8*>(eof) - bytes);
        skipped = 1;
        *ended = true;
    }
    memcpy(str, bytes, count);
    cacheSkip(ctx->fh, count + skipped);
    return count;
}

// Reads up to `room` bytes through the next line end, without a terminator. Answers the count.
uint32 readLine(EKO_FILE_CTX* ctx, char* str, uint32 room)
{
    uint32 count = 0;
    bool ended = false;
    while (count < room && !ended) {
        if (ctx->fmode == EKO_FILE_MODE_UTF8 && !ctx->pboff) {
            count += readRun(ctx, str + count, room - count, &ended);
            continue;
        }
        const int32 c = readChar(ctx);
        if (c == END_OF_FILE)
            break;
        str[count++] = static_cast<char>(c);
        ended = c == '\n';
    }
    return count;
}

// A stream of another mode reads as 0 for ever: for whole lines it has ended, or none would.
bool readableInLines(const EKO_FILE_CTX* ctx)
{
    return ctx->fmode == EKO_FILE_MODE_UTF8 || ctx->fmode == EKO_FILE_MODE_UTF16;
}

} // namespace

int32 eko_fgetc(EKO_FILE_STREAM stream)
{
    return stream ? readChar(contextOf(stream)) : END_OF_FILE;
}

int32 eko_fungetc(int32 c, EKO_FILE_STREAM stream)
{
    EKO_FILE_CTX* ctx = contextOf(stream);
    if (!ctx || ctx->pboff == PUSHBACK_VALUES)
        return END_OF_FILE;
    ctx->pbstack[ctx->pboff++] = c;
    return c;
}

char* eko_fgets(char* str, int32 n, EKO_FILE_STREAM stream)
{
    EKO_FILE_CTX* ctx = contextOf(stream);
    if (!str || n < 1 || !ctx || !readableInLines(ctx))
        return nullptr;
    const uint32 count = readLine(ctx, str, static_cast<uint32>(n) - 1);
    if (count == 0 && n > 1)
        return nullptr;
    str[count] = 0;
    return str;
}

namespace {

// The growing buffer of eko_fGetLine.
struct DYNAMIC_LINE {
    EKO_FILE_CTX* fh;
    char* line;
    uint32 len;      // what the caller is told
    uint32 reserved; // what the block really has, from the first long step on
};

bool extendLine(DYNAMIC_LINE* dl, uint32 size, EKO_MEMTAG tag, MemResult* result)
{
    if (size < dl->len) // wrapped
        return false;
    char* grown = static_cast<char*>(tryExtendMem(dl->line, size, tag, result));
    if (!grown)
        return false;
    dl->line = grown;
    dl->reserved = size;
    return true;
}

// Grows by a step. For a long line more is reserved than told, or each step might copy all of it.
MemResult growLine(DYNAMIC_LINE* dl, EKO_MEMTAG tag)
{
    if (dl->len > UINT32_MAX - LINE_STEP)
        return MemResult::refused;
    const uint32 wanted = dl->len + LINE_STEP;
    MemResult result = MemResult::done;
    if (wanted > dl->reserved && !(wanted >= LONG_LINE && extendLine(dl, wanted + wanted / 2, tag, &result)))
        extendLine(dl, wanted, tag, &result);
    if (result == MemResult::done)
        dl->len = wanted;
    return result;
}

// Reads a line into dl; `found` is false at the end of the file. As long as no line end has come the buffer grows
// and a step more is read: so it grows once more when the file ends without one, since that shows only when nothing
// comes.
MemResult readWholeLine(DYNAMIC_LINE* dl, EKO_MEMTAG tag, bool* found)
{
    MemResult result = MemResult::done;
    uint32 count = readLine(dl->fh, dl->line, dl->len - 1);
    uint32 used = count;
    bool more = count > 0 || dl->len == 1;
    while (more && (used == 0 || dl->line[used - 1] != '\n')) {
        result = growLine(dl, tag);
        if (result != MemResult::done)
            break;
        count = readLine(dl->fh, dl->line + used, LINE_STEP);
        used += count;
        more = count > 0;
    }
    dl->line[used] = 0;
    *found = used > 0 && result == MemResult::done;
    return result;
}

MemResult firstBuffer(DYNAMIC_LINE* dl, EKO_MEMTAG tag)
{
    MemResult result = MemResult::done;
    if (!dl->line) {
        dl->line = static_cast<char*>(tryGetMem(LINE_STEP, tag, EKO_MEM_ZERO, nullptr, &result));
        dl->len = LINE_STEP; // what a caller says about no block means nothing
    }
    if (dl->len == 0)
        dl->len = LINE_STEP;
    return result;
}

} // namespace

char* tryGetLine(EKO_FILE_STREAM fh, char** buf, uint32* len, EKO_MEMTAG tag, MemResult* result)
{
    *result = MemResult::refused;
    if (!fh || !buf || !len || !readableInLines(contextOf(fh)))
        return nullptr;
    DYNAMIC_LINE dl = {contextOf(fh), *buf, *len, 0};
    bool found = false;
    *result = firstBuffer(&dl, tag);
    if (*result == MemResult::done) {
        *result = readWholeLine(&dl, tag, &found);
        *buf = dl.line;
        *len = dl.len;
    }
    return found ? dl.line : nullptr;
}

char* eko_fGetLine(EKO_FILE_STREAM fh, char** buf, uint32* len, EKO_MEMTAG tag)
{
    MemResult result;
    char* line = tryGetLine(fh, buf, len, tag, &result);
    memFail(result, tag, __FILE__, __LINE__);
    return line;
}

// ---- writing ----------------------------------------------------------------------------------------------

namespace {

// DELIBERATE: a unit counts as written only if the cache took exactly 1 byte. It takes 2, so every completed
// character of a UTF-16 file is reported as failed although it arrives, and strings stop behind their first one.
// The engine's export tools depend on that. Pinned by stream_utf16_writing_reports_failure.
bool writeUnit(EKO_FILE_CTX* ctx, uint32 unit)
{
    const uint16 bytes = static_cast<uint16>(unit);
    return cacheWrite(ctx->fh, &bytes, sizeof(bytes)) == 1;
}

int32 writeCodePoint(EKO_FILE_CTX* ctx, uint32 cp)
{
    if (cp <= 0xFFFF)
        return writeUnit(ctx, cp) ? 1 : 0;
    const bool high = writeUnit(ctx, 0xD800 | ((cp - 0x10000) >> 10 & 0x3FF));
    const bool low = writeUnit(ctx, 0xDC00 | (cp & 0x3FF));
    return high && low ? 1 : 0;
}

struct LeadByte {
    uint8 first;
    uint8 last;
    uint8 mask;      // its bits of the code point
    uint8 bytesleft; // bytes that follow
};
constexpr LeadByte LEAD_BYTES[] = {{0xC2, 0xDF, 0x1F, 1}, {0xE0, 0xEF, 0x0F, 2}, {0xF0, 0xF4, 0x07, 3}};

int32 startCharacter(EKO_FILE_CTX* ctx, uint8 byte)
{
    if (byte < 0x80)
        return writeCodePoint(ctx, byte);
    for (const LeadByte& lead : LEAD_BYTES) {
        if (byte >= lead.first && byte <= lead.last) {
            ctx->val = byte & lead.mask;
            ctx->bytesleft = lead.bytesleft;
            return 1;
        }
    }
    return 0;
}

int32 continueCharacter(EKO_FILE_CTX* ctx, uint8 byte)
{
    if ((byte & 0xC0) != 0x80)
        return 0;
    ctx->val = ctx->val << 6 | (byte & 0x3F);
    return --ctx->bytesleft ? 1 : writeCodePoint(ctx, ctx->val);
}

int32 _eko_fputc(int32 c, EKO_FILE_CTX* ctx)
{
    const uint8 byte = static_cast<uint8>(c);
    if (ctx->fmode != EKO_FILE_MODE_UTF16)
        return static_cast<int32>(cacheWrite(ctx->fh, &byte, 1));
    return ctx->bytesleft ? continueCharacter(ctx, byte) : startCharacter(ctx, byte);
}

bool writeUtf16(EKO_FILE_CTX* ctx, const char* text, uint32 length)
{
    for (uint32 i = 0; i < length; ++i) {
        if (_eko_fputc(text[i], ctx) != 1)
            return false;
    }
    return true;
}

// Byte by byte as far as anyone can tell; answers false at the first byte that fails.
inline bool writeText(EKO_FILE_CTX* ctx, const char* text, uint32 length)
{
    if (ctx->fmode == EKO_FILE_MODE_UTF16)
        return writeUtf16(ctx, text, length);
    return cachePut(ctx->fh, text, length) == length;
}

// Makes the formatting buffer hold `size` bytes.
bool growBuffer(EKO_FILE_CTX* ctx, size_t size, MemResult* result)
{
    char* grown = static_cast<char*>(ctx->buf ? tryExtendMem(ctx->buf, size, EKO_GLOBAL_TAG, result)
                                              : tryGetMem(size, EKO_GLOBAL_TAG, EKO_MEM_PLAIN, nullptr, result));
    if (!grown)
        return false;
    ctx->buf = grown;
    ctx->bufsize = size;
    return true;
}

// A text is formatted into the buffer that is there, and once more only when it did not fit. The length is
// eko_vsnprintf's.
int32 formatFirst(EKO_FILE_CTX* ctx, const char* format, va_list args)
{
    return eko_vsnprintf(ctx->buf, ctx->bufsize, format, args);
}
bool needsRoom(const EKO_FILE_CTX* ctx, int32 length)
{
    return length > 0 && static_cast<size_t>(length) >= ctx->bufsize;
}
bool formatAgain(EKO_FILE_CTX* ctx, int32 length, const char* format, va_list args, MemResult* result)
{
    if (!growBuffer(ctx, static_cast<size_t>(length) + 1, result))
        return false;
    eko_vsnprintf(ctx->buf, ctx->bufsize, format, args);
    return true;
}
int32 writeFormatted(EKO_FILE_CTX* ctx, int32 length)
{
    if (length < 1)
        return length;
    return writeText(ctx, ctx->buf, static_cast<uint32>(length)) ? length : -1;
}

} // namespace

int32 eko_fputc(int32 c, EKO_FILE_STREAM stream)
{
    return stream ? _eko_fputc(c, contextOf(stream)) : 0;
}

int32 eko_fputs(const char* str, EKO_FILE_STREAM stream)
{
    if (!str || !stream)
        return -1;
    const size_t length = strlen(str);
    if (length > INT32_MAX)
        return -1;
    return writeText(contextOf(stream), str, static_cast<uint32>(length)) ? static_cast<int32>(length) : -1;
}

int32 tryVprintf(EKO_FILE_STREAM stream, const char* format, va_list args, MemResult* result)
{
    *result = MemResult::refused;
    if (!stream || !format)
        return -1;
    EKO_FILE_CTX* ctx = contextOf(stream);
    va_list again;
    va_copy(again, args);
    const int32 length = formatFirst(ctx, format, args);
    const bool ready = !needsRoom(ctx, length) || formatAgain(ctx, length, format, again, result);
    va_end(again);
    return ready ? writeFormatted(ctx, length) : -1;
}

int32 eko_vfprintf(EKO_FILE_STREAM stream, const char* format, va_list args)
{
    MemResult result;
    const int32 count = tryVprintf(stream, format, args, &result);
    if (result == MemResult::exhausted)
        memReport(__FILE__, __LINE__);
    return count;
}

// Starts the argument list again where eko_vfprintf copies it: a list that was just started is waited for.
int32 eko_fprintf(EKO_FILE_STREAM stream, const char* format, ...)
{
    if (!stream || !format)
        return -1;
    EKO_FILE_CTX* ctx = contextOf(stream);
    va_list args;
    va_start(args, format);
    const int32 length = formatFirst(ctx, format, args);
    va_end(args);
    if (needsRoom(ctx, length)) {
        MemResult result;
        va_start(args, format);
        const bool ready = formatAgain(ctx, length, format, args, &result);
        va_end(args);
        memReportIf(result, __FILE__, __LINE__);
        if (!ready)
            return -1;
    }
    return writeFormatted(ctx, length);
}

// ---- flushing, position -----------------------------------------------------------------------------------

// DELIBERATE: a failed write answers 0, as success does, and only a successful one can complain of an incomplete
// character. The console of a daemon fails at every flush, and its callers stop at anything but 0. Pinned by
// stream_fflush_reverses_failure.
int32 eko_fflush(EKO_FILE_STREAM stream)
{
    if (!stream)
        return 0;
    EKO_FILE_CTX* ctx = contextOf(stream);
    if (cacheSync(ctx->fh) != EKO_OK)
        return 0;
    return ctx->bytesleft ? -1 : 0;
}

int32 eko_fseek(EKO_FILE_STREAM stream, int32 off, int32 origin)
{
    if (!stream)
        return EKO_FAILED;
    EKO_FILE_CTX* ctx = contextOf(stream);
    const int64 behindMark = origin == 0 ? ctx->bom_off : 0;
    const int32 status = cacheSeek(ctx->fh, off + behindMark, origin);
    if (status == EKO_OK) {
        ctx->pboff = 0;
        ctx->decoded.count = 0;
    }
    return status;
}
