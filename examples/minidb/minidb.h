/* SPDX-License-Identifier: MIT */
/* minidb.h - a small record store on eko: text in, records in a data file, records out.
 *
 * main.c      the command line; get and check
 * load.c      load: lines are parsed on a thread pool and come back through a queue
 * progress.c  how far a load has come, as a bar or in lines
 * transfer.c  export, import and copy
 * query.y     the language of queries, a grammar
 * query.c     queries
 * settings.c  what the user set, in an INI file or by options
 * text.c      reads "key;value" lines through a text stream
 * store.c     the data file: positional reads and writes, checksums, recovery, three backings
 * index.c     a hash table that lives on tags
 *
 * How it uses the library
 *   Memory    Each purpose has a tag of its own, so that its use can be told and all of it is freed in one call.
 *             Only the main thread uses them, so none has a mutex.
 *   Failures  Whoever finds one says so, in one line, with complain(); callers only pass the failure on. Where
 *             memory runs out the library has already written that line. Workers say nothing: what they find goes
 *             back with the batch.
 *   Messages  All go through eko_log and eko_log_err, and so into the log file when one is open; progress does not.
 *
 * An INDEX, a TEXT, a STORE, a LOAD starts as {0}, is opened, and is closed also when opening failed or was never
 * tried: tag 0 is the library's global tag, which the destruction of a tag leaves alone. */
#ifndef MINIDB_H
#define MINIDB_H

#include <stdbool.h>

#include "eko.h"

/* Writes "minidb: ", the message and a line end to standard error and the log. */
void complain(const char* format, ...) EKO_PRINTF_CHECK(1, 2);

/* Traces into memory, where "eko trace" in the debugger finds the last lines; for nothing unless it was asked for. */
extern bool tracing;
#define TRACE(...) ((void)(tracing && (eko_trace(__VA_ARGS__), true)))

/* A tag for one thread; false, after a line, when it cannot be made. */
bool makeTag(EKO_MEMTAG* tag, EKO_ALLOCATOR_TYPE type);

/* By the wall clock, since an earlier eko_timeNanoSecs. */
double secondsSince(uint64 startedNs);

/* ---- settings.c ------------------------------------------------------------------------------------------ */

#define MAX_NAME_BYTES 4096

/* What reads and writes the data file. */
typedef enum BACKING {
    BACKING_DISK,   /* the system's calls */
    BACKING_MAPPED, /* views of the file in memory */
    BACKING_MEMORY  /* a copy in memory, copied back when a load ends */
} BACKING;
extern const char* const backingNames[3];

typedef struct SETTINGS {
    BACKING backing;
    uint32 pageSize;      /* bytes read or written at once */
    uint32 threads;       /* that parse a text */
    uint32 progressAfter; /* seconds until a load shows how far it has come */
    char dataDirectory[MAX_NAME_BYTES];
    char logFile[MAX_NAME_BYTES]; /* "" is none */
    char fields[MAX_NAME_BYTES];  /* names of the pieces of values, with commas between them */
} SETTINGS;

/* Reads the file; when there is none, writes one with what holds then, for the user to change. */
bool settingsRead(SETTINGS* settings, const char* name);
/* Sets the entry of that name. */
bool settingsTake(SETTINGS* settings, const char* name, const char* text);

/* The path of a data file: in the data directory, unless `name` tells a directory itself. False when too long. */
bool settingsPath(const SETTINGS* settings, const char* name, char path[MAX_NAME_BYTES]);

/* A key and its value, as bytes: not terminated, and owned by who hands them out. */
typedef struct PAIR {
    const char* key;
    const char* value;
    uint32 keyLen; /* at least 1 */
    uint32 valueLen;
} PAIR;

#define MAX_PAIR_BYTES ((uint32)1 << 20) /* key and value together */

/* ---- index.c: pairs, found by key ---------------------------------------------------------------------- */

typedef struct ENTRY {
    PAIR pair; /* key null: a free slot */
    EKO_FILE_OFFSET at;
    uint32 hash;
} ENTRY;

typedef struct INDEX {
    EKO_MEMTAG tableTag; /* the slots */
    EKO_MEMTAG bytesTag; /* copies of keys and values; a stack, they all go together */
    ENTRY* slots;
    uint32 capacity; /* slots, a power of two, or 0 */
    uint32 count;    /* slots in use */
} INDEX;

bool indexOpen(INDEX* index);
void indexClose(INDEX* index);
void indexEmpty(INDEX* index);

/* Stores a copy of the pair, in place of one with the same key. With `keepValue` false the value is not copied,
 * only its length. False without memory. */
bool indexPut(INDEX* index, const PAIR* pair, bool keepValue, EKO_FILE_OFFSET at);

/* The entry with that key, or null; valid until the next indexPut. */
const ENTRY* indexFind(const INDEX* index, const char* key, uint32 keyLen);

/* ---- text.c: the lines of a text file ------------------------------------------------------------------- */

typedef struct TEXT {
    const char* name;
    EKO_FILE_STREAM stream;
    EKO_MEMTAG tag;         /* the line */
    char* line;             /* the one last read; not terminated */
    uint32 lineLen;         /* bytes of it, less its end */
    uint32 lineNo;          /* from 1 */
    const char* fault;      /* of that line; null for none */
    EKO_FILE_OFFSET length; /* of the file */
    EKO_FILE_OFFSET seen;   /* bytes of it that were read as lines */
} TEXT;

typedef enum FOUND {
    FOUND_ONE,
    FOUND_END,
    FOUND_TORN, /* the end of a data file that was not written to its end */
    FOUND_FAULT /* already told */
} FOUND;

/* Lines are "key;value", the value being all that follows the first ';', and end in \n or \r\n; the last one may
 * lack its end. The pair found points into the line, until the next one is read. */
bool textOpen(TEXT* text, const char* name);
FOUND textNext(TEXT* text, PAIR* pair);
void textClose(TEXT* text);

/* The two halves of textNext, which do not tell a fault. textLine reads a line; splitLine splits one, in any thread,
 * and returns its fault, null for none. */
FOUND textLine(TEXT* text);
const char* splitLine(const char* line, uint32 len, PAIR* pair);
void textTell(const TEXT* text, uint32 lineNo, const char* fault);

/* ---- store.c: the data file ------------------------------------------------------------------------------- */

typedef enum STORE_USE {
    STORE_READ,
    STORE_LOAD /* creates the file when there is none, and keeps it locked */
} STORE_USE;

typedef struct STORE {
    const char* name;
    UUID_VAL id;
    STORE_USE use;
    BACKING backing;
    uint32 pageSize;
    EKO_FH disk;            /* the file: for its lock, its recovery and its length */
    EKO_FH fh;              /* what records are read and written through; may be `disk` */
    EKO_MEMTAG tag;         /* the two buffers */
    bool readOnly;          /* this user may not write it */
    bool locked;            /* against other processes that load */
    EKO_FILE_OFFSET length; /* of the file, as last looked at */
    EKO_FILE_OFFSET end;    /* behind the last record, those in `pending` included */
    uint8* window;          /* a piece of the file, read ahead */
    uint32 windowSize;
    EKO_FILE_OFFSET windowAt;
    uint32 windowLen;
    uint8* pending; /* written at the end of the file when full */
    uint32 pendingLen;
    INDEX index; /* the keys, and where the record of each stands */
} STORE;

/* Opens a data file, cuts off what a crash left unfinished, and fills the index. */
bool storeOpen(STORE* store, const SETTINGS* settings, const char* name, STORE_USE use);
void storeClose(STORE* store);

/* Reads all records once more and puts their values into the index. */
bool storeReadValues(STORE* store);

/* Reads the record at `*at` and moves that behind it. The first one is at STORE_FIRST. The pair found is valid
 * until the next read. */
#define STORE_FIRST ((EKO_FILE_OFFSET)32)
FOUND storeNext(STORE* store, EKO_FILE_OFFSET* at, PAIR* pair);

/* Makes what stands in front of a pair in the file, in any thread. */
#define RECORD_HEAD ((uint32)16)
void storeMakeHead(const PAIR* pair, uint8 head[RECORD_HEAD]);

/* Adds a record behind the last. It is sure to be in the file only after storeCommit, which returns when it is on
 * the disk. storeCutBack takes the file back to an earlier `end`, for closing. */
bool storeAppend(STORE* store, const PAIR* pair, const uint8 head[RECORD_HEAD]);
bool storeCommit(STORE* store);
bool storeCutBack(STORE* store, EKO_FILE_OFFSET end);

/* ---- progress.c ------------------------------------------------------------------------------------------- */

/* To be called often: it decides when something is shown. */
void progressShow(const TEXT* text, uint64 startedNs, const SETTINGS* settings);
void progressWipe(void);

/* ---- load.c, main.c, transfer.c, query.c: the commands --------------------------------------------------------------- */

/* Loads the lines of a text into a data file. */
bool load(const SETTINGS* settings, const char* textName, const char* storeName);

/* Writes "key;value" and a line end; false when that failed. */
bool printPair(EKO_FILE_STREAM out, const PAIR* pair);
/* Closes the stream; false when not all that was printed could be written. */
bool closePrinted(EKO_FILE_STREAM out);
/* The same for standard output; both tell what went wrong. */
EKO_FILE_STREAM openStandardOutput(void);
bool closeStandardOutput(EKO_FILE_STREAM out);

bool exportText(const SETTINGS* settings, const char* storeName, const char* textName);
bool importText(const SETTINGS* settings, const char* textName, const char* storeName);
bool copyStore(const SETTINGS* settings, const char* from, const char* to);

/* Prints the records that a query asks for. */
bool query(const SETTINGS* settings, const char* storeName, const char* text);

#endif
