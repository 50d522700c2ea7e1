// CRsConnect.cpp - a connection: its count of connects, its messages and its
// record for callers.
#include "CRsConnect.h"

#include "CRsMsg.h"
#include "CRsMsgList.h"
#include "CRsNode.h"
#include "CRsQueue.h"
#include "CRsValue.h"

CRsConnect::CRsConnect() : m_pvTarget(nullptr), m_idTarget(0), m_cConnect(0) {}

CRsConnect::~CRsConnect()
{
    m_ptrQueue.RmvRef();
}

void CRsConnect::Connect(void* pvTarget, unsigned long idTarget, const KvSmartPtr<CRsQueue>& ptrQueue)
{
    m_ptrQueue = ptrQueue;
    m_pvTarget = pvTarget;
    m_idTarget = static_cast<uint32_t>(idTarget);
    m_cConnect += 1;
    KV_RS_CHECK(m_ptrQueue.IsNotNull());
}

bool CRsConnect::Disconnect()
{
    KV_RS_CHECK(m_ptrQueue.IsNotNull());
    m_cConnect -= 1;
    if (m_cConnect != 0)
        return false;
    if (m_ptrQueue.IsNotNull())
        m_ptrQueue->RemoveMsgsForTarget(m_pvTarget, m_idTarget);
    return true;
}

void CRsConnect::DisconnectAll()
{
    m_cConnect = 1;
    Disconnect();
}

bool CRsConnect::IsThisPrcs() const
{
    const KvSmartPtr<CRsQueue>& ptrThis = g_ptrThisPrcsQueue;
    return ptrThis.IsNotNull() && IsOfProcess(ptrThis->m_dwPrcsId);
}

bool CRsConnect::IsOfProcess(uint32_t dwPrcsId) const
{
    KV_RS_CHECK(m_ptrQueue.IsNotNull());
    return m_ptrQueue.IsNotNull() && m_ptrQueue->m_dwPrcsId == dwPrcsId;
}

uint32_t CRsConnect::GetQueueProcessId() const
{
    return m_ptrQueue.IsNotNull() ? m_ptrQueue->m_dwPrcsId.Get() : 0;
}

// One new message per call; earlier ones are never merged or replaced.
void CRsConnect::Notify(const KvSmartPtr<CRsNode>& ptrNode, unsigned long dwMsg, const KvSmartPtr<CRsValue>& ptrValue)
{
    KV_RS_CHECK(m_ptrQueue.IsNotNull());
    if (m_ptrQueue.IsNull())
        return;
    KvSmartPtr<CRsMsg> ptrMsg(KvNewObject);
    ptrMsg->m_pvMsgTarget = m_pvTarget;
    ptrMsg->m_idMsgTarget = m_idTarget;
    ptrMsg->m_ptrNode = ptrNode;
    ptrMsg->m_ptrValue = ptrValue;
    ptrMsg->m_dwMsg = static_cast<uint32_t>(dwMsg & KVRS_NOTIFY_MSG_MASK);
    if ((dwMsg & KVRS_NOTIFY_FRONT) != 0)
        m_ptrQueue->AddMsgLiFo(ptrMsg);
    else
        m_ptrQueue->AddMsgFiFo(ptrMsg);
}

// The proxy part behaves as the caller's proxy would: the new reference is
// taken first, then the one the record held is dropped (which may destroy it).
void CRsConnect::GetData(CRsConnectInfo* pBuf) const
{
    KV_RS_CHECK(m_ptrQueue.IsNotNull());
    if (pBuf == nullptr) {
        KvAssertReport("pBuf != NULL", KV_RS_MODULE, __LINE__);
        return;
    }
    m_ptrQueue.AddRef();
    const uint32_t ofsOld = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pBuf->m_pvQueue));
    pBuf->m_pvQueue = reinterpret_cast<void*>(static_cast<uintptr_t>(m_ptrQueue.Offset()));
    pBuf->m_dwQueueId = m_ptrQueue.IsNotNull() ? m_ptrQueue->m_dwId.Get() : 0;
    if (ofsOld != 0)
        KvReleaseSmartUnit(static_cast<KvSmartPtrTarget*>(KvGranularity::_CalcPtr(ofsOld)));
    pBuf->pvTarget = m_pvTarget;
    pBuf->idTarget = m_idTarget;
}

// --- client order --------------------------------------------------------------

int CRsCompareConnectKeys(const CRsConnectKey& a, const CRsConnectKey& b)
{
    if (a.m_uTarget != b.m_uTarget)
        return a.m_uTarget < b.m_uTarget ? -1 : 1;
    if (a.m_dwPrcsId != b.m_dwPrcsId)
        return a.m_dwPrcsId < b.m_dwPrcsId ? -1 : 1;
    return 0;
}

CRsConnectKey CRsConnectKeyOf(const CRsConnect& connect)
{
    return CRsConnectKey{reinterpret_cast<uintptr_t>(connect.m_pvTarget.Get()), connect.GetQueueProcessId()};
}
