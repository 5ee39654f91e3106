// SPDX-License-Identifier: MIT
// Files in memory: a tree of directories in the process, apart from the disk, gone when the library stops.
//
// Data      EKO_MF_GLOBALS -> root    MF_SUBDIR_ENTRY, with its entries sorted by name
//                               |---- MF_ENTRY "a" --> MF_SUBDIR_ENTRY ...
//                               `---- MF_ENTRY "" ---> MF_SUBDIR_ENTRY      files named without a directory
//                                                        `---- MF_ENTRY "f" --> MF_FILE_ENTRY --> segments of bytes
//                                                                                      ^
//           EKO_FH -> MF_FILE_HANDLE, with the position -------------------------------'
//           All on one tag, shared by all threads; what lasts no longer than a call is on the thread's tag.
// Husks     A name, and the bytes of a file, go at once when they are removed. The record stays, with its mutex, as
//           long as anybody refers to it: handles to their file, a file to the directory that it was made in, an
//           iteration to its directory. Reading a removed file gives nothing, writing fails, a removed directory is
//           empty.
// Locks     Each directory has a mutex, and each file. A walk goes hand over hand from the root: into the child,
//           then out of the parent. An open holds the directory while it takes the file. Whoever removes takes the
//           entry out under the directory's mutex, lets go, and then drops it; so a file that some thread has
//           locked holds its remover up, and nobody else. A record is found only under the mutex of what holds it
//           in the tree, hence by nobody once it is taken out; then the last reference is the last user, and takes
//           the mutex with it.
// Unlocked  A file's size and time; the references, which are counted by atomic instructions.
// Rooms     ekomf_path.cpp names, ekomf_tree.cpp directories, ekomf_iteration.cpp, ekomf_data.cpp bytes; here the
//           module's record, handles, and what is asked of a name.

#include "ekomf_int.h"

namespace {

constexpr int16 SHARED = 1;

enum : int32 { FROM_START = 0, FROM_POSITION = 1, FROM_END = 2 };

// ---- the module's record ----------------------------------------------------------------------------------

int32 eko_mfInit(void* data)
{
    auto* globals = static_cast<EKO_MF_GLOBALS*>(data);
    const EKO_MEMTAG tag = tryCreateTag(nullptr, SHARED, BLOCK_ALLOCATOR, nullptr, nullptr);
    if (tag == EKO_TAG_INVALID)
        return EKO_FAILED;
    MemResult ignored;
    globals->mf_root = mfNewDirectory(tag, &ignored);
    if (!globals->mf_root) {
        EKO_TAG_DESTROY(tag);
        return EKO_FAILED;
    }
    globals->mf_tag = tag;
    return EKO_OK;
}

// Handles and iterations that are still open are lost: the tag takes what they refer to, and the stop of the
// semaphore table takes the mutexes.
void eko_mfTerm(void* data)
{
    auto* globals = static_cast<EKO_MF_GLOBALS*>(data);
    mfScrapTree(globals->mf_root, globals->mf_tag);
    EKO_TAG_DESTROY(globals->mf_tag);
    *globals = {};
}

GlobalSlot mfSlot = {"ekomf", sizeof(EKO_MF_GLOBALS), eko_mfInit, eko_mfTerm, nullptr, nullptr};

// ---- names ------------------------------------------------------------------------------------------------

// What a name leads to. While it lives it holds the directory where that is.
class Named {
public:
    Named(const char* name, MemResult* result)
    {
        *result = MemResult::refused;
        const EKO_MF_GLOBALS* globals = mfGlobals();
        if (!globals || !name || !path_.setFile(name, result))
            return;
        if (mfWalk(globals, path_, dir_) == path_.last())
            entry_ = mfFind(dir_.get(), path_.last());
        *result = MemResult::done;
    }
    const MF_ENTRY* entry() const { return entry_; }
    const MF_FILE_ENTRY* file() const { return entry_ && entry_->type == MF_FILE ? entry_->item.file : nullptr; }
    MF_ENTRY* takeOut() { return entry_ ? mfTakeOut(dir_.get(), path_.last()) : nullptr; }

private:
    MfPath path_;
    HeldDir dir_; // left before the path is freed
    MF_ENTRY* entry_ = nullptr;
};

// Gives the entry of that name the name `newName`, and answers the old text; null when there is none.
// DELIBERATE: nobody looks whether the new name is taken. Then there are two, and the renamed one is found, until
// it is removed and the other one comes back. Callers remove first what they replace, and count on a rename that is
// never refused for it. Pinned by memfile_names.
char* renameIn(const EKO_MF_GLOBALS* globals, const MfPath& from, char* newName)
{
    HeldDir dir;
    if (mfWalk(globals, from, dir) != from.last())
        return nullptr;
    MF_ENTRY* entry = mfTakeOut(dir.get(), from.last());
    if (!entry)
        return nullptr;
    char* oldName = entry->name;
    entry->name = newName;
    mfPlace(dir.get(), entry); // where it was taken out there is room
    return oldName;
}

} // namespace

EKO_MF_GLOBALS* mfGlobals()
{
    return static_cast<EKO_MF_GLOBALS*>(globalRecord(mfSlot));
}

// ---- opening and closing ----------------------------------------------------------------------------------

namespace {

// The directory is held.
void bind(MF_FILE_HANDLE* fh, MF_FILE_ENTRY* file)
{
    const SemGuard lock(file->sem);
    ++file->open_count;
    mfRefer(file);
    fh->entry = file;
}

} // namespace

EKO_MFH eko_mfOpen(const char* name, uint32 flags, MemResult* result)
{
    *result = MemResult::refused;
    const EKO_MF_GLOBALS* globals = mfGlobals();
    MfPath path;
    if (!globals || !name || !path.setFile(name, result))
        return nullptr;
    auto* fh = tryZeroed<MF_FILE_HANDLE>(globals->mf_tag, result);
    if (!fh)
        return nullptr;
    *result = MemResult::refused;
    {
        HeldDir dir;
        MF_FILE_ENTRY* file =
            flags & OPEN_CREATE ? mfFindOrMakeFile(globals, path, dir, result) : mfFindFile(globals, path, dir);
        if (file)
            bind(fh, file);
    }
    if (fh->entry) {
        *result = MemResult::done;
        return fh;
    }
    EKO_FREE(fh, globals->mf_tag);
    return nullptr;
}

void eko_mfClose(EKO_MFH fh)
{
    const EKO_MF_GLOBALS* globals = mfGlobals();
    if (!globals || !fh)
        return;
    MF_FILE_ENTRY* file = fh->entry;
    {
        const HeldDir dir(file->subdir);
        --file->open_count;
    }
    EKO_FREE(fh, globals->mf_tag);
    mfRelease(file, globals->mf_tag);
}

// ---- handles ----------------------------------------------------------------------------------------------

namespace {

bool usable(const MF_FILE_HANDLE* fh)
{
    return fh && mfGlobals();
}

// The count that was moved, the position having moved with it.
uint32 advance(MF_FILE_HANDLE* fh, uint32 count)
{
    if (count != EKO_FILE_IO_FAILED)
        fh->pos += count;
    return count;
}

} // namespace

// Not held up by a locked file: the position is the handle's own.
int32 eko_mfSeek(EKO_MFH fh, EKO_FILE_OFFSET off, int32 origin)
{
    if (!usable(fh))
        return EKO_FAILED;
    if (origin == FROM_START)
        fh->pos = off;
    else if (origin == FROM_POSITION)
        fh->pos += off; // a negative one wraps, as it should
    else if (origin == FROM_END)
        fh->pos = sizeUnlocked(fh->entry) + off;
    else
        return EKO_FAILED;
    return EKO_OK;
}

uint32 eko_mfRead(EKO_MFH fh, void* buf, uint32 size)
{
    if (!usable(fh))
        return 0;
    const SemGuard lock(fh->entry->sem);
    return advance(fh, mfReadAt(fh->entry, fh->pos, buf, size));
}

uint32 eko_mfWrite(EKO_MFH fh, const void* buf, uint32 size, MemResult* result)
{
    *result = MemResult::refused;
    if (!usable(fh))
        return 0;
    const SemGuard lock(fh->entry->sem);
    return advance(fh, mfWriteAt(fh->entry, fh->pos, buf, size, mfGlobals()->mf_tag, result));
}

uint32 eko_mfSeekRead(EKO_MFH fh, EKO_FILE_OFFSET off, void* buf, uint32 size)
{
    if (!usable(fh))
        return 0;
    const SemGuard lock(fh->entry->sem);
    return mfReadAt(fh->entry, off, buf, size);
}

uint32 eko_mfSeekWrite(EKO_MFH fh, EKO_FILE_OFFSET off, const void* buf, uint32 size, MemResult* result)
{
    *result = MemResult::refused;
    if (!usable(fh))
        return 0;
    const SemGuard lock(fh->entry->sem);
    return mfWriteAt(fh->entry, off, buf, size, mfGlobals()->mf_tag, result);
}

int32 eko_mfLock(EKO_MFH fh)
{
    if (usable(fh))
        eko_syncEnterExcl(fh->entry->sem);
    return EKO_OK;
}

int32 eko_mfUnlock(EKO_MFH fh)
{
    if (usable(fh))
        eko_syncExitExcl(fh->entry->sem);
    return EKO_OK;
}

EKO_FILE_OFFSET eko_mfSize(EKO_MFH fh)
{
    return usable(fh) ? sizeUnlocked(fh->entry) : 0;
}

int32 eko_mfSetSize(EKO_MFH fh, EKO_FILE_OFFSET size, MemResult* result)
{
    *result = MemResult::refused;
    if (!usable(fh))
        return EKO_FAILED;
    const SemGuard lock(fh->entry->sem);
    return mfResize(fh->entry, size, mfGlobals()->mf_tag, result);
}

// ---- by name ----------------------------------------------------------------------------------------------

EKO_FILE_OFFSET eko_mfSizeStat(const char* name, MemResult* result)
{
    const Named named(name, result);
    return named.file() ? sizeUnlocked(named.file()) : 0;
}

time64_t eko_mfModTime(const char* name, MemResult* result)
{
    const Named named(name, result);
    return named.file() ? modtimeUnlocked(named.file()) : 0;
}

int32 eko_mfValidate(const char* name, int32* isdir, MemResult* result)
{
    const Named named(name, result);
    if (isdir)
        *isdir = named.entry() && named.entry()->type == MF_SUBDIR ? 1 : 0;
    return named.entry() ? 1 : 0;
}

// DELIBERATE: a directory goes with all that is in it, open or not, so that what a program kept in memory is given
// back with one call. Pinned by memfile_removed_while_open.
int32 eko_mfRemove(const char* name, MemResult* result)
{
    MF_ENTRY* entry = Named(name, result).takeOut(); // the directory is left here
    if (!entry)
        return EKO_FAILED;
    mfScrap(entry, mfGlobals()->mf_tag);
    return EKO_OK;
}

// The two names must be in one directory, so there is one walk, and two opposite renames cannot wait for each
// other.
int32 eko_mfRename(const char* oldName, const char* newName, MemResult* result)
{
    *result = MemResult::refused;
    const EKO_MF_GLOBALS* globals = mfGlobals();
    MfPath from;
    MfPath to;
    if (!globals || !oldName || !newName || !from.setFile(oldName, result) || !to.setFile(newName, result))
        return EKO_FAILED;
    if (!from.sameDirectory(to))
        return EKO_FAILED;
    auto* text = tryStrdup(to.last(), globals->mf_tag, result);
    if (!text)
        return EKO_FAILED;
    char* replaced = renameIn(globals, from, text);
    EKO_FREE(replaced ? replaced : text, globals->mf_tag);
    return replaced ? EKO_OK : EKO_FAILED;
}
