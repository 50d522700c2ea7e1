// KvProcessTable.h - the table of attached processes in the segment's header
// zone: one entry per attachment (a fork child is a process of its own), with
// what the process's exit would give back, so that another process can do it
// on the behalf of a process that ended without its exit (killed, crashed, or
// replaced by exec). Each entry's liveness is the process's liveness token
// (KvLivenessToken), which the kernel drops at death.
//
// Entries are read and written under the global mutex only.
#pragma once

#include <cstddef>
#include <cstdint>

#include "KvGranularity.h"

// Where the table lies in the header zone, after the build fingerprint.
constexpr uint32_t KVGRAN_PROCESS_TABLE_OFFSET = 0x1000;
constexpr uint32_t KVGRAN_PROCESS_TABLE_SIZE = 1536;

// State of an entry.
enum : uint32_t {
    KVPRC_FREE = 0,   // no process
    KVPRC_LIVE = 1,   // attached; its token tells whether it still lives
    KVPRC_ENDED = 2,  // found ended; being reaped (steps below record progress)
};

// Steps of reaping that are done (dwDone), so that a reaper that dies half-way
// leaves the rest to the next one and nothing is given back twice.
enum : uint32_t {
    KVPRC_DONE_PURGED = 0x1,        // the default queue's messages were dropped early
    KVPRC_DONE_DISCONNECTED = 0x2,  // its connections left the tree
    KVPRC_DONE_ROOT = 0x4,          // the root reference its exit releases
    KVPRC_DONE_QUEUE = 0x8,         // its default queue's reference
    KVPRC_DONE_ATTACHMENT = 0x10,   // its count in the attachment count
};

#pragma pack(push, 1)
struct KvProcessEntry {
    uint32_t dwPid;
    uint32_t dwState;          // KVPRC_...
    uint64_t qwStartTime;      // with the pid, the name of its liveness token
    uint32_t ofsDefaultQueue;  // its default queue (a counted reference of its own)
    uint32_t dwDone;           // KVPRC_DONE_... while ended
    uint32_t dwWake;           // futex word: moves on when a message is put into its queues
    uint32_t cWaiters;         // its threads (and its descriptor's thread) asleep on dwWake
};
#pragma pack(pop)
static_assert(sizeof(KvProcessEntry) == 32, "a process entry is 32 bytes");
static_assert(offsetof(KvProcessEntry, qwStartTime) == 8, "");
static_assert(offsetof(KvProcessEntry, ofsDefaultQueue) == 16, "");
static_assert(KVGRAN_PROCESS_TABLE_OFFSET + KVGRAN_PROCESS_TABLE_SIZE * sizeof(KvProcessEntry) <= KVGRAN_HEADER_SIZE,
              "the process table lies in the header zone");

// An entry lies at its pid's home slot or up to cMaxProbe slots after it, so
// that a notifier finds the receiver's entry in one or two loads.
struct KvProcessTableInfo {
    uint32_t cMaxProbe;  // longest distance from home slot to entry ever used
};
constexpr uint32_t KVGRAN_PROCESS_TABLE_INFO_OFFSET = KVGRAN_PROCESS_TABLE_OFFSET - 0x100;

// The wake word and the sleeper count through aligned views, for their
// atomics: the entry is packed, but the table lies on a page and both fields at
// 4-byte offsets within their 32-byte entry.
static_assert(offsetof(KvProcessEntry, dwWake) % 4 == 0 && offsetof(KvProcessEntry, cWaiters) % 4 == 0,
              "the wake word and the sleeper count are aligned");
inline uint32_t* KvWakeWord(KvProcessEntry* p)
{
    return reinterpret_cast<uint32_t*>(reinterpret_cast<char*>(p) + offsetof(KvProcessEntry, dwWake));
}
inline uint32_t* KvSleeperCount(KvProcessEntry* p)
{
    return reinterpret_cast<uint32_t*>(reinterpret_cast<char*>(p) + offsetof(KvProcessEntry, cWaiters));
}

// Beside each entry, at the same index, the state of its process's wake pipe
// (KvWakePipe), which an event loop of that process watches.
struct KvProcessPipe {
    uint32_t dwHasPipe;  // 1 while the process has a wake pipe
    uint32_t dwRung;     // 1 once a notifier wrote into it; the process resets it when it looks at its queues
};
static_assert(sizeof(KvProcessPipe) == 8, "a pipe state is 8 bytes");
constexpr uint32_t KVGRAN_PROCESS_PIPES_OFFSET =
    KVGRAN_PROCESS_TABLE_OFFSET + KVGRAN_PROCESS_TABLE_SIZE * sizeof(KvProcessEntry);
static_assert(KVGRAN_PROCESS_PIPES_OFFSET + KVGRAN_PROCESS_TABLE_SIZE * sizeof(KvProcessPipe) <= KVGRAN_HEADER_SIZE,
              "the pipe states lie in the header zone");

// The table of the attached segment; null when none is attached.
KvProcessEntry* KvProcessTable();
// The live entry of that pid (any start time), or null; a few loads.
KvProcessEntry* KvProcessTableFindPid(uint32_t dwPid);

// The pipe state of an entry of the table.
KvProcessPipe* KvProcessPipeOf(KvProcessEntry* pEntry);

// Adds an entry for the process (state LIVE); null when the table is full.
KvProcessEntry* KvProcessTableAdd(uint32_t dwPid, uint64_t qwStartTime, uint32_t ofsDefaultQueue);
// The entry of that process, or null.
KvProcessEntry* KvProcessTableFind(uint32_t dwPid, uint64_t qwStartTime);
// After a message was put into a queue of process dwPid: its sleeping threads
// are to be woken, and its wake pipe rung unless it was rung since the process
// last looked at its queues. A process with none asleep and no pipe to ring
// costs the notifier a probe and two loads. The wake itself is held back until KvProcessTableWakeNow, which the
// caller runs once it has released the global mutex: a receiver woken earlier
// would only find the mutex held and wait for it.
void KvProcessTableWake(uint32_t dwPid);
void KvProcessTableWakeNow();
// True while this thread holds back wakes.
bool KvProcessTableWakesPending();

// Frees an entry.
void KvProcessTableRemove(KvProcessEntry* pEntry);
