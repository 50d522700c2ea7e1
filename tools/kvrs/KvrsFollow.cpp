// KvrsFollow.cpp - see KvrsFollow.h.
#include "KvrsFollow.h"

#include <algorithm>

#include "KvrsAnnounce.h"
#include "KvrsCommon.h"

std::vector<std::string> KvrsSplitPath(const std::string& strPath)
{
    std::vector<std::string> vstr;
    if (strPath.empty())
        return vstr;
    for (size_t i = 0;;) {
        const size_t iDot = strPath.find('.', i);
        vstr.push_back(strPath.substr(i, iDot == std::string::npos ? iDot : iDot - i));
        if (iDot == std::string::npos)
            return vstr;
        i = iDot + 1;
    }
}

bool KvrsPatternMatches(const std::vector<std::string>& vstrPattern, size_t iPattern,
                        const std::vector<std::string>& vstrNames, size_t iName)
{
    if (iPattern == vstrPattern.size())
        return iName == vstrNames.size();
    if (vstrPattern[iPattern] == "#") {
        // Any number of names: try every split, the shortest first.
        for (size_t i = iName; i <= vstrNames.size(); ++i)
            if (KvrsPatternMatches(vstrPattern, iPattern + 1, vstrNames, i))
                return true;
        return false;
    }
    if (iName == vstrNames.size())
        return false;
    return (vstrPattern[iPattern] == "*" || vstrPattern[iPattern] == vstrNames[iName]) &&
           KvrsPatternMatches(vstrPattern, iPattern + 1, vstrNames, iName + 1);
}

namespace {

void* Handle(uintptr_t u)
{
    return reinterpret_cast<void*>(u);
}

}  // namespace

KvrsFollow::KvrsFollow(const std::vector<std::string>& vstrPatterns, bool bSubtree)
{
    for (const std::string& strText : vstrPatterns) {
        Pattern p;
        p.m_strText = strText;
        p.m_vstrNames = KvrsSplitPath(strText);
        for (const std::string& strName : p.m_vstrNames) {
            const bool bWildName = strName == "*" || strName == "#";
            if (!bWildName && strName.find_first_of("*#") != std::string::npos)
                KvrsUsageError("bad pattern '" + KvrsShown(strText) + "': '*' and '#' stand for whole names");
            p.m_bWild = p.m_bWild || bWildName;
        }
        if (bSubtree) {
            p.m_vstrNames.push_back("#");
            p.m_bWild = true;
            p.m_strText += p.m_strText.empty() ? "#" : ".#";
        }
        if (!p.m_bWild)
            KvrsCheckPath(strText, true);
        else
            KvrsCheckPath(strText.empty() ? "x" : strText, false);  // no empty names, limit
        m_vPatterns.push_back(p);
    }
}

bool KvrsFollow::FollowsCreation() const
{
    return std::any_of(m_vPatterns.begin(), m_vPatterns.end(), [](const Pattern& p) { return p.m_bWild; });
}

void KvrsFollow::Connect(const KvRsNodeProxy& node, uintptr_t uTarget)
{
    if (IsConnected(node))
        return;
    KvRsConnectClient(node.GetHandle(), node.GetId(), Handle(uTarget), static_cast<unsigned long>(uTarget));
    m_vConnected.push_back({node, uTarget});
}

bool KvrsFollow::Matches(const std::vector<std::string>& vstrNames) const
{
    for (const Pattern& p : m_vPatterns)
        if (p.m_bWild && KvrsPatternMatches(p.m_vstrNames, 0, vstrNames, 0))
            return true;
    return false;
}

bool KvrsFollow::CouldMatchBelow(const std::vector<std::string>& vstrNames) const
{
    for (const Pattern& p : m_vPatterns) {
        if (!p.m_bWild)
            continue;
        if (std::find(p.m_vstrNames.begin(), p.m_vstrNames.end(), "#") != p.m_vstrNames.end() ||
            vstrNames.size() < p.m_vstrNames.size())
            return true;
    }
    return false;
}

void KvrsFollow::Walk(const KvRsNodeProxy& node, std::vector<std::string>& vstrNames, std::vector<KvRsNodeProxy>* pv)
{
    if (Matches(vstrNames) && !IsConnected(node)) {
        m_uNextFound = std::max(m_uNextFound, NextTarget()) + 1;
        Connect(node, m_uNextFound);
        pv->push_back(node);
    }
    if ((KvrsNodeType(node) & KVRS_TYPE_REF) || !CouldMatchBelow(vstrNames))
        return;  // a reference's children are its target's, listed there
    for (KvRsNodeProxy child = node.GetChild(); !child.IsNull(); child = node.GetChild(child)) {
        vstrNames.push_back(KvrsNodeName(child));
        Walk(child, vstrNames, pv);
        vstrNames.pop_back();
    }
}

std::vector<KvRsNodeProxy> KvrsFollow::ConnectExisting()
{
    std::vector<KvRsNodeProxy> v;
    for (size_t i = 0; i < m_vPatterns.size(); ++i) {
        const Pattern& p = m_vPatterns[i];
        if (!p.m_bWild) {
            KvRsNodeProxy node = KvrsFindNode(p.m_strText);
            if (!IsConnected(node))
                v.push_back(node);
            Connect(node, i + 1);
        }
    }
    if (!FollowsCreation())
        return v;
    // Wild patterns: walk the tree once, under the mutex, so that no node is
    // created between the walk and the structural connection.
    std::vector<std::string> vstrNames;
    Walk(KvrsRoot(), vstrNames, &v);
    return v;
}

std::vector<KvRsNodeProxy> KvrsFollow::ConnectNew()
{
    // The root's clients hear of a change with the root as its node, so the
    // tree is walked again instead of trusting any one message.
    std::vector<KvRsNodeProxy> v;
    std::vector<std::string> vstrNames;
    if (FollowsCreation())
        Walk(KvrsRoot(), vstrNames, &v);
    return v;
}

void KvrsFollow::OnRemoved(const KvRsNodeProxy& node)
{
    for (auto it = m_vConnected.begin(); it != m_vConnected.end(); ++it) {
        if (it->m_node.GetHandle() == node.GetHandle()) {
            KvRsDisconnectClient(node.GetHandle(), node.GetId(), Handle(it->m_uTarget),
                                 static_cast<unsigned long>(it->m_uTarget));
            m_vConnected.erase(it);
            return;
        }
    }
}

bool KvrsFollow::IsConnected(const KvRsNodeProxy& node) const
{
    return TargetOf(node) != 0;
}

uintptr_t KvrsFollow::TargetOf(const KvRsNodeProxy& node) const
{
    for (const Connected& c : m_vConnected)
        if (c.m_node.GetHandle() == node.GetHandle())
            return c.m_uTarget;
    return 0;
}

void KvrsFollow::DisconnectAll()
{
    for (const Connected& c : m_vConnected)
        KvRsDisconnectClient(c.m_node.GetHandle(), c.m_node.GetId(), Handle(c.m_uTarget),
                             static_cast<unsigned long>(c.m_uTarget));
    m_vConnected.clear();
}

std::string KvrsFollow::Describe() const
{
    std::string str;
    for (const Pattern& p : m_vPatterns)
        str += (str.empty() ? "" : ", ") + (p.m_strText.empty() ? std::string("(root)") : p.m_strText);
    return str;
}
