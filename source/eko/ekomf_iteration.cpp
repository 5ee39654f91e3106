// SPDX-License-Identifier: MIT
// Iterations over a directory in memory, in the order of its names. Between two calls an iteration holds no mutex,
// only a reference and the name that it gave last, so entries may come and go, and the directory itself may.

#include "ekomf_int.h"

namespace {

void freeIteration(MFILE_DIR_ENTRY* dir, EKO_MEMTAG tag)
{
    EKO_FREE(dir->pattern, tag);
    EKO_FREE(dir->lastfound, tag);
    EKO_FREE(dir, tag);
}

MFILE_DIR_ENTRY* newIteration(const char* pattern, EKO_MEMTAG tag, MemResult* result)
{
    MFILE_DIR_ENTRY* dir = tryZeroed<MFILE_DIR_ENTRY>(tag, result);
    if (!dir)
        return nullptr;
    dir->pattern = tryStrdup(pattern, tag, result);
    if (dir->pattern)
        return dir;
    EKO_FREE(dir, tag);
    return nullptr;
}

// The directory at the end of the path, referred to; null when there is none.
MF_SUBDIR_ENTRY* directoryAt(const EKO_MF_GLOBALS* globals, const MfPath& path)
{
    HeldDir at;
    if (mfWalk(globals, path, at) != path.last())
        return nullptr;
    mfRefer(at.get());
    return at.get();
}

// The next entry that fits. Behind the last one of the name given before: a rename may have put several there, and
// from any other than the last the walk would come to that name for ever.
const MF_ENTRY* nextEntry(const MFILE_DIR_ENTRY* dir)
{
    const MF_SUBDIR_ENTRY* subdir = dir->subdir;
    for (uint32 i = dir->lastfound ? mfIndexBehind(subdir, dir->lastfound) : 0; i < subdir->num_entries; ++i) {
        if (eko_match(subdir->entries[i]->name, dir->pattern))
            return subdir->entries[i];
    }
    return nullptr;
}

} // namespace

EKO_MFDIR eko_mfPathOpen(const char* path, const char* pattern, MemResult* result)
{
    *result = MemResult::refused;
    const EKO_MF_GLOBALS* globals = mfGlobals();
    MfPath parts;
    if (!globals || !path || !pattern || !parts.setDirectory(path, result))
        return nullptr;
    MFILE_DIR_ENTRY* dir = newIteration(pattern, globals->mf_tag, result);
    if (!dir)
        return nullptr;
    dir->subdir = directoryAt(globals, parts);
    if (dir->subdir)
        return dir;
    *result = MemResult::refused;
    freeIteration(dir, globals->mf_tag);
    return nullptr;
}

// When memory runs out the iteration stays where it was, and so it does at the end.
const char* eko_mfPathNext(EKO_MFDIR dir, int32* isdir, MemResult* result)
{
    *result = MemResult::refused;
    const EKO_MF_GLOBALS* globals = mfGlobals();
    if (!globals || !dir)
        return nullptr;
    const HeldDir held(dir->subdir);
    const MF_ENTRY* entry = nextEntry(dir);
    if (!entry)
        return nullptr;
    auto* name = tryStrdup(entry->name, globals->mf_tag, result);
    if (!name)
        return nullptr;
    if (isdir)
        *isdir = entry->type == MF_SUBDIR ? 1 : 0;
    EKO_FREE(dir->lastfound, globals->mf_tag);
    dir->lastfound = name;
    return name;
}

void eko_mfPathClose(EKO_MFDIR dir)
{
    const EKO_MF_GLOBALS* globals = mfGlobals();
    if (!globals || !dir)
        return;
    mfRelease(dir->subdir, globals->mf_tag);
    freeIteration(dir, globals->mf_tag);
}
