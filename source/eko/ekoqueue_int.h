// SPDX-License-Identifier: MIT
// ekoqueue_int.h - the records of message queues, and what the thread pool needs of them.
#ifndef EKO_EKOQUEUE_INT_H
#define EKO_EKOQUEUE_INT_H

#include "ekomem_int.h"

struct quemsgx {
    quemsgx* next; // in the queue, or among the spare records
    char* msg;
    uint32 len;
    int32 msgid;
};
using QUEMSG = quemsgx;

struct EKO_QUEUE {
    char* name;
    QUEMSG* head; // both null when empty
    QUEMSG* tail;
    QUEMSG* avail; // spare records; only grows
    int32 count;
    uint16 status;    // QUEUE_CLOSED or 0
    bool signalled;   // a write has signalled entrySem, or its creation has, and no read has reset it since
    EKO_SEM entrySem; // event: a message has come, or the queue was closed
    EKO_SEM mtSem;    // readers, one at a time, through the whole read
    EKO_SEM exclSem;  // guards messages, count and spare records
    EKO_MEMTAG mtag;  // everything of the queue, this record and its node included
};

constexpr uint16 QUEUE_CLOSED = 1;

struct _eko_queue_node {
    EKO_QUEUE_HANDLE hQ;
    _eko_queue_node* next;
};
using EKO_QUEUE_NODE = _eko_queue_node;

struct EKO_QUEUE_GLOBALS {
    int16 nQueues; // created less deleted
    EKO_SEM queueTabMutex;
    EKO_QUEUE_NODE* qList; // newest first
};

EKO_QUEUE_GLOBALS* eko_queueGlobals();
int32 eko_queueInit(void* data);
void eko_queueTerm(void* data);

// As eko_queueWrite at the tail, without report, and leaving the queue unlocked when there is no memory.
int32 tryQueueWrite(EKO_QUEUE_HANDLE queueHandle, void* buf, MemResult* result);

// Adds one spare record, so that a later write need not allocate. False without memory.
bool tryQueueReserve(EKO_QUEUE_HANDLE queueHandle, MemResult* result);

#endif
