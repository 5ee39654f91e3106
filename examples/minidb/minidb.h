/* SPDX-License-Identifier: MIT */
/* minidb.h - a small record store on eko: lines of text in, records in a data file, lines out.
 *
 *   Memory    Each purpose has a tag of its own. In the end main destroys them all, the last one first, and each
 *             takes along what was opened for it: a file, a pool of threads. So no command cleans up.
 *   Failures  Who finds one says so, in one line, and leaves for main, which NEED() does. So does a tag for which
 *             there is no memory. A call that returns has done what it says.
 *   Threads   Tags, files and failures are matters of the main thread. Workers only look at what they are handed.
 *   Messages  go through eko_log and eko_log_err, and so into the log file; records and progress do not. */
#ifndef MINIDB_H
#define MINIDB_H

#include <stdbool.h>

#include "eko.h"

/* ---- main.c ---------------------------------------------------------------------------------------------- */
/* The exit status: what was asked for is not there or not the same; the command line or a query makes no sense. */
typedef enum RESULT { DONE, DIFFERENT, MISUSED, FAILED } RESULT;

/* Writes "minidb: ", the message and a line end to standard error and the log. */
void complain(const char* format, ...) EKO_PRINTF_CHECK(1, 2);
EKO_NORETURN void endCommand(RESULT result);
#define NEED(what, ...) ((what) ? (void)0 : (complain(__VA_ARGS__), endCommand(FAILED)))

/* Makes a tag that lives until the command ends; `close`, which may be null, is called with `object` before it
 * goes. Objects themselves are memory of EKO_THREAD_TAG. */
EKO_MEMTAG openTag(const char* purpose, EKO_ALLOCATOR_TYPE type, EKO_DESTROY_FCN close, void* object);
/* The purpose of a tag, by its number from 0, and what it holds; null behind the last. */
const char* tagFigures(uint32 number, EKO_TAG_MEM_INFO* info);

/* ---- settings.c ------------------------------------------------------------------------------------------ */
enum { INI_FILE, DIRECTORY, LOG_FILE, FIELDS, BACKING, PAGE_SIZE, THREADS, SHOW_AFTER, JSON, REPORT, TRACED };
#define SETTING_COUNT 11

typedef struct SETTINGS {
    const char* text[SETTING_COUNT];
    uint32 number[SETTING_COUNT]; /* of those that are numbers, or 0 and 1 */
    uint16 backing;               /* as a flag of eko_fileOpen */
} SETTINGS;

/* Takes the options out of the words, and what they do not say from an INI file. Where there is none, writes one
 * with the defaults, for the user to change. */
const SETTINGS* settingsRead(const char** words);
void settingsHelp(void);
/* The path of a data file: in the data directory, unless the name tells a directory itself. */
const char* dataPath(const SETTINGS* settings, const char* name);

/* Traces into memory, where "eko trace" in the debugger finds the last lines; for nothing unless it was asked for.
 * */
extern bool tracing;
#define TRACE(...) ((void)(tracing && (eko_trace(__VA_ARGS__), true)))

/* ---- text.c ---------------------------------------------------------------------------------------------- */
/* Bytes that are not terminated, and belong to who hands them out. */
typedef struct PIECE {
    const char* bytes;
    uint32 length;
} PIECE;

typedef struct RECORD {
    PIECE line; /* "key;value", without its end */
    PIECE key;  /* up to the first ';', not empty */
} RECORD;

typedef struct RECORDS {
    EKO_MEMTAG tag;
    RECORD* items;
    uint32 count, room;
} RECORDS;

#define MAX_LINE_BYTES 65536u
#define LINE_ROOM (MAX_LINE_BYTES + 3)            /* with \r, \n and the terminator */
#define MAX_FILE_BYTES ((EKO_FILE_OFFSET)1 << 30) /* of text, and of data, which are read into memory as a whole */

/* By bytes, as strcmp. */
int comparePieces(PIECE a, PIECE b);
/* Takes the first line, which ends in \n, off the lines. False when it has no key, or no ';' behind it. */
bool recordTake(RECORD* record, PIECE* lines);
#define NO_RECORD "has no key, or no ';' behind it"

void recordsAdd(RECORDS* records, const RECORD* record);
/* Sorts by key, and by where the lines are in memory; recordsKeepLast leaves one of each key, too. */
void recordsSort(RECORDS* records);
void recordsKeepLast(RECORDS* records);
/* Finds one of sorted records; null when there is none with that key. */
const RECORD* recordsFind(const RECORDS* records, PIECE key);

typedef struct TEXT {
    const char* name;
    EKO_FILE_STREAM stream;
    EKO_FILE_OFFSET length, seen; /* of the file, and of the lines up to here */
    uint32 lineNumber;            /* of the line last read, from 1 */
    const char* fault;            /* of that line; null for none */
} TEXT;

TEXT* textOpen(const char* name);
/* Reads a line into LINE_ROOM bytes and returns its length, with a \n at its end in any case. 0 at the end, or with
 * a fault, which is for the caller to tell. */
uint32 textNext(TEXT* text, char* line);

/* Writes the lines of records into a file, or for null to standard output. */
void textWrite(const RECORDS* records, const char* name);

/* ---- store.c --------------------------------------------------------------------------------------------- */
typedef struct STORE {
    const SETTINGS* settings;
    const char* name;
    UUID_VAL id;
    EKO_FH disk;            /* the file: for its header, its lock and its length */
    EKO_FH data;            /* the same with its backing: for its records */
    bool locked;            /* against other processes that load */
    EKO_FILE_OFFSET end;    /* behind the last block */
    EKO_FILE_OFFSET length; /* the rest as it was when the file was opened: its length, */
    uint8* bytes;           /* all its bytes, */
    RECORDS records;        /* and, but for a load, the records in them, the last one of each key, sorted */
} STORE;

/* Opens a data file, cuts off what a crash left unfinished, and reads the records. A load creates the file when
 * there is none, and keeps other loads out. */
STORE* storeOpen(const SETTINGS* settings, const char* name, bool load);
/* Writes a block behind the last. When it returns they survive the end of this process, unless the backing is
 * memory; when storeCommit returns, a power failure. */
void storeAppend(STORE* store, const uint8* block, uint32 size);
void storeCommit(STORE* store);

/* In front of each block of lines in the data file. A block is written at once, and is whole or does not count. */
typedef struct HEAD {
    uint32 length; /* of the lines, with their ends */
    uint32 check;
} HEAD;

#define MAX_PAGE_BYTES 524288u
#define MAX_BLOCK_BYTES (sizeof(HEAD) + MAX_PAGE_BYTES + LINE_ROOM)

/* Fills in the head of a block of that size, in any thread. */
void storeSealBlock(uint8* block, uint32 size);

/* ---- figures.c ------------------------------------------------------------------------------------------- */
/* To be called often: decides when something is shown. To be wiped before anything else is. */
void progressShow(const TEXT* text, uint64 startedNs, const SETTINGS* settings);
void progressWipe(void);

/* What a command has counted: a line for each figure, or one line of JSON. The end adds what each tag holds. */
void figuresBegin(const SETTINGS* settings, const char* command, const STORE* store);
void figure(const char* name, uint64 value);
void figuresEnd(uint64 startedNs);

/* ---- the commands ---------------------------------------------------------------------------------------- */
/* Each gets its own words of the command line, as many as main's table says, and a null. */
typedef RESULT COMMAND(const SETTINGS* settings, const char** words);
COMMAND load, get, check, statistics, query, exportText, importText, copyStore;

#endif
