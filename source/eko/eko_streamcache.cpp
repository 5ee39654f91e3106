// SPDX-License-Identifier: MIT
// The cache of a text stream.
//
// Data    | buff_off ... off ... |   the buffer spans up to 1024 bytes of the file from buff_off; `bytes` of them
//         are valid for reading, and when `modified`, those from buff_off to off are still to be written.
//
// The handle is only read and written in sequence, never positioned: a stream must work over pipes and terminals
// just the same. A seek changes the logical position alone; inside the buffer's span that is exact, and outside of
// it the next bytes read are those behind the last ones read (DELIBERATE; pinned by stream_far_seek_reads_on). What
// a stream for both reading and writing writes goes there too, with the bytes in front of it in the buffer.

#include <string.h>

#include "eko_streamcache.h"

namespace {

enum : int32 { FROM_START = 0, FROM_HERE = 1, FROM_END = 2 };

// A short write keeps the rest pending, and is a failure whatever its count: in read-only mode that is 0. What the
// buffer holds is no longer at the file's position then, so none of it is valid for reading.
bool flushModified(EKO_FILE_CACHE_CTX* cache)
{
    if (!cache->modified)
        return true;
    const uint32 pending = static_cast<uint32>(cache->off - cache->buff_off);
    const uint32 written = eko_fileWrite(cache->fh, cache->buff, pending);
    if (written != pending) {
        if (written < pending) {
            memmove(cache->buff, cache->buff + written, pending - written);
            cache->buff_off += written;
            cache->bytes = 0;
        }
        return false;
    }
    cache->modified = 0;
    cache->buff_off = cache->off;
    cache->bytes = 0;
    return true;
}

// A stream that only writes over what is there reads nothing: on disk the system refuses to, while from a file in
// memory, whose opening cuts nothing, it could, and would go on writing behind what it has read.
bool overwritesInMemory(const EKO_FILE_CACHE_CTX* cache)
{
    return cache->fh->f_mem && (cache->fh->f_flags & OPEN_WRITE);
}

// The bytes in front of the first 0xFF.
uint16 countPlain(const uint8* bytes, uint32 count)
{
    if (const void* const first = memchr(bytes, 0xFF, count))
        count = static_cast<uint32>(static_cast<const uint8*>(first) - bytes);
    return static_cast<uint16>(count);
}

// Lets the buffer's span start at the logical position, and fills it. At or behind the file's end nothing is read,
// which also keeps a stream that only writes from reading: writing raises the size first. The span then is empty,
// so that what a stream for both writes at the end is not taken for part of what it has read.
bool reposition(EKO_FILE_CACHE_CTX* cache)
{
    if (!flushModified(cache))
        return false;
    cache->buff_off = cache->off;
    cache->bytes = 0;
    cache->plain = 0;
    if ((cache->size != 0 && cache->off >= cache->size) || overwritesInMemory(cache))
        return true;
    const uint32 count = eko_fileRead(cache->fh, cache->buff, CACHE_BYTES);
    cache->bytes = count == EKO_FILE_IO_FAILED ? 0 : count;
    cache->plain = countPlain(cache->buff, cache->bytes);
    return true;
}

uint32 least(uint32 a, uint32 b)
{
    return a < b ? a : b;
}

} // namespace

EKO_FILE_CACHE_CTX* tryOpenCache(const char* name, uint32 flags, uint16 xflags, bool standard, int32* status)
{
    MemResult result;
    EKO_FILE_CACHE_CTX* cache = tryZeroed<EKO_FILE_CACHE_CTX>(EKO_GLOBAL_TAG, &result);
    if (!cache) {
        *status = result == MemResult::exhausted ? EKO_NO_MEMORY : EKO_FAILED;
        return nullptr;
    }
    cache->fh = tryOpenFile(name, flags, xflags, status);
    if (!cache->fh) {
        const ErrnoGuard keepErrno;
        EKO_FREE(cache, EKO_GLOBAL_TAG);
        return nullptr;
    }
    if (!standard)
        cache->size = eko_fileLength(cache->fh);
    return cache;
}

void closeCache(EKO_FILE_CACHE_CTX* cache)
{
    flushModified(cache);
    eko_fileClose(cache->fh);
    EKO_FREE(cache, EKO_GLOBAL_TAG);
}

// Reads behind what is there instead of moving the span: a pipe can deliver the first bytes one by one, and a seek
// back to 0 must find all of them.
uint32 cacheHead(EKO_FILE_CACHE_CTX* cache, uint32 wanted)
{
    while (cache->bytes < wanted && (cache->size == 0 || cache->bytes < cache->size)) {
        const uint32 count = eko_fileRead(cache->fh, cache->buff + cache->bytes, CACHE_BYTES - cache->bytes);
        if (count == 0 || count == EKO_FILE_IO_FAILED)
            break;
        cache->bytes += count;
    }
    return least(cache->bytes, wanted);
}

bool cacheFill(EKO_FILE_CACHE_CTX* cache)
{
    return reposition(cache) && cache->bytes > 0;
}

uint32 cacheRead(EKO_FILE_CACHE_CTX* cache, void* dest, uint32 wanted)
{
    uint32 done = 0;
    while (done < wanted) {
        uint32 available;
        const uint8* bytes = cachePeek(cache, &available);
        if (!available)
            break;
        const uint32 count = least(available, wanted - done);
        memcpy(static_cast<uint8*>(dest) + done, bytes, count);
        cacheSkip(cache, count);
        done += count;
    }
    return done;
}

uint32 cacheWrite(EKO_FILE_CACHE_CTX* cache, const void* src, uint32 size)
{
    uint32 done = 0;
    while (done < size) {
        if (!cacheHolds(cache, CACHE_BYTES) && !reposition(cache))
            break; // a full buffer that cannot be written makes no room
        const uint32 at = static_cast<uint32>(cache->off - cache->buff_off);
        const uint32 count = least(CACHE_BYTES - at, size - done);
        memcpy(cache->buff + at, static_cast<const uint8*>(src) + done, count);
        cache->modified = 1;
        cache->plain = 0;
        cache->off += count;
        done += count;
        if (cache->off > cache->size)
            cache->size = cache->off;
    }
    return done;
}

// What is pending lies between buff_off and off, so it is written before off moves.
int32 cacheSeek(EKO_FILE_CACHE_CTX* cache, int64 off, int32 origin)
{
    EKO_FILE_OFFSET base;
    switch (origin) {
    case FROM_START:
        base = 0;
        break;
    case FROM_HERE:
        base = cache->off;
        break;
    case FROM_END:
        base = cache->size;
        break;
    default:
        return EKO_FAILED;
    }
    int64 target;
    if (__builtin_add_overflow(static_cast<int64>(base), off, &target) || target < 0 || !flushModified(cache))
        return EKO_FAILED;
    cache->off = static_cast<EKO_FILE_OFFSET>(target);
    return EKO_OK;
}

int32 cacheSync(EKO_FILE_CACHE_CTX* cache)
{
    return flushModified(cache) ? eko_fileSync(cache->fh) : EKO_FAILED;
}
