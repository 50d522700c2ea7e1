// CRsQueue.h - a message queue in the segment. It belongs to the process that
// made it: any process may put messages in, only the owner is meant to take them.
#pragma once

#include <cstdint>

#include "CRsObj.h"
#include "KvCppMfc/Shared/KvString.h"

class CRsMsg;
class CRsMsgList;

#pragma pack(push, 1)
class CRsQueue : public CRsObj {
    KV_SHARED_CLASS(CRsQueue)
public:
    CRsQueue();
    ~CRsQueue();

    void SetName(const char* pszName) { m_strName.Assign(pszName); }
    const char* GetName() const { return m_strName.GetCharPtr(); }
    uint32_t GetProcessId() const { return m_dwPrcsId; }
    int32_t GetMsgCount() const;

    void AddMsgFiFo(const KvSmartPtr<CRsMsg>& ptrMsg);
    void AddMsgLiFo(const KvSmartPtr<CRsMsg>& ptrMsg);
    // Takes the next message, or null when the queue is empty. A process other
    // than the owner is reported, and still gets the message.
    KvSmartPtr<CRsMsg> GetMsg();
    void RemoveMsgsForTarget(void* pvMsgTarget, unsigned long idMsgTarget);
    void RemoveAllMsgs();

    KvsWord<uint32_t> m_dwPrcsId;         // process that made the queue
    KvChildPtr<CRsMsgList> m_ptrMsgList;  // made by the constructor, never replaced
    KvString m_strName;
};
#pragma pack(pop)

static_assert(sizeof(CRsQueue) == 41, "a queue is 41 bytes");
KV_RS_PIN_OFFSET(CRsQueue, m_dwPrcsId, 21)
KV_RS_PIN_OFFSET(CRsQueue, m_ptrMsgList, 25)
KV_RS_PIN_OFFSET(CRsQueue, m_strName, 29)

// Name of every process's default queue.
constexpr const char* KVRS_DEFAULT_QUEUE_NAME = "_ProcessDefaultQueue";

// The process's default queue. The pointer lives in storage that is never
// destroyed, so nothing is released during static destruction: the library
// releases it explicitly at exit, before the segment is unmapped.
KvSmartPtr<CRsQueue>& KvRsThisPrcsQueue();
#define g_ptrThisPrcsQueue (KvRsThisPrcsQueue())
