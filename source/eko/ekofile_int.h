// SPDX-License-Identifier: MIT
// ekofile_int.h - inside the file modules: descriptors, mappings of the operating system, and the handle record.
#ifndef EKO_EKOFILE_INT_H
#define EKO_EKOFILE_INT_H

#include "ekomem_int.h"

// ---- descriptors (ekounix_file.cpp) -----------------------------------------------------------------------

enum EKO_STD_HANDLE : int32 { EKO_STD_HANDLE_IN = 0, EKO_STD_HANDLE_OUT = 1, EKO_STD_HANDLE_ERR = 2 };

int32 eko_open_file(const char* path, uint32 flags, EKO_FDESC* desc);
int32 eko_flOpenSync(const char* path, uint32 flags, EKO_FDESC* desc);
int32 eko_flOpenStd(EKO_FDESC* desc, EKO_STD_HANDLE handle);
uint32 eko_flSeekWrite(EKO_FDESC desc, EKO_FILE_OFFSET off, const void* buf, uint32 size);
uint32 eko_flSeekRead(EKO_FDESC desc, EKO_FILE_OFFSET off, void* buf, uint32 size);
int32 eko_flSync(EKO_FDESC desc);
EKO_FILE_OFFSET eko_flSize(EKO_FDESC desc);
int32 eko_flLock(EKO_FDESC desc);
void eko_flUnlock(EKO_FDESC desc);
int32 eko_rename(const char* src, const char* dest);
int32 eko_flRename(const char* src, const char* dest);
int32 eko_remove(const char* path);
int32 getFileType(const char* path, int32* isdir);
int32 eko_flValidate(const char* path, int32* isdir);
time64_t eko_flModTime(const char* path);
// The size of a name that the narrow stat accepts; EKO_FILE_NO_OFFSET when it does not.
EKO_FILE_OFFSET narrowStatSize(const char* path);

// ---- directories (ekounix_dir.cpp) ------------------------------------------------------------------------
// Names come as the system lists them, "." and ".." among them. `result` says when memory ran out.

using EKO_DIR_ENTRY = struct FILE_DIR_ENTRY*;

EKO_DIR_ENTRY eko_flPathOpen(const char* path, const char* pattern, MemResult* result);
// The next name that matches, valid until the next call or the close; null at the end. `isdir` may be null; it is 0
// when the memory to find it out was missing, which `result` tells beside the name.
const char* eko_flPathNext(EKO_DIR_ENTRY dir, int32* isdir, MemResult* result);
void eko_flPathClose(EKO_DIR_ENTRY dir);
int32 getPathType(EKO_DIR_ENTRY dir, const char* name, MemResult* result);

// ---- names (ekounix_path.cpp, ekofile_path.cpp, ekofile_util.cpp, ekofile_match.cpp) ----------------------

constexpr int32 EKO_DIR_EXISTS = 1006;

// Whether a name fits a pattern of "*" and "?", without regard to case. Neither recursion nor memory.
bool eko_match(const char* name, const char* pattern);

// Whether a name on disk leads to that entry of a directory: it is the same one, however spelled, or a symbolic
// link that ends there. Two hard links to one file are two entries.
bool leadsToEntry(const char* name, const char* entry);

// As the exported calls, without report or jump.
int32 tryMove(const char* src, uint16 src_xflags, const char* dest, uint16 dest_xflags, MemResult* result);
int32 tryRemove(const char* name, uint16 xflags, MemResult* result);
int32 tryRename(const char* src, uint16 src_xflags, const char* dest, uint16 dest_xflags, MemResult* result);
char* tryCurrdir(EKO_MEMTAG tag, MemResult* result);
char* tryFullpath(const char* path, EKO_MEMTAG tag, MemResult* result);
int32 tryPathSplit(const char* path, char** dir, char** file, EKO_MEMTAG tag, MemResult* result);

// ---- mappings (ekounix_map.cpp) ---------------------------------------------------------------------------

struct EKO_OSMAPINFO {
    EKO_FDESC desc;
    int32 access; // page protection of every view
};
using EKO_OSMAP = EKO_OSMAPINFO*;

int32 eko_mpCreateMap(EKO_FDESC desc, EKO_FILE_OFFSET size, int32 writable, int32* resizeNeedsClose,
                      EKO_OSMAP* map);
void eko_mpCloseMap(EKO_OSMAP map);
int32 eko_mpResizeMap(EKO_OSMAP map, EKO_FILE_OFFSET size);
void eko_mpFlushMap(EKO_OSMAP map);
int32 eko_mpMapView(EKO_OSMAP map, EKO_FILE_OFFSET off, uint32 size, void** view);
// The same over a view of that size, by one call of the system instead of two. When it fails the old view is gone
// for the caller: the system does not say whether it is still there, so nobody may unmap what may be another
// thread's now. At worst its addresses stay taken.
int32 eko_mpReplaceView(EKO_OSMAP map, EKO_FILE_OFFSET off, uint32 size, void* view);
void eko_mpUnmapView(void* view, size_t size);
void eko_mpFlushView(void* view, size_t size);

// Asks the system for large pages behind a block of memory that nobody has touched yet.
void mpPreferLargePages(void* mem, size_t size);

// ---- handles (ekofile.cpp) --------------------------------------------------------------------------------

using EKO_MFH = struct MF_FILE_HANDLE*; // an open memory file (ekomf_int.h)
using EKO_MAP = struct EKO_MAPINFO*;    // a mapped-view cache (ekomemmap_int.h)

struct EKOFTAB {
    char* f_name;
    EKO_FDESC f_desc;
    EKO_MFH f_mem;
    uint32 f_flags; // as used; without create and truncate once open, so that nothing can do that again
    uint16 f_xflags;
    int16 f_stdfile; // f_desc is one of the standard streams, never closed here
    EKO_MAP f_map;
    EKO_SEM f_lock; // none until first needed
};

// As eko_fileOpen, without a report when memory runs out: `status` says so.
EKO_FH tryOpenFile(const char* name, uint32 flags, uint16 xflags, int32* status);
// As eko_fileSeekWrite and eko_fileSeekRead: they log what failed, but leave it to the caller to report memory.
uint32 trySeekWrite(EKO_FH fh, EKO_FILE_OFFSET off, const void* buf, uint32 size, MemResult* result);
uint32 trySeekRead(EKO_FH fh, EKO_FILE_OFFSET off, void* buf, uint32 size, MemResult* result);

// Makes the module's record if need be. For a module that will open files while it holds a mutex of its own.
bool fileRecordExists();

// The bits of an open's flags that this system tests, in any order of the operating system's headers.
constexpr uint32 OPEN_WRITE = 0x1;
constexpr uint32 OPEN_READ_WRITE = 0x2;
constexpr uint32 OPEN_CREATE = 0x40;
constexpr uint32 OPEN_TRUNCATE = 0x200;
constexpr uint32 OPEN_APPEND = 0x400;

#endif
