/* path.h - names: paths, directories, and what is done to files by name. */
#ifndef EKO_PATH_H
#define EKO_PATH_H

#include "mem.h"

EKO_EXTERN_C_BEGIN

/* ---- paths as text ---------------------------------------------------------------------------------------- *
 *
 * "/" separates ("\" only where a call says so), and no call resolves a "." or ".." step or a link: two spellings
 * of one place stay two texts. Results are new blocks on `tag`, to be freed with it. Where memory for one runs
 * out, the call fails with nothing left behind, after the report and, if the tag has a jump buffer, by longjmp. */

/** The current directory, of any length, without a "/" at its end; "/" in diskless mode. Null when the system
 *  cannot tell it, for example because it was removed (errno says why), or when memory runs out. */
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

EKO_API int32 eko_fileRemoveEx(const char* name, uint16 xflags);
EKO_API int32 eko_fileRenameEx(const char* src, uint16 src_xflags, const char* dest, uint16 dest_xflags);

EKO_EXTERN_C_END

#endif
