// KvTreeJournal.h - the sections of the global mutex: every exported call is
// atomic against the death of its process.
//
// While a thread owns the global mutex, every change it makes to the segment
// through the write path (KvsSave, KvsPtr.h) is recorded in the tree journal:
// old bytes for a word, ALLOC for a block it took (so that undoing gives the
// block back), FREE for a block it gave up (which stays allocated until the
// section ends: a block that another process may take meanwhile could not be
// taken back). A call's end commits: its deferred frees run and its records go.
// A process that takes the global mutex and finds records undoes them first,
// newest first, or finishes the frees of a section that was committing.
//
// The journal's head lies in the header zone; its records in the object
// "OGRAN.JRN" of the namespace, reserved at its full size but taking memory
// only as it is written. A call too large for it is split: what it changed so
// far becomes final, and journaling starts again (so only such a call can be
// left in part by a death).
#pragma once

#include <cstdint>

#include "KvJournal.h"

#if KV_JOURNAL
// The records' object: opened (or made, with the segment) while the segment is
// attached. False when it could not be had: the segment is then refused.
bool KvTreeJournalAttach(bool fNamed);
void KvTreeJournalDetach();
// In a fork child: the parent's section is not the child's.
void KvTreeJournalForgetAfterFork();

// The slow halves of the three below: recovery, and a commit with records.
void KvTreeSectionOpenAndRecover();
void KvTreeSectionCommitRecords();
extern bool g_fKvTreeJournalBound;  // the records' object is attached

inline KvJournalHead* KvTreeJournalHead()
{
    return reinterpret_cast<KvJournalHead*>(KvGranularityStatics::_pvBase + KVGRAN_TREE_JOURNAL_OFFSET);
}

// Requires: the caller has just taken the global mutex (not recursively).
// Effects: undoes or finishes what an owner that died left, then journals
// the caller's changes. Nothing to recover (the common case) costs three loads.
inline void KvTreeSectionOpen()
{
    if (!g_fKvTreeJournalBound || KvGranularityStatics::_pvBase == nullptr)
        return;
    const KvJournalHead* pTree = KvTreeJournalHead();
    const KvJournalHead* pPools =
        reinterpret_cast<const KvJournalHead*>(KvGranularityStatics::_pvBase + KVGRAN_POOL_JOURNAL_OFFSET);
    if ((pTree->cbUsed | pTree->dwState | pPools->cbUsed) != 0) {
        KvTreeSectionOpenAndRecover();
        return;
    }
    t_kvs.cDeferredFrees = 0;
    t_kvs.fSplit = false;
    t_kvs.fSectionOpen = true;
    t_kvs.fJournaling = true;
}
// Requires: the caller owns the global mutex. Effects: the changes so far
// are final: the deferred frees run and the records are discarded.
inline void KvTreeSectionCommit()
{
    if (t_kvs.fSectionOpen && KvTreeJournalHead()->cbUsed != 0)
        KvTreeSectionCommitRecords();
    t_kvs.fSplit = false;
}
// Requires: the caller owns the global mutex. Effects: undoes the changes
// since the last commit (for a call that is to be run again), newest first.
void KvTreeSectionRollBack(const char* pszWhy);
// Requires: as commit; before the caller releases the global mutex for the
// last time. Effects: commits and stops journaling.
inline void KvTreeSectionClose()
{
    KvTreeSectionCommit();
    t_kvs.fSectionOpen = false;
    t_kvs.fJournaling = false;
}
bool KvTreeSectionIsEmpty();
// True when the call in progress was larger than the journal and split: it
// can no longer be undone to be run again.
bool KvTreeSectionWasSplit();
// Test hook: the journal holds at most cbRecords bytes of records (0: all).
void KvTreeJournalLimitForTest(uint32_t cbRecords);

// Pool hooks, under the pool mutex: an allocation in a section is recorded
// (as part of the pool operation); a free in a section is deferred (true).
void KvTreeSectionNoteAlloc(void* pv, uint32_t cbBlock);
bool KvTreeSectionDeferFree(void* pv, uint32_t cbBlock);
// A block of cbBlock bytes that this section gave up, taken again (zeroed)
// instead of a new one: neither end needs a pool operation. Null when the
// section gave up none of that size lately (or the block is too large to save).
void* KvTreeSectionReuseFreed(uint32_t cbBlock);
// Under the pool mutex, from KvGranularity::CountReuse: records the counting.
void KvTreeSectionNoteReuse(void* pv, uint32_t cbBlock);

// Sections undone or finished for processes that ended inside them.
uint32_t KvTreeJournalRolledBack();
KvJournal& KvTreeJournal();
#else
inline bool KvTreeJournalAttach(bool)
{
    return true;
}
inline void KvTreeJournalDetach() {}
inline void KvTreeJournalForgetAfterFork() {}
inline void KvTreeSectionOpen() {}
inline void KvTreeSectionCommit() {}
inline void KvTreeSectionRollBack(const char*) {}
inline void KvTreeSectionClose() {}
inline bool KvTreeSectionIsEmpty()
{
    return true;
}
inline bool KvTreeSectionWasSplit()
{
    return false;
}
inline void KvTreeJournalLimitForTest(uint32_t) {}
inline void KvTreeSectionNoteAlloc(void*, uint32_t) {}
inline bool KvTreeSectionDeferFree(void*, uint32_t)
{
    return false;
}
inline void* KvTreeSectionReuseFreed(uint32_t)
{
    return nullptr;
}
inline void KvTreeSectionNoteReuse(void*, uint32_t) {}
inline uint32_t KvTreeJournalRolledBack()
{
    return 0;
}
#endif
