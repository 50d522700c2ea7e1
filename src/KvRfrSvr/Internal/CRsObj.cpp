// CRsObj.cpp - object ids.
#include "CRsObj.h"

#include <cstdlib>

#include "KvCppMfc/Platform/KvPlatform.h"

CRsObj::CRsObj() : m_dwId(static_cast<uint32_t>(rand()) ^ KvGetTickCount()) {}

CRsObj::~CRsObj()
{
    m_dwId = DEAD_ID;
}
