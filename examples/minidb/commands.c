/* SPDX-License-Identifier: MIT */
/* commands.c - the commands that look at records, and those that make files as a whole. */
#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "minidb.h"

RESULT get(const SETTINGS* settings, const char** words)
{
    const STORE* store = storeOpen(settings, words[0], false);
    RECORDS found = {.tag = openTag("found", BLOCK_ALLOCATOR, NULL, NULL)};
    RESULT result = DONE;
    for (const char** key = words + 1; *key; ++key) {
        const RECORD* record = recordsFind(&store->records, (PIECE){*key, (uint32)strlen(*key)});
        if (record) {
            recordsAdd(&found, record);
        } else {
            complain("%s: no record with the key '%s'", store->name, *key);
            result = DIFFERENT;
        }
    }
    textWrite(&found, NULL);
    return result;
}

RESULT statistics(const SETTINGS* settings, const char** words)
{
    const uint64 started = eko_timeNanoSecs();
    const STORE* store = storeOpen(settings, words[0], false);
    figuresBegin(settings, "stat", store);
    figure("bytes", store->end);
    figure("keys", store->records.count);
    figuresEnd(started);
    return DONE;
}

/* ---- check ----------------------------------------------------------------------------------------------- */

#define MAX_SHOWN 10u /* differences told one by one */

static RECORDS readText(const char* name)
{
    RECORDS records = {.tag = openTag("lines", BLOCK_ALLOCATOR, NULL, NULL)};
    TEXT* text = textOpen(name);
    char* line = EKO_ALLOC((size_t)text->length + LINE_ROOM + 1, records.tag);
    for (uint32 length; (length = textNext(text, line)) > 0; line += length) {
        RECORD record;
        NEED(recordTake(&record, &(PIECE){line, length}), "%s:%u: " NO_RECORD, name, text->lineNumber);
        recordsAdd(&records, &record);
    }
    NEED(!text->fault, "%s:%u: %s", name, text->lineNumber, text->fault);
    recordsKeepLast(&records);
    return records;
}

static void tell(uint32* count, const char* what, PIECE key)
{
    if (++*count <= MAX_SHOWN)
        complain("%s: '%.*s'", what, (int)key.length, key.bytes);
}

RESULT check(const SETTINGS* settings, const char** words)
{
    const uint64 started = eko_timeNanoSecs();
    const STORE* store = storeOpen(settings, words[0], false);
    const RECORDS lines = readText(words[1]);
    uint32 missing = 0, different = 0;
    for (const RECORD* line = lines.items; line < lines.items + lines.count; ++line) {
        const RECORD* stored = recordsFind(&store->records, line->key);
        if (!stored)
            tell(&missing, "not in the data file", line->key);
        else if (comparePieces(stored->line, line->line) != 0)
            tell(&different, "differs", line->key);
    }
    const uint32 extra = store->records.count - (lines.count - missing);
    figuresBegin(settings, "check", store);
    figure("keys", store->records.count);
    figure("missing", missing);
    figure("different", different);
    figure("extra", extra);
    figuresEnd(started);
    return missing || different || extra ? DIFFERENT : DONE;
}

/* ---- export, import, copy -------------------------------------------------------------------------------- *
 *
 * What is made is made under a temporary name first, and takes its place when it is complete: who looks meanwhile,
 * and who comes after a failure, finds what was there before. */

static void removeFile(void* name)
{
    eko_fileRemove(name);
}

/* A new, empty file of our own. The names are easy to guess, so only one that the system finds free will do. */
static const char* makeTemporary(void)
{
    static uint32 counter;
    char* name = eko_fileCreateTmpName(&counter, "minidb", "tmp", 0, EKO_THREAD_TAG);
    EKO_FH fh = eko_fileOpen(name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0);
    NEED(fh, "no temporary file can be made: %s", strerror(errno));
    eko_fileClose(fh);
    openTag("temporary", BLOCK_ALLOCATOR, removeFile, name);
    return name;
}

/* Renaming replaces the file of that name in one step. Onto another disk it has to be moved, in several. */
static void putInPlace(const char* temporary, const char* name)
{
    NEED(eko_fileRename(temporary, name) == 0 || eko_fileMove(temporary, name) == 0,
         "%s: cannot be put in place: %s", name, strerror(errno));
}

RESULT exportText(const SETTINGS* settings, const char** words)
{
    const STORE* store = storeOpen(settings, words[0], false);
    const char* temporary = makeTemporary();
    textWrite(&store->records, temporary);
    putInPlace(temporary, words[1]);
    return DONE;
}

RESULT importText(const SETTINGS* settings, const char** words)
{
    const char* temporary = makeTemporary();
    SETTINGS* quiet = EKO_DUP(settings, sizeof *settings, EKO_THREAD_TAG);
    quiet->number[REPORT] = 0; /* nothing is stored before it is in place */
    load(quiet, (const char*[]){words[0], temporary, NULL});
    putInPlace(temporary, dataPath(settings, words[1]));
    return DONE;
}

RESULT copyStore(const SETTINGS* settings, const char** words)
{
    const char *from = dataPath(settings, words[0]), *temporary = makeTemporary();
    NEED(eko_fileCopy(from, temporary) == 0, "%s: cannot be copied: %s", from, strerror(errno));
    putInPlace(temporary, dataPath(settings, words[1]));
    return DONE;
}
