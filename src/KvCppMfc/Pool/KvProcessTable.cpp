// KvProcessTable.cpp - see KvProcessTable.h.
#include "KvProcessTable.h"

KvProcessEntry* KvProcessTable()
{
    if (KvGranularity::_pvBase == nullptr || KvGranularity::_poinf == nullptr)
        return nullptr;
    return reinterpret_cast<KvProcessEntry*>(KvGranularity::_pvBase + KVGRAN_PROCESS_TABLE_OFFSET);
}

KvProcessEntry* KvProcessTableAdd(uint32_t dwPid, uint64_t qwStartTime, uint32_t ofsDefaultQueue)
{
    KvProcessEntry* pTable = KvProcessTable();
    if (pTable == nullptr)
        return nullptr;
    for (uint32_t i = 0; i < KVGRAN_PROCESS_TABLE_SIZE; ++i) {
        KvProcessEntry& e = pTable[i];
        if (e.dwState != KVPRC_FREE)
            continue;
        e.qwStartTime = qwStartTime;
        e.ofsDefaultQueue = ofsDefaultQueue;
        e.dwDone = 0;
        e.dwWake = 0;
        e.dwReserved = 0;
        e.dwPid = dwPid;
        e.dwState = KVPRC_LIVE;  // last: a reaper never sees a half-made entry
        return &e;
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
    pEntry->dwState = KVPRC_FREE;
    pEntry->dwPid = 0;
    pEntry->qwStartTime = 0;
    pEntry->ofsDefaultQueue = 0;
    pEntry->dwDone = 0;
}
