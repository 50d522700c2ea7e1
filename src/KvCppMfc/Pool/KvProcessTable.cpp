// KvProcessTable.cpp - see KvProcessTable.h.
#include "KvProcessTable.h"

#include "../Platform/KvWaitWord.h"
#include "../Platform/KvWakePipe.h"

KvProcessEntry* KvProcessTable()
{
    if (KvGranularity::_pvBase == nullptr || KvGranularity::_poinf == nullptr)
        return nullptr;
    return reinterpret_cast<KvProcessEntry*>(KvGranularity::_pvBase + KVGRAN_PROCESS_TABLE_OFFSET);
}

KvProcessPipe* KvProcessPipeOf(KvProcessEntry* pEntry)
{
    const auto iSlot = static_cast<uint32_t>(pEntry - KvProcessTable());
    return reinterpret_cast<KvProcessPipe*>(KvGranularity::_pvBase + KVGRAN_PROCESS_PIPES_OFFSET) + iSlot;
}

namespace {
// The fields the global mutex guards, through the write path: an entry added
// or removed by a call that is undone is undone with it. The wake word and the
// sleeper count, which waiters change without the mutex, are left out.
static_assert(offsetof(KvProcessEntry, dwWake) == 24, "the guarded fields come first");
void KvSaveEntry(KvProcessEntry* pEntry)
{
    KvsSave(pEntry, offsetof(KvProcessEntry, dwWake));
}

KvProcessTableInfo* KvTableInfo()
{
    return reinterpret_cast<KvProcessTableInfo*>(KvGranularity::_pvBase + KVGRAN_PROCESS_TABLE_INFO_OFFSET);
}
}  // namespace

KvProcessEntry* KvProcessTableAdd(uint32_t dwPid, uint64_t qwStartTime, uint32_t ofsDefaultQueue)
{
    KvProcessEntry* pTable = KvProcessTable();
    if (pTable == nullptr)
        return nullptr;
    for (uint32_t d = 0; d < KVGRAN_PROCESS_TABLE_SIZE; ++d) {
        KvProcessEntry& e = pTable[(dwPid + d) % KVGRAN_PROCESS_TABLE_SIZE];
        if (e.dwState != KVPRC_FREE)
            continue;
        KvProcessTableInfo* pInfo = KvTableInfo();
        if (d > pInfo->cMaxProbe) {
            KvsSave(pInfo, sizeof(*pInfo));
            pInfo->cMaxProbe = d;
        }
        KvSaveEntry(&e);
        e.qwStartTime = qwStartTime;
        e.ofsDefaultQueue = ofsDefaultQueue;
        e.dwDone = 0;
        e.cWaiters = 0;
        *KvProcessPipeOf(&e) = KvProcessPipe{0, 0};
        e.dwPid = dwPid;
        e.dwState = KVPRC_LIVE;  // last: a reaper never sees a half-made entry
        return &e;
    }
    return nullptr;
}

KvProcessEntry* KvProcessTableFindPid(uint32_t dwPid)
{
    KvProcessEntry* pTable = KvProcessTable();
    if (pTable == nullptr)
        return nullptr;
    const uint32_t cMaxProbe = KvTableInfo()->cMaxProbe;
    for (uint32_t d = 0; d <= cMaxProbe && d < KVGRAN_PROCESS_TABLE_SIZE; ++d) {
        KvProcessEntry* p = &pTable[(dwPid + d) % KVGRAN_PROCESS_TABLE_SIZE];
        if (p->dwPid == dwPid && p->dwState == KVPRC_LIVE)
            return p;
    }
    return nullptr;
}

KvProcessEntry* KvProcessTableFind(uint32_t dwPid, uint64_t qwStartTime)
{
    KvProcessEntry* pTable = KvProcessTable();
    for (uint32_t i = 0; pTable != nullptr && i < KVGRAN_PROCESS_TABLE_SIZE; ++i)
        if (pTable[i].dwState != KVPRC_FREE && pTable[i].dwPid == dwPid && pTable[i].qwStartTime == qwStartTime)
            return &pTable[i];
    return nullptr;
}

void KvProcessTableRemove(KvProcessEntry* pEntry)
{
    if (pEntry == nullptr)
        return;
    KvSaveEntry(pEntry);
    pEntry->dwState = KVPRC_FREE;
    pEntry->dwPid = 0;
    pEntry->qwStartTime = 0;
    pEntry->ofsDefaultQueue = 0;
    pEntry->dwDone = 0;
    *KvProcessPipeOf(pEntry) = KvProcessPipe{0, 0};
    // dwWake is left as it is: a sleeper that still holds the word (a thread of
    // a process that is being reaped) sees it move on, never a reset.
}

namespace {
// Wake words this thread moved on and has not woken yet; a notification
// reaches a handful of processes, and a repeated one is woken once.
constexpr int kcPendingMax = 16;
thread_local uint32_t* t_apwPending[kcPendingMax];
thread_local int t_cPending = 0;
// Wake pipes to ring, with the process each slot held when it was picked.
struct KvPendingRing {
    uint32_t iSlot;
    KvProcessKey key;
};
thread_local KvPendingRing t_aRings[kcPendingMax];
thread_local int t_cRings = 0;

// Only the first notifier after the receiver looked at its queues rings: the
// ones after it find the pipe readable already.
void KvPickRing(KvProcessEntry* p)
{
    KvProcessPipe* pPipe = KvProcessPipeOf(p);
    if (__atomic_load_n(&pPipe->dwHasPipe, __ATOMIC_SEQ_CST) == 0 ||
        __atomic_load_n(&pPipe->dwRung, __ATOMIC_SEQ_CST) != 0 ||
        __atomic_exchange_n(&pPipe->dwRung, 1, __ATOMIC_SEQ_CST) != 0)
        return;
    if (t_cRings == kcPendingMax)
        KvProcessTableWakeNow();
    t_aRings[t_cRings++] = KvPendingRing{static_cast<uint32_t>(p - KvProcessTable()), {p->dwPid, p->qwStartTime}};
}
}  // namespace

void KvProcessTableWake(uint32_t dwPid)
{
    KvProcessEntry* p = KvProcessTableFindPid(dwPid);
    if (p == nullptr)
        return;
    KvPickRing(p);
    if (__atomic_load_n(KvSleeperCount(p), __ATOMIC_SEQ_CST) == 0)
        return;
    __atomic_add_fetch(KvWakeWord(p), 1, __ATOMIC_SEQ_CST);
    for (int i = 0; i < t_cPending; ++i)
        if (t_apwPending[i] == KvWakeWord(p))
            return;
    if (t_cPending == kcPendingMax)
        KvProcessTableWakeNow();  // a wide fan-out wakes in batches
    t_apwPending[t_cPending++] = KvWakeWord(p);
}

void KvProcessTableWakeNow()
{
    for (int i = 0; i < t_cPending; ++i)
        KvWaitWordWakeAll(t_apwPending[i]);
    t_cPending = 0;
    for (int i = 0; i < t_cRings; ++i)
        KvWakePipe::Ring(t_aRings[i].iSlot, t_aRings[i].key);
    t_cRings = 0;
}

bool KvProcessTableWakesPending()
{
    return t_cPending != 0 || t_cRings != 0;
}
