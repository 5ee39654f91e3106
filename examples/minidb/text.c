/* SPDX-License-Identifier: MIT */
/* text.c - lines of text, in and out, and lists of them, which sorted are searched by halves.
 *
 * A stream takes byte FF for the end of the file, and a line that holds byte 00 looks shorter than it is. So the
 * bytes of the lines are counted against the length of the file: a line that does not account for its bytes is a
 * fault. The count also finds a failed read, and a file that changes. */
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>

#include "minidb.h"

static void closeText(void* text)
{
    eko_fclose(((TEXT*)text)->stream);
}

/* The stream keeps the mark of a UTF-8 file to itself, but its bytes count. */
TEXT* textOpen(const char* name)
{
    char mark[4] = "";
    int32 directory;
    TEXT* text = EKO_ZALLOC(sizeof *text, EKO_THREAD_TAG);
    openTag("text", BLOCK_ALLOCATOR, closeText, text);
    eko_fileValidate(name, &directory);
    EKO_FH fh = directory ? NULL : eko_fileOpen(name, O_RDONLY | O_CLOEXEC, 0);
    NEED(fh, "%s: cannot be opened: %s", name, strerror(directory ? EISDIR : errno));
    text->length = eko_fileLength(fh);
    const bool read = text->length > 0 && eko_fileRead(fh, mark, 3) != EKO_FILE_IO_FAILED;
    text->seen = strcmp(mark, "\xEF\xBB\xBF") == 0 ? 3 : 0;
    eko_fileClose(fh);
    NEED(read && text->length <= MAX_FILE_BYTES, "%s: is empty, or cannot be read, or larger than 1 GiB", name);
    text->stream = eko_fopen(name, "r", EKO_FILE_MODE_UTF8);
    NEED(text->stream && (uint8)mark[0] < 0xFE, "%s: cannot be opened as UTF-8 text", name);
    return text;
}

uint32 textNext(TEXT* text, char* line)
{
    uint32 length = eko_fgets(line, (int32)LINE_ROOM, text->stream) ? (uint32)strlen(line) : 0;
    const bool ended = length > 0 && line[length - 1] == '\n';
    text->seen += length;
    if (length == 0 && text->seen == text->length)
        return 0;
    text->lineNumber += 1;
    length -= !ended ? 0 : length > 1 && line[length - 2] == '\r' ? 2 : 1;
    if (length > MAX_LINE_BYTES)
        text->fault = "is longer than 64 KiB";
    else if (text->seen > text->length || (!ended && text->seen < text->length))
        text->fault = "cannot be read to its end: it holds a byte 00 or FF, or the file changes";
    line[length] = '\n';
    return text->fault ? 0 : length + 1;
}

/* Closing would not tell of a failed write; a seek, which writes what is pending, does. */
void textWrite(const RECORDS* records, const char* name)
{
    EKO_FILE_STREAM out = name ? eko_fopen(name, "w", EKO_FILE_MODE_UTF8) : eko_fopen_std("stdout");
    bool written = out != NULL;
    for (uint32 i = 0; written && i < records->count; ++i)
        written = eko_fprintf(out, "%.*s\n", (int)records->items[i].line.length, records->items[i].line.bytes) > 0;
    written = written && eko_fseek(out, 0, 1) == 0;
    eko_fclose(out);
    NEED(written, "%s: cannot be written", name ? name : "standard output");
}

int comparePieces(PIECE a, PIECE b)
{
    const int order = memcmp(a.bytes, b.bytes, a.length < b.length ? a.length : b.length);
    return order ? order : (a.length > b.length) - (a.length < b.length);
}

bool recordTake(RECORD* record, PIECE* lines)
{
    const char *start = lines->bytes, *end = memchr(start, '\n', lines->length);
    const char* separator = end ? memchr(start, ';', (size_t)(end - start)) : NULL;
    if (!separator || separator == start)
        return false;
    record->line = (PIECE){start, (uint32)(end - start)};
    record->key = (PIECE){start, (uint32)(separator - start)};
    *lines = (PIECE){end + 1, lines->length - record->line.length - 1};
    return true;
}

void recordsAdd(RECORDS* records, const RECORD* record)
{
    if (records->count == records->room) {
        records->room = records->room ? records->room * 2 : 1024;
        records->items = EKO_EXTEND(records->items, records->room * sizeof(RECORD), records->tag);
        NEED(records->items, "there are too many records");
    }
    records->items[records->count++] = *record;
}

static int byKey(const void* a, const void* b)
{
    return comparePieces(((const RECORD*)a)->key, ((const RECORD*)b)->key);
}

static int byKeyAndPlace(const void* a, const void* b)
{
    const char *left = ((const RECORD*)a)->line.bytes, *right = ((const RECORD*)b)->line.bytes;
    const int order = byKey(a, b);
    return order ? order : (left > right) - (left < right);
}

void recordsSort(RECORDS* records)
{
    if (records->count > 0)
        qsort(records->items, records->count, sizeof(RECORD), byKeyAndPlace);
}

void recordsKeepLast(RECORDS* records)
{
    uint32 kept = 0;
    recordsSort(records);
    for (uint32 i = 0; i < records->count; ++i)
        if (i + 1 == records->count || byKey(&records->items[i], &records->items[i + 1]) != 0)
            records->items[kept++] = records->items[i];
    records->count = kept;
}

const RECORD* recordsFind(const RECORDS* records, PIECE key)
{
    const RECORD wanted = {.key = key};
    return records->count ? bsearch(&wanted, records->items, records->count, sizeof(RECORD), byKey) : NULL;
}
