// CRsRefreshInfo.cpp - a node's server and sorted clients.
//
// A server is dropped by any one disconnect, however often it connected; a
// client entry goes only when its count of connects reaches 0. Searches use a
// plain (handle, process id) key, so a lookup creates nothing.
#include "CRsRefreshInfo.h"

#include "CRsQueue.h"
#include "KvCppMfc/Platform/KvPlatform.h"

// --- client entries --------------------------------------------------------------

CRsConnectKey CRsConnectHln::GetKey() const
{
    return m_ptr.IsNotNull() ? CRsConnectKeyOf(*m_ptr) : CRsConnectKey{0, 0};
}

int CRsConnectHln::Compare(const CRsConnectHln& other) const
{
    return CRsCompareConnectKeys(GetKey(), other.GetKey());
}

int CRsConnectHln::CompareKey(const CRsConnectKey& key, const CRsConnectHln& entry)
{
    return CRsCompareConnectKeys(key, entry.GetKey());
}

// --- refresh info -----------------------------------------------------------------------

CRsRefreshInfo::CRsRefreshInfo() {}

CRsRefreshInfo::~CRsRefreshInfo()
{
    while (CRsConnectHln* pHln = m_lstClients.RemoveFirst())
        KvDeleteShared(pHln);
    m_ptrServer.RmvRef();
}

// A second server connect reuses the server object: it takes the new target and
// queue and counts one more connect.
void CRsRefreshInfo::ConnectServer(void* pvTarget, unsigned long idTarget, const KvSmartPtr<CRsQueue>& ptrQueue)
{
    if (m_ptrServer.IsNull())
        m_ptrServer.NewObject();
    m_ptrServer->Connect(pvTarget, idTarget, ptrQueue);
}

void CRsRefreshInfo::DisconnectServer()
{
    if (m_ptrServer.IsNull())
        return;
    m_ptrServer->Disconnect();
    m_ptrServer.RmvRef();
}

// An existing client of the same key (same handle, same queue process) counts
// one more connect and takes the new id and queue.
void CRsRefreshInfo::ConnectClient(void* pvTarget, unsigned long idTarget, const KvSmartPtr<CRsQueue>& ptrQueue)
{
    const CRsConnectKey key{reinterpret_cast<uintptr_t>(pvTarget),
                            ptrQueue.IsNotNull() ? ptrQueue->m_dwPrcsId.Get() : 0};
    if (m_lstClients.GetCount() != 0) {
        CRsConnectHln* pHln = m_lstClients.FindKey(key);
        if (pHln != nullptr && pHln->m_ptr.IsNotNull()) {
            pHln->m_ptr->Connect(pvTarget, idTarget, ptrQueue);
            return;
        }
    }
    KvSmartPtr<CRsConnect> ptrConnect(KvNewObject);
    ptrConnect->Connect(pvTarget, idTarget, ptrQueue);
    m_lstClients.Insert(KvNewShared<CRsConnectHln>(ptrConnect));
}

// Only the calling process's client of that handle matches; the id takes no part.
void CRsRefreshInfo::DisconnectClient(void* pvTarget, unsigned long /*idTarget*/)
{
    const CRsConnectKey key{reinterpret_cast<uintptr_t>(pvTarget), KvGetCurrentProcessId()};
    QTopNode<CRsConnectHln>* pCover = nullptr;
    CRsConnectHln* pLeft = nullptr;
    CRsConnectHln* pHlnRmv =
        m_lstClients.FindKeyInsertionPoint(key, &pCover, &pLeft, KvHlSearchTypeFor(m_lstClients.GetSortType()));
    while (pHlnRmv != nullptr && CRsConnectHln::CompareKey(key, *pHlnRmv) == 0) {
        CRsConnectHln* pNext = pHlnRmv->GetNext();
        KV_RS_CHECK(pHlnRmv->m_ptr.IsNotNull());
        if (pHlnRmv->m_ptr.IsNotNull() && pHlnRmv->m_ptr->Disconnect()) {
            m_lstClients.Remove(pHlnRmv);
            KvDeleteShared(pHlnRmv);
        }
        pHlnRmv = pNext;
    }
}

// Removes the run of this process's clients that directly follows the key
// (handle 0, this process), and this process's server. The unlinked client
// entries are deliberately not destroyed: they keep their connections, and the
// connections their queues.
void CRsRefreshInfo::DisconnectProcess()
{
    const KvSmartPtr<CRsQueue>& ptrThis = g_ptrThisPrcsQueue;
    const uint32_t dwPrcsId = ptrThis.IsNotNull() ? ptrThis->m_dwPrcsId.Get() : 0;
    const CRsConnectKey key{0, dwPrcsId};
    for (;;) {
        QTopNode<CRsConnectHln>* pCover = nullptr;
        CRsConnectHln* pLeft = nullptr;
        CRsConnectHln* pHlnRmv =
            m_lstClients.FindKeyInsertionPoint(key, &pCover, &pLeft, KvHlSearchTypeFor(m_lstClients.GetSortType()));
        if (pHlnRmv == nullptr)
            break;
        KV_RS_CHECK(pHlnRmv->m_ptr.IsNotNull());
        if (pHlnRmv->m_ptr.IsNull() || pHlnRmv->m_ptr->GetQueueProcessId() != dwPrcsId)
            break;
        pHlnRmv->m_ptr->Disconnect();
        if (!m_lstClients.Remove(pHlnRmv))
            break;
    }
    if (m_ptrServer.IsNotNull() && m_ptrServer->IsThisPrcs()) {
        m_ptrServer->Disconnect();
        m_ptrServer.RmvRef();
    }
}

// Reaping an ended process: every client entry of its queues, wherever it lies
// in the list, and its server leave, entries and connections destroyed, so
// that its queues die with their last reference. (A process's own exit keeps
// its narrower rule above.)
uint32_t CRsRefreshInfo::DisconnectProcessOf(uint32_t dwPrcsId)
{
    uint32_t cRemoved = 0;
    CRsConnectHln* pHln = m_lstClients.GetFirst();
    while (pHln != nullptr) {
        CRsConnectHln* pNext = pHln->GetNext();
        if (pHln->m_ptr.IsNotNull() && pHln->m_ptr->GetQueueProcessId() == dwPrcsId) {
            pHln->m_ptr->DisconnectAll();
            m_lstClients.Remove(pHln);
            KvDeleteShared(pHln);
            ++cRemoved;
        }
        pHln = pNext;
    }
    if (m_ptrServer.IsNotNull() && m_ptrServer->GetQueueProcessId() == dwPrcsId) {
        m_ptrServer->DisconnectAll();
        m_ptrServer.RmvRef();
        ++cRemoved;
    }
    return cRemoved;
}

void CRsRefreshInfo::NotifyServer(const KvSmartPtr<CRsNode>& ptrNode, unsigned long dwMsg,
                                  const KvSmartPtr<CRsValue>& ptrValue)
{
    if (m_ptrServer.IsNotNull())
        m_ptrServer->Notify(ptrNode, dwMsg, ptrValue);
}

// Every client in list order, the notifying party included.
void CRsRefreshInfo::NotifyClients(const KvSmartPtr<CRsNode>& ptrNode, unsigned long dwMsg,
                                   const KvSmartPtr<CRsValue>& ptrValue)
{
    for (CRsConnectHln* pHln = m_lstClients.GetFirst(); pHln != nullptr; pHln = pHln->GetNext())
        if (pHln->m_ptr.IsNotNull())
            pHln->m_ptr->Notify(ptrNode, dwMsg, ptrValue);
}

void CRsRefreshInfo::GetServer(CRsConnectInfo* pInfo) const
{
    if (m_ptrServer.IsNotNull())
        m_ptrServer->GetData(pInfo);
}

// An entry without a connection uses up its slot but leaves its record alone.
void CRsRefreshInfo::EnumClients(CRsConnectInfo* pInfo, long cMax) const
{
    long i = 0;
    for (CRsConnectHln* pHln = m_lstClients.GetFirst(); pHln != nullptr && i < cMax; pHln = pHln->GetNext(), ++i)
        if (pHln->m_ptr.IsNotNull())
            pHln->m_ptr->GetData(pInfo != nullptr ? pInfo + i : nullptr);  // null is reported there
}
