// KvrsTree.cpp - `kvrs tree`: a subtree as an indented listing or as JSON.
#include <cstdio>
#include <memory>
#include <string>

#include "KvrsCommands.h"
#include "KvrsCommon.h"

namespace {

struct TreeOptions {
    std::string m_strPath;
    int m_iDepth = -1;  // -1: no limit
    bool m_bJson = false;
};

// What one line of the listing shows about a node.
struct NodeFacts {
    std::string m_strName;
    std::string m_strPath;
    uint32_t m_dwType = 0;
    KvrsValue m_value;
    std::string m_strRef;  // full path of the referenced node, when a reference
    bool m_bRefSet = false;
    bool m_bServer = false;
    long m_cClients = 0;
};

NodeFacts ReadFacts(const KvRsNodeProxy& node)
{
    NodeFacts f;
    void* h = node.GetHandle();
    const unsigned long id = node.GetId();
    f.m_strName = KvrsNodeName(node);
    f.m_strPath = KvrsNodePath(node);
    f.m_dwType = static_cast<uint32_t>(KvRsGetNodeType(h, id));
    if (f.m_dwType & KVRS_TYPE_VALUE)
        f.m_value = KvrsReadValue(KvRsGetNodeValue(h, id));
    if (f.m_dwType & KVRS_TYPE_REF) {
        KvRsNodeProxy ref = KvRsGetRefNode(h, id);
        f.m_bRefSet = !ref.IsNull();
        if (f.m_bRefSet)
            f.m_strRef = KvrsNodePath(ref);
    }
    KVRSCONNECTINFO server;
    KvRsGetServer(h, id, &server);
    f.m_bServer = !server.proxyQueue.IsNull();
    f.m_cClients = KvRsGetClientCount(h, id);
    return f;
}

std::string FactsLine(const NodeFacts& f, bool bRoot)
{
    std::string str = bRoot ? "(root)" : f.m_strName;
    str += "  [" + KvrsHex32(f.m_dwType);
    const std::string strFlags = KvrsTypeFlags(f.m_dwType);
    str += strFlags.empty() ? "]" : " " + strFlags + "]";
    if (f.m_dwType & KVRS_TYPE_VALUE)
        str += "  " + KvrsValueText(f.m_value, 48);
    if (f.m_dwType & KVRS_TYPE_REF)
        str += f.m_bRefSet ? "  -> " + (f.m_strRef.empty() ? std::string("(root)") : f.m_strRef) : "  -> (none)";
    if (f.m_bServer || f.m_cClients > 0)
        str += "  server " + std::to_string(f.m_bServer ? 1 : 0) + ", clients " + std::to_string(f.m_cClients);
    return str;
}

std::string FactsJson(const NodeFacts& f)
{
    std::string str = "{\"name\":" + KvrsJsonString(f.m_strName) + ",\"path\":" + KvrsJsonString(f.m_strPath);
    str += ",\"type\":" + std::to_string(f.m_dwType) + ",\"flags\":[";
    bool bFirst = true;
    for (const std::string& strFlag : KvrsTypeFlagList(f.m_dwType)) {
        str += (bFirst ? "" : ",") + KvrsJsonString(strFlag);
        bFirst = false;
    }
    str += "],\"value\":" + KvrsValueJson(f.m_value);
    str += ",\"ref\":" + (f.m_bRefSet ? KvrsJsonString(f.m_strRef) : std::string("null"));
    str += ",\"server\":" + std::to_string(f.m_bServer ? 1 : 0) + ",\"clients\":" + std::to_string(f.m_cClients);
    return str;
}

// A reference node forwards child lookups to its target: listing its children
// would show the target's subtree a second time (or loop on a cycle), so the
// walk stops at references and prints where they point instead.
bool ShouldDescend(uint32_t dwType, int iDepth, int iLimit)
{
    return (dwType & KVRS_TYPE_REF) == 0 && (iLimit < 0 || iDepth < iLimit);
}

void PrintText(const KvRsNodeProxy& node, int iDepth, const TreeOptions& opt, bool bRoot)
{
    const NodeFacts f = ReadFacts(node);
    printf("%s%s\n", std::string(static_cast<size_t>(iDepth) * 2, ' ').c_str(), FactsLine(f, bRoot).c_str());
    if (!ShouldDescend(f.m_dwType, iDepth, opt.m_iDepth))
        return;
    for (KvRsNodeProxy child = node.GetChild(); !child.IsNull(); child = node.GetChild(child))
        PrintText(child, iDepth + 1, opt, false);
}

void PrintJson(const KvRsNodeProxy& node, int iDepth, const TreeOptions& opt)
{
    const NodeFacts f = ReadFacts(node);
    printf("%s,\"children\":[", FactsJson(f).c_str());
    if (ShouldDescend(f.m_dwType, iDepth, opt.m_iDepth)) {
        bool bFirst = true;
        for (KvRsNodeProxy child = node.GetChild(); !child.IsNull(); child = node.GetChild(child)) {
            printf("%s", bFirst ? "" : ",");
            bFirst = false;
            PrintJson(child, iDepth + 1, opt);
        }
    }
    printf("]}");
}

void RunTree(const TreeOptions& opt)
{
    KvrsCheckPath(opt.m_strPath, true);
    KvRsNodeProxy node = KvrsFindNode(opt.m_strPath);
    if (opt.m_bJson) {
        PrintJson(node, 0, opt);
        printf("\n");
    } else {
        PrintText(node, 0, opt, opt.m_strPath.empty());
    }
}

}  // namespace

void KvrsAddTreeCommand(CLI::App& app)
{
    auto opt = std::make_shared<TreeOptions>();
    CLI::App* sub = app.add_subcommand("tree", "Print a subtree: names, types, values, references, connections");
    sub->add_option("PATH", opt->m_strPath, "Dotted path of the subtree's top (default: the whole tree)");
    auto pstrDepth = std::make_shared<std::string>();
    sub->add_option("--depth", *pstrDepth, "Levels below PATH to show (0: PATH alone)")->type_name("N");
    sub->add_flag("--json", opt->m_bJson, "One JSON object with nested children");
    sub->callback([opt, pstrDepth] {
        if (!pstrDepth->empty())
            opt->m_iDepth = static_cast<int>(KvrsParseCount(*pstrDepth, "--depth", 0, 100000));
        RunTree(*opt);
    });
}
