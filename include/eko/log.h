/* SPDX-License-Identifier: MIT */
/* log.h - the library's one reporting channel.
 *
 * A message goes to the console, unless eko_background is set, and, when a log file is open, to the log as
 * "[05-Mar-2024 14:07:09]  " and the message. The library adds no line end. Every message is flushed, which on
 * a disk file waits for the disk. Messages of different threads do not interleave; console and log may show
 * them in a different order. When the library is not started, messages go to the C library's stdout or stderr,
 * without a stamp. Surprise: it is then also the C library that formats them, without the departures of format.h.
 *
 * Log files, and the files that stand in for standard output or standard error, are stacks: an open pushes, a
 * close pops and the one below is written again. The same name, whatever its case, is one open file of a stack
 * however often it is pushed. A close too many does nothing to the log, but pops the console itself, which is
 * silent from then on. Nothing is written in read-only mode. All calls may come from any thread, not from a signal
 * handler.
 *
 * What the library reports while a thread is already writing a report goes straight to the process's standard
 * error, up to 1023 bytes of it. Reports of up to 1023 bytes need no memory. */
#ifndef EKO_LOG_H
#define EKO_LOG_H

#include "../ekoplat.h"

EKO_EXTERN_C_BEGIN

/** Report to standard output, or standard error, and the log. The format is never null. Return the bytes written to
 *  the console; 0 when it is silent or the text cannot be formatted; negative when writing failed. */
EKO_API int32 eko_log(const char* format, ...) EKO_PRINTF_CHECK(1, 2);
EKO_API int32 eko_logV(const char* format, va_list args) EKO_PRINTF_CHECK(1, 0);
EKO_API int32 eko_log_err(const char* format, ...) EKO_PRINTF_CHECK(1, 2);
EKO_API int32 eko_log_errV(const char* format, va_list args) EKO_PRINTF_CHECK(1, 0);

/** Opens a log file, emptying it unless it is on the stack already. Null or "" pushes none: the log is silent until
 *  closed. A failure pushes nothing: no close is due then.
 *  Returns 0; 1002 when the library is not started or the file cannot be opened; 1003 without memory. */
EKO_API int32 eko_log_open(const char* name);
/** Returns to the log that was open before. */
EKO_API void eko_log_close(void);
/** Opens the log file whose name is docroot and name, one right behind the other: no separator is put between.
 *  Neither may be null: it would read as "(null)". Returns 1002 when the name cannot be built, else 0. Surprise: 0
 *  also when the file cannot be opened; nothing is pushed then, and a matching close pops the log below. */
EKO_API int32 eko_log_create(const char* docroot, const char* name);
/** Flushes the console, unless eko_background is set, and the log. */
EKO_API void eko_log_flush(void);

/** Let a file stand in for standard output, or standard error; null or "" silences it. "stdout" and "stderr" bring
 *  back a console that was popped. A file is emptied as by eko_log_open.
 *  Returns 0; 1002 when the library is not started or the file cannot be opened; 1003 without memory. */
EKO_API int32 eko_stdout_open(const char* stdout_name);
EKO_API void eko_stdout_close(void);
EKO_API int32 eko_stderr_open(const char* stderr_name);
EKO_API void eko_stderr_close(void);

/** A message put together in pieces and written as one. One thread at a time; not across eko_term. */
typedef const void* EKO_LOG_CHUNK;

/** A new, empty one; null when the library is not started or without memory. */
EKO_API EKO_LOG_CHUNK eko_log_chunk_init(void);
/** Appends formatted text; nothing when an argument is null. A piece for which there is no memory is left out. */
EKO_API void eko_log_chunk(EKO_LOG_CHUNK chunk, const char* format, ...) EKO_PRINTF_CHECK(2, 3);
/** Appends a last piece, unless format is null, writes all to standard output and the log, unless there was
 *  no piece, and frees the chunk. */
EKO_API void eko_log_chunk_end(EKO_LOG_CHUNK chunk, const char* format, ...) EKO_PRINTF_CHECK(2, 3);

EKO_EXTERN_C_END

#endif
