// KvLivenessToken.h - the token by which other processes of a namespace tell
// that a process has ended: an exclusive flock on a named object of the
// process's own, "KVRS_PRC.<pid>.<start time>" in the namespace. The kernel
// drops the lock when the process dies however it dies (SIGKILL, a crash, the
// OOM killer) and when it calls exec(), since the descriptor closes on exec.
// The start time is part of the name, so that a later process given the same
// pid never passes for the ended one. Holding the token costs nothing per call.
#pragma once

#include <cstdint>
#include <string>

// The process as the tokens name it: its pid and start time.
struct KvProcessKey {
    uint32_t dwPid;
    uint64_t qwStartTime;  // clock ticks after boot (/proc/<pid>/stat)
};

// The calling process's key (refreshed in a fork child).
KvProcessKey KvThisProcessKey();

class KvLivenessToken {
public:
    // Makes and locks this process's token. False when it cannot be had.
    bool Take(const KvProcessKey& key);
    // Removes this process's token (at exit).
    void Drop();
    // In a fork child: the inherited descriptor is the parent's token, which
    // the child must not keep alive; it is closed without touching the lock.
    void ForgetAfterFork();
    bool IsHeld() const { return m_fd >= 0; }

    // True while the process of that key holds its token. A token that nobody
    // holds, or that does not exist, belongs to an ended process.
    static bool IsAlive(const KvProcessKey& key);
    // Removes the token of an ended process.
    static void Remove(const KvProcessKey& key);

private:
    int m_fd = -1;
    std::string m_strName;
};

// Start time of a process in clock ticks after boot; 0 when it is unknown.
uint64_t KvProcessStartTime(uint32_t dwPid);
