// KvrsNodeCommands.cpp - `kvrs get`, `set`, `rm`, `ref` and `type`: reading and
// changing single nodes through the public API.
#include <cstdio>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "KvrsCommands.h"
#include "KvrsCommon.h"

namespace {

// --- get ---------------------------------------------------------------------

struct GetOptions {
    std::string m_strPath;
    bool m_bHex = false;
    bool m_bRaw = false;
    bool m_bJson = false;
};

void RunGet(const GetOptions& opt)
{
    KvrsCheckPath(opt.m_strPath, true);
    KvRsNodeProxy node = KvrsFindNode(opt.m_strPath);
    const uint32_t dwType = static_cast<uint32_t>(KvRsGetNodeType(node.GetHandle(), node.GetId()));
    const KvrsValue v = KvrsReadValue(KvRsGetNodeValue(node.GetHandle(), node.GetId()));
    if (opt.m_bJson) {
        printf("{\"path\":%s,\"type\":%u,\"value\":%s}\n", KvrsJsonString(opt.m_strPath).c_str(), dwType,
               KvrsValueJson(v).c_str());
    } else if (opt.m_bRaw) {
        fwrite(v.m_ab.data(), 1, v.m_ab.size(), stdout);
    } else if (!v.m_bPresent) {
        printf("(no value)\n");
    } else if (opt.m_bHex || !KvrsIsPrintable(v.m_ab)) {
        printf("%s\n", KvrsHexText(v.m_ab, v.m_ab.size()).c_str());
    } else {
        printf("%s\n", std::string(v.m_ab.begin(), v.m_ab.end()).c_str());
    }
}

// --- set ---------------------------------------------------------------------

struct SetOptions {
    std::string m_strPath;
    std::string m_strValue;
    std::string m_strType = "0";
    std::string m_strNotify;
    bool m_bHex = false;
};

std::vector<unsigned char> ReadStdin()
{
    std::vector<unsigned char> ab;
    unsigned char abBuf[65536];
    size_t cb;
    while ((cb = fread(abBuf, 1, sizeof(abBuf), stdin)) > 0) {
        ab.insert(ab.end(), abBuf, abBuf + cb);
        KvrsCheckValueSize(ab.size());  // stop reading early on an oversized input
    }
    return ab;
}

std::vector<unsigned char> ValueBytes(const SetOptions& opt)
{
    if (opt.m_strValue == "-") {
        std::vector<unsigned char> ab = ReadStdin();
        if (!opt.m_bHex)
            return ab;
        return KvrsParseHex(std::string(ab.begin(), ab.end()));
    }
    if (opt.m_bHex)
        return KvrsParseHex(opt.m_strValue);
    return std::vector<unsigned char>(opt.m_strValue.begin(), opt.m_strValue.end());
}

void RunSet(const SetOptions& opt)
{
    KvrsCheckPath(opt.m_strPath, false);
    const uint32_t dwType = KvrsParseNumber(opt.m_strType, "--type");
    const uint32_t dwNotify = opt.m_strNotify.empty() ? 0 : KvrsParseNumber(opt.m_strNotify, "--notify");
    const std::vector<unsigned char> ab = ValueBytes(opt);
    KvrsCheckValueSize(ab.size());

    KvRsNodeProxy node = KvRsCreateNode(opt.m_strPath.c_str(), nullptr, 0);
    if (node.IsNull())
        throw KvrsError(KVRS_EXIT_FAILED, "cannot create '" + opt.m_strPath + "'");
    KvRsValueProxy value = KvrsMakeValue(dwType, ab);
    KvRsSetNodeValue(node.GetHandle(), node.GetId(), value.GetHandle(), value.GetId());
    // A const node keeps its first value, a reference without target takes none.
    KvRsValueProxy stored = KvRsGetNodeValue(node.GetHandle(), node.GetId());
    if (stored.GetHandle() != value.GetHandle())
        throw KvrsError(KVRS_EXIT_FAILED,
                        "'" + opt.m_strPath + "' refused the value (const, or a reference without target)");
    if (!opt.m_strNotify.empty())
        KvRsNotifyNodeClients(node.GetHandle(), node.GetId(), dwNotify, value.GetHandle(), value.GetId(), false);
}

// --- rm ----------------------------------------------------------------------

void RunRm(const std::string& strPath)
{
    KvrsCheckPath(strPath, false);
    KvRsNodeProxy node = KvrsFindNode(strPath);
    // The node's own parent and name: a path through a reference ends in the
    // referenced subtree, and the node is removed from there.
    KvRsNodeProxy parent = KvRsGetNodeParent(node.GetHandle(), node.GetId());
    const std::string strName = KvrsNodeName(node);
    KvRsRemoveChildNode(parent.GetHandle(), parent.GetId(), strName.c_str());
    KvRsNodeProxy still = KvRsGetChildNode(parent.GetHandle(), parent.GetId(), strName.c_str());
    if (still.GetHandle() == node.GetHandle())
        throw KvrsError(KVRS_EXIT_FAILED, "'" + strPath + "' was not removed (its parent is const)");
}

// --- ref ---------------------------------------------------------------------

// True when making node refer to target would let a walk through references
// come back to node: target is node, one of its ancestors, or refers onward to one.
bool IsSelfOrAncestor(const KvRsNodeProxy& node, void* hCandidate)
{
    for (KvRsNodeProxy anc = node; !anc.IsNull(); anc = KvRsGetNodeParent(anc.GetHandle(), anc.GetId()))
        if (anc.GetHandle() == hCandidate)
            return true;
    return false;
}

bool WouldCycle(const KvRsNodeProxy& node, const KvRsNodeProxy& target)
{
    KvRsNodeProxy cur = target;
    for (int cHops = 0; !cur.IsNull() && cHops < 1000; ++cHops) {
        if (IsSelfOrAncestor(node, cur.GetHandle()))
            return true;
        if (!(KvRsGetNodeType(cur.GetHandle(), cur.GetId()) & KVRS_TYPE_REF))
            return false;
        cur = KvRsGetRefNode(cur.GetHandle(), cur.GetId());
    }
    return !cur.IsNull();  // a chain that long is a cycle elsewhere already
}

void RunRef(const std::string& strPath, const std::string& strTarget)
{
    KvrsCheckPath(strPath, false);
    KvrsCheckPath(strTarget, false);
    KvRsNodeProxy target = KvrsFindNode(strTarget);
    KvRsNodeProxy node = KvRsCreateNode(strPath.c_str(), nullptr, 0);
    if (node.IsNull())
        throw KvrsError(KVRS_EXIT_FAILED, "cannot create '" + strPath + "'");
    if (WouldCycle(node, target))
        KvrsUsageError("'" + strPath + "' -> '" + strTarget + "' would make a reference cycle");
    KvRsSetRefNode(node.GetHandle(), node.GetId(), target.GetHandle(), target.GetId());
    KvRsNodeProxy stored = KvRsGetRefNode(node.GetHandle(), node.GetId());
    if (stored.GetHandle() != target.GetHandle())
        throw KvrsError(KVRS_EXIT_FAILED,
                        "'" + strPath + "' cannot become a reference (it holds a value or children, or is const)");
}

// --- type --------------------------------------------------------------------

void RunType(const std::string& strPath, const std::string& strType)
{
    KvrsCheckPath(strPath, true);
    uint32_t dwNew = 0;
    if (!strType.empty()) {
        dwNew = KvrsParseNumber(strType, "TYPE");
        // The library keeps such a word but reports it as corrupt: refuse it here.
        if ((dwNew & KVRS_TYPE_REF) && (dwNew & (KVRS_TYPE_VALUE | KVRS_TYPE_PARENT)))
            KvrsUsageError("type " + KvrsHex32(dwNew) + " combines ref with value or parent");
    }
    KvRsNodeProxy node = KvrsFindNode(strPath);
    if (!strType.empty()) {
        KvRsSetNodeType(node.GetHandle(), node.GetId(), dwNew);
        return;
    }
    const uint32_t dwType = static_cast<uint32_t>(KvRsGetNodeType(node.GetHandle(), node.GetId()));
    const std::string strFlags = KvrsTypeFlags(dwType);
    printf("%s%s\n", KvrsHex32(dwType).c_str(), strFlags.empty() ? "" : (" " + strFlags).c_str());
}

void AddGet(CLI::App& app)
{
    auto opt = std::make_shared<GetOptions>();
    CLI::App* sub = app.add_subcommand("get", "Print a node's value (text when printable, else hex)");
    sub->add_option("PATH", opt->m_strPath, "Dotted path of the node")->required();
    auto* pHex = sub->add_flag("--hex", opt->m_bHex, "Print the bytes as hex");
    auto* pRaw = sub->add_flag("--raw", opt->m_bRaw, "Write the bytes as they are, without newline");
    auto* pJson = sub->add_flag("--json", opt->m_bJson, "Print path, node type and value as JSON");
    pHex->excludes(pRaw)->excludes(pJson);
    pRaw->excludes(pJson);
    sub->callback([opt] { RunGet(*opt); });
}

void AddSet(CLI::App& app)
{
    auto opt = std::make_shared<SetOptions>();
    CLI::App* sub = app.add_subcommand("set", "Store a value at a node, creating the path");
    sub->add_option("PATH", opt->m_strPath, "Dotted path of the node")->required();
    sub->add_option("VALUE", opt->m_strValue, "The bytes as text (\"-\": read standard input)")->required();
    sub->add_option("--type", opt->m_strType, "The value's type number (default 0)");
    sub->add_flag("--hex", opt->m_bHex, "VALUE is hex text (\"48 69\" or \"4869\")");
    sub->add_option("--notify", opt->m_strNotify, "Then notify the node's clients with this number and the value");
    sub->callback([opt] { RunSet(*opt); });
}

void AddRm(CLI::App& app)
{
    auto strPath = std::make_shared<std::string>();
    CLI::App* sub = app.add_subcommand("rm", "Unlink a node from its parent");
    sub->add_option("PATH", *strPath, "Dotted path of the node")->required();
    sub->callback([strPath] { RunRm(*strPath); });
}

void AddRef(CLI::App& app)
{
    auto astr = std::make_shared<std::pair<std::string, std::string>>();
    CLI::App* sub = app.add_subcommand("ref", "Make a node (created when missing) refer to another");
    sub->add_option("PATH", astr->first, "Dotted path of the referring node")->required();
    sub->add_option("TARGET", astr->second, "Dotted path of the node referred to")->required();
    sub->callback([astr] { RunRef(astr->first, astr->second); });
}

void AddType(CLI::App& app)
{
    auto astr = std::make_shared<std::pair<std::string, std::string>>();
    CLI::App* sub = app.add_subcommand("type", "Print a node's type word, or set it");
    sub->add_option("PATH", astr->first, "Dotted path of the node")->required();
    sub->add_option("N", astr->second, "New type word (decimal or 0x-hex)");
    sub->callback([astr] { RunType(astr->first, astr->second); });
}

}  // namespace

void KvrsAddNodeCommands(CLI::App& app)
{
    AddGet(app);
    AddSet(app);
    AddRm(app);
    AddRef(app);
    AddType(app);
}
