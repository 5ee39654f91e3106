/* SPDX-License-Identifier: MIT */
/* path.c - the directory of a database: made, walked, a file of it replaced in one step, and all of it removed. */
#include <eko.h>
#include <fcntl.h>
#include <string.h>

/* [replace] */
/* The new content goes to a file beside, which then takes the old one's name: whoever opens that sees all of the
 * old or all of the new. eko_fileMove would remove the old one first. */
static int32 replace(const char* name, const char* content, EKO_MEMTAG tag)
{
    const char* beside = EKO_MAKESTR(tag, "%s.new", name);
    EKO_FH fh = eko_fileOpen(beside, O_WRONLY | O_CREAT | O_TRUNC, 0);
    if (!fh)
        return 1002;
    const uint32 size = (uint32)strlen(content);
    int32 status = eko_fileWrite(fh, content, size) == size ? eko_fileSync(fh) : 1002;
    eko_fileClose(fh);
    if (status == 0)
        status = eko_fileRename(beside, name);
    return status;
}
/* [replace] */

/* [walk] */
/* Counts the files that fit a pattern, removing them if asked to. */
static uint32 each(const char* directory, const char* pattern, int remove, EKO_MEMTAG tag)
{
    uint32 count = 0;
    int32 isDirectory = 0;
    EKO_DIR walk = eko_pathOpen(directory, pattern);
    for (const char* name; (name = eko_pathNext(walk, &isDirectory)) != NULL;) {
        if (isDirectory)
            continue; /* "." and ".." among them */
        ++count;
        if (remove)
            eko_fileRemove(EKO_MAKESTR(tag, "%s/%s", directory, name));
    }
    eko_pathClose(walk);
    return count;
}
/* [walk] */

static int32 run(EKO_MEMTAG tag)
{
    char* dir = NULL;
    char* file = NULL;
    const char* temporary = eko_tmpdir(tag);
    if (!temporary)
        return 1002;
    const char* top = EKO_MAKESTR(tag, "%s/example_%u", temporary, eko_get_pid());
    const char* tables = EKO_MAKESTR(tag, "%s/tables", top);
    int32 status = eko_dirCreateAll(tables);
    for (int i = 0; status == 0 && i < 3; ++i)
        status = replace(EKO_MAKESTR(tag, "%s/t%d.db", tables, i), "empty", tag);
    const char* last = EKO_MAKESTR(tag, "%s/t2.db", tables);
    if (status == 0)
        status = replace(last, "full", tag);
    if (status == 0)
        status = eko_pathSplitEx(last, &dir, &file, tag);
    if (status == 0)
        eko_printf("%u tables; %s has %llu bytes now; %u unfinished\n", each(tables, "*.DB", 0, tag), file,
                   (unsigned long long)eko_fileLengthStat(last, 0), each(tables, "*.new", 0, tag));
    const uint32 removed = each(tables, "*", 1, tag);
    const int32 gone = eko_dirRemove(tables) == 0 && eko_dirRemove(top) == 0;
    eko_printf("%u files removed, the directory is %s\n", removed, gone ? "gone" : "still there");
    return status;
}

int main(void)
{
    if (eko_init() != 0)
        return 1;
    const EKO_MEMTAG tag = EKO_TAG_CREATE(STACK_ALLOCATOR);
    const int32 status = run(tag);
    if (status != 0)
        eko_log_err("failed with status %d\n", status);
    EKO_TAG_DESTROY(tag);
    eko_term();
    return status == 0 ? 0 : 1;
}
