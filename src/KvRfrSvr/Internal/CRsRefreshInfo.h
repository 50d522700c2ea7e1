// CRsRefreshInfo.h - a node's connections: at most one server and a list of
// clients sorted by (target handle, queue process id).
#pragma once

#include <cstdint>

#include "CRsConnect.h"
#include "KvCppMfc/Shared/HybridList.h"

#pragma pack(push, 1)
// One entry of a client list, holding its connection by a counted reference.
class CRsConnectHln : public HListSimpleNode<CRsConnectHln> {
    KV_SHARED_CLASS(CRsConnectHln)
public:
    CRsConnectHln() {}
    explicit CRsConnectHln(const KvSmartPtr<CRsConnect>& ptr) : m_ptr(ptr) {}

    CRsConnectKey GetKey() const;
    int Compare(const CRsConnectHln& other) const;
    static int CompareKey(const CRsConnectKey& key, const CRsConnectHln& entry);

    KvSmartPtr<CRsConnect> m_ptr;
};

class CRsRefreshInfo : public CRsObj {
    KV_SHARED_CLASS(CRsRefreshInfo)
public:
    CRsRefreshInfo();
    // Destroys every client entry and releases the server; queued messages stay.
    ~CRsRefreshInfo();

    void ConnectServer(void* pvTarget, unsigned long idTarget, const KvSmartPtr<CRsQueue>& ptrQueue);
    void DisconnectServer();
    void ConnectClient(void* pvTarget, unsigned long idTarget, const KvSmartPtr<CRsQueue>& ptrQueue);
    void DisconnectClient(void* pvTarget, unsigned long idTarget);
    void DisconnectProcess();
    // The connections of the process dwPrcsId; returns how many left.
    uint32_t DisconnectProcessOf(uint32_t dwPrcsId);
    void NotifyServer(const KvSmartPtr<CRsNode>& ptrNode, unsigned long dwMsg, const KvSmartPtr<CRsValue>& ptrValue);
    void NotifyClients(const KvSmartPtr<CRsNode>& ptrNode, unsigned long dwMsg, const KvSmartPtr<CRsValue>& ptrValue);
    void GetServer(CRsConnectInfo* pInfo) const;
    int32_t GetClientCount() const { return static_cast<int32_t>(m_lstClients.GetCount()); }
    void EnumClients(CRsConnectInfo* pInfo, long cMax) const;

    KvSmartPtr<CRsConnect> m_ptrServer;
    HybridList<CRsConnectHln> m_lstClients;
};
#pragma pack(pop)

static_assert(sizeof(CRsConnectHln) == 12, "a client entry is 12 bytes");
KV_RS_PIN_OFFSET(CRsConnectHln, m_pNext, 4)
KV_RS_PIN_OFFSET(CRsConnectHln, m_ptr, 8)
static_assert(sizeof(CRsRefreshInfo) == 21 + 4 + 17, "refresh info layout");
KV_RS_PIN_OFFSET(CRsRefreshInfo, m_ptrServer, 21)
KV_RS_PIN_OFFSET(CRsRefreshInfo, m_lstClients, 25)
