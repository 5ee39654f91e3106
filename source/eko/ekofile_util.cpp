// What is done to files by name: copy, compare, move, remove, rename, validate, each on disk, in memory, and from
// one to the other. The private calls are quiet; the exported ones report, once, after all is closed and freed.
//
// Names are compared here without regard to case, on disk as in memory. No state, no locks.

#include <errno.h>
#include <string.h>

#include "ekomf_int.h"

namespace {

constexpr int32 EKO_NO_FIRST_FILE = 1007; // of a comparison: it cannot be opened
constexpr int32 EKO_NO_SECOND_FILE = 1008;
constexpr uint32 OPEN_READ = 0;
constexpr uint32 BLOCK_BYTES = 1024;

bool inMemory(uint16 xflags)
{
    return xflags & EKO_FILE_INMEMORY;
}

bool sameName(const char* src, uint16 src_xflags, const char* dest, uint16 dest_xflags)
{
    return inMemory(src_xflags) == inMemory(dest_xflags) && equalNoCase(src, dest);
}

// What may be read at `off`: up to the next multiple of a block, also behind a short read. So no block crosses a
// multiple of 1 MiB, which a write to a mapped file must not do.
uint32 blockAt(EKO_FILE_OFFSET off)
{
    return BLOCK_BYTES - static_cast<uint32>(off % BLOCK_BYTES);
}

// ---- two files side by side -------------------------------------------------------------------------------

// Two open files with a block of each; closed and freed at the end. `result` keeps that memory ran out.
struct FilePair {
    EKO_FH first = nullptr;
    EKO_FH second = nullptr;
    char* firstBlock = nullptr;
    char* secondBlock = nullptr;
    MemResult* result;

    explicit FilePair(MemResult* res) : result(res) {}
    FilePair(const FilePair&) = delete;
    FilePair& operator=(const FilePair&) = delete;
    ~FilePair()
    {
        const ErrnoGuard keepErrno;
        EKO_FREE(secondBlock, EKO_GLOBAL_TAG);
        EKO_FREE(firstBlock, EKO_GLOBAL_TAG);
        eko_fileClose(second);
        eko_fileClose(first);
    }

    bool open(EKO_FH* fh, const char* name, uint32 flags, uint16 xflags)
    {
        int32 status;
        *fh = tryOpenFile(name, flags, xflags, &status);
        note(status == EKO_NO_MEMORY ? MemResult::exhausted : MemResult::done);
        return *fh != nullptr;
    }

    bool takeBlocks() { return takeBlock(&firstBlock) && takeBlock(&secondBlock); }

    uint32 readFirst(EKO_FILE_OFFSET off, uint32 size) { return read(first, off, firstBlock, size); }
    uint32 readSecond(EKO_FILE_OFFSET off, uint32 size) { return read(second, off, secondBlock, size); }

    // Whether the second file has, at `off`, what the first block holds.
    bool secondHas(EKO_FILE_OFFSET off, uint32 size)
    {
        return readSecond(off, size) == size && memcmp(firstBlock, secondBlock, size) == 0;
    }

    bool writeSecond(EKO_FILE_OFFSET off, uint32 size)
    {
        MemResult step;
        const uint32 written = trySeekWrite(second, off, firstBlock, size, &step);
        note(step);
        return written == size;
    }

private:
    void note(MemResult step)
    {
        if (*result != MemResult::exhausted)
            *result = step;
    }

    bool takeBlock(char** block)
    {
        MemResult step;
        *block = static_cast<char*>(tryGetMem(BLOCK_BYTES, EKO_GLOBAL_TAG, EKO_MEM_PLAIN, nullptr, &step));
        note(step);
        return *block != nullptr;
    }

    uint32 read(EKO_FH fh, EKO_FILE_OFFSET off, char* block, uint32 size)
    {
        MemResult step;
        const uint32 count = trySeekRead(fh, off, block, size, &step);
        note(step);
        return count;
    }
};

// ---- copy -------------------------------------------------------------------------------------------------

// The length is taken once: a source that grows meanwhile is copied as far as it went, one that shrinks is a
// failure.
int32 copyBlocks(FilePair& files)
{
    errno = 0;
    const EKO_FILE_OFFSET length = eko_fileLength(files.first);
    if (length == 0 && errno != 0)
        return EKO_FAILED; // it cannot be told: a move would remove what was not copied
    const EKO_FILE_OFFSET oldLength = eko_fileLength(files.second);
    uint32 count;
    for (EKO_FILE_OFFSET off = 0; off < length; off += count) {
        const EKO_FILE_OFFSET left = length - off;
        const uint32 block = blockAt(off);
        count = files.readFirst(off, left < block ? static_cast<uint32>(left) : block);
        if (count == 0 || count == EKO_FILE_IO_FAILED)
            return EKO_FAILED;
        const bool held = off + count <= oldLength && files.secondHas(off, count);
        if (!held && !files.writeSecond(off, count))
            return EKO_FAILED;
    }
    if (eko_fileLength(files.second) == length)
        return EKO_OK;
    return eko_fileSetSize(files.second, length) == 0 ? EKO_OK : EKO_FAILED;
}

int32 tryCopy(const char* src, uint16 src_xflags, const char* dest, uint16 dest_xflags, MemResult* result)
{
    *result = MemResult::refused;
    if (!src || !dest)
        return EKO_FAILED;
    // DELIBERATE: another rule than that of compare and move: on disk a file is copied onto itself, which opens it
    // twice and writes nothing, so that copying "A" to "a" makes a file. Pinned by path_stories.
    if (inMemory(src_xflags) && sameName(src, src_xflags, dest, dest_xflags))
        return EKO_OK;
    FilePair files(result);
    if (!files.open(&files.first, src, OPEN_READ, src_xflags) ||
        !files.open(&files.second, dest, OPEN_READ_WRITE | OPEN_CREATE, dest_xflags) || !files.takeBlocks())
        return EKO_FAILED;
    return copyBlocks(files);
}

// ---- compare ----------------------------------------------------------------------------------------------

int32 compareBlocks(FilePair& files)
{
    EKO_FILE_OFFSET off = 0;
    for (;;) {
        const uint32 count = files.readFirst(off, blockAt(off));
        if (count == EKO_FILE_IO_FAILED)
            return EKO_FAILED;
        if (count == 0)
            break;
        if (!files.secondHas(off, count))
            return EKO_FAILED;
        off += count;
    }
    // DELIBERATE: only a byte that is read makes the second file longer; where this one read fails, all that could
    // be compared was equal. Pinned by path_faults.
    return files.readSecond(off, 1) == 1 ? EKO_FAILED : EKO_OK;
}

int32 tryCmp(const char* src, uint16 src_xflags, const char* dest, uint16 dest_xflags, MemResult* result)
{
    *result = MemResult::refused;
    if (!src || !dest)
        return EKO_FAILED;
    // DELIBERATE: one name is one file, without a look, whether it exists or not; and "A" is "a", on disk too.
    // Pinned by path_stories.
    if (sameName(src, src_xflags, dest, dest_xflags))
        return EKO_OK;
    FilePair files(result);
    if (!files.open(&files.first, src, OPEN_READ, src_xflags))
        return EKO_NO_FIRST_FILE;
    if (!files.open(&files.second, dest, OPEN_READ, dest_xflags))
        return EKO_NO_SECOND_FILE;
    return files.takeBlocks() ? compareBlocks(files) : EKO_NO_MEMORY;
}

// ---- move -------------------------------------------------------------------------------------------------

bool goesWithInMemory(const char* src, const char* dest, int32* status, MemResult* result)
{
    MfPath from;
    MfPath to;
    if (!from.setFile(src, result) || !to.setFile(dest, result))
        return false;
    const bool same = from.sameDirectory(to) && equalNoCase(from.last(), to.last());
    *status = same ? EKO_OK : EKO_FAILED;
    return (same || to.isAbove(from)) && eko_mfValidate(src, nullptr, result);
}

// Whether a source that is there would go with the destination, which is removed first. `status` is the move's
// answer then: done where both names, however spelled, lead to one thing; refused where the destination is a
// directory in memory with the source in it, which on disk could not be removed. `from` and `to` hold
// EKO_FILE_INMEMORY or 0.
bool goesWith(const char* src, uint16 from, const char* dest, uint16 to, int32* status, MemResult* result)
{
    *result = MemResult::refused;
    *status = EKO_OK;
    if (from != to)
        return false;
    if (from)
        return goesWithInMemory(src, dest, status, result);
    return !disklessMode() && leadsToEntry(src, dest);
}

// ---- validate ---------------------------------------------------------------------------------------------

int32 tryValidate(const char* name, uint16 xflags, int32* isdir, MemResult* result)
{
    *result = MemResult::refused;
    if (isdir)
        *isdir = 0;
    if (!name)
        return 0;
    if (inMemory(xflags))
        return eko_mfValidate(name, isdir, result);
    return disklessMode() ? 0 : eko_flValidate(name, isdir);
}

} // namespace

// ---- for the library's own use ----------------------------------------------------------------------------

int32 tryRemove(const char* name, uint16 xflags, MemResult* result)
{
    *result = MemResult::refused;
    if (!name)
        return EKO_FAILED;
    if (inMemory(xflags))
        return eko_mfRemove(name, result);
    return disklessMode() || readOnlyMode() ? EKO_FAILED : eko_flRemove(name);
}

int32 tryRename(const char* src, uint16 src_xflags, const char* dest, uint16 dest_xflags, MemResult* result)
{
    *result = MemResult::refused;
    if (!src || !dest || inMemory(src_xflags) != inMemory(dest_xflags))
        return EKO_FAILED;
    if (inMemory(src_xflags))
        return eko_mfRename(src, dest, result);
    return disklessMode() || readOnlyMode() ? EKO_FAILED : eko_flRename(src, dest);
}

// DELIBERATE: the destination goes first, whether there is anything to move or not: a missing source destroys it.
// Callers put a new file in the place of an old one and count on the old one being gone. Pinned by path_stories.
int32 tryMove(const char* src, uint16 src_xflags, const char* dest, uint16 dest_xflags, MemResult* result)
{
    *result = MemResult::refused;
    if (!src || !dest)
        return EKO_FAILED;
    const uint16 from = src_xflags & EKO_FILE_INMEMORY;
    const uint16 to = dest_xflags & EKO_FILE_INMEMORY;
    if (sameName(src, from, dest, to)) // DELIBERATE: "A" is "a" here too. Pinned by path_stories.
        return EKO_OK;
    int32 status;
    if (goesWith(src, from, dest, to, &status, result))
        return status; // to go on would remove the only copy
    if (*result != MemResult::exhausted)
        tryRemove(dest, to, result);
    if (*result == MemResult::exhausted)
        return EKO_FAILED; // before anything was done
    if (tryRename(src, from, dest, to, result) == EKO_OK)
        return EKO_OK;
    if (*result == MemResult::exhausted)
        return EKO_FAILED;
    status = tryCopy(src, from, dest, to, result);
    if (status == EKO_OK)
        tryRemove(src, from, result);
    return status;
}

// ---- exported ---------------------------------------------------------------------------------------------

int32 eko_fileCopyEx(const char* src_name, uint16 src_xflags, const char* dest_name, uint16 dest_xflags)
{
    MemResult result;
    const int32 status = tryCopy(src_name, src_xflags, dest_name, dest_xflags, &result);
    memReportIf(result, __FILE__, __LINE__);
    return status;
}

int32 eko_fileCmpEx(const char* src_name, uint16 src_xflags, const char* dest_name, uint16 dest_xflags)
{
    MemResult result;
    const int32 status = tryCmp(src_name, src_xflags, dest_name, dest_xflags, &result);
    memReportIf(result, __FILE__, __LINE__);
    return status;
}

int32 eko_fileMoveEx(const char* src, uint16 src_xflags, const char* dest, uint16 dest_xflags)
{
    MemResult result;
    const int32 status = tryMove(src, src_xflags, dest, dest_xflags, &result);
    memReportIf(result, __FILE__, __LINE__);
    return status;
}

int32 eko_fileRemoveEx(const char* name, uint16 xflags)
{
    MemResult result;
    const int32 status = tryRemove(name, xflags, &result);
    memReportIf(result, __FILE__, __LINE__);
    return status;
}

int32 eko_fileRenameEx(const char* src, uint16 src_xflags, const char* dest, uint16 dest_xflags)
{
    MemResult result;
    const int32 status = tryRename(src, src_xflags, dest, dest_xflags, &result);
    memReportIf(result, __FILE__, __LINE__);
    return status;
}

int32 eko_fileValidateEx(const char* name, uint16 xflags, int32* isdir)
{
    MemResult result;
    const int32 usable = tryValidate(name, xflags, isdir, &result);
    memReportIf(result, __FILE__, __LINE__);
    return usable;
}

int32 eko_fileCopy(const char* src_name, const char* dest_name)
{
    return eko_fileCopyEx(src_name, 0, dest_name, 0);
}

int32 eko_fileCmp(const char* src_name, const char* dest_name)
{
    return eko_fileCmpEx(src_name, 0, dest_name, 0);
}

int32 eko_fileMove(const char* src, const char* dest)
{
    return eko_fileMoveEx(src, 0, dest, 0);
}

int32 eko_fileRemove(const char* name)
{
    return eko_fileRemoveEx(name, 0);
}

int32 eko_fileRename(const char* src, const char* dest)
{
    return eko_fileRenameEx(src, 0, dest, 0);
}

int32 eko_fileValidate(const char* name, int32* isdir)
{
    return eko_fileValidateEx(name, 0, isdir);
}
