/* SPDX-License-Identifier: MIT */
/* queue.h - message queues between the threads of a process.
 *
 * A message is a pointer with a length and an identifier. The queue hands all three on as they are and never looks
 * at what the pointer points to, which belongs to whoever the two sides agree on: memory that the reader frees must
 * be on a tag that both may use, so not on EKO_THREAD_TAG. The reader sees what the writer stored before it wrote.
 *
 * Messages come out in the order in which they went in, EKO_QUEUE_HEAD excepted. There may be any number of them.
 *
 * Any number of threads may write, and read: a message goes to one reader. Readers take turns, and the one whose
 * turn it is keeps it while it waits for a message. So a reader without a time limit makes those behind it wait
 * too, whatever their own limit, even one of 0. A thread cannot wait for two queues at once: read them by turns,
 * each with a time limit, or make them one queue whose messages differ in their identifiers.
 *
 * Any thread may call, but not a signal handler. No call leaves by longjmp.
 *
 * Finishing   So that no message is lost: wait until the writers have ended, write one message that means the end
 *             for each reader, at the tail, and wait until the readers have ended. Then delete the queue.
 * Giving up   Close the queue to send its readers home at once, wait until they have ended, then delete it. What
 *             was not read is lost, and nobody is told what there is to free.
 * Deleting    With a reader inside it hangs, and so does the last eko_term, which deletes all queues that are left.
 * Purging     Not while a thread is inside eko_queueRead: see there.
 * Null        A null handle logs "Invalid queue handle" and does nothing; calls with a status answer 1002. Only
 *             eko_queueDelete says nothing. A handle that was deleted is not recognised.
 * No memory   A write that ends with 1003 leaves the queue locked for its thread, for good: see there. */
#ifndef EKO_QUEUE_H
#define EKO_QUEUE_H

#include "../ekoplat.h"

EKO_EXTERN_C_BEGIN

/** A queue; null is none. */
typedef void* EKO_QUEUE_HANDLE;

/** Flags of eko_queueWrite. Other bits are ignored. */
#define EKO_QUEUE_TAIL ((int16)0)
#define EKO_QUEUE_HEAD ((int16)2)

/** Creates an open, empty queue.
 *  qName  null is ""; copied. Names need not be unique, but only the newest queue of a name is found by it.
 *  Returns the queue, which is the caller's to delete; null when the library is not started, or memory or the
 *  semaphores cannot be had. A queue takes three of the process's 131,072 mutexes and events. */
EKO_API EKO_QUEUE_HANDLE eko_queueCreate(const char* qName);

/** Deletes a queue, open or closed, and the messages in it; what those point to is left alone. Ignored once the
 *  library has stopped. No thread may be using the queue, or use it afterwards. */
EKO_API void eko_queueDelete(EKO_QUEUE_HANDLE queueHandle);

/** The newest queue of exactly that name; null when there is none, and for null. Nothing keeps another thread from
 *  deleting it. */
EKO_API EKO_QUEUE_HANDLE eko_queueFind(const char* queueName);

/** Adds a message. Never waits for readers.
 *  buf, bufLen, msgid  handed on as they are; null and 0 are as good as any.
 *  qFlag               EKO_QUEUE_TAIL behind all messages, EKO_QUEUE_HEAD in front of them.
 *  Returns 0; 3 when the queue is closed; 1002 for a null handle; 1003 when there is no memory for the message's
 *  record. Surprise: after 1003 the calling thread holds the queue: no other can read, write, purge or delete any
 *  more, and the last eko_term on another thread hangs. Treat it as the end of the process. Records are reused, so
 *  a queue that never grows beyond its longest takes no memory. */
EKO_API int32 eko_queueWrite(EKO_QUEUE_HANDLE queueHandle, void* buf, uint32 bufLen, int32 msgid, int16 qFlag);

/** Takes the first message.
 *  buf              receives the writer's pointer; not null.
 *  bufLen, pmsgid   receive the rest, where not null. Nothing is stored without a message.
 *  timeout          milliseconds to wait for a message, 0 not at all, EKO_FOREVER without limit. Waiting for other
 *                   readers to finish comes on top. EKO_FOREVER, and how time is measured: sync.h, eko_syncWait.
 *  Returns 0 with a message; 2 empty, and timeout is 0; 3 the queue is closed, or was while waiting; 1001 no
 *  message in time; 1002 a null handle, or, after "unexpected empty queue on %s" was logged, a queue that was
 *  purged after its message had arrived, and before the reader took it; 1013 buf is null. Surprise: after that
 *  second 1002 the calling thread holds the queue, as after 1003 of eko_queueWrite. So never purge while a thread
 *  reads. */
EKO_API int32 eko_queueRead(EKO_QUEUE_HANDLE queueHandle, void** buf, uint32* bufLen, int32* pmsgid,
                            uint32 timeout);

/** Drops the messages with that identifier, or all for -1, whatever theirs. What they point to is left alone. Does
 *  nothing on a closed queue. */
EKO_API void eko_queuePurge(EKO_QUEUE_HANDLE queueHandle, int32 msgid);

/** Closes a queue, for good: reads and writes answer 3 from now on, also reads that wait. Messages left in it can
 *  no longer be read or purged. */
EKO_API void eko_queueClose(EKO_QUEUE_HANDLE queueHandle);

/** Messages in the queue, also when it is closed. Taken without a lock: with other threads at work it is a guess.
 *  Answers 1002 for a null handle. */
EKO_API int32 eko_queueCount(EKO_QUEUE_HANDLE queueHandle);

EKO_EXTERN_C_END

#endif
