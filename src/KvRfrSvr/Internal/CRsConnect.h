// CRsConnect.h - one party connected to a node (its server or one of its
// clients): its target pair and the queue that receives its messages.
#pragma once

#include <cstdint>

#include "CRsObj.h"

class CRsNode;
class CRsQueue;
class CRsValue;

// The record of one connection as callers receive it: a queue proxy (handle,
// id), then the target pair. It lives in the caller's memory, not in the segment,
// so it keeps the natural alignment of the public KVRSCONNECTINFO, whose layout it
// mirrors exactly (the export layer pins the match). Filling the proxy part
// releases what it named and takes one counted reference on the queue.
struct CRsConnectInfo {
    void* m_pvQueue;
    uint32_t m_dwQueueId;
    void* pvTarget;
    unsigned long idTarget;
};

#pragma pack(push, 1)
class CRsConnect : public CRsObj {
    KV_SHARED_CLASS(CRsConnect)
public:
    CRsConnect();
    ~CRsConnect();

    void Connect(void* pvTarget, unsigned long idTarget, const KvSmartPtr<CRsQueue>& ptrQueue);
    // Counts one disconnect; at 0 the connection's messages leave its queue and
    // the result is true.
    bool Disconnect();
    // Whether the queue belongs to this process, judged by the default queue's
    // process id.
    bool IsThisPrcs() const;
    bool IsOfProcess(uint32_t dwPrcsId) const;  // its queue belongs to that process
    // Undoes every connect at once (its process ended): the messages go.
    void DisconnectAll();
    void Notify(const KvSmartPtr<CRsNode>& ptrNode, unsigned long dwMsg, const KvSmartPtr<CRsValue>& ptrValue);
    void GetData(CRsConnectInfo* pBuf) const;
    // The queue's owner, 0 without a queue (the second half of the client key).
    uint32_t GetQueueProcessId() const;

    KvSmartPtr<CRsQueue> m_ptrQueue;
    KvsWord<void*> m_pvTarget;
    KvsWord<uint32_t> m_idTarget;
    KvsWord<int32_t> m_cConnect;
};
#pragma pack(pop)

static_assert(sizeof(CRsConnectInfo) == 4 * KV_RS_PTR, "KVRSCONNECTINFO is 16 bytes in the i386 build");
static_assert(offsetof(CRsConnectInfo, m_dwQueueId) == KV_RS_PTR, "");
static_assert(offsetof(CRsConnectInfo, pvTarget) == 2 * KV_RS_PTR, "");
static_assert(offsetof(CRsConnectInfo, idTarget) == 3 * KV_RS_PTR, "");

static_assert(sizeof(CRsConnect) == 21 + 4 + KV_RS_PTR + 4 + 4, "connection layout");
KV_RS_PIN_OFFSET(CRsConnect, m_ptrQueue, 21)
KV_RS_PIN_OFFSET(CRsConnect, m_pvTarget, 25)
KV_RS_PIN_OFFSET(CRsConnect, m_idTarget, 25 + KV_RS_PTR)
KV_RS_PIN_OFFSET(CRsConnect, m_cConnect, 29 + KV_RS_PTR)

// The sort key of a client: target handle as an unsigned pointer-sized number,
// then the process id of the connection's queue. Target id and queue identity
// are deliberately not part of it.
struct CRsConnectKey {
    uintptr_t m_uTarget;
    KvsWord<uint32_t> m_dwPrcsId;
};
int CRsCompareConnectKeys(const CRsConnectKey& a, const CRsConnectKey& b);
CRsConnectKey CRsConnectKeyOf(const CRsConnect& connect);
