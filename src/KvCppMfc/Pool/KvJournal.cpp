// KvJournal.cpp - see KvJournal.h.
#include "KvJournal.h"

#include <signal.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "../Diag/KvDiag.h"
#include "../Platform/KvProcess.h"

// Constant-initialised (constexpr constructor): ready before any start-up code.
KvJournal g_jrnPools(KVGRAN_POOL_JOURNAL_OFFSET, KVGRAN_POOL_JOURNAL_END, "OGRAN.MTX");

void KvJournal::ThrowFull(uint32_t cb) const
{
    char sz[120];
    snprintf(sz, sizeof(sz), "%s: the journal has no room for a change of %u bytes", m_pszMutex, cb);
    KvGranThrow(sz);
}

void KvJournal::NoteWriter(KvJournalHead* pHead)
{
    pHead->dwPid = KvGetCurrentProcessId();
}

void KvJournal::DieIfDue()
{
    if (--sm_cDieAtSave == 0)
        kill(getpid(), SIGKILL);
}

void KvJournal::ListRecords(uint32_t cbUsed, std::vector<uint32_t>* pvofs) const
{
    pvofs->clear();
    for (uint32_t ofs = 0; ofs + sizeof(KvJournalRecord) <= cbUsed && cbUsed <= m_cbRecords;) {
        KvJournalRecord rec;
        memcpy(&rec, Records() + ofs, sizeof(rec));
        const uint32_t dwKind = rec.dwKindAndSize & KVJRN_KIND_MASK;
        const uint32_t cb = rec.dwKindAndSize & ~KVJRN_KIND_MASK;
        const uint32_t cbData = dwKind == KVJRN_BYTES ? ((cb + 3u) & ~3u) : 0;
        const uint64_t ofsEnd = static_cast<uint64_t>(rec.ofs) + cb;
        if (dwKind > KVJRN_REUSED || ofsEnd > KvGranularity::_stMax || ofs + sizeof(rec) + cbData > cbUsed)
            break;
        pvofs->push_back(ofs);
        ofs += static_cast<uint32_t>(sizeof(rec)) + cbData;
    }
}

uint32_t KvJournal::RollBack(const char* pszWhy)
{
    KvJournalHead* pHead = Head();
    const uint32_t cbUsed = pHead->cbUsed;
    if (cbUsed == 0)
        return 0;
    std::vector<uint32_t> vofsRecords;
    ListRecords(cbUsed, &vofsRecords);
    for (auto it = vofsRecords.rbegin(); it != vofsRecords.rend(); ++it) {
        KvJournalRecord rec;
        memcpy(&rec, Records() + *it, sizeof(rec));
        memcpy(KvGranularity::_pvBase + rec.ofs, Records() + *it + sizeof(rec), rec.dwKindAndSize);
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
