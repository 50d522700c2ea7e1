// KvRsNodeApi.cpp - exported node functions that are one call of the node: name,
// type, value, reference, children by name, parent.
//
// "Null handle: ignored" functions test the converted node; the others use it as
// it is, and a null node ends in the frame's report (KvRsUse raises the access
// violation that using it would be).
#include <cstring>

#include "KvRfrSvr/Internal/CRsModel.h"
#include "KvRsHandles.h"

namespace {
KvSmartPtr<CRsNode> KvRsNode(void* h, unsigned long id)
{
    return KvRsHandle2<CRsNode>(h, id);
}
}  // namespace

KvRsNodeProxy KvRsGetNode(const char* path)
{
    return KvRsFramedResult<KvRsNodeProxy>(__LINE__, [&](KvRsNodeProxy& result) {
        KvSmartPtr<CRsNode> ptrRoot = GetRoot();
        KvRsSetProxySafe(result, KvRsUse(ptrRoot)->GetDescendant(KvRsTextOrFault(path)));
    });
}

KvRsNodeProxy KvRsGetChildNode(void* hParent, unsigned long idParent, const char* name)
{
    return KvRsFramedResult<KvRsNodeProxy>(__LINE__, [&](KvRsNodeProxy& result) {
        KvSmartPtr<CRsNode> ptrParent = KvRsNode(hParent, idParent);
        if (ptrParent.IsNotNull())
            KvRsSetProxySafe(result, ptrParent->GetChild(KvRsTextOrFault(name)));
    });
}

KvRsNodeProxy KvRsGetDescendantNode(void* hParent, unsigned long idParent, const char* path)
{
    return KvRsFramedResult<KvRsNodeProxy>(__LINE__, [&](KvRsNodeProxy& result) {
        KvSmartPtr<CRsNode> ptrParent = KvRsNode(hParent, idParent);
        KvRsSetProxySafe(result, KvRsUse(ptrParent)->GetDescendant(KvRsTextOrFault(path)));
    });
}

void KvRsRemoveChildNode(void* hParent, unsigned long idParent, const char* name)
{
    KvRsFramed(__LINE__, [&] {
        KvSmartPtr<CRsNode> ptrParent = KvRsNode(hParent, idParent);
        if (ptrParent.IsNotNull())
            ptrParent->RemoveChild(KvRsTextOrFault(name));
    });
}

long KvRsGetChildNodeCount(void* hNode, unsigned long idNode)
{
    return KvRsFramedResult<long>(__LINE__, [&](long& cResult) {
        CRsNode* pNode = KvRsBorrow<CRsNode>(hNode, idNode);
        if (pNode != nullptr)
            cResult = pNode->GetChildCount();
    });
}

void KvRsGetNodeName(void* hNode, unsigned long idNode, char* pszName)
{
    KvRsFramed(__LINE__, [&] {
        CRsNode* pNode = KvRsBorrow<CRsNode>(hNode, idNode);
        if (pNode == nullptr)
            return;
        const char* pszOwn = pNode->GetName();
        if (pszOwn == nullptr)
            pszOwn = "";
        if (pszName == nullptr)
            KvRsRaiseAccessViolation(nullptr);
        KvCopyBytes(pszName, pszOwn, strlen(pszOwn) + 1);
    });
}

long KvRsGetNodeNameLength(void* hNode, unsigned long idNode)
{
    return KvRsFramedResult<long>(__LINE__, [&](long& cResult) {
        CRsNode* pNode = KvRsBorrow<CRsNode>(hNode, idNode);
        if (pNode != nullptr && pNode->GetName() != nullptr)
            cResult = static_cast<long>(strlen(pNode->GetName()));
    });
}

KvRsNodeProxy KvRsGetNodeParent(void* hNode, unsigned long idNode)
{
    return KvRsFramedResult<KvRsNodeProxy>(__LINE__, [&](KvRsNodeProxy& result) {
        KvSmartPtr<CRsNode> ptrNode = KvRsNode(hNode, idNode);
        if (ptrNode.IsNotNull())
            KvRsSetProxySafe(result, KvSmartPtr<CRsNode>(ptrNode->GetParent()));
    });
}

unsigned long KvRsGetNodeType(void* hNode, unsigned long idNode)
{
    return KvRsFramedResult<unsigned long>(__LINE__, [&](unsigned long& dwResult) {
        CRsNode* pNode = KvRsBorrow<CRsNode>(hNode, idNode);
        if (pNode != nullptr)
            dwResult = pNode->GetType();
    });
}

void KvRsSetNodeType(void* hNode, unsigned long idNode, unsigned long type)
{
    KvRsFramed(__LINE__, [&] {
        KvSmartPtr<CRsNode> ptrNode = KvRsNode(hNode, idNode);
        if (ptrNode.IsNotNull())
            ptrNode->SetType(static_cast<uint32_t>(type));
    });
}

KvRsValueProxy KvRsGetNodeValue(void* hNode, unsigned long idNode)
{
    return KvRsFramedResult<KvRsValueProxy>(__LINE__, [&](KvRsValueProxy& result) {
        KvSmartPtr<CRsNode> ptrNode = KvRsNode(hNode, idNode);
        if (ptrNode.IsNotNull())
            KvRsSetProxySafe(result, ptrNode->GetValue());
    });
}

void KvRsSetNodeValue(void* hNode, unsigned long idNode, void* hValue, unsigned long idValue)
{
    KvRsFramed(__LINE__, [&] {
        KvSmartPtr<CRsNode> ptrNode = KvRsNode(hNode, idNode);
        KvSmartPtr<CRsValue> ptrValue = KvRsHandle2<CRsValue>(hValue, idValue);
        KvRsUse(ptrNode)->SetValue(ptrValue);
    });
}

KvRsNodeProxy KvRsGetRefNode(void* hNode, unsigned long idNode)
{
    return KvRsFramedResult<KvRsNodeProxy>(__LINE__, [&](KvRsNodeProxy& result) {
        KvSmartPtr<CRsNode> ptrNode = KvRsNode(hNode, idNode);
        if (ptrNode.IsNotNull())
            KvRsSetProxySafe(result, ptrNode->GetRef());
    });
}

void KvRsSetRefNode(void* hNode, unsigned long idNode, void* hRef, unsigned long idRef)
{
    KvRsFramed(__LINE__, [&] {
        KvSmartPtr<CRsNode> ptrNode = KvRsNode(hNode, idNode);
        KvSmartPtr<CRsNode> ptrRef = KvRsNode(hRef, idRef);
        KvRsUse(ptrNode)->SetRef(ptrRef);
    });
}
