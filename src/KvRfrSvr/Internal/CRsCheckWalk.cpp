// CRsCheckWalk.cpp - claiming blocks and walking the objects of each kind.
#include <cstring>

#include "CRsCheckWalk.h"

namespace {

uint32_t KindSize(CRsKind eKind)
{
    switch (eKind) {
    case CRsKind::Node: return sizeof(CRsNode);
    case CRsKind::Value: return sizeof(CRsValue);
    case CRsKind::Queue: return sizeof(CRsQueue);
    case CRsKind::MsgList: return sizeof(CRsMsgList);
    case CRsKind::Msg: return sizeof(CRsMsg);
    case CRsKind::Connect: return sizeof(CRsConnect);
    case CRsKind::RefreshInfo: return sizeof(CRsRefreshInfo);
    case CRsKind::ChildList: return sizeof(CRsChildList);
    case CRsKind::NodeHln: return sizeof(CRsNodeHln);
    case CRsKind::ConnectHln: return sizeof(CRsConnectHln);
    case CRsKind::NodeTop: return sizeof(QTopNode<CRsNodeHln>);
    case CRsKind::ConnectTop: return sizeof(QTopNode<CRsConnectHln>);
    case CRsKind::MsgNode: return sizeof(CRsMsgList::List::Node);
    default: return 0;  // names and bytes: their own sizes
    }
}

// The delete-function index every block of the kind starts with (0: not known
// in this process, or a kind without one).
int32_t KindIndex(CRsKind eKind)
{
    switch (eKind) {
    case CRsKind::Node: return CRsNode::sm_iDeleteFunction;
    case CRsKind::Value: return CRsValue::sm_iDeleteFunction;
    case CRsKind::Queue: return CRsQueue::sm_iDeleteFunction;
    case CRsKind::MsgList: return CRsMsgList::sm_iDeleteFunction;
    case CRsKind::Msg: return CRsMsg::sm_iDeleteFunction;
    case CRsKind::Connect: return CRsConnect::sm_iDeleteFunction;
    case CRsKind::RefreshInfo: return CRsRefreshInfo::sm_iDeleteFunction;
    case CRsKind::ChildList: return CRsChildList::sm_iDeleteFunction;
    case CRsKind::NodeHln: return CRsNodeHln::sm_iDeleteFunction;
    case CRsKind::ConnectHln: return CRsConnectHln::sm_iDeleteFunction;
    case CRsKind::NodeTop: return QTopNode<CRsNodeHln>::sm_iDeleteFunction;
    case CRsKind::ConnectTop: return QTopNode<CRsConnectHln>::sm_iDeleteFunction;
    case CRsKind::MsgNode: return CRsMsgList::List::Node::sm_iDeleteFunction;
    default: return 0;
    }
}

template <class T>
T* At(uint32_t ofs)
{
    return static_cast<T*>(KvGranularity::_CalcPtr(ofs));
}

// Names in report lines: at most 60 bytes, control bytes shown as "?".
std::string Printable(const char* psz)
{
    std::string str;
    for (size_t i = 0; psz[i] != '\0'; ++i) {
        if (i == 60) {
            str += "...";
            break;
        }
        const unsigned char ch = static_cast<unsigned char>(psz[i]);
        str += ch < 0x20 || ch == 0x7f ? '?' : psz[i];
    }
    return str;
}

}  // namespace

const char* CRsKindName(CRsKind eKind)
{
    static const char* const s_apsz[] = {"node",
                                         "value",
                                         "queue",
                                         "message list",
                                         "message",
                                         "connection",
                                         "refresh info",
                                         "child list",
                                         "child entry",
                                         "client entry",
                                         "child index entry",
                                         "client index entry",
                                         "message list node",
                                         "name buffer",
                                         "value bytes"};
    return s_apsz[static_cast<size_t>(eKind)];
}

// --- blocks and objects ----------------------------------------------------------

CRsChecker::Claim CRsChecker::ClaimBlock(uint32_t ofs, CRsKind eKind, uint32_t iPool, const std::string& strWhat)
{
    const std::string strWhy = m_pools.BlockProblem(ofs, iPool);
    if (!strWhy.empty()) {
        Problem(strWhat + ": " + CRsKindName(eKind) + " " + KvHexOffset(ofs) + " " + strWhy);
        return Claim::Bad;
    }
    auto res = m_mapBlocks.emplace(ofs, Block{eKind, iPool});
    if (!res.second) {
        if (res.first->second.m_eKind == eKind)
            return Claim::Seen;
        Problem(strWhat + ": block " + KvHexOffset(ofs) + " is reached as a " + CRsKindName(eKind) + " and as a " +
                CRsKindName(res.first->second.m_eKind));
        return Claim::Bad;
    }
    const int32_t iWant = KindIndex(eKind);
    const int32_t iHave = *At<int32_t>(ofs);
    if (iWant != 0 && iHave != iWant) {
        Problem(strWhat + ": " + CRsKindName(eKind) + " " + KvHexOffset(ofs) + " starts with delete-function index " +
                std::to_string(iHave) + ", its class has " + std::to_string(iWant));
        return Claim::Bad;
    }
    return Claim::New;
}

CRsChecker::Obj* CRsChecker::LinkObject(uint32_t ofs, CRsKind eKind, CRsLink eLink, const std::string& strLabel,
                                        bool bTree, bool* pbNew)
{
    if (pbNew != nullptr)
        *pbNew = false;
    if (ofs == 0)
        return nullptr;
    const Claim claim = ClaimBlock(ofs, eKind, KvPoolCheck::PoolOf(KindSize(eKind)), strLabel);
    if (claim == Claim::Bad)
        return nullptr;
    Obj& obj = m_mapObjs[ofs];
    if (claim == Claim::New) {
        obj.m_eKind = eKind;
        obj.m_strLabel = strLabel;
        obj.m_bInTree = bTree;
        obj.m_bHeaderOk = CheckObjectHeader(ofs, obj);
        if (obj.m_bHeaderOk)
            (bTree ? m_vWork : m_vLater).push_back(ofs);
        if (pbNew != nullptr)
            *pbNew = true;
    }
    if (eLink == CRsLink::Smart)
        obj.m_cSmartLinks += 1;
    else if (eLink == CRsLink::Child)
        obj.m_cChildLinks += 1;
    return &obj;
}

// A destroyed object (id overwritten) or one that its counts call dead is
// reported and not walked: its links may already be released.
bool CRsChecker::CheckObjectHeader(uint32_t ofs, Obj& obj)
{
    const CRsObj* p = At<CRsObj>(ofs);
    bool bOk = true;
    if (p->m_dwId == CRsObj::DEAD_ID) {
        Problem(obj.m_strLabel + ": its id 0xabcdef marks a destroyed object, yet it is still linked");
        bOk = false;
    }
    if (p->m_cSmart < 0 || p->m_cChild < 0 || p->m_cSmart + p->m_cChild <= 0) {
        Problem(obj.m_strLabel + ": smart count " + std::to_string(p->m_cSmart) + " and child count " +
                std::to_string(p->m_cChild) + " say it is dead, yet it is still linked");
        bOk = false;
    }
    return bOk;
}

std::string CRsChecker::TextProblem(const KvString& str) const
{
    const uint32_t ofsText = str.m_psz.Offset();
    const uint32_t ofsGran = str.m_pGran.Offset();
    if (ofsText == 0 && ofsGran == 0)
        return "";
    if (ofsText == 0 || ofsGran == 0)
        return "buffer " + KvHexOffset(ofsText) + " and pool " + KvHexOffset(ofsGran) + " must be set together";
    const uint32_t ofsTable = static_cast<uint32_t>(offsetof(KvGranularity::Info, _agran));
    const uint32_t iPool = (ofsGran - ofsTable) / sizeof(KvGranularity);
    if (ofsGran < ofsTable || (ofsGran - ofsTable) % sizeof(KvGranularity) != 0 || iPool == 0 ||
        iPool >= KVGRAN_COUNT - 1)
        return "its pool link " + KvHexOffset(ofsGran) + " names no entry of the granularity table";
    const std::string strWhy = m_pools.BlockProblem(ofsText, iPool);
    if (!strWhy.empty())
        return "buffer " + KvHexOffset(ofsText) + " " + strWhy;
    if (memchr(At<char>(ofsText), 0, KvGranularity::_agranTemplate[iPool]._stSize) == nullptr)
        return "buffer " + KvHexOffset(ofsText) + " holds no terminator";
    return "";
}

void CRsChecker::CheckText(const KvString& str, const std::string& strWhat)
{
    const std::string strWhy = TextProblem(str);
    if (!strWhy.empty()) {
        Problem(strWhat + ": " + strWhy);
        return;
    }
    const uint32_t ofsText = str.m_psz.Offset();
    if (ofsText != 0) {
        const uint32_t iPool = (str.m_pGran.Offset() - static_cast<uint32_t>(offsetof(KvGranularity::Info, _agran))) /
                               static_cast<uint32_t>(sizeof(KvGranularity));
        ClaimBlock(ofsText, CRsKind::Text, iPool, strWhat);
    }
}

std::string CRsChecker::SafeText(const KvString& str) const
{
    return TextProblem(str).empty() ? Printable(str.GetCharPtr()) : "?";
}

std::string CRsChecker::NodeLabel(uint32_t ofs, const std::string& strPath)
{
    return strPath.empty() ? "node " + KvHexOffset(ofs) : "node \"" + strPath + "\" (" + KvHexOffset(ofs) + ")";
}

// --- one object of each kind -----------------------------------------------------

void CRsChecker::WalkObject(uint32_t ofs)
{
    Obj& obj = m_mapObjs.at(ofs);
    switch (obj.m_eKind) {
    case CRsKind::Node: WalkNode(ofs, obj); break;
    case CRsKind::Value: WalkValue(ofs, obj); break;
    case CRsKind::Queue: WalkQueue(ofs, obj); break;
    case CRsKind::MsgList: WalkMsgList(ofs, obj); break;
    case CRsKind::Msg: WalkMsg(ofs, obj); break;
    case CRsKind::Connect: WalkConnect(ofs, obj); break;
    case CRsKind::RefreshInfo: WalkRefreshInfo(ofs, obj); break;
    case CRsKind::ChildList: WalkChildList(ofs, obj); break;
    default: break;
    }
}

void CRsChecker::WalkNode(uint32_t ofs, Obj& obj)
{
    const CRsNode* p = At<CRsNode>(ofs);
    const std::string strLabel = obj.m_strLabel;
    CheckText(p->m_strName, strLabel + " name");
    // A node's refresh info and child list belong to it alone.
    auto own = [&](Obj* pOwned, const char* pszWhat) {
        if (pOwned == nullptr)
            return;
        if (pOwned->m_ofsOwner == 0)
            pOwned->m_ofsOwner = ofs;
        else if (pOwned->m_ofsOwner != ofs)
            Problem(pOwned->m_strLabel + ": " + pszWhat + " is held by two nodes, " + KvHexOffset(pOwned->m_ofsOwner) +
                    " and " + KvHexOffset(ofs));
    };
    own(LinkObject(p->m_ptrRefreshInfo.Offset(), CRsKind::RefreshInfo, CRsLink::Smart, "refresh info of " + strLabel),
        "the refresh info");
    own(LinkObject(p->m_ptrChildList.Offset(), CRsKind::ChildList, CRsLink::Smart, "child list of " + strLabel,
                   obj.m_bInTree),
        "the child list");
    LinkObject(p->m_ptrValue.Offset(), CRsKind::Value, CRsLink::Smart, "value of " + strLabel);
    const uint32_t ofsRef = p->m_ptrRef.Offset();
    LinkObject(ofsRef, CRsKind::Node, CRsLink::Smart, NodeLabel(ofsRef, "") + " (referred to by " + strLabel + ")");
    const uint32_t ofsParent = p->m_ptrParent.Offset();
    LinkObject(ofsParent, CRsKind::Node, CRsLink::None, NodeLabel(ofsParent, "") + " (parent of " + strLabel + ")");
}

void CRsChecker::WalkValue(uint32_t ofs, Obj& obj)
{
    const CRsValue* p = At<CRsValue>(ofs);
    const uint32_t ofsBytes = p->m_pvStorage.Offset();
    const int32_t cBytes = p->m_cBytes;
    if ((ofsBytes == 0) != (cBytes == 0) || cBytes < 0) {
        Problem(obj.m_strLabel + " (" + KvHexOffset(ofs) + "): storage " + KvHexOffset(ofsBytes) +
                " with a byte count of " + std::to_string(cBytes));
        return;
    }
    if (ofsBytes == 0)
        return;
    const uint32_t iPool = KvPoolCheck::PoolOf(static_cast<uint32_t>(cBytes));
    if (iPool == KVGRAN_COUNT)
        Problem(obj.m_strLabel + " (" + KvHexOffset(ofs) + "): no pool holds " + std::to_string(cBytes) + " bytes");
    else
        ClaimBlock(ofsBytes, CRsKind::Bytes, iPool, obj.m_strLabel + " (" + KvHexOffset(ofs) + ")");
}

// A linked connection has a live queue and at least one connect not yet undone.
void CRsChecker::WalkConnect(uint32_t ofs, Obj& obj)
{
    const CRsConnect* p = At<CRsConnect>(ofs);
    const uint32_t ofsQueue = p->m_ptrQueue.Offset();
    if (ofsQueue == 0)
        Problem(obj.m_strLabel + ": it has no queue");
    else
        LinkObject(ofsQueue, CRsKind::Queue, CRsLink::Smart,
                   "queue " + KvHexOffset(ofsQueue) + " of " + obj.m_strLabel);
    if (p->m_cConnect < 1)
        Problem(obj.m_strLabel + ": its count of connects is " + std::to_string(p->m_cConnect) +
                ", but a linked connection has at least 1");
}

void CRsChecker::WalkQueue(uint32_t ofs, Obj& obj)
{
    const CRsQueue* p = At<CRsQueue>(ofs);
    obj.m_strLabel = "queue \"" + SafeText(p->m_strName) + "\" of process " + std::to_string(p->m_dwPrcsId) + " (" +
                     KvHexOffset(ofs) + ")";
    CheckText(p->m_strName, obj.m_strLabel + " name");
    m_vQueues.push_back(ofs);
    const uint32_t ofsList = p->m_ptrMsgList.Offset();
    if (ofsList == 0)
        Problem(obj.m_strLabel + ": it has no message list");
    else
        LinkObject(ofsList, CRsKind::MsgList, CRsLink::Child, "message list of " + obj.m_strLabel);
}

void CRsChecker::WalkMsg(uint32_t ofs, Obj& obj)
{
    const CRsMsg* p = At<CRsMsg>(ofs);
    const uint32_t ofsNode = p->m_ptrNode.Offset();
    LinkObject(ofsNode, CRsKind::Node, CRsLink::Smart, NodeLabel(ofsNode, "") + " (named by " + obj.m_strLabel + ")");
    LinkObject(p->m_ptrValue.Offset(), CRsKind::Value, CRsLink::Smart, "value of " + obj.m_strLabel);
}
