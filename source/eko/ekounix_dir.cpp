// SPDX-License-Identifier: MIT
// Directories of the operating system, listed name by name. Memory is on the global tag; no locks: an iteration
// belongs to one thread at a time.
//
// Entries are read in their 64-bit form in every build: the narrow one stops at the first inode number that does
// not fit, and the rest of the directory would be missing.

#include <dirent.h>

#include "ekofile_int.h"

struct FILE_DIR_ENTRY {
    DIR* entry; // the system's stream
    char* path; // copies of what the caller gave
    char* pattern;
    char* tmp; // the last name returned
};

namespace {

bool openStream(FILE_DIR_ENTRY* dir, const char* path, const char* pattern, MemResult* result)
{
    *result = MemResult::refused;
    dir->entry = opendir(path);
    if (!dir->entry)
        return false;
    dir->path = tryStrdup(path, EKO_GLOBAL_TAG, result);
    if (dir->path)
        dir->pattern = tryStrdup(pattern, EKO_GLOBAL_TAG, result);
    return dir->pattern != nullptr;
}

// The next entry that matches. The system answers null at the end, and so it does for a directory that was removed.
const dirent64* nextMatch(const FILE_DIR_ENTRY* dir)
{
    const dirent64* entry;
    do
        entry = readdir64(dir->entry);
    while (entry && !eko_match(entry->d_name, dir->pattern));
    return entry;
}

} // namespace

EKO_DIR_ENTRY eko_flPathOpen(const char* path, const char* pattern, MemResult* result)
{
    auto* dir = tryZeroed<FILE_DIR_ENTRY>(EKO_GLOBAL_TAG, result);
    if (!dir || openStream(dir, path, pattern, result))
        return dir;
    const ErrnoGuard keepErrno; // why the system refused
    eko_flPathClose(dir);
    return nullptr;
}

const char* eko_flPathNext(EKO_DIR_ENTRY dir, int32* isdir, MemResult* result)
{
    EKO_FREE(dir->tmp, EKO_GLOBAL_TAG);
    dir->tmp = nullptr;
    *result = MemResult::done;
    const dirent64* entry = nextMatch(dir);
    if (!entry)
        return nullptr;
    dir->tmp = tryStrdup(entry->d_name, EKO_GLOBAL_TAG, result);
    if (dir->tmp && isdir)
        *isdir = entry->d_type == DT_UNKNOWN ? getPathType(dir, dir->tmp, result) : entry->d_type == DT_DIR;
    return dir->tmp;
}

void eko_flPathClose(EKO_DIR_ENTRY dir)
{
    if (dir->entry)
        closedir(dir->entry);
    EKO_FREE(dir->tmp, EKO_GLOBAL_TAG);
    EKO_FREE(dir->path, EKO_GLOBAL_TAG);
    EKO_FREE(dir->pattern, EKO_GLOBAL_TAG);
    EKO_FREE(dir, EKO_GLOBAL_TAG);
}

// For file systems whose listing does not say what an entry is. 0 also when memory runs out: the name still counts.
int32 getPathType(EKO_DIR_ENTRY dir, const char* name, MemResult* result)
{
    char* path = tryMakeStr(result, EKO_GLOBAL_TAG, "%s%c%s", dir->path, '/', name);
    if (!path)
        return 0;
    int32 isdir;
    getFileType(path, &isdir);
    EKO_FREE(path, EKO_GLOBAL_TAG);
    return isdir;
}
