/* SPDX-License-Identifier: MIT */
/* gdb_program.c - makes tags, mutexes, events, queues, a global and traces, then aborts for gdb.sh to look at them. It
 * prints the lines that gdb is to show, in the order of gdb.sh's commands; "?" stands for what is not known here. */
#include <eko.h>
#include <stdio.h>
#include <stdlib.h>

static EKO_SEM held, ready, forever;
EKO_MEMTAG tag; /* gdb.sh damages it */

static void showTag(EKO_MEMTAG one, const char* kind, const char* end, const void* mutexOrBuffer)
{
    EKO_TAG_MEM_INFO info;
    EKO_FREE(EKO_ALLOC(40000, one), one);
    EKO_ALLOC(1000, one);
    eko_getTagMemInfo(one, &info);
    printf("%p %s %zu %zu ", (void*)one, kind, info.bytes.in_use, info.bytes.max_in_use);
    printf("%zu %zu ", info.capacity.in_use, info.capacity.max_in_use);
    printf(end, mutexOrBuffer);
}

static int32 worker(void* arg)
{
    showTag(EKO_THREAD_TAG, "thread 2 block", "- -\n", arg);
    eko_syncEnterExcl(held);
    eko_syncEnterExcl(held);
    eko_syncResume(ready);
    return eko_syncWait(forever, EKO_FOREVER); /* gdb finds this thread inside the library */
}

static int32 rival(void* arg)
{
    eko_syncEnterExcl(held); /* and this one */
    return arg != NULL;
}

int main(void)
{
    static jmp_buf jb;
    pthread_t id, rivals;
    void* record = NULL;
    eko_init();
    EKO_SEM mutex = EKO_MUTEX_CREATE();
    eko_syncDelete(mutex); /* the next mutex gets its slot: that of the shared tag */
    showTag(EKO_TAG_CREATE_SHARED(BLOCK_ALLOCATOR), "- block", "%p -\n", mutex);
    showTag(eko_createTagEx(&jb, 0, LIST_ALLOCATOR, NULL, NULL, "", 0), "- list", "- %p\n", jb);
    showTag(EKO_TAG_CREATE(STACK_ALLOCATOR), "- stack", "- -\n", NULL);
    showTag(tag = EKO_TAG_CREATE(LEGACY_ALLOCATOR), "- legacy", "- -\n", NULL);
    held = EKO_MUTEX_CREATE(), ready = EKO_EVENT_CREATE(), forever = EKO_EVENT_CREATE();
    EKO_SEM deleted = EKO_EVENT_CREATE(), unheld = EKO_MUTEX_CREATE();
    eko_syncCreate_check(7, "", 0); /* a lost slot */
    eko_syncStart(ready), eko_syncStart(forever);
    eko_threadBeginEx(worker, 0, NULL, &id, EKO_PRIORITY_NORMAL, "");
    eko_syncWait(ready, EKO_FOREVER);
    eko_threadBeginEx(rival, 0, NULL, &rivals, EKO_PRIORITY_NORMAL, "");
    printf("%p mutex held 2 %#lx 2 3\n%p event signalled - - - -\n%p event reset - - - 2\n", held, (long)id, ready,
           forever);
    printf("%p mutex free 0 - - -\n1 held mutex, ? free mutexes, 4 events, 1 lost slot\n", unheld);

    EKO_QUEUE_HANDLE older = eko_queueCreate("caf\303\251\n1"), newer = eko_queueCreate(NULL);
    for (int i = 0; i < 5; ++i)
        eko_queueWrite(older, &tag, 10 + (uint32)i, -i, EKO_QUEUE_TAIL);
    eko_queueRead(older, &record, NULL, NULL, 0);
    eko_queueClose(newer);
    printf("%p closed 0 0\n%p open 4 1 caf\303\251\\n1\n msgid -1, 11 bytes at %p\n", newer, older, record);
    printf(" msgid -2, 12 bytes at %p\n msgid -3, 13 bytes at %p\n and more\n2 queues\n", record, record);
    eko_globalGet("an own", 24, NULL, NULL, &record);
    printf("%p 24 an own\n%d records\n", record, 3 + eko_inited); /* which debug information then declares twice */
    for (int i = 0; i < 1200; ++i) {
        eko_trace("line %d\n", i);
        if (i > 200)
            printf("%#llx: line %d\n", (long long)(long)pthread_self(), i); /* %p of eko has a sign */
    }
    eko_syncDelete(deleted);
    puts("999 lines");
    fflush(stdout);
    eko_sleep(300); /* for both threads to get to where they wait */
    abort();
}
