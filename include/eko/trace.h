/* SPDX-License-Identifier: MIT */
/* trace.h - diagnostic traces: lines stamped with their thread, kept in memory for a debugger or written to a file.
 *
 * A line is the calling thread's identifier (eko_threadId) as "%p" of format.h prints it, a colon, a blank, and the
 * formatted text. No line end is added: one that is to go to the file brings its own. Each thread's lines come in
 * its order.
 *
 * The calls return nothing. A failure loses the line and nothing else: a null format, text that cannot be formatted
 * (format.h), no memory, the library not started, a file that cannot be opened or written. Memory that runs out is
 * reported. errno stays as it was.
 *
 * Any thread may call, also in a callback of the library, but not a signal handler. One thread traces at a time:
 * one that traces into memory waits for the disk too, when another traces into the file. No call leaves by longjmp.
 * A thread that traces gets a memory tag of its own (EKO_THREAD_TAG, mem.h). */
#ifndef EKO_TRACE_H
#define EKO_TRACE_H

#include "../ekoplat.h"

EKO_EXTERN_C_BEGIN

/** Traces into memory, which keeps the last 999 lines; see eko_trace_list. */
EKO_API void eko_trace(const char* format, ...) EKO_PRINTF_CHECK(1, 2);

/** Traces into the process's trace file and waits until the line is on the disk.
 *  The first line creates "tov_trace_" with the process's number and ".log", in the directory that eko_findOStmpdir
 *  finds, or in the current one when it finds none, and reports "Tracing into file '...'" with the name through
 *  eko_log. The file is UTF-8 without a mark, and is closed by the last eko_term. A file of that name is emptied:
 *  what was traced before the library was stopped and started again is lost.
 *  When it cannot be created, as in read-only and diskless mode, the next call tries again. In a directory that
 *  everybody may write to the name can be guessed, and a link of that name is followed.
 *  After a fork the child goes on in its parent's file. */
EKO_API void eko_traceFile(const char* format, ...) EKO_PRINTF_CHECK(1, 2);

/** The lines in memory, seen from the newest. */
typedef const char* EKO_TRACE_LIST[1000];

/** The traces in memory, for a debugger in a stopped process; never write it, and do not read it in one that runs:
 *  no lock guards it. Null while the library is not started and until the first trace. Its entries:
 *      0         the newest line
 *      1         once more than 1000 lines were traced: not to be looked at
 *      2 .. 999  the others, from the oldest to the second newest; null where there is none yet
 *  Surprise: entry 1 then points to a line that is freed already, and does so on purpose. With 1000 lines or fewer
 *  it is the oldest one, or null, like the others; a script that always skips it misses nothing but that line. */
EKO_API extern EKO_TRACE_LIST* eko_trace_list;

EKO_EXTERN_C_END

#endif
