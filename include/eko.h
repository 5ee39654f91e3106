/* SPDX-License-Identifier: MIT */
/* eko.h - the whole interface of eko, the platform library of a database engine.
 *
 * Statuses are int32: 0 is success. The others have no names here, only numbers:
 *         2  nothing there: an empty queue; an INI entry or section not found
 *         3  the message queue is closed
 *      1001  a timed wait ran out
 *      1002  general failure: not started, invalid handle or value, refused, or the system's call failed
 *      1003  out of memory, or a resource could not be made; from some calls also: the library is not started
 *      1006  the directory exists already
 *      1007  the first file of a comparison cannot be opened
 *      1008  the second file of a comparison cannot be opened
 *      1012  a text is malformed: it is not a UUID, or does not follow a grammar
 *      1013  a required argument is null or zero
 *      1014  a caller's buffer is too small
 *      1015  a job of a thread pool has not come as far as the question
 *        -1  the system's call failed, where a call hands its result on
 *      -211  a string of a binary stream was cut, since the caller's buffer is too small
 *      -904  out of memory, or too many of something, in ini.h and buffstream.h
 *      -905  an INI file cannot be opened or read
 *      -919  an INI file that was set could not be renamed
 *      -924  a required argument of a call of ini.h is null
 *      -932  the caller's buffer is too small for what a call of ini.h found
 * Each call names those it returns. Reads and writes return byte counts, 0xFFFFFFFF for failure. Times to wait are
 * milliseconds, 0xFFFFFFFF for no limit. Any thread may call, but where a header says otherwise. No call may come
 * from a signal handler, but where a header allows it.
 *
 * eko_init (core.h) starts the library. Memory is taken from a tag, and EKO_TAG_DESTROY (mem.h) gives back all of
 * it at once; mem.h also tells what happens when memory runs out. Files on disk, mapped and in memory share the
 * calls of file.h, which tells what a lock of a file promises. What other libraries do otherwise is marked
 * "Surprise".
 *
 * Link with -leko -pthread; the library needs nothing else, in C or in C++. */
#ifndef EKO_H
#define EKO_H

#include "base.h"
#include "dbtype.h"
#include "ekoplat.h"

#include "eko/align.h"
#include "eko/buffstream.h"
#include "eko/core.h"
#include "eko/file.h"
#include "eko/format.h"
#include "eko/ini.h"
#include "eko/log.h"
#include "eko/mem.h"
#include "eko/parse.h"
#include "eko/path.h"
#include "eko/pool.h"
#include "eko/process.h"
#include "eko/queue.h"
#include "eko/random.h"
#include "eko/stream.h"
#include "eko/strutil.h"
#include "eko/sync.h"
#include "eko/thread.h"
#include "eko/thrpool.h"
#include "eko/trace.h"
#include "eko/utf8.h"
#include "eko/uuid.h"

#endif
