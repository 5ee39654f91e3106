/* SPDX-License-Identifier: MIT */
/* thread.c - threads that each add up a part of a table, with memory of their own, and count the rows without a
 * lock. */
#include <eko.h>

#define THREADS 4
#define ROWS 1000 /* of each thread */

typedef struct PART {
    uint64 sum; /* this and the status are read once the thread has been joined */
    int32 status;
    uint32 first; /* row */
} PART;

static volatile uint32 rowsSeen;

/* [thread] */
static int32 addUp(void* arg)
{
    PART* part = arg;
    /* Without a lock: the tag is this thread's own, and ends with it. */
    uint32* rows = EKO_ALLOC(ROWS * sizeof *rows, EKO_THREAD_TAG);
    part->status = rows ? 0 : 1003;
    for (uint32 i = 0; rows && i < ROWS; ++i) {
        rows[i] = part->first + i;
        part->sum += rows[i];
        eko_atomicIncrUInt32(&rowsSeen);
    }
    eko_threadEnd(0); /* frees what it took; returning would keep that until the library stops */
}
/* [thread] */

/* [join] */
static int32 addUpAll(uint64* sum)
{
    pthread_t threads[THREADS];
    PART parts[THREADS] = {{0, 0, 0}};
    int32 status = 0;
    uint32 started = 0;
    while (status == 0 && started < THREADS) {
        parts[started].first = started * ROWS;
        status = eko_threadBeginEx(addUp, 0, &parts[started], &threads[started], EKO_PRIORITY_NORMAL, NULL);
        started += status == 0;
    }
    while (started > 0) { /* also after a failure: they use `parts` */
        eko_threadJoin(threads[--started]);
        *sum += parts[started].sum;
        if (status == 0)
            status = parts[started].status;
    }
    return status;
}
/* [join] */

int main(void)
{
    uint64 sum = 0;
    if (eko_init() != 0)
        return 1;
    const int32 status = addUpAll(&sum);
    if (status == 0)
        eko_printf("%u rows, sum %llu\n", rowsSeen, (unsigned long long)sum);
    else
        eko_log_err("failed with status %d\n", status);
    eko_term();
    return status == 0 ? 0 : 1;
}
