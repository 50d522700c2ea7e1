// KvRsMsgApi.cpp - exported message and queue functions. The message functions
// test their handle; the queue functions deliberately do not, so a null queue
// ends in the frame's report.
#include "KvRfrSvr/Internal/CRsModel.h"
#include "KvRsHandles.h"
#include "KvRsReaper.h"

namespace {
KvSmartPtr<CRsQueue> KvRsQueue(void* h, unsigned long id)
{
    return KvRsHandle2<CRsQueue>(h, id);
}
}  // namespace

// The proxies come by value: the public signature says so.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
KvRsMsgProxy KvRsCreateMsg(unsigned long type, KvRsValueProxy value, KvRsNodeProxy changedNode, void* hTarget,
                           unsigned long idTarget)
{
    // Deliberately unframed: no mutex, no fault translation, nothing caught. The
    // caller holds KvRsRequestMutex when others use the library.
    KvRsMsgProxy result;
    if (!KvRsIsRunning())
        return result;
    {
        KvSmartPtr<CRsMsg> ptrMsg(KvNewObject);
        KV_CHECK(ptrMsg.IsNotNull(), KVRS_EXPORT_MODULE);
        ptrMsg->m_dwMsg = static_cast<uint32_t>(type);
        ptrMsg->m_pvMsgTarget = hTarget;
        ptrMsg->m_idMsgTarget = static_cast<uint32_t>(idTarget);
        ptrMsg->m_ptrNode = KvRsHandle2<CRsNode>(changedNode.GetHandle(), changedNode.GetId());
        ptrMsg->m_ptrValue = KvRsHandle2<CRsValue>(value.GetHandle(), value.GetId());
        KvRsSetProxy(result, ptrMsg);
    }
    // Under KvRsRequestMutex the message is final now, like any completed call.
    if (t_cKvFaultFrames == 0)
        KvTreeSectionCommit();
    return result;
}

unsigned long KvRsGetMsgType(void* hMsg, unsigned long idMsg)
{
    return KvRsFramedResult<unsigned long>(__LINE__, [&](unsigned long& dwResult) {
        CRsMsg* pMsg = KvRsBorrow<CRsMsg>(hMsg, idMsg);
        if (pMsg != nullptr)
            dwResult = pMsg->m_dwMsg;
    });
}

KvRsValueProxy KvRsGetMsgValue(void* hMsg, unsigned long idMsg)
{
    return KvRsFramedResult<KvRsValueProxy>(__LINE__, [&](KvRsValueProxy& result) {
        const CRsMsg* pMsg = KvRsBorrow<CRsMsg>(hMsg, idMsg);
        if (pMsg != nullptr)
            KvRsSetProxySafe(result, pMsg->m_ptrValue);
    });
}

KvRsNodeProxy KvRsGetMsgChangedNode(void* hMsg, unsigned long idMsg)
{
    return KvRsFramedResult<KvRsNodeProxy>(__LINE__, [&](KvRsNodeProxy& result) {
        const CRsMsg* pMsg = KvRsBorrow<CRsMsg>(hMsg, idMsg);
        if (pMsg != nullptr)
            KvRsSetProxySafe(result, pMsg->m_ptrNode);
    });
}

void KvRsGetMsgTarget(void* hMsg, unsigned long idMsg, void*& hTarget, unsigned long& idTarget)
{
    KvRsFramed(__LINE__, [&] {
        CRsMsg* pMsg = KvRsBorrow<CRsMsg>(hMsg, idMsg);
        if (pMsg == nullptr)
            return;
        hTarget = pMsg->m_pvMsgTarget;
        idTarget = pMsg->m_idMsgTarget;
    });
}

KvRsQueueProxy KvRsCreateQueue(const char* name)
{
    return KvRsFramedResult<KvRsQueueProxy>(__LINE__, [&](KvRsQueueProxy& result) {
        KvSmartPtr<CRsQueue> ptrQueue(KvNewObject);
        ptrQueue->SetName(KvRsTextOrNull(name));
        KvRsSetProxy(result, ptrQueue);
    });
}

// Pollers call KvRsGetMsgCount in a loop. A count read while no other thread
// holds the global mutex is the count that the call would read under it, so a
// poll that finds the mutex free reads without taking it: the poller then never
// writes the mutex's cache line and never delays the notifier it waits for.
// False when the mutex was held meanwhile (or anything looks wrong): the frame
// then reads under the mutex.
bool KvRsPollQueue(const CRsQueue* pQueue, long* pc)
{
    if (!KvRsIsRunning() || pQueue == nullptr || !KvGranularity::_IsPointerInComittedRange(pQueue))
        return false;
    const uint32_t dwSeq = KvRsBeginUnlockedRead();
    const CRsMsgList* pList = pQueue->m_ptrMsgList.Get();
    if (!KvGranularity::_IsPointerInComittedRange(pList))
        return false;
    const long c = pList->m_lst.GetCount();
    if (!KvRsEndUnlockedRead(dwSeq))
        return false;
    *pc = c;
    return true;
}

long KvRsGetMsgCount(void)
{
    KvRsRearmWaitFd();
    long c = 0;
    if (KvRsPollQueue(g_ptrThisPrcsQueue.Get(), &c))
        return c;
    return KvRsFramedResult<long>(__LINE__,
                                  [&](long& cResult) { cResult = KvRsUse(g_ptrThisPrcsQueue)->GetMsgCount(); });
}

KvRsMsgProxy KvRsGetMsg(void)
{
    KvRsRearmWaitFd();
    return KvRsFramedResult<KvRsMsgProxy>(__LINE__, [&](KvRsMsgProxy& result) {
        KvRsSetProxySafe(result, KvRsUse(g_ptrThisPrcsQueue)->GetMsg());
    });
}

long KvRsGetQueueMsgCount(void* hQueue, unsigned long idQueue)
{
    KvRsRearmWaitFd();
    return KvRsFramedResult<long>(__LINE__,
                                  [&](long& cResult) { cResult = KvRsUse(KvRsQueue(hQueue, idQueue))->GetMsgCount(); });
}

KvRsMsgProxy KvRsGetQueueMsg(void* hQueue, unsigned long idQueue)
{
    KvRsRearmWaitFd();
    return KvRsFramedResult<KvRsMsgProxy>(__LINE__, [&](KvRsMsgProxy& result) {
        KvSmartPtr<CRsQueue> ptrQueue = KvRsQueue(hQueue, idQueue);
        KvRsSetProxySafe(result, KvRsUse(ptrQueue)->GetMsg());
    });
}

unsigned long KvRsGetQueueProcessId(void* hQueue, unsigned long idQueue)
{
    return KvRsFramedResult<unsigned long>(__LINE__, [&](unsigned long& dwResult) {
        dwResult = KvRsUse(KvRsQueue(hQueue, idQueue))->GetProcessId();
    });
}

const char* KvRsGetQueueName(void* hQueue, unsigned long idQueue)
{
    return KvRsFramedResult<const char*>(__LINE__, [&](const char*& pszResult) {
        pszResult = KvRsUse(KvRsQueue(hQueue, idQueue))->GetName();
    });
}
