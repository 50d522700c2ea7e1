/*
 * KvRfrSvrWait.h - waiting for messages instead of polling for them.
 *
 * An extension of KvRfrSvr.h, exported from the same libKvRfrSvr.so; the 55
 * functions of KvRfrSvr.h are unchanged.  A receiver either blocks a thread of
 * its own in KvRsWaitMsg, or adds the descriptor of KvRsGetWaitFd to its event
 * loop (poll, epoll, select, asio, libuv, Qt, GLib) and takes the messages
 * when the descriptor becomes readable.
 *
 * COST
 *
 *   A notifier pays a lookup of the receiving process and two loads for a
 *   receiver that is not waiting, and one system call to wake one that is: a
 *   futex wake for a thread in KvRsWaitMsg, a one-byte write into the
 *   receiver's wake pipe for an event loop (only the first message after the
 *   receiver last looked at its queues writes; the ones after it find the
 *   descriptor readable already and pay a load).  A waiter first spins briefly, adapting the length of its
 *   spin to how soon messages came recently, so that a busy exchange never
 *   reaches the scheduler; then it sleeps and uses no CPU.
 *
 * CAVEATS
 *
 *   - The wake-up is per process: a message put into any queue of the process
 *     wakes every thread waiting on any of its queues (each rechecks its own
 *     queue and sleeps again when it is empty).
 *   - Waiting does not take the message: call KvRsGetMsg / KvRsGetQueueMsg.
 *     Another thread may take it first; a return of KvRsWaitMsg is a hint to
 *     look, and the count it returns may be stale by the time you look.
 *   - A signal handler installed without SA_RESTART ends a wait with -1; one
 *     installed with SA_RESTART does not.
 *   - fork(): the child is a process of its own with a wake-up of its own.
 *     The descriptor of KvRsGetWaitFd is not inherited in any useful way:
 *     call KvRsGetWaitFd again in the child.
 *   - Take messages until the count is 0 before you go back to the event
 *     loop: the descriptor tells of messages put after you looked, not of
 *     those you left.
 *   - A process that could not be entered in the table of attached processes
 *     (see the message at its start-up) cannot be woken: KvRsWaitMsg then
 *     polls every millisecond, and KvRsGetWaitFd returns -1.
 */
#ifndef KVRFRSVRWAIT_H
#define KVRFRSVRWAIT_H

#include "KvRfrSvr.h"

/* Blocks until the queue holds a message and returns the number of messages
 * it holds.  hQueue/idQueue: a queue of this process (KvRsCreateQueue); a null
 * handle is the process's default queue.  msTimeout: the longest wait in
 * milliseconds; 0 only looks; a negative value waits without limit.
 * Returns the count (> 0); 0 when the time passed with the queue empty (or the
 * library is not running); -1 when a signal handler interrupted the wait. */
KVRFRSVR_API long KvRsWaitMsg(void* hQueue, unsigned long idQueue, long msTimeout);

/* A descriptor, owned by the library, that poll/epoll/select report readable
 * after a message was put into any queue of this process since the process
 * last looked at its queues (KvRsGetMsgCount, KvRsGetQueueMsgCount,
 * KvRsGetMsg, KvRsGetQueueMsg, KvRsWaitMsg).  It is the read end of a
 * non-blocking FIFO: drain it with read() (64 bytes clear it in practice;
 * read until EAGAIN to be sure), then take messages until the counts are 0.
 * Messages that were there when you last looked do not make it readable
 * again.  It may be readable with no message left (another thread took it).
 * Messages that arrived before the first call do not make it readable: look
 * at the counts once after adding it to the event loop.  The same descriptor
 * is returned every time; do not close it.  Returns -1 when it cannot be had,
 * after a line on standard error saying why.  No thread of the library runs
 * for it: the notifying process writes into the FIFO, which lies in /dev/shm
 * as "KVRS_WFD.<pid>.<start time>" with the namespace's suffix and goes with
 * the process's exit (or with its reaping, when it was killed). */
KVRFRSVR_API int KvRsGetWaitFd(void);

#endif /* KVRFRSVRWAIT_H */
