// CRsCheckLists.cpp - the lists of the tree: child lists, client lists and
// message lists.
//
// A sorted list has its own structure check (HybridList::CheckStructure), which
// follows links without testing them. So every block it will read is tested
// here first, within the same bounds it walks; only then is it run.
#include <algorithm>

#include "CRsCheckWalk.h"

namespace {

template <class T>
T* At(uint32_t ofs)
{
    return static_cast<T*>(KvGranularity::_CalcPtr(ofs));
}

// Deeper than any index of a list that fits in the segment.
const int KV_MAX_INDEX_LEVELS = 64;

}  // namespace

// --- sorted lists -------------------------------------------------------------------

std::string CRsChecker::ElementProblem(const CRsNodeHln& hln) const
{
    const uint32_t ofsNode = hln.m_ptr.Offset();
    if (ofsNode == 0)
        return "";  // reads as the empty name; reported when walked
    std::string strWhy = m_pools.BlockProblem(ofsNode, KvPoolCheck::PoolOf(sizeof(CRsNode)));
    if (!strWhy.empty())
        return "holds node " + KvHexOffset(ofsNode) + ", which " + strWhy;
    strWhy = TextProblem(At<CRsNode>(ofsNode)->m_strName);
    return strWhy.empty() ? "" : "holds node " + KvHexOffset(ofsNode) + ", whose name " + strWhy;
}

// The sort key reads the connection and its queue's process id.
std::string CRsChecker::ElementProblem(const CRsConnectHln& hln) const
{
    const uint32_t ofsConnect = hln.m_ptr.Offset();
    if (ofsConnect == 0)
        return "";
    std::string strWhy = m_pools.BlockProblem(ofsConnect, KvPoolCheck::PoolOf(sizeof(CRsConnect)));
    if (!strWhy.empty())
        return "holds connection " + KvHexOffset(ofsConnect) + ", which " + strWhy;
    const uint32_t ofsQueue = At<CRsConnect>(ofsConnect)->m_ptrQueue.Offset();
    strWhy = ofsQueue != 0 ? m_pools.BlockProblem(ofsQueue, KvPoolCheck::PoolOf(sizeof(CRsQueue))) : "";
    return strWhy.empty() ? "" : "holds connection " + KvHexOffset(ofsConnect) + ", whose queue " + strWhy;
}

// The bottom list is read up to two elements past the count (the list's own
// check stops there), and so it is tested here.
template <class T>
bool CRsChecker::PrepareList(const HybridList<T>& lst, const std::string& strWhat, Prepared<T>& prep)
{
    const uint32_t iElemPool = KvPoolCheck::PoolOf(sizeof(T));
    if (lst.m_cEntries > m_pools.MaxBlocks(iElemPool)) {
        Problem(strWhat + ": its count " + std::to_string(lst.m_cEntries) + " is more than the pool area can hold");
        return false;
    }
    if (lst.m_pAnchor.IsNull()) {
        Problem(strWhat + ": it has no anchor entry");
        return false;
    }
    const uint64_t cRead = static_cast<uint64_t>(lst.m_cEntries) + 2;
    uint32_t ofs = m_pools.BlockProblem(lst.m_pAnchor.Offset(), KvPoolCheck::PoolOf(sizeof(QTopNode<T>))).empty()
                       ? lst.m_pAnchor->m_pBottom.Offset()
                       : 0;
    for (; ofs != 0 && prep.m_vElems.size() < cRead; ofs = At<T>(ofs)->m_pNext.Offset()) {
        std::string strWhy = m_pools.BlockProblem(ofs, iElemPool);
        if (strWhy.empty())
            strWhy = ElementProblem(*At<T>(ofs));
        if (!strWhy.empty()) {
            Problem(strWhat + ": element " + std::to_string(prep.m_vElems.size()) + " (" + KvHexOffset(ofs) + ") " +
                    strWhy);
            return false;
        }
        prep.m_vElems.push_back(At<T>(ofs));
    }
    return PrepareIndex(lst, strWhat, prep);
}

// Each index level is read up to two entries past the size of the level below
// (the elements, for the lowest), and each level's first entry leads up.
template <class T>
bool CRsChecker::PrepareIndex(const HybridList<T>& lst, const std::string& strWhat, Prepared<T>& prep)
{
    const uint32_t iTopPool = KvPoolCheck::PoolOf(sizeof(QTopNode<T>));
    size_t cBelow = prep.m_vElems.size();
    uint32_t ofsFirst = lst.m_pAnchor.Offset();
    for (int iLevel = 0; ofsFirst != 0; ++iLevel) {
        if (iLevel == KV_MAX_INDEX_LEVELS) {
            Problem(strWhat + ": its index has more than " + std::to_string(KV_MAX_INDEX_LEVELS) + " levels");
            return false;
        }
        size_t c = 0;
        for (uint32_t ofs = ofsFirst; ofs != 0 && c < cBelow + 2; ofs = At<QTopNode<T>>(ofs)->m_pNext.Offset(), ++c) {
            const std::string strWhy = m_pools.BlockProblem(ofs, iTopPool);
            if (!strWhy.empty()) {
                Problem(strWhat + ": index level " + std::to_string(iLevel) + " entry " + std::to_string(c) + " (" +
                        KvHexOffset(ofs) + ") " + strWhy);
                return false;
            }
            prep.m_vTops.push_back(At<QTopNode<T>>(ofs));
        }
        cBelow = c;
        ofsFirst = At<QTopNode<T>>(ofsFirst)->m_pParent.Offset();
    }
    return true;
}

template <class T>
bool CRsChecker::CheckList(const HybridList<T>& lst, CRsKind eElem, CRsKind eTop, const std::string& strWhat,
                           Prepared<T>& prep)
{
    if (lst.m_dwSortType != KVHL_SORT_ASCENDING)
        Problem(strWhat + ": its sort type is " + std::to_string(lst.m_dwSortType) + "; the server keeps it ascending");
    if (!PrepareList(lst, strWhat, prep))
        return false;
    std::string strError;
    const bool bOk = lst.CheckStructure(&strError);
    if (!bOk)
        Problem(strWhat + ": " + strError);
    // The blocks of a broken list are claimed too: they still hold what they hold.
    const uint32_t iTopPool = KvPoolCheck::PoolOf(sizeof(QTopNode<T>));
    for (QTopNode<T>* q : prep.m_vTops)
        if (ClaimBlock(KvGranularity::_CalcOffset(q), eTop, iTopPool, strWhat) == Claim::Bad)
            return false;
    const size_t cElems = std::min<size_t>(prep.m_vElems.size(), lst.m_cEntries);
    prep.m_vElems.resize(cElems);
    const uint32_t iElemPool = KvPoolCheck::PoolOf(sizeof(T));
    for (T* p : prep.m_vElems)
        if (ClaimBlock(KvGranularity::_CalcOffset(p), eElem, iElemPool, strWhat) != Claim::New)
            return false;
    return bOk;
}

void CRsChecker::WalkChildList(uint32_t ofs, Obj& obj)
{
    const CRsChildList* pList = At<CRsChildList>(ofs);
    if (pList->m_bOwnsEntries != 1)
        Problem(obj.m_strLabel + ": it does not own its entries");
    Prepared<CRsNodeHln> prep;
    CheckList(*pList, CRsKind::NodeHln, CRsKind::NodeTop, obj.m_strLabel, prep);
    const Obj* pOwner = obj.m_ofsOwner != 0 ? &m_mapObjs.at(obj.m_ofsOwner) : nullptr;
    const bool bTree = pOwner != nullptr && pOwner->m_bInTree;
    for (CRsNodeHln* pHln : prep.m_vElems) {
        const uint32_t ofsHln = KvGranularity::_CalcOffset(pHln);
        const uint32_t ofsNode = pHln->m_ptr.Offset();
        if (ofsNode == 0) {
            Problem(obj.m_strLabel + ": entry " + KvHexOffset(ofsHln) + " holds no node");
            continue;
        }
        std::string strPath;
        if (bTree) {
            const std::string strName = SafeText(At<CRsNode>(ofsNode)->m_strName);
            strPath = pOwner->m_bRoot ? strName : pOwner->m_strPath + "." + strName;
        }
        bool bNew = false;
        Obj* pNode = LinkObject(ofsNode, CRsKind::Node, CRsLink::Child, NodeLabel(ofsNode, strPath), bTree, &bNew);
        if (pNode == nullptr)
            continue;
        if (bNew)
            pNode->m_strPath = strPath;
        if (pNode->m_ofsEntry == 0) {
            pNode->m_ofsEntry = ofsHln;
            pNode->m_ofsOwner = obj.m_ofsOwner;
        } else {
            Problem(pNode->m_strLabel + ": it is held by two child entries, " + KvHexOffset(pNode->m_ofsEntry) +
                    " and " + KvHexOffset(ofsHln));
        }
    }
}

void CRsChecker::WalkRefreshInfo(uint32_t ofs, Obj& obj)
{
    const CRsRefreshInfo* pInfo = At<CRsRefreshInfo>(ofs);
    const uint32_t ofsServer = pInfo->m_ptrServer.Offset();
    LinkObject(ofsServer, CRsKind::Connect, CRsLink::Smart,
               "server connection " + KvHexOffset(ofsServer) + " of the " + obj.m_strLabel);
    Prepared<CRsConnectHln> prep;
    const std::string strList = "client list of the " + obj.m_strLabel;
    CheckList(pInfo->m_lstClients, CRsKind::ConnectHln, CRsKind::ConnectTop, strList, prep);
    for (CRsConnectHln* pHln : prep.m_vElems) {
        const uint32_t ofsConnect = pHln->m_ptr.Offset();
        if (ofsConnect == 0)
            Problem(strList + ": entry " + KvHexOffset(KvGranularity::_CalcOffset(pHln)) + " holds no connection");
        else
            LinkObject(ofsConnect, CRsKind::Connect, CRsLink::Smart,
                       "client connection " + KvHexOffset(ofsConnect) + " of the " + obj.m_strLabel);
    }
}

// --- message lists ----------------------------------------------------------------------

// Every list node is claimed once, so a list that runs back into itself (or
// into another list) stops at the first node it meets again; the walk is also
// bounded by what the pool area can hold, so a wrong count still lets the real
// length be measured.
void CRsChecker::WalkMsgList(uint32_t ofs, Obj& obj)
{
    typedef CRsMsgList::List::Node Node;
    const CRsMsgList::List& lst = At<CRsMsgList>(ofs)->m_lst;
    const uint32_t iPool = KvPoolCheck::PoolOf(sizeof(Node));
    const uint64_t cMax = m_pools.MaxBlocks(iPool);
    uint64_t c = 0;
    uint32_t ofsLast = 0;
    for (uint32_t ofsNode = lst.m_pHead.Offset(); ofsNode != 0; ofsNode = At<Node>(ofsNode)->m_pNext.Offset()) {
        const Claim claim = c < cMax ? ClaimBlock(ofsNode, CRsKind::MsgNode, iPool, obj.m_strLabel) : Claim::Bad;
        if (claim != Claim::New) {
            Problem(obj.m_strLabel +
                    (claim == Claim::Seen
                         ? ": the list runs in a cycle, or into another list, at " + KvHexOffset(ofsNode)
                         : ": the list breaks off") +
                    " after " + std::to_string(c) + " messages");
            return;
        }
        const uint32_t ofsMsg = At<Node>(ofsNode)->m_data.Offset();
        LinkObject(ofsMsg, CRsKind::Msg, CRsLink::Smart,
                   "message " + KvHexOffset(ofsMsg) + " in the " + obj.m_strLabel);
        ofsLast = ofsNode;
        ++c;
    }
    if (c != static_cast<uint64_t>(static_cast<int64_t>(lst.m_cCount)))
        Problem(obj.m_strLabel + ": its count is " + std::to_string(lst.m_cCount) + ", but the list holds " +
                std::to_string(c) + " messages");
    if (lst.m_pTail.Offset() != ofsLast)
        Problem(obj.m_strLabel + ": its tail is " + KvHexOffset(lst.m_pTail.Offset()) + ", but the last node is " +
                KvHexOffset(ofsLast));
}
