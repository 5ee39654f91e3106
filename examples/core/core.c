/* SPDX-License-Identifier: MIT */
/* core.c - two components of one process, each of which starts and stops the library for itself, share a record
 * that they find by its name. */
#include <eko.h>

/* [global] */
typedef struct COUNTERS {
    uint32 opened;
    uint32 closed;
} COUNTERS;

static uint32 lost; /* of the library's last life; memory that the library owned is gone by then */

static void deleteCounters(void* data)
{
    const COUNTERS* counters = data;
    lost = counters->opened - counters->closed;
}

/* The same record for all callers: zero-filled for the first, deleted when the library stops. */
static COUNTERS* counters(void)
{
    void* record = NULL;
    const int32 status = eko_globalGet("example counters", sizeof(COUNTERS), NULL, deleteCounters, &record);
    return status == 0 ? record : NULL;
}
/* [global] */

/* [start] */
static int32 component(const char* name, uint32 opens, uint32 closes)
{
    if (eko_init() != 0) /* counts: only the first starts anything */
        return 1002;
    COUNTERS* shared = counters();
    if (shared) {
        shared->opened += opens;
        shared->closed += closes;
        eko_printf("%-6s %d users of the library, %u opened, %u closed\n", name, eko_inited, shared->opened,
                   shared->closed);
    }
    eko_term(); /* and only the last stops it */
    return shared ? 0 : 1003;
}
/* [start] */

int main(void)
{
    int16 major = 0;
    int16 minor = 0;
    if (eko_init() != 0)
        return 1;
    eko_version(&major, &minor, NULL);
    eko_printf("eko %d.%d\n", major, minor);
    const int32 status = component("cache", 3, 1) + component("log", 2, 2);
    eko_term();
    eko_log("%d users, %u never closed\n", eko_inited, lost); /* logs need no library that is started */
    return status == 0 ? 0 : 1;
}
