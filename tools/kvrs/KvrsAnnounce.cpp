// KvrsAnnounce.cpp - see KvrsAnnounce.h.
#include "KvrsAnnounce.h"

#include "KvrsCommon.h"

KvrsCreated KvrsCreatePath(const std::string& strPath)
{
    // Count the names that exist already; the library's own walk (which
    // follows references the same way) then creates the rest.
    size_t cNames = 1, cExisting = 0;
    for (char ch : strPath)
        cNames += ch == '.';
    KvRsNodeProxy cur = KvrsRoot();
    for (size_t iStart = 0; cExisting < cNames; ++cExisting) {
        const size_t iDot = strPath.find('.', iStart);
        const std::string strName =
            strPath.substr(iStart, iDot == std::string::npos ? std::string::npos : iDot - iStart);
        KvRsNodeProxy child = KvRsGetChildNode(cur.GetHandle(), cur.GetId(), strName.c_str());
        if (child.IsNull())
            break;
        cur = child;
        iStart = iDot + 1;
    }
    KvrsCreated created;
    created.m_node = KvRsCreateNode(strPath.c_str(), nullptr, 0);
    if (created.m_node.IsNull())
        throw KvrsError(KVRS_EXIT_FAILED, "cannot create '" + strPath + "'");
    KvRsNodeProxy node = created.m_node;
    for (size_t i = cExisting; i < cNames && !node.IsNull(); ++i) {
        created.m_vCreated.insert(created.m_vCreated.begin(), node);
        node = KvRsGetNodeParent(node.GetHandle(), node.GetId());
    }
    return created;
}

void KvrsAnnounce(const KvRsNodeProxy& node, uint32_t dwMsg, const KvRsValueProxy& value)
{
    KvRsNotifyNodeClients(node.GetHandle(), node.GetId(), dwMsg, value.GetHandle(), value.GetId(), false);
}

void KvrsAnnounceStructural(const KvRsNodeProxy& node, uint32_t dwMsg)
{
    const std::string strPath = KvrsNodePath(node);
    KvrsAnnounce(node, dwMsg,
                 KvrsMakeValue(KVRS_VALUE_TYPE_PATH, std::vector<unsigned char>(strPath.begin(), strPath.end())));
}

void KvrsAnnounceCreated(const KvrsCreated& created)
{
    for (const KvRsNodeProxy& node : created.m_vCreated)
        KvrsAnnounceStructural(node, KVRS_MSG_CREATED);
}

uint32_t KvrsNodeType(const KvRsNodeProxy& node)
{
    return static_cast<uint32_t>(KvRsGetNodeType(node.GetHandle(), node.GetId()));  // 32-bit words
}

std::vector<KvRsNodeProxy> KvrsSubtree(const KvRsNodeProxy& node)
{
    std::vector<KvRsNodeProxy> v{node};
    for (size_t i = 0; i < v.size(); ++i) {
        const KvRsNodeProxy cur = v[i];
        if (KvrsNodeType(cur) & KVRS_TYPE_REF)
            continue;  // its children are the target's
        for (KvRsNodeProxy child = cur.GetChild(); !child.IsNull(); child = cur.GetChild(child))
            v.push_back(child);
    }
    return v;
}
