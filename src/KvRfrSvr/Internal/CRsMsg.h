// CRsMsg.h - one notification on its way to one receiver.
#pragma once

#include <cstdint>

#include "CRsObj.h"

class CRsNode;
class CRsValue;

#pragma pack(push, 1)
class CRsMsg : public CRsObj {
    KV_SHARED_CLASS(CRsMsg)
public:
    // Only the header and the two references are set here; number and target
    // are filled by whoever makes the message.
    CRsMsg();
    ~CRsMsg();

    KvsWord<uint32_t> m_dwMsg;        // message number (low 16 bits of the notification number)
    KvsWord<void*> m_pvMsgTarget;     // receiver's opaque target handle, never dereferenced
    KvsWord<uint32_t> m_idMsgTarget;  // receiver's target id
    KvSmartPtr<CRsNode> m_ptrNode;
    KvSmartPtr<CRsValue> m_ptrValue;
};
#pragma pack(pop)

static_assert(sizeof(CRsMsg) == 21 + 4 + KV_RS_PTR + 4 + 4 + 4, "message layout");
KV_RS_PIN_OFFSET(CRsMsg, m_dwMsg, 21)
KV_RS_PIN_OFFSET(CRsMsg, m_pvMsgTarget, 25)
KV_RS_PIN_OFFSET(CRsMsg, m_idMsgTarget, 25 + KV_RS_PTR)
KV_RS_PIN_OFFSET(CRsMsg, m_ptrNode, 29 + KV_RS_PTR)
KV_RS_PIN_OFFSET(CRsMsg, m_ptrValue, 33 + KV_RS_PTR)
