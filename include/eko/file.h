/* SPDX-License-Identifier: MIT */
/* file.h - files: the operating system's descriptors, and the library's own handles over them.
 *
 * Handles (EKO_FH) are what callers should use: they follow the read-only and diskless modes and can be backed
 * by a disk file, a file in memory or mapped views. Descriptors (EKO_FDESC) are the thin layer below.
 *
 * Any thread may call. A handle may be used by several threads for positional reads and writes, lengths, resizing,
 * sync and locks, as long as nobody closes it meanwhile. Seek followed by read or write is a race between threads.
 * No call leaves by longjmp. None retries when a signal interrupts it, nor continues after moving fewer bytes than
 * asked: callers look at the count. */
#ifndef EKO_FILE_H
#define EKO_FILE_H

#include "../ekoplat.h"

EKO_EXTERN_C_BEGIN

/** Offset or size in bytes. */
typedef uint64 EKO_FILE_OFFSET;

/** The current position, in positional calls; "no such file", from eko_fileLengthStat. */
#define EKO_FILE_NO_OFFSET ((EKO_FILE_OFFSET)-1)
/** A failed read or write. */
#define EKO_FILE_IO_FAILED 0xFFFFFFFFu

/** An open file; null is none. */
typedef struct EKOFTAB* EKO_FH;

/** Extra flags of an open. Bits not listed are carried and ignored. */
#define EKO_FILE_MAPPED ((uint16)0x0008)   /**< read and write through mapped views, positional calls only */
#define EKO_FILE_INMEMORY ((uint16)0x0040) /**< the file lives in memory, not on disk */
#define EKO_FILE_NOSYNC ((uint16)0x0200)   /**< eko_fileSync does nothing */

/* ---- three backings ------------------------------------------------------------------------------------- *
 *
 * Disk (no flag). The calls of the operating system.
 *
 * Memory (EKO_FILE_INMEMORY). The file is in a tree of directories that lives in the process until the library
 * stops, apart from the disk and from its modes. Names are found without regard to letter case (of ASCII letters).
 * A name without a leading "/" starts in the current directory ("/" in diskless mode). In front of the last "/" a
 * "\" separates too, and "." and ".." steps are resolved; but a "." right before the file's name is a directory of
 * that name (/a/./f), and so is an empty step (/a//f), while a ".." that leads back to the top leads nowhere
 * (/a/../f).
 * Files right under "/" are kept apart from the directories there, which cannot be removed, renamed or validated:
 * /a is a file, even where /a/f is one too.
 * Of the open flags only O_CREAT counts: it makes the file, and every directory on the way; O_TRUNC implies it, but
 * cuts nothing, and O_EXCL does not refuse. When memory runs out, nothing is made. Bytes never written read as
 * zero, but those that a shrink cut off may come back when the file grows again. A file that is removed while it is
 * open loses its bytes at once: its handles then read 0 and fail to write. A file lock is a plain mutex here: while
 * one thread holds it, the others wait in every read, write, resize, removal and open of that file. Such an open
 * holds the directory meanwhile, so others wait on the way there too, in the end all that name or close anything in
 * memory. A thread that holds a lock must therefore do neither until it unlocks, or both may wait for ever. Each
 * file and each directory takes one of the process's 131,072 mutexes and events.
 *
 * Mapped (EKO_FILE_MAPPED). A disk file seen through at most ten views of 1 MiB.
 *   - Only the positional calls move bytes: eko_fileRead and eko_fileWrite answer 0, eko_fileSeek 1002, and
 *     EKO_FILE_NO_OFFSET fails.
 *   - A write must not cross a multiple of 1 MiB. The piece behind the boundary is NOT written there: it is written
 *     again where the write began. Cut writes at the boundary. Reads may cross it.
 *   - Opening for writing extends the file to the next multiple of 1 MiB, with zeros, and so does a write that ends
 *     beyond its end; eko_fileLength tells that length. eko_fileSetSize also rounds up, and does nothing when the
 *     size is such a multiple already. To give a file its true length, set it through a handle that is not mapped.
 *   - A write beyond the end that would end exactly on a multiple of 1 MiB fails; eko_fileSetSize to one byte more
 *     makes the room.
 *   - Open with O_RDWR to write: a page cannot be written only. A handle opened O_WRONLY fails at the first
 *     access, one opened O_RDONLY at the first write.
 *   - A view that the system refuses to map fails the read or write, and standard output gets
 *     "mmap(NULL, %u, %d, %d, %u) failed with error %d\n": size, protection, descriptor, offset, error number.
 *   - Where the length cannot be set (a limit, a full disk, a handle for reading) the resize does not tell; reads
 *     and writes of what is not there then fail.
 *   - Nothing else may resize the file meanwhile. Extending cuts what others appended, and the system ends a
 *     process (SIGBUS) that touches a page which others cut off, or a hole that a full disk cannot fill.
 *   - In a 32-bit build only the first 4 GiB can be mapped: offsets beyond are taken modulo 4 GiB.
 *   - In read-only mode a write moves nothing, while eko_fileSetSize still resizes. */

/* ---- handles -------------------------------------------------------------------------------------------- *
 *
 * Null for a handle, for the name of a file, or for bytes to be moved, is refused: 1002, EKO_FILE_IO_FAILED, no
 * size, no time. */

/** Opens a file.
 *  name    a path, passed to the system as it stands. Exactly "stdin", "stdout" and "stderr" are the process's
 *          own streams, whatever the mode of the library; closing them leaves the descriptor open. Not so with
 *          EKO_FILE_INMEMORY.
 *  flags   open flags of the system, from <fcntl.h>: O_RDONLY, O_CREAT and so on; O_TRUNC implies O_CREAT. New
 *          files get the mode 0666 less the umask. Descriptors are inherited by children unless O_CLOEXEC is among
 *          them.
 *  xflags  EKO_FILE_..., see "three backings" above. Standard streams and files in memory are never mapped.
 *  Returns the handle, or null: library not started, null name, no memory, refused by the system, no such file in
 *  memory, a map that cannot be made, or refused by read-only mode (any of write, read-write, create) or by
 *  diskless mode (any disk file). errno then tells the system's reason, and is left alone where the library itself
 *  refuses. A directory opens for reading.
 *  eko_fileOpenW takes the name as a wide string. */
EKO_API EKO_FH eko_fileOpen(const char* name, uint32 flags, uint16 xflags);
EKO_API EKO_FH eko_fileOpenW(const wchar_t* name, uint32 flags, uint16 xflags);

/** Closes a handle; null is ignored. Unlock it first: closing destroys the mutex of a held lock. */
EKO_API void eko_fileClose(EKO_FH fh);

/** Moves the current position; origin as for lseek, and `off` may be a negative number cast to its type. Returns 0;
 *  1002 when refused, and always for a mapped handle. */
EKO_API int32 eko_fileSeek(EKO_FH fh, EKO_FILE_OFFSET off, int32 origin);

/** Moves bytes at the current position. Returns the bytes moved, which may be fewer than asked, 0 at the end of
 *  the file; EKO_FILE_IO_FAILED on error, on disk after "Write failed, errno = %d\n" on standard error, or
 *  "Read failed, errno = %d\n" in the log. 0 for size 0, for a mapped handle, and for writes in read-only
 *  mode, to files in memory excepted: a loop "until all is written" must stop at 0. */
EKO_API uint32 eko_fileWrite(EKO_FH fh, const void* buf, uint32 size);
EKO_API uint32 eko_fileRead(EKO_FH fh, void* buf, uint32 size);

/** Moves bytes at `off`, leaving the current position alone; for EKO_FILE_NO_OFFSET at the current
 *  position, which then moves.
 *  Returns as the two calls above, except that a mapped handle works and that a failure logs
 *  "Failed to seek and %s, errno = %d\n". */
EKO_API uint32 eko_fileSeekWrite(EKO_FH fh, EKO_FILE_OFFSET off, const void* buf, uint32 size);
EKO_API uint32 eko_fileSeekRead(EKO_FH fh, EKO_FILE_OFFSET off, void* buf, uint32 size);

/** The file's size in bytes; 0 when it cannot be had. */
EKO_API EKO_FILE_OFFSET eko_fileLength(EKO_FH fh);

/** The size of the file of that name; EKO_FILE_NO_OFFSET when there is none on disk, 0 when none in memory.
 *  In a 32-bit build a disk file of 2 GiB or more counts as absent. Surprise: diskless mode is not asked. */
EKO_API EKO_FILE_OFFSET eko_fileLengthStat(const char* name, uint16 xflags);

/** Cuts or extends a file. Returns 0; -1 in read-only mode and where the system refuses; 1003 when a file in memory
 *  cannot be given that size; 1002 for a null handle, and in memory once the library has stopped. */
EKO_API int32 eko_fileSetSize(EKO_FH fh, EKO_FILE_OFFSET size);

/** Locks a file against other processes and against other threads of this one that lock through the same
 *  handle: threads wait for each other, another process, or another handle of this one, is refused at once. It is
 *  an advisory lock (flock) on the whole file: it stops only those who lock, any mode of opening serves, and
 *  children that inherit the handle have it too.
 *  Returns 0, or 1002 when refused. A thread may lock again what it has locked; but the lock against other
 *  processes does not count, it ends with the first unlock. eko_fileUnlock by a thread that holds no lock
 *  frees another's. Where the table of mutexes is full, which is logged, threads are not kept apart. It ends with
 *  eko_fileUnlock, when all copies of the descriptor are closed, or with the process. For files in memory it is
 *  another lock, which keeps others from reading and writing too: see "three backings". */
EKO_API int32 eko_fileLock(EKO_FH fh);
EKO_API void eko_fileUnlock(EKO_FH fh);

/** Waits until what was written is on the disk. Returns 0, also without doing anything for files in memory, for
 *  EKO_FILE_NOSYNC and in read-only mode; 1002 when the system fails, as it does for terminals and pipes. */
EKO_API int32 eko_fileSync(EKO_FH fh);

/** The time of the last change to the file of that name; -1 when it cannot be had, and for a disk file in
 *  diskless mode; 0 for a file in memory that does not exist or was never written. */
EKO_API time64_t eko_fileModTimeStat(const char* name, uint16 xflags);

/* ---- descriptors: no modes, no checks, no state -------------------------------------------------------- */

/** Opens a file with the system's flags and mode 0666 less the umask; xflags is ignored. Returns 0 with the
 *  descriptor in `*desc`; else the system's error number with EKO_FDESC_NONE. */
EKO_API int32 eko_flOpen(const char* path, uint32 flags, uint16 xflags, EKO_FDESC* desc);
/** Returns what the system's close returns, 0 or -1. */
EKO_API int32 eko_flClose(EKO_FDESC desc);
/** Returns 0, or 1002. */
EKO_API int32 eko_flSeek(EKO_FDESC desc, EKO_FILE_OFFSET off, int32 origin);
/** Move bytes at the current position, clearing errno first. Return the count, which may be short;
 *  EKO_FILE_IO_FAILED on error. */
EKO_API uint32 eko_flWrite(EKO_FDESC desc, const void* buf, uint32 size);
EKO_API uint32 eko_flRead(EKO_FDESC desc, void* buf, uint32 size);
/** Returns what the system's ftruncate returns, 0 or -1. */
EKO_API int32 eko_flSetSize(EKO_FDESC desc, EKO_FILE_OFFSET size);
/** Removes a file or an empty directory. Returns 0 or -1. */
EKO_API int32 eko_flRemove(const char* path);

EKO_EXTERN_C_END

#endif
