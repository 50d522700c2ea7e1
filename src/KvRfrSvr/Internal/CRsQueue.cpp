// CRsQueue.cpp - queues, their message lists and the process's default queue.
#include "CRsQueue.h"

#include <new>

#include "CRsMsgList.h"
#include "KvCppMfc/Platform/KvPlatform.h"
#include "KvCppMfc/Pool/KvProcessTable.h"

CRsQueue::CRsQueue() : m_dwPrcsId(KvGetCurrentProcessId())
{
    // Made under a smart pointer, handed to the child hold, then let go: the
    // queue's child hold is all that keeps the list.
    KvSmartPtr<CRsMsgList> ptrList(KvNewObject);
    m_ptrMsgList.Set(ptrList.Get());
}

CRsQueue::~CRsQueue()
{
    RemoveAllMsgs();
    m_ptrMsgList.Release();
}

int32_t CRsQueue::GetMsgCount() const
{
    return m_ptrMsgList.IsNotNull() ? m_ptrMsgList->m_lst.GetCount() : 0;
}

// A receiver asleep in KvRsWaitMsg (or on its descriptor) is woken; one that
// is not costs a probe of the process table and a load.
void CRsQueue::AddMsgFiFo(const KvSmartPtr<CRsMsg>& ptrMsg)
{
    m_ptrMsgList->m_lst.AddLast(ptrMsg);
    KvProcessTableWake(m_dwPrcsId);
}

void CRsQueue::AddMsgLiFo(const KvSmartPtr<CRsMsg>& ptrMsg)
{
    m_ptrMsgList->m_lst.AddFirst(ptrMsg);
    KvProcessTableWake(m_dwPrcsId);
}

KvSmartPtr<CRsMsg> CRsQueue::GetMsg()
{
    if (m_dwPrcsId != KvGetCurrentProcessId())
        KvAssertReport("m_dwPrcsId == GetCurrentProcessId()", KV_RS_MODULE, __LINE__);
    if (GetMsgCount() < 1)
        return KvSmartPtr<CRsMsg>();
    return m_ptrMsgList->RemoveFirst();
}

void CRsQueue::RemoveMsgsForTarget(void* pvMsgTarget, unsigned long idMsgTarget)
{
    m_ptrMsgList->RemoveMsgsForTarget(pvMsgTarget, idMsgTarget);
}

void CRsQueue::RemoveAllMsgs()
{
    if (m_ptrMsgList.IsNotNull())
        m_ptrMsgList->m_lst.RemoveAll();
}

// --- message list -------------------------------------------------------------

CRsMsgList::~CRsMsgList()
{
    m_lst.RemoveAll();
}

void CRsMsgList::RemoveMsgsForTarget(void* pvMsgTarget, unsigned long ulIdMsgTarget)
{
    const uint32_t idMsgTarget = static_cast<uint32_t>(ulIdMsgTarget);  // ids are 32-bit
    KvsPtr<List::Node> pPrev;
    KvsPtr<List::Node> pAct = m_lst.GetHead();
    while (pAct.IsNotNull()) {
        const KvsPtr<List::Node> pNext = pAct->m_pNext;
        const KvSmartPtr<CRsMsg>& ptrAct = pAct->m_data;
        if (ptrAct.IsNotNull() && ptrAct->m_pvMsgTarget == pvMsgTarget) {
            KV_RS_CHECK(ptrAct->m_idMsgTarget == idMsgTarget);
            m_lst.Remove(pAct, pPrev);
        } else {
            pPrev = pAct;
        }
        pAct = pNext;
    }
}

// --- default queue -----------------------------------------------------------------

KvSmartPtr<CRsQueue>& KvRsThisPrcsQueue()
{
    // Placement in static storage whose destructor never runs.
    alignas(KvSmartPtr<CRsQueue>) static unsigned char s_abStorage[sizeof(KvSmartPtr<CRsQueue>)];
    static KvSmartPtr<CRsQueue>* const s_pptr = ::new (s_abStorage) KvSmartPtr<CRsQueue>();
    return *s_pptr;
}
