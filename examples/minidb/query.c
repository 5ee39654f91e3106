/* SPDX-License-Identifier: MIT */
/* query.c - the query command: finds the words of the text, and the records that it asks for. */
#include <string.h>
#include <strings.h>

#include "query.tab.h"

/* Says what is wrong with the last word, and marks it. */
int32 query_error(QUERY* q, const EKO_YYERROR* error)
{
    char message[512];
    int column = 1;
    for (const char* p = q->text; p < q->word; ++p)
        column += (*p & 0xC0) != 0x80; /* characters, not bytes */
    eko_yyerrorText(error, message, sizeof message);
    complain("the query, column %d: %s\n  fields are %s\n  %s\n  %*s", column, message, settings.text[FIELDS],
             q->text, column, "^");
    return 1;
}

static bool isWord(PIECE word, const char* name, size_t length)
{
    return length == word.length && strncasecmp(word.bytes, name, length) == 0;
}

/* The token of a word that is neither text nor number. */
static int32 tokenOf(PIECE word, uint32* field)
{
    for (int32 token = QUERY_AND; token <= QUERY_FITS; ++token)
        if (isWord(word, query_tables.names[token], strlen(query_tables.names[token])))
            return token;
    for (const char* name = settings.text[FIELDS]; *name; ++*field) {
        const size_t length = strcspn(name, ",");
        if (isWord(word, name, length))
            return QUERY_FIELD;
        name += length + (name[length] == ',');
    }
    return QUERY_UNKNOWN;
}

int32 query_lex(QUERY* q, int32* token, QUERY_STYPE* value)
{
    const char* word = q->word = q->next + strspn(q->next, " \t\r\n");
    const char* quote = *word == '"' || *word == '\'' ? strchr(word + 1, *word) : NULL;
    size_t length = strspn(word, "!<>=");
    if (length == 0)
        length = strspn(word, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_0123456789");
    q->next = word + (length > 0 || !*word ? length : 1); /* any other character is a word by itself */
    if (!*word) {
        *token = QUERY_END;
    } else if (quote) { /* so a text in one sort of quotes can hold the other */
        *token = QUERY_TEXT;
        value->text = (PIECE){word + 1, (uint32)(quote - word) - 1};
        q->next = quote + 1;
    } else if (length > 0 && strspn(word, "0123456789") == length) {
        const uint64 number = eko_atoui64(word);
        *token = QUERY_NUMBER;
        value->number = number > UINT32_MAX ? UINT32_MAX : (uint32)number;
    } else {
        *token = tokenOf((PIECE){word, (uint32)(q->next - word)}, &value->number);
    }
    return 0;
}

/* The pieces of a line between ';', from 0; empty behind the last. */
static PIECE fieldOf(const RECORD* record, uint32 field)
{
    const char *bytes = record->line.bytes, *lineEnd = bytes + record->line.length;
    for (;; --field) {
        const char* separator = memchr(bytes, ';', (size_t)(lineEnd - bytes));
        const char* end = separator ? separator : lineEnd;
        if (field == 0)
            return (PIECE){bytes, (uint32)(end - bytes)};
        bytes = separator ? separator + 1 : lineEnd;
    }
}

/* In a pattern * stands for any bytes, none included, and ? for one. */
static bool isLike(PIECE text, PIECE pattern)
{
    const char *at = text.bytes, *end = at + text.length, *form = pattern.bytes, *formEnd = form + pattern.length;
    for (; form < formEnd && *form != '*'; ++form, ++at)
        if (at == end || (*form != '?' && *form != *at))
            return false;
    if (form == formEnd)
        return at == end;
    const PIECE rest = {form + 1, (uint32)(formEnd - form) - 1};
    while (at < end && !isLike((PIECE){at, (uint32)(end - at)}, rest))
        ++at;
    return at < end || isLike((PIECE){at, 0}, rest);
}

bool* queryCompare(const QUERY* q, uint32 field, uint32 allowed, PIECE text)
{
    bool* set = EKO_ZALLOC(q->records->count + 1, q->tag);
    for (uint32 i = 0; i < q->records->count; ++i) {
        const PIECE found = fieldOf(&q->records->items[i], field);
        const int order = comparePieces(found, text);
        const uint32 is = order < 0 ? LESS : order > 0 ? MORE : EQUAL;
        set[i] = allowed == LIKE ? isLike(found, text) : (allowed & is) != 0;
    }
    return set;
}

RESULT query(const char** words)
{
    const RECORDS* records = &storeOpen(words[0], false)->records;
    QUERY q = {.records = records, .text = words[1], .next = words[1], .limit = UINT32_MAX};
    q.tag = openTag("query", BLOCK_ALLOCATOR, NULL, NULL);
    if (query_parse(&q, q.tag) != 0)
        return MISUSED;
    RECORDS found = {.tag = q.tag}, shown = found;
    for (uint32 i = 0; i < records->count; ++i) {
        RECORD record = records->items[i];
        record.key = fieldOf(&record, q.order); /* to be sorted by */
        if (!q.wanted || q.wanted[i])
            recordsAdd(&found, &record);
    }
    recordsSort(&found);
    for (uint32 i = 0; i < found.count && i < q.limit; ++i)
        recordsAdd(&shown, &found.items[q.descending ? found.count - 1 - i : i]);
    textWrite(&shown, NULL);
    return DONE;
}
