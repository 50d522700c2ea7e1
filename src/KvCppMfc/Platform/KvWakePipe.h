// KvWakePipe.h - a process's wake pipe: a FIFO "KVRS_WFD.<pid>.<start time>" in
// the namespace, whose read end the process hands to its event loop. Another
// process that puts a message into one of its queues writes a byte into it:
// one system call, and the event loop's poll or epoll returns. The FIFO is
// opened read-write at both ends, so that a write never blocks, never raises
// SIGPIPE when the owner has died, and the FIFO stays usable while either end
// is open.
#pragma once

#include <cstdint>

#include "KvLivenessToken.h"

class KvWakePipe {
public:
    // Makes this process's FIFO and opens its read end (non-blocking,
    // close-on-exec). Returns the descriptor, or -1 with errno set.
    static int Create(const KvProcessKey& key);
    // Removes the FIFO of a process (at its exit, or when it was reaped). A
    // writer that holds it open keeps writing into a pipe nobody reads, which
    // costs nothing until the pipe is full; it then writes nothing.
    static void Remove(const KvProcessKey& key);
    // Writes one byte into the FIFO of the process of that key, which lies in
    // slot iSlot of the table of processes. The descriptor is kept per slot and
    // opened again when the slot's process changes. False when the FIFO could
    // not be opened (no such FIFO, no permission).
    static bool Ring(uint32_t iSlot, const KvProcessKey& key);
    // In a fork child: the writer descriptors are the parent's, and are closed.
    static void ForgetWritersAfterFork();
};
