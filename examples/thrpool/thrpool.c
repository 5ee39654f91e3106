/* SPDX-License-Identifier: MIT */
/* thrpool.c - the checksums of pages, computed by a pool of threads. An event tells when the last page is done. */
#include <eko.h>
#include <string.h>

#define PAGES 100
#define PAGE 4096

static uint8 pages[PAGES][PAGE];

/* Jobs that are not done, and one for the owner while it adds. Whoever brings it to 0 signals the event. */
typedef struct PENDING {
    volatile uint32 count;
    EKO_SEM done;
} PENDING;

static void oneLess(PENDING* pending)
{
    if (eko_atomicDecrUInt32WithVal(&pending->count) == 0)
        eko_syncResume(pending->done);
}

/* [job] */
static int32 checkPage(void* data)
{
    const uint8* page = data;
    uint32 sum = 0;
    for (uint32 i = 0; i < PAGE; ++i)
        sum += page[i];
    return (int32)sum; /* kept for eko_thrpoolJobResult */
}

static void pageDone(EKO_THRPOOL_JOB* job, void* cbdata, int32 rc)
{
    (void)job;
    (void)rc;
    oneLess(cbdata);
}
/* [job] */

/* [wait] */
static int32 checkAll(EKO_THRPOOL* pool, PENDING* pending, int64* total)
{
    EKO_THRPOOL_JOB* jobs[PAGES];
    uint32 added = 0;
    int32 status = 0;
    eko_syncStart(pending->done);
    while (status == 0 && added < PAGES) {
        eko_atomicIncrUInt32(&pending->count);
        status = eko_thrpoolAddJob(pool, checkPage, pages[added], pageDone, pending, &jobs[added]);
        if (status == 0)
            ++added;
        else
            oneLess(pending);
    }
    oneLess(pending);
    eko_syncWait(pending->done, EKO_FOREVER);
    for (uint32 i = 0; i < added; ++i) {
        int32 sum = 0;
        eko_thrpoolJobResult(jobs[i], &sum);
        *total += sum;
    }
    return status;
}
/* [wait] */

int main(void)
{
    int64 total = 0;
    EKO_THRPOOL* pool = NULL;
    if (eko_init() != 0)
        return 1;
    for (int i = 0; i < PAGES; ++i)
        memset(pages[i], i, PAGE);
    PENDING pending = {1, EKO_EVENT_CREATE()};
    int32 status = pending.done == EKO_SEM_INVALID ? 1003 : eko_thrpoolCreate(4, &pool);
    if (status == 0)
        status = checkAll(pool, &pending, &total);
    if (status == 0)
        eko_printf("%d pages, checksum %lld\n", PAGES, (long long)total);
    else
        eko_log_err("failed with status %d\n", status);
    eko_thrpoolDestroy(pool); /* before the event that its callbacks use */
    eko_syncDelete(pending.done);
    eko_term();
    return status == 0 ? 0 : 1;
}
