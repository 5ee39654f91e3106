/* SPDX-License-Identifier: MIT */
/* core.h - start and stop of the library, its process-wide modes, and the registry of named globals.
 *
 * The library is started by eko_init and stopped by eko_term, which count: only the first start and the
 * last stop do work, so that several components of a process can each keep their own pair.
 *
 * Rules for a whole process:
 *   - Before eko_init has returned 0 and after the last eko_term, calls that need the library fail, as each
 *     says. Usable then: the modes, eko_version, formatting and conversion into buffers, logs, clocks, atomics,
 *     thread-local storage, descriptors, the critical section, and eko_setMemLimit, which is meant for then.
 *   - No other thread may call anything but eko_init while the first eko_init or the last eko_term runs. All other
 *     threads have ended, or have stopped using the library, before the last eko_term: it destroys every mutex,
 *     event and block of memory, those in use included. A thread started detached cannot tell when it has.
 *   - Any thread may call, where an entry says nothing else, but no signal handler.
 *   - The library never ends the process by itself, except for a failed assertion of one of its own
 *     invariants, which prints the expression and aborts, and for the process that launches a daemon (process.h).
 *   - The console is descriptors 1 and 2, whatever these are. In a process that was started without them the first
 *     files opened get these numbers, and console output lands there.
 *   - Starting ignores SIGPIPE and raises the soft limit of open files; both are inherited by children. */
#ifndef EKO_CORE_H
#define EKO_CORE_H

#include "../ekoplat.h"

EKO_EXTERN_C_BEGIN

/* ---- process-wide state, readable at any time without a lock; never write these ---------------------- */

/** Calls of eko_init not yet matched by eko_term; the library is started while this is above 0. */
EKO_API extern int32 eko_inited;
/** 1 while the last eko_term tears the library down, else 0. */
EKO_API extern int32 eko_terminating;
/** 1 once eko_rdonly was called. */
EKO_API extern int32 eko_readonly;
/** 1 once eko_nodisk was called. */
EKO_API extern int32 eko_diskless;
/** 1 in a daemon without a console: logs then write nothing to standard output or standard error. */
EKO_API extern int32 eko_background;

/** Starts the library, or counts one more user of it.
 *  Returns 0; 1002 when a module could not start. A failed start leaves nothing behind and may be tried
 *  again. Every call that returned 0 is to be matched by one eko_term.
 *  Threads: any; two first calls at once start the library once. Not from a callback of the library.
 *  Surprise: after an unmatched eko_term the count is below 0, and an eko_init that brings it back to 0
 *  returns 0 without starting anything. */
EKO_API int32 eko_init(void);

/** Ends one use of the library; the last one stops it.
 *  The last stop deletes all module state, mutexes, events and memory. Open file handles are not closed:
 *  their memory goes, their descriptors stay open, and streams lose what is pending. Afterwards no handle,
 *  stream, tag, block or log chunk may be used; only eko_fileClose does nothing, safely.
 *  What the console streams still hold is written out here: a process that ends without eko_term or
 *  eko_flush loses up to 1024 bytes of what it printed, and one that forks before flushing prints them twice.
 *  Surprise: calls are counted down without a guard, below 0 too. */
EKO_API void eko_term(void);

/** Turns read-only mode on, for the rest of the process's life: opening a disk file for writing is refused
 *  with 1002, writes move 0 bytes, resizing answers -1, sync does nothing and answers 0. */
EKO_API void eko_rdonly(void);

/** Turns diskless mode on, for the rest of the process's life: every disk file is refused; files opened with
 *  EKO_FILE_INMEMORY live on. Call it before any file is opened; nothing checks that. */
EKO_API void eko_nodisk(void);

/** Stores the version, 12.0 build 1000, into those of the three pointers that are not null. */
EKO_API void eko_version(int16* major, int16* minor, int16* build);

/** Returns 1 when a memory checker watches this process and every block should be taken from the system
 *  one by one, else 0. Always 0 in this build. */
EKO_API int32 eko_isPurifyRunning(void);

/* ---- named globals ------------------------------------------------------------------------------------ */

/** Prepares a fresh record, already zero-filled. 0 is success, any other value failure. */
typedef int32 (*EKO_GLOBAL_CREATE_FCN)(void* data);
/** Releases what the record holds, not the record itself. */
typedef void (*EKO_GLOBAL_DELETE_FCN)(void* data);

/** Finds the process-wide record of that name, creating it on first use.
 *  name        case-sensitive; the registry keeps its own copy.
 *  size        bytes; the first caller's size and callbacks hold, those of later calls are ignored.
 *  create_fcn  run once on the new record, may be null. It runs under the registry's mutex and may itself
 *              fetch globals.
 *  delete_fcn  run when the library stops, in descending order of names, may be null; not run for a record that
 *              could not be made. A record whose name sorts before "ekofile" outlives the file module, so its
 *              callback can open no file. It may fetch globals that are still there.
 *              No callback may start or stop the library, or leave by a jump:
 *              locks are held around it. Memory taken in one comes from a tag without a jump buffer.
 *  pglobal     receives the record on success only.
 *  Returns 0; 1013 when name or pglobal is null or size is 0; 1003 when the record could not be made, the
 *  callback failed, the library is not started, or it is stopping and there is no such record. The next call
 *  tries again, unless growing the registry itself ran out of memory: then every call answers 1003 until the
 *  library is stopped and started again, and that stop runs no delete callbacks.
 *  Threads: any. Two first users at once get the one record. */
EKO_API int32 eko_globalGet(const char* name, size_t size, EKO_GLOBAL_CREATE_FCN create_fcn,
                            EKO_GLOBAL_DELETE_FCN delete_fcn, void** pglobal);

EKO_EXTERN_C_END

#endif
