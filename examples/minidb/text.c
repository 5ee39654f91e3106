/* SPDX-License-Identifier: MIT */
/* text.c - "key;value" lines, read through a text stream.
 *
 * The buffer has a fixed size, the longest line's: a file that is no text is refused after its first MiB, and not
 * taken into memory whole in search of a line end.
 *
 * A stream takes byte FF for the end of the file, and a line that holds byte 00 looks shorter than it is. Either
 * would lose what follows without a word. So the bytes of all lines are counted against the length of the file,
 * and a line that does not account for its bytes is a fault. The count also finds a failed read, and a file that
 * changes while it is read. */
#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "minidb.h"

#define MARK_BYTES 3u
#define LINE_ROOM (MAX_PAIR_BYTES + 4) /* with ';', \r, \n and the terminator */

static const char tooLong[] = "longer than 1 MiB";

/* A stream keeps a byte-order mark to itself, but its bytes count, and the length of a UTF-16 file cannot be
 * told from its lines. */
static bool skipMark(TEXT* text, EKO_FH fh)
{
    uint8 mark[MARK_BYTES] = {0};
    const uint32 got = eko_fileSeekRead(fh, 0, mark, MARK_BYTES);
    if (got == EKO_FILE_IO_FAILED) {
        complain("%s: cannot be read: %s", text->name, strerror(errno));
        return false;
    }
    const uint32 start = (uint32)mark[0] << 8 | mark[1];
    if (start == 0xFFFE || start == 0xFEFF || start == 0xEFFF) {
        complain("%s: is UTF-16; only UTF-8 can be loaded", text->name);
        return false;
    }
    if (memcmp(mark, "\xEF\xBB\xBF", MARK_BYTES) == 0)
        text->seen = MARK_BYTES;
    return true;
}

static bool lookAt(TEXT* text)
{
    int32 directory; /* the system opens one for reading, but reads nothing from it */
    eko_fileValidate(text->name, &directory);
    EKO_FH fh = directory ? NULL : eko_fileOpen(text->name, O_RDONLY | O_CLOEXEC, 0);
    if (!fh) {
        complain("%s: cannot be opened: %s", text->name, strerror(directory ? EISDIR : errno));
        return false;
    }
    text->length = eko_fileLength(fh);
    bool usable = text->length != 0;
    if (usable)
        usable = skipMark(text, fh);
    else
        complain("%s: is empty", text->name);
    eko_fileClose(fh);
    return usable;
}

bool textOpen(TEXT* text, const char* name)
{
    text->name = name;
    if (!lookAt(text) || !makeTag(&text->tag, BLOCK_ALLOCATOR))
        return false;
    text->line = EKO_ALLOC(LINE_ROOM, text->tag);
    if (!text->line)
        return false;
    text->stream = eko_fopen(name, "r", EKO_FILE_MODE_UTF8);
    if (!text->stream)
        complain("%s: cannot be opened as a text: %s", name, strerror(errno));
    return text->stream != NULL;
}

void textClose(TEXT* text)
{
    eko_fclose(text->stream);
    EKO_TAG_DESTROY(text->tag);
}

const char* splitLine(const char* line, uint32 len, PAIR* pair)
{
    const char* separator = memchr(line, ';', len);
    if (len == 0 || separator == line)
        return "a line without a key";
    if (!separator)
        return "a line without a ';'";
    if (len - 1 > MAX_PAIR_BYTES)
        return tooLong;
    pair->key = line;
    pair->keyLen = (uint32)(separator - line);
    pair->value = separator + 1;
    pair->valueLen = len - pair->keyLen - 1;
    return NULL;
}

FOUND textLine(TEXT* text)
{
    const char* line = eko_fgets(text->line, (int32)LINE_ROOM, text->stream);
    const size_t len = line ? strlen(line) : 0;
    const bool ended = len > 0 && line[len - 1] == '\n';
    text->seen += len;
    if (!line && text->seen == text->length)
        return FOUND_END;
    text->lineNo += 1;
    text->lineLen = (uint32)(len - (!ended ? 0 : len > 1 && line[len - 2] == '\r' ? 2 : 1));
    if (ended || text->seen == text->length)
        return FOUND_ONE;
    text->fault =
        len == LINE_ROOM - 1 ? tooLong : "cannot be read to its end: it holds a byte 00 or FF, or the file changes";
    return FOUND_FAULT;
}

FOUND textNext(TEXT* text, PAIR* pair)
{
    const FOUND found = textLine(text);
    if (found == FOUND_ONE)
        text->fault = splitLine(text->line, text->lineLen, pair);
    if (!text->fault)
        return found;
    textTell(text, text->lineNo, text->fault);
    return FOUND_FAULT;
}

void textTell(const TEXT* text, uint32 lineNo, const char* fault)
{
    complain("%s:%u: %s", text->name, lineNo, fault);
}
