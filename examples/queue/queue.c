/* SPDX-License-Identifier: MIT */
/* queue.c - changes go from those who make them to a thread that writes them to the log. A last message ends it, so
 * that none is lost. */
#include <eko.h>
#include <stdlib.h>

#define CHANGES 5

enum { CHANGE = 1, THE_END = 2 };

/* [reader] */
static int32 logWriter(void* arg)
{
    EKO_QUEUE_HANDLE changes = arg;
    void* message;
    uint32 length;
    int32 kind = 0;
    uint32 count = 0;
    uint32 bytes = 0;
    while (eko_queueRead(changes, &message, &length, &kind, EKO_FOREVER) == 0 && kind != THE_END) {
        ++count;
        bytes += length;
        EKO_FREE(message, EKO_GLOBAL_TAG); /* the reader's from here on: the tag is one for all threads */
    }
    eko_printf("%u changes of %u bytes written to the log\n", count, bytes);
    eko_threadEnd(0);
}
/* [reader] */

/* [writer] */
/* Without memory for the message's record the queue stays locked for this thread, and nobody could read on. */
static void mustWrite(EKO_QUEUE_HANDLE changes, void* message, uint32 length, int32 kind)
{
    const int32 status = eko_queueWrite(changes, message, length, kind, EKO_QUEUE_TAIL);
    if (status != 0) {
        eko_log_err("cannot write to the queue: status %d\n", status);
        abort();
    }
}

static int32 writeChanges(EKO_QUEUE_HANDLE changes)
{
    int32 status = 0;
    for (uint32 i = 1; status == 0 && i <= CHANGES; ++i) {
        const uint32 length = 10 * i;
        void* change = EKO_ZALLOC(length, EKO_GLOBAL_TAG);
        if (change)
            mustWrite(changes, change, length, CHANGE);
        else
            status = 1003;
    }
    mustWrite(changes, NULL, 0, THE_END);
    return status;
}
/* [writer] */

int main(void)
{
    pthread_t thread;
    if (eko_init() != 0)
        return 1;
    EKO_QUEUE_HANDLE changes = eko_queueCreate("changes");
    int32 status = changes ? eko_threadBeginEx(logWriter, 0, changes, &thread, EKO_PRIORITY_NORMAL, NULL) : 1003;
    if (status == 0) {
        status = writeChanges(changes);
        eko_threadJoin(thread);
        eko_printf("%d messages are left\n", eko_queueCount(changes));
    }
    if (status != 0)
        eko_log_err("failed with status %d\n", status);
    eko_queueDelete(changes); /* nobody reads any more */
    eko_term();
    return status == 0 ? 0 : 1;
}
