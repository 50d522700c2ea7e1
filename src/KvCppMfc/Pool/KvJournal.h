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
    // Requires: the segment is attached. A journal over the bytes [ofsBegin,
    // ofsEnd) of the header zone, guarded by the mutex named pszMutex.
    KvJournal(uint32_t ofsBegin, uint32_t ofsEnd, const char* pszMutex);

    // Requires: the caller owns the mutex. Effects: records the current bytes
    // of [pv, pv + cb) when they lie in the segment. Throws (through
    // KvGranThrow) when the journal is full, before anything is changed.
    void Save(const void* pv, uint32_t cb);
    // Records the field, then stores the value (through KV_JOURNAL_SET, which
    // also takes the fields of packed structures).
    template <class T>
    void SetAt(void* pvField, const T& value)
    {
        Save(pvField, sizeof(T));
        memcpy(pvField, &value, sizeof(T));
    }
    // The section completed: its records are discarded.
    void Commit();
    // Writes the records back, newest first, and discards them; reports what
    // it undid on the debug output, naming pszWhy. Returns the records undone.
    uint32_t RollBack(const char* pszWhy);
    bool IsEmpty() const { return Head()->cbUsed == 0; }
    uint32_t RolledBackCount() const { return Head()->cRolledBack; }

    // Test hook: the process kills itself with SIGKILL at the k-th Save from now
    // on, after the record and before the change (0: never).
    static void DieAtSave(uint32_t k);

private:
    KvJournalHead* Head() const;
    char* Records() const;
    uint32_t m_ofsBegin;
    uint32_t m_cbRecords;
    const char* m_pszMutex;
};

// KV_JOURNAL_SET(journal, field, value): field = value, journaled; the field's
// own type gives the size.
#define KV_JOURNAL_SET(journal, field, value) \
    (journal).SetAt<std::remove_cv_t<std::remove_reference_t<decltype(field)>>>(static_cast<void*>(&(field)), (value))

// The journal of the pool mutex.
KvJournal& KvPoolJournal();
