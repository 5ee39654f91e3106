/* SPDX-License-Identifier: MIT */
/* text.c - lines of text, in and out.
 *
 * A stream takes byte FF for the end of the file, and a line that holds byte 00 looks shorter than it is. Either would
 * lose what follows without a word. So the bytes of the lines are counted against the length of the file, and a line
 * that does not account for its bytes is a fault. The count also finds a failed read, and a file that changes. */
#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "minidb.h"

/* Looks at the bytes of the file as they are: their number, and whether they begin with a mark, which the stream keeps
 * to itself. */
static void measure(TEXT* text)
{
    static const char mark[] = "\xEF\xBB\xBF";
    char start[sizeof mark] = "";
    int32 directory;
    eko_fileValidate(text->name, &directory);
    EKO_FH fh = directory ? NULL : eko_fileOpen(text->name, O_RDONLY | O_CLOEXEC, 0);
    NEED(fh, "%s: cannot be opened: %s", text->name, strerror(directory ? EISDIR : errno));
    const uint32 got = eko_fileRead(fh, start, sizeof mark - 1);
    text->length = eko_fileLength(fh);
    text->seen = strcmp(start, mark) == 0 ? sizeof mark - 1 : 0;
    eko_fileClose(fh);
    NEED(got != 0 && got != EKO_FILE_IO_FAILED, "%s: is empty, or cannot be read", text->name);
    NEED((uint8)start[0] < 0xFE, "%s: is UTF-16, not UTF-8", text->name);
    NEED(text->length <= MAX_FILE_BYTES, "%s: is larger than 1 GiB", text->name);
}

static void closeText(void* text)
{
    eko_fclose(((TEXT*)text)->stream);
}

TEXT* textOpen(const char* name)
{
    TEXT* text = EKO_ZALLOC(sizeof *text, EKO_THREAD_TAG);
    openTag("text", BLOCK_ALLOCATOR, closeText, text);
    text->name = name;
    measure(text);
    text->stream = eko_fopen(name, "r", EKO_FILE_MODE_UTF8);
    NEED(text->stream, "%s: cannot be opened as a text: %s", name, strerror(errno));
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

static void closeOutput(void* out)
{
    eko_fclose(out);
}

/* Closing would not tell of a failed write; a seek, which writes what is pending, does. */
void textWrite(const RECORDS* records, const char* name)
{
    EKO_FILE_STREAM out = name ? eko_fopen(name, "w", EKO_FILE_MODE_UTF8) : eko_fopen_std("stdout");
    bool written = out != NULL;
    openTag("output", BLOCK_ALLOCATOR, closeOutput, (void*)(uintptr_t)out);
    for (uint32 i = 0; written && i < records->count; ++i)
        written = eko_fprintf(out, "%.*s\n", (int)records->items[i].line.length, records->items[i].line.bytes) > 0;
    NEED(written && eko_fseek(out, 0, 1) == 0, "%s: cannot be written: %s", name ? name : "standard output",
         strerror(errno));
}
