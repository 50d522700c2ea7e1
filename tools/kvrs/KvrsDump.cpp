// KvrsDump.cpp - `kvrs dump` and `kvrs load`: the tree is never written to
// disk by the library, on purpose; an operator who wants it back after a
// restart saves it as JSON and loads it into the new tree.
//
// The file is one JSON object, one node per line:
//   {"kvrs-dump":1,"nodes":[
//   {"path":"plant.line1.temp","type":1,"value":{"type":1,"text":"21.5"}},
//   {"path":"plant.inlet","type":2,"ref":"plant.line1"}
//   ]}
// Nodes come parent first. A name that holds "." (possible through the API,
// never through a path) adds "names": the path split into its names.
#include <nlohmann/json.hpp>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "KvrsAnnounce.h"
#include "KvrsCommands.h"
#include "KvrsCommon.h"
#include "KvrsOptions.h"

using json = nlohmann::json;

namespace {

constexpr int kiDumpVersion = 1;

// The names from the root down to node ("" names for the root itself).
std::vector<std::string> NamesOf(const KvRsNodeProxy& node)
{
    std::vector<std::string> vstr;
    for (KvRsNodeProxy cur = node;;) {
        KvRsNodeProxy parent = KvRsGetNodeParent(cur.GetHandle(), cur.GetId());
        if (parent.IsNull())
            break;
        vstr.insert(vstr.begin(), KvrsNodeName(cur));
        cur = parent;
    }
    return vstr;
}

json ValueJson(const KvrsValue& v)
{
    json j = {{"type", v.m_dwType}};
    if (KvrsIsPrintable(v.m_ab))
        j["text"] = std::string(v.m_ab.begin(), v.m_ab.end());
    else
        j["hex"] = KvrsHexText(v.m_ab, v.m_ab.size());
    return j;
}

json NodeJson(const KvRsNodeProxy& node)
{
    const std::vector<std::string> vstrNames = NamesOf(node);
    json j = {{"path", KvrsNodePath(node)}};
    for (const std::string& str : vstrNames)
        if (str.find('.') != std::string::npos || str.empty())
            j["names"] = vstrNames;
    const uint32_t dwType = KvrsNodeType(node);
    j["type"] = dwType;
    if (dwType & KVRS_TYPE_VALUE) {
        const KvrsValue v = KvrsReadValue(KvRsGetNodeValue(node.GetHandle(), node.GetId()));
        if (v.m_bPresent)
            j["value"] = ValueJson(v);
    }
    if (dwType & KVRS_TYPE_REF) {
        KvRsNodeProxy ref = KvRsGetRefNode(node.GetHandle(), node.GetId());
        if (!ref.IsNull())
            j["ref"] = KvrsNodePath(ref);
    }
    return j;
}

void RunDump(const std::string& strPath)
{
    KvrsCheckPath(strPath, true);
    KvRsNodeProxy top = KvrsFindNode(strPath);
    KvrsMutexHold hold;  // one moment's tree
    std::vector<KvRsNodeProxy> vNodes = KvrsSubtree(top);
    if (strPath.empty())
        vNodes.erase(vNodes.begin());  // the root is made by every start-up
    printf("{\"kvrs-dump\":%d,\"nodes\":[", kiDumpVersion);
    for (size_t i = 0; i < vNodes.size(); ++i)
        printf("%s\n%s", i == 0 ? "" : ",", NodeJson(vNodes[i]).dump().c_str());
    printf("\n]}\n");
}

// --- load --------------------------------------------------------------------

[[noreturn]] void BadDump(const std::string& strFile, const std::string& strWhy)
{
    KvrsUsageError("bad dump '" + KvrsShown(strFile) + "': " + strWhy);
}

json ReadDump(const std::string& strFile)
{
    json j;
    try {
        if (strFile == "-") {
            j = json::parse(std::cin);
        } else {
            std::ifstream in(strFile, std::ios::binary);
            if (!in)
                throw KvrsError(KVRS_EXIT_FAILED, "cannot open '" + KvrsShown(strFile) + "'");
            j = json::parse(in);
        }
    } catch (const json::exception& e) {
        BadDump(strFile, "not JSON (at byte " +
                             std::to_string(e.id == 101 ? static_cast<const json::parse_error&>(e).byte : 0) + ")");
    }
    if (!j.is_object() || !j.contains("kvrs-dump") || !j.contains("nodes") || !j["nodes"].is_array())
        BadDump(strFile, "not a file written by kvrs dump");
    if (j["kvrs-dump"] != kiDumpVersion)
        BadDump(strFile, "version " + j["kvrs-dump"].dump() + " is not known");
    return j;
}

// One node of the file, checked.
struct DumpNode {
    std::vector<std::string> m_vstrNames;
    std::string m_strPath;
    uint32_t m_dwType = 0;
    bool m_bValue = false;
    uint32_t m_dwValueType = 0;
    std::vector<unsigned char> m_ab;
    std::string m_strRef;  // empty: none
};

DumpNode ParseNode(const json& j, const std::string& strFile)
{
    DumpNode n;
    try {
        n.m_strPath = j.at("path").get<std::string>();
        if (j.contains("names")) {
            n.m_vstrNames = j["names"].get<std::vector<std::string>>();
        } else {
            KvrsCheckPath(n.m_strPath, false);
            for (size_t i = 0, iDot;; i = iDot + 1) {
                iDot = n.m_strPath.find('.', i);
                n.m_vstrNames.push_back(n.m_strPath.substr(i, iDot == std::string::npos ? iDot : iDot - i));
                if (iDot == std::string::npos)
                    break;
            }
        }
        n.m_dwType = j.at("type").get<uint32_t>();
        if (j.contains("value")) {
            const json& v = j["value"];
            n.m_bValue = true;
            n.m_dwValueType = v.at("type").get<uint32_t>();
            const std::string str = v.contains("hex") ? v["hex"].get<std::string>() : v.at("text").get<std::string>();
            n.m_ab = v.contains("hex") ? KvrsParseHex(str) : std::vector<unsigned char>(str.begin(), str.end());
            KvrsCheckValueSize(n.m_ab.size());
        }
        if (j.contains("ref"))
            n.m_strRef = j["ref"].get<std::string>();
    } catch (const json::exception&) {
        BadDump(strFile, "node '" + KvrsShown(n.m_strPath) + "' is not complete");
    }
    if (n.m_vstrNames.empty())
        BadDump(strFile, "a node without path");
    return n;
}

// Finds or creates the node by its names; new nodes are announced.
KvRsNodeProxy CreateByNames(const std::vector<std::string>& vstrNames, bool bQuiet)
{
    KvRsNodeProxy cur = KvrsRoot();
    for (const std::string& strName : vstrNames) {
        KvRsNodeProxy child = KvRsGetChildNode(cur.GetHandle(), cur.GetId(), strName.c_str());
        if (child.IsNull()) {
            child = KvRsAddChildNode(cur.GetHandle(), cur.GetId(), strName.c_str());
            if (child.IsNull())
                throw KvrsError(KVRS_EXIT_FAILED, "cannot create '" + strName + "' (its parent is const)");
            if (!bQuiet)
                KvrsAnnounceStructural(child, KVRS_MSG_CREATED);
        }
        cur = child;
    }
    return cur;
}

struct LoadOptions {
    std::string m_strFile;
    bool m_bAllowVanish = false;
    bool m_bQuiet = false;
};

// Nodes and values first, then references (their targets exist by then),
// then the type words, const last of all so that it freezes the loaded state.
void Apply(const std::vector<DumpNode>& vNodes, const LoadOptions& opt, std::vector<std::string>* pvstrRefused)
{
    std::vector<KvRsNodeProxy> vProxies;
    for (const DumpNode& n : vNodes) {
        vProxies.push_back(CreateByNames(n.m_vstrNames, opt.m_bQuiet));
        const KvRsNodeProxy& node = vProxies.back();
        if (!n.m_bValue)
            continue;
        KvRsValueProxy value = KvrsMakeValue(n.m_dwValueType, n.m_ab);
        KvRsSetNodeValue(node.GetHandle(), node.GetId(), value.GetHandle(), value.GetId());
        if (KvRsGetNodeValue(node.GetHandle(), node.GetId()).GetHandle() != value.GetHandle())
            pvstrRefused->push_back(n.m_strPath);
        else if (!opt.m_bQuiet)
            KvrsAnnounce(node, KVRS_MSG_VALUE, value);
    }
    for (size_t i = 0; i < vNodes.size(); ++i) {
        if (vNodes[i].m_strRef.empty())
            continue;
        KvRsNodeProxy target = KvRsGetNode(vNodes[i].m_strRef.c_str());
        const KvRsNodeProxy& node = vProxies[i];
        KvRsSetRefNode(node.GetHandle(), node.GetId(), target.GetHandle(), target.GetId());
        if (target.IsNull() || KvRsGetRefNode(node.GetHandle(), node.GetId()).GetHandle() != target.GetHandle())
            pvstrRefused->push_back(vNodes[i].m_strPath);
        else if (!opt.m_bQuiet)
            KvrsAnnounceStructural(node, KVRS_MSG_CHANGED);
    }
    for (size_t i = 0; i < vNodes.size(); ++i)
        if (KvrsNodeType(vProxies[i]) != vNodes[i].m_dwType)
            KvRsSetNodeType(vProxies[i].GetHandle(), vProxies[i].GetId(), vNodes[i].m_dwType);
}

void RunLoad(const LoadOptions& opt)
{
    const json j = ReadDump(opt.m_strFile);
    std::vector<DumpNode> vNodes;
    for (const json& jNode : j["nodes"])
        vNodes.push_back(ParseNode(jNode, opt.m_strFile));
    KvrsCheckKept(opt.m_bAllowVanish);
    std::vector<std::string> vstrRefused;
    {
        KvrsMutexHold hold;
        Apply(vNodes, opt, &vstrRefused);
    }
    printf("loaded %zu nodes\n", vNodes.size() - vstrRefused.size());
    if (!vstrRefused.empty())
        throw KvrsError(KVRS_EXIT_FAILED, std::to_string(vstrRefused.size()) +
                                              " nodes refused what was loaded (a const "
                                              "node, or a reference whose target is missing), first '" +
                                              vstrRefused[0] + "'");
}

}  // namespace

void KvrsAddDumpCommands(CLI::App& app)
{
    auto pstrPath = std::make_shared<std::string>();
    CLI::App* dump = app.add_subcommand("dump", "Write a subtree as JSON, for `kvrs load` after a restart");
    dump->add_option("PATH", *pstrPath, "Dotted path of the subtree's top (default: the whole tree)");
    dump->callback([pstrPath] { RunDump(*pstrPath); });

    auto opt = std::make_shared<LoadOptions>();
    CLI::App* load = app.add_subcommand("load", "Create the nodes of a dump, with values, references and types");
    load->add_option("FILE", opt->m_strFile, "A file written by kvrs dump (\"-\": standard input)")->required();
    KvrsAddVanishOption(load, &opt->m_bAllowVanish);
    load->add_flag("--quiet", opt->m_bQuiet, "Announce nothing");
    load->callback([opt] { RunLoad(*opt); });
}
