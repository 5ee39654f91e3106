/* SPDX-License-Identifier: MIT */
/* pool.c - buffers for pages that are used again, instead of going back to the allocator each time. */
#include <eko.h>
#include <string.h>

#define PAGE 4096

/* [pool] */
static void* takePage(EKO_POOL pages)
{
    return eko_poolGetMem(pages, PAGE, EKO_MEM_ZERO, NULL, __FILE__, __LINE__);
}

static int32 usePages(EKO_POOL pages)
{
    char* first = takePage(pages);
    char* second = takePage(pages);
    if (!first || !second)
        return 1003; /* the pool owns them: nothing is lost */
    memcpy(first, "root", 5);
    memcpy(second, "leaf", 5);
    eko_poolPut(pages, first);
    eko_poolPut(pages, second);
    const char* again = takePage(pages); /* the one that came back last */
    eko_printf("the third page %s the second, and is %s\n", again == second ? "is" : "is not",
               again && *again == 0 ? "empty" : "not empty");
    return again ? 0 : 1003;
}
/* [pool] */

int main(void)
{
    EKO_POOL pages = NULL;
    if (eko_init() != 0)
        return 1;
    /* A tag of its own goes with the pool; a name gives it a mutex. */
    int32 status = eko_poolCreate(EKO_TAG_INVALID, EKO_POOL_FIXED_SIZE, "pages", &pages);
    if (status == 0)
        status = usePages(pages);
    eko_poolDestroy(pages); /* with all pages, those that are still held included */
    if (status != 0)
        eko_log_err("failed with status %d\n", status);
    eko_term();
    return status == 0 ? 0 : 1;
}
