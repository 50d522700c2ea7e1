// CRsCheck.h - the consistency check of the whole segment: header and pools,
// then every object reachable from the root slot (nodes, child lists and their
// index, values, refresh infos, connections, queues, messages).
//
// The check only reads: it takes no counted reference and changes no byte of the
// segment, so it may run beside processes that use the tree. Every link is tested
// before it is followed and every walk is bounded, so a damaged tree yields
// report lines, not a fault or a hang.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "KvCppMfc/Pool/KvPoolCheck.h"

// A queue that the tree's connections lead to.
struct CRsQueueUse {
    uint32_t m_ofs = 0;
    uint32_t m_dwPrcsId = 0;  // the process that made it
    int32_t m_cMsgs = 0;      // messages waiting
    std::string m_strName;
};

// What the walk reached.
struct CRsCheckCensus {
    uint32_t m_cNodes = 0;
    uint32_t m_cValues = 0;
    uint32_t m_cConnects = 0;
    uint32_t m_cQueues = 0;
    uint32_t m_cMsgs = 0;
    uint32_t m_cBlocks = 0;                     // pool blocks of every kind, names and bytes included
    uint64_t m_acInUse[KVGRAN_COUNT] = {};      // blocks in use per pool, by the counters
    uint64_t m_acReachable[KVGRAN_COUNT] = {};  // of those, reached by the walk
    std::vector<CRsQueueUse> m_vQueues;         // in the order first reached
};

// Checks everything; the caller holds the global mutex (the pool mutex is taken
// here, since a message can be made without the global mutex). Fills *pCensus
// when given. True when no invariant is broken.
bool CRsCheckSegment(KvCheckReport& report, CRsCheckCensus* pCensus = nullptr);

// The queues of the census whose owning process no longer exists: what the
// connections of a process that was killed (and so never detached) still lead to.
std::vector<CRsQueueUse> CRsQueuesOfEndedProcesses(const CRsCheckCensus& census);
