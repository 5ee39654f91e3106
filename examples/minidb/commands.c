/* SPDX-License-Identifier: MIT */
/* commands.c - the commands that look at records, and those that make files as a whole. */
#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "minidb.h"

RESULT get(const char** words)
{
    const STORE* store = storeOpen(words[0], false);
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

RESULT check(const char** words)
{
    const uint64 started = eko_timeNanoSecs();
    const STORE* store = storeOpen(words[0], false);
    const RECORDS lines = readText(words[1]);
    uint32 missing = 0, different = 0;
    for (const RECORD* line = lines.items; line < lines.items + lines.count; ++line) {
        const RECORD* stored = recordsFind(&store->records, line->key);
        const bool same = stored && comparePieces(stored->line, line->line) == 0;
        missing += !stored;
        different += stored && !same;
        if (!same && missing + different <= 10)
            complain("%s: '%.*s'", stored ? "differs" : "not in the data file", (int)line->key.length,
                     line->key.bytes);
    }
    const uint32 extra = store->records.count - (lines.count - missing);
    figuresBegin("check", store);
    figure("keys", store->records.count);
    figure("missing", missing);
    figure("different", different);
    figure("extra", extra);
    figuresEnd(started);
    return missing || different || extra ? DIFFERENT : DONE;
}

RESULT exportText(const char** words)
{
    textWrite(&storeOpen(words[0], false)->records, words[1]);
    return DONE;
}

static void removeFile(void* name)
{
    eko_fileRemove(name);
}

/* A new, empty file beside that one, whose place it takes when it is complete: who looks meanwhile, and who comes
 * after a failure, finds what was there before. The names are easy to guess, so only a free one will do. */
static const char* makeTemporary(const char* path)
{
    static uint32 counter;
    const char* own = eko_fileCreateTmpName(&counter, "minidb", "tmp", 0, EKO_THREAD_TAG);
    char* name = EKO_MAKESTR(EKO_THREAD_TAG, "%s.%s", path, strrchr(own, '/') + 1);
    EKO_FH fh = eko_fileOpen(name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0);
    NEED(fh, "%s: cannot be made: %s", name, strerror(errno));
    eko_fileClose(fh);
    openTag("temporary", BLOCK_ALLOCATOR, removeFile, name);
    return name;
}

RESULT importText(const char** words)
{
    const char* path = storeReserve(words[1]);
    const char* temporary = makeTemporary(path);
    settings.number[REPORT] = 0; /* nothing is stored before it is in place */
    load((const char*[]){words[0], temporary, NULL});
    NEED(eko_fileRename(temporary, path) == 0, "%s: cannot be put in place: %s", path, strerror(errno));
    return DONE;
}

RESULT copyStore(const char** words)
{
    const char *from = dataPath(words[0]), *path = storeReserve(words[1]);
    const char* temporary = makeTemporary(path);
    NEED(eko_fileCopy(from, temporary) == 0, "%s: cannot be copied: %s", from, strerror(errno));
    NEED(eko_fileRename(temporary, path) == 0, "%s: cannot be put in place: %s", path, strerror(errno));
    return DONE;
}
