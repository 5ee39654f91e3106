// eko_streamcache.h - the 1024 bytes between a text stream and its file handle.
#ifndef EKO_EKO_STREAMCACHE_H
#define EKO_EKO_STREAMCACHE_H

#include "ekotext_int.h"

// Opens the file and a cache over it; null with the status on failure. No report. The length of a standard stream
// is not asked for.
EKO_FILE_CACHE_CTX* tryOpenCache(const char* name, uint32 flags, uint16 xflags, bool standard, int32* status);
// Writes what is pending, closes the file and frees the cache.
void closeCache(EKO_FILE_CACHE_CTX* cache);

// Move bytes at the logical position and answer the count; fewer are the end of the file, or a failed write.
uint32 cacheRead(EKO_FILE_CACHE_CTX* cache, void* dest, uint32 wanted);
uint32 cacheWrite(EKO_FILE_CACHE_CTX* cache, const void* src, uint32 size);

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

// The bytes at the logical position that can be had without asking the file again, filling the buffer if there are
// none; `available` is 0 at the end of the file. cacheSkip moves over some of them.
const uint8* cachePeek(EKO_FILE_CACHE_CTX* cache, uint32* available);
void cacheSkip(EKO_FILE_CACHE_CTX* cache, uint32 count);

// Fills the buffer with the file's first bytes, `wanted` of them if there are so many, and answers how many there
// are. Leaves the logical position at 0, and nothing behind them unread that cannot be read still. For a new cache.
uint32 cacheHead(EKO_FILE_CACHE_CTX* cache, uint32 wanted);

// Sets the logical position, after writing what is pending. 0 or 1002, with the position unchanged.
int32 cacheSeek(EKO_FILE_CACHE_CTX* cache, int64 off, int32 origin);
// Writes what is pending and waits for the disk. 0 or 1002.
int32 cacheSync(EKO_FILE_CACHE_CTX* cache);

#endif
