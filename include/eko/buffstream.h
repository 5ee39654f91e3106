/* SPDX-License-Identifier: MIT */
/* buffstream.h - typed values over any transport, and the byte order of values.
 *
 * An input stream pulls bytes from a callback in blocks and hands values out of them; an output stream gathers
 * values and hands them to a callback in large pieces. What is behind the callbacks, a socket, a pipe or a file, is
 * the caller's affair.
 *
 * On the wire  Values follow each other with nothing in between:
 *                  char, int16, int32, int64    1, 2, 4 or 8 bytes, two's complement
 *                  float32, float64             4 or 8 bytes, IEEE 754
 *                  bytes                        as they are, never swapped
 *                  string                       its characters, without length or terminator
 *                  framed string                its length as an unsigned int32, then its characters; null is the
 *                                               length 0xFFFFFFFF
 *              in the order of the host, or reversed where the stream's `byteswap` is not 0. x86 has the least byte
 *              first: 1 makes it network order there. Both ends must agree. Every pattern of bits arrives.
 * Strings      Surprise: both readers of strings read framed ones. What eko_outputBuffPutString wrote is read with
 *              eko_inputBuffGetBytes, by who knows its length.
 * Callbacks    They may not use the stream, and not leave by longjmp: a string that is being read would be lost.
 * Threads      A stream has no lock: one thread at a time, any thread. Streams are memory of the library's own, on
 *              EKO_GLOBAL_TAG, and end with the library. Only eko_inputBuffGetString leaves by longjmp, where said.
 * Null         A null handle, callback or result is answered with 1013, where nothing else is said. */
#ifndef EKO_BUFFSTREAM_H
#define EKO_BUFFSTREAM_H

#include "../ekoplat.h"

EKO_EXTERN_C_BEGIN

/* ---- reading --------------------------------------------------------------------------------------------- */

/** A stream to read from; null is none. */
typedef const void* EKO_INPUTBUFF;

/** Reads for a stream: what is there, without waiting for more once there is something.
 *  dataCB    what eko_inputBuffCreate was given.
 *  buf       receives up to `size` bytes; a stream asks for blocks of 4096.
 *  len       0; receives their number. More than `size` is taken for `size`.
 *  reserved  always 0.
 *  Returns 0, or any other value, which the stream's caller gets as it is; then nothing has been delivered. The end
 *  of the data is to be such a value; whether it came between two values or inside one, the get that meets it does
 *  not tell. Surprise: success with 0 bytes is asked again at once, and again, until there are some or it fails. */
typedef int32 (*EKO_BUFFREADFCN)(const void* dataCB, void* buf, uint32 size, uint32* len, uint32 reserved);

/** Creates a stream. Nothing is read yet. Returns 0 with the stream in `inBuff`; -904 when it cannot be had, for
 *  want of memory or because the library is not started; 1013. */
EKO_API int32 eko_inputBuffCreate(EKO_BUFFREADFCN readFcn, const void* dataCB, int16 byteswap,
                                  EKO_INPUTBUFF* inBuff);

/** Deletes a stream, with what it has read ahead. Returns 0; 1013. */
EKO_API int32 eko_inputBuffDestroy(EKO_INPUTBUFF inBuff);

/** Each takes one value. Returns 0 with the value stored; the read callback's error, with nothing stored; 1013.
 *  After an error the stream has not lost its place: the same call, made next, goes on behind the bytes that it
 *  had. Surprise: a call for another width, or for a run of bytes, gives those up.
 *  On 32-bit x86 too `value` is exact, whatever its pattern; loading a float or a double from there can alter one
 *  that is a signalling NaN. */
EKO_API int32 eko_inputBuffGetChar(EKO_INPUTBUFF inBuff, char* value);
EKO_API int32 eko_inputBuffGetInt16(EKO_INPUTBUFF inBuff, int16* value);
EKO_API int32 eko_inputBuffGetInt32(EKO_INPUTBUFF inBuff, int32* value);
EKO_API int32 eko_inputBuffGetInt64(EKO_INPUTBUFF inBuff, int64* value);
EKO_API int32 eko_inputBuffGetFloat32(EKO_INPUTBUFF inBuff, float* value);
EKO_API int32 eko_inputBuffGetFloat64(EKO_INPUTBUFF inBuff, double* value);

/** Takes `size` bytes; a null `data` skips them. Returns 0; the read callback's error; 1013. After an error the
 *  first bytes may be in `data`; the same call with the same arguments goes on behind them, and any other gives
 *  them up. */
EKO_API int32 eko_inputBuffGetBytes(EKO_INPUTBUFF inBuff, void* data, size_t size);

/** Takes a framed string into `size` bytes. A null string becomes the empty one.
 *  Returns 0; -211 when it did not fit: `str` has its first size - 1 characters, terminated, and the rest is
 *  skipped; the read callback's error; 1013. With a `size` of 0 any string is skipped, with -211, and `str` is not
 *  looked at. After an error inside the length the call can be made again. After one inside the characters it
 *  cannot: `str` is undefined and the stream stands behind those that it has taken, whose number only the callback
 *  can tell. */
EKO_API int32 eko_inputBuffGetStringWithLength(EKO_INPUTBUFF inBuff, char* str, size_t size);

/** Takes a framed string into a new block on EKO_THREAD_TAG, which the same thread is to free there. `str` receives
 *  it, or null for a null string.
 *  Returns 0; the read callback's error; -904 without memory; 1013. With all but 0 `str` is left alone.
 *  Surprise: how much memory is wanted is for the other end to say, up to 4 GiB; where that end is not trusted, use
 *  eko_inputBuffGetStringWithLength. When memory is exhausted that is reported, and if the thread's tag has a jump
 *  buffer the call leaves by longjmp. The two lengths that no request may have, 0xFFFFFFFD and 0xFFFFFFFE, give
 *  -904 in silence. However it ends for want of memory, the stream stands behind the length, in front of the
 *  characters, whose number is lost. After an error of the callback it stands as eko_inputBuffGetStringWithLength
 *  leaves it. */
EKO_API int32 eko_inputBuffGetString(EKO_INPUTBUFF inBuff, char** str);

/** Drops what was read ahead, and what a failed call had: the next value begins with the next byte of the callback.
 *  Returns 0; 1013. */
EKO_API int32 eko_inputBuffReset(EKO_INPUTBUFF inBuff);

/* ---- writing --------------------------------------------------------------------------------------------- */

/** A stream to write to; null is none. */
typedef const void* EKO_OUTPUTBUFF;

/** Writes all `len` bytes for a stream. dataCB is what eko_outputBuffCreate was given. Returns 0, or any other
 *  value, which the stream's caller gets as it is; then the stream keeps the bytes and offers them again. */
typedef int32 (*EKO_BUFFWRITEFCN)(const void* dataCB, const void* data, uint32 len);

/** Creates a stream. Returns 0 with the stream in `outBuff`; -904 when it cannot be had, for want of memory or
 *  because the library is not started; 1013. */
EKO_API int32 eko_outputBuffCreate(EKO_BUFFWRITEFCN writeFcn, const void* dataCB, int16 byteswap,
                                   EKO_OUTPUTBUFF* outBuff);

/** Deletes a stream. Surprise: what has not been flushed is lost. Returns 0; 1013. */
EKO_API int32 eko_outputBuffDestroy(EKO_OUTPUTBUFF outBuff);

/** Writes what is buffered. Returns 0, also when there is nothing; the write callback's error: everything is still
 *  buffered, and the call can be made again; 1013. */
EKO_API int32 eko_outputBuffFlush(EKO_OUTPUTBUFF outBuff);

/** Each adds one value. Returns 0; the write callback's error; 1013.
 *  The buffer has 4096 bytes and grows by 1024 at a time to 32768, where it is first written, with the 31744 bytes
 *  that it then holds, and afterwards whenever it is full. Growth that finds no memory is reported, once, and the
 *  buffer stays as it is.
 *  Surprise: after an error the first bytes of the value may be buffered, so that adding it again does not mend the
 *  stream. Where writes may fail and then succeed, flush between values, before 31744 bytes have gathered.
 *  On 32-bit x86 too the bytes of a float or a double arrive as they were passed; passing one by value, the
 *  caller's compiler can alter a signalling NaN. */
EKO_API int32 eko_outputBuffPutChar(EKO_OUTPUTBUFF outBuff, char value);
EKO_API int32 eko_outputBuffPutInt16(EKO_OUTPUTBUFF outBuff, int16 value);
EKO_API int32 eko_outputBuffPutInt32(EKO_OUTPUTBUFF outBuff, int32 value);
EKO_API int32 eko_outputBuffPutInt64(EKO_OUTPUTBUFF outBuff, int64 value);
EKO_API int32 eko_outputBuffPutFloat32(EKO_OUTPUTBUFF outBuff, float value);
EKO_API int32 eko_outputBuffPutFloat64(EKO_OUTPUTBUFF outBuff, double value);

/** Adds `size` bytes; `data` may be null when `size` is 0. Returns 0; the write callback's error, with the surprise
 *  of eko_outputBuffPutChar; 1013. */
EKO_API int32 eko_outputBuffPutBytes(EKO_OUTPUTBUFF outBuff, const void* data, size_t size);

/** Adds the characters of a string, not framed. Returns 0; the write callback's error, with the surprise of
 *  eko_outputBuffPutChar; 1013, for a null string too. */
EKO_API int32 eko_outputBuffPutString(EKO_OUTPUTBUFF outBuff, const char* str);

/** Adds a framed string, which may be null. Returns 0; the write callback's error, with the surprise of
 *  eko_outputBuffPutChar; 1013; 1002, with nothing added, for one of 4 GiB - 1 or more, whose length has no room in
 *  the frame. */
EKO_API int32 eko_outputBuffPutStringWithLength(EKO_OUTPUTBUFF outBuff, const char* str);

/** Flushes, then writes `data` from where it is, without a copy: one call of the callback, or as many as it takes
 *  with at most 0xFFFFFFFF bytes each. A `size` of 0 does nothing, not even flush, and `data` may be null then.
 *  Returns 0; the write callback's error, behind which nothing more is written; 1013. */
EKO_API int32 eko_outputBuffSendDirect(EKO_OUTPUTBUFF outBuff, const void* data, size_t size);

/* ---- byte order ------------------------------------------------------------------------------------------ */

/** Each returns its argument with its 2, 4 or 8 bytes in reverse order. Usable at any time, from any thread. */
EKO_API uint16 eko_swaporder16(uint16 value);
EKO_API uint32 eko_swaporder32(uint32 value);
EKO_API uint64 eko_swaporder64(uint64 value);

/** The same for the bytes of an IEEE 754 number. The result is a pattern of bytes, not a number to calculate with.
 *  Surprise: on 32-bit x86 it comes back through a register that alters patterns which look like a signalling NaN,
 *  by one bit, so that swapping twice does not give the argument again; the caller's own handling of the value can
 *  do the same. Where every pattern counts, swap an integer that holds the bytes. On x86-64 they are exact. */
EKO_API float eko_swaporderf32(float value);
EKO_API double eko_swaporderf64(double value);

EKO_EXTERN_C_END

#endif
