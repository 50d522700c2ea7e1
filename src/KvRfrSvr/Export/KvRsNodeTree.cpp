// KvRsNodeTree.cpp - exported node functions with logic of their own: path
// creation, get-or-create of a child, upward search, the child iterator, the
// tree walk and the structural-change connection of the root.
#include <cstring>

#include "KvRfrSvr/Internal/CRsModel.h"
#include "KvRsHandles.h"

namespace {

// Copies one path segment (up to pszEnd) into a NUL-terminated buffer of
// KVRS_PATH_BUFFER bytes; the caller has checked the whole path fits.
void KvRsCopySegment(char* pszBuf, const char* pszBegin, const char* pszEnd)
{
    const size_t cch = static_cast<size_t>(pszEnd - pszBegin);
    memcpy(pszBuf, pszBegin, cch);
    pszBuf[cch] = '\0';
}

// End of the segment that starts at psz: its "." or its terminator. Names are
// byte strings, and "." never occurs inside a UTF-8 sequence.
const char* KvRsSegmentEnd(const char* psz)
{
    const char* pszDot = strchr(psz, '.');
    return pszDot != nullptr ? pszDot : psz + strlen(psz);
}

// A new node named pszName, linked under ptrParent (named before it is linked,
// so that the sorted insertion sees the name).
KvSmartPtr<CRsNode> KvRsNewChild(const KvSmartPtr<CRsNode>& ptrParent, const char* pszName)
{
    KvSmartPtr<CRsNode> ptrNew(KvNewObject);
    ptrNew->SetName(pszName);
    KvRsUse(ptrParent)->AddChild(ptrNew);
    return ptrNew;
}

// Walks the existing part of the path from ptrNode. Returns the text still to be
// created ("" when the whole path exists); ptrNode ends at the last node reached.
const char* KvRsWalkExisting(KvSmartPtr<CRsNode>& ptrNode, const char* pszPath, char* pszBuf)
{
    const char* psz = pszPath;
    while (*psz != '\0' && ptrNode.IsNotNull()) {
        const char* pszEnd = KvRsSegmentEnd(psz);
        KvRsCopySegment(pszBuf, psz, pszEnd);
        KvSmartPtr<CRsNode> ptrChild = ptrNode->GetChild(pszBuf);
        if (ptrChild.IsNull())
            return psz;  // this segment and everything after it are missing
        ptrNode = ptrChild;
        if (*pszEnd == '\0')
            return pszEnd;
        psz = pszEnd + 1;
    }
    return psz + strlen(psz);
}

// Creates every segment of pszRest below ptrNode; ptrNode ends at the last one.
void KvRsCreateMissing(KvSmartPtr<CRsNode>& ptrNode, const char* pszRest, char* pszBuf)
{
    const char* psz = pszRest;
    while (*psz != '\0') {
        const char* pszEnd = KvRsSegmentEnd(psz);
        KvRsCopySegment(pszBuf, psz, pszEnd);
        ptrNode = KvRsNewChild(ptrNode, pszBuf);
        if (*pszEnd == '\0')
            break;
        psz = pszEnd + 1;
    }
}

}  // namespace

KvRsNodeProxy KvRsCreateNode(const char* path, void* hParent, unsigned long idParent)
{
    return KvRsFramedResult<KvRsNodeProxy>(__LINE__, [&](KvRsNodeProxy& result) {
        KvSmartPtr<CRsNode> ptrParent = KvRsHandle2<CRsNode>(hParent, idParent);
        if (ptrParent.IsNull())
            ptrParent = GetRoot();
        KV_CHECK(ptrParent.IsNotNull(), KVRS_EXPORT_MODULE);
        // Paths are walked in a buffer of 8192 bytes; a longer one is refused
        // rather than copied past it.
        if (strlen(KvRsTextOrFault(path)) >= KVRS_PATH_BUFFER) {
            KvAssertReport("strlen(path) < 8192 (the path is refused)", KVRS_EXPORT_MODULE, __LINE__);
            return;
        }
        char szBuf[KVRS_PATH_BUFFER];
        const char* pszRest = KvRsWalkExisting(ptrParent, path, szBuf);
        KvRsCreateMissing(ptrParent, pszRest, szBuf);
        KvRsSetProxySafe(result, ptrParent);
    });
}

KvRsNodeProxy KvRsAddChildNode(void* hParent, unsigned long idParent, const char* name)
{
    return KvRsFramedResult<KvRsNodeProxy>(__LINE__, [&](KvRsNodeProxy& result) {
        KvSmartPtr<CRsNode> ptrParent = KvRsHandle2<CRsNode>(hParent, idParent);
        if (ptrParent.IsNull())
            return;
        KvSmartPtr<CRsNode> ptrChild = ptrParent->GetChild(KvRsTextOrFault(name));
        if (ptrChild.IsNull())
            ptrChild = KvRsNewChild(ptrParent, name);
        KvRsSetProxy(result, ptrChild);
    });
}

KvRsNodeProxy KvRsGetAncestorsDescendantNode(void* hNode, unsigned long idNode, const char* path)
{
    return KvRsFramedResult<KvRsNodeProxy>(__LINE__, [&](KvRsNodeProxy& result) {
        KvSmartPtr<CRsNode> ptrNode = KvRsHandle2<CRsNode>(hNode, idNode);
        // The nearest ancestor that has a matching descendant wins.
        while (ptrNode.IsNotNull()) {
            KvSmartPtr<CRsNode> ptrFound = ptrNode->GetDescendant(KvRsTextOrFault(path));
            if (ptrFound.IsNotNull()) {
                KvRsSetProxySafe(result, ptrFound);
                return;
            }
            ptrNode = KvSmartPtr<CRsNode>(ptrNode->GetParent());
        }
    });
}

KvRsNodeProxy KvRsGetChildNode(void* hParent, unsigned long idParent, void* hChild, unsigned long idChild)
{
    return KvRsFramedResult<KvRsNodeProxy>(__LINE__, [&](KvRsNodeProxy& result) {
        KvSmartPtr<CRsNode> ptrParent = KvRsHandle2<CRsNode>(hParent, idParent);
        if (ptrParent.IsNull())
            return;
        KvSmartPtr<CRsNode> ptrChild = KvRsHandle2<CRsNode>(hChild, idChild);
        // With a child, its successor in its own parent's list: the parent
        // argument is deliberately not consulted then.
        KvRsSetProxySafe(result, ptrChild.IsNull() ? ptrParent->GetFirstChild() : ptrChild->GetNextSibling());
    });
}

bool KvRsForAllNodes(bool (*fn)(KvRsNodeProxy&, void*), KvRsNodeProxy& start, void* pv, bool fSkipStart)
{
    // No frame of its own: every step is an exported call, so the mutex is not
    // held across the callback.
    if (!fSkipStart && !fn(start, pv))
        return false;
    KvRsNodeProxy child = start.GetChild(KvRsNodeProxy());
    while (!child.IsNull()) {
        if (!KvRsForAllNodes(fn, child, pv, false))
            return false;
        child = start.GetChild(child);
    }
    return true;
}

bool KvRsForAllNodes(bool (*fn)(KvRsNodeProxy&, void*), void* pv, bool fSkipStart)
{
    // Its start is looked up with a null path, which the lookup reports; the walk
    // then runs from the empty proxy. Kept as it has always behaved.
    KvRsNodeProxy start = KvRsGetNode(nullptr);
    return KvRsForAllNodes(fn, start, pv, fSkipStart);
}

void KvRsConnectForAllStructuralChanges(void* hTarget, unsigned long idTarget)
{
    KvRsFramed(__LINE__, [&] { KvRsUse(GetRoot())->ConnectClient(hTarget, idTarget, g_ptrThisPrcsQueue); });
}

void KvRsDisconnectForAllStructuralChanges(void* hTarget, unsigned long idTarget)
{
    KvRsFramed(__LINE__, [&] { KvRsUse(GetRoot())->DisconnectClient(hTarget, idTarget); });
}
