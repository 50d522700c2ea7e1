// KvStress.h - the load test: worker processes with several threads each hammer
// one shared subtree with a random mix of path creation, lookups, value writes,
// client and server connects and disconnects, notifications and polling; the
// parent then proves that no message was lost or duplicated and that the pools
// grew by exactly what the tree grew.
//
// Exact accounting of messages: a sender holds the global mutex while it lists
// the receivers of a node (KvRsEnumClients, KvRsGetServer) and notifies, so the
// list is exactly who gets a message. A receiver holds the mutex while it
// drains its queue and disconnects, so nothing it was sent is dropped with the
// connection. Every message carries (sender, sequence) in its value; both
// sides sum a hash of it per (sender, receiver target) pair.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

// Layout of the subtree. Every parent keeps fewer than 30 children, so no child
// list ever splits its index: the pool footprint of a tree then depends only on
// which nodes and values exist, never on the order they were made in.
constexpr int kKvStressHubs = 8;          // stress.hub0..7: connections and notifications
constexpr int kKvStressFanA = 20;         // made.<area>.a0..19
constexpr int kKvStressFanB = 20;         // ...a<i>.b0..19
constexpr int kKvStressFanC = 4;          // ...b<j>.c0..3
constexpr uint32_t kKvStressMagic = 0x4B565354;  // "KVST" in every message value

// Target handles: a thread's clients and server use 0x1000 + thread, its
// structural-change connection (default queue) 0x8000 + thread.
constexpr uintptr_t kKvStressTargetBase = 0x1000;
constexpr uintptr_t kKvStressStructBase = 0x8000;

struct KvStressOptions {
    double dSeconds = 8;
    int cWorkers = 8;
    int cThreads = 2;
    unsigned uSeed = 1;
    std::string strKvrs;  // kvrs binary for `kvrs check`; empty: no check
    std::string strDir;   // where workers leave their ledgers
};

// Count and hash sum of the messages of one (sender, receiver target) pair.
struct KvStressTally {
    uint64_t c = 0;
    uint64_t sum = 0;
    void Add(uint64_t h)
    {
        c += 1;
        sum += h;
    }
};

// What one worker process did and saw.
struct KvStressLedger {
    uint64_t cOps = 0;
    uint64_t cCreates = 0;
    uint64_t cErrors = 0;  // malformed messages and failed calls
    std::map<std::pair<uint32_t, uint64_t>, KvStressTally> mapSent;  // (sender, target) -> tally
    std::map<std::pair<uint32_t, uint64_t>, KvStressTally> mapRecv;
    std::string strFirstError;

    void Error(const std::string& str)
    {
        if (cErrors++ == 0)
            strFirstError = str;
    }
    void Merge(const KvStressLedger& o);
    bool Write(const std::string& strPath) const;
    bool Read(const std::string& strPath);
};

// The hash both sides sum for message seq of sender.
uint64_t KvStressHash(uint32_t dwSender, uint32_t dwSeq);

// Runs worker iWorker to the end; returns its exit status.
int KvStressWorkerMain(const KvStressOptions& opt, int iWorker);

// --- the tree and the pools (KvStressTree.cpp) ------------------------------
// Makes the area pszTop (hubs with values and refresh infos, the "made" area)
// the same way every time, so that two areas made by it are identical.
void KvStressSetUpArea(const char* pszTop);
// Brings the area pszTo up to the shape of pszFrom: the same nodes, and values
// of the same byte count. Returns the number of nodes pszFrom holds.
long KvStressMirrorArea(const char* pszFrom, const char* pszTo);
// Names of pszParent's children that occur more than once (concurrent creation
// of one path must make it once).
long KvStressDuplicateNames(const char* pszPath);

// Net blocks per pool (allocations minus frees) as they stand now.
typedef std::array<int64_t, 17> KvStressPools;
KvStressPools KvStressTakePools();
