// CRsNodeNotify.cpp - a node's connections, its notification walk and the
// clean-up of a departing process.
#include "CRsNode.h"
#include "CRsNodeHln.h"
#include "CRsQueue.h"
#include "CRsRefreshInfo.h"
#include "CRsValue.h"

// --- connection wrappers -----------------------------------------------------------

void CRsNode::ConnectServer(void* pvTarget, unsigned long idTarget, const KvSmartPtr<CRsQueue>& ptrQueue)
{
    if (m_ptrRefreshInfo.IsNull())
        m_ptrRefreshInfo.NewObject();
    m_ptrRefreshInfo->ConnectServer(pvTarget, idTarget, ptrQueue);
}

void CRsNode::ConnectClient(void* pvTarget, unsigned long idTarget, const KvSmartPtr<CRsQueue>& ptrQueue)
{
    if (m_ptrRefreshInfo.IsNull())
        m_ptrRefreshInfo.NewObject();
    m_ptrRefreshInfo->ConnectClient(pvTarget, idTarget, ptrQueue);
}

void CRsNode::DisconnectServer()
{
    if (m_ptrRefreshInfo.IsNotNull())
        m_ptrRefreshInfo->DisconnectServer();
}

void CRsNode::DisconnectClient(void* pvTarget, unsigned long idTarget)
{
    if (m_ptrRefreshInfo.IsNotNull())
        m_ptrRefreshInfo->DisconnectClient(pvTarget, idTarget);
}

void CRsNode::GetServer(CRsConnectInfo* pInfo) const
{
    if (m_ptrRefreshInfo.IsNotNull())
        m_ptrRefreshInfo->GetServer(pInfo);
}

int32_t CRsNode::GetClientCount() const
{
    return m_ptrRefreshInfo.IsNotNull() ? m_ptrRefreshInfo->GetClientCount() : 0;
}

void CRsNode::EnumClients(CRsConnectInfo* pInfo, long cMax) const
{
    if (m_ptrRefreshInfo.IsNotNull())
        m_ptrRefreshInfo->EnumClients(pInfo, cMax);
}

// --- notification --------------------------------------------------------------------

void CRsNode::NotifyServer(unsigned long dwMsg, const KvSmartPtr<CRsValue>& ptrValue, bool bRecursive)
{
    NotifyWalk(dwMsg, ptrValue, bRecursive, false, 0);
}

void CRsNode::NotifyClients(unsigned long dwMsg, const KvSmartPtr<CRsValue>& ptrValue, bool bRecursive)
{
    NotifyWalk(dwMsg, ptrValue, bRecursive, true, 0);
}

// This node first, then its subtree depth first in child order, then, when asked
// with the through-reference bit, the referenced node's whole subtree (always
// recursive there, whatever the caller passed). Each message names the node
// where it was made. The depth bound only stops a reference cycle.
void CRsNode::NotifyWalk(unsigned long dwMsg, const KvSmartPtr<CRsValue>& ptrValue, bool bRecursive, bool bClients,
                         uint32_t cDepth)
{
    if (cDepth >= KVRS_MAX_WALK_DEPTH) {
        KV_RS_CHECK(cDepth < KVRS_MAX_WALK_DEPTH);
        return;
    }
    if (m_ptrRefreshInfo.IsNotNull()) {
        const KvSmartPtr<CRsNode> ptrThis(this);
        if (bClients)
            m_ptrRefreshInfo->NotifyClients(ptrThis, dwMsg, ptrValue);
        else
            m_ptrRefreshInfo->NotifyServer(ptrThis, dwMsg, ptrValue);
    }
    if (bRecursive && IsParent() && m_ptrChildList.IsNotNull()) {
        for (CRsNodeHln* pHln = m_ptrChildList->GetFirst(); pHln != nullptr; pHln = pHln->GetNext()) {
            KV_RS_CHECK(pHln->m_ptr.IsNotNull());
            if (pHln->m_ptr.IsNotNull())
                pHln->m_ptr->NotifyWalk(dwMsg, ptrValue, bRecursive, bClients, cDepth + 1);
        }
    }
    if ((dwMsg & KVRS_NOTIFY_THROUGH_REF) != 0 && HasRef() && m_ptrRef.IsNotNull())
        m_ptrRef->NotifyWalk(dwMsg, ptrValue, true, bClients, cDepth + 1);
}

// --- process clean-up -------------------------------------------------------------------

void CRsNode::DisconnectProcess(bool bRecursive)
{
    DisconnectProcessWalk(bRecursive, 0);
}

// References are not followed: every node is reached through its own parent.
void CRsNode::DisconnectProcessWalk(bool bRecursive, uint32_t cDepth)
{
    if (cDepth >= KVRS_MAX_WALK_DEPTH) {
        KV_RS_CHECK(cDepth < KVRS_MAX_WALK_DEPTH);
        return;
    }
    if (m_ptrRefreshInfo.IsNotNull())
        m_ptrRefreshInfo->DisconnectProcess();
    if (!bRecursive || !IsParent() || m_ptrChildList.IsNull())
        return;
    for (CRsNodeHln* pHln = m_ptrChildList->GetFirst(); pHln != nullptr; pHln = pHln->GetNext()) {
        KV_RS_CHECK(pHln->m_ptr.IsNotNull());
        if (pHln->m_ptr.IsNotNull())
            pHln->m_ptr->DisconnectProcessWalk(bRecursive, cDepth + 1);
    }
}
