// SPDX-License-Identifier: MIT
// Paths as text: the current and the full path, splitting and testing. "/" separates; there are no drives. Nothing
// here looks at what a path names, and no "." or ".." step is resolved.
//
// All memory is on the caller's tag, temporaries included: so a call fails in one way, and the outer edge reports
// and jumps by one rule. No state, no locks.

#include <errno.h>
#include <string.h>

#include "ekofile_int.h"

namespace {

constexpr size_t USUAL_PATH_BYTES = 1024; // longer ones take a second try

bool endsInSlash(const char* path)
{
    const size_t length = strlen(path);
    return length > 0 && path[length - 1] == '/';
}

const char* slashIfMissing(const char* path)
{
    return endsInSlash(path) ? "" : "/";
}

// The first `length` characters of a text that has as many.
char* tryCopyStart(const char* text, size_t length, EKO_MEMTAG tag, MemResult* result)
{
    auto* copy = static_cast<char*>(tryGetMem(length + 1, tag, EKO_MEM_COPY, text, result));
    if (copy)
        copy[length] = '\0';
    return copy;
}

// A path that stands for the current directory. "./x" does not.
bool meansCurrdir(const char* path)
{
    return !path || !*path || strcmp(path, ".") == 0 || strcmp(path, "./") == 0;
}

} // namespace

// ---- for the library's own use ----------------------------------------------------------------------------

// A longer buffer is taken anew instead of extended: a failed extension would lose the block of a tag that jumps,
// and a stack tag cannot extend.
char* tryCurrdir(EKO_MEMTAG tag, MemResult* result)
{
    if (disklessMode())
        return tryStrdup("/", tag, result);
    char usual[USUAL_PATH_BYTES];
    if (eko_getcwd(usual, sizeof(usual)))
        return tryStrdup(usual, tag, result);
    for (size_t size = 2 * sizeof(usual); errno == ERANGE; size *= 2) {
        auto* buffer = static_cast<char*>(tryGetMem(size, tag, EKO_MEM_PLAIN, nullptr, result));
        if (!buffer || eko_getcwd(buffer, size))
            return buffer;
        const ErrnoGuard keepErrno;
        EKO_FREE(buffer, tag);
    }
    *result = MemResult::refused;
    return nullptr;
}

// DELIBERATE: made for directories, so a "/" is put behind a file's name too, and no step is resolved: two
// spellings of one place stay two texts. Pinned by path_texts.
char* tryFullpath(const char* path, EKO_MEMTAG tag, MemResult* result)
{
    if (meansCurrdir(path))
        path = "";
    else if (*path == '/')
        return tryMakeStr(result, tag, "%s%s", path, slashIfMissing(path));
    char* currdir = tryCurrdir(tag, result);
    if (!currdir)
        return nullptr;
    char* full = tryMakeStr(result, tag, "%s%s%s%s", currdir, slashIfMissing(currdir), path,
                            *path ? slashIfMissing(path) : "");
    EKO_FREE(currdir, tag);
    return full;
}

int32 tryPathSplit(const char* path, char** dir, char** file, EKO_MEMTAG tag, MemResult* result)
{
    *result = MemResult::refused;
    if (dir)
        *dir = nullptr;
    if (file)
        *file = nullptr;
    if (!path || !dir || !file)
        return EKO_FAILED;
    const char* slash = strrchr(path, '/');
    const char* name = slash ? slash + 1 : path;
    char* nameCopy = nullptr;
    if (!slash || *name) {
        nameCopy = tryStrdup(name, tag, result);
        if (!nameCopy)
            return EKO_NO_MEMORY;
    }
    if (slash) {
        *dir = tryCopyStart(path, static_cast<size_t>(name - path), tag, result);
        if (!*dir) {
            EKO_FREE(nameCopy, tag);
            return EKO_NO_MEMORY;
        }
    }
    *file = nameCopy;
    return EKO_OK;
}

// ---- exported ---------------------------------------------------------------------------------------------

char* eko_currdirEx(EKO_MEMTAG tag)
{
    MemResult result;
    char* path = tryCurrdir(tag, &result);
    memFail(result, tag, __FILE__, __LINE__);
    return path;
}

char* eko_fullpathEx(const char* user_path, EKO_MEMTAG tag)
{
    MemResult result;
    char* path = tryFullpath(user_path, tag, &result);
    memFail(result, tag, __FILE__, __LINE__);
    return path;
}

int32 eko_pathSplitEx(const char* path, char** dir, char** file, EKO_MEMTAG tag)
{
    MemResult result;
    const int32 status = tryPathSplit(path, dir, file, tag, &result);
    memFail(result, tag, __FILE__, __LINE__);
    return status;
}

int32 eko_pathIsFullyQualified(const char* path)
{
    return path && *path == '/' ? 1 : 0;
}

int32 eko_pathIsDir(const char* path)
{
    if (!path || !*path)
        return -1;
    return endsInSlash(path) ? 1 : 0;
}

const char* eko_pathStripDrive(const char* path)
{
    return path;
}
