/* SPDX-License-Identifier: MIT */
/* store.c - the data file.
 *
 *      header   "minidb\r\n" | version | UUID | check           numbers in network order
 *      block    length | check | lines, each with \n             numbers little-endian
 *      block    ...
 *
 * Blocks are only ever appended. A check is a hash, of the UUID, or of a block's length and lines. A torn end, as a
 * crash leaves it, is found by them at the next open and cut off. It is never more than one block, so when a whole
 * one stands behind, the file is damaged: cutting would lose what is good.
 *
 * What was written is with the system, and stays when the process is killed: records are stored once storeAppend has
 * returned. A power failure they survive once storeCommit has. */
#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "minidb.h"

#define VIEW_BYTES ((EKO_FILE_OFFSET)1 << 20) /* no write through mapped views may cross a multiple */

static uint32 hashOf(const void* bytes, size_t count, uint32 start) /* FNV-1a */
{
    uint32 hash = 2166136261u ^ start;
    for (const uint8* p = bytes; count > 0; --count)
        hash = (hash ^ *p++) * 16777619u;
    return hash;
}

void storeSealBlock(uint8* block, uint32 size)
{
    HEAD head = {.length = size - (uint32)sizeof head};
    head.check = hashOf(block + sizeof head, head.length, head.length);
    memcpy(block, &head, sizeof head);
}

/* Returns the size of the block that begins there in the file, or 0 when none does that is whole. */
static uint32 wholeBlock(const STORE* store, EKO_FILE_OFFSET at, PIECE* lines)
{
    const EKO_FILE_OFFSET left = store->length - at;
    HEAD head;
    if (left < sizeof head)
        return 0;
    memcpy(&head, store->bytes + at, sizeof head);
    *lines = (PIECE){(const char*)store->bytes + at + sizeof head, head.length};
    const bool whole = head.length > 0 && head.length <= left - sizeof head &&
                       head.check == hashOf(lines->bytes, head.length, head.length);
    return whole ? (uint32)sizeof head + head.length : 0;
}

#define NETWORK_ORDER 1 /* is not this machine's */
#define NAME "minidb\r\n"
#define VERSION 3
#define HEADER_BYTES 32u

static int32 writeDisk(const void* store, const void* data, uint32 count)
{
    return eko_fileWrite(((const STORE*)store)->disk, data, count) == count ? 0 : 1002;
}

static int32 readDisk(const void* store, void* data, uint32 size, uint32* count, uint32 reserved)
{
    (void)reserved;
    *count = eko_fileRead(((const STORE*)store)->disk, data, size);
    return *count == 0 || *count == EKO_FILE_IO_FAILED ? 1002 : 0;
}

static int32 headerCheck(const STORE* store)
{
    return (int32)hashOf(&store->id, sizeof store->id, VERSION);
}

/* In one write, so that no kill leaves a part of it. */
static void writeHeader(STORE* store)
{
    EKO_OUTPUTBUFF out = NULL;
    uuid_create(&store->id);
    const bool made = eko_outputBuffCreate(writeDisk, store, NETWORK_ORDER, &out) == 0 &&
                      eko_outputBuffPutString(out, NAME) == 0 && eko_outputBuffPutInt32(out, VERSION) == 0 &&
                      eko_outputBuffPutBytes(out, &store->id, sizeof store->id) == 0 &&
                      eko_outputBuffPutInt32(out, headerCheck(store)) == 0 && eko_outputBuffFlush(out) == 0;
    eko_outputBuffDestroy(out);
    NEED(made, "%s: its header cannot be written: %s", store->name, strerror(errno));
}

static void readHeader(STORE* store)
{
    char name[sizeof NAME - 1] = "";
    int32 version = 0, check = 0;
    EKO_INPUTBUFF in = NULL;
    const bool read =
        eko_inputBuffCreate(readDisk, store, NETWORK_ORDER, &in) == 0 &&
        eko_inputBuffGetBytes(in, name, sizeof name) == 0 && eko_inputBuffGetInt32(in, &version) == 0 &&
        eko_inputBuffGetBytes(in, &store->id, sizeof store->id) == 0 && eko_inputBuffGetInt32(in, &check) == 0;
    eko_inputBuffDestroy(in);
    NEED(read && memcmp(name, NAME, sizeof name) == 0, "%s: is no minidb data file", store->name);
    NEED(version == VERSION, "%s: has version %d, this program reads %d", store->name, version, VERSION);
    NEED(check == headerCheck(store), "%s: its header is damaged", store->name);
}

static void openData(STORE* store, uint32 flags)
{
    const bool there = settings.backing != EKO_FILE_INMEMORY ||
                       eko_fileCopyEx(store->name, 0, store->name, EKO_FILE_INMEMORY) == 0;
    store->data = there ? eko_fileOpen(store->name, flags | O_CLOEXEC, settings.backing) : NULL;
    NEED(store->data, "%s: cannot be opened with that backing", store->name);
}

static void closeData(STORE* store)
{
    eko_fileClose(store->data);
    if (store->data && settings.backing == EKO_FILE_INMEMORY)
        eko_fileRemoveEx(store->name, EKO_FILE_INMEMORY);
    store->data = NULL;
}

void storeAppend(STORE* store, const uint8* block, uint32 size)
{
    NEED(size <= MAX_FILE_BYTES - store->end, "%s: would become larger than 1 GiB", store->name);
    for (uint32 at = 0, done; at < size; at += done) {
        const EKO_FILE_OFFSET room = VIEW_BYTES - (store->end + at) % VIEW_BYTES;
        const uint32 piece = size - at < room ? size - at : (uint32)room;
        done = eko_fileSeekWrite(store->data, store->end + at, block + at, piece);
        NEED(done != 0 && done != EKO_FILE_IO_FAILED, "%s: cannot be written: %s", store->name, strerror(errno));
    }
    store->end += size;
}

void storeCommit(STORE* store)
{
    const bool written = settings.backing != EKO_FILE_INMEMORY ||
                         eko_fileCopyEx(store->name, EKO_FILE_INMEMORY, store->name, 0) == 0;
    NEED(written && eko_fileSync(store->data) == 0 && eko_fileSync(store->disk) == 0,
         "%s: cannot be written to the disk: %s", store->name, strerror(errno));
}

/* Returns the bytes that are left behind the last whole block. */
static EKO_FILE_OFFSET readBlocks(STORE* store)
{
    const uint32 page = settings.number[PAGE_SIZE];
    uint32 size;
    PIECE lines;
    store->length = eko_fileLength(store->disk);
    NEED(store->length <= MAX_FILE_BYTES, "%s: is larger than 1 GiB", store->name);
    store->bytes = EKO_ALLOC((size_t)store->length + page, store->records.tag);
    openData(store, O_RDONLY);
    for (EKO_FILE_OFFSET at = 0; at < store->length; at += size) {
        size = eko_fileSeekRead(store->data, at, store->bytes + at, page);
        NEED(size != 0 && size != EKO_FILE_IO_FAILED, "%s: cannot be read: %s", store->name, strerror(errno));
    }
    closeData(store);
    store->records.count = 0;
    for (store->end = HEADER_BYTES; (size = wholeBlock(store, store->end, &lines)) > 0; store->end += size)
        for (RECORD record; recordTake(&record, &lines);)
            recordsAdd(&store->records, &record);
    return store->length - store->end;
}

/* Somebody else's lock means a load that is under way. It may have ended before the lock was had: so look again. */
static void cutTornEnd(STORE* store)
{
    PIECE lines;
    store->locked = store->locked || eko_fileLock(store->disk) == 0;
    const EKO_FILE_OFFSET torn = store->locked ? readBlocks(store) : 0;
    for (EKO_FILE_OFFSET at = store->end + 1; torn > 0 && at < store->length; ++at)
        NEED(wholeBlock(store, at, &lines) == 0, "%s: damaged at byte %llu, in front of whole blocks", store->name,
             (unsigned long long)store->end);
    if (torn > 0 && eko_fileSetSize(store->disk, store->end) == 0)
        complain("%s: cut off %llu bytes of a load that was interrupted", store->name, (unsigned long long)torn);
}

/* Closing a handle ends its lock too, but not the lock's mutex: so unlock first. */
static void closeStore(void* object)
{
    STORE* store = object;
    const bool loaded = store->data != NULL;
    closeData(store);
    if (loaded && settings.backing != EKO_FILE_INMEMORY)
        eko_fileSetSize(store->disk, store->end); /* the zeros that views leave; the next open would cut them off */
    if (store->locked)
        eko_fileUnlock(store->disk);
    eko_fileClose(store->disk);
}

/* A user who may not write the file can still read it. */
static STORE* openDisk(const char* name, bool load)
{
    STORE* store = EKO_ZALLOC(sizeof *store, EKO_THREAD_TAG);
    openTag("store", BLOCK_ALLOCATOR, closeStore, store);
    store->name = dataPath(name);
    store->disk = eko_fileOpen(store->name, O_RDWR | O_CLOEXEC | (load ? O_CREAT : 0), 0);
    if (!store->disk && !load && (errno == EACCES || errno == EROFS))
        store->disk = eko_fileOpen(store->name, O_RDONLY | O_CLOEXEC, 0);
    NEED(store->disk, "%s: cannot be opened: %s", store->name, strerror(errno));
    store->locked = load && eko_fileLock(store->disk) == 0;
    NEED(store->locked || !load, "%s: is in use by another process", store->name);
    return store;
}

const char* storeReserve(const char* name)
{
    int32 directory;
    const char* path = dataPath(name);
    return eko_fileValidate(path, &directory) ? openDisk(path, true)->name : path;
}

STORE* storeOpen(const char* name, bool load)
{
    STORE* store = openDisk(name, load);
    store->records.tag = openTag("records", BLOCK_ALLOCATOR, NULL, NULL);
    if (load && eko_fileLength(store->disk) == 0)
        writeHeader(store);
    else
        readHeader(store);
    if (readBlocks(store) > 0)
        cutTornEnd(store);
    if (load)
        openData(store, O_RDWR);
    else
        recordsKeepLast(&store->records);
    return store;
}
