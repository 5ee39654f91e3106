// SPDX-License-Identifier: MIT
// eko_streamcache.h - the 1024 bytes between a text stream and its file handle.
#ifndef EKO_EKO_STREAMCACHE_H
#define EKO_EKO_STREAMCACHE_H

#include <string.h>

#include "ekotext_int.h"

// Opens the file and a cache over it; null with the status on failure. No report. The length of a standard stream
// is not asked for.
EKO_FILE_CACHE_CTX* tryOpenCache(const char* name, uint32 flags, uint16 xflags, bool standard, int32* status);
// Writes what is pending, closes the file and frees the cache.
void closeCache(EKO_FILE_CACHE_CTX* cache);

// Move bytes at the logical position and answer the count; fewer are the end of the file, or a failed write.
uint32 cacheRead(EKO_FILE_CACHE_CTX* cache, void* dest, uint32 wanted);
uint32 cacheWrite(EKO_FILE_CACHE_CTX* cache, const void* src, uint32 size); // for short text: cachePut

// Whether the logical position is among the first `span` bytes of the buffer.
inline bool cacheHolds(const EKO_FILE_CACHE_CTX* cache, uint32 span)
{
    return cache->off >= cache->buff_off && cache->off - cache->buff_off < span;
}

// cacheRead of one byte; false at the end of the file. Inline: almost always the buffer has it.
inline bool cacheReadByte(EKO_FILE_CACHE_CTX* cache, uint8* byte)
{
    if (!cacheHolds(cache, cache->bytes))
        return cacheRead(cache, byte, 1) == 1;
    *byte = cache->buff[cache->off++ - cache->buff_off];
    return true;
}

// cacheWrite, inline where the buffer's span has room for all: for a line it almost always has.
inline uint32 cachePut(EKO_FILE_CACHE_CTX* cache, const char* text, uint32 size)
{
    const EKO_FILE_OFFSET at = cache->off - cache->buff_off;
    if (cache->off < cache->buff_off || at >= CACHE_BYTES || size > CACHE_BYTES - at || size == 0)
        return cacheWrite(cache, text, size);
    memcpy(cache->buff + at, text, size);
    cache->modified = 1;
    cache->plain = 0;
    cache->off += size;
    if (cache->off > cache->size)
        cache->size = cache->off;
    return size;
}

// The bytes at the logical position that can be had without asking the file again, filling the buffer if there are
// none; `available` is 0 at the end of the file. cacheSkip moves over some of them.
bool cacheFill(EKO_FILE_CACHE_CTX* cache); // cachePeek's way to ask the file; false when there is nothing
inline const uint8* cachePeek(EKO_FILE_CACHE_CTX* cache, uint32* available)
{
    *available = 0;
    if (!cacheHolds(cache, cache->bytes) && !cacheFill(cache))
        return nullptr;
    const uint32 at = static_cast<uint32>(cache->off - cache->buff_off);
    *available = cache->bytes - at;
    return cache->buff + at;
}

// Whether the next `count` bytes of the buffer are known to hold no 0xFF: found out once when it is filled, not
// line by line. False says nothing.
inline bool cachePlain(const EKO_FILE_CACHE_CTX* cache, uint32 count)
{
    return cache->off - cache->buff_off + count <= cache->plain;
}

inline void cacheSkip(EKO_FILE_CACHE_CTX* cache, uint32 count)
{
    cache->off += count;
}

// Fills the buffer with the file's first bytes, `wanted` of them if there are so many, and answers how many there
// are. Leaves the logical position at 0, and nothing behind them unread that cannot be read still. For a new cache.
uint32 cacheHead(EKO_FILE_CACHE_CTX* cache, uint32 wanted);

// Sets the logical position, after writing what is pending. 0 or 1002, with the position unchanged.
int32 cacheSeek(EKO_FILE_CACHE_CTX* cache, int64 off, int32 origin);
// Writes what is pending and waits for the disk. 0 or 1002.
int32 cacheSync(EKO_FILE_CACHE_CTX* cache);

#endif
