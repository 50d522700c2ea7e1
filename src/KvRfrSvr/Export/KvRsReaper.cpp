// KvRsReaper.cpp - see KvRsReaper.h.
#include "KvRsReaper.h"

#include <cstdio>
#include <cstring>

#include "KvCppMfc/KvInitOrder.h"
#include "KvCppMfc/Platform/KvFault.h"
#include "KvCppMfc/Platform/KvLivenessToken.h"
#include "KvCppMfc/Platform/KvProcess.h"
#include "KvCppMfc/Platform/KvWakePipe.h"
#include "KvCppMfc/Pool/KvProcessTable.h"
#include "KvRfrSvr/Internal/CRsModel.h"
#include "KvRsFrame.h"

bool g_fKvRsReapPending = false;

namespace {

KV_INIT_STATICS KvLivenessToken s_token;  // this process's (made before the start-up runs)
KvProcessEntry* s_pOwnEntry = nullptr;    // this process's entry, while registered

bool KvRsIsOwn(const KvProcessEntry& e)
{
    return &e == s_pOwnEntry;
}

bool KvRsHasEnded(const KvProcessEntry& e)
{
    return e.dwState == KVPRC_ENDED ||
           (e.dwState == KVPRC_LIVE && !KvLivenessToken::IsAlive(KvProcessKey{e.dwPid, e.qwStartTime}));
}

CRsQueue* KvRsQueueAt(uint32_t ofs)
{
    return ofs != 0 ? static_cast<CRsQueue*>(KvGranularity::_CalcPtr(ofs)) : nullptr;
}

// Every process releases one root reference at exit; the root dies (and its
// slot is cleared) when that was its last.
void KvRsReleaseRootReference()
{
    void* pvRoot = KvGranularity::_GetRoot(KVRS_ROOT_SLOT);
    if (pvRoot != nullptr && KvReleaseSmartUnit(static_cast<KvSmartPtrTarget*>(pvRoot)))
        KvGranularity::_SetRoot(nullptr, KVRS_ROOT_SLOT);
}

// Drops every message of a queue that nobody will ever read. With fCommit, in
// batches that are each final: any number of them is a consistent tree, and a
// queue of a million messages never fills the journal.
void KvRsPurgeQueue(CRsQueue* pQueue, bool fCommit)
{
    if (!fCommit) {
        pQueue->RemoveAllMsgs();
        return;
    }
    for (uint32_t c = 1; pQueue->GetMsgCount() > 0; ++c) {
        pQueue->m_ptrMsgList->RemoveFirst();  // not GetMsg: the queue is another process's
        if (c % 4096 == 0)
            KvTreeSectionCommit();
    }
}

// Each step is recorded as done before the next begins, so that a reaper that
// dies half-way leaves the remaining steps, and only those, to the next. A step
// is committed before it is recorded: a reaper that dies inside one has it
// undone, and the record still says it is to be done.
KvRsReaped KvRsReapOne(KvProcessEntry& e)
{
    KvRsReaped r{KvProcessKey{e.dwPid, e.qwStartTime}, 0, 0};
    e.dwState = KVPRC_ENDED;
    CRsQueue* pQueue = KvRsQueueAt(e.ofsDefaultQueue);
    const int32_t cBefore = pQueue != nullptr && (e.dwDone & KVPRC_DONE_QUEUE) == 0 ? pQueue->GetMsgCount() : 0;
    if ((e.dwDone & KVPRC_DONE_DISCONNECTED) == 0) {
        KvSmartPtr<CRsNode> ptrRoot = GetRoot();
        if (ptrRoot.IsNotNull())
            r.cConnections = ptrRoot->DisconnectProcessOf(e.dwPid, true);
        KvTreeSectionCommit();
        e.dwDone |= KVPRC_DONE_DISCONNECTED;
    }
    // A process that still runs under the same pid and start time replaced its
    // image (exec): it never exited, so it never gives back a root reference;
    // typically a fork child that went on to exec another program.
    const bool fExeced = KvProcessStartTime(e.dwPid) == e.qwStartTime;
    if ((e.dwDone & KVPRC_DONE_ROOT) == 0) {
        if (!fExeced)
            KvRsReleaseRootReference();
        KvTreeSectionCommit();
        e.dwDone |= KVPRC_DONE_ROOT;
    }
    if ((e.dwDone & KVPRC_DONE_QUEUE) == 0) {
        int32_t cLeft = 0;
        if (pQueue != nullptr && pQueue->m_cSmart == 1)
            KvRsPurgeQueue(pQueue, true);  // the queue dies with this reference: its messages first
        if (pQueue != nullptr) {
            // The queue outlives this reference only when someone else holds it.
            if (pQueue->m_cSmart > 1)
                cLeft = pQueue->GetMsgCount();
            KvReleaseSmartUnit(pQueue);
        }
        r.cMessages = cBefore - cLeft;
        KvTreeSectionCommit();
        e.dwDone |= KVPRC_DONE_QUEUE;
    }
    if ((e.dwDone & KVPRC_DONE_ATTACHMENT) == 0) {
        KvGranularity::_DecCountAllocSharedMem();
        KvTreeSectionCommit();
        e.dwDone |= KVPRC_DONE_ATTACHMENT;
    }
    KvLivenessToken::Remove(r.key);
    KvWakePipe::Remove(r.key);
    KvProcessTableRemove(&e);
    return r;
}

void KvRsWarn(const char* pszWhat)
{
    char sz[300];
    snprintf(sz, sizeof(sz), "KvRfrSvr.dll: %s; should this process be killed, its connections stay in the tree\n",
             pszWhat);
    KvWriteStderr(sz, strlen(sz));
}

}  // namespace

std::vector<KvRsReaped> KvRsReapEndedProcesses()
{
    std::vector<KvRsReaped> v;
    KvProcessEntry* pTable = KvProcessTable();
    for (uint32_t i = 0; pTable != nullptr && i < KVGRAN_PROCESS_TABLE_SIZE; ++i) {
        KvProcessEntry& e = pTable[i];
        if (e.dwState != KVPRC_FREE && !KvRsIsOwn(e) && KvRsHasEnded(e))
            v.push_back(KvRsReapOne(e));
    }
    g_fKvRsReapPending = false;
    return v;
}

namespace {
std::vector<KvRsReaped>& KvRsStartUpReaps()
{
    static std::vector<KvRsReaped>* s_p = new std::vector<KvRsReaped>;  // never destroyed
    return *s_p;
}
}  // namespace

void KvRsReapAtStartUp()
{
    KvRsStartUpReaps() = KvRsReapEndedProcesses();
}

const std::vector<KvRsReaped>& KvRsReapedAtStartUp()
{
    return KvRsStartUpReaps();
}

std::vector<KvProcessKey> KvRsEndedProcesses()
{
    std::vector<KvProcessKey> v;
    KvProcessEntry* pTable = KvProcessTable();
    for (uint32_t i = 0; pTable != nullptr && i < KVGRAN_PROCESS_TABLE_SIZE; ++i)
        if (pTable[i].dwState != KVPRC_FREE && !KvRsIsOwn(pTable[i]) && KvRsHasEnded(pTable[i]))
            v.push_back(KvProcessKey{pTable[i].dwPid, pTable[i].qwStartTime});
    return v;
}

bool KvRsRegisterThisProcess()
{
    const KvProcessKey key = KvThisProcessKey();
    if (!s_token.Take(key)) {
        KvRsWarn("no liveness token could be made");
        return false;
    }
    const KvSmartPtr<CRsQueue>& ptrQueue = g_ptrThisPrcsQueue;
    s_pOwnEntry = KvProcessTableAdd(key.dwPid, key.qwStartTime,
                                    ptrQueue.IsNotNull() ? KvGranularity::_CalcOffset(ptrQueue.Get()) : 0);
    if (s_pOwnEntry == nullptr) {
        s_token.Drop();
        KvRsWarn("the table of attached processes is full");
        return false;
    }
    return true;
}

void KvRsMarkExitStep(uint32_t dwDone)
{
    if (s_pOwnEntry != nullptr)
        s_pOwnEntry->dwDone |= dwDone;
}

void KvRsUnregisterThisProcess()
{
    KvProcessTableRemove(s_pOwnEntry);
    s_pOwnEntry = nullptr;
    s_token.Drop();
}

KvProcessEntry* KvRsOwnEntry()
{
    return s_pOwnEntry;
}

void KvRsForgetParentToken()
{
    s_token.ForgetAfterFork();
    s_pOwnEntry = nullptr;
}

namespace {
// Ended processes whose default queue still holds messages that nobody will
// ever take: the queue of each, or null.
std::vector<CRsQueue*> KvRsPurgeableQueues()
{
    std::vector<CRsQueue*> v;
    KvProcessEntry* pTable = KvProcessTable();
    for (uint32_t i = 0; pTable != nullptr && i < KVGRAN_PROCESS_TABLE_SIZE; ++i) {
        KvProcessEntry& e = pTable[i];
        if (e.dwState == KVPRC_FREE || KvRsIsOwn(e) || !KvRsHasEnded(e))
            continue;
        e.dwState = KVPRC_ENDED;
        g_fKvRsReapPending = true;
        CRsQueue* pQueue = KvRsQueueAt(e.ofsDefaultQueue);
        if ((e.dwDone & (KVPRC_DONE_PURGED | KVPRC_DONE_QUEUE)) == 0 && pQueue != nullptr && pQueue->GetMsgCount() > 0)
            v.push_back(pQueue);
    }
    return v;
}
}  // namespace

__thread bool t_fKvRsRetried = false;

bool KvRsReclaimFromEndedProcesses()
{
    static thread_local bool t_fInside = false;
    if (t_fInside || !KvRsGlobalOwned())
        return false;
    const std::vector<CRsQueue*> vpQueues = KvRsPurgeableQueues();
    if (vpQueues.empty())
        return false;
    // The blocks of the messages dropped inside a call that has changed the
    // tree already would stay allocated until that call ends: the call is
    // undone, the messages dropped, and the call run again (KvRsFramed).
    const bool fEmpty = KvTreeSectionIsEmpty();
    if (!fEmpty && t_cKvFaultFrames == 1 && !t_fKvRsRetried && !KvTreeSectionWasSplit())
        throw KvRsRetryAfterReclaim{};
    t_fInside = true;
    for (CRsQueue* pQueue : vpQueues)
        KvRsPurgeQueue(pQueue, fEmpty);
    if (fEmpty)
        KvTreeSectionCommit();  // the frees run now, for the allocation that waits
    KvProcessEntry* pTable = KvProcessTable();
    for (uint32_t i = 0; pTable != nullptr && i < KVGRAN_PROCESS_TABLE_SIZE; ++i)
        if (pTable[i].dwState == KVPRC_ENDED)
            pTable[i].dwDone |= KVPRC_DONE_PURGED;
    t_fInside = false;
    return true;
}

void KvRsReclaimForRetry()
{
    t_fKvRsRetried = true;
    KvTreeSectionRollBack("a pool ran out; what ended processes left is given back first");
    KvRsReclaimFromEndedProcesses();
}

void KvRsReapPendingNow()
{
    KvRsGlobalLock lock;
    KvRsException ex{nullptr, nullptr};
    if (KvRsRunGuarded([] { KvRsReapEndedProcesses(); }, &ex) == KvRsCaught::RsException)
        KvRsReportException(ex);
}
