/* SPDX-License-Identifier: MIT */
/* trace.c - what an engine did last. Traces in memory cost little, and are for the debugger: `eko trace` of
 * tools/gdb/eko.py shows them, in a process or a core file. Those in the file are on the disk at once. */
#include <eko.h>
#include <string.h>

/* [trace] */
static void recover(uint32 pages)
{
    eko_traceFile("recovery of %u pages\n", pages); /* few lines: each waits for the disk */
    for (uint32 page = 0; page < pages; ++page)
        eko_trace("page %u", page); /* the last 999 are kept */
    eko_traceFile("recovery ended\n");
}
/* [trace] */

/* The lines of the file, without the thread's identifier in front of each. */
static void show(const char* name)
{
    char line[128];
    EKO_FILE_STREAM file = eko_fopen(name, "r", EKO_FILE_MODE_UTF8);
    while (eko_fgets(line, sizeof line, file)) {
        const char* text = strstr(line, ": ");
        eko_printf("in the file: %s", text ? text + 2 : line);
    }
    eko_fclose(file);
}

int main(void)
{
    if (eko_init() != 0)
        return 1;
    const EKO_MEMTAG tag = EKO_TAG_CREATE(LIST_ALLOCATOR);
    const char* directory = eko_findOStmpdir(tag);
    const int32 silenced = eko_stdout_open(NULL); /* the first line reports the file's name, another each time */
    recover(2000);
    if (silenced == 0)
        eko_stdout_close();

    /* No other thread traces now, so this one may look as a debugger would. */
    const char* newest = eko_trace_list ? (*eko_trace_list)[0] : NULL;
    const char* text = newest ? strstr(newest, ": ") : NULL;
    eko_printf("last in memory: %s\n", text ? text + 2 : "nothing");
    const char* name = EKO_MAKESTR(tag, "%s/tov_trace_%u.log", directory, eko_get_pid());
    show(name);
    eko_fileRemove(name);
    EKO_TAG_DESTROY(tag);
    eko_term();
    return text ? 0 : 1;
}
