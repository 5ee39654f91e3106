/* SPDX-License-Identifier: MIT */
/* stream.c - writes a table as text, a line for each row, and reads it back. The file is in memory here; with flags
 * of 0 it is on disk. */
#include <eko.h>
#include <string.h>

#define NAME "/export.csv"

/* [write] */
static int32 exportRows(void)
{
    static const char* const cities[] = {"Oslo", "Reykjav\xC3\xADk", "Llanfairpwllgwyngyllgogerychwyrndrobwll"};
    EKO_FILE_STREAM out = eko_fopenEx(NAME, "w", EKO_FILE_MODE_UTF8, EKO_FILE_INMEMORY);
    if (!out)
        return 1002;
    int32 status = 0;
    for (int i = 0; status == 0 && i < 3; ++i)
        status = eko_fprintf(out, "%d;%s;%.2f\n", i + 1, cities[i], 1.5 * i) > 0 ? 0 : 1002;
    if (status == 0)
        status = eko_fseek(out, 0, 1); /* writes what is pending, and tells whether that worked */
    eko_fclose(out);
    return status;
}
/* [write] */

/* [read] */
static int32 importRows(EKO_MEMTAG tag)
{
    char* line = NULL;
    uint32 size = 0;
    EKO_FILE_STREAM in = eko_fopenEx(NAME, "r", EKO_FILE_MODE_UTF8, EKO_FILE_INMEMORY);
    if (!in)
        return 1002;
    while (eko_fGetLine(in, &line, &size, tag)) { /* one block, extended for the longest line */
        line[strcspn(line, "\n")] = 0;
        eko_printf("%2u bytes: %s\n", (uint32)strlen(line), line);
    }
    EKO_FREE(line, tag);
    eko_fclose(in);
    return 0;
}
/* [read] */

int main(void)
{
    if (eko_init() != 0)
        return 1;
    const EKO_MEMTAG tag = EKO_TAG_CREATE(LIST_ALLOCATOR);
    int32 status = exportRows();
    if (status == 0)
        status = importRows(tag);
    if (status != 0)
        eko_log_err("%s: status %d\n", NAME, status);
    EKO_TAG_DESTROY(tag);
    eko_term();
    return status == 0 ? 0 : 1;
}
