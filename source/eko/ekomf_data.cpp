// SPDX-License-Identifier: MIT
// The bytes of a file in memory: segments that grow with the offset and never move.
//
//     index    0    1    2    3 |   4    5    6 |   7  ...  9 | ... 12 | ... 15 | 16 ...
//     each            8 KiB     |    32 KiB     |   128 KiB   | 512 KiB|  2 MiB | 8 MiB
//     level             0       |       1       |      2      |    3   |    4   |   5
//
// A level begins at the offset that its segments are large. There, had they all been of its size, the index would
// be 1; each level below has put 3 more in front.
//
// A segment is not zeroed when it is made: what will be written over need not be, and in a large one that is nearly
// all. Instead the file knows how far it was filled. Behind that it reads as zeros, and a write further behind
// zeroes what it leaves out. A cut keeps what was filled in the segment that stays last.
//
// Everything here runs with the file's mutex held. Offsets and counts are computed in 64 bits, however wide a
// pointer is.

#include <string.h>

#include "ekomf_int.h"

namespace {

constexpr uint32 TOP_LEVEL = 5;
constexpr uint32 SEGMENTS_PER_LEVEL = 3;          // that a level adds
constexpr uint32 LARGE_SEGMENT = 2 * 1024 * 1024; // as large as a large page of most systems
constexpr uint32 SEGMENT_ROUNDING = 10;           // of the array's growth

constexpr uint32 sizeAtLevel(uint32 level)
{
    return 8192u << (2 * level);
}

struct Place {
    uint64 index;
    uint32 offset; // in the segment
    uint32 room;   // from there to its end
};

Place placeOf(EKO_FILE_OFFSET off)
{
    uint32 level = TOP_LEVEL;
    while (level > 0 && off < sizeAtLevel(level))
        --level;
    const uint32 size = sizeAtLevel(level);
    const auto inSegment = static_cast<uint32>(off % size);
    return {uint64{level} * SEGMENTS_PER_LEVEL + off / size, inSegment, size - inSegment};
}

uint32 levelOf(uint32 index)
{
    uint32 level = TOP_LEVEL;
    while (level > 0 && SEGMENTS_PER_LEVEL * level >= index)
        --level;
    return level;
}

// Where a segment begins, in the file.
EKO_FILE_OFFSET startOf(uint32 index)
{
    const uint32 level = levelOf(index);
    return EKO_FILE_OFFSET{index - SEGMENTS_PER_LEVEL * level} * sizeAtLevel(level);
}

bool extendArray(MF_FILE_ENTRY* file, uint64 count, EKO_MEMTAG tag, MemResult* result)
{
    const uint64 room = (count + SEGMENT_ROUNDING - 1) / SEGMENT_ROUNDING * SEGMENT_ROUNDING;
    if (room > UINT32_MAX || room > SIZE_MAX / sizeof(uint8*))
        return false;
    const size_t bytes = static_cast<size_t>(room) * sizeof(uint8*);
    void* array = file->segments ? tryExtendMem(file->segments, bytes, tag, result)
                                 : tryGetMem(bytes, tag, EKO_MEM_PLAIN, nullptr, result);
    if (!array)
        return false;
    file->segments = static_cast<uint8**>(array);
    memset(file->segments + file->size_segments, 0, bytes - file->size_segments * sizeof(uint8*));
    file->size_segments = static_cast<uint32>(room);
    return true;
}

bool addSegment(MF_FILE_ENTRY* file, EKO_MEMTAG tag, MemResult* result)
{
    const uint32 size = sizeAtLevel(levelOf(file->num_segments));
    void* segment = tryGetMem(size, tag, EKO_MEM_PLAIN, nullptr, result);
    if (!segment)
        return false;
    if (size >= LARGE_SEGMENT)
        mpPreferLargePages(segment, size);
    file->segments[file->num_segments++] = static_cast<uint8*>(segment);
    return true;
}

// Gives a file the segments of that size, no more and no fewer. When memory runs out, those already made stay,
// unused, until the next time.
// DELIBERATE: the bytes behind `size` in the last segment that stays are left as they are, and show again when the
// file grows; only a new segment is zero. Callers that cut a file and set its length back have always found them
// there. Pinned by memfile_bytes.
int32 adjust_space(MF_FILE_ENTRY* file, EKO_FILE_OFFSET size, EKO_MEMTAG tag, MemResult* result)
{
    const uint64 needed = size == 0 ? 0 : placeOf(size - 1).index + 1;
    if (needed > file->size_segments && !extendArray(file, needed, tag, result))
        return EKO_NO_MEMORY;
    while (file->num_segments < needed) {
        if (!addSegment(file, tag, result))
            return EKO_NO_MEMORY;
    }
    while (file->num_segments > needed) {
        EKO_FREE(file->segments[--file->num_segments], tag);
        file->segments[file->num_segments] = nullptr;
    }
    if (file->filled > startOf(file->num_segments))
        file->filled = startOf(file->num_segments);
    return EKO_OK;
}

// Calls `move` with each piece of a range: where it lies, and its length.
template <class Move>
void eachPiece(const MF_FILE_ENTRY* file, EKO_FILE_OFFSET off, EKO_FILE_OFFSET size, Move move)
{
    while (size > 0) {
        const Place place = placeOf(off);
        const uint32 count = size < place.room ? static_cast<uint32>(size) : place.room;
        move(file->segments[place.index] + place.offset, count);
        off += count;
        size -= count;
    }
}

// Puts bytes into segments that are there. What the write leaves out in front of it is zeroed.
void fill(MF_FILE_ENTRY* file, EKO_FILE_OFFSET off, const void* buf, uint32 size)
{
    if (size == 0)
        return;
    if (off > file->filled)
        eachPiece(file, file->filled, off - file->filled, [](uint8* at, uint32 count) { memset(at, 0, count); });
    const auto* from = static_cast<const uint8*>(buf);
    eachPiece(file, off, size, [&from](uint8* to, uint32 count) {
        memcpy(to, from, count);
        from += count;
    });
    if (off + size > file->filled)
        file->filled = off + size;
}

} // namespace

uint32 mfReadAt(const MF_FILE_ENTRY* file, EKO_FILE_OFFSET off, void* buf, uint32 size)
{
    if (!buf && size > 0)
        return EKO_FILE_IO_FAILED;
    if (off >= file->size)
        return 0;
    if (size > file->size - off)
        size = static_cast<uint32>(file->size - off);
    auto* to = static_cast<uint8*>(buf);
    const EKO_FILE_OFFSET left = file->filled > off ? file->filled - off : 0;
    const uint32 filled = left < size ? static_cast<uint32>(left) : size;
    eachPiece(file, off, filled, [&to](const uint8* from, uint32 count) {
        memcpy(to, from, count);
        to += count;
    });
    if (size > filled)
        memset(to, 0, size - filled);
    return size;
}

uint32 mfWriteAt(MF_FILE_ENTRY* file, EKO_FILE_OFFSET off, const void* buf, uint32 size, EKO_MEMTAG tag,
                 MemResult* result)
{
    EKO_FILE_OFFSET end;
    if (file->removed || __builtin_add_overflow(off, size, &end) || (!buf && size > 0))
        return EKO_FILE_IO_FAILED;
    if (end > file->size && adjust_space(file, end, tag, result) != EKO_OK)
        return EKO_FILE_IO_FAILED;
    fill(file, off, buf, size);
    if (end > file->size)
        setSize(file, end);
    setModtime(file, eko_timeSecs());
    *result = MemResult::done;
    return size;
}

int32 mfResize(MF_FILE_ENTRY* file, EKO_FILE_OFFSET size, EKO_MEMTAG tag, MemResult* result)
{
    if (file->removed)
        return EKO_FAILED;
    const int32 status = adjust_space(file, size, tag, result);
    if (status != EKO_OK)
        return status;
    setSize(file, size);
    *result = MemResult::done;
    return EKO_OK;
}

void mfDropBytes(MF_FILE_ENTRY* file, EKO_MEMTAG tag)
{
    MemResult ignored;
    setSize(file, 0);
    adjust_space(file, 0, tag, &ignored);
    EKO_FREE(file->segments, tag);
    file->segments = nullptr;
    file->size_segments = 0;
}
