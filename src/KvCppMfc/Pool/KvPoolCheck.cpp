// KvPoolCheck.cpp - see KvPoolCheck.h.
//
// Sizes come from the build's granularity template, not from the table in the
// segment: a damaged table entry is reported once, and every later test still
// uses the sizes that the code allocates with.
#include "KvPoolCheck.h"

#include <algorithm>
#include <cstdio>

namespace {

uint32_t BlockSize(uint32_t iPool)
{
    return iPool < KVGRAN_COUNT ? KvGranularity::_agranTemplate[iPool]._stSize : 0;
}

// Blocks up to 8 KiB lie at multiples of their size (chunks start at multiples
// of 8 KiB); larger ones at multiples of 8 KiB. Free() tests the same.
uint32_t AlignStep(uint32_t cbBlock)
{
    return cbBlock < 8192 ? cbBlock : 8192;
}

std::string PoolName(uint32_t iPool)
{
    return "pool " + std::to_string(iPool) + " (" + std::to_string(BlockSize(iPool)) + "-byte blocks)";
}

std::string Num(uint64_t u)
{
    return std::to_string(u);
}

const uint32_t* WordAt(uint32_t ofs)
{
    return static_cast<const uint32_t*>(KvGranularityStatics::_CalcPtr(ofs));
}

// At most this many lines of one kind, so that a wrecked segment stays readable.
const size_t KV_MAX_SAME_LINES = 20;

}  // namespace

std::string KvHexOffset(uint32_t ofs)
{
    char sz[16];
    snprintf(sz, sizeof(sz), "0x%08x", ofs);
    return sz;
}

void KvPoolCheck::Run()
{
    CheckHeader();
    CheckTable();
    const size_t cBefore = m_report.Problems().size();
    for (uint32_t i = 1; i < KVGRAN_COUNT; ++i)
        if (BlockSize(i) != 0)
            CheckFreeList(i);
    std::sort(m_vFree.begin(), m_vFree.end());
    CheckDuplicateFreeBlocks();
    CheckCounters(m_report.Problems().size() == cBefore);
}

// --- header ------------------------------------------------------------------

void KvPoolCheck::CheckHeader()
{
    const KvGranularity::Info* pInfo = KvGranularity::_poinf;
    const uint32_t ofsFree = pInfo->_pchNextFree.Offset();
    const uint32_t ofsCommit = pInfo->_pchNextCommit.Offset();
    const uint32_t stMax = KvGranularity::_stMax;
    if (pInfo->_pvRootObj.Offset() != KVGRAN_HEADER_SIZE)
        Fail("header: _pvRootObj is " + KvHexOffset(pInfo->_pvRootObj.Offset()) + ", not 0x00010000");
    if (ofsFree < KVGRAN_HEADER_SIZE)
        Fail("header: _pchNextFree " + KvHexOffset(ofsFree) + " lies in the header zone (below 0x00010000)");
    if (ofsCommit < KVGRAN_HEADER_SIZE)
        Fail("header: _pchNextCommit " + KvHexOffset(ofsCommit) + " lies in the header zone (below 0x00010000)");
    if (ofsFree > ofsCommit)
        Fail("header: _pchNextFree " + KvHexOffset(ofsFree) + " is past _pchNextCommit " + KvHexOffset(ofsCommit));
    if (ofsCommit > stMax)
        Fail("header: _pchNextCommit " + KvHexOffset(ofsCommit) + " is past the segment's end " + KvHexOffset(stMax));
    if (ofsFree % 8192 != 0)
        Fail("header: _pchNextFree " + KvHexOffset(ofsFree) + " is not at a chunk boundary (a multiple of 8 KiB)");
    // Only what lies below every bound may be read by the rest of the check.
    m_ofsCarvedEnd = std::max(KVGRAN_HEADER_SIZE, std::min({ofsFree, ofsCommit, stMax}));

    for (int i = 0; i < 16; ++i) {
        const uint32_t ofs = pInfo->_aptrRoot[i];
        if (ofs != 0 && !InCarvedArea(ofs, 1))
            Fail("header: root slot " + std::to_string(i) + " holds " + KvHexOffset(ofs) +
                 ", outside the carved pool area [0x00010000, " + KvHexOffset(m_ofsCarvedEnd) + ")");
    }
    if (pInfo->_cAllocSharedMem < 1)
        Fail("header: _cAllocSharedMem is " + std::to_string(pInfo->_cAllocSharedMem) + " while a process is attached");
    if (pInfo->_fMemChecking > 1)
        Fail("header: _fMemChecking is " + std::to_string(pInfo->_fMemChecking) + ", not 0 or 1");
    for (uint8_t b : pInfo->_abReserved)
        if (b != 0) {
            Fail("header: the reserved bytes 1228..1255 are not zero");
            break;
        }
}

void KvPoolCheck::CheckTable()
{
    m_bTableOk = true;
    for (uint32_t i = 0; i < KVGRAN_COUNT; ++i) {
        const KvGranularity& g = *KvGranularity::_GetGranularity(i);
        const KvGranularity& t = KvGranularity::_agranTemplate[i];
        if (g._stSize != t._stSize || g._cBlocksPerChunk != t._cBlocksPerChunk) {
            Fail("header: granularity " + std::to_string(i) + " says " + Num(g._stSize) + "-byte blocks, " +
                 Num(g._cBlocksPerChunk) + " per chunk; this build uses " + Num(t._stSize) + " and " +
                 Num(t._cBlocksPerChunk));
            m_bTableOk = false;
        }
    }
}

// --- free lists ----------------------------------------------------------------

// Follows the list with Brent's cycle test (a saved block, re-saved at every
// power of two), so a cycle is found within twice its reach and no block is
// remembered beyond the list itself.
void KvPoolCheck::CheckFreeList(uint32_t iPool)
{
    const uint32_t cb = BlockSize(iPool);
    const uint32_t cMax = MaxBlocks(iPool);
    const std::string strPool = PoolName(iPool);
    uint32_t ofs = KvGranularity::_GetGranularity(iPool)->_pchHead.Offset();
    uint32_t ofsSaved = ofs;
    uint64_t cPower = 1, cLambda = 0, c = 0;
    while (ofs != 0) {
        const std::string strAt = strPool + ": free block " + Num(c) + " at " + KvHexOffset(ofs);
        if (!InCarvedArea(ofs, cb)) {
            Fail(strAt + " lies outside the carved area [0x00010000, " + KvHexOffset(m_ofsCarvedEnd) + ")");
            break;
        }
        if (ofs % AlignStep(cb) != 0) {
            Fail(strAt + " is not aligned to its class");
            break;
        }
        m_vFree.emplace_back(ofs, iPool);
        if (++c > cMax) {
            Fail(strPool + ": the free list is longer than the carved area can hold (" + Num(cMax) + " blocks)");
            break;
        }
        ofs = *WordAt(ofs);
        if (ofs != 0 && ofs == ofsSaved) {
            Fail(strPool + ": the free list runs in a cycle through " + KvHexOffset(ofs));
            break;
        }
        if (++cLambda == cPower) {
            ofsSaved = ofs;
            cPower *= 2;
            cLambda = 0;
        }
    }
    m_acFree[iPool] = c;
}

void KvPoolCheck::CheckDuplicateFreeBlocks()
{
    size_t cLines = 0;
    for (size_t i = 1; i < m_vFree.size(); ++i) {
        const auto& a = m_vFree[i - 1];
        const auto& b = m_vFree[i];
        if (b.first >= a.first + BlockSize(a.second))
            continue;
        if (++cLines > KV_MAX_SAME_LINES)
            continue;
        if (a.first == b.first)
            Fail("free block " + KvHexOffset(a.first) + " is on a free list twice (" + PoolName(a.second) + ", " +
                 PoolName(b.second) + ")");
        else
            Fail("free blocks overlap: " + KvHexOffset(a.first) + " of " + PoolName(a.second) + " and " +
                 KvHexOffset(b.first) + " of " + PoolName(b.second));
    }
    if (cLines > KV_MAX_SAME_LINES)
        Fail("... and " + Num(cLines - KV_MAX_SAME_LINES) + " more overlapping free blocks");
}

// --- counters ---------------------------------------------------------------------

// Every carved block is either in use (counted by the pool) or on the free list,
// and the header's byte totals follow the block counts; a process that died
// between taking a block and counting it breaks both sums.
void KvPoolCheck::CheckCounters(bool bListsOk)
{
    const KvGranularity::Info* pInfo = KvGranularity::_poinf;
    int64_t cbByBlocks = 0;
    uint64_t cbCovered = 0;
    for (uint32_t i = 1; i < KVGRAN_COUNT; ++i) {
        const KvGranularity& g = *KvGranularity::_GetGranularity(i);
        // Frees are counted downwards, so the sum wraps to the net count.
        const int64_t cNet = static_cast<int64_t>(g._cAllocChecked + g._cFreeChecked + g._cNetUnchecked);
        if (cNet < 0)
            Fail(PoolName(i) + ": the counters record " + std::to_string(-cNet) + " more frees than allocations");
        m_acInUse[i] = cNet > 0 ? static_cast<uint64_t>(cNet) : 0;
        cbByBlocks += cNet * static_cast<int64_t>(BlockSize(i));
        cbCovered += (m_acInUse[i] + m_acFree[i]) * BlockSize(i);
    }
    const int64_t cbHeader =
        static_cast<int64_t>(pInfo->_cbAllocChecked + pInfo->_cbFreeChecked + pInfo->_cbNetUnchecked);
    if (cbHeader != cbByBlocks)
        Fail("header: the byte counters say " + std::to_string(cbHeader) + " bytes are in use, the pools' block " +
             "counts " + std::to_string(cbByBlocks));
    const uint64_t cbCarved = m_ofsCarvedEnd - KVGRAN_HEADER_SIZE;
    // The free blocks only count over intact free lists.
    if (bListsOk && m_bTableOk && cbCovered != cbCarved)
        Fail("pools: " + Num(cbCarved) + " bytes are carved into blocks, but the blocks in use and on the free " +
             "lists cover " + Num(cbCovered) + " (a block taken off a free list and never counted, or counted " +
             "and never taken)");
}

// --- block test ---------------------------------------------------------------------

uint32_t KvPoolCheck::PoolOf(uint32_t cb)
{
    const uint32_t i = KvGranularity::_IndexForSize(cb);
    return i < KVGRAN_COUNT ? i : KVGRAN_COUNT;
}

uint32_t KvPoolCheck::MaxBlocks(uint32_t iPool) const
{
    const uint32_t cb = BlockSize(iPool);
    return cb != 0 ? (m_ofsCarvedEnd - KVGRAN_HEADER_SIZE) / cb : 0;
}

bool KvPoolCheck::InCarvedArea(uint32_t ofs, uint32_t cb) const
{
    return ofs >= KVGRAN_HEADER_SIZE && static_cast<uint64_t>(ofs) + cb <= m_ofsCarvedEnd;
}

std::string KvPoolCheck::BlockProblem(uint32_t ofs, uint32_t iPool) const
{
    const uint32_t cb = BlockSize(iPool);
    if (cb == 0)
        return "has no pool of its size";
    if (!InCarvedArea(ofs, cb))
        return "lies outside the carved area [0x00010000, " + KvHexOffset(m_ofsCarvedEnd) + ")";
    if (ofs % AlignStep(cb) != 0)
        return "is not aligned to its " + Num(cb) + "-byte class";
    // The last free block that starts at or before ofs: a hit when ofs lies in it.
    auto it = std::upper_bound(m_vFree.begin(), m_vFree.end(), std::make_pair(ofs, ~0u));
    if (it != m_vFree.end() && it->first < static_cast<uint64_t>(ofs) + cb)
        return "overlaps the free block " + KvHexOffset(it->first) + " of " + PoolName(it->second);
    if (it != m_vFree.begin()) {
        --it;
        if (ofs < it->first + BlockSize(it->second))
            return "lies in a free block of " + PoolName(it->second) + " (freed, yet still linked)";
    }
    return "";
}
