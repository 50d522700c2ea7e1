// KvPoolCheck.h - read-only consistency check of the segment header and the
// block pools, and the block test that the object-model check builds on.
//
// Nothing here writes to the segment or takes a lock: the caller holds the pool
// mutex (and, for a stable tree, the global mutex) for the whole check. Every
// link is range-tested before it is followed and every walk is bounded, so a
// damaged segment gives report lines, never a fault or an endless loop.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "KvGranularity.h"

// Collects what a check found: problems (broken invariants) and notes (facts
// worth knowing that break nothing, such as blocks no walk reached).
class KvCheckReport {
public:
    void Problem(const std::string& str) { m_vstrProblems.push_back(str); }
    void Note(const std::string& str) { m_vstrNotes.push_back(str); }
    bool Ok() const { return m_vstrProblems.empty(); }
    const std::vector<std::string>& Problems() const { return m_vstrProblems; }
    const std::vector<std::string>& Notes() const { return m_vstrNotes; }

private:
    std::vector<std::string> m_vstrProblems;
    std::vector<std::string> m_vstrNotes;
};

// "0x0001a2c0": offsets are printed alike everywhere.
std::string KvHexOffset(uint32_t ofs);

class KvPoolCheck {
public:
    explicit KvPoolCheck(KvCheckReport& report) : m_report(report) {}

    // Header fields, the granularity table, every free list and the counters.
    // Must run before BlockProblem is asked.
    void Run();

    // Why the offset is not the start of a live block of pool iPool ("" when it
    // is): inside the carved area, aligned to its class, on no free list.
    std::string BlockProblem(uint32_t ofs, uint32_t iPool) const;
    // Pool of an object of cb bytes (KVGRAN_COUNT when none fits).
    static uint32_t PoolOf(uint32_t cb);
    // Largest number of blocks of pool iPool that the carved area can hold.
    uint32_t MaxBlocks(uint32_t iPool) const;
    // Whether the whole range [ofs, ofs + cb) lies in the carved area, so that it
    // can be read.
    bool InCarvedArea(uint32_t ofs, uint32_t cb) const;
    uint32_t CarvedEnd() const { return m_ofsCarvedEnd; }

    // Blocks in use per pool by the counters (allocations minus frees).
    uint64_t InUse(uint32_t iPool) const { return m_acInUse[iPool]; }
    uint64_t FreeCount(uint32_t iPool) const { return m_acFree[iPool]; }

private:
    void CheckHeader();
    void CheckTable();
    void CheckFreeList(uint32_t iPool);
    void CheckDuplicateFreeBlocks();
    void CheckCounters(bool bListsOk);
    void Fail(const std::string& str) { m_report.Problem(str); }

    KvCheckReport& m_report;
    uint32_t m_ofsCarvedEnd = KVGRAN_HEADER_SIZE;  // usable end; clipped when the header is bad
    bool m_bTableOk = false;
    uint64_t m_acInUse[KVGRAN_COUNT] = {};
    uint64_t m_acFree[KVGRAN_COUNT] = {};
    std::vector<std::pair<uint32_t, uint32_t>> m_vFree;  // (offset, pool) of every free block, sorted
};
