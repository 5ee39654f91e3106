/* SPDX-License-Identifier: MIT */
/* minidb.h - a small record store on eko: lines of text in, records in a data file, lines out.
 *
 *   Memory    Each purpose has a tag of its own. In the end main destroys them all, the last one first, and each
 *             takes along what was opened for it: a file, a pool of threads. So no command cleans up.
 *   Failures  Who finds one says so, in one line, and leaves for main, which NEED() does. So does a tag for which
 *             there is no memory. A call that returns has done what it says.
 *   Threads   Tags, files and failures are matters of the main thread. Workers only look at what they are handed.
 *   Messages  go through eko_log and eko_log_err, and so into the log file; what is asked for does not. */
#ifndef MINIDB_H
#define MINIDB_H

#include <stdbool.h>

#include "eko.h"

/* ---- main.c ---------------------------------------------------------------------------------------------- */
typedef enum RESULT { DONE, DIFFERENT, MISUSED, FAILED } RESULT; /* the exit status, as help tells */

/* Writes "minidb: ", the message and a line end to standard error and the log. */
void complain(const char* format, ...) EKO_PRINTF_CHECK(1, 2);
EKO_NORETURN void endCommand(RESULT how);
#define NEED(what, ...) ((what) ? (void)0 : (complain(__VA_ARGS__), endCommand(FAILED)))

/* Makes a tag that lives until the command ends; `close`, which may be null, is called with `object` before it
 * goes. Objects themselves are memory of EKO_THREAD_TAG. */
EKO_MEMTAG openTag(const char* purpose, EKO_ALLOCATOR_TYPE type, EKO_DESTROY_FCN close, void* object);
extern struct TAG {
    EKO_MEMTAG tag;
    const char* purpose;
} tags[16];
extern uint32 tagCount;

/* ---- settings.c ------------------------------------------------------------------------------------------ */
enum { INI_FILE, DIRECTORY, LOG_FILE, FIELDS, BACKING, PAGE_SIZE, THREADS, SHOW_AFTER, JSON, REPORT, TRACED, ALL };

extern struct SETTINGS {
    const char* text[ALL];
    uint32 number[ALL]; /* of those that are numbers, or 0 and 1 */
    uint16 backing;     /* as a flag of eko_fileOpen */
} settings;

void settingsHelp(void);
/* Takes the options out of the words, and returns how many are left. */
uint32 settingsTake(const char** words);
/* Gets the rest from an INI file. Where there is none, writes one with the defaults, for the user to change. */
void settingsRead(void);
/* The path of a data file: in the data directory, unless the name tells a directory itself. */
const char* dataPath(const char* name);

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

int comparePieces(PIECE a, PIECE b); /* by bytes, as strcmp */
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
    const char* name;
    UUID_VAL id;
    EKO_FH disk;            /* the file: for its header, its lock and its length */
    EKO_FH data;            /* the same with its backing: for its records */
    bool locked;            /* against other processes that load */
    EKO_FILE_OFFSET end;    /* behind the last block */
    EKO_FILE_OFFSET length; /* when the file was opened */
    uint8* bytes;           /* all of them, then */
    RECORDS records;        /* in them; but for a load the last one of each key, sorted */
} STORE;

/* Opens a data file, cuts off what a crash left unfinished, and reads the records. A load creates the file when
 * there is none, and keeps other loads out. */
STORE* storeOpen(const char* name, bool load);
/* Keeps loads out of a data file, if there is one, that is to be replaced, and returns its path. */
const char* storeReserve(const char* name);
/* Writes a block behind the last. With the memory backing it is in the file only after storeCommit. */
void storeAppend(STORE* store, const uint8* block, uint32 size);
void storeCommit(STORE* store);

/* In front of each block of lines in the data file. A block is whole, or does not count. */
typedef struct HEAD {
    uint32 length; /* of the lines, with their ends */
    uint32 check;
} HEAD;
/* Fills in the head of a block of that size, in any thread. */
void storeSealBlock(uint8* block, uint32 size);

/* ---- figures.c ------------------------------------------------------------------------------------------- */
/* To be called often: decides when something is shown. What a terminal shows is wiped before anything else is. */
void progressShow(const TEXT* text, uint64 startedNs);
void progressWipe(void);

/* What a command has counted: a line for each figure, or one line of JSON. The end adds what each tag holds. */
void figuresBegin(const char* command, const STORE* store);
void figure(const char* name, uint64 value);
void figuresEnd(uint64 startedNs);

/* A command gets its own words of the command line, as many as main's table says, and a null. */
typedef RESULT COMMAND(const char** words);
COMMAND load, get, check, query, exportText, importText, copyStore;

#endif
