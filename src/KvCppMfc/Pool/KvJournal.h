// KvJournal.h - undo journals of the segment. Before a locked section changes
// a word of the segment, it records the word's old bytes in a journal in shared
// memory; the end of the section discards the records. A process that dies
// inside the section leaves them behind, and the next owner of the mutex writes
// them back, newest first, before it goes on: the dead process's unfinished
// change is undone as if it had never begun.
//
// Writes into memory that nothing reaches yet (a chunk being carved beyond the
// carved end) need no record: undoing the word that makes it reachable undoes
// them. Everything else is written through Set or after Save.
//
// The pool mutex OGRAN.MTX has its journal in the header zone: a pool operation
// changes a handful of words. The global mutex's journal (KvTreeJournal.h) has
// its head there too, and its records in an object of their own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "KvGranularity.h"

constexpr uint32_t KVGRAN_TREE_JOURNAL_OFFSET = 0x820;  // the head only
constexpr uint32_t KVGRAN_POOL_JOURNAL_OFFSET = 0x830;
constexpr uint32_t KVGRAN_POOL_JOURNAL_END = 0xF00;

// Four 32-bit words, so the natural layout is the packed one; left unpacked so
// that its words may be changed atomically (they lie 16-byte aligned).
struct KvJournalHead {
    uint32_t cbUsed;       // bytes of records; 0: nothing to undo
    uint32_t dwPid;        // the process whose records they are
    uint32_t cRolledBack;  // sections undone (or finished) for a process that ended inside them
    uint32_t dwState;      // KVJRN_STATE_...
};
#pragma pack(push, 1)
// A record: where, what, then for KVJRN_BYTES the old bytes (padded to 4).
struct KvJournalRecord {
    uint32_t ofs;
    uint32_t dwKindAndSize;  // KVJRN_... | byte count (block size for the logical kinds)
};
#pragma pack(pop)
static_assert(sizeof(KvJournalHead) == 16 && sizeof(KvJournalRecord) == 8, "");
static_assert(offsetof(KvJournalHead, dwState) == 12, "");
static_assert(KVGRAN_TREE_JOURNAL_OFFSET >= 0x800 + 32, "the journals lie after the build fingerprint");
static_assert(KVGRAN_POOL_JOURNAL_OFFSET >= KVGRAN_TREE_JOURNAL_OFFSET + sizeof(KvJournalHead), "");
static_assert(KVGRAN_TREE_JOURNAL_OFFSET % 16 == 0 && KVGRAN_POOL_JOURNAL_OFFSET % 16 == 0, "heads are aligned");

// Kinds of record. BYTES is undone by writing the bytes back; ALLOC (a block
// this section took) by freeing the block; FREE (a block this section gave
// up) is what the section's end does, since a block another process may take
// cannot be taken back. NONE was a FREE until the section reused its block;
// REUSED is the counting of that, undone by counting back.
enum : uint32_t {
    KVJRN_BYTES = 0,
    KVJRN_ALLOC = 1u << 28,
    KVJRN_FREE = 2u << 28,
    KVJRN_NONE = 3u << 28,    // a FREE whose block the section took again: nothing to do either way
    KVJRN_REUSED = 4u << 28,  // the counts of such a block, which undoing takes back
    KVJRN_KIND_MASK = 0xF0000000u,
};
// States of a journal: its records are undone when its owner dies, or, once
// the section has begun its deferred frees, finished.
enum : uint32_t {
    KVJRN_STATE_OPEN = 0,
    KVJRN_STATE_COMMITTING = 1,
};
static_assert(KVGRAN_POOL_JOURNAL_END <= 0xF00, "and before the process table's information");

class KvJournal {
public:
    // A journal whose head lies at ofsBegin of the header zone, its records
    // after it up to ofsEnd; guarded by the mutex named pszMutex.
    constexpr KvJournal(uint32_t ofsBegin, uint32_t ofsEnd, const char* pszMutex)
        : m_ofsBegin(ofsBegin), m_cbRecords(ofsEnd - ofsBegin - static_cast<uint32_t>(sizeof(KvJournalHead))),
          m_pszMutex(pszMutex)
    {
    }
    // The records lie at pchRecords instead (cbRecords bytes), or after the head
    // again for null.
    void BindRecords(char* pchRecords, uint32_t cbRecords)
    {
        m_pchRecords = pchRecords;
        m_cbRecords = cbRecords;
    }

    // Requires: the segment is attached and the caller owns the mutex.
    // Effects: records the current bytes of [pv, pv + cb) when they lie in the
    // segment. Throws (through KvGranThrow) when the journal is full, before
    // anything is changed.
    void Save(const void* pv, uint32_t cb)
    {
        const char* pch = static_cast<const char*>(pv);
        char* pBase = KvGranularity::_pvBase;
        if (pch < pBase || pch + cb > pBase + KvGranularity::_stMax)
            return;  // not the segment's (a caller's copy, a watcher object)
        KvJournalHead* pHead = Head();
        const uint32_t cbUsed = pHead->cbUsed;
        const uint32_t cbRecord = static_cast<uint32_t>(sizeof(KvJournalRecord)) + ((cb + 3u) & ~3u);
        if (cb > m_cbRecords || cbUsed + cbRecord > m_cbRecords)
            ThrowFull(cb);
        char* pRecord = Records() + cbUsed;
        const KvJournalRecord rec{static_cast<uint32_t>(pch - pBase), cb};
        memcpy(pRecord, &rec, sizeof(rec));
        memcpy(pRecord + sizeof(rec), pch, cb);
        Publish(pHead, cbUsed, cbRecord, nullptr);
    }
    // Save of one 32-bit word that lies in the segment, with room checked.
    void Save4(const void* pv)
    {
        KvJournalHead* pHead = Head();
        const uint32_t cbUsed = pHead->cbUsed;
        char* pRecord = Records() + cbUsed;
        const KvJournalRecord rec{KvGranularity::_CalcOffset(pv), 4};
        memcpy(pRecord, &rec, sizeof(rec));
        memcpy(pRecord + sizeof(rec), pv, 4);
        Publish(pHead, cbUsed, static_cast<uint32_t>(sizeof(rec)) + 4, nullptr);
    }
    // Requires: as Save. Appends a logical record (KVJRN_ALLOC or KVJRN_FREE) of
    // the block at pv of cbBlock bytes. With pjrnPools, the record counts
    // through that journal's write: it then belongs to the pool operation in
    // progress, and is gone if that operation is undone.
    void AppendLogical(uint32_t dwKind, const void* pv, uint32_t cbBlock, KvJournal* pjrnPools)
    {
        KvJournalHead* pHead = Head();
        const uint32_t cbUsed = pHead->cbUsed;
        const uint32_t cbRecord = static_cast<uint32_t>(sizeof(KvJournalRecord));
        if (cbUsed + cbRecord > m_cbRecords)
            ThrowFull(0);
        const KvJournalRecord rec{KvGranularity::_CalcOffset(pv), dwKind | cbBlock};
        memcpy(Records() + cbUsed, &rec, sizeof(rec));
        Publish(pHead, cbUsed, cbRecord, pjrnPools);
    }
    // Records the field, then stores the value (through KV_JOURNAL_SET, which
    // also takes the fields of packed structures).
    template <class T>
    void SetAt(void* pvField, const T& value)
    {
        Save(pvField, sizeof(T));
        memcpy(pvField, static_cast<const void*>(&value), sizeof(T));  // the value's bytes, whatever T copies
    }
    // The section completed: its records are discarded.
    void Commit()
    {
        KvJournalHead* pHead = Head();
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
        if (pHead->cbUsed != 0)
            __atomic_store_n(&pHead->cbUsed, 0u, __ATOMIC_RELEASE);
    }
    // Writes the records back, newest first, and discards them; reports what
    // it undid on the debug output, naming pszWhy. Returns the records undone.
    // For journals with BYTES records only (the pool journal).
    uint32_t RollBack(const char* pszWhy);
    bool IsEmpty() const { return Head()->cbUsed == 0; }
    uint32_t RolledBackCount() const { return Head()->cRolledBack; }
    KvJournalHead* Head() const { return reinterpret_cast<KvJournalHead*>(KvGranularity::_pvBase + m_ofsBegin); }
    char* Records() const
    {
        return m_pchRecords != nullptr ? m_pchRecords : KvGranularity::_pvBase + m_ofsBegin + sizeof(KvJournalHead);
    }
    uint32_t RecordBytes() const { return m_cbRecords; }
    const char* MutexName() const { return m_pszMutex; }
    // The offsets of the valid records among the first cbUsed bytes, oldest
    // first; a record that does not fit ends the list (it can only be a torn
    // one, which never counted).
    void ListRecords(uint32_t cbUsed, std::vector<uint32_t>* pvofs) const;

    // Test hook: the process kills itself with SIGKILL at the k-th Save from now
    // on, after the record and before the change (0: never).
    static void DieAtSave(uint32_t k) { sm_cDieAtSave = k; }

private:
    // The record is whole before it counts, and counts before the change: a
    // death anywhere leaves either no record or one that undoes nothing yet.
    void Publish(KvJournalHead* pHead, uint32_t cbUsed, uint32_t cbRecord, KvJournal* pjrnPools)
    {
        if (cbUsed == 0)
            NoteWriter(pHead);
        if (pjrnPools != nullptr)
            pjrnPools->SetAt<uint32_t>(&pHead->cbUsed, cbUsed + cbRecord);
        else
            __atomic_store_n(&pHead->cbUsed, cbUsed + cbRecord, __ATOMIC_RELEASE);
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
        if (__builtin_expect(sm_cDieAtSave != 0, 0))
            DieIfDue();
    }
    [[noreturn]] void ThrowFull(uint32_t cb) const;
    static void NoteWriter(KvJournalHead* pHead);
    static void DieIfDue();

    uint32_t m_ofsBegin;
    uint32_t m_cbRecords;
    const char* m_pszMutex;
    char* m_pchRecords = nullptr;
    static inline uint32_t sm_cDieAtSave = 0;
};

// KV_JOURNAL_SET(journal, field, value): field = value, journaled; the field's
// own type gives the size.
#define KV_JOURNAL_SET(journal, field, value) \
    (journal).SetAt<std::remove_cv_t<std::remove_reference_t<decltype(field)>>>(static_cast<void*>(&(field)), (value))

// The journal of the pool mutex.
extern KvJournal g_jrnPools;
inline KvJournal& KvPoolJournal()
{
    return g_jrnPools;
}
