// CRsMsgList.h - a queue's messages in the order GetMsg returns them.
#pragma once

#include <cstdint>

#include "CRsMsg.h"
#include "KvCppMfc/Shared/Kv1List.h"

#pragma pack(push, 1)
class CRsMsgList : public CRsObj {
    KV_SHARED_CLASS(CRsMsgList)
public:
    typedef Kv1List<KvSmartPtr<CRsMsg>> List;

    CRsMsgList() {}
    ~CRsMsgList();

    KvSmartPtr<CRsMsg> RemoveFirst() { return m_lst.RemoveFirst(); }
    // Removes, in one pass, every message whose target handle is pvMsgTarget (the
    // handle alone decides); others keep their order. A matching handle with
    // another id is reported and the message removed all the same.
    void RemoveMsgsForTarget(void* pvMsgTarget, unsigned long idMsgTarget);

    List m_lst;  // one counted reference per message
};
#pragma pack(pop)

static_assert(sizeof(CRsMsgList) == 21 + 20, "message list layout");
KV_RS_PIN_OFFSET(CRsMsgList, m_lst, 21)
