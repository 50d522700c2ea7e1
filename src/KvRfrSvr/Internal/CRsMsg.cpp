// CRsMsg.cpp - a message holds counted references to its node and value; the
// destructor of the references releases them.
#include "CRsMsg.h"

CRsMsg::CRsMsg() : m_dwMsg(0), m_pvMsgTarget(nullptr), m_idMsgTarget(0) {}

CRsMsg::~CRsMsg()
{
    m_ptrValue.RmvRef();
    m_ptrNode.RmvRef();
}
