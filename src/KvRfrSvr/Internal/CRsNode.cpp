// CRsNode.cpp - the node: flags, value, reference and the child tree.
#include "CRsNode.h"

#include <cstring>

#include "CRsNodeHln.h"
#include "CRsRefreshInfo.h"
#include "CRsValue.h"

CRsNode::CRsNode() : m_dwType(0) {}

// Releases in a fixed order: reference, value, child list (the subtree goes
// depth first), refresh info; then the name. The entry link is not touched.
CRsNode::~CRsNode()
{
    m_ptrRef.RmvRef();
    m_ptrValue.RmvRef();
    m_ptrChildList.RmvRef();
    m_ptrRefreshInfo.RmvRef();
}

// --- type word and flags ------------------------------------------------------

void CRsNode::SetType(uint32_t dwType)
{
    // The bad word stays stored: the check reports, it does not refuse.
    m_dwType = dwType;
    KV_RS_CHECK((HasValue() || IsParent()) != HasRef() || !HasRef());
}

void CRsNode::SetConstFlag(bool b)
{
    m_dwType = b ? (m_dwType | KVRS_TYPE_CONST) : (m_dwType & ~KVRS_TYPE_CONST);
}

void CRsNode::SetValueFlag(bool b)
{
    const uint32_t dw = m_dwType & ~KVRS_TYPE_REF;
    m_dwType = b ? (dw | KVRS_TYPE_VALUE) : (dw & ~KVRS_TYPE_VALUE);
}

void CRsNode::SetParentFlag(bool b)
{
    const uint32_t dw = m_dwType & ~KVRS_TYPE_REF;
    m_dwType = b ? (dw | KVRS_TYPE_PARENT) : (dw & ~KVRS_TYPE_PARENT);
}

// The value, reference and parent bits are one kind field for this setter:
// clearing the reference bit clears the other two as well.
void CRsNode::SetRefFlag(bool b)
{
    const uint32_t dw = m_dwType & ~(KVRS_TYPE_VALUE | KVRS_TYPE_PARENT);
    m_dwType = b ? (dw | KVRS_TYPE_REF) : (dw & ~KVRS_TYPE_REF);
}

// --- value and reference -------------------------------------------------------

CRsNode* CRsNode::GetForwardTarget() const
{
    const CRsNode* p = this;
    for (uint32_t cRefs = 0; p->Forwards(); ++cRefs) {
        if (cRefs >= KVRS_MAX_REF_CHAIN) {
            KV_RS_CHECK(cRefs < KVRS_MAX_REF_CHAIN);
            return nullptr;
        }
        p = p->m_ptrRef.Get();
    }
    return const_cast<CRsNode*>(p);
}

KvSmartPtr<CRsValue> CRsNode::GetValue() const
{
    const CRsNode* p = GetForwardTarget();
    if (p == nullptr || !p->HasValue())
        return KvSmartPtr<CRsValue>();
    return p->m_ptrValue;
}

void CRsNode::SetValue(const KvSmartPtr<CRsValue>& ptrValue)
{
    CRsNode* p = GetForwardTarget();
    // A reference node with a null reference takes no value.
    if (p == nullptr || p->HasRef())
        return;
    if (p->IsConst() && p->m_ptrValue.IsNotNull())
        return;
    p->m_ptrValue = ptrValue;
    p->m_dwType = (p->m_dwType & ~KVRS_TYPE_REF) | KVRS_TYPE_VALUE;
}

KvSmartPtr<CRsNode> CRsNode::GetRef() const
{
    return HasRef() ? m_ptrRef : KvSmartPtr<CRsNode>();
}

// Not forwarded: it changes this node. A node with a value or children keeps
// both, and its word and reference stay as they were.
void CRsNode::SetRef(const KvSmartPtr<CRsNode>& ptrRef)
{
    if (IsConst() && m_ptrRef.IsNotNull())
        return;
    if (!HasValue() && !IsParent())
        m_dwType = (m_dwType & ~(KVRS_TYPE_VALUE | KVRS_TYPE_PARENT)) | KVRS_TYPE_REF;
    if (HasRef())
        m_ptrRef = ptrRef;
}

// --- children ---------------------------------------------------------------------

CRsNode* CRsNode::FindChild(const char* pszName) const
{
    const CRsNode* p = GetForwardTarget();
    if (p == nullptr || !p->IsParent() || p->m_ptrChildList.IsNull())
        return nullptr;
    const CRsNodeHln* pHln = p->m_ptrChildList->FindByName(pszName != nullptr ? pszName : "");
    return pHln != nullptr ? pHln->m_ptr.Get() : nullptr;
}

KvSmartPtr<CRsNode> CRsNode::GetChild(const char* pszName) const
{
    return KvSmartPtr<CRsNode>(FindChild(pszName));
}

// Walks a "."-separated path of child names. The empty path is this node; a
// trailing separator is ignored; an empty name in between (".a", "a..b") looks
// up a child named "". "." never occurs inside a UTF-8 sequence, so a byte
// search finds the separators.
KvSmartPtr<CRsNode> CRsNode::GetDescendant(const char* pszPath) const
{
    if (pszPath == nullptr)
        pszPath = "";
    char szBuf[KVRS_PATH_BUFFER];
    const size_t cch = strnlen(pszPath, sizeof(szBuf));
    if (cch >= sizeof(szBuf)) {
        KvAssertReport("_tcslen(pszPath) < sizeof(szBuf)", KV_RS_MODULE, __LINE__);
        return KvSmartPtr<CRsNode>();
    }
    memcpy(szBuf, pszPath, cch + 1);

    // The walk only reads the tree, so the nodes on the way need no counted
    // references: the one found gets the only one.
    CRsNode* pAct = const_cast<CRsNode*>(this);
    char* pszSeg = szBuf;
    char* pszSep = strchr(pszSeg, '.');
    while (*pszSeg != '\0' && pAct != nullptr) {
        if (pszSep != nullptr)
            *pszSep = '\0';
        pAct = pAct->FindChild(pszSeg);
        if (pszSep == nullptr)
            break;
        pszSeg = pszSep + 1;
        pszSep = strchr(pszSeg, '.');
    }
    return KvSmartPtr<CRsNode>(pAct);
}

KvSmartPtr<CRsNode> CRsNode::GetFirstChild() const
{
    const CRsNode* p = GetForwardTarget();
    if (p == nullptr || !p->IsParent() || p->m_ptrChildList.IsNull())
        return KvSmartPtr<CRsNode>();
    const CRsNodeHln* pHln = p->m_ptrChildList->GetFirst();
    return KvSmartPtr<CRsNode>(pHln != nullptr ? pHln->m_ptr.Get() : nullptr);
}

KvSmartPtr<CRsNode> CRsNode::GetNextSibling() const
{
    const CRsNodeHln* pHln = m_pHln.Get();
    const CRsNodeHln* pNext = pHln != nullptr ? pHln->GetNext() : nullptr;
    return KvSmartPtr<CRsNode>(pNext != nullptr ? pNext->m_ptr.Get() : nullptr);
}

// Whether pNode is this node or one of its ancestors: adding such a node as a
// child would close a loop in the parent chain, which every count walks.
bool CRsNode::IsSelfOrAncestor(const CRsNode* pNode) const
{
    for (const KvSmartPtrTarget* p = this; p != nullptr; p = p->m_ptrParent.Get())
        if (p == pNode)
            return true;
    return false;
}

// Duplicates are not refused: a new child goes after the children of the same name.
void CRsNode::AddChild(const KvSmartPtr<CRsNode>& ptrChild)
{
    CRsNode* p = GetForwardTarget();
    if (p == nullptr || p->IsConst() || ptrChild.IsNull() || p->IsSelfOrAncestor(ptrChild.Get()))
        return;
    if (p->m_ptrChildList.IsNull()) {
        p->m_ptrChildList.NewObject();
        p->m_dwType = (p->m_dwType & ~KVRS_TYPE_REF) | KVRS_TYPE_PARENT;
    }
    CRsNodeHln* pHln = KvNewShared<CRsNodeHln>(ptrChild.Get());
    p->m_ptrChildList->Insert(pHln);
    ptrChild->SetParent(KvSmartPtr<KvSmartPtrTarget>(p));
}

// Only unlinks: the entry keeps its hold on the child, and the child keeps its
// parent and entry links, its subtree and its connections.
void CRsNode::RemoveChild(const char* pszName)
{
    CRsNode* p = GetForwardTarget();
    if (p == nullptr || p->IsConst() || p->m_ptrChildList.IsNull() || !p->IsParent())
        return;
    CRsChildList* pList = p->m_ptrChildList.Get();
    CRsNodeHln* pHln = pList->FindByName(pszName != nullptr ? pszName : "");
    if (pHln != nullptr)
        pList->Remove(pHln);
}

// Follows a reference only while the whole word is exactly the reference bit: a
// const (or otherwise typed) reference node counts its own children, none.
int32_t CRsNode::GetChildCount() const
{
    const CRsNode* p = this;
    for (uint32_t cRefs = 0; p->m_dwType == KVRS_TYPE_REF && p->m_ptrRef.IsNotNull(); ++cRefs) {
        if (cRefs >= KVRS_MAX_REF_CHAIN) {
            KV_RS_CHECK(cRefs < KVRS_MAX_REF_CHAIN);
            return 0;
        }
        p = p->m_ptrRef.Get();
    }
    if (p->m_ptrChildList.IsNull() || !p->IsParent())
        return 0;
    return static_cast<int32_t>(p->m_ptrChildList->GetCount());
}

KvSmartPtr<CRsNode> GetRoot()
{
    KvSmartPtr<CRsNode> ptrRet;
    if (KvGranularity::_poinf != nullptr)
        ptrRet = KvSmartPtr<CRsNode>(static_cast<CRsNode*>(KvGranularity::_GetRoot(KVRS_ROOT_SLOT)));
    KV_RS_CHECK(ptrRet.IsNotNull());
    return ptrRet;
}
