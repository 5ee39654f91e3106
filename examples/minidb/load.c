/* SPDX-License-Identifier: MIT */
/* load.c - the lines of a text go into a data file.
 *
 *      main thread   reads lines into a batch ........ appends the records of a batch that came back
 *      workers             splits and checks the lines, makes the heads of their records
 *
 * A batch goes from the main thread to the workers as a job of the pool, and back as a message of a queue. The main
 * thread goes round the ring of batches: it waits for the oldest one, appends what it holds, fills it anew and gives
 * it away. So the records come in the order of the text, however many workers there are, memory is bounded, and
 * faults are told in order, too. Index and data file belong to the main thread alone.
 *
 * Whoever has a batch has it alone; pool and queue hand on with it all that was written to it. There is no other
 * lock. A worker's message must never fail, or the main thread would wait for ever: a queue takes no memory before
 * it gets longer than it ever was, and at first all batches are in it. */
#include <string.h>

#include "minidb.h"

#define BATCH_LINES 1024u
#define BATCH_BYTES 65536u   /* a batch is full with so many, the last line counted whole */
#define BATCHES_PER_THREAD 4 /* one at work, the others on their way, so that nobody waits for long */

typedef struct RECORD {
    uint32 lineLen;
    PAIR pair;
    uint8 head[RECORD_HEAD];
} RECORD;

typedef struct BATCH {
    EKO_QUEUE_HANDLE finished; /* where a worker puts it */
    bool back;                 /* the main thread has it */
    const char* fault;         /* of the line behind the last; null for none */
    uint32 firstLine, count;
    uint32 used, size; /* of `bytes` */
    char* bytes;       /* the lines, one right behind the other */
    RECORD records[BATCH_LINES];
} BATCH;

typedef struct LOAD {
    const SETTINGS* settings;
    TEXT text;
    STORE store;
    EKO_MEMTAG tag; /* the batches */
    BATCH* batches; /* a ring */
    uint32 batchCount;
    EKO_QUEUE_HANDLE finished;
    EKO_THRPOOL* pool;
    bool ended; /* nothing more to read */
    uint32 records, keysBefore;
    uint64 startedNs;
    EKO_FILE_OFFSET startedAt; /* end of the data file then */
} LOAD;

/* ---- what a worker does ------------------------------------------------------------------------------------- */

static int32 parse(void* data)
{
    BATCH* batch = data;
    const char* line = batch->bytes;
    uint32 i = 0;
    for (; i < batch->count; line += batch->records[i++].lineLen) {
        RECORD* record = &batch->records[i];
        const char* fault = splitLine(line, record->lineLen, &record->pair);
        if (fault) {
            batch->fault = fault;
            break;
        }
        storeMakeHead(&record->pair, record->head);
    }
    batch->count = i;
    TRACE("line %u: parsed %u records", batch->firstLine, i);
    return eko_queueWrite(batch->finished, batch, 0, 0, EKO_QUEUE_TAIL);
}

/* ---- what the main thread does ------------------------------------------------------------------------------ */

/* Reading cannot fail: nobody closes the queue, or purges it. */
static bool takeBack(const LOAD* load, const BATCH* batch)
{
    void* any;
    while (!batch->back && eko_queueRead(load->finished, &any, NULL, NULL, EKO_FOREVER) == 0)
        ((BATCH*)any)->back = true;
    return batch->back;
}

static bool append(LOAD* load, const BATCH* batch)
{
    STORE* store = &load->store;
    for (uint32 i = 0; i < batch->count; ++i) {
        const RECORD* record = &batch->records[i];
        if (!indexPut(&store->index, &record->pair, false, store->end) ||
            !storeAppend(store, &record->pair, record->head))
            return false;
    }
    load->records += batch->count;
    TRACE("line %u: appended %u records, to byte %llu", batch->firstLine, batch->count,
          (unsigned long long)store->end);
    if (batch->fault)
        textTell(&load->text, batch->firstLine + batch->count, batch->fault);
    return !batch->fault;
}

static bool addLine(const LOAD* load, BATCH* batch)
{
    const uint32 len = load->text.lineLen, need = batch->used + len;
    if (batch->size < need || !batch->bytes) {
        const uint32 size = need > BATCH_BYTES ? need : BATCH_BYTES;
        char* larger = EKO_EXTEND(batch->bytes, size, load->tag);
        if (!larger)
            return false;
        batch->bytes = larger;
        batch->size = size;
    }
    memcpy(batch->bytes + batch->used, load->text.line, len);
    batch->used = need;
    batch->records[batch->count++].lineLen = len;
    return true;
}

/* Fills a batch and gives it away. */
static bool fill(LOAD* load, BATCH* batch)
{
    batch->firstLine = load->text.lineNo + 1;
    batch->count = batch->used = 0;
    while (!load->ended && batch->count < BATCH_LINES && batch->used < BATCH_BYTES) {
        load->ended = textLine(&load->text) != FOUND_ONE;
        if (!load->ended && !addLine(load, batch))
            return false;
    }
    batch->fault = load->text.fault;
    TRACE("line %u: read %u lines", batch->firstLine, batch->count);
    progressShow(&load->text, load->startedNs, load->settings);
    batch->back = false;
    return eko_thrpoolAddJob(load->pool, parse, batch, NULL, NULL, NULL) == 0;
}

/* Once the text has ended, another round brings back all that is still away. */
static bool loadLines(LOAD* load)
{
    uint32 left = load->batchCount;
    for (uint32 turn = 0; left > 0; turn = (turn + 1) % load->batchCount) {
        BATCH* batch = &load->batches[turn];
        if (!takeBack(load, batch) || !append(load, batch))
            return false;
        if (load->ended)
            --left;
        else if (!fill(load, batch))
            return false;
    }
    TRACE("committing %u records", load->records);
    return storeCommit(&load->store);
}

/* ---- around it ---------------------------------------------------------------------------------------------- */

static void sayTag(const char* purpose, EKO_MEMTAG tag)
{
    EKO_TAG_MEM_INFO info;
    if (eko_getTagMemInfo(tag, &info) == 0)
        eko_log("minidb:   %-8s %9zu bytes used, at most %9zu; %9zu held\n", purpose, info.bytes.in_use,
                info.bytes.max_in_use, info.capacity.in_use);
}

static void sayFigures(const LOAD* load)
{
    const STORE* store = &load->store;
    const uint32 keys = store->index.count;
    char id[EKO_UUID_TEXT];
    uuid_toString(&store->id, id, sizeof id, 0);
    eko_log("minidb: loaded %u records, %llu bytes of text, %llu bytes of data, in %.3f s\n", load->records,
            (unsigned long long)load->text.length, (unsigned long long)(store->end - load->startedAt),
            secondsSince(load->startedNs));
    eko_log("minidb: %u of them replace earlier ones; %u keys in all\n", load->records - (keys - load->keysBefore),
            keys);
    eko_log("minidb: data file %s\n", id);
    eko_log("minidb: memory by tag\n");
    sayTag("index", store->index.tableTag);
    sayTag("keys", store->index.bytesTag);
    sayTag("lines", load->text.tag);
    sayTag("batches", load->tag);
    sayTag("buffers", store->tag);
}

/* All lines or none: after a fault the data file is as it was. */
static bool loadOpened(LOAD* load)
{
    load->startedNs = eko_timeNanoSecs();
    load->startedAt = load->store.end;
    load->keysBefore = load->store.index.count;
    const bool done = loadLines(load);
    progressWipe();
    if (done)
        sayFigures(load);
    else
        storeCutBack(&load->store, load->startedAt);
    return done;
}

/* All batches are in the queue at first, as if they came back empty. */
static bool openBatches(LOAD* load)
{
    const uint32 threads = load->settings->threads;
    load->batchCount = threads * BATCHES_PER_THREAD;
    load->finished = eko_queueCreate("minidb batches");
    if (!load->finished || !makeTag(&load->tag, LIST_ALLOCATOR))
        return false;
    load->batches = EKO_ZALLOC(load->batchCount * sizeof(BATCH), load->tag);
    for (uint32 i = 0; load->batches && i < load->batchCount; ++i) {
        load->batches[i].finished = load->finished;
        if (eko_queueWrite(load->finished, &load->batches[i], 0, 0, EKO_QUEUE_TAIL) != 0)
            return false;
    }
    if (!load->batches || eko_thrpoolCreate(threads, &load->pool) == 0)
        return load->batches != NULL;
    complain("cannot start %u threads", threads);
    return false;
}

/* The pool goes first: its jobs still write to the queue, and into the batches. */
static void closeBatches(LOAD* load)
{
    eko_thrpoolDestroy(load->pool);
    eko_queueDelete(load->finished);
    EKO_TAG_DESTROY(load->tag);
}

bool load(const SETTINGS* settings, const char* textName, const char* storeName)
{
    LOAD load = {.settings = settings};
    const bool done = textOpen(&load.text, textName) && storeOpen(&load.store, settings, storeName, STORE_LOAD) &&
                      openBatches(&load) && loadOpened(&load);
    closeBatches(&load);
    storeClose(&load.store);
    textClose(&load.text);
    return done;
}
