/* SPDX-License-Identifier: MIT */
/* stream.h - text streams, and the console.
 *
 * A stream reads or writes a text file through a cache of 1024 bytes. The caller sees UTF-8 bytes; the file can
 * be UTF-8 or UTF-16 in the machine's byte order. A stream has no lock: one thread at a time.
 *
 * Surprises that callers rely on:
 *   - Characters are read as signed: byte 0x80..0xFF come as -128..-1, and so byte 0xFF reads as the end of the
 *     file. What follows it in a Latin-1 file stays unread by callers that stop there.
 *   - A byte 0 inside a line is read like any other, so the line seems to end there; no call tells its length.
 *   - A byte that completes a character of a UTF-16 stream is written, and yet eko_fputc answers 0 for it. So
 *     eko_fputs and eko_fprintf stop behind the first character. Write UTF-16 with eko_fputc, byte by byte, and
 *     take no notice of its result.
 *   - eko_fflush answers 0 when it fails.
 *   - The file is only read and written in sequence. A seek within the up to 1024 bytes held works; one further
 *     away changes what the stream takes for its position, and what is read next comes from elsewhere. Nothing
 *     is held after writing, nor after reading at the end of the file.
 *   - A stream for both reading and writing writes at the file's own position, behind all that was read into
 *     the cache, and together with what it had read in front of it. Read to the end first: then it appends.
 *   - Each failed write says "Write failed, errno = %d" on standard error, and what is pending stays so.
 *   - In read-only mode nothing is written, not even to the console: what is pending stays so, and the calls
 *     fail once 1024 bytes are.
 *   - A stream for writing alone logs "Read failed, errno = 9" where its position is inside the length that the
 *     file had: with "a" after each 1024 bytes, and after a seek back. All is written all the same. */
#ifndef EKO_STREAM_H
#define EKO_STREAM_H

#include "mem.h"

EKO_EXTERN_C_BEGIN

/** Encoding of a text file. */
typedef enum EKO_FILE_MODE {
    EKO_FILE_MODE_UNKNOWN = 0, /**< as the file's mark says */
    EKO_FILE_MODE_UTF8 = 1,    /**< UTF-8 */
    EKO_FILE_MODE_UTF16 = 2    /**< UTF-16 in the machine's byte order */
} EKO_FILE_MODE;

/** An open text stream; null is none. */
typedef const void* EKO_FILE_STREAM;

/** Opens a text file.
 *  name    as for eko_fileOpen; "stdout" and "stderr" are the process's own.
 *  mode    "r", or null, reads; "w" writes, emptying the file; "a" appends; "+" after w or a reads too, after r
 *          it opens for both and writes no mark. Only the first 3 characters count.
 *  fmode   reading: replaced by what the file's byte-order mark says: EF BB BF is UTF-8; FF FE, FE FF and EF FF
 *          are UTF-16, never swapped; none is UTF-8. A file of one or two bytes that begins like a mark keeps
 *          this value. Writing: UTF-16 writes FF FE first, also where it appends, UTF-8 no mark; unknown is
 *          UTF-8; a value that is none of the three fails an assertion.
 *  xflags  EKO_FILE_..., passed to eko_fileOpen.
 *  Returns the stream, or null: library not started, null name, bad mode, no memory, or refused as by eko_fileOpen,
 *  whose errno stays. A directory opens for reading, and reads as empty. Surprise: a bad mode loses a few bytes of
 *  memory until the library stops. */
EKO_API EKO_FILE_STREAM eko_fopen(const char* name, const char* mode, EKO_FILE_MODE fmode);
EKO_API EKO_FILE_STREAM eko_fopenEx(const char* name, const char* mode, EKO_FILE_MODE fmode, uint16 xflags);

/** A UTF-8 stream over the process's "stdout" or "stderr", or null. */
EKO_API EKO_FILE_STREAM eko_fopen_std(const char* stdfile);

/** Writes what is pending and closes; null is ignored. A failing write has no one to tell: eko_fseek(s, 0, 1)
 *  answers 1002 then, when asked before. */
EKO_API void eko_fclose(EKO_FILE_STREAM stream);

/** The next byte, as a signed character, or -1 at the end. A UTF-16 file reads as the UTF-8 of its characters; a
 *  low surrogate without its high one reads as "."; what follows a high one is not checked. A stream whose mode
 *  stayed unknown reads as 0 for ever. -1 for null. */
EKO_API int32 eko_fgetc(EKO_FILE_STREAM stream);
/** Puts a value back, to be read next; the last one put back comes first. Returns it, or -1 when 20 are waiting
 *  and for a null stream. */
EKO_API int32 eko_fungetc(int32 c, EKO_FILE_STREAM stream);
/** Reads up to n - 1 bytes, through the next line end. Returns `str`, terminated; null at the end, for a null
 *  argument, n below 1, or a stream whose mode stayed unknown. */
EKO_API char* eko_fgets(char* str, int32 n, EKO_FILE_STREAM stream);

/** Reads a line of any length, its line end included.
 *  buf, len  a block of `tag` and its size in bytes, reused and extended; start with null and 0. For a block, a
 *            size of 0 stands for 100. Not a stack tag. The caller frees it in the end.
 *  Returns the line, which is `*buf`; null at the end, for null arguments, for a stream whose mode stayed
 *  unknown, and when memory runs out: `*buf` and `*len` then still describe a valid block, and what was read of
 *  the line is lost. A new block has 100 bytes and grows by 100. A byte 0xFF at the start of a line reads as the
 *  end, one further on is left out. May leave by longjmp. */
EKO_API char* eko_fGetLine(EKO_FILE_STREAM fh, char** buf, uint32* len, EKO_MEMTAG tag);

/** Writes a byte. For a null stream, string or format, this and the next three answer 0, -1, -1, -1. Returns 1
 *  written or accepted as part of a character; 0 failed. */
EKO_API int32 eko_fputc(int32 c, EKO_FILE_STREAM stream);
/** Writes a string. Returns its length, or -1 at the first failed byte. */
EKO_API int32 eko_fputs(const char* str, EKO_FILE_STREAM stream);
/** Formats, as eko_vsnprintf, and writes. Returns the length written; -1 at the first failed byte or without
 *  memory; 0 or -1 when formatting gives that. */
EKO_API int32 eko_vfprintf(EKO_FILE_STREAM stream, const char* format, va_list args) EKO_PRINTF_CHECK(2, 0);
EKO_API int32 eko_fprintf(EKO_FILE_STREAM stream, const char* format, ...) EKO_PRINTF_CHECK(2, 3);

/** Writes what is pending and waits until it is on the disk. Returns -1 when that worked and a character is
 *  still incomplete, else 0. Surprise: 0 too when it failed. */
EKO_API int32 eko_fflush(EKO_FILE_STREAM stream);

/** Sets the position: origin 0 from the first character, behind a mark; 1 from here; 2 from the end. What is
 *  pending is written first, what was put back is forgotten. Returns 0; 1002 for another origin, a position below
 *  0, a failed write or a null stream, with the position unchanged. See the surprises above. */
EKO_API int32 eko_fseek(EKO_FILE_STREAM stream, int32 off, int32 origin);

/* ---- console: what eko_stdout_open and eko_stderr_open (log.h) put on top; any thread ------------------- */

/** Formats to standard output, or standard error, or the file that stands in for it. Returns as eko_fprintf; 0
 *  when it is silenced or the library is not started. The text is written when 1024 bytes are full, when
 *  flushed, or by eko_term; exit, fork and the C library's own stdout know nothing of it: to mix it with printf,
 *  flush both. */
EKO_API int32 eko_printf(const char* format, ...) EKO_PRINTF_CHECK(1, 2);
EKO_API int32 eko_printfV(const char* format, va_list args) EKO_PRINTF_CHECK(1, 0);
EKO_API int32 eko_printfErr(const char* format, ...) EKO_PRINTF_CHECK(1, 2);
EKO_API int32 eko_printfErrV(const char* format, va_list args) EKO_PRINTF_CHECK(1, 0);

/** Flushes it, or the C library's own stdout or stderr when it is silenced. */
EKO_API void eko_flush(void);
EKO_API void eko_flushErr(void);

EKO_EXTERN_C_END

#endif
