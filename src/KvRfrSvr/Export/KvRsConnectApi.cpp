// KvRsConnectApi.cpp - exported connection and notification functions.
#include <cstddef>

#include "KvRfrSvr/Internal/CRsModel.h"
#include "KvRsHandles.h"

// The model fills the caller's records through its own mirror of the public
// record; the two must agree to the byte.
static_assert(sizeof(KVRSCONNECTINFO) == sizeof(CRsConnectInfo), "connection record size");
static_assert(offsetof(KVRSCONNECTINFO, pvTarget) == offsetof(CRsConnectInfo, pvTarget), "");
static_assert(offsetof(KVRSCONNECTINFO, idTarget) == offsetof(CRsConnectInfo, idTarget), "");
static_assert(sizeof(KvRsQueueProxy) == offsetof(CRsConnectInfo, pvTarget), "");

namespace {
KvSmartPtr<CRsNode> KvRsNode(void* h, unsigned long id)
{
    return KvRsHandle2<CRsNode>(h, id);
}

CRsConnectInfo* KvRsModelRecord(KVRSCONNECTINFO* pInfo)
{
    return reinterpret_cast<CRsConnectInfo*>(pInfo);
}

// Sends through the node, and for structural changes (0x2, 0x4 or 0x8) also to the
// root's clients, always without the caller's flag: deliberate.
void KvRsNotifyClients(CRsNode* pNode, unsigned long type, const KvSmartPtr<CRsValue>& ptrValue, bool fFlag)
{
    pNode->NotifyClients(type, ptrValue, fFlag);
    if ((type & 0xE) != 0)
        KvRsUse(GetRoot())->NotifyClients(type, ptrValue, false);
}
}  // namespace

void KvRsConnectServer(void* hNode, unsigned long idNode, void* hTarget, unsigned long idTarget)
{
    KvRsFramed(__LINE__, [&] {
        KvSmartPtr<CRsNode> ptrNode = KvRsNode(hNode, idNode);
        if (ptrNode.IsNotNull())
            ptrNode->ConnectServer(hTarget, idTarget, g_ptrThisPrcsQueue);
    });
}

void KvRsConnectServerToQueue(void* hNode, unsigned long idNode, void* hTarget, unsigned long idTarget, void* hQueue,
                              unsigned long idQueue)
{
    KvRsFramed(__LINE__, [&] {
        KvSmartPtr<CRsQueue> ptrQueue = KvRsHandle2<CRsQueue>(hQueue, idQueue);
        KvSmartPtr<CRsNode> ptrNode = KvRsNode(hNode, idNode);
        if (ptrNode.IsNotNull())
            ptrNode->ConnectServer(hTarget, idTarget, ptrQueue);
    });
}

void KvRsGetServer(void* hNode, unsigned long idNode, KVRSCONNECTINFO* pInfo)
{
    KvRsFramed(__LINE__, [&] {
        KvSmartPtr<CRsNode> ptrNode = KvRsNode(hNode, idNode);
        if (ptrNode.IsNotNull())
            ptrNode->GetServer(KvRsModelRecord(pInfo));
    });
}

void KvRsDisconnectServer(void* hNode, unsigned long idNode)
{
    KvRsFramed(__LINE__, [&] {
        KvSmartPtr<CRsNode> ptrNode = KvRsNode(hNode, idNode);
        if (ptrNode.IsNotNull())
            ptrNode->DisconnectServer();
    });
}

void KvRsConnectClient(void* hNode, unsigned long idNode, void* hTarget, unsigned long idTarget)
{
    KvRsFramed(__LINE__, [&] {
        KvSmartPtr<CRsNode> ptrNode = KvRsNode(hNode, idNode);
        if (ptrNode.IsNotNull())
            ptrNode->ConnectClient(hTarget, idTarget, g_ptrThisPrcsQueue);
    });
}

void KvRsConnectClientToQueue(void* hNode, unsigned long idNode, void* hTarget, unsigned long idTarget, void* hQueue,
                              unsigned long idQueue)
{
    KvRsFramed(__LINE__, [&] {
        KvSmartPtr<CRsQueue> ptrQueue = KvRsHandle2<CRsQueue>(hQueue, idQueue);
        KvSmartPtr<CRsNode> ptrNode = KvRsNode(hNode, idNode);
        if (ptrNode.IsNotNull())
            ptrNode->ConnectClient(hTarget, idTarget, ptrQueue);
    });
}

void KvRsDisconnectClient(void* hNode, unsigned long idNode, void* hTarget, unsigned long idTarget)
{
    KvRsFramed(__LINE__, [&] {
        KvSmartPtr<CRsNode> ptrNode = KvRsNode(hNode, idNode);
        if (ptrNode.IsNotNull())
            ptrNode->DisconnectClient(hTarget, idTarget);
    });
}

long KvRsGetClientCount(void* hNode, unsigned long idNode)
{
    return KvRsFramedResult<long>(__LINE__, [&](long& cResult) {
        CRsNode* pNode = KvRsBorrow<CRsNode>(hNode, idNode);
        if (pNode != nullptr)
            cResult = pNode->GetClientCount();
    });
}

void KvRsEnumClients(void* hNode, unsigned long idNode, KVRSCONNECTINFO* aInfo, long cInfo)
{
    KvRsFramed(__LINE__, [&] {
        KvSmartPtr<CRsNode> ptrNode = KvRsNode(hNode, idNode);
        if (ptrNode.IsNotNull())
            ptrNode->EnumClients(KvRsModelRecord(aInfo), cInfo);
    });
}

void KvRsNotifyNodeServer(void* hNode, unsigned long idNode, unsigned long type, void* hValue, unsigned long idValue)
{
    KvRsFramed(__LINE__, [&] {
        KvSmartPtr<CRsNode> ptrNode = KvRsNode(hNode, idNode);
        KvSmartPtr<CRsValue> ptrValue = KvRsHandle2<CRsValue>(hValue, idValue);
        KvRsUse(ptrNode)->NotifyServer(type, ptrValue, false);
    });
}

void KvRsNotifyNodeClients(void* hNode, unsigned long idNode, unsigned long type, void* hValue, unsigned long idValue,
                           bool fFlag)
{
    KvRsFramed(__LINE__, [&] {
        KvSmartPtr<CRsNode> ptrNode = KvRsNode(hNode, idNode);
        KvSmartPtr<CRsValue> ptrValue = KvRsHandle2<CRsValue>(hValue, idValue);
        KvRsNotifyClients(KvRsUse(ptrNode), type, ptrValue, fFlag);
    });
}
