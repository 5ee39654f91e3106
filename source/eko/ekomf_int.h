// SPDX-License-Identifier: MIT
// ekomf_int.h - files and directories kept in memory.
#ifndef EKO_EKOMF_INT_H
#define EKO_EKOMF_INT_H

#include "ekofile_int.h"

// Every call may come from any thread and neither jumps nor reports, but for what the semaphore table says itself
// when it has no mutex for something new. Where `result` is given, it says afterwards whether memory ran out (else
// it is done or refused). Names are paths as the caller gives them; one that is not absolute starts from the
// current directory, except that of an iteration, which is then refused.

EKO_MFH eko_mfOpen(const char* name, uint32 flags, MemResult* result); // of the flags only OPEN_CREATE counts
void eko_mfClose(EKO_MFH fh);
int32 eko_mfSeek(EKO_MFH fh, EKO_FILE_OFFSET off, int32 origin);
uint32 eko_mfRead(EKO_MFH fh, void* buf, uint32 size);
uint32 eko_mfWrite(EKO_MFH fh, const void* buf, uint32 size, MemResult* result);
uint32 eko_mfSeekRead(EKO_MFH fh, EKO_FILE_OFFSET off, void* buf, uint32 size);
uint32 eko_mfSeekWrite(EKO_MFH fh, EKO_FILE_OFFSET off, const void* buf, uint32 size, MemResult* result);
int32 eko_mfLock(EKO_MFH fh);
int32 eko_mfUnlock(EKO_MFH fh);
EKO_FILE_OFFSET eko_mfSize(EKO_MFH fh);
int32 eko_mfSetSize(EKO_MFH fh, EKO_FILE_OFFSET size, MemResult* result);

EKO_FILE_OFFSET eko_mfSizeStat(const char* name, MemResult* result);
time64_t eko_mfModTime(const char* name, MemResult* result);
int32 eko_mfValidate(const char* name, int32* isdir, MemResult* result);
int32 eko_mfRemove(const char* name, MemResult* result);
int32 eko_mfRename(const char* oldName, const char* newName, MemResult* result);

using EKO_MFDIR = struct MFILE_DIR_ENTRY*;

EKO_MFDIR eko_mfPathOpen(const char* path, const char* pattern, MemResult* result);
const char* eko_mfPathNext(EKO_MFDIR dir, int32* isdir,
                           MemResult* result); // valid until the next call or the close
void eko_mfPathClose(EKO_MFDIR dir);

// ---- records (drawn in ekomf.cpp) -------------------------------------------------------------------------

struct MF_ENTRY;

// A directory.
struct MF_SUBDIR_ENTRY {
    EKO_SEM sem;           // guards the next three, and the open_count of the files here
    uint32 num_entries;    // in use
    uint32 size_entries;   // room in the array
    MF_ENTRY** entries;    // in the order of compareNoCase; equal names stand side by side
    uint32 references;     // atomic: the tree's, one per file made here, one per iteration; at 0 the record goes
    MF_SUBDIR_ENTRY* next; // of those being taken apart; the remover's alone
};

// A file's contents.
struct MF_FILE_ENTRY {
    alignas(8) time64_t modtime;     // seconds, of the last write; 0 before. Read without the mutex, as is
    alignas(8) EKO_FILE_OFFSET size; // bytes; so both are aligned for one instruction, which 32 bits would not do
    EKO_SEM sem;                     // guards the bytes and all fields but those that say otherwise
    uint32 open_count;               // handles; guarded by the directory's mutex, and nobody decides by it
    uint32 num_segments;             // there; `size` may need fewer, after a growth that ran out of memory
    uint32 size_segments;            // room in the array
    uint8** segments;
    EKO_FILE_OFFSET filled; // bytes in front of it are in the segments, those behind it are zero, whatever is there
    MF_SUBDIR_ENTRY* subdir; // the directory that it was made in, removed or not; set once
    uint32 references;       // atomic: the tree's, one per handle; at 0 the record goes
    bool removed;            // no longer in the tree, and without bytes
};

// Not by the helpers for plain variables, which cannot see how a field is aligned.
inline time64_t modtimeUnlocked(const MF_FILE_ENTRY* file)
{
    return __atomic_load_n(&file->modtime, __ATOMIC_RELAXED);
}
inline void setModtime(MF_FILE_ENTRY* file, time64_t seconds)
{
    __atomic_store_n(&file->modtime, seconds, __ATOMIC_RELAXED);
}
inline EKO_FILE_OFFSET sizeUnlocked(const MF_FILE_ENTRY* file)
{
    return __atomic_load_n(&file->size, __ATOMIC_RELAXED);
}
inline void setSize(MF_FILE_ENTRY* file, EKO_FILE_OFFSET size)
{
    __atomic_store_n(&file->size, size, __ATOMIC_RELAXED);
}

enum : uint16 { MF_FILE = 0, MF_SUBDIR = 1 };

// One name in a directory.
struct MF_ENTRY {
    char* name; // one component of a path
    uint16 type;
    union {
        MF_FILE_ENTRY* file;
        MF_SUBDIR_ENTRY* subdir;
    } item;
};

struct MF_FILE_HANDLE {
    EKO_FILE_OFFSET pos;
    MF_FILE_ENTRY* entry;
};

struct MFILE_DIR_ENTRY {
    char* pattern;
    char* lastfound; // the name returned last; null at the start
    MF_SUBDIR_ENTRY* subdir;
};

struct EKO_MF_GLOBALS {
    MF_SUBDIR_ENTRY* mf_root;
    EKO_MEMTAG mf_tag; // of everything that outlives a call
};

EKO_MF_GLOBALS* mfGlobals(); // null when they cannot be had

// ---- paths (ekomf_path.cpp) -------------------------------------------------------------------------------

enum PATH_STATE { PATH_BEGIN = 0, PATH_DIRCHAR = 1, PATH_DOT = 2, PATH_DOT_DOT = 3, PATH_NAME = 4 };

// Resolves the "." and ".." steps of a path in place; false when it climbs above its own start.
bool mfNormalize(char* path);

// A path as components: first(), then next() of each, to last(), which is the name in the directory (a directory's
// own path has none: null). An empty component is a name like others.
class MfPath {
public:
    MfPath() = default;
    ~MfPath();
    MfPath(const MfPath&) = delete;
    MfPath& operator=(const MfPath&) = delete;

    // Each once; false when there can be no such file or directory.
    bool setFile(const char* name, MemResult* result);
    bool setDirectory(const char* path, MemResult* result);

    const char* first() const { return directory_ + 1; }
    const char* next(const char* component) const;
    const char* last() const { return last_; }
    bool sameDirectory(const MfPath& other) const;
    bool isAbove(const MfPath& other) const; // as a directory, at any distance

private:
    bool cut();

    char* directory_ = nullptr; // "/" and the components of the directory, each with a terminator; thread's tag
    char* last_ = nullptr;      // thread's tag
    const char* end_ = nullptr; // the terminator of the last component in directory_
};

// ---- the tree (ekomf_tree.cpp) ----------------------------------------------------------------------------

// Holds the mutex of one directory, or of none.
class HeldDir {
public:
    HeldDir() = default;
    explicit HeldDir(MF_SUBDIR_ENTRY* dir) { enter(dir); }
    ~HeldDir() { leave(); }
    HeldDir(const HeldDir&) = delete;
    HeldDir& operator=(const HeldDir&) = delete;

    // On to that one, the present one being left behind it.
    void enter(MF_SUBDIR_ENTRY* dir)
    {
        eko_syncEnterExcl(dir->sem);
        leave();
        dir_ = dir;
    }
    void leave()
    {
        if (dir_)
            eko_syncExitExcl(dir_->sem);
        dir_ = nullptr;
    }
    MF_SUBDIR_ENTRY* get() const { return dir_; }

private:
    MF_SUBDIR_ENTRY* dir_ = nullptr;
};

MF_SUBDIR_ENTRY* mfNewDirectory(EKO_MEMTAG tag, MemResult* result);

// All with the directory's mutex held.
MF_ENTRY* mfFind(const MF_SUBDIR_ENTRY* dir, const char* name);     // the first of that name, or null
MF_ENTRY* mfTakeOut(MF_SUBDIR_ENTRY* dir, const char* name);        // the same
void mfPlace(MF_SUBDIR_ENTRY* dir, MF_ENTRY* entry);                // before equal names; there must be room
uint32 mfIndexBehind(const MF_SUBDIR_ENTRY* dir, const char* name); // of the first that comes after that name

// Walks from the root, hand over hand. `at` then holds the last directory on the way, and the answer is the
// component that is not a directory there; path.last() at the end of the way.
const char* mfWalk(const EKO_MF_GLOBALS* globals, const MfPath& path, HeldDir& at);

// The file of that name, in the directory that `at` then holds; null when there is none, or no file. The second one
// makes it, and the directories on the way: all of them or, when memory runs out, nothing.
MF_FILE_ENTRY* mfFindFile(const EKO_MF_GLOBALS* globals, const MfPath& path, HeldDir& at);
MF_FILE_ENTRY* mfFindOrMakeFile(const EKO_MF_GLOBALS* globals, const MfPath& path, HeldDir& at, MemResult* result);

// What was taken out of its directory, or the whole tree: drops it with all below. No mutex may be held.
void mfScrap(MF_ENTRY* entry, EKO_MEMTAG tag);
void mfScrapTree(MF_SUBDIR_ENTRY* dir, EKO_MEMTAG tag);

// A reference is taken under a mutex that keeps the record in the tree, and given back under none.
template <class Record> void mfRefer(Record* record)
{
    __atomic_add_fetch(&record->references, 1, __ATOMIC_RELAXED);
}
void mfRelease(MF_SUBDIR_ENTRY* dir, EKO_MEMTAG tag);
void mfRelease(MF_FILE_ENTRY* file, EKO_MEMTAG tag);

// ---- bytes (ekomf_data.cpp), with the file's mutex held ---------------------------------------------------

uint32 mfReadAt(const MF_FILE_ENTRY* file, EKO_FILE_OFFSET off, void* buf, uint32 size);
uint32 mfWriteAt(MF_FILE_ENTRY* file, EKO_FILE_OFFSET off, const void* buf, uint32 size, EKO_MEMTAG tag,
                 MemResult* result);
int32 mfResize(MF_FILE_ENTRY* file, EKO_FILE_OFFSET size, EKO_MEMTAG tag, MemResult* result);
void mfDropBytes(MF_FILE_ENTRY* file, EKO_MEMTAG tag); // all, and the array

#endif
