/* SPDX-License-Identifier: MIT */
/* query.c - the query command: finds the words of the text, and the records that it asks for. */
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "query.tab.h"

/* ---- what is said of a query -------------------------------------------------------------------------------- */

static int characters(const char* text, const char* end)
{
    int count = 0;
    for (; text < end; ++text)
        count += (*text & 0xC0) != 0x80;
    return count;
}

/* Shows the line that the last word is in, and marks where. */
static int32 complainAt(const QUERY* q, const char* message)
{
    const char* line = q->word;
    while (line > q->text && line[-1] != '\n')
        --line;
    const int column = characters(line, q->word) + 1, length = (int)strcspn(line, "\n");
    complain("the query, column %d: %s\n  %.*s\n  %*s", column, message, length, line, column, "^");
    return 1;
}

int32 query_error(QUERY* q, const EKO_YYERROR* error)
{
    char message[512];
    eko_yyerrorText(error, message, sizeof message);
    return complainAt(q, message);
}

/* ---- words -------------------------------------------------------------------------------------------------- */

static bool sameWord(const char* word, WORD found)
{
    return strlen(word) == found.len && strncasecmp(word, found.bytes, found.len) == 0;
}

/* Fields are numbered: the key, the whole value, then its pieces, whose names the settings have. */
enum { FIELD_KEY, FIELD_VALUE, FIELD_PIECES };

static uint32 fieldNamed(const QUERY* q, WORD found)
{
    if (sameWord("key", found))
        return FIELD_KEY;
    if (sameWord("value", found))
        return FIELD_VALUE;
    uint32 field = FIELD_PIECES;
    for (const char* name = q->settings->fields; *name; ++field) {
        const size_t len = strcspn(name, ",");
        if (len == found.len && strncasecmp(name, found.bytes, len) == 0)
            return field;
        name += len + (name[len] == ',');
    }
    return NO_FIELD;
}

int32 noSuchField(const QUERY* q)
{
    char message[MAX_NAME_BYTES + 64];
    const char* pieces = q->settings->fields;
    eko_snprintf(message, sizeof message, "no such field: there are key,value%s%s", *pieces ? "," : "", pieces);
    return complainAt(q, message);
}

static const struct {
    const char* word;
    int32 token;
    uint32 number;
} words[] = {{"and", QUERY_AND, 0},         {"or", QUERY_OR, 0},
             {"not", QUERY_NOT, 0},         {"order", QUERY_ORDER, 0},
             {"by", QUERY_BY, 0},           {"asc", QUERY_ASC, 0},
             {"desc", QUERY_DESC, 0},       {"limit", QUERY_LIMIT, 0},
             {"(", QUERY_OPEN, 0},          {")", QUERY_CLOSE, 0},
             {"=", QUERY_COMPARED, EQUAL},  {"!=", QUERY_COMPARED, LESS | MORE},
             {"<", QUERY_COMPARED, LESS},   {"<=", QUERY_COMPARED, LESS | EQUAL},
             {">", QUERY_COMPARED, MORE},   {">=", QUERY_COMPARED, MORE | EQUAL},
             {"like", QUERY_COMPARED, LIKE}};

static const char letters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_0123456789";

/* Letters, digits and underscores make a word; signs of comparison do; any other character is one by itself. */
static WORD nextWord(QUERY* q)
{
    q->word = q->at += strspn(q->at, " \t\r\n");
    size_t len = strspn(q->at, letters);
    if (len == 0)
        len = strspn(q->at, "!<>=");
    if (len == 0 && *q->at)
        len = 1;
    q->at += len;
    return (WORD){q->word, (uint32)len};
}

/* A text ends with the quote, ' or ", that it begins with; so it can hold the other. */
static int32 takeText(QUERY* q, QUERY_STYPE* value)
{
    const char* end = strchr(q->at, *q->word);
    if (!end)
        return complainAt(q, "a text without its second quote");
    value->word = (WORD){q->at, (uint32)(end - q->at)};
    q->at = end + 1;
    return 0;
}

int32 query_lex(QUERY* q, int32* token, QUERY_STYPE* value)
{
    const WORD found = nextWord(q);
    if (found.len == 0)
        return 0; /* the end */
    if (*found.bytes == '"' || *found.bytes == '\'') {
        *token = QUERY_TEXT;
        return takeText(q, value);
    }
    for (size_t i = 0; i < sizeof words / sizeof words[0]; ++i) {
        if (sameWord(words[i].word, found)) {
            *token = words[i].token;
            value->number = words[i].number;
            return 0;
        }
    }
    if (strspn(found.bytes, "0123456789") == found.len) {
        const uint64 number = eko_atoui64(found.bytes);
        *token = QUERY_NUMBER;
        value->number = number > UINT32_MAX ? UINT32_MAX : (uint32)number;
        return 0;
    }
    if (strspn(found.bytes, letters) == 0)
        return complainAt(q, "an unknown sign");
    *token = QUERY_FIELD;
    value->number = fieldNamed(q, found);
    return 0;
}

/* ---- conditions --------------------------------------------------------------------------------------------- */

static WORD fieldOf(const PAIR* pair, uint32 field)
{
    if (field == FIELD_KEY)
        return (WORD){pair->key, pair->keyLen};
    const char *piece = pair->value, *end = piece + pair->valueLen;
    for (; field > FIELD_PIECES && piece < end; --field) {
        const char* separator = memchr(piece, ';', (size_t)(end - piece));
        piece = separator ? separator + 1 : end;
    }
    const char* separator = field == FIELD_VALUE ? NULL : memchr(piece, ';', (size_t)(end - piece));
    return (WORD){piece, (uint32)((separator ? separator : end) - piece)};
}

/* By bytes, as strcmp. */
static int order(WORD a, WORD b)
{
    const int first = memcmp(a.bytes, b.bytes, a.len < b.len ? a.len : b.len);
    return first ? first : (a.len > b.len) - (a.len < b.len);
}

/* In a pattern * stands for any bytes, none included, and ? for one. Going back to the last * is enough. */
static bool isLike(WORD text, WORD pattern)
{
    uint32 at = 0, p = 0, star = UINT32_MAX, resume = 0;
    while (at < text.len) {
        if (p < pattern.len && pattern.bytes[p] == '*') {
            star = p++;
            resume = at;
        } else if (p < pattern.len && (pattern.bytes[p] == '?' || pattern.bytes[p] == text.bytes[at])) {
            ++p;
            ++at;
        } else if (star != UINT32_MAX) {
            p = star + 1;
            at = ++resume;
        } else {
            return false;
        }
    }
    while (p < pattern.len && pattern.bytes[p] == '*')
        ++p;
    return p == pattern.len;
}

static bool compares(const CONDITION* c, WORD found)
{
    if (c->compared == LIKE)
        return isLike(found, c->operand);
    const int ordered = order(found, c->operand);
    return (c->compared & (ordered < 0 ? LESS : ordered > 0 ? MORE : EQUAL)) != 0;
}

static bool holds(const CONDITION* c, const PAIR* pair)
{
    bool result;
    if (!c->left)
        result = compares(c, fieldOf(pair, c->field));
    else if (c->both)
        result = holds(c->left, pair) && holds(c->right, pair);
    else
        result = holds(c->left, pair) || holds(c->right, pair);
    return result != c->negated;
}

/* ---- records ------------------------------------------------------------------------------------------------ */

typedef struct MATCH {
    const ENTRY* entry;
    WORD by; /* what it is ordered by */
} MATCH;

/* What is equal, or not to be ordered, goes by its place in the data file. */
static int byField(const void* a, const void* b)
{
    const MATCH *left = a, *right = b;
    const int first = order(left->by, right->by);
    return first ? first : (left->entry->at > right->entry->at) - (left->entry->at < right->entry->at);
}

static uint32 findMatches(const QUERY* q, const INDEX* index, MATCH* matches)
{
    uint32 count = 0;
    for (uint32 i = 0; i < index->capacity; ++i) {
        const ENTRY* entry = &index->slots[i];
        if (entry->pair.key && (!q->condition || holds(q->condition, &entry->pair)))
            matches[count++] = (MATCH){entry, q->ordered ? fieldOf(&entry->pair, q->order) : (WORD){"", 0}};
    }
    qsort(matches, count, sizeof(MATCH), byField);
    return count;
}

static bool printMatches(const QUERY* q, STORE* store, EKO_FILE_STREAM out)
{
    MATCH* matches = EKO_ALLOC((store->index.count + 1) * sizeof(MATCH), q->tag);
    if (!matches)
        return false;
    const uint32 count = findMatches(q, &store->index, matches);
    bool done = true;
    for (uint32 i = 0; done && i < count && i < q->limit; ++i)
        done = printPair(out, &matches[q->descending ? count - 1 - i : i].entry->pair);
    return done;
}

bool query(const SETTINGS* settings, const char* storeName, const char* text)
{
    QUERY q = {.settings = settings, .text = text, .at = text, .word = text, .limit = UINT32_MAX};
    STORE store = {0};
    bool done = false;
    EKO_FILE_STREAM out = NULL;
    if (makeTag(&q.tag, LIST_ALLOCATOR) && query_parse(&q, q.tag) == 0 &&
        storeOpen(&store, settings, storeName, STORE_READ) && storeReadValues(&store))
        out = openStandardOutput();
    if (out) {
        done = printMatches(&q, &store, out);
        done = closeStandardOutput(out) && done;
    }
    storeClose(&store);
    EKO_TAG_DESTROY(q.tag);
    return done;
}
