/* SPDX-License-Identifier: MIT */
/* mem.c - gives each query a tag: what the query allocated goes in one call, whether it ended well or ran out of
 * memory in the middle. */
#include <eko.h>

typedef struct ROW {
    struct ROW* next;
    char* text;
} ROW;

/* [tag] */
/* All that a query takes comes from its tag, and nothing is freed one by one. Nor is anything checked here: the tag
 * has a jump buffer. */
static ROW* collect(uint32 count, EKO_MEMTAG tag)
{
    ROW* first = NULL;
    for (uint32 i = 0; i < count; ++i) {
        ROW* row = EKO_ZALLOC(sizeof *row, tag);
        row->text = EKO_MAKESTR(tag, "row %u", i);
        row->next = first;
        first = row;
    }
    return first;
}

static int32 query(uint32 count)
{
    jmp_buf outOfMemory;
    EKO_MEMTAG tag = eko_createTagEx(&outOfMemory, 0, STACK_ALLOCATOR, NULL, NULL, __FILE__, __LINE__);
    if (tag == EKO_TAG_INVALID)
        return 1003;
    volatile int32 status = 1003; /* volatile: it keeps what it is set to behind setjmp */
    if (setjmp(outOfMemory) == 0) {
        const ROW* last = collect(count, tag);
        eko_printf("%u rows, the last is \"%s\"\n", count, last->text);
        eko_flush(); /* in front of what the library may report, which is not held back */
        status = 0;
    }
    EKO_TAG_DESTROY(tag); /* the rows, their texts, and with the tag its jump buffer */
    return status;
}
/* [tag] */

int main(void)
{
    size_t before;
    size_t after;
    if (eko_setMemLimit(NULL, (size_t)8 << 20) != 0 || eko_init() != 0)
        return 1;
    const int32 small = query(10000);
    eko_getMemUsage(&before, NULL);
    const int32 large = query(10000000);
    eko_getMemUsage(&after, NULL);
    eko_printf("statuses %d and %d; of the second query %zu bytes are left\n", small, large, after - before);
    eko_term();
    return 0;
}
