// SPDX-License-Identifier: MIT
// Operating-system calls for paths and directories, made once, as asked. No state, no locks.

#include <errno.h>
#include <libgen.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ekofile_int.h"

namespace {

constexpr mode_t NEW_DIR_MODE = 0777;
constexpr size_t DIRNAME_BYTES = 512;

bool sameNode(const struct stat64& a, const struct stat64& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

const char* lastComponent(const char* path)
{
    const char* slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

// The directory that holds a name which the system has accepted: so the name is shorter than PATH_MAX.
bool statParent(const char* path, struct stat64* st)
{
    char parent[PATH_MAX] = ".";
    const size_t length = static_cast<size_t>(lastComponent(path) - path);
    if (length >= sizeof(parent))
        return false;
    if (length > 0) {
        memcpy(parent, path, length);
        parent[length] = '\0';
    }
    return stat64(parent, st) == 0;
}

// Of what has one link, and of a directory, the node tells, also where the file system takes "A" for "a". Of a file
// with several links the parents and last components tell. Links are not followed.
bool sameEntry(const char* a, const char* b)
{
    struct stat64 nodeA;
    struct stat64 nodeB;
    if (lstat64(a, &nodeA) != 0 || lstat64(b, &nodeB) != 0 || !sameNode(nodeA, nodeB))
        return false;
    if (S_ISDIR(nodeA.st_mode) || nodeA.st_nlink == 1)
        return true;
    struct stat64 parentA;
    struct stat64 parentB;
    return strcmp(lastComponent(a), lastComponent(b)) == 0 && statParent(a, &parentA) && statParent(b, &parentB) &&
           sameNode(parentA, parentB);
}

} // namespace

char* eko_getcwd(char* buffer, size_t length)
{
    return getcwd(buffer, length);
}

int32 eko_dirnameEx(const char* full_path, char* buffer, EKO_MEMTAG tag)
{
    if (!full_path || !buffer)
        return EKO_FAILED;
    MemResult result;
    auto* copy = tryStrdup(full_path, tag, &result); // dirname changes it
    if (!copy) {
        memFail(result, tag, __FILE__, __LINE__);
        return EKO_NO_MEMORY;
    }
    const char* name = dirname(copy);
    const size_t length = strnlen(name, DIRNAME_BYTES);
    const bool fits = length < DIRNAME_BYTES;
    const size_t kept = fits ? length : DIRNAME_BYTES - 1;
    memcpy(buffer, name, kept);
    buffer[kept] = '\0';
    EKO_FREE(copy, tag);
    return fits ? EKO_OK : EKO_TOO_SMALL;
}

int32 eko_dirCreate(const char* directory)
{
    if (!directory || disklessMode())
        return EKO_FAILED;
    if (mkdir(directory, NEW_DIR_MODE) == 0)
        return EKO_OK;
    return errno == EEXIST ? EKO_DIR_EXISTS : EKO_FAILED;
}

int32 eko_dirRemove(const char* directory)
{
    if (!directory || disklessMode())
        return EKO_FAILED;
    return rmdir(directory) == 0 || errno == ENOENT ? EKO_OK : EKO_FAILED;
}

bool leadsToEntry(const char* name, const char* entry)
{
    if (sameEntry(name, entry))
        return true;
    struct stat64 node;
    if (lstat64(name, &node) != 0 || !S_ISLNK(node.st_mode))
        return false;
    char target[PATH_MAX];
    return realpath(name, target) && sameEntry(target, entry);
}
