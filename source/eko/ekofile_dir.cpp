// SPDX-License-Identifier: MIT
// Directories: making a whole path of them, moving one, walking one, and names for temporary files.
//
// Data   An iteration is a DIR_ENTRY on the global tag over the iteration of its backing. Other memory is on the
//        thread's tag and freed before the call returns.
// Locks  none, and no state.

#include <string.h>

#include "ekomf_int.h"
#include "ekoprocess_int.h"

namespace {

constexpr char DIRSEP = '/';

struct DIR_ENTRY {
    uint16 inmemory; // EKO_FILE_INMEMORY, or 0
    wchar_t* tmp;    // the last name that was asked for as a wide string, or null
    void* data;      // EKO_MFDIR or EKO_DIR_ENTRY
};

// ---- iteration --------------------------------------------------------------------------------------------

void* openBacking(const char* path, uint16 inmemory, const char* pattern, MemResult* result)
{
    *result = MemResult::refused;
    if (inmemory)
        return eko_mfPathOpen(path, pattern, result);
    return disklessMode() ? nullptr : eko_flPathOpen(path, pattern, result);
}

DIR_ENTRY* tryPathOpen(const char* path, uint16 xflags, const char* pattern, MemResult* result)
{
    *result = MemResult::refused;
    if (!path || !pattern)
        return nullptr;
    auto* dir = tryZeroed<DIR_ENTRY>(EKO_GLOBAL_TAG, result);
    if (!dir)
        return nullptr;
    dir->inmemory = xflags & EKO_FILE_INMEMORY;
    dir->data = openBacking(path, dir->inmemory, pattern, result);
    if (!dir->data) {
        const ErrnoGuard keepErrno;
        EKO_FREE(dir, EKO_GLOBAL_TAG);
        return nullptr;
    }
    return dir;
}

const char* tryPathNext(DIR_ENTRY* dir, int32* isdir, MemResult* result)
{
    *result = MemResult::refused;
    if (!dir)
        return nullptr;
    return dir->inmemory ? eko_mfPathNext(static_cast<EKO_MFDIR>(dir->data), isdir, result)
                         : eko_flPathNext(static_cast<EKO_DIR_ENTRY>(dir->data), isdir, result);
}

void closeDir(DIR_ENTRY* dir)
{
    if (!dir)
        return;
    EKO_FREE(dir->tmp, EKO_GLOBAL_TAG);
    if (dir->inmemory)
        eko_mfPathClose(static_cast<EKO_MFDIR>(dir->data));
    else
        eko_flPathClose(static_cast<EKO_DIR_ENTRY>(dir->data));
    EKO_FREE(dir, EKO_GLOBAL_TAG);
}

DIR_ENTRY* entryOf(EKO_DIR dir)
{
    return static_cast<DIR_ENTRY*>(const_cast<void*>(dir));
}

// ---- creation ---------------------------------------------------------------------------------------------

bool isSeparator(char c)
{
    return c == '/' || c == '\\';
}

// Creates what stands in front of each separator, then the whole; "\" becomes "/" on the way.
int32 createStepwise(char* path)
{
    if (!*path)
        return EKO_FAILED;
    for (char* c = path + 1; *c; ++c) {
        if (!isSeparator(*c))
            continue;
        *c = '\0';
        const int32 status = eko_dirCreate(path);
        *c = DIRSEP;
        if (status != EKO_OK && status != EKO_DIR_EXISTS)
            return status;
    }
    // DELIBERATE: of "new/sub/" the last directory was made in front of its "/", so it exists here, and the answer
    // is 1006 although it is new. Pinned by path_stories.
    return eko_dirCreate(path);
}

int32 tryCreateAll(const char* directory, MemResult* result)
{
    *result = MemResult::refused;
    if (!directory || disklessMode())
        return EKO_FAILED;
    const int32 status = eko_dirCreate(directory);
    if (status == EKO_OK || status == EKO_DIR_EXISTS)
        return status;
    auto* path = tryStrdup(directory, EKO_THREAD_TAG, result);
    if (!path)
        return EKO_NO_MEMORY;
    const int32 stepwise = createStepwise(path);
    const ErrnoGuard keepErrno;
    EKO_FREE(path, EKO_THREAD_TAG);
    return stepwise;
}

// ---- moving a directory -----------------------------------------------------------------------------------

struct DIR_MOVE {
    const char* src;
    uint16 src_xflags;
    const char* dest;
    uint16 dest_xflags;
};

int32 moveEntry(const DIR_MOVE& move, const char* name, MemResult* result)
{
    char* from = tryMakeStr(result, EKO_THREAD_TAG, "%s%c%s", move.src, DIRSEP, name);
    char* to = from ? tryMakeStr(result, EKO_THREAD_TAG, "%s%c%s", move.dest, DIRSEP, name) : nullptr;
    const int32 status = to ? tryMove(from, move.src_xflags, to, move.dest_xflags, result) : EKO_NO_MEMORY;
    const ErrnoGuard keepErrno;
    EKO_FREE(to, EKO_THREAD_TAG);
    EKO_FREE(from, EKO_THREAD_TAG);
    return status == EKO_OK && *result == MemResult::exhausted ? EKO_NO_MEMORY : status; // a copy: both are there
}

// Moves the files; `status` is the answer where there are none.
// DELIBERATE: a source that cannot be walked has none: so a missing one is moved to a new directory with the answer
// 0. Callers who move twice find the destination there either way. Pinned by path_stories.
// DELIBERATE: subdirectories stay where they are, as "." and ".." do: what is moved so is a directory of files, and
// nothing below it is touched unasked. Pinned by path_stories.
int32 moveFiles(const DIR_MOVE& move, int32 status, MemResult* result)
{
    DIR_ENTRY* dir = tryPathOpen(move.src, move.src_xflags, "*", result);
    if (!dir)
        return *result == MemResult::exhausted ? EKO_NO_MEMORY : status;
    for (;;) {
        int32 isdir = 0;
        const char* name = tryPathNext(dir, &isdir, result);
        if (*result == MemResult::exhausted) // also where nobody knows what the name is
            status = EKO_NO_MEMORY;
        if (!name || *result == MemResult::exhausted)
            break;
        if (isdir)
            continue;
        status = moveEntry(move, name, result);
        if (status != EKO_OK)
            break;
    }
    const ErrnoGuard keepErrno;
    closeDir(dir);
    return status;
}

bool destinationMissing(const DIR_MOVE& move)
{
    int32 isdir;
    return !(move.dest_xflags & EKO_FILE_INMEMORY) && !eko_fileValidateEx(move.dest, 0, &isdir);
}

int32 tryDirMove(const DIR_MOVE& move, MemResult* result)
{
    *result = MemResult::refused;
    if (!move.src || !move.dest)
        return EKO_FAILED;
    const bool bothAlike = ((move.src_xflags ^ move.dest_xflags) & EKO_FILE_INMEMORY) == 0;
    // DELIBERATE: "A" is "a", on disk too: nothing is done. Pinned by path_stories.
    if (bothAlike && equalNoCase(move.src, move.dest))
        return EKO_OK;
    if (tryRename(move.src, move.src_xflags, move.dest, move.dest_xflags, result) == EKO_OK)
        return EKO_OK;
    if (*result == MemResult::exhausted)
        return EKO_NO_MEMORY;
    // DELIBERATE: where no file is moved and no directory made, nothing was done, and the answer says so: 1002.
    // Pinned by path_stories.
    int32 status = EKO_FAILED;
    if (destinationMissing(move)) {
        status = tryCreateAll(move.dest, result);
        if (status != EKO_OK && status != EKO_DIR_EXISTS) // which is also said of a new "dest/"
            return status;
    }
    status = moveFiles(move, status, result);
    if (!(move.src_xflags & EKO_FILE_INMEMORY)) {
        const ErrnoGuard keepErrno;
        eko_dirRemove(move.src); // fails while anything is left in it
    }
    return status;
}

} // namespace

// ---- exported ---------------------------------------------------------------------------------------------

int32 eko_dirCreateAll(const char* directory)
{
    MemResult result;
    const int32 status = tryCreateAll(directory, &result);
    memReportIf(result, __FILE__, __LINE__);
    return status;
}

int32 eko_dirMoveEx(const char* src, uint16 src_xflags, const char* dest, uint16 dest_xflags)
{
    MemResult result;
    const int32 status = tryDirMove({src, src_xflags, dest, dest_xflags}, &result);
    memReportIf(result, __FILE__, __LINE__);
    return status;
}

int32 eko_dirMove(const char* src, const char* dest)
{
    return eko_dirMoveEx(src, 0, dest, 0);
}

EKO_DIR eko_pathOpenEx(const char* path, uint16 xflags, const char* pattern)
{
    MemResult result;
    DIR_ENTRY* dir = tryPathOpen(path, xflags, pattern, &result);
    memReportIf(result, __FILE__, __LINE__);
    return dir;
}

EKO_DIR eko_pathOpen(const char* path, const char* pattern)
{
    return eko_pathOpenEx(path, 0, pattern);
}

const char* eko_pathNext(EKO_DIR dir, int32* isdir)
{
    MemResult result;
    const char* name = tryPathNext(entryOf(dir), isdir, &result);
    memReportIf(result, __FILE__, __LINE__);
    return name;
}

// A name on disk need not be UTF-8. It is shown with replacements instead of ending the walk in front of all
// others.
const wchar_t* eko_pathNextW(EKO_DIR dir, int32* isdir)
{
    DIR_ENTRY* entry = entryOf(dir);
    if (!entry)
        return nullptr;
    EKO_FREE(entry->tmp, EKO_GLOBAL_TAG);
    entry->tmp = nullptr;
    MemResult result;
    const char* name = tryPathNext(entry, isdir, &result);
    if (name)
        entry->tmp = tryConvToWchar(name, EKO_UTF8_REPLACE, EKO_GLOBAL_TAG, &result);
    memReportIf(result, __FILE__, __LINE__);
    return entry->tmp;
}

void eko_pathClose(EKO_DIR dir)
{
    closeDir(entryOf(dir));
}

char* eko_fileCreateTmpName(uint32* puFileNo, const char* pszBaseName, const char* pszExt, uint16 xflags,
                            EKO_MEMTAG tag)
{
    EKO_ASSERT(puFileNo);
    char* dir = nullptr;
    MemResult result = MemResult::refused;
    if (!(xflags & EKO_FILE_INMEMORY))
        dir = tryTmpdir(EKO_THREAD_TAG, &result);
    if (!dir && result == MemResult::exhausted) {
        memReport(__FILE__, __LINE__);
        return nullptr;
    }
    const uint32 number = (*puFileNo)++;
    char* name = tryMakeStr(&result, tag, "%s%c%s_%p_%010u_%03u.%s", dir ? dir : "", DIRSEP,
                            pszBaseName ? pszBaseName : "temp", static_cast<void*>(puFileNo), eko_get_pid(), number,
                            pszExt ? pszExt : "tmp");
    EKO_FREE(dir, EKO_THREAD_TAG);
    memFail(result, tag, __FILE__, __LINE__);
    return name;
}
