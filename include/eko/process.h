/* SPDX-License-Identifier: MIT */
/* process.h - services of the process: temporary directory, commands, start as a daemon, interrupts, environment,
 * locale, errors.
 *
 * Strings that a call makes are on the tag it names, EKO_THREAD_TAG for those that take no tag, and belong to the
 * caller; such a call may leave by longjmp when that tag has a jump buffer. Any thread may call, where nothing else
 * is said, but no signal handler. Calls read the environment without a lock: nobody may call setenv or putenv
 * meanwhile, in any thread. */
#ifndef EKO_PROCESS_H
#define EKO_PROCESS_H

#include "mem.h"

EKO_EXTERN_C_BEGIN

/* ---- temporary directory ---------------------------------------------------------------------------------- *
 *
 * In read-only and in diskless mode no directory is writable, and so none is found, since nothing can be created
 * there to see; a name that was found before stays, and so does TOV_TMPDIR.
 *
 * In a directory that everybody may write to everybody can plant links: the names of the files that are created
 * there can be guessed, and a link of that name is followed. Where that matters set TOV_TMPDIR to a directory of
 * one's own. */

/** A copy of the name of the directory for temporary files: the value of the environment variable TOV_TMPDIR, which
 *  is used as it is and not tried, or else what eko_findOStmpdir finds. That search is made once and its result
 *  kept until the library stops; when it finds none, the next call searches again.
 *  Returns null when there is no such directory, without memory, and when the library is not started.
 *  Threads: any. Not in a callback of the library that creates or deletes a named global or destroys a tag: the
 *  critical section is taken, which whoever starts or stops the library holds. */
EKO_API const char* eko_tmpdir(EKO_MEMTAG tag);

/** Searches anew, leaving alone what eko_tmpdir remembers: the first writable directory of the values of TMPDIR and
 *  TEMPDIR, where they are set, "/tmp", and the current directory. Returns a copy, or null as eko_tmpdir.
 *  Surprise: a variable that is set to nothing names the root directory. */
EKO_API const char* eko_findOStmpdir(EKO_MEMTAG tag);

/** Whether a file can be created in a directory: 1 if so, 0 if not, and for null. The file, named
 *  "tov_dirtest_tmp" with the process and the thread, is created and removed again.
 *  Surprise: the path is cut to 511 bytes, so the answer for a longer name is about a directory on its way, if the
 *  rest of the name is new there. */
EKO_API int32 eko_dirWritable(const char* dir);

/* ---- commands --------------------------------------------------------------------------------------------- */

/** Runs a program and waits for it. The command is `filepath`, a blank, and the text formatted from `fmt`.
 *  The whole text, filepath included, goes to the shell: blanks separate, and "$", "*", ";" and quotes mean what
 *  they mean there. Never put together a command from what a stranger has written.
 *  fcnretp  receives what the system's `system` returned, on 0 only; may be null. It is a wait status, for
 *           WIFEXITED and its like of <sys/wait.h>; a program that is not found has an exit status of 127.
 *  fmt      see format.h; null for no arguments.
 *  Returns 0 when the shell was run, whatever became of the program; 1013 for a null filepath; 1003 when the text
 *  cannot be put together or the library is not started; 1002 when the shell could not be run, or SIGCHLD is
 *  ignored, so that its end is not seen.
 *  The program's output does not wait for what eko_printf holds back: flush first. Never jumps. */
EKO_API int32 eko_execfile(const char* filepath, int32* fcnretp, const char* fmt, ...) EKO_PRINTF_CHECK(3, 4);

/** The C library's `system`, with its results: the wait status or -1; for null, not 0 when there is a shell. */
EKO_API int32 eko_system(const char* command);

/** The identifier of the process. */
EKO_API uint32 eko_get_pid(void);

/* ---- start as a daemon ------------------------------------------------------------------------------------ *
 *
 *      EKO_DAEMON_CTX ctx;
 *      if (eko_daemonStart("server", &ctx) != 0)
 *          return 1;
 *      ...                          // only the daemon comes here: open files, start threads
 *      eko_daemonComplete(ctx);     // "server started successfully." on the terminal
 *
 * The launching process waits until the daemon reports, or ends:
 *      reported             "%s started successfully.\n" through eko_log, exit status 0
 *      pipe closed, silent  the same, two seconds later, if the daemon lives then
 *      exited               "%s startup aborted with a status of %d.\r\n", that status
 *      killed by a signal   "%s terminated by internal error or external signal (%d).\r\n", minus the signal's
 *                           number (in a shell, 256 minus it)
 *      stopped              "Unexpected status signal from %s child process.\r\n", 99
 * The last three go to descriptor 2, cut to 1023 bytes. A daemon that ends at once after its report may be taken
 * for one whose start was aborted. The launching process leaves by `exit` after the first two, so that its atexit
 * handlers run, and by `_exit` after the others.
 *
 * The daemon is a process of its own session. Its descriptors 0, 1 and 2 are the null device, so that no file gets
 * these numbers and is written to by what prints; eko_background is 1, so that logs go to the log file alone. Its
 * umask is 0: unless it sets another, everybody may write to the files that it creates. It stays in the current
 * directory. */

/** What a daemon reports its start with; null is none. It does not survive an exec. */
typedef const void* EKO_DAEMON_CTX;

/** Goes on in a new process, as above. To be called before any thread is started: a lock that another thread holds
 *  at that moment stays locked in the daemon for ever. Console and C streams are flushed first; streams of
 *  eko_fopen that are open for writing should be by the caller, or what they hold is written twice. The library
 *  may be started or not; the daemon has what was started and opened.
 *  name  for the messages; must remain valid.
 *  ctx   receives the context for eko_daemonComplete.
 *  Returns 0 in the daemon. In the caller only when there is no daemon, with all as it was: 1002 when a pipe, the
 *  null device or a process cannot be had; 1013 for null arguments. SIGCHLD is the launching process's
 *  from then on; the daemon has it as the caller had. */
EKO_API int32 eko_daemonStart(const char* name, EKO_DAEMON_CTX* ctx);

/** Reports that the daemon has started, once. Null is ignored. The library should be started by then: when somebody
 *  has ended the launching process meanwhile, SIGPIPE comes, which is ignored from eko_init on. */
EKO_API void eko_daemonComplete(EKO_DAEMON_CTX ctx);

/* ---- interrupts, messages --------------------------------------------------------------------------------- */

/** Called on an interrupt. */
typedef void INTERRUPT_FCN(void);

/** Has `fcn` called on each SIGINT, or with null has it ignored. Interrupts that come while it runs are dropped.
 *  Calls of the system that it interrupts go on, as far as the system restarts them. For the whole process; threads
 *  that the library started do not get it.
 *  The function runs as a signal handler does, in the middle of anything: it may set a flag, of type
 *  volatile sig_atomic_t, or write to a descriptor, but call nothing of this library, take no memory and print
 *  nothing. It must return. Returns 0. */
EKO_API int32 eko_handleInterrupt(INTERRUPT_FCN* fcn);

/** Prints a message and a line end to the C library's standard output, not to standard error, and past what
 *  eko_stdout_open redirects. Null prints nothing. */
EKO_API void eko_errPrint(const char* msg);

/* ---- environment, locale, errors -------------------------------------------------------------------------- */

/** The value of an environment variable, which is not to be changed or freed; null when it is not set, and for
 *  null. eko_getenvW gives a new wide string; null also when name or value is not UTF-8, or memory runs out. */
EKO_API const char* eko_getenv(const char* var);
EKO_API wchar_t* eko_getenvW(const wchar_t* var);

/** The C library's `setlocale`: with null for `locale` it asks for the present one. Returns its name, valid until
 *  the next call; null when refused. eko_setlocaleW gives a new wide string; null also as above: the locale may
 *  then be set nevertheless. Not while another thread formats, converts letter case or asks for the locale. */
EKO_API const char* eko_setlocale(int category, const char* locale);
EKO_API wchar_t* eko_setlocaleW(int category, const wchar_t* locale);

/** The calling thread's errno. */
EKO_API int32 eko_errno(void);

/** Stores the system's text for an error number, in the language of the locale, cut to len - 1 bytes and
 *  terminated.
 *  Returns 0; 1014 when it was cut, or len is below 2 and nothing was stored; 1002 for a null buff.
 *  Surprise: for a number that the system does not know the text may be cut and the answer still 0. */
EKO_API int32 eko_strerr(int32 err, char* buff, size_t len);

/* ---- services: shared with platforms that have them ------------------------------------------------------- */

/** Calls fcn(argc, argv) and returns its result; 1013 for a null fcn. Name and `done` are not used. */
EKO_API int32 eko_serviceStart(const char* name, uint16* done, int32 argc, const char** argv,
                               int32 (*fcn)(int32 argc, const char** argv));

/** Both do nothing. */
EKO_API void eko_serviceStarted(void);
EKO_API void eko_serviceDone(void);

/** Both return 1002, whatever their arguments. */
EKO_API int32 eko_serviceInstall(const char* name, const char* exename, const char* title, const char* desc,
                                 const char* path, const char* opts, const char* userAccount,
                                 const char* userPassword);
EKO_API int32 eko_serviceUninstall(const char* name, const char* exename);

EKO_EXTERN_C_END

#endif
