// SPDX-License-Identifier: MIT
// The tree of files in memory: entries in their directories, the walk to a name, what is made and what is dropped.
//
// Making and dropping are done apart from the tree. What is missing of a path is built beforehand, as a branch of
// its own, and hung in with one step; what is removed is taken out with one step and dropped afterwards. So while
// a directory is held no mutex is made, nothing is said and no long work is done, and nobody sees a half.

#include <string.h>

#include "ekomf_int.h"

namespace {

constexpr uint32 ENTRIES_STEP = 10; // of an array's growth

// While the library stops, only the stopping thread is left, and a mutex that an ended thread took with it must not
// hold it up.
EKO_SEM semForScrapping(EKO_SEM sem)
{
    return readUnlocked(eko_terminating) ? EKO_SEM_INVALID : sem;
}

// The first entry whose name compares with `name` as `limit` or more: 0 for equal, 1 for behind.
uint32 firstFrom(const MF_SUBDIR_ENTRY* dir, const char* name, int32 limit)
{
    uint32 low = 0;
    uint32 high = dir->num_entries;
    while (low < high) {
        const uint32 middle = low + (high - low) / 2;
        if (compareNoCase(dir->entries[middle]->name, name) < limit)
            low = middle + 1;
        else
            high = middle;
    }
    return low;
}

// The entry at that index if it has that name, else null.
MF_ENTRY* entryAt(const MF_SUBDIR_ENTRY* dir, uint32 index, const char* name)
{
    if (index == dir->num_entries || !equalNoCase(dir->entries[index]->name, name))
        return nullptr;
    return dir->entries[index];
}

// ---- making -----------------------------------------------------------------------------------------------

MF_FILE_ENTRY* newFile(EKO_MEMTAG tag, MemResult* result)
{
    MF_FILE_ENTRY* file = tryZeroed<MF_FILE_ENTRY>(tag, result);
    if (!file)
        return nullptr;
    file->references = 1;
    file->sem = EKO_MUTEX_CREATE();
    if (file->sem != EKO_SEM_INVALID)
        return file;
    *result = MemResult::refused; // the table has said what there was to say
    EKO_FREE(file, tag);
    return nullptr;
}

void freeEntry(MF_ENTRY* entry, EKO_MEMTAG tag)
{
    EKO_FREE(entry->name, tag);
    EKO_FREE(entry, tag);
}

MF_ENTRY* newEntry(const char* name, uint16 type, EKO_MEMTAG tag, MemResult* result)
{
    MF_ENTRY* entry = tryZeroed<MF_ENTRY>(tag, result);
    if (!entry)
        return nullptr;
    entry->type = type;
    entry->name = tryStrdup(name, tag, result);
    bool made = false;
    if (entry->name && type == MF_FILE)
        made = (entry->item.file = newFile(tag, result)) != nullptr;
    else if (entry->name)
        made = (entry->item.subdir = mfNewDirectory(tag, result)) != nullptr;
    if (made)
        return entry;
    freeEntry(entry, tag);
    return nullptr;
}

// Room for one more entry.
bool reserve(MF_SUBDIR_ENTRY* dir, EKO_MEMTAG tag, MemResult* result)
{
    if (dir->num_entries < dir->size_entries)
        return true;
    const size_t bytes = (size_t{dir->size_entries} + ENTRIES_STEP) * sizeof(MF_ENTRY*);
    void* array = dir->entries ? tryExtendMem(dir->entries, bytes, tag, result)
                               : tryGetMem(bytes, tag, EKO_MEM_PLAIN, nullptr, result);
    if (!array)
        return false;
    dir->entries = static_cast<MF_ENTRY**>(array);
    dir->size_entries += ENTRIES_STEP;
    return true;
}

// Hangs a new entry into a directory.
bool hangIn(MF_SUBDIR_ENTRY* dir, MF_ENTRY* entry, EKO_MEMTAG tag, MemResult* result)
{
    if (!reserve(dir, tag, result))
        return false;
    mfPlace(dir, entry);
    if (entry->type == MF_FILE) {
        entry->item.file->subdir = dir;
        mfRefer(dir);
    }
    return true;
}

// The rest of a path, from some component down to the file, which nobody else can see yet.
class Branch {
public:
    explicit Branch(EKO_MEMTAG tag) : tag_(tag) {}
    ~Branch() { drop(); }
    Branch(const Branch&) = delete;
    Branch& operator=(const Branch&) = delete;

    bool built() const { return top_ != nullptr; }
    bool startsAt(const char* component) const { return built() && start_ == component; }

    // Instead of what it was before.
    bool build(const MfPath& path, const char* start, MemResult* result)
    {
        drop();
        start_ = start;
        MF_SUBDIR_ENTRY* parent = nullptr;
        for (const char* name = start;; name = path.next(name)) {
            MF_ENTRY* entry = newEntry(name, name == path.last() ? MF_FILE : MF_SUBDIR, tag_, result);
            if (!entry || !add(parent, entry, result))
                return false;
            if (entry->type == MF_FILE) {
                file_ = entry->item.file;
                return true;
            }
            parent = entry->item.subdir;
        }
    }

    // Makes it part of the tree. `dir` is held.
    MF_FILE_ENTRY* hangInto(MF_SUBDIR_ENTRY* dir, MemResult* result)
    {
        if (!hangIn(dir, top_, tag_, result))
            return nullptr;
        top_ = nullptr;
        return file_;
    }

    // Frees what is not part of the tree.
    void drop()
    {
        if (top_)
            mfScrap(top_, tag_);
        top_ = nullptr;
    }

private:
    bool add(MF_SUBDIR_ENTRY* parent, MF_ENTRY* entry, MemResult* result)
    {
        if (!parent) {
            top_ = entry;
            return true;
        }
        if (hangIn(parent, entry, tag_, result))
            return true;
        mfScrap(entry, tag_);
        return false;
    }

    EKO_MEMTAG tag_;
    MF_ENTRY* top_ = nullptr;
    MF_FILE_ENTRY* file_ = nullptr;
    const char* start_ = nullptr; // the component that top_ stands for
};

// ---- dropping ---------------------------------------------------------------------------------------------

// The file loses its bytes at once, and what is left of it stays while handles are open on it.
void scrapFile(MF_FILE_ENTRY* file, EKO_MEMTAG tag)
{
    {
        const SemGuard lock(semForScrapping(file->sem));
        file->removed = true;
        mfDropBytes(file, tag);
    }
    mfRelease(file, tag);
}

// A directory is only put on the list: the tree may be deeper than the stack.
void scrapEntry(MF_ENTRY* entry, MF_SUBDIR_ENTRY** doomed, EKO_MEMTAG tag)
{
    if (entry->type == MF_SUBDIR) {
        entry->item.subdir->next = *doomed;
        *doomed = entry->item.subdir;
    } else {
        scrapFile(entry->item.file, tag);
    }
    freeEntry(entry, tag);
}

struct Entries {
    MF_ENTRY** array;
    uint32 count;
};

// A directory that has left the tree is still held by threads that came earlier, or seen by iterations: for these
// it is empty from now on. Nobody can add to it, since nobody gets there any more.
Entries takeEntries(MF_SUBDIR_ENTRY* dir)
{
    const SemGuard lock(semForScrapping(dir->sem));
    const Entries entries = {dir->entries, dir->num_entries};
    dir->entries = nullptr;
    dir->num_entries = 0;
    dir->size_entries = 0;
    return entries;
}

bool lastReference(uint32* references)
{
    return __atomic_sub_fetch(references, 1, __ATOMIC_ACQ_REL) == 0;
}

} // namespace

MF_SUBDIR_ENTRY* mfNewDirectory(EKO_MEMTAG tag, MemResult* result)
{
    MF_SUBDIR_ENTRY* dir = tryZeroed<MF_SUBDIR_ENTRY>(tag, result);
    if (!dir)
        return nullptr;
    dir->references = 1;
    dir->sem = EKO_MUTEX_CREATE();
    if (dir->sem != EKO_SEM_INVALID)
        return dir;
    *result = MemResult::refused;
    EKO_FREE(dir, tag);
    return nullptr;
}

// ---- entries of a directory -------------------------------------------------------------------------------

uint32 mfIndexBehind(const MF_SUBDIR_ENTRY* dir, const char* name)
{
    return firstFrom(dir, name, 1);
}

MF_ENTRY* mfFind(const MF_SUBDIR_ENTRY* dir, const char* name)
{
    return entryAt(dir, firstFrom(dir, name, 0), name);
}

MF_ENTRY* mfTakeOut(MF_SUBDIR_ENTRY* dir, const char* name)
{
    const uint32 index = firstFrom(dir, name, 0);
    MF_ENTRY* entry = entryAt(dir, index, name);
    if (!entry)
        return nullptr;
    --dir->num_entries;
    memmove(dir->entries + index, dir->entries + index + 1, (dir->num_entries - index) * sizeof(MF_ENTRY*));
    return entry;
}

void mfPlace(MF_SUBDIR_ENTRY* dir, MF_ENTRY* entry)
{
    const uint32 index = firstFrom(dir, entry->name, 0);
    memmove(dir->entries + index + 1, dir->entries + index, (dir->num_entries - index) * sizeof(MF_ENTRY*));
    dir->entries[index] = entry;
    ++dir->num_entries;
}

// ---- the way to a name ------------------------------------------------------------------------------------

const char* mfWalk(const EKO_MF_GLOBALS* globals, const MfPath& path, HeldDir& at)
{
    const char* name = path.first();
    for (at.enter(globals->mf_root); name != path.last(); name = path.next(name)) {
        const MF_ENTRY* entry = mfFind(at.get(), name);
        if (!entry || entry->type != MF_SUBDIR)
            break;
        at.enter(entry->item.subdir);
    }
    return name;
}

MF_FILE_ENTRY* mfFindFile(const EKO_MF_GLOBALS* globals, const MfPath& path, HeldDir& at)
{
    if (mfWalk(globals, path, at) != path.last())
        return nullptr;
    const MF_ENTRY* entry = mfFind(at.get(), path.last());
    return entry && entry->type == MF_FILE ? entry->item.file : nullptr;
}

// The way is gone once to see what is missing, and again to hang it in; other threads may have made or removed
// something in between, and then what was built no longer fits. A branch that nobody needs is dropped where nothing
// is held, and the way gone once more.
MF_FILE_ENTRY* mfFindOrMakeFile(const EKO_MF_GLOBALS* globals, const MfPath& path, HeldDir& at, MemResult* result)
{
    Branch branch(globals->mf_tag);
    for (;;) {
        const char* missing = mfWalk(globals, path, at);
        const MF_ENTRY* entry = mfFind(at.get(), missing);
        if (entry && !branch.built()) // the file itself; or a directory of its name, or a file on the way
            return missing == path.last() && entry->type == MF_FILE ? entry->item.file : nullptr;
        if (!entry && branch.startsAt(missing)) {
            MF_FILE_ENTRY* file = branch.hangInto(at.get(), result);
            if (!file)
                at.leave(); // before the branch is dropped
            return file;
        }
        at.leave();
        if (entry)
            branch.drop();
        else if (!branch.build(path, missing, result))
            return nullptr;
    }
}

// ---- the end of things ------------------------------------------------------------------------------------

void mfRelease(MF_SUBDIR_ENTRY* dir, EKO_MEMTAG tag)
{
    if (!lastReference(&dir->references))
        return;
    eko_syncDelete(dir->sem);
    EKO_FREE(dir, tag);
}

void mfRelease(MF_FILE_ENTRY* file, EKO_MEMTAG tag)
{
    if (!lastReference(&file->references))
        return;
    MF_SUBDIR_ENTRY* dir = file->subdir;
    eko_syncDelete(file->sem);
    EKO_FREE(file, tag);
    if (dir) // none when it never came into one
        mfRelease(dir, tag);
}

void mfScrap(MF_ENTRY* entry, EKO_MEMTAG tag)
{
    MF_SUBDIR_ENTRY* doomed = nullptr;
    scrapEntry(entry, &doomed, tag);
    mfScrapTree(doomed, tag);
}

void mfScrapTree(MF_SUBDIR_ENTRY* dir, EKO_MEMTAG tag)
{
    for (MF_SUBDIR_ENTRY* doomed = dir; doomed;) {
        dir = doomed;
        doomed = dir->next;
        const Entries entries = takeEntries(dir);
        for (uint32 i = 0; i < entries.count; ++i)
            scrapEntry(entries.array[i], &doomed, tag);
        EKO_FREE(entries.array, tag);
        mfRelease(dir, tag);
    }
}
