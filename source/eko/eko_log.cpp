// SPDX-License-Identifier: MIT
// Log: the library's one reporting channel, to the console and to a log file with a time stamp.
//
// Everything else reports through here, the semaphore table and the memory module included, at moments when a mutex
// is broken or no memory is left. So the path of a report takes neither: a short text is formatted on the stack,
// nothing is allocated to write it, a mutex is looked at before it is used, and a thread that reports while it is
// reporting writes straight to the process's standard error.
//
// Locks   The mutex of a console stack, then that of the log stack, never both at once.

#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "ekolog_int.h"
#include "ekotext_int.h"

namespace {

constexpr size_t SHORT_TEXT = 1024; // longer ones take memory of the thread's tag
constexpr size_t STAMP_BYTES = 30;

// In the thread's static storage: finding it allocates nothing, in a library loaded late too.
__thread int32 reportDepth __attribute__((tls_model("initial-exec")));

class ReportGuard {
public:
    ReportGuard() { ++reportDepth; }
    ~ReportGuard() { --reportDepth; }
    ReportGuard(const ReportGuard&) = delete;
    ReportGuard& operator=(const ReportGuard&) = delete;
};

bool inBackground()
{
    return readUnlocked(eko_background) != 0;
}

// ---- writing one string -----------------------------------------------------------------------------------

int32 writeConsole(EKO_FILE_STACK& stack, const char* str)
{
    const StackGuard lock(stack);
    const EKO_FILE_STREAM file = topFile(&stack);
    if (!file)
        return 0;
    const int32 count = eko_fputs(str, file);
    eko_fflush(file);
    return count;
}

// The local time, or nothing when there is none.
void makeStamp(char* stamp)
{
    struct tm local;
    stamp[0] = 0;
    if (eko_timeLocaltime(eko_timeSecs(), &local) &&
        strftime(stamp, STAMP_BYTES, "[%d-%b-%Y %H:%M:%S]", &local) == 0)
        stamp[0] = 0;
}

void writeLogFile(const char* str)
{
    const StackGuard lock(eko_log_stack);
    const EKO_FILE_STREAM file = topFile(&eko_log_stack);
    if (!file)
        return;
    char stamp[STAMP_BYTES];
    makeStamp(stamp);
    eko_fputs(stamp, file);
    eko_fputs("  ", file);
    eko_fputs(str, file);
    eko_fflush(file);
}

int32 _eko_log_str(bool write_stderr, const char* str)
{
    const ReportGuard guard;
    int32 count = 0;
    if (!inBackground())
        count = writeConsole(write_stderr ? eko_stderr_stack : eko_stdout_stack, str);
    writeLogFile(str);
    return count;
}

// ---- formatting -------------------------------------------------------------------------------------------

int32 sayDirectlyV(const char* format, va_list args)
{
    char text[SHORT_TEXT];
    const int32 length = eko_vsnprintf(text, sizeof(text), format, args);
    if (length < 0)
        return 0;
    const ssize_t written = write(STDERR_FILENO, text, strlen(text));
    return written < 0 ? -1 : length;
}

int32 reportLong(bool write_stderr, size_t length, const char* format, va_list args)
{
    MemResult result;
    char* text = static_cast<char*>(tryGetMem(length + 1, EKO_THREAD_TAG, EKO_MEM_PLAIN, nullptr, &result));
    if (!text) {
        if (result == MemResult::exhausted)
            memReport(__FILE__, __LINE__);
        return 0;
    }
    eko_vsnprintf(text, length + 1, format, args);
    const int32 count = _eko_log_str(write_stderr, text);
    EKO_FREE(text, EKO_THREAD_TAG);
    return count;
}

int32 _eko_logV(bool write_stderr, const char* format, va_list args)
{
    if (!libraryStarted())
        return vfprintf(write_stderr ? stderr : stdout, format, args);
    if (insideReport())
        return sayDirectlyV(format, args);
    char text[SHORT_TEXT];
    va_list firstPass;
    va_copy(firstPass, args);
    const int32 length = eko_vsnprintf(text, sizeof(text), format, firstPass);
    va_end(firstPass);
    if (length < 0)
        return 0;
    if (static_cast<size_t>(length) >= sizeof(text))
        return reportLong(write_stderr, static_cast<size_t>(length), format, args);
    return _eko_log_str(write_stderr, text);
}

int32 openOn(EKO_FILE_STACK& stack, const char* name)
{
    return libraryStarted() ? eko_fileStackOpen(&stack, name) : EKO_FAILED;
}

void closeOn(EKO_FILE_STACK& stack)
{
    if (libraryStarted())
        eko_fileStackClose(&stack);
}

} // namespace

bool insideReport()
{
    return reportDepth > 0;
}

int32 sayDirectly(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int32 count = sayDirectlyV(format, args);
    va_end(args);
    return count;
}

// ---- reports ----------------------------------------------------------------------------------------------

int32 eko_logV(const char* format, va_list args)
{
    return _eko_logV(false, format, args);
}

int32 eko_log_errV(const char* format, va_list args)
{
    return _eko_logV(true, format, args);
}

int32 eko_log(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int32 count = eko_logV(format, args);
    va_end(args);
    return count;
}

int32 eko_log_err(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int32 count = eko_log_errV(format, args);
    va_end(args);
    return count;
}

// ---- where they go ----------------------------------------------------------------------------------------

int32 eko_log_open(const char* name)
{
    return openOn(eko_log_stack, name);
}

void eko_log_close(void)
{
    closeOn(eko_log_stack);
}

int32 eko_stdout_open(const char* stdout_name)
{
    return openOn(eko_stdout_stack, stdout_name);
}

void eko_stdout_close(void)
{
    closeOn(eko_stdout_stack);
}

int32 eko_stderr_open(const char* stderr_name)
{
    return openOn(eko_stderr_stack, stderr_name);
}

void eko_stderr_close(void)
{
    closeOn(eko_stderr_stack);
}

// DELIBERATE: whether the file could be opened is not passed on. A server starts without its log rather than not at
// all. Pinned by log_create_hides_the_open.
int32 eko_log_create(const char* docroot, const char* name)
{
    const int32 length = eko_snprintf(nullptr, 0, "%s%s", docroot, name);
    if (length < 0)
        return EKO_FAILED;
    const size_t size = static_cast<size_t>(length) + 1;
    MemResult result;
    char* path = static_cast<char*>(tryGetMem(size, EKO_THREAD_TAG, EKO_MEM_PLAIN, nullptr, &result));
    if (!path) {
        if (result == MemResult::exhausted)
            memReport(__FILE__, __LINE__);
        return EKO_FAILED;
    }
    eko_snprintf(path, size, "%s%s", docroot, name);
    eko_log_open(path);
    EKO_FREE(path, EKO_THREAD_TAG);
    return EKO_OK;
}

void eko_log_flush(void)
{
    if (!inBackground()) {
        eko_flush();
        eko_flushErr();
    }
    const StackGuard lock(eko_log_stack);
    const EKO_FILE_STREAM file = topFile(&eko_log_stack);
    if (file)
        eko_fflush(file);
}

// ---- chunks -----------------------------------------------------------------------------------------------

namespace {

struct LOG_CHUNK {
    char* buf; // the text so far, terminated; null while there is none
    size_t len;
};

LOG_CHUNK* chunkOf(EKO_LOG_CHUNK chunk)
{
    return static_cast<LOG_CHUNK*>(const_cast<void*>(chunk));
}

// Makes room for `size` bytes of text; the old text stays when there is none.
bool growChunk(LOG_CHUNK* chunk, size_t size)
{
    MemResult result;
    void* grown = chunk->buf ? tryExtendMem(chunk->buf, size, EKO_GLOBAL_TAG, &result)
                             : tryGetMem(size, EKO_GLOBAL_TAG, EKO_MEM_PLAIN, nullptr, &result);
    if (result == MemResult::exhausted)
        memReport(__FILE__, __LINE__);
    if (grown)
        chunk->buf = static_cast<char*>(grown);
    return grown != nullptr;
}

void appendPiece(LOG_CHUNK* chunk, const char* format, va_list args)
{
    va_list firstPass;
    va_copy(firstPass, args);
    const int32 piece = eko_vsnprintf(nullptr, 0, format, firstPass);
    va_end(firstPass);
    size_t size;
    if (piece < 0 || !addSize(chunk->len, static_cast<size_t>(piece) + 1, &size) || !growChunk(chunk, size))
        return;
    eko_vsnprintf(chunk->buf + chunk->len, static_cast<size_t>(piece) + 1, format, args);
    chunk->len += static_cast<size_t>(piece);
}

} // namespace

EKO_LOG_CHUNK eko_log_chunk_init(void)
{
    MemResult result;
    LOG_CHUNK* chunk = tryZeroed<LOG_CHUNK>(EKO_GLOBAL_TAG, &result);
    if (result == MemResult::exhausted)
        memReport(__FILE__, __LINE__);
    return chunk;
}

void eko_log_chunk(EKO_LOG_CHUNK chunk, const char* format, ...)
{
    if (!chunk || !format || !libraryStarted())
        return;
    va_list args;
    va_start(args, format);
    appendPiece(chunkOf(chunk), format, args);
    va_end(args);
}

void eko_log_chunk_end(EKO_LOG_CHUNK chunk, const char* format, ...)
{
    if (!chunk || !libraryStarted())
        return;
    LOG_CHUNK* text = chunkOf(chunk);
    if (format) {
        va_list args;
        va_start(args, format);
        appendPiece(text, format, args);
        va_end(args);
    }
    if (text->buf)
        _eko_log_str(false, text->buf);
    EKO_FREE(text->buf, EKO_GLOBAL_TAG);
    EKO_FREE(text, EKO_GLOBAL_TAG);
}
