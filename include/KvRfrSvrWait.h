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
 *   A notifier pays a lookup of the receiving process and one load for a
 *   receiver that is not waiting, and one system call (a futex wake) to wake
 *   one that is.  A waiter first spins briefly, adapting the length of its
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
 * after a message was put into any queue of this process.  read() of 8 bytes
 * clears it (it is an eventfd; non-blocking).  It may be readable with no
 * message left (another thread took it): recheck the counts.  Messages that
 * arrived before the first call do not make it readable: look at the counts
 * once after adding it to the event loop.  The same descriptor is returned
 * every time; do not close it.  Returns -1 when it cannot be had, after a
 * line on standard error saying why.  A thread of the library sleeps for it. */
KVRFRSVR_API int KvRsGetWaitFd(void);

#endif /* KVRFRSVRWAIT_H */
