// KvRsReaper.h - processes that end without their exit (SIGKILL, a crash, the
// OOM killer, exec) are reaped: another process of the namespace does on their
// behalf what their exit would have done. Every process has an entry in the
// process table and holds its liveness token; an entry whose token is gone
// belongs to an ended process.
//
// Reaping runs at every start-up (before the new process makes anything of its
// own, so that a reused pid never meets its predecessor's entries), when a pool
// runs out (see KvRsReclaimFromEndedProcesses), periodically in `kvrs serve`
// and on demand (`kvrs reap`). It runs under the global mutex like a call and
// never waits for an ended process.
#pragma once

#include <cstdint>
#include <vector>

#include "KvCppMfc/Platform/KvLivenessToken.h"

// What reaping one ended process gave back.
struct KvRsReaped {
    KvProcessKey key;
    uint32_t cConnections;  // its server and client connections that left the tree
    int32_t cMessages;      // messages of its default queue that were freed
};

// Reaps every ended process of the namespace. The caller holds the global mutex.
std::vector<KvRsReaped> KvRsReapEndedProcesses();

// What this process's start-up reaped.
const std::vector<KvRsReaped>& KvRsReapedAtStartUp();
void KvRsReapAtStartUp();

// Ended processes that are not reaped yet (for `kvrs stats` and `kvrs check`).
// The caller holds the global mutex.
std::vector<KvProcessKey> KvRsEndedProcesses();

// This process's entry and token: made at start-up (and in a fork child), after
// its default queue. False (with a line on standard error) when the process
// cannot be reaped should it be killed: the table is full or no token could be
// made. The caller holds the global mutex.
bool KvRsRegisterThisProcess();
// Its entry's steps while the exit gives back what reaping would (see
// KVPRC_DONE_...), so that a process killed during its exit is finished by a
// reaper without anything given back twice; then the entry and the token go.
void KvRsMarkExitStep(uint32_t dwDone);
void KvRsUnregisterThisProcess();
// This process's entry in the process table, or null when it has none.
struct KvProcessEntry;
KvProcessEntry* KvRsOwnEntry();

// The descriptor of KvRsGetWaitFd: notifiers stop ringing it at exit, before
// the segment goes; a fork child forgets the parent's. Every look at this
// process's queues re-arms it (KvRsRearmWaitFd), before the count is read.
void KvRsStopWaitFd();
void KvRsForgetWaitFd();
void KvRsRearmWaitFd();

// In a fork child, before it registers: the inherited token is the parent's.
void KvRsForgetParentToken();

// The pools' hook when an allocation would fail: drops the messages waiting in
// ended processes' default queues at once (they can never be read) and leaves
// the rest of the reaping to the end of the current exported call. Does nothing
// unless the calling thread holds the global mutex.
bool KvRsReclaimFromEndedProcesses();

// Set by the hook; the frame reaps when the outermost call ends.
extern bool g_fKvRsReapPending;
void KvRsReapPendingNow();
