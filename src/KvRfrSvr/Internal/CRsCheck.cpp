// CRsCheck.cpp - the check of the whole segment, and what is tested once the
// walk has reached everything: entry links, parent links and reference counts.
//
// Reference counts are held against lower bounds only: processes hold counted
// references (handles, their default queue) that no walk of the segment can see.
// The bounds follow the counting rules: a KvSmartPtr counts one smart unit on
// its target, and an object's smart count also carries the smart counts of all
// objects whose parent it is; a KvChildPtr counts one child unit.
#include "CRsCheck.h"

#include "CRsCheckWalk.h"
#include "KvCppMfc/Platform/KvPlatform.h"

namespace {

template <class T>
T* At(uint32_t ofs)
{
    return static_cast<T*>(KvGranularity::_CalcPtr(ofs));
}

// Holds the pool mutex for a scope, also when the check leaves by a fault.
struct KvPoolGuard {
    KvPoolGuard() { KvGranularity::_LockPools(); }
    ~KvPoolGuard() { KvGranularity::_UnlockPools(); }
    KvPoolGuard(const KvPoolGuard&) = delete;
    KvPoolGuard& operator=(const KvPoolGuard&) = delete;
};

}  // namespace

void CRsChecker::Run()
{
    const uint32_t ofsRoot = KvGranularity::_poinf->_aptrRoot[KVRS_ROOT_SLOT];
    if (ofsRoot == 0) {
        Problem("root slot " + std::to_string(KVRS_ROOT_SLOT) + " is empty: there is no root node");
    } else if (Obj* pRoot = LinkObject(ofsRoot, CRsKind::Node, CRsLink::Smart,
                                       "root node (" + KvHexOffset(ofsRoot) + ")", true)) {
        pRoot->m_bRoot = true;
    }
    while (!m_vWork.empty() || !m_vLater.empty()) {
        std::vector<uint32_t>& v = !m_vWork.empty() ? m_vWork : m_vLater;
        const uint32_t ofs = v.back();
        v.pop_back();
        WalkObject(ofs);
    }
    CheckEntryLinks();
    CheckCounts();
}

// A node in a child list points back at its entry and names the list's node as
// its parent. A node in no list may still keep an entry link: a removed child
// keeps its unlinked entry, which still holds it.
void CRsChecker::CheckEntryLinks()
{
    std::vector<uint32_t> vNodes;
    for (const auto& it : m_mapObjs)
        if (it.second.m_eKind == CRsKind::Node && it.second.m_bHeaderOk)
            vNodes.push_back(it.first);
    for (uint32_t ofs : vNodes) {
        Obj& obj = m_mapObjs.at(ofs);
        const CRsNode* p = At<CRsNode>(ofs);
        const uint32_t ofsHln = p->m_pHln.Offset();
        const uint32_t ofsParent = p->m_ptrParent.Offset();
        if (obj.m_ofsEntry != 0) {
            if (ofsHln != obj.m_ofsEntry)
                Problem(obj.m_strLabel + ": its entry link is " + KvHexOffset(ofsHln) + ", but it sits in entry " +
                        KvHexOffset(obj.m_ofsEntry));
            if (ofsParent != obj.m_ofsOwner)
                Problem(obj.m_strLabel + ": its parent link is " + KvHexOffset(ofsParent) +
                        ", but it sits in the child list of node " + KvHexOffset(obj.m_ofsOwner));
            continue;
        }
        if (obj.m_bRoot && (ofsHln != 0 || ofsParent != 0))
            Problem(obj.m_strLabel + ": the root has an entry link " + KvHexOffset(ofsHln) + " and a parent link " +
                    KvHexOffset(ofsParent));
        if (ofsHln == 0)
            continue;
        const Claim claim = ClaimBlock(ofsHln, CRsKind::NodeHln, KvPoolCheck::PoolOf(sizeof(CRsNodeHln)),
                                       obj.m_strLabel + " entry link");
        if (claim == Claim::Bad)
            continue;
        if (claim == Claim::Seen || At<CRsNodeHln>(ofsHln)->m_ptr.Offset() != ofs)
            Problem(obj.m_strLabel + ": its entry link names entry " + KvHexOffset(ofsHln) + ", which holds node " +
                    KvHexOffset(At<CRsNodeHln>(ofsHln)->m_ptr.Offset()));
        else
            obj.m_cChildLinks += 1;  // the removed entry's hold
    }
}

void CRsChecker::CheckCounts()
{
    std::unordered_map<uint32_t, int64_t> mapFromChildren;
    for (const auto& it : m_mapObjs) {
        if (!it.second.m_bHeaderOk)
            continue;
        const uint32_t ofsParent = At<KvSmartPtrTarget>(it.first)->m_ptrParent.Offset();
        if (ofsParent == 0)
            continue;
        if (it.second.m_eKind != CRsKind::Node)
            Problem(it.second.m_strLabel + ": it has the parent link " + KvHexOffset(ofsParent) +
                    ", but only nodes have parents");
        else
            mapFromChildren[ofsParent] += At<KvSmartPtrTarget>(it.first)->m_cSmart;
    }
    for (const auto& it : m_mapObjs) {
        const Obj& obj = it.second;
        if (!obj.m_bHeaderOk)
            continue;
        const KvSmartPtrTarget* p = At<KvSmartPtrTarget>(it.first);
        const auto itChildren = mapFromChildren.find(it.first);
        const int64_t cFromChildren = itChildren != mapFromChildren.end() ? itChildren->second : 0;
        const int64_t cNeed = obj.m_cSmartLinks + cFromChildren;
        if (p->m_cSmart < cNeed)
            Problem(obj.m_strLabel + ": its smart count " + std::to_string(p->m_cSmart) + " is below the " +
                    std::to_string(cNeed) + " the tree needs (" + std::to_string(obj.m_cSmartLinks) +
                    " counted links, " + std::to_string(cFromChildren) + " carried for its children)");
        if (p->m_cChild < obj.m_cChildLinks)
            Problem(obj.m_strLabel + ": its child count " + std::to_string(p->m_cChild) + " is below the " +
                    std::to_string(obj.m_cChildLinks) + " child holds found");
    }
}

void CRsChecker::FillCensus(CRsCheckCensus& census) const
{
    for (const auto& it : m_mapObjs) {
        switch (it.second.m_eKind) {
        case CRsKind::Node: census.m_cNodes += 1; break;
        case CRsKind::Value: census.m_cValues += 1; break;
        case CRsKind::Connect: census.m_cConnects += 1; break;
        case CRsKind::Queue: census.m_cQueues += 1; break;
        case CRsKind::Msg: census.m_cMsgs += 1; break;
        default: break;
        }
    }
    census.m_cBlocks = static_cast<uint32_t>(m_mapBlocks.size());
    for (const auto& it : m_mapBlocks)
        if (it.second.m_iPool < KVGRAN_COUNT)
            census.m_acReachable[it.second.m_iPool] += 1;
    for (uint32_t ofs : m_vQueues) {
        const CRsQueue* p = At<CRsQueue>(ofs);
        CRsQueueUse use;
        use.m_ofs = ofs;
        use.m_dwPrcsId = p->m_dwPrcsId;
        use.m_strName = SafeText(p->m_strName);
        const auto itList = m_mapObjs.find(p->m_ptrMsgList.Offset());
        if (itList != m_mapObjs.end() && itList->second.m_bHeaderOk)
            use.m_cMsgs = At<CRsMsgList>(itList->first)->m_lst.m_cCount;
        census.m_vQueues.push_back(use);
    }
}

bool CRsCheckSegment(KvCheckReport& report, CRsCheckCensus* pCensus)
{
    if (KvGranularity::_poinf == nullptr || KvGranularity::_aogran == nullptr) {
        report.Problem("no segment is attached");
        return false;
    }
    // A message can be made without the global mutex; the pools stand still only
    // under their own.
    KvPoolGuard guard;
    KvFaultFrame frame;
    try {
        KvPoolCheck pools(report);
        pools.Run();
        CRsChecker checker(report, pools);
        checker.Run();
        if (pCensus != nullptr) {
            checker.FillCensus(*pCensus);
            for (uint32_t i = 0; i < KVGRAN_COUNT; ++i)
                pCensus->m_acInUse[i] = pools.InUse(i);
        }
    } catch (...) {
        // Every link is tested before it is followed, so this is a gap in the
        // check itself; say so rather than pass.
        report.Problem("the check stopped at a fault while reading the segment; the rest was not checked");
    }
    return report.Ok();
}

std::vector<CRsQueueUse> CRsQueuesOfEndedProcesses(const CRsCheckCensus& census)
{
    std::vector<CRsQueueUse> v;
    for (const CRsQueueUse& use : census.m_vQueues)
        if (!KvIsProcessAlive(use.m_dwPrcsId))
            v.push_back(use);
    return v;
}
