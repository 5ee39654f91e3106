/* SPDX-License-Identifier: MIT */
/* records.c - a list of records: an array that doubles and, once sorted, is searched by halves. */
#include <stdlib.h>
#include <string.h>

#include "minidb.h"

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

const RECORD* recordsFind(const RECORDS* records, const char* key)
{
    const RECORD wanted = {.key = {key, (uint32)strlen(key)}};
    return records->count ? bsearch(&wanted, records->items, records->count, sizeof(RECORD), byKey) : NULL;
}
