// KvrsBridgeLocal.cpp - walking, watching and changing the bridged subtrees.
#include "KvrsBridgeLocal.h"

#include <cstdio>

#include "KvrsBridgeTopic.h"

namespace {

// The target of every connection of the bridge: it is a client of each node
// once, so one target suffices, and messages name their node.
void* const khTarget = reinterpret_cast<void*>(static_cast<uintptr_t>(1));
constexpr unsigned long kidTarget = 1;

std::vector<std::string> SplitPath(const std::string& strPath)
{
    std::vector<std::string> vstr;
    size_t iStart = 0;
    for (;;) {
        const size_t iDot = strPath.find('.', iStart);
        vstr.push_back(strPath.substr(iStart, iDot == std::string::npos ? std::string::npos : iDot - iStart));
        if (iDot == std::string::npos)
            return vstr;
        iStart = iDot + 1;
    }
}

bool IsRef(const KvRsNodeProxy& node)
{
    return (KvRsGetNodeType(node.GetHandle(), node.GetId()) & KVRS_TYPE_REF) != 0;
}

KvrsValue NodeValue(const KvRsNodeProxy& node)
{
    return KvrsReadValue(KvRsGetNodeValue(node.GetHandle(), node.GetId()));
}

}  // namespace

bool KvrsSameValue(const KvrsValue& a, const KvrsValue& b)
{
    return a.m_bPresent == b.m_bPresent && a.m_dwType == b.m_dwType && a.m_ab == b.m_ab;
}

KvrsBridgeLocal::KvrsBridgeLocal(const std::vector<std::string>& vstrPaths)
{
    for (const std::string& strPath : vstrPaths) {
        KvRsNodeProxy node = KvRsCreateNode(strPath.c_str(), nullptr, 0);
        if (node.IsNull())
            throw KvrsError(KVRS_EXIT_FAILED, "cannot make node '" + strPath + "'");
        m_vstrPrefixes.push_back(KvrsBridgeKeyOf(SplitPath(strPath)));
        m_vstrPaths.push_back(strPath);
    }
}

KvrsBridgeLocal::~KvrsBridgeLocal()
{
    for (auto& [strKey, tracked] : m_mapTracked)
        KvRsDisconnectClient(tracked.m_node.GetHandle(), tracked.m_node.GetId(), khTarget, kidTarget);
}

bool KvrsBridgeLocal::IsWithin(const std::string& strKey) const
{
    for (const std::string& strPrefix : m_vstrPrefixes)
        if (KvrsBridgeKeyWithin(strKey, strPrefix))
            return true;
    return false;
}

KvrsBridgeLocal::Tracked& KvrsBridgeLocal::Track(const std::string& strKey, const KvRsNodeProxy& node, bool& bNew)
{
    auto it = m_mapTracked.find(strKey);
    bNew = it == m_mapTracked.end();
    if (!bNew && it->second.m_node.GetHandle() == node.GetHandle())
        return it->second;
    if (!bNew)
        Forget(it);  // removed and made anew under the same name
    KvRsConnectClient(node.GetHandle(), node.GetId(), khTarget, kidTarget);
    Tracked& tracked = m_mapTracked[strKey];
    tracked.m_node = node;
    m_mapKeyOfNode[node.GetHandle()] = strKey;
    return tracked;
}

void KvrsBridgeLocal::Forget(std::map<std::string, Tracked>::iterator it)
{
    const KvRsNodeProxy& node = it->second.m_node;
    KvRsDisconnectClient(node.GetHandle(), node.GetId(), khTarget, kidTarget);
    m_mapKeyOfNode.erase(node.GetHandle());
    // Its queued messages went with the connection, so the own notifications
    // still expected from it never come.
    for (auto itOwn = m_setOwn.begin(); itOwn != m_setOwn.end();)
        itOwn = itOwn->second == node.GetHandle() ? m_setOwn.erase(itOwn) : std::next(itOwn);
    m_mapTracked.erase(it);
}

void KvrsBridgeLocal::Visit(const KvRsNodeProxy& node, const std::string& strKey,
                            std::vector<KvrsBridgeChange>& vchange)
{
    bool bNew = false;
    Tracked& tracked = Track(strKey, node, bNew);
    tracked.m_bVisited = true;
    KvrsValue value = NodeValue(node);
    if (KvrsSameValue(value, tracked.m_seen) && !bNew)
        return;
    tracked.m_seen = value;
    if (value.m_bPresent)
        vchange.push_back({strKey, value, 1});
}

// References are neither followed nor bridged: their targets are bridged where
// they lie, and a reference cycle would never end the walk.
void KvrsBridgeLocal::Walk(const KvRsNodeProxy& node, const std::string& strKey, std::vector<KvrsBridgeChange>& vchange)
{
    if (IsRef(node))
        return;
    Visit(node, strKey, vchange);
    for (KvRsNodeProxy child = node.GetChild(); !child.IsNull(); child = node.GetChild(child))
        Walk(child, strKey + "/" + KvrsBridgeEscapeName(KvrsNodeName(child)), vchange);
}

void KvrsBridgeLocal::Scan(std::vector<KvrsBridgeChange>& vchange)
{
    for (auto& [strKey, tracked] : m_mapTracked)
        tracked.m_bVisited = false;
    for (size_t i = 0; i < m_vstrPaths.size(); ++i) {
        // A top node that was removed is made anew.
        KvRsNodeProxy node = KvRsCreateNode(m_vstrPaths[i].c_str(), nullptr, 0);
        if (!node.IsNull())
            Walk(node, m_vstrPrefixes[i], vchange);
    }
    for (auto it = m_mapTracked.begin(); it != m_mapTracked.end();) {
        auto itNext = std::next(it);
        if (!it->second.m_bVisited)
            Forget(it);
        it = itNext;
    }
}

void KvrsBridgeLocal::TakeMessages(std::vector<KvrsBridgeChange>& vchange)
{
    for (KvRsMsgProxy msg = KvRsGetMsg(); !msg.IsNull(); msg = KvRsGetMsg()) {
        KvRsNodeProxy node = KvRsGetMsgChangedNode(msg.GetHandle(), msg.GetId());
        KvRsValueProxy value = KvRsGetMsgValue(msg.GetHandle(), msg.GetId());
        auto itOwn = m_setOwn.find({value.GetHandle(), node.GetHandle()});
        if (itOwn != m_setOwn.end()) {
            m_setOwn.erase(itOwn);
            continue;
        }
        auto itKey = m_mapKeyOfNode.find(node.GetHandle());
        if (itKey == m_mapKeyOfNode.end())
            continue;  // a node forgotten since the message was sent
        Tracked& tracked = m_mapTracked[itKey->second];
        tracked.m_seen = NodeValue(tracked.m_node);
        KvrsBridgeChange change{itKey->second, KvrsReadValue(value),
                                static_cast<uint32_t>(KvRsGetMsgType(msg.GetHandle(), msg.GetId()))};
        if (!change.m_value.m_bPresent)
            change.m_value = tracked.m_seen;
        vchange.push_back(change);
    }
}

bool KvrsBridgeLocal::Apply(const std::string& strKey, const KvrsValue& value, uint32_t dwNumber)
{
    std::vector<std::string> vstrNames;
    if (!KvrsBridgeNamesOf(strKey, vstrNames) || value.m_ab.size() > KvrsMaxValueBytes())
        return false;
    KvRsNodeProxy node = KvrsRoot();
    for (const std::string& strName : vstrNames) {
        if (IsRef(node))
            return false;
        node = KvRsAddChildNode(node.GetHandle(), node.GetId(), strName.c_str());
        if (node.IsNull())
            return false;
    }
    if (IsRef(node))
        return false;
    bool bNew = false;
    Tracked& tracked = Track(strKey, node, bNew);
    tracked.m_bVisited = true;
    // Without a value only the notification crosses; the node keeps its value.
    KvRsValueProxy valueNew;
    if (value.m_bPresent) {
        valueNew = KvrsMakeValue(value.m_dwType, value.m_ab);
        KvRsSetNodeValue(node.GetHandle(), node.GetId(), valueNew.GetHandle(), valueNew.GetId());
    }
    tracked.m_seen = NodeValue(node);
    m_setOwn.insert({valueNew.GetHandle(), node.GetHandle()});
    KvRsNotifyNodeClients(node.GetHandle(), node.GetId(), dwNumber, valueNew.GetHandle(), valueNew.GetId(), false);
    return true;
}
