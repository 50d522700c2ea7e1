// KvGranularity.cpp - the fixed-size block pools and the delete-function registry.
#include "KvGranularity.h"

#include <cstdio>
#include <cstring>

#include "../Diag/KvDiag.h"
#include "../KvInitOrder.h"
#include "KvJournal.h"
#include "KvMemoryWatcher.h"
#include "KvSegmentState.h"
#include "KvTreeJournal.h"

// Table entry i serves requests whose 2n-1 has bit length b where _aulNdxMap[b] == i.
// There is deliberately no 2048-byte class.
// clang-format off
const uint32_t KvGranularity::_aulNdxMap[34] = {
    0, 1, 1, 1, 1, 2, 3, 4, 5, 6, 7, 8, 9, 9, 10, 10, 11,
    11, 12, 12, 13, 13, 14, 14, 15, 15,
    0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF};

KV_INIT_STATICS const KvGranularity KvGranularity::_agranTemplate[KVGRAN_COUNT] = {
    {nullptr, 0, 0},          {nullptr, 8, 1024},      {nullptr, 16, 512},
    {nullptr, 32, 256},       {nullptr, 64, 128},      {nullptr, 128, 64},
    {nullptr, 256, 32},       {nullptr, 512, 16},      {nullptr, 1024, 8},
    {nullptr, 4096, 8},       {nullptr, 16384, 8},     {nullptr, 0x10000, 4},
    {nullptr, 0x40000, 4},    {nullptr, 0x100000, 1},  {nullptr, 0x400000, 1},
    {nullptr, 0x1000000, 1},  {nullptr, 0, 0}};
// clang-format on

KvGranularity::KvGranularity(void* pv, uint32_t stSize, uint32_t cBlocksPerChunk)
    : _pchHead(static_cast<char*>(pv)), _stSize(stSize), _cBlocksPerChunk(cBlocksPerChunk), _cAllocChecked(0),
      _cFreeChecked(0), _cNetUnchecked(0)
{
}

uint32_t KvGranularity::_IndexForSize(uint32_t n)
{
    // Bit length of 2n-1 (computed in 32 bits: 0 wraps to all ones, length 32).
    const uint32_t v = 2u * n - 1u;
    const uint32_t b = v == 0 ? 0 : 32u - static_cast<uint32_t>(__builtin_clz(v));
    return _aulNdxMap[b];
}

KvGranularity* KvGranularity::_GetGranularity(uint32_t iIndex)
{
    return _aogran + iIndex;
}

namespace {
bool (*s_pfnReclaim)() = nullptr;
}  // namespace

void* KvGranularity::_Alloc(uint32_t n, KvGranularityMemoryWatcher* pWatcher)
{
    if (pWatcher == nullptr)
        pWatcher = _GetDefaultWatcher();
    if (_aogran == nullptr)
        KvGranThrow("KvGranularity::MemPrepare(): Memory not initialized");
    const uint32_t iIndex = _IndexForSize(n);
    if (iIndex >= KVGRAN_COUNT) {
        // No class fits (0 bytes, or more than 16 MiB): an allocation failure.
        char sz[160];
        snprintf(sz, sizeof(sz), "KvGranularity::_Alloc(): no block size for a request of 0x%x bytes", n);
        KvGranThrow(sz);
    }
    KvGranularity& gran = _aogran[iIndex];
    // A block the call gave up is taken again first (not for a watcher, which
    // counts its own).
    if (pWatcher == nullptr && n != 0)
        if (void* pv = KvTreeSectionReuseFreed(gran._stSize)) {
            if (_poinf->_fMemChecking)
                gran.CountReuse(pv);
            return pv;
        }
    if (s_pfnReclaim != nullptr && gran.IsExhausted())
        s_pfnReclaim();
    return gran.Alloc(n, pWatcher);
}

void KvGranularity::_SetReclaimHook(bool (*pfnReclaim)())
{
    s_pfnReclaim = pfnReclaim;
}

void KvGranularity::_Free(void* pv, uint32_t n, KvGranularityMemoryWatcher* pWatcher)
{
    if (pWatcher == nullptr)
        pWatcher = _GetDefaultWatcher();
    if (_aogran == nullptr)
        KvGranThrow("KvGranularity::Free(): pointer not in committed range");
    const uint32_t iIndex = _IndexForSize(n);
    if (iIndex >= KVGRAN_COUNT) {
        char sz[160];
        snprintf(sz, sizeof(sz), "KvGranularity::_Free(): no block size for a request of 0x%x bytes", n);
        KvGranThrow(sz);
    }
    _aogran[iIndex].Free(pv, pWatcher);
}

namespace {
// Holds the pool mutex for a scope; every throw below leaves through it.
struct KvPoolLock {
    KvPoolLock() { KvGranularity::_LockPools(); }
    ~KvPoolLock() { KvGranularity::_UnlockPools(); }
};
}  // namespace

void* KvGranularity::Alloc(uint32_t n, KvGranularityMemoryWatcher* pWatcher)
{
    if (_pchHead.IsNotNull() && !_IsPointerInComittedRange(_pchHead.Get()))
        KvGranThrow("KvGranularity::Alloc(): b4: next free pointer not in committed range");
    if (_stSize == 0)
        return nullptr;
    KvPoolLock lock;
    if (n > _stSize) {
        char sz[160];
        snprintf(sz, sizeof(sz),
                 "KvGranularity::Alloc(): Illegal attempt to\tallocate 0x%x bytes from Granularity with 0x%x bytes", n,
                 _stSize);
        KvGranThrow(sz);
    }
    if (_pchHead.IsNull())
        MemPrepare();
    KvJournal& j = KvPoolJournal();
    char* pBlock = _pchHead.Get();
    if (n != 0) {
        KV_JOURNAL_SET(j, _pchHead, KvsPtr<char>::FromOffset(*reinterpret_cast<uint32_t*>(pBlock)));
        if (_pchHead.IsNotNull() && !_IsPointerInComittedRange(_pchHead.Get()))
            KvGranThrow("KvGranularity::Alloc(): after: next free pointer not in committed range");
        // Undone, the block is free again and needs its link; the rest of a
        // free block's bytes mean nothing.
        j.Save(pBlock, sizeof(uint32_t));
        memset(pBlock, 0, _stSize);
    }
    if (_poinf->_fMemChecking) {
        KV_JOURNAL_SET(j, _cAllocChecked, _cAllocChecked + 1);
        KV_JOURNAL_SET(j, _poinf->_cbAllocChecked, _poinf->_cbAllocChecked + _stSize);
    } else {
        KV_JOURNAL_SET(j, _cNetUnchecked, _cNetUnchecked + 1);
        KV_JOURNAL_SET(j, _poinf->_cbNetUnchecked, _poinf->_cbNetUnchecked + _stSize);
    }
    if (pWatcher != nullptr)
        pWatcher->CountAlloc(_poinf->_fMemChecking != 0);
    if (n != 0)
        KvTreeSectionNoteAlloc(pBlock, _stSize);
    return pBlock;
}

void KvGranularity::Free(void* pv, KvGranularityMemoryWatcher* pWatcher)
{
    if (!_IsPointerInComittedRange(pv))
        KvGranThrow("KvGranularity::Free(): pointer not in committed range");
    if (_stSize == 0)
        return;
    const uint32_t step = _stSize < 8192 ? _stSize : 8192;
    if (_CalcOffset(pv) % step != 0) {
        char sz[120];
        snprintf(sz, sizeof(sz), "KvGranularity::Free: pv=0x%lx _stSize=0x%x base=0x%lx\n",
                 static_cast<unsigned long>(reinterpret_cast<uintptr_t>(pv)), _stSize,
                 static_cast<unsigned long>(reinterpret_cast<uintptr_t>(_pvBase)));
        _DebugOutput(sz);
        KvGranThrow("KvGranularity::Free(): pointer does not match granularity size");
    }
    if (pWatcher == nullptr && KvTreeSectionDeferFree(pv, _stSize))
        return;
    KvPoolLock lock;
    FreeLocked(pv, pWatcher);
}

// The pool mutex is held.
void KvGranularity::FreeLocked(void* pv, KvGranularityMemoryWatcher* pWatcher, bool fUndoAlloc)
{
    KvJournal& j = KvPoolJournal();
    KV_JOURNAL_SET(j, *static_cast<uint32_t*>(pv), _pchHead.Offset());  // last freed, first reused
    KV_JOURNAL_SET(j, _pchHead, KvsPtr<char>(static_cast<char*>(pv)));
    if (fUndoAlloc && _poinf->_fMemChecking) {
        KV_JOURNAL_SET(j, _cAllocChecked, _cAllocChecked - 1);
        KV_JOURNAL_SET(j, _poinf->_cbAllocChecked, _poinf->_cbAllocChecked - _stSize);
    } else if (_poinf->_fMemChecking) {
        KV_JOURNAL_SET(j, _cFreeChecked, _cFreeChecked - 1);
        KV_JOURNAL_SET(j, _poinf->_cbFreeChecked, _poinf->_cbFreeChecked - _stSize);
    } else {
        KV_JOURNAL_SET(j, _cNetUnchecked, _cNetUnchecked - 1);
        KV_JOURNAL_SET(j, _poinf->_cbNetUnchecked, _poinf->_cbNetUnchecked - _stSize);
    }
    if (pWatcher != nullptr)
        pWatcher->CountFree(_poinf->_fMemChecking != 0);
}

void KvGranularity::CountReuse(void* pv)
{
    KvPoolLock lock;
    KvJournal& j = KvPoolJournal();
    KV_JOURNAL_SET(j, _cFreeChecked, _cFreeChecked - 1);
    KV_JOURNAL_SET(j, _poinf->_cbFreeChecked, _poinf->_cbFreeChecked - _stSize);
    KV_JOURNAL_SET(j, _cAllocChecked, _cAllocChecked + 1);
    KV_JOURNAL_SET(j, _poinf->_cbAllocChecked, _poinf->_cbAllocChecked + _stSize);
    KvTreeSectionNoteReuse(pv, _stSize);
}

void KvGranularity::_UncountReuseFromJournal(uint32_t cbBlock, uint32_t* pcbUsed, uint32_t cbUsedAfter)
{
    const uint32_t iIndex = _IndexForSize(cbBlock);
    KvPoolLock lock;
    KvJournal& j = KvPoolJournal();
    if (iIndex < KVGRAN_COUNT && _aogran[iIndex]._stSize == cbBlock) {
        KvGranularity& g = _aogran[iIndex];
        KV_JOURNAL_SET(j, g._cFreeChecked, g._cFreeChecked + 1);
        KV_JOURNAL_SET(j, _poinf->_cbFreeChecked, _poinf->_cbFreeChecked + cbBlock);
        KV_JOURNAL_SET(j, g._cAllocChecked, g._cAllocChecked - 1);
        KV_JOURNAL_SET(j, _poinf->_cbAllocChecked, _poinf->_cbAllocChecked - cbBlock);
    }
    KV_JOURNAL_SET(j, *pcbUsed, cbUsedAfter);
}

void KvGranularity::_FreeFromJournal(void* pv, uint32_t cbBlock, uint32_t* pcbUsed, uint32_t cbUsedAfter,
                                     bool fUndoAlloc)
{
    const uint32_t iIndex = _IndexForSize(cbBlock);
    const uint32_t step = cbBlock < 8192 ? cbBlock : 8192;
    if (iIndex >= KVGRAN_COUNT || _aogran[iIndex]._stSize != cbBlock || !_IsPointerInComittedRange(pv) ||
        _CalcOffset(pv) % step != 0) {
        char sz[160];
        snprintf(sz, sizeof(sz), "KvGranularity: a journal names a block of 0x%x bytes at 0x%x that no pool holds",
                 cbBlock, _CalcOffset(pv));
        _DebugOutput(sz);
        __atomic_store_n(pcbUsed, cbUsedAfter, __ATOMIC_RELEASE);
        return;
    }
    KvPoolLock lock;
    _aogran[iIndex].FreeLocked(pv, nullptr, fUndoAlloc);
    KV_JOURNAL_SET(KvPoolJournal(), *pcbUsed, cbUsedAfter);
}

// In 64 bits: a request near 4 GiB must not wrap into a small size.
static uint64_t KvRoundUp(uint64_t v, uint64_t step)
{
    return (v + step - 1) / step * step;
}

bool KvGranularity::IsExhausted() const
{
    // A block on the free list (read without the lock: a hint that keeps the
    // pool mutex off every allocation) means the allocation will not run out.
    if (_stSize == 0 || _pvBase == nullptr || _pchHead.IsNotNull())
        return false;
    KvPoolLock lock;
    if (_pchHead.IsNotNull())
        return false;
    // The room MemPrepare needs for one more chunk.
    const uint64_t cbEnd = KvRoundUp(
        static_cast<uint64_t>(_poinf->_pchNextFree.Offset()) + static_cast<uint64_t>(_cBlocksPerChunk) * _stSize, 4096);
    return cbEnd > _stMax;
}

void KvGranularity::MemPrepare()
{
    char sz[160];
    snprintf(sz, sizeof(sz), "MemPrepare: GranSize=%x  _pchNextCommit.Offset=%8.8x _pchNextCommit=%8.8lx", _stSize,
             _poinf != nullptr ? _poinf->_pchNextCommit.Offset() : 0u,
             static_cast<unsigned long>(
                 reinterpret_cast<uintptr_t>(_poinf != nullptr ? _poinf->_pchNextCommit.Get() : nullptr)));
    _DebugOutput(sz);
    if (_pvBase == nullptr)
        KvGranThrow("KvGranularity::MemPrepare(): Memory not initialized");
    const uint32_t ofsFree = _poinf->_pchNextFree.Offset();
    const uint32_t ofsCommit = _poinf->_pchNextCommit.Offset();
    const uint64_t cbEnd = static_cast<uint64_t>(ofsFree) + static_cast<uint64_t>(_cBlocksPerChunk) * _stSize;
    const uint64_t cbRounded = KvRoundUp(cbEnd, 4096);
    // The committed end never lies past a rounded chunk end; 0 is the empty commit.
    const uint64_t size = cbRounded > ofsCommit ? cbRounded - ofsCommit : 0;
    if (ofsCommit + size > _stMax)
        KvGranThrow("KvGranularity::MemPrepare(): Out of Memory");
    // The whole segment is mapped read-write by its creator, so committing only
    // advances the bookkeeping; an empty commit is reported as the platform did.
    if (size == 0) {
        snprintf(sz, sizeof(sz), "MemPrepare:VirtualAlloc-Error: _pchNextCommit.Offset=%8.8x _pchNextCommit=%8.8lx",
                 ofsCommit, static_cast<unsigned long>(reinterpret_cast<uintptr_t>(_pvBase + ofsCommit)));
        _DebugOutput(sz);
        FlushDebug();
    }
    // The chunk lies beyond the carved end, where nothing reaches: its links
    // need no records. The three words that make it reachable come last.
    uint32_t ofs = ofsFree;
    for (uint32_t i = 0; i < _cBlocksPerChunk; ++i) {
        *reinterpret_cast<uint32_t*>(_pvBase + ofs) = ofs + _stSize;
        ofs += _stSize;
    }
    *reinterpret_cast<uint32_t*>(_pvBase + ofs - _stSize) = 0;
    KvJournal& j = KvPoolJournal();
    KV_JOURNAL_SET(j, _poinf->_pchNextCommit, KvsPtr<char>::FromOffset(static_cast<uint32_t>(ofsCommit + size)));
    KV_JOURNAL_SET(j, _pchHead, KvsPtr<char>::FromOffset(ofsFree));
    KV_JOURNAL_SET(j, _poinf->_pchNextFree, KvsPtr<char>::FromOffset(ofs));
}

void* KvGranularity::_AllocFixed(uint32_t n)
{
    if (n == 0)
        return nullptr;
    if (_pvBase == nullptr)
        KvGranThrow("KvGranularity::MemPrepare(): Memory not initialized");
    KvPoolLock lock;  // the carved end is the pools' too
    const uint32_t ofsFree = _poinf->_pchNextFree.Offset();
    const uint32_t ofsCommit = _poinf->_pchNextCommit.Offset();
    const uint64_t cbEnd = KvRoundUp(static_cast<uint64_t>(ofsFree) + n, 8192);
    const uint64_t size = cbEnd > ofsCommit ? cbEnd - ofsCommit : 0;
    char sz[80];
    snprintf(sz, sizeof(sz), "%x: _AllocFixed (%llx)", n, static_cast<unsigned long long>(size));
    _DebugOutput(sz);
    if (ofsCommit + size > _stMax)
        KvGranThrow("KvGranularity::_Alloc(): Out of Memory");
    KvJournal& j = KvPoolJournal();
    KV_JOURNAL_SET(j, _poinf->_pchNextCommit, KvsPtr<char>::FromOffset(static_cast<uint32_t>(ofsCommit + size)));
    KV_JOURNAL_SET(j, _poinf->_pchNextFree, KvsPtr<char>::FromOffset(ofsFree + n));
    return _pvBase + ofsFree;
}

void KvGranularity::_EnableMemChecking(bool f)
{
    if (_poinf != nullptr)
        _poinf->_fMemChecking = f ? 1 : 0;
}

uint32_t KvGranularity::_GetWatcherCount()
{
    return _poinf != nullptr ? _poinf->_cWatchers : 0;
}

// --- delete-function registry ----------------------------------------------

int32_t KvGranularity::_RegisterDeleteFunction(KvDeleteFunction pfn)
{
    return _RegisterDeleteFunction(pfn, "?", 0);
}

int32_t KvGranularity::_RegisterDeleteFunction(KvDeleteFunction pfn, const char* pszClass, uint32_t cbClass)
{
    const int32_t i = __atomic_add_fetch(&sm_iDeleteFunctionMax, 1, __ATOMIC_SEQ_CST);
    if (i >= static_cast<int32_t>(KVGRAN_MAX_DELETE_FUNCTIONS) - 1)
        KvGranThrow("Max. Number of shared memory classes reached!");
    sm_aDeleteFunctions[i] = pfn;
    KvFingerprintAddClass(pszClass, cbClass);
    return i;
}

void KvGranularity::_BadDeleteFunction(void* pv)
{
    char sz[128];
    snprintf(sz, sizeof(sz), "KvGranularity: object at offset 0x%x has no registered delete function", _CalcOffset(pv));
    KvThrow(sz);
}

KvDeleteFunction KvGetDeleteFunction(int32_t iIndex)
{
    return KvGranularity::_GetDeleteFunction(iIndex);
}

// The pools' error path: the segment's name as this process recorded it, ": "
// and the text, cut at character boundaries to 259 bytes, raised by KvThrow.
void KvGranThrow(const char* pszText)
{
    if (pszText == nullptr)
        pszText = "";
    char sz[260];
    const size_t cchName = KvCutAtCharBoundary(KvGranularity::_s_szMemName, 259);
    memcpy(sz, KvGranularity::_s_szMemName, cchName);
    size_t cch = cchName;
    const size_t cchSep = KvCutAtCharBoundary(": ", 259 - cch);
    memcpy(sz + cch, ": ", cchSep);
    cch += cchSep;
    const size_t cchText = KvCutAtCharBoundary(pszText, 259 - cch);
    memcpy(sz + cch, pszText, cchText);
    cch += cchText;
    sz[cch] = '\0';
    KvThrow(sz);
}
