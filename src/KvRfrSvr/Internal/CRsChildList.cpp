// CRsChildList.cpp - child entries and the child list.
#include <cstring>

#include "CRsNodeHln.h"

CRsNodeHln::CRsNodeHln(CRsNode* pNode) : m_ptr(pNode)
{
    if (pNode != nullptr)
        pNode->m_pHln = this;
}

CRsNodeHln::~CRsNodeHln()
{
    if (m_ptr.IsNotNull() && m_ptr->m_pHln.Get() == this)
        m_ptr->m_pHln = KvsPtr<CRsNodeHln>();
    m_ptr.Release();
}

// strcmp compares as unsigned bytes: plain byte order, which keeps UTF-8 in code
// point order.
int CRsNodeHln::Compare(const CRsNodeHln& other) const
{
    return strcmp(GetName(), other.GetName());
}

int CRsNodeHln::CompareKey(const char* const& pszName, const CRsNodeHln& entry)
{
    return strcmp(pszName, entry.GetName());
}

CRsChildList::CRsChildList() : HybridList<CRsNodeHln>(KVHL_SORT_ASCENDING, true) {}

CRsChildList::~CRsChildList()
{
    while (CRsNodeHln* pHln = RemoveFirst())
        if (m_bOwnsEntries != 0)
            KvDeleteShared(pHln);
}

CRsNodeHln* CRsChildList::FindByName(const char* pszName) const
{
    if (GetCount() == 0)
        return nullptr;
    return FindKey(pszName);
}
