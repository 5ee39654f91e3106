/* SPDX-License-Identifier: MIT */
/* store.c - the data file.
 *
 *      header   "minidb\r\n" | version | UUID | check
 *      record   keyLen | valueLen | bytesCheck | headCheck | key | value
 *      record   ...
 *
 * The UUID is the data file's own: made with it, and shared by its copies only. Numbers are 32 bits, in network order
 * in the header and little-endian in records, wherever the file is written. Checks are CRC-32: `check` and `headCheck`
 * of what stands in front of them in the header or record, `bytesCheck` of key and value. With a check of its own, a
 * record's length can be believed before the bytes that it counts are read.
 *
 * Records are only ever appended. Of several with the same key the last one counts, so loading again replaces.
 *
 * Recovery, at every open
 *   A record is whole when both checks agree. If one is not whole, what follows decides. When no whole record
 *   stands anywhere behind it, it is the end of a load that was interrupted, be it short, zero-filled or garbage:
 *   the file is cut off in front of it, and nothing but that end is lost. When a whole record does stand behind
 *   it, records are damaged that were once complete. Cutting would lose the good ones too, so the open fails.
 *   (After a power failure the system may have kept a later piece of the last load and not an earlier one. That
 *   cannot be told from damage and is reported as such.)
 *   Only a process that holds the file's lock cuts: what looks torn to others may be a load that is under way.
 *
 * Backings
 *   The lock, the recovery and the true length are matters of the file on disk, and go through the handle `disk`.
 *   Once the file is sound, records move through `fh`: the same handle, or one over mapped views, or one on a copy
 *   in memory. Views need two cares. Writing through them fills the file with zeros up to the next MiB; a crash
 *   leaves them, and recovery takes them for what they are, an unfinished end. And no write may cross a MiB. */
#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "minidb.h"

#define GRANULE ((EKO_FILE_OFFSET)1 << 20) /* of mapped views */

/* ---- numbers and checks ---------------------------------------------------------------------------------- */

static uint32 get32(const uint8* p)
{
    return (uint32)p[0] | (uint32)p[1] << 8 | (uint32)p[2] << 16 | (uint32)p[3] << 24;
}

static void put32(uint8* p, uint32 value)
{
    for (int i = 0; i < 4; ++i)
        p[i] = (uint8)(value >> 8 * i);
}

/* CRC-32 as in Ethernet and zip, half a byte at a time. Continues `crc`, which starts as 0. */
static uint32 crc32(uint32 crc, const void* bytes, size_t count)
{
    static const uint32 table[16] = {0x00000000, 0x1DB71064, 0x3B6E20C8, 0x26D930AC, 0x76DC4190, 0x6B6B51F4,
                                     0x4DB26158, 0x5005713C, 0xEDB88320, 0xF00F9344, 0xD6D6A3E8, 0xCB61B38C,
                                     0x9B64C2B0, 0x86D3D2D4, 0xA00AE278, 0xBDBDF21C};
    crc = ~crc;
    for (const uint8* p = bytes; count > 0; --count, ++p) {
        crc = table[(crc ^ *p) & 15] ^ crc >> 4;
        crc = table[(crc ^ (uint32)*p >> 4) & 15] ^ crc >> 4;
    }
    return ~crc;
}

/* ---- reading ------------------------------------------------------------------------------------------------ */

static bool readFailed(const STORE* store, EKO_FILE_OFFSET at)
{
    complain("%s: cannot be read at byte %llu", store->name, (unsigned long long)at);
    return false;
}

/* Reads ahead from `at`: `need` bytes, or as many as a buffer holds if the file has them. */
static bool fillWindow(STORE* store, EKO_FILE_OFFSET at, uint32 need)
{
    const EKO_FILE_OFFSET left = store->length - at;
    const uint32 size = need > store->pageSize ? need : store->pageSize;
    const uint32 want = left < size ? (uint32)left : size;
    if (store->windowSize < size) {
        uint8* larger = EKO_EXTEND(store->window, size, store->tag);
        if (!larger)
            return false;
        store->window = larger;
        store->windowSize = size;
    }
    store->windowAt = at;
    store->windowLen = 0;
    while (store->windowLen < want) {
        const uint32 got = eko_fileSeekRead(store->fh, at + store->windowLen, store->window + store->windowLen,
                                            want - store->windowLen);
        if (got == 0 || got == EKO_FILE_IO_FAILED)
            return readFailed(store, at);
        store->windowLen += got;
    }
    return true;
}

/* Bytes of the file, which must have them; null when they cannot be read. */
static uint8* fetch(STORE* store, EKO_FILE_OFFSET at, uint32 count)
{
    const bool inside = at >= store->windowAt && at + count <= store->windowAt + store->windowLen;
    if (!inside && !fillWindow(store, at, count))
        return NULL;
    return store->window + (at - store->windowAt);
}

static bool headIsWhole(const uint8* head)
{
    const uint32 keyLen = get32(head), valueLen = get32(head + 4);
    return get32(head + 12) == crc32(0, head, 12) && keyLen > 0 && keyLen <= MAX_PAIR_BYTES &&
           valueLen <= MAX_PAIR_BYTES - keyLen;
}

/* Reads the record at `*at`, if it is whole, and moves `*at` to where the next one can be: behind the record if
 * its length is known, else one byte on. */
static FOUND recordAt(STORE* store, EKO_FILE_OFFSET* at, PAIR* pair)
{
    const EKO_FILE_OFFSET start = *at, left = store->length - start;
    *at = store->length;
    if (left < RECORD_HEAD)
        return FOUND_TORN;
    const uint8* head = fetch(store, start, RECORD_HEAD);
    if (!head)
        return FOUND_FAULT;
    *at = start + 1;
    if (!headIsWhole(head))
        return FOUND_TORN;

    pair->keyLen = get32(head);
    pair->valueLen = get32(head + 4);
    const uint32 bytes = pair->keyLen + pair->valueLen;
    *at = store->length;
    if (bytes > left - RECORD_HEAD)
        return FOUND_TORN;
    head = fetch(store, start, RECORD_HEAD + bytes);
    if (!head)
        return FOUND_FAULT;
    *at = start + RECORD_HEAD + bytes;
    pair->key = (const char*)head + RECORD_HEAD;
    pair->value = pair->key + pair->keyLen;
    return crc32(0, pair->key, bytes) == get32(head + 8) ? FOUND_ONE : FOUND_TORN;
}

FOUND storeNext(STORE* store, EKO_FILE_OFFSET* at, PAIR* pair)
{
    const EKO_FILE_OFFSET start = *at;
    if (start >= store->length)
        return FOUND_END;
    const FOUND found = recordAt(store, at, pair);
    if (found != FOUND_TORN)
        return found;
    while (*at < store->length) {
        const FOUND later = recordAt(store, at, pair);
        if (later == FOUND_FAULT)
            return FOUND_FAULT;
        if (later == FOUND_ONE) {
            complain("%s: damaged at byte %llu, in front of whole records", store->name, (unsigned long long)start);
            return FOUND_FAULT;
        }
    }
    return FOUND_TORN;
}

/* ---- writing ------------------------------------------------------------------------------------------------ */

static bool writeAll(STORE* store, EKO_FILE_OFFSET at, const uint8* bytes, uint32 count)
{
    while (count > 0) {
        const EKO_FILE_OFFSET room = GRANULE - at % GRANULE; /* views want a cut there, the others do not mind */
        const uint32 piece = count < room ? count : (uint32)room;
        const uint32 done = eko_fileSeekWrite(store->fh, at, bytes, piece);
        if (done == 0 || done == EKO_FILE_IO_FAILED) {
            complain("%s: cannot be written at byte %llu: %s", store->name, (unsigned long long)at,
                     strerror(errno));
            return false;
        }
        at += done;
        bytes += done;
        count -= done;
    }
    return true;
}

static bool writePending(STORE* store)
{
    const uint32 count = store->pendingLen;
    store->pendingLen = 0;
    return writeAll(store, store->end - count, store->pending, count);
}

static bool appendBytes(STORE* store, const void* bytes, uint32 count)
{
    const uint8* from = bytes;
    while (count > 0) {
        if (store->pendingLen == store->pageSize && !writePending(store))
            return false;
        const uint32 room = store->pageSize - store->pendingLen;
        const uint32 part = count < room ? count : room;
        memcpy(store->pending + store->pendingLen, from, part);
        store->pendingLen += part;
        store->end += part;
        from += part;
        count -= part;
    }
    return true;
}

void storeMakeHead(const PAIR* pair, uint8 head[RECORD_HEAD])
{
    put32(head, pair->keyLen);
    put32(head + 4, pair->valueLen);
    put32(head + 8, crc32(crc32(0, pair->key, pair->keyLen), pair->value, pair->valueLen));
    put32(head + 12, crc32(0, head, 12));
}

bool storeAppend(STORE* store, const PAIR* pair, const uint8 head[RECORD_HEAD])
{
    return appendBytes(store, head, RECORD_HEAD) && appendBytes(store, pair->key, pair->keyLen) &&
           appendBytes(store, pair->value, pair->valueLen);
}

bool storeCommit(STORE* store)
{
    if (!writePending(store))
        return false;
    const bool copied = store->fh == store->disk || store->backing != BACKING_MEMORY ||
                        eko_fileCopyEx(store->name, EKO_FILE_INMEMORY, store->name, 0) == 0;
    if (copied && eko_fileSync(store->backing == BACKING_MAPPED ? store->fh : store->disk) == 0)
        return true;
    complain("%s: cannot be written to the disk: %s", store->name, strerror(errno));
    return false;
}

/* From here on there is only the file. */
static void closeBacking(STORE* store)
{
    if (store->fh == store->disk)
        return;
    eko_fileClose(store->fh);
    store->fh = store->disk;
    if (store->backing == BACKING_MEMORY)
        eko_fileRemoveEx(store->name, EKO_FILE_INMEMORY);
    else if (store->use == STORE_LOAD)
        eko_fileSetSize(store->disk, store->end); /* without the zeros; if it fails the next open cuts them off */
}

bool storeCutBack(STORE* store, EKO_FILE_OFFSET end)
{
    store->pendingLen = 0;
    store->end = store->length = end;
    closeBacking(store);
    if (eko_fileSetSize(store->disk, end) == 0)
        return true;
    complain("%s: cannot be cut back to %llu bytes: %s", store->name, (unsigned long long)end, strerror(errno));
    return false;
}

/* ---- opening ------------------------------------------------------------------------------------------------ */

typedef struct HEADER {
    char name[8];
    int32 version;
    UUID_VAL id;
    int32 check;
} HEADER;

#define NAME "minidb\r\n"
#define VERSION 2
#define NETWORK_ORDER (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__) /* whether streams have to swap for it */
#define FIXED_BYTES 12u                                           /* name and version */

/* The header's bytes, as a stream's callback gets them. */
typedef struct BYTES {
    uint8* at;
    uint32 left;
} BYTES;

static int32 putBytes(const void* to, const void* data, uint32 len)
{
    BYTES* bytes = *(BYTES* const*)to;
    if (len > bytes->left)
        return 1002;
    memcpy(bytes->at, data, len);
    bytes->at += len;
    bytes->left -= len;
    return 0;
}

static int32 getBytes(const void* from, void* data, uint32 size, uint32* len, uint32 reserved)
{
    BYTES* bytes = *(BYTES* const*)from;
    (void)reserved;
    *len = size < bytes->left ? size : bytes->left;
    memcpy(data, bytes->at, *len);
    bytes->at += *len;
    bytes->left -= *len;
    return *len > 0 ? 0 : 1002;
}

static int32 headerCheck(const uint8* header)
{
    return (int32)crc32(0, header, (size_t)STORE_FIRST - sizeof(int32));
}

/* A UUID is in network order as it is. */
static bool makeHeader(const UUID_VAL* id, uint8* header)
{
    BYTES bytes = {header, (uint32)STORE_FIRST}, *to = &bytes;
    EKO_OUTPUTBUFF out;
    if (eko_outputBuffCreate(putBytes, &to, NETWORK_ORDER, &out) != 0)
        return false;
    const bool made = eko_outputBuffPutString(out, NAME) == 0 && eko_outputBuffPutInt32(out, VERSION) == 0 &&
                      eko_outputBuffPutBytes(out, id, sizeof *id) == 0 && eko_outputBuffFlush(out) == 0 &&
                      eko_outputBuffPutInt32(out, headerCheck(header)) == 0 && eko_outputBuffFlush(out) == 0;
    eko_outputBuffDestroy(out);
    return made;
}

static bool readHeader(uint8* found, HEADER* header)
{
    BYTES bytes = {found, (uint32)STORE_FIRST}, *from = &bytes;
    EKO_INPUTBUFF in;
    if (eko_inputBuffCreate(getBytes, &from, NETWORK_ORDER, &in) != 0)
        return false;
    const bool read = eko_inputBuffGetBytes(in, header->name, sizeof header->name) == 0 &&
                      eko_inputBuffGetInt32(in, &header->version) == 0 &&
                      eko_inputBuffGetBytes(in, &header->id, sizeof header->id) == 0 &&
                      eko_inputBuffGetInt32(in, &header->check) == 0;
    eko_inputBuffDestroy(in);
    return read;
}

/* Whether a file holds no more than a load can leave that was interrupted before its first record: a piece of
 * the header, or the room for it. */
static bool isUnfinishedHeader(const uint8* found, uint32 count, const uint8* header)
{
    static const uint8 zeros[STORE_FIRST] = {0};
    return memcmp(found, zeros, count) == 0 ||
           (count < STORE_FIRST && memcmp(found, header, count < FIXED_BYTES ? count : FIXED_BYTES) == 0);
}

/* The header is on the disk before any record is, so that records never stand behind a bad one. */
static bool writeHeader(STORE* store, const uint8* header)
{
    if (!writeAll(store, 0, header, (uint32)STORE_FIRST) || !storeCommit(store))
        return false;
    store->length = STORE_FIRST;
    return true;
}

/* For a file that may have none yet: makes it, with a UUID of its own. */
static bool startFile(STORE* store, const uint8* found, uint32 count, bool* started)
{
    uint8 header[STORE_FIRST] = {0};
    store->id = (UUID_VAL){0};
    uuid_create(&store->id);
    if (store->id.time_high_and_version == 0 || !makeHeader(&store->id, header)) {
        complain("%s: a UUID cannot be made for it", store->name);
        return false;
    }
    *started = isUnfinishedHeader(found, count, header);
    return !*started || writeHeader(store, header);
}

static bool checkHeader(STORE* store)
{
    uint8 none[1] = {0};
    const uint32 count = store->length < STORE_FIRST ? (uint32)store->length : (uint32)STORE_FIRST;
    uint8* found = count ? fetch(store, 0, count) : none;
    HEADER header = {0};
    if (!found || (count == STORE_FIRST && !readHeader(found, &header)))
        return false;
    const bool named = count == STORE_FIRST && memcmp(header.name, NAME, sizeof header.name) == 0;
    const bool whole = named && header.check == headerCheck(found);
    if (whole && header.version == VERSION) {
        store->id = header.id;
        return true;
    }
    bool started = false;
    if (store->use == STORE_LOAD && store->length <= STORE_FIRST && !startFile(store, found, count, &started))
        return false;
    if (started)
        return true;
    if (!named)
        complain("%s: %s", store->name, count ? "is no minidb data file" : "is empty, no minidb data file");
    else if (!whole)
        complain("%s: its header is damaged", store->name);
    else
        complain("%s: has version %d, this program reads %d", store->name, header.version, VERSION);
    return false;
}

static FOUND readAll(STORE* store, bool keepValues)
{
    EKO_FILE_OFFSET at = store->end = STORE_FIRST;
    FOUND found;
    PAIR pair;
    while ((found = storeNext(store, &at, &pair)) == FOUND_ONE) {
        if (!indexPut(&store->index, &pair, keepValues, store->end))
            return FOUND_FAULT;
        store->end = at;
    }
    return found;
}

bool storeReadValues(STORE* store)
{
    return readAll(store, true) == FOUND_END;
}

/* Reads the file from its start; true when all is well but for a torn end, which `*torn` tells. */
static bool scan(STORE* store, bool* torn)
{
    indexEmpty(&store->index);
    store->length = eko_fileLength(store->disk);
    store->windowLen = 0;
    if (!checkHeader(store))
        return false;
    const FOUND found = readAll(store, false);
    *torn = found == FOUND_TORN;
    return *torn || found == FOUND_END;
}

static bool recover(STORE* store)
{
    bool torn;
    if (!scan(store, &torn))
        return false;
    if (torn && !store->locked) {
        store->locked = !store->readOnly && eko_fileLock(store->disk) == 0;
        if (!store->locked) { /* the file may only be read, or a load is under way */
            store->length = store->end;
            return true;
        }
        if (!scan(store, &torn)) /* a load may have ended before the lock was had */
            return false;
    }
    if (!torn)
        return true;
    const EKO_FILE_OFFSET excess = store->length - store->end;
    if (!storeCutBack(store, store->end))
        return false;
    complain("%s: cut off %llu bytes of a load that was interrupted", store->name, (unsigned long long)excess);
    return true;
}

static bool openFile(STORE* store)
{
    const uint32 create = store->use == STORE_LOAD ? O_CREAT : 0;
    store->disk = eko_fileOpen(store->name, O_RDWR | O_CLOEXEC | create, 0);
    if (!store->disk && store->use == STORE_READ && (errno == EACCES || errno == EROFS)) {
        store->readOnly = true;
        store->disk = eko_fileOpen(store->name, O_RDONLY | O_CLOEXEC, 0);
    }
    store->fh = store->disk;
    if (!store->disk)
        complain("%s: cannot be opened: %s", store->name, strerror(errno));
    return store->disk != NULL;
}

static bool prepareLoad(STORE* store)
{
    store->pending = EKO_ALLOC(store->pageSize, store->tag);
    if (!store->pending)
        return false;
    store->locked = eko_fileLock(store->disk) == 0;
    if (!store->locked)
        complain("%s: is in use by another process", store->name);
    return store->locked;
}

static bool openBacking(STORE* store, BACKING backing)
{
    /* Opened for reading only, a map ends where the file ends and leaves its length alone. */
    const uint32 mapFlags = (store->use == STORE_LOAD ? O_RDWR : O_RDONLY) | O_CLOEXEC;
    EKO_FH fh = NULL;
    if (backing == BACKING_DISK)
        fh = store->disk;
    else if (backing == BACKING_MAPPED)
        fh = eko_fileOpen(store->name, mapFlags, EKO_FILE_MAPPED);
    else if (eko_fileCopyEx(store->name, 0, store->name, EKO_FILE_INMEMORY) == 0)
        fh = eko_fileOpen(store->name, O_RDWR, EKO_FILE_INMEMORY);
    if (!fh) {
        complain("%s: cannot be opened with the backing '%s'", store->name, backingNames[backing]);
        return false;
    }
    store->backing = backing;
    store->fh = fh;
    return true;
}

bool storeOpen(STORE* store, const SETTINGS* settings, const char* name, STORE_USE use)
{
    store->name = name;
    store->use = use;
    store->pageSize = settings->pageSize;
    return indexOpen(&store->index) && makeTag(&store->tag, LIST_ALLOCATOR) && openFile(store) &&
           (use == STORE_READ || prepareLoad(store)) && recover(store) && openBacking(store, settings->backing);
}

/* Closing a handle ends its lock's mutex too, so the lock goes first; and before it the backing, which may still
 * cut the file. */
void storeClose(STORE* store)
{
    closeBacking(store);
    if (store->locked)
        eko_fileUnlock(store->disk);
    eko_fileClose(store->disk);
    EKO_TAG_DESTROY(store->tag);
    indexClose(&store->index);
}
