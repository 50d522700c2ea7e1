// KvTreeJournal.cpp - see KvTreeJournal.h.
#include "KvTreeJournal.h"

#if KV_JOURNAL

#include <cstddef>
#include <cstdio>
#include <vector>

#include "../Diag/KvDiag.h"
#include "../Platform/KvPlatform.h"

__thread KvsThreadState t_kvs = {{}, 1ull << 40, false, false, false, 0};
bool g_fKvTreeJournalBound = false;

namespace {

// Reserved, not taken: tmpfs gives pages only to what is written. 32 MiB is
// what a 32-bit process can spare of its address space.
constexpr uint32_t kcbRecords = sizeof(void*) == 8 ? 256u << 20 : 32u << 20;

// Constant-initialised (constexpr constructor); the records are bound at attach.
KvJournal s_jrnTree(KVGRAN_TREE_JOURNAL_OFFSET, KVGRAN_TREE_JOURNAL_OFFSET + sizeof(KvJournalHead),
                    "KVRFRSVR_GLOBAL_MUTEX");
KvShmObject* s_pshmRecords = nullptr;  // the named object, while attached to a named segment
char* s_pchPrivateRecords = nullptr;   // private memory, for a private segment

// The per-thread memory below is freed when its thread ends; the holder is
// made the first time a thread needs any.
void KvHoldThreadMemory();

// Blocks this section took, the newest few: their bytes need no records, since
// undoing the allocation gives the whole block back (an object is constructed
// and filled right after it is allocated).
struct KvFreshBlock {
    uint32_t ofs;
    uint32_t cb;
};
constexpr uint32_t kcFresh = 8;
thread_local KvFreshBlock t_aFresh[kcFresh] = {};
thread_local uint32_t t_iFresh = 0;

// The FREE records of this section, for its commit.
thread_local std::vector<uint32_t>* t_pvofsFrees = nullptr;

struct KvThreadMemory {
    ~KvThreadMemory()
    {
        delete t_pvofsFrees;
        t_pvofsFrees = nullptr;
    }
};

void KvHoldThreadMemory()
{
    static thread_local KvThreadMemory t_memory;
    (void)&t_memory;  // made on this first use, destroyed when the thread ends
}

void KvForgetSaved()
{
    t_kvs.qwGeneration += 1ull << 40;
    if (t_kvs.qwGeneration == 0) {
        // The generations went round: old keys could look current again.
        memset(t_kvs.aqwKnown, 0, sizeof(t_kvs.aqwKnown));
        t_kvs.qwGeneration = 1ull << 40;
    }
    t_iFresh = 0;
    if (t_pvofsFrees != nullptr)
        t_pvofsFrees->clear();
}

bool KvIsFresh(uint32_t ofs, uint32_t cb)
{
    for (uint32_t i = 0; i < t_iFresh && i < kcFresh; ++i) {
        const KvFreshBlock& b = t_aFresh[i];
        if (ofs - b.ofs < b.cb && cb <= b.cb - (ofs - b.ofs))
            return true;
    }
    return false;
}

// A call larger than the journal is split: what it changed so far becomes
// final (its frees run, as they would have without the journal), and the
// journal starts again from there. Only such a call can be left in part by a
// death; it is also never undone to be run again. (The split commits through
// KvTreeSectionCommitRecords, which is declared in the header.)

uint32_t s_cbLimitForTest = 0;
uint32_t s_cbCapacity = 0;  // the records' room: the object's size, or the test's limit

void KvSetCapacity()
{
    const uint32_t cb = s_jrnTree.RecordBytes();
    s_cbCapacity = s_cbLimitForTest != 0 && s_cbLimitForTest < cb ? s_cbLimitForTest : cb;
}

void KvEnsureRoom(uint32_t cbRecord)
{
    const uint32_t cbUsed = s_jrnTree.Head()->cbUsed;
    const uint32_t cbCapacity = s_cbCapacity;
    if (cbRecord <= cbCapacity && cbUsed <= cbCapacity - cbRecord)
        return;
    if (cbRecord > cbCapacity) {
        char sz[160];
        snprintf(sz, sizeof(sz), "%s: a change of %u bytes is larger than the journal", s_jrnTree.MutexName(),
                 cbRecord);
        KvGranThrow(sz);
    }
    if (!t_kvs.fSplit) {
        char sz[200];
        snprintf(sz, sizeof(sz),
                 "%s: a call is larger than the journal (%u bytes of changes); what it changed so far "
                 "is final, the rest is journaled anew",
                 s_jrnTree.MutexName(), cbUsed);
        _DebugOutput(sz);
    }
    t_kvs.fSplit = true;
    KvTreeSectionCommitRecords();
}

KvJournalRecord KvRecordAt(uint32_t ofs)
{
    KvJournalRecord rec;
    memcpy(&rec, s_jrnTree.Records() + ofs, sizeof(rec));
    return rec;
}

void KvPop(KvJournalHead* pHead, uint32_t cbUsed)
{
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    __atomic_store_n(&pHead->cbUsed, cbUsed, __ATOMIC_RELEASE);
    if (cbUsed == 0)
        KvForgetSaved();
}

// Runs the FREE records, newest first, each with the pop of its record in
// one pool operation; the other records are dropped. Returns the frees.
uint32_t KvFinishFrees(KvJournalHead* pHead)
{
    std::vector<uint32_t> vofs;
    s_jrnTree.ListRecords(pHead->cbUsed, &vofs);
    uint32_t cFrees = 0;
    for (auto it = vofs.rbegin(); it != vofs.rend(); ++it) {
        const KvJournalRecord rec = KvRecordAt(*it);
        if ((rec.dwKindAndSize & KVJRN_KIND_MASK) != KVJRN_FREE) {
            KvPop(pHead, *it);
            continue;
        }
        KvGranularity::_FreeFromJournal(KvGranularity::_pvBase + rec.ofs, rec.dwKindAndSize & ~KVJRN_KIND_MASK,
                                        &pHead->cbUsed, *it, false);
        ++cFrees;
    }
    KvPop(pHead, 0);
    return cFrees;
}

// The same for this thread's own section, whose FREE records it noted: no walk.
void KvFinishNotedFrees(KvJournalHead* pHead)
{
    std::vector<uint32_t>& v = *t_pvofsFrees;
    for (auto it = v.rbegin(); it != v.rend(); ++it) {
        const KvJournalRecord rec = KvRecordAt(*it);
        KvGranularity::_FreeFromJournal(KvGranularity::_pvBase + rec.ofs, rec.dwKindAndSize & ~KVJRN_KIND_MASK,
                                        &pHead->cbUsed, *it, false);
    }
    KvPop(pHead, 0);
}

// Undoes the records, newest first: bytes written back, blocks taken given
// back (each with the pop of its record in one pool operation), frees
// dropped (the block stays where it was). Returns the records undone.
uint32_t KvUndo(KvJournalHead* pHead)
{
    std::vector<uint32_t> vofs;
    s_jrnTree.ListRecords(pHead->cbUsed, &vofs);
    for (auto it = vofs.rbegin(); it != vofs.rend(); ++it) {
        const KvJournalRecord rec = KvRecordAt(*it);
        const uint32_t cb = rec.dwKindAndSize & ~KVJRN_KIND_MASK;
        switch (rec.dwKindAndSize & KVJRN_KIND_MASK) {
        case KVJRN_BYTES:
            memcpy(KvGranularity::_pvBase + rec.ofs, s_jrnTree.Records() + *it + sizeof(rec), cb);
            KvPop(pHead, *it);
            break;
        case KVJRN_ALLOC:
            KvGranularity::_FreeFromJournal(KvGranularity::_pvBase + rec.ofs, cb, &pHead->cbUsed, *it, true);
            break;
        case KVJRN_REUSED: KvGranularity::_UncountReuseFromJournal(cb, &pHead->cbUsed, *it); break;
        default: KvPop(pHead, *it); break;
        }
    }
    KvPop(pHead, 0);
    return static_cast<uint32_t>(vofs.size());
}

// What an owner that died inside a section left: the pools first (it may have
// died inside a pool operation, which may also have been adding a record),
// then its records.
void KvRecover(KvJournalHead* pHead)
{
    KvGranularity::_LockPools();
    KvGranularity::_UnlockPools();
    if (pHead->cbUsed == 0)
        return;
    const uint32_t dwPid = pHead->dwPid;
    char sz[200];
    if (pHead->dwState == KVJRN_STATE_COMMITTING) {
        const uint32_t cFrees = KvFinishFrees(pHead);
        snprintf(sz, sizeof(sz), "%s: finished the completed call of process %u (%u blocks freed; it ended inside it)",
                 s_jrnTree.MutexName(), dwPid, cFrees);
    } else {
        const uint32_t cRecords = KvUndo(pHead);
        snprintf(sz, sizeof(sz), "%s: undid the unfinished call of process %u (%u changes; it ended inside it)",
                 s_jrnTree.MutexName(), dwPid, cRecords);
    }
    _DebugOutput(sz);
    pHead->cRolledBack += 1;
    pHead->dwState = KVJRN_STATE_OPEN;
}

// Notes (ofs, cb) as saved, or as needing no record, for the inline test of
// KvsSave. A larger range is not noted: its size would not fit the key.
void KvRememberSaved(uint32_t ofs, uint32_t cb)
{
    if (cb < 256) {
        const uint64_t qwKey = KvsKnownKey(ofs, cb);
        t_kvs.aqwKnown[KvsKnownSlot(qwKey)] = qwKey;
    }
}

}  // namespace

// The write path's slow half: KvsSave found no key for the range, which
// begins in the segment.
void KvsJournalSave(const void* pv, uint32_t cb)
{
    const uint32_t ofs = static_cast<uint32_t>(static_cast<const char*>(pv) - KvGranularity::_pvBase);
    if (cb > KvGranularity::_stMax - ofs)
        return;  // runs past the segment's end: not the segment's
    if (t_iFresh != 0 && KvIsFresh(ofs, cb)) {
        KvRememberSaved(ofs, cb);
        return;
    }
    const uint32_t cbRecord = static_cast<uint32_t>(sizeof(KvJournalRecord)) + ((cb + 3u) & ~3u);
    if (s_jrnTree.Head()->cbUsed > s_cbCapacity - cbRecord || cbRecord > s_cbCapacity)
        KvEnsureRoom(cbRecord);
    if (cb == 4)
        s_jrnTree.Save4(pv);  // a word: no copy of variable length
    else
        s_jrnTree.Save(pv, cb);
    KvRememberSaved(ofs, cb);
}

bool KvTreeJournalAttach(bool fNamed)
{
    char* pch = nullptr;
    if (fNamed) {
        s_pshmRecords = new KvShmObject;
        bool fNew = false;
        if (!s_pshmRecords->OpenOrCreate(KvObjectName("OGRAN.JRN"), kcbRecords, true, &fNew) || !s_pshmRecords->Map()) {
            KvTreeJournalDetach();
            return false;
        }
        pch = static_cast<char*>(s_pshmRecords->m_pv);
    } else {
        s_pchPrivateRecords = static_cast<char*>(KvReserveMemory(kcbRecords));
        if (s_pchPrivateRecords == nullptr)
            return false;
        pch = s_pchPrivateRecords;
    }
    s_jrnTree.BindRecords(pch, kcbRecords);
    KvSetCapacity();
    g_fKvTreeJournalBound = true;
    return true;
}

void KvTreeJournalDetach()
{
    KvForgetSaved();
    t_kvs.fSectionOpen = false;
    t_kvs.fJournaling = false;
    g_fKvTreeJournalBound = false;
    s_jrnTree.BindRecords(nullptr, 0);
    KvSetCapacity();
    if (s_pshmRecords != nullptr) {
        s_pshmRecords->Close();
        delete s_pshmRecords;
        s_pshmRecords = nullptr;
    }
    if (s_pchPrivateRecords != nullptr) {
        KvReleaseMemory(s_pchPrivateRecords, kcbRecords);
        s_pchPrivateRecords = nullptr;
    }
}

void KvTreeJournalForgetAfterFork()
{
    t_kvs.fSplit = false;
    t_kvs.fSectionOpen = false;
    t_kvs.fJournaling = false;
    t_kvs.cDeferredFrees = 0;
    KvForgetSaved();
}

void KvTreeSectionOpenAndRecover()
{
    if (KvGranularity::_pvBase == nullptr || s_jrnTree.RecordBytes() == 0)
        return;
    KvJournalHead* pHead = s_jrnTree.Head();
    if (pHead->cbUsed != 0) {
        KvRecover(pHead);
    } else if (!KvPoolJournal().IsEmpty()) {
        // An owner that died inside a pool operation, with nothing of the tree
        // changed yet: the pools are made whole before this call reads them.
        KvGranularity::_LockPools();
        KvGranularity::_UnlockPools();
    }
    if (pHead->dwState != KVJRN_STATE_OPEN)
        pHead->dwState = KVJRN_STATE_OPEN;  // a commit that ended between its last two stores
    t_kvs.cDeferredFrees = 0;
    t_kvs.fSplit = false;  // what this thread knows as saved was forgotten when its records went
    t_kvs.fSectionOpen = true;
    t_kvs.fJournaling = true;
}

bool KvTreeSectionWasSplit()
{
    return t_kvs.fSplit;
}

void KvTreeJournalLimitForTest(uint32_t cbRecords)
{
    s_cbLimitForTest = cbRecords;
    KvSetCapacity();
}

void KvTreeSectionCommitRecords()
{
    if (!t_kvs.fSectionOpen)
        return;
    KvJournalHead* pHead = s_jrnTree.Head();
    if (pHead->cbUsed == 0)
        return;
    if (t_kvs.cDeferredFrees != 0) {
        // From here on the call is done: a death in the frees finishes them.
        __atomic_store_n(&pHead->dwState, KVJRN_STATE_COMMITTING, __ATOMIC_RELEASE);
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
        KvFinishNotedFrees(pHead);
        t_kvs.cDeferredFrees = 0;
        __atomic_store_n(&pHead->dwState, KVJRN_STATE_OPEN, __ATOMIC_RELEASE);
        return;
    }
    KvPop(pHead, 0);
}

void KvTreeSectionRollBack(const char* pszWhy)
{
    if (!t_kvs.fSectionOpen)
        return;
    KvJournalHead* pHead = s_jrnTree.Head();
    if (pHead->cbUsed == 0)
        return;
    const bool fJournaling = t_kvs.fJournaling;
    t_kvs.fJournaling = false;
    const uint32_t cRecords = KvUndo(pHead);
    t_kvs.fJournaling = fJournaling;
    t_kvs.cDeferredFrees = 0;
    char sz[200];
    snprintf(sz, sizeof(sz), "%s: undid %u changes of this process's call (%s)", s_jrnTree.MutexName(), cRecords,
             pszWhy);
    _DebugOutput(sz);
}

bool KvTreeSectionIsEmpty()
{
    return !t_kvs.fSectionOpen || s_jrnTree.Head()->cbUsed == 0;
}

void KvTreeSectionNoteAlloc(void* pv, uint32_t cbBlock)
{
    if (!t_kvs.fJournaling)
        return;
    KvEnsureRoom(sizeof(KvJournalRecord));
    s_jrnTree.AppendLogical(KVJRN_ALLOC, pv, cbBlock, &KvPoolJournal());
    t_aFresh[t_iFresh++ % kcFresh] = KvFreshBlock{KvGranularity::_CalcOffset(pv), cbBlock};
}

bool KvTreeSectionDeferFree(void* pv, uint32_t cbBlock)
{
    if (!t_kvs.fJournaling)
        return false;
    KvEnsureRoom(sizeof(KvJournalRecord));
    if (t_pvofsFrees == nullptr) {
        KvHoldThreadMemory();
        t_pvofsFrees = new std::vector<uint32_t>;  // kept for the thread's life
    }
    t_pvofsFrees->push_back(s_jrnTree.Head()->cbUsed);
    s_jrnTree.AppendLogical(KVJRN_FREE, pv, cbBlock, nullptr);
    ++t_kvs.cDeferredFrees;
    return true;
}

// The block's bytes are saved before its FREE record becomes NONE, so a death
// anywhere leaves it allocated with bytes that undoing restores, as it was
// before the section; and after the save, the section's writes to the block
// need no more records. The newest few FREE records are looked at: a call
// that replaces a buffer gives the old one up just before taking the new.
void* KvTreeSectionReuseFreed(uint32_t cbBlock)
{
    constexpr uint32_t kcbReuseMax = 256;  // a larger block costs more to save than to free
    constexpr size_t kcLook = 4;
    if (!t_kvs.fJournaling || t_pvofsFrees == nullptr || cbBlock > kcbReuseMax)
        return nullptr;
    std::vector<uint32_t>& v = *t_pvofsFrees;
    for (size_t k = 0; k < v.size() && k < kcLook; ++k) {
        const size_t i = v.size() - 1 - k;
        const KvJournalRecord rec = KvRecordAt(v[i]);
        if (rec.dwKindAndSize != (KVJRN_FREE | cbBlock))
            continue;
        const uint32_t cbUsed = s_jrnTree.Head()->cbUsed;
        KvEnsureRoom(2 * static_cast<uint32_t>(sizeof(KvJournalRecord)) + cbBlock);  // and REUSED
        if (s_jrnTree.Head()->cbUsed < cbUsed)
            return nullptr;  // the call was split: its frees ran, this one too
        char* pBlock = KvGranularity::_pvBase + rec.ofs;
        s_jrnTree.Save(pBlock, cbBlock);
        const uint32_t dwNone = KVJRN_NONE | cbBlock;
        __atomic_store_n(reinterpret_cast<uint32_t*>(s_jrnTree.Records() + v[i] +
                                                     offsetof(KvJournalRecord, dwKindAndSize)),
                         dwNone, __ATOMIC_RELEASE);
        v.erase(v.begin() + static_cast<std::ptrdiff_t>(i));
        --t_kvs.cDeferredFrees;
        memset(pBlock, 0, cbBlock);
        t_aFresh[t_iFresh++ % kcFresh] = KvFreshBlock{rec.ofs, cbBlock};
        return pBlock;
    }
    return nullptr;
}

void KvTreeSectionNoteReuse(void* pv, uint32_t cbBlock)
{
    if (t_kvs.fJournaling)
        s_jrnTree.AppendLogical(KVJRN_REUSED, pv, cbBlock, &KvPoolJournal());
}

uint32_t KvTreeJournalRolledBack()
{
    return KvGranularity::_pvBase != nullptr ? s_jrnTree.Head()->cRolledBack : 0;
}

KvJournal& KvTreeJournal()
{
    return s_jrnTree;
}

#endif
