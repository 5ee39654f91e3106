/* SPDX-License-Identifier: MIT */
/* ini.c - an engine's settings: set, read with defaults, listed. The file is in memory here; with flags of 0 it is
 * on disk. */
#include <eko.h>

#define SETTINGS "/engine.ini"
#define WHERE EKO_FILE_INMEMORY
#define MISSING 2 /* no such section or entry */

/* [default] */
/* A number, or what holds when the file does not say. Any other failure is the caller's to tell. */
static int32 numberOr(int32 preset, const char* section, const char* entry, int32* value)
{
    const int32 status = eko_iniInt32Ex(SETTINGS, section, entry, value, WHERE);
    if (status != MISSING)
        return status;
    *value = preset;
    return 0;
}
/* [default] */

/* [set] */
static int32 writeSettings(void)
{
    int32 status = eko_iniSetEx(SETTINGS, "storage", "page_size", "8192", WHERE);
    if (status == 0)
        status = eko_iniSetEx(SETTINGS, "storage", "directory", "/var/lib/engine", WHERE);
    if (status == 0)
        status = eko_iniSetEx(SETTINGS, "network", "port", "5433", WHERE);
    return status;
}
/* [set] */

static int32 showSettings(EKO_MEMTAG tag)
{
    int32 pageSize;
    int32 cachePages;
    char* directory = NULL;
    char* sections = NULL;
    int32 status = numberOr(4096, "storage", "page_size", &pageSize);
    if (status == 0)
        status = numberOr(1000, "storage", "cache_pages", &cachePages);
    if (status == 0)
        status = eko_iniGetStr(SETTINGS, "STORAGE", "Directory", &directory, WHERE, tag); /* case does not matter */
    if (status == 0)
        status = eko_iniGetStr(SETTINGS, NULL, NULL, &sections, WHERE, tag);
    if (status == 0)
        eko_printf("page_size %d\ncache_pages %d\ndirectory %s\nsections %s\n", pageSize, cachePages, directory,
                   sections);
    return status;
}

int main(void)
{
    if (eko_init() != 0)
        return 1;
    const EKO_MEMTAG tag = EKO_TAG_CREATE(LIST_ALLOCATOR);
    int32 status = writeSettings();
    if (status == 0)
        status = showSettings(tag);
    if (status != 0)
        eko_log_err("%s: status %d\n", SETTINGS, status);
    EKO_TAG_DESTROY(tag);
    eko_term();
    return status == 0 ? 0 : 1;
}
