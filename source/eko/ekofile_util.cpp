// SPDX-License-Identifier: MIT
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
constexpr uint32 BLOCK_BYTES = 1024;      // compared, and written or not, as one
constexpr uint32 AHEAD_BYTES = 64 * 1024; // read at once, when there is memory for them

bool inMemory(uint16 xflags)
{
    return xflags & EKO_FILE_INMEMORY;
}

bool sameName(const char* src, uint16 src_xflags, const char* dest, uint16 dest_xflags)
{
    return inMemory(src_xflags) == inMemory(dest_xflags) && equalNoCase(src, dest);
}

uint32 lesser(EKO_FILE_OFFSET a, uint32 b)
{
    return a < b ? static_cast<uint32>(a) : b;
}

// The bytes from `off` to the next multiple of `unit`, also behind a short read. As both units divide 1 MiB,
// nothing crosses a multiple of that, which a write to a mapped file must not do.
uint32 upToMultiple(EKO_FILE_OFFSET off, uint32 unit)
{
    return unit - static_cast<uint32>(off % unit);
}

// ---- two files side by side -------------------------------------------------------------------------------

// Two open files with a piece of each; closed and freed at the end. `result` keeps that memory ran out.
//
// A piece is some blocks, read by one call. It is decided on block by block, as if each had been read by itself:
// where a call brings less than it was asked for, the block that it broke off in is the last one to be decided on,
// and the next call begins behind that. One that broke off between two blocks, as where a disk cannot be read any
// further, is made again for the second of them.
struct FilePair {
    EKO_FH first = nullptr;
    EKO_FH second = nullptr;
    char* firstPiece = nullptr; // the block of memory; the second piece is in it, too
    char* secondPiece = nullptr;
    uint32 pieceBytes = 0;
    MemResult* result;

    explicit FilePair(MemResult* res) : result(res) {}
    FilePair(const FilePair&) = delete;
    FilePair& operator=(const FilePair&) = delete;
    ~FilePair()
    {
        const ErrnoGuard keepErrno;
        EKO_FREE(firstPiece, EKO_GLOBAL_TAG);
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

    bool takePieces()
    {
        MemResult step;
        if (!takePieces(AHEAD_BYTES, &step) && !takePieces(BLOCK_BYTES, &step))
            note(step);
        return firstPiece != nullptr;
    }

    uint32 readFirst(EKO_FILE_OFFSET off, EKO_FILE_OFFSET most)
    {
        return read(first, off, firstPiece, lesser(most, upToMultiple(off, pieceBytes)));
    }
    // Answers 0 also where that fails: then the file does not have what the first one has.
    uint32 readSecond(EKO_FILE_OFFSET off, uint32 size)
    {
        const uint32 count = read(second, off, secondPiece, size);
        return count == EKO_FILE_IO_FAILED ? 0 : count;
    }

    // Fails where a block is not written whole.
    bool writeSecond(EKO_FILE_OFFSET off, uint32 at, uint32 end)
    {
        while (at < end) {
            MemResult step;
            const uint32 written = trySeekWrite(second, off + at, firstPiece + at, end - at, &step);
            note(step);
            if (written == 0 || written == EKO_FILE_IO_FAILED)
                return false;
            at += written;
            if (at < end && (off + at) % BLOCK_BYTES != 0)
                return false;
        }
        return true;
    }

private:
    void note(MemResult step)
    {
        if (*result != MemResult::exhausted)
            *result = step;
    }

    bool takePieces(uint32 bytes, MemResult* step)
    {
        firstPiece = static_cast<char*>(tryGetMem(size_t{2} * bytes, EKO_GLOBAL_TAG, EKO_MEM_PLAIN, nullptr, step));
        if (!firstPiece)
            return false;
        secondPiece = firstPiece + bytes;
        pieceBytes = bytes;
        return true;
    }

    uint32 read(EKO_FH fh, EKO_FILE_OFFSET off, char* piece, uint32 size)
    {
        MemResult step;
        const uint32 count = trySeekRead(fh, off, piece, size, &step);
        note(step);
        return count;
    }
};

// ---- copy -------------------------------------------------------------------------------------------------

// The length of the block at that place of a piece.
uint32 blockAt(EKO_FILE_OFFSET off, uint32 at, uint32 count)
{
    return lesser(count - at, upToMultiple(off + at, BLOCK_BYTES));
}

// The end of the run of blocks from `at` on that the second file holds, or of those that it does not. Of that
// file `held` bytes were read.
uint32 endOfRun(const FilePair& files, EKO_FILE_OFFSET off, uint32 at, uint32 count, uint32 held, bool wanted)
{
    while (at < count) {
        const uint32 block = blockAt(off, at, count);
        const bool same = at + block <= held && memcmp(files.firstPiece + at, files.secondPiece + at, block) == 0;
        if (same != wanted)
            break;
        at += block;
    }
    return at;
}

// Writes what the second file does not hold of a piece. In memory block by block: there a write is done whole or not
// at all, so that of a longer one less would be left when memory runs out.
bool writeMissing(FilePair& files, EKO_FILE_OFFSET off, uint32 count, uint32 held, bool intoMemory)
{
    for (uint32 at = 0; at < count;) {
        at = endOfRun(files, off, at, count, held, true);
        uint32 end = endOfRun(files, off, at, count, held, false);
        if (intoMemory && end > at)
            end = at + blockAt(off, at, count);
        if (!files.writeSecond(off, at, end))
            return false;
        at = end;
    }
    return true;
}

// How far a piece can be decided on when only `held` bytes of the second file could be read.
uint32 lastDecided(EKO_FILE_OFFSET off, uint32 held, uint32 count)
{
    const bool betweenBlocks = held > 0 && (off + held) % BLOCK_BYTES == 0;
    return betweenBlocks ? held : held + blockAt(off, held, count);
}

// Copies what can be decided on of a piece of `count` bytes; 0 for a failure.
uint32 copyPiece(FilePair& files, EKO_FILE_OFFSET off, uint32 count, EKO_FILE_OFFSET oldLength, bool intoMemory)
{
    const uint32 wanted = off < oldLength ? lesser(oldLength - off, count) : 0;
    const uint32 held = wanted ? files.readSecond(off, wanted) : 0;
    if (held < wanted)
        count = lastDecided(off, held, count);
    return writeMissing(files, off, count, held, intoMemory) ? count : 0;
}

// The length is taken once: a source that grows meanwhile is copied as far as it went, one that shrinks is a
// failure.
int32 copyPieces(FilePair& files, bool intoMemory)
{
    errno = 0;
    const EKO_FILE_OFFSET length = eko_fileLength(files.first);
    if (length == 0 && errno != 0)
        return EKO_FAILED; // it cannot be told: a move would remove what was not copied
    const EKO_FILE_OFFSET oldLength = eko_fileLength(files.second);
    uint32 count;
    for (EKO_FILE_OFFSET off = 0; off < length; off += count) {
        count = files.readFirst(off, length - off);
        if (count == 0 || count == EKO_FILE_IO_FAILED)
            return EKO_FAILED;
        count = copyPiece(files, off, count, oldLength, intoMemory);
        if (count == 0)
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
        !files.open(&files.second, dest, OPEN_READ_WRITE | OPEN_CREATE, dest_xflags) || !files.takePieces())
        return EKO_FAILED;
    return copyPieces(files, inMemory(dest_xflags));
}

// ---- compare ----------------------------------------------------------------------------------------------

// Compares what can be decided on of a piece of `count` bytes; 0 where the files differ.
uint32 comparePiece(FilePair& files, EKO_FILE_OFFSET off, uint32 count)
{
    const uint32 held = files.readSecond(off, count);
    if (held < count) {
        const auto ofBlock = static_cast<uint32>((off + held) % BLOCK_BYTES);
        count = held > ofBlock ? held - ofBlock : 0; // only whole blocks: the one that was broken off is missing
    }
    return memcmp(files.firstPiece, files.secondPiece, count) == 0 ? count : 0;
}

int32 comparePieces(FilePair& files)
{
    EKO_FILE_OFFSET off = 0;
    for (;;) {
        uint32 count = files.readFirst(off, AHEAD_BYTES);
        if (count == EKO_FILE_IO_FAILED)
            return EKO_FAILED;
        if (count == 0)
            break;
        count = comparePiece(files, off, count);
        if (count == 0)
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
    return files.takePieces() ? comparePieces(files) : EKO_NO_MEMORY;
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
