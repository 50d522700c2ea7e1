// CRsNodeNotify.cpp - a node's connections, its notification walk and the
// clean-up of a departing process.
#include <vector>

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

// The messages of one node: its server's or its clients'.
// The children of a parent node in list order, for the walks' own stacks.
static void KvRsListChildren(const CRsNode* pNode, std::vector<CRsNode*>* pChildren)
{
    pChildren->clear();
    for (CRsNodeHln* pHln = pNode->m_ptrChildList->GetFirst(); pHln != nullptr; pHln = pHln->GetNext()) {
        KV_RS_CHECK(pHln->m_ptr.IsNotNull());
        if (pHln->m_ptr.IsNotNull())
            pChildren->push_back(pHln->m_ptr.Get());
    }
}

static void KvRsNotifyOne(CRsNode* pNode, unsigned long dwMsg, const KvSmartPtr<CRsValue>& ptrValue, bool bClients)
{
    if (pNode->m_ptrRefreshInfo.IsNull())
        return;
    const KvSmartPtr<CRsNode> ptrNode(pNode);
    if (bClients)
        pNode->m_ptrRefreshInfo->NotifyClients(ptrNode, dwMsg, ptrValue);
    else
        pNode->m_ptrRefreshInfo->NotifyServer(ptrNode, dwMsg, ptrValue);
}

// This node first, then its subtree depth first in child order, then, when asked
// with the through-reference bit, the referenced node's whole subtree (always
// recursive there, whatever the caller passed). Each message names the node
// where it was made. The walk keeps its own stack, so the depth of a tree never
// limits it; only a chain of reference crossings longer than KVRS_MAX_WALK_DEPTH
// (a reference cycle) is reported and cut.
void CRsNode::NotifyWalk(unsigned long dwMsg, const KvSmartPtr<CRsValue>& ptrValue, bool bRecursive, bool bClients,
                         uint32_t cDepth)
{
    // The common case, a node alone, needs no stack.
    const bool fDescends = bRecursive && IsParent() && m_ptrChildList.IsNotNull() && m_ptrChildList->GetCount() > 0;
    const bool fCrosses = (dwMsg & KVRS_NOTIFY_THROUGH_REF) != 0 && HasRef() && m_ptrRef.IsNotNull();
    if (!fDescends && !fCrosses) {
        KvRsNotifyOne(this, dwMsg, ptrValue, bClients);
        return;
    }
    struct Step {
        CRsNode* pNode;
        bool bRecursive;
        uint32_t cRefHops;
    };
    std::vector<Step> stack{{this, bRecursive, cDepth}};
    std::vector<CRsNode*> children;
    while (!stack.empty()) {
        const Step step = stack.back();
        stack.pop_back();
        CRsNode* pNode = step.pNode;
        KvRsNotifyOne(pNode, dwMsg, ptrValue, bClients);
        // Pushed before the children, so it is taken after the whole subtree.
        if ((dwMsg & KVRS_NOTIFY_THROUGH_REF) != 0 && pNode->HasRef() && pNode->m_ptrRef.IsNotNull()) {
            if (step.cRefHops + 1 >= KVRS_MAX_WALK_DEPTH)
                KV_RS_CHECK(step.cRefHops + 1 < KVRS_MAX_WALK_DEPTH);
            else
                stack.push_back({pNode->m_ptrRef.Get(), true, step.cRefHops + 1});
        }
        if (step.bRecursive && pNode->IsParent() && pNode->m_ptrChildList.IsNotNull()) {
            KvRsListChildren(pNode, &children);
            for (auto it = children.rbegin(); it != children.rend(); ++it)
                stack.push_back({*it, step.bRecursive, step.cRefHops});
        }
    }
}

// --- process clean-up -------------------------------------------------------------------

void CRsNode::DisconnectProcess(bool bRecursive)
{
    DisconnectProcessWalk(0, bRecursive);
}

uint32_t CRsNode::DisconnectProcessOf(uint32_t dwPrcsId, bool bRecursive)
{
    return DisconnectProcessWalk(dwPrcsId, bRecursive);
}

// References are not followed: every node is reached through its own parent, and
// a node is never its own ancestor, so the walk ends; it keeps its own stack so
// that no depth of tree can exhaust the thread's.
uint32_t CRsNode::DisconnectProcessWalk(uint32_t dwPrcsId, bool bRecursive)
{
    uint32_t cRemoved = 0;
    std::vector<CRsNode*> stack{this};
    std::vector<CRsNode*> children;
    while (!stack.empty()) {
        CRsNode* pNode = stack.back();
        stack.pop_back();
        if (pNode->m_ptrRefreshInfo.IsNotNull() && dwPrcsId == 0)
            pNode->m_ptrRefreshInfo->DisconnectProcess();  // this process's exit
        else if (pNode->m_ptrRefreshInfo.IsNotNull())
            cRemoved += pNode->m_ptrRefreshInfo->DisconnectProcessOf(dwPrcsId);
        if (!bRecursive || !pNode->IsParent() || pNode->m_ptrChildList.IsNull())
            continue;
        KvRsListChildren(pNode, &children);
        for (auto it = children.rbegin(); it != children.rend(); ++it)
            stack.push_back(*it);
    }
    return cRemoved;
}
