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
// changes a handful of words.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "KvGranularity.h"

constexpr uint32_t KVGRAN_POOL_JOURNAL_OFFSET = 0x820;
constexpr uint32_t KVGRAN_POOL_JOURNAL_END = 0xF00;

#pragma pack(push, 1)
struct KvJournalHead {
    uint32_t cbUsed;       // bytes of records after the head; 0: nothing to undo
    uint32_t dwPid;        // the process whose records they are
    uint32_t cRolledBack;  // sections undone since the segment was made
    uint32_t dwReserved;
};
// A record: where, how many bytes, then the old bytes (padded to 4).
struct KvJournalRecord {
    uint32_t ofs;
    uint32_t cb;
};
#pragma pack(pop)
static_assert(sizeof(KvJournalHead) == 16 && sizeof(KvJournalRecord) == 8, "");
static_assert(KVGRAN_POOL_JOURNAL_OFFSET >= 0x800 + 32, "the pool journal lies after the build fingerprint");
static_assert(KVGRAN_POOL_JOURNAL_END <= 0xF00, "and before the process table's information");

class KvJournal {
public:
    // A journal over the bytes [ofsBegin, ofsEnd) of the header zone, guarded
    // by the mutex named pszMutex.
    constexpr KvJournal(uint32_t ofsBegin, uint32_t ofsEnd, const char* pszMutex)
        : m_ofsBegin(ofsBegin), m_cbRecords(ofsEnd - ofsBegin - static_cast<uint32_t>(sizeof(KvJournalHead))),
          m_pszMutex(pszMutex)
    {
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
        if (cbUsed == 0)
            NoteWriter(pHead);
        // The record is whole before it counts, and counts before the change: a
        // death anywhere leaves either no record or one that undoes nothing yet.
        __atomic_store_n(&pHead->cbUsed, cbUsed + cbRecord, __ATOMIC_RELEASE);
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
        if (__builtin_expect(sm_cDieAtSave != 0, 0))
            DieIfDue();
    }
    // Records the field, then stores the value (through KV_JOURNAL_SET, which
    // also takes the fields of packed structures).
    template <class T>
    void SetAt(void* pvField, const T& value)
    {
        Save(pvField, sizeof(T));
        memcpy(pvField, &value, sizeof(T));
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
    uint32_t RollBack(const char* pszWhy);
    bool IsEmpty() const { return Head()->cbUsed == 0; }
    uint32_t RolledBackCount() const { return Head()->cRolledBack; }

    // Test hook: the process kills itself with SIGKILL at the k-th Save from now
    // on, after the record and before the change (0: never).
    static void DieAtSave(uint32_t k) { sm_cDieAtSave = k; }

private:
    KvJournalHead* Head() const { return reinterpret_cast<KvJournalHead*>(KvGranularity::_pvBase + m_ofsBegin); }
    char* Records() const { return KvGranularity::_pvBase + m_ofsBegin + sizeof(KvJournalHead); }
    [[noreturn]] void ThrowFull(uint32_t cb) const;
    static void NoteWriter(KvJournalHead* pHead);
    static void DieIfDue();

    uint32_t m_ofsBegin;
    uint32_t m_cbRecords;
    const char* m_pszMutex;
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
