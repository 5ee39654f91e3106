/* SPDX-License-Identifier: MIT */
/* align.c - lays the fields of a stored record out, and says how well records of that size fill a page.
 * No call here needs eko_init; the console does. */
#include <eko.h>

#define PAGE 4096

typedef struct FIELD {
    const char* name;
    ALIGN_TYPE type;
    uint16 size;
} FIELD;

static const FIELD fields[] = {
    {"deleted", ALN_CHAR, 1}, {"branch", ALN_INT16, 2},   {"account", ALN_INT32, 4},
    {"kind", ALN_CHAR, 1},    {"balance", ALN_DOUBLE, 8}, {"opened", ALN_INT64, 8},
};

/* [layout] */
/* Prints where each field lies. Returns the size of the record, which ends where the next one may begin. */
static uint16 layOut(void)
{
    uint16 end = 0;
    eko_printf("%-10s %6s %6s\n", "field", "offset", "size");
    for (size_t i = 0; i < sizeof fields / sizeof fields[0]; ++i) {
        const uint16 offset = eko_align(end, fields[i].type);
        eko_printf("%-10s %6u %6u\n", fields[i].name, offset, fields[i].size);
        end = (uint16)(offset + fields[i].size);
    }
    return eko_align(end, ALN_INT32); /* the strictest alignment that there is, of 4 bytes */
}
/* [layout] */

int main(void)
{
    if (eko_init() != 0)
        return 1;
    const uint16 size = layOut();
    const unsigned perPage = PAGE / size;
    const double fill = 100.0 * perPage * size / PAGE;
    eko_printf("a record has %u bytes, a page %u records and is filled to %.0f %%\n", size, perPage,
               eko_round(fill));
    eko_term();
    return 0;
}
