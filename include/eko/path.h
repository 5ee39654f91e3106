/* SPDX-License-Identifier: MIT */
/* path.h - names: paths, directories, and what is done to files by name.
 *
 * Names are UTF-8 and go to the system as they stand; "/" separates. Calls ending in W take wide strings instead
 * and do what the narrow form does. A wide name that is null or not of valid characters, or for which memory runs
 * out (which is reported), gives the failure that the call's comment names, and nothing is done. Calls without Ex
 * are those with Ex and extra flags of 0: the disk.
 *
 * xflags are those of eko_fileOpen (file.h). What has EKO_FILE_INMEMORY lives in the memory file system, see "three
 * backings" there: it follows no mode, and its names are found without regard to letter case.
 *
 * Modes of the library. Diskless mode refuses all on disk: 1002, 0 or null. Read-only mode refuses to remove,
 * rename, move and copy to disk (1002), but not to make and remove directories.
 *
 * Letter case. The disk tells "A.txt" from "a.txt", but the calls on two names do not: eko_fileMove, eko_fileCmp
 * and eko_dirMove take them for the same file and answer 0 without doing or looking at anything, even when there is
 * no such file. Rename a file to another case with eko_fileRename.
 *
 * A null name is refused: 1002, 0 or null. Any thread may call; two threads that change the same names race, as two
 * processes do. On failure errno tells the system's reason, where it has one. Calls that take a tag may leave by
 * longjmp when its memory runs out, with nothing left behind; the others report and fail. No call retries when a
 * signal interrupts it. */
#ifndef EKO_PATH_H
#define EKO_PATH_H

#include "file.h"
#include "mem.h"

EKO_EXTERN_C_BEGIN

/* ---- paths as text ---------------------------------------------------------------------------------------- *
 *
 * No call here resolves a "." or ".." step or a link: two spellings of one place stay two texts. Results are new
 * blocks on `tag`, to be freed with it. */

/** The current directory, of any length, without a "/" at its end, except "/" itself; "/" in diskless mode. Null
 *  when the system cannot tell it, for example because it was removed, or when memory runs out. */
EKO_API char* eko_currdirEx(EKO_MEMTAG tag);

/** The system's getcwd, unchanged: null and errno on failure; a null buffer makes it malloc one, to be freed by
 *  free. Knows nothing of diskless mode. */
EKO_API char* eko_getcwd(char* buffer, size_t length);

/** Returns 1 when the path begins with "/", else 0, also for null. */
EKO_API int32 eko_pathIsFullyQualified(const char* path);

/** The absolute form of a directory's path, always ending in "/". A file's name gets that "/" too.
 *  user_path  what does not begin with "/" is put behind the current directory. Null, "", "." and "./" are the
 *             current directory itself; "./x" and "../x" are kept as they stand: "/here/./x/", "/here/../x/".
 *  Returns null when the current directory is needed and cannot be had, or when memory runs out. */
EKO_API char* eko_fullpathEx(const char* user_path, EKO_MEMTAG tag);

/** Returns 1 when the path ends in "/", 0 when not, -1 for null or "". Looks at the text alone, not at the disk. */
EKO_API int32 eko_pathIsDir(const char* path);

/** Splits a path behind its last "/".
 *  dir   receives the text up to the "/" and with it; null when there is none.
 *  file  receives the text behind it, the whole path when there is no "/"; null when the path ends in "/".
 *  Returns 0; 1003 when memory runs out; 1002 for a null argument. On failure both outputs are null. */
EKO_API int32 eko_pathSplitEx(const char* path, char** dir, char** file, EKO_MEMTAG tag);

/** Returns `path`: there are no drives on this platform. */
EKO_API const char* eko_pathStripDrive(const char* path);

/** Stores the system's dirname of a path: "/a" for "/a/b" and for "/a/b/", "." for "b", "/" for "/b".
 *  buffer  room for 512 bytes, whatever the path.
 *  tag     for a working copy, freed before return.
 *  Returns 0; 1014 when the result was cut to 511 bytes; 1003 when memory runs out; 1002 for a null argument. The
 *  buffer is terminated after 0 and 1014, else untouched. */
EKO_API int32 eko_dirnameEx(const char* full_path, char* buffer, EKO_MEMTAG tag);

/* ---- directories on disk ---------------------------------------------------------------------------------- *
 *
 * A failed conversion is 1002. In memory, directories come with the files in them, and stay when these are gone;
 * eko_fileRemoveEx removes one that is not directly in the root. */

/** Creates a directory, with mode 0777 less the umask. Returns 0; 1006 when there is something of that name, a
 *  directory or not; 1002. */
EKO_API int32 eko_dirCreate(const char* directory);
EKO_API int32 eko_dirCreateW(const wchar_t* directory);

/** Removes an empty directory. Returns 0, also when there is none of that name; 1002. */
EKO_API int32 eko_dirRemove(const char* directory);
EKO_API int32 eko_dirRemoveW(const wchar_t* directory);

/** Creates a directory and those above it that are missing.
 *  Returns 0; 1006 when it exists; else the first failure: 1002, or 1003 when memory runs out. What was created up
 *  to there stays. Surprises:
 *    - a path ending in "/" whose upper directories were missing is created, and the answer is 1006. Take 1006 for
 *      "it is there".
 *    - "\" separates too, but only where upper directories are missing: else "a\b" is one new name with a "\" in
 *      it. */
EKO_API int32 eko_dirCreateAll(const char* directory);
EKO_API int32 eko_dirCreateAllW(const wchar_t* directory);

/** Moves a directory: as a whole by renaming it (see eko_fileRenameEx), or else its files one by one, as
 *  eko_fileMoveEx does, to the destination, which is created if need be.
 *    - One by one, subdirectories stay where they are with all they hold, and the answer is still 0. The source
 *      directory is then removed if it is on disk and nothing is left in it.
 *    - A file of the destination with the name of one that is moved is lost; its other files stay.
 *    - The first file that cannot be moved ends the move; those moved before it stay moved.
 *    - In memory, neither path may end in "/", and a source is walked by eko_pathOpenEx's rules: it begins with
 *      "/".
 *  Returns 0 moved, or the same name (see "Letter case"); the status of a file that could not be moved, or of the
 *  destination that could not be created; 1003 when memory runs out; 1006 for a source without files and a new
 *  "new/sub/"; else 1002: refused, or NOTHING TO MOVE: a source without files and a destination that exists or is
 *  in memory. A source that is not there has no files: when the destination could be created, that is 0. */
EKO_API int32 eko_dirMoveEx(const char* src, uint16 src_xflags, const char* dest, uint16 dest_xflags);
EKO_API int32 eko_dirMoveExW(const wchar_t* src, uint16 src_xflags, const wchar_t* dest, uint16 dest_xflags);
EKO_API int32 eko_dirMove(const char* src, const char* dest);
EKO_API int32 eko_dirMoveW(const wchar_t* src, const wchar_t* dest);

/* ---- walking a directory ---------------------------------------------------------------------------------- */

/** Begins a walk over the names of a directory that fit a pattern.
 *  path     on disk any directory; in memory it must begin with "/", is not completed by the current directory, and
 *           must not end in "/", except "/" itself: that is the root's files without its directories, and cannot
 *           be read before there was one.
 *  pattern  without regard to the case of ASCII letters, "?" stands for one byte, and "*" for any number of them,
 *           also none. The character behind a "*" stands for itself, even "?" or "*": so "*?" fits only names with
 *           a "?" in them, and "**" only those with a "*" that nothing follows. "*" alone fits all.
 *  Returns the walk, to be closed by eko_pathClose; null when the directory cannot be read, is refused, or memory
 *  runs out, or a wide argument cannot be converted. */
EKO_API EKO_DIR eko_pathOpenEx(const char* path, uint16 xflags, const char* pattern);
EKO_API EKO_DIR eko_pathOpenExW(const wchar_t* path, uint16 xflags, const wchar_t* pattern);
EKO_API EKO_DIR eko_pathOpen(const char* path, const char* pattern);
EKO_API EKO_DIR eko_pathOpenW(const wchar_t* path, const wchar_t* pattern);

/** The next name, without the directory, valid until the next call for this walk or its close; null at the end, and
 *  when memory runs out, which is reported.
 *  dir    from any of the calls above; null answers null. One thread at a time.
 *  isdir  receives 1 for a directory, 0 for anything else, a link to a directory among it; may be null. Untouched
 *         at the end.
 *  On disk names come in the system's order, with "." and ".." when they fit; in memory sorted without regard to
 *  case, each name once. Names that come or go meanwhile may be seen or not. A walk goes on to its end when its
 *  directory is removed. eko_pathNextW shows what is not UTF-8 in a name as U+FFFD: such a file cannot be opened by
 *  its wide name. */
EKO_API const char* eko_pathNext(EKO_DIR dir, int32* isdir);
EKO_API const wchar_t* eko_pathNextW(EKO_DIR dir, int32* isdir);

/** Ends a walk; null is ignored. */
EKO_API void eko_pathClose(EKO_DIR dir);

/* ---- files by name ---------------------------------------------------------------------------------------- */

/** Copies a file. The destination is created if need be; blocks of 1024 bytes that it holds already are not written
 *  again, and what it has beyond the source's length is cut off. It is not synced, and keeps its own mode.
 *    - On disk a file copied onto itself is opened twice and not changed. Both in memory, the same name is 0 at
 *      once, even when there is no such file.
 *    - The source's length is taken at the start: what is appended meanwhile is not copied. A pipe has the length
 *      0.
 *    - A destination with EKO_FILE_MAPPED ends at a multiple of 1 MiB. Behind what was copied it has what it held
 *      there before, or zeros.
 *    - "stdin", "stdout" and "stderr" are the process's streams here as in eko_fileOpen.
 *  Returns 0, or 1002: also for a failed conversion, for want of memory, and for a source that became shorter
 *  meanwhile. The destination then holds the blocks copied so far over what it held before. */
EKO_API int32 eko_fileCopyEx(const char* src_name, uint16 src_xflags, const char* dest_name, uint16 dest_xflags);
EKO_API int32 eko_fileCopyExW(const wchar_t* src_name, uint16 src_xflags, const wchar_t* dest_name,
                              uint16 dest_xflags);
EKO_API int32 eko_fileCopy(const char* src_name, const char* dest_name);
EKO_API int32 eko_fileCopyW(const wchar_t* src_name, const wchar_t* dest_name);

/** Compares the bytes of two files.
 *  Returns 0 equal, or the same name (see "Letter case"); 1002 different, cannot be read, or a failed conversion;
 *  1007 the first, 1008 the second cannot be opened; 1003 when there is no memory for its two blocks. Where the
 *  first file ends, one more byte is tried from the second: if that read FAILS the files count as equal. */
EKO_API int32 eko_fileCmpEx(const char* src_name, uint16 src_xflags, const char* dest_name, uint16 dest_xflags);
EKO_API int32 eko_fileCmpExW(const wchar_t* src_name, uint16 src_xflags, const wchar_t* dest_name,
                             uint16 dest_xflags);
EKO_API int32 eko_fileCmp(const char* src_name, const char* dest_name);
EKO_API int32 eko_fileCmpW(const wchar_t* src_name, const wchar_t* dest_name);

/** Moves a file to a name, in this order: removes what has that name, renames, and where that cannot be done copies
 *  and removes the source. Of the flags only EKO_FILE_INMEMORY counts.
 *    - THE DESTINATION IS REMOVED FIRST. When there is no source, or the copy fails, it is lost all the same. To
 *      replace a file safely on one disk, use eko_fileRename.
 *    - What is removed may be an empty directory; in memory, a directory with all that is in it, unless that is the
 *      source: 1002.
 *    - Two names of one directory entry, "a" and "./a", are left alone: 0, in memory too. So are a symbolic link
 *      and the file it leads to, when the link is moved there. Two hard links are two entries: one is left.
 *    - After a copy, a source that cannot be removed stays, and the answer is still 0.
 *  Returns 0, or the status of the copy, 1002: then the source is as it was. 1002 for a failed conversion too. */
EKO_API int32 eko_fileMoveEx(const char* src, uint16 src_xflags, const char* dest, uint16 dest_xflags);
EKO_API int32 eko_fileMoveExW(const wchar_t* src, uint16 src_xflags, const wchar_t* dest, uint16 dest_xflags);
EKO_API int32 eko_fileMove(const char* src, const char* dest);
EKO_API int32 eko_fileMoveW(const wchar_t* src, const wchar_t* dest);

/** Removes a file or an empty directory; in memory, a directory not directly in the root, with all that is in it.
 *  Returns 0; on disk the system's -1, or 1002 where a mode refuses it; in memory 1002 when there is none; 1003 for
 *  a failed conversion. eko_fileRemoveExW IGNORES its flags and always removes from disk. */
EKO_API int32 eko_fileRemoveEx(const char* name, uint16 xflags);
EKO_API int32 eko_fileRemoveExW(const wchar_t* name, uint16 xflags);
EKO_API int32 eko_fileRemove(const char* name);
EKO_API int32 eko_fileRemoveW(const wchar_t* name);

/** Renames a file or a directory: on disk as the system does, replacing a file of that name in one step; in memory
 *  only within one directory, and without removing what has that name already: both stay, and the renamed one hides
 *  the other until it is removed.
 *  Returns 0; on disk the system's -1, or 1002 where a mode refuses it; in memory 1002; 1002 from disk to memory or
 *  back; 1003 for a failed conversion. */
EKO_API int32 eko_fileRenameEx(const char* src, uint16 src_xflags, const char* dest, uint16 dest_xflags);
EKO_API int32 eko_fileRenameExW(const wchar_t* src, uint16 src_xflags, const wchar_t* dest, uint16 dest_xflags);
EKO_API int32 eko_fileRename(const char* src, const char* dest);
EKO_API int32 eko_fileRenameW(const wchar_t* src, const wchar_t* dest);

/** Whether there is a usable file of that name. Returns 1 or 0; 0 for a failed conversion.
 *  isdir  may be null; receives 1 for a directory, 0 for anything else and when the answer is 0. On disk it also
 *         decides what "usable" means: with it, that the name exists; without, that it can be opened for reading,
 *         which a directory can, and which waits at a FIFO for a writer. In a 32-bit build a file of 2 GiB or more
 *         does not exist by the first rule. */
EKO_API int32 eko_fileValidateEx(const char* name, uint16 xflags, int32* isdir);
EKO_API int32 eko_fileValidateExW(const wchar_t* name, uint16 xflags, int32* isdir);
EKO_API int32 eko_fileValidate(const char* name, int32* isdir);
EKO_API int32 eko_fileValidateW(const wchar_t* name, int32* isdir);

/** A name for a temporary file, such as "/tmp/temp_0x7ffe6f354868_0000030749_000.tmp": "%s%c%s_%p_%010u_%03u.%s" of
 *  the temporary directory (eko_tmpdir), "/", the base name, the address `puFileNo`, the process's id, the counter,
 *  and the extension. With EKO_FILE_INMEMORY, and where no temporary directory can be found (as in diskless and
 *  read-only mode, unless TOV_TMPDIR is set or it was found before), the name begins with the "/".
 *  puFileNo     the caller's counter, read and then raised by 1, without a lock; null asserts. Names differ as long
 *               as a counter is not used twice at one value: from 000, with more digits behind 999.
 *  pszBaseName  null for "temp".
 *  pszExt       null for "tmp".
 *  Returns a new string on `tag`; null when memory runs out.
 *  The name can be guessed and nothing is created: open it with O_CREAT | O_EXCL; in memory O_EXCL does nothing. */
EKO_API char* eko_fileCreateTmpName(uint32* puFileNo, const char* pszBaseName, const char* pszExt, uint16 xflags,
                                    EKO_MEMTAG tag);

EKO_EXTERN_C_END

#endif
