/* SPDX-License-Identifier: MIT */
/* load.c - the lines of a text go into a data file.
 *
 * A batch is a block of the data file in the making. It goes to the workers as a job of the pool, who look at its
 * lines and seal it, and comes back as a message of a queue. The main thread goes round the ring of batches: it
 * waits for the oldest, writes it, fills it anew and gives it away. So records and faults come in the order of the
 * text, however many workers there are. Whoever has a batch has it alone.
 *
 * A worker's message must never fail. A queue takes no memory before it gets longer than it ever was: so at first
 * all batches are in it, as if they came back empty. */
#include "minidb.h"

/* Traces into memory, where "eko trace" in the debugger finds the last lines; for nothing unless it was asked for. */
#define TRACE(...) (settings.number[TRACED] ? eko_trace(__VA_ARGS__) : (void)0)
#define BATCHES_PER_THREAD 4 /* one at work, the others on their way, so that nobody waits for long */

typedef struct BATCH {
    EKO_QUEUE_HANDLE finished; /* where a worker puts it */
    bool back;                 /* the main thread has it */
    bool faulty;               /* the line behind its records is none */
    uint32 firstLine, count;   /* of its records */
    uint32 size;
    uint8* block;
} BATCH;

typedef struct LOAD {
    TEXT* text;
    STORE* store;
    EKO_QUEUE_HANDLE finished;
    EKO_THRPOOL* pool;
    BATCH* batches; /* a ring */
    uint32 batchCount, records;
    bool ended; /* nothing more to read */
    uint64 started;
} LOAD;

static int32 finish(void* data) /* in a worker */
{
    BATCH* batch = data;
    PIECE rest = {(char*)batch->block + sizeof(HEAD), batch->size - (uint32)sizeof(HEAD)};
    RECORD record;
    while (rest.length > 0 && recordTake(&record, &rest))
        batch->count += 1;
    batch->faulty = rest.length > 0;
    batch->size -= rest.length;
    storeSealBlock(batch->block, batch->size);
    TRACE("line %u: parsed %u records", batch->firstLine, batch->count);
    return eko_queueWrite(batch->finished, batch, 0, 0, EKO_QUEUE_TAIL);
}

/* Says what a kill of this process does not take any more. */
static void report(const LOAD* load)
{
    const char* format = settings.number[JSON] ? "{\"stored\":%u}\n" : "minidb: stored %u\n";
    if (settings.number[REPORT])
        eko_log(format, load->records);
}

/* Fills a batch and gives it away. */
static void fill(LOAD* load, BATCH* batch)
{
    batch->firstLine = load->text->lineNumber + 1;
    batch->count = 0;
    batch->size = sizeof(HEAD);
    batch->back = false;
    while (batch->size < settings.number[PAGE_SIZE] && !load->ended) {
        const uint32 length = textNext(load->text, (char*)batch->block + batch->size);
        load->ended = length == 0;
        batch->size += length;
    }
    TRACE("line %u: read %u bytes", batch->firstLine, batch->size);
    NEED(eko_thrpoolAddJob(load->pool, finish, batch, NULL, NULL, NULL) == 0, "the threads take no work");
}

/* Once the text has ended, another round brings back all that is still away. Returns the fault of the line behind
 * the last one that was loaded, null for none. */
static const char* loadLines(LOAD* load)
{
    uint32 left = load->batchCount;
    for (uint32 turn = 0; left > 0; turn = (turn + 1) % load->batchCount) {
        BATCH* batch = &load->batches[turn];
        void* any;
        while (!batch->back && eko_queueRead(load->finished, &any, NULL, NULL, EKO_FOREVER) == 0)
            ((BATCH*)any)->back = true;
        if (batch->count > 0) {
            storeAppend(load->store, batch->block, batch->size);
            load->records += batch->count;
            TRACE("line %u: appended %u records", batch->firstLine, batch->count);
            if (settings.backing != EKO_FILE_INMEMORY)
                report(load);
        }
        if (batch->faulty)
            return NO_RECORD;
        progressShow(load->text, load->started);
        if (load->ended)
            --left;
        else
            fill(load, batch);
    }
    return load->text->fault;
}

/* The pool goes first: its jobs still write to the queue, and into the batches. */
static void closeLoad(void* object)
{
    LOAD* load = object;
    eko_thrpoolDestroy(load->pool);
    eko_queueDelete(load->finished);
}

static LOAD* openLoad(const char* textName, const char* storeName)
{
    LOAD* load = EKO_ZALLOC(sizeof *load, EKO_THREAD_TAG);
    const uint32 threads = settings.number[THREADS];
    load->text = textOpen(textName);
    load->store = storeOpen(storeName, true);
    const EKO_MEMTAG tag = openTag("batches", STACK_ALLOCATOR, closeLoad, load);
    load->batchCount = threads * BATCHES_PER_THREAD;
    load->batches = EKO_ZALLOC(load->batchCount * sizeof(BATCH), tag);
    load->finished = eko_queueCreate("minidb batches");
    NEED(load->finished && eko_thrpoolCreate(threads, &load->pool) == 0, "%u threads cannot be started", threads);
    for (BATCH* batch = load->batches; batch < load->batches + load->batchCount; ++batch) {
        batch->finished = load->finished;
        batch->block = EKO_ALLOC(settings.number[PAGE_SIZE] + LINE_ROOM, tag); /* a line more than a page */
        NEED(eko_queueWrite(load->finished, batch, 0, 0, EKO_QUEUE_TAIL) == 0, "the queue takes no batches");
    }
    return load;
}

/* A fault in the text ends the load: the lines before it are stored, the others are not. */
RESULT load(const char** words)
{
    LOAD* load = openLoad(words[0], words[1]);
    const EKO_FILE_OFFSET start = load->store->end;
    load->started = eko_timeNanoSecs();
    const char* fault = loadLines(load);
    TRACE("committing %u records", load->records);
    storeCommit(load->store);
    progressWipe();
    report(load);
    NEED(!fault, "%s:%u: %s; the lines before it are stored", words[0], load->records + 1, fault);
    figuresBegin("load", load->store);
    figure("records", load->records);
    figure("text_bytes", load->text->length);
    figure("stored_bytes", load->store->end - start);
    figuresEnd(load->started);
    return DONE;
}
