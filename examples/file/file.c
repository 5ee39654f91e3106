/* SPDX-License-Identifier: MIT */
/* file.c - keeps pages in a file: on disk, through mapped views, and in memory. The calls are the same; what the
 * file's length says is not. */
#include <eko.h>
#include <fcntl.h>
#include <string.h>

#define PAGE 4096
#define PAGES 3

/* [pages] */
/* Short counts and EKO_FILE_IO_FAILED are failures here: a page is all there or it is no page. */
static int32 writePage(EKO_FH fh, uint32 number, const uint8* page)
{
    return eko_fileSeekWrite(fh, (EKO_FILE_OFFSET)number * PAGE, page, PAGE) == PAGE ? 0 : 1002;
}

static int32 readPage(EKO_FH fh, uint32 number, uint8* page)
{
    return eko_fileSeekRead(fh, (EKO_FILE_OFFSET)number * PAGE, page, PAGE) == PAGE ? 0 : 1002;
}

/* Writes the pages under the file's lock, then reads the first one back. */
static int32 usePages(EKO_FH fh)
{
    uint8 page[PAGE];
    int32 status = eko_fileLock(fh); /* 1002: another process has the file */
    if (status != 0)
        return status;
    for (uint32 number = 0; status == 0 && number < PAGES; ++number) {
        memset(page, (int)('A' + number), sizeof page);
        status = writePage(fh, number, page);
    }
    eko_fileUnlock(fh);
    if (status == 0)
        status = eko_fileSync(fh); /* now the pages are on the disk, if there is one */
    if (status == 0)
        status = readPage(fh, 0, page);
    if (status == 0)
        eko_printf("page 0 begins with '%c', the file has %llu bytes\n", page[0],
                   (unsigned long long)eko_fileLength(fh));
    return status;
}
/* [pages] */

/* [backing] */
static int32 tryBacking(const char* backing, uint16 xflags)
{
    uint32 counter = 0;
    const char* name = eko_fileCreateTmpName(&counter, "pages", "db", xflags, EKO_THREAD_TAG);
    EKO_FH fh = eko_fileOpen(name, O_RDWR | O_CREAT | O_EXCL, xflags);
    int32 status = 1002;
    eko_printf("%-7s ", backing);
    if (fh) {
        status = usePages(fh);
        eko_fileClose(fh);
        eko_fileRemoveEx(name, xflags);
    }
    EKO_FREE(name, EKO_THREAD_TAG);
    return status;
}
/* [backing] */

int main(void)
{
    if (eko_init() != 0)
        return 1;
    int32 status = tryBacking("disk", 0);
    if (status == 0)
        status = tryBacking("mapped", EKO_FILE_MAPPED); /* whole MiB, until a plain handle cuts the file */
    if (status == 0)
        status = tryBacking("memory", EKO_FILE_INMEMORY);
    if (status != 0)
        eko_log_err("failed with status %d\n", status);
    eko_term();
    return status == 0 ? 0 : 1;
}
