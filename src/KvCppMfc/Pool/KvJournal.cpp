// KvJournal.cpp - see KvJournal.h.
#include "KvJournal.h"

#include <signal.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "../Diag/KvDiag.h"
#include "../Platform/KvProcess.h"

namespace {
uint32_t s_cDieAtSave = 0;

uint32_t KvPadded(uint32_t cb)
{
    return (cb + 3u) & ~3u;
}
}  // namespace

KvJournal::KvJournal(uint32_t ofsBegin, uint32_t ofsEnd, const char* pszMutex)
    : m_ofsBegin(ofsBegin), m_cbRecords(ofsEnd - ofsBegin - static_cast<uint32_t>(sizeof(KvJournalHead))),
      m_pszMutex(pszMutex)
{
}

KvJournalHead* KvJournal::Head() const
{
    return reinterpret_cast<KvJournalHead*>(KvGranularity::_pvBase + m_ofsBegin);
}

char* KvJournal::Records() const
{
    return KvGranularity::_pvBase + m_ofsBegin + sizeof(KvJournalHead);
}

void KvJournal::Save(const void* pv, uint32_t cb)
{
    const char* pch = static_cast<const char*>(pv);
    if (KvGranularity::_pvBase == nullptr || pch < KvGranularity::_pvBase ||
        pch + cb > KvGranularity::_pvBase + KvGranularity::_stMax)
        return;  // not the segment's (a caller's copy, a watcher object)
    KvJournalHead* pHead = Head();
    const uint32_t cbUsed = pHead->cbUsed;
    const uint32_t cbRecord = static_cast<uint32_t>(sizeof(KvJournalRecord)) + KvPadded(cb);
    if (cb > m_cbRecords || cbUsed + cbRecord > m_cbRecords) {
        char sz[120];
        snprintf(sz, sizeof(sz), "%s: the journal has no room for a change of %u bytes", m_pszMutex, cb);
        KvGranThrow(sz);
    }
    char* pRecord = Records() + cbUsed;
    const KvJournalRecord rec{KvGranularity::_CalcOffset(pch), cb};
    memcpy(pRecord, &rec, sizeof(rec));
    memcpy(pRecord + sizeof(rec), pch, cb);
    pHead->dwPid = KvGetCurrentProcessId();
    // The record is whole before it counts, and counts before the change: a
    // death anywhere leaves either no record or one that undoes nothing yet.
    __atomic_store_n(&pHead->cbUsed, cbUsed + cbRecord, __ATOMIC_RELEASE);
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    if (s_cDieAtSave != 0 && --s_cDieAtSave == 0)
        kill(getpid(), SIGKILL);
}

void KvJournal::Commit()
{
    KvJournalHead* pHead = Head();
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    if (pHead->cbUsed != 0)
        __atomic_store_n(&pHead->cbUsed, 0u, __ATOMIC_RELEASE);
}

uint32_t KvJournal::RollBack(const char* pszWhy)
{
    KvJournalHead* pHead = Head();
    const uint32_t cbUsed = pHead->cbUsed;
    if (cbUsed == 0)
        return 0;
    // Walk forward to find the records, then write them back newest first; a
    // record that does not fit the journal or the segment ends the walk (it
    // can only be a torn one, which never counted).
    std::vector<uint32_t> vofsRecords;
    for (uint32_t ofs = 0; ofs + sizeof(KvJournalRecord) <= cbUsed && ofs <= m_cbRecords;) {
        KvJournalRecord rec;
        memcpy(&rec, Records() + ofs, sizeof(rec));
        const uint64_t ofsEnd = static_cast<uint64_t>(rec.ofs) + rec.cb;
        if (rec.cb > m_cbRecords || ofsEnd > KvGranularity::_stMax || ofs + sizeof(rec) + rec.cb > cbUsed)
            break;
        vofsRecords.push_back(ofs);
        ofs += static_cast<uint32_t>(sizeof(rec)) + KvPadded(rec.cb);
    }
    for (auto it = vofsRecords.rbegin(); it != vofsRecords.rend(); ++it) {
        KvJournalRecord rec;
        memcpy(&rec, Records() + *it, sizeof(rec));
        memcpy(KvGranularity::_pvBase + rec.ofs, Records() + *it + sizeof(rec), rec.cb);
    }
    char sz[200];
    snprintf(sz, sizeof(sz), "%s: undid the unfinished change of process %u (%zu writes; %s)", m_pszMutex, pHead->dwPid,
             vofsRecords.size(), pszWhy);
    _DebugOutput(sz);
    pHead->cRolledBack += 1;
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    __atomic_store_n(&pHead->cbUsed, 0u, __ATOMIC_RELEASE);
    return static_cast<uint32_t>(vofsRecords.size());
}

void KvJournal::DieAtSave(uint32_t k)
{
    s_cDieAtSave = k;
}

KvJournal& KvPoolJournal()
{
    static KvJournal* s_p = new KvJournal(KVGRAN_POOL_JOURNAL_OFFSET, KVGRAN_POOL_JOURNAL_END, "OGRAN.MTX");
    return *s_p;
}
