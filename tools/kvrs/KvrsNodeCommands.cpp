// KvrsNodeCommands.cpp - `kvrs get`, `set`, `rm`, `ref` and `type`: reading and
// changing single nodes through the public API. Every change is checked
// against the tree first, made under the global mutex, and announced to the
// parties concerned (KvrsAnnounce.h) unless --quiet.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "KvrsAnnounce.h"
#include "KvrsCommands.h"
#include "KvrsCommon.h"
#include "KvrsOptions.h"
#include "KvrsValueText.h"

namespace {

// What every changing command shares.
struct ChangeOptions {
    bool m_bAllowVanish = false;
    bool m_bQuiet = false;  // announce nothing
};

void AddChangeOptions(CLI::App* sub, ChangeOptions* pOpt, const char* pszQuiet)
{
    KvrsAddVanishOption(sub, &pOpt->m_bAllowVanish);
    sub->add_flag("--quiet", pOpt->m_bQuiet, pszQuiet);
}

// --- get ---------------------------------------------------------------------

struct GetOptions {
    std::string m_strPath;
    bool m_bText = false, m_bHex = false, m_bRaw = false, m_bJson = false;
};

void RunGet(const GetOptions& opt)
{
    KvrsCheckPath(opt.m_strPath, true);
    KvRsNodeProxy node = KvrsFindNode(opt.m_strPath);
    KvrsGetMode mode = KvrsGetMode::Described;
    if (opt.m_bText)
        mode = KvrsGetMode::Text;
    else if (opt.m_bHex)
        mode = KvrsGetMode::Hex;
    else if (opt.m_bRaw)
        mode = KvrsGetMode::Raw;
    else if (opt.m_bJson)
        mode = KvrsGetMode::Json;
    KvrsMutexHold hold;  // type and value of one moment
    KvrsPrintNodeValue(opt.m_strPath, node, mode);
}

// --- set ---------------------------------------------------------------------

struct SetOptions {
    std::string m_strPath;
    KvrsValueSource m_src;
    std::string m_strType;       // empty: keep the value's type
    std::string m_strNotify;     // empty: KVRS_MSG_VALUE
    bool m_bValueGiven = false;  // VALUE was given (it may be the empty text)
    ChangeOptions m_change;
};

// The type of the node's present value, 0 when it has none.
uint32_t PresentValueType(const KvRsNodeProxy& node)
{
    return KvrsReadValue(KvRsGetNodeValue(node.GetHandle(), node.GetId())).m_dwType;
}

void RunSet(const SetOptions& opt)
{
    KvrsCheckPath(opt.m_strPath, false);
    if (opt.m_bValueGiven == !opt.m_src.m_strFile.empty())
        KvrsUsageError("give either VALUE or --file F");
    const bool bTypeGiven = !opt.m_strType.empty();
    const uint32_t dwTypeGiven = bTypeGiven ? KvrsParseNumber(opt.m_strType, "--type") : 0;
    const uint32_t dwNotify = opt.m_strNotify.empty() ? KVRS_MSG_VALUE : KvrsParseNumber(opt.m_strNotify, "--notify");
    const std::vector<unsigned char> ab = KvrsReadValueSource(opt.m_src);
    KvrsCheckValueSize(ab.size());
    KvrsCheckKept(opt.m_change.m_bAllowVanish);

    KvrsMutexHold hold;
    const KvrsCreated created = KvrsCreatePath(opt.m_strPath);
    const KvRsNodeProxy& node = created.m_node;
    KvRsValueProxy value = KvrsMakeValue(bTypeGiven ? dwTypeGiven : PresentValueType(node), ab);
    KvRsSetNodeValue(node.GetHandle(), node.GetId(), value.GetHandle(), value.GetId());
    // A const node keeps its first value, a reference without target takes none.
    KvRsValueProxy stored = KvRsGetNodeValue(node.GetHandle(), node.GetId());
    if (stored.GetHandle() != value.GetHandle())
        throw KvrsError(KVRS_EXIT_FAILED,
                        "'" + opt.m_strPath + "' refused the value (const, or a reference without target)");
    if (opt.m_change.m_bQuiet)
        return;
    if (!created.m_vCreated.empty())
        KvrsAnnounceCreated(created);  // a new node has no clients yet: listeners that follow it read its value
    else
        KvrsAnnounce(node, dwNotify, value);
}

// --- rm ----------------------------------------------------------------------

struct RmOptions {
    std::string m_strPath;
    bool m_bRecursive = false;
    ChangeOptions m_change;
};

// Refuses what would silently take more, or less, than the user asked for.
void CheckRemovable(const RmOptions& opt, const KvRsNodeProxy& node, const KvRsNodeProxy& parent)
{
    if (KvrsNodeType(parent) & KVRS_TYPE_CONST)
        throw KvrsError(KVRS_EXIT_FAILED, "'" + opt.m_strPath + "' was not removed (its parent is const)");
    const std::vector<KvRsNodeProxy> vSubtree = KvrsSubtree(node);
    if (vSubtree.size() > 1 && !opt.m_bRecursive)
        throw KvrsError(KVRS_EXIT_FAILED, "'" + opt.m_strPath + "' has " + std::to_string(vSubtree.size() - 1) +
                                              " descendants: give -r to remove the whole subtree");
    for (const KvRsNodeProxy& n : vSubtree)
        if (KvrsNodeType(n) & KVRS_TYPE_CONST)
            throw KvrsError(KVRS_EXIT_FAILED, "'" + KvrsNodePath(n) + "' is const and cannot be removed");
}

void RunRm(const RmOptions& opt)
{
    KvrsCheckPath(opt.m_strPath, false);
    KvRsNodeProxy node = KvrsFindNode(opt.m_strPath);
    KvrsCheckKept(opt.m_change.m_bAllowVanish);
    KvrsMutexHold hold;
    // The node's own parent and name: a path through a reference ends in the
    // referenced subtree, and the node is removed from there.
    KvRsNodeProxy parent = KvRsGetNodeParent(node.GetHandle(), node.GetId());
    CheckRemovable(opt, node, parent);
    const std::vector<KvRsNodeProxy> vSubtree = KvrsSubtree(node);
    const std::string strName = KvrsNodeName(node);
    KvRsRemoveChildNode(parent.GetHandle(), parent.GetId(), strName.c_str());
    KvRsNodeProxy still = KvRsGetChildNode(parent.GetHandle(), parent.GetId(), strName.c_str());
    if (still.GetHandle() == node.GetHandle())
        throw KvrsError(KVRS_EXIT_FAILED, "'" + opt.m_strPath + "' was not removed");
    if (opt.m_change.m_bQuiet)
        return;
    // Deepest first, so that a listener of a child hears of it before its parent.
    // The removed nodes keep their parent links: their paths stay readable.
    for (auto it = vSubtree.rbegin(); it != vSubtree.rend(); ++it)
        KvrsAnnounceStructural(*it, KVRS_MSG_REMOVED);
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
        if (!(KvrsNodeType(cur) & KVRS_TYPE_REF))
            return false;
        cur = KvRsGetRefNode(cur.GetHandle(), cur.GetId());
    }
    return !cur.IsNull();  // a chain that long is a cycle elsewhere already
}

struct RefOptions {
    std::string m_strPath, m_strTarget;
    ChangeOptions m_change;
};

void RunRef(const RefOptions& opt)
{
    KvrsCheckPath(opt.m_strPath, false);
    KvrsCheckPath(opt.m_strTarget, false);
    KvRsNodeProxy target = KvrsFindNode(opt.m_strTarget);
    KvrsCheckKept(opt.m_change.m_bAllowVanish);
    KvrsMutexHold hold;
    KvRsNodeProxy existing = KvRsGetNode(opt.m_strPath.c_str());
    if (!existing.IsNull() && WouldCycle(existing, target))
        throw KvrsError(KVRS_EXIT_FAILED,
                        "'" + opt.m_strPath + "' -> '" + opt.m_strTarget + "' would make a reference cycle");
    const KvrsCreated created = KvrsCreatePath(opt.m_strPath);
    const KvRsNodeProxy& node = created.m_node;
    if (WouldCycle(node, target))
        throw KvrsError(KVRS_EXIT_FAILED,
                        "'" + opt.m_strPath + "' -> '" + opt.m_strTarget + "' would make a reference cycle");
    KvRsSetRefNode(node.GetHandle(), node.GetId(), target.GetHandle(), target.GetId());
    KvRsNodeProxy stored = KvRsGetRefNode(node.GetHandle(), node.GetId());
    if (stored.GetHandle() != target.GetHandle())
        throw KvrsError(KVRS_EXIT_FAILED,
                        "'" + opt.m_strPath +
                            "' cannot become a reference (it holds a value or children, or is const)");
    if (opt.m_change.m_bQuiet)
        return;
    if (!created.m_vCreated.empty())
        KvrsAnnounceCreated(created);
    else
        KvrsAnnounceStructural(node, KVRS_MSG_CHANGED);
}

// --- type --------------------------------------------------------------------

struct TypeOptions {
    std::string m_strPath, m_strType;
    bool m_bConst = false;
    bool m_bRaw = false;  // allow changing the library's own bits
    ChangeOptions m_change;
};

// The library's bits say what a node holds; changing them by hand hides a
// value or children, or claims what is not there. Refused unless --raw.
void CheckLibraryBits(const TypeOptions& opt, uint32_t dwOld, uint32_t dwNew)
{
    if (opt.m_bRaw)
        return;
    const uint32_t dwKindOld = dwOld & KVRS_TYPE_KIND_MASK;
    if ((dwNew & KVRS_TYPE_KIND_MASK) != dwKindOld)
        throw KvrsError(KVRS_EXIT_FAILED, "type " + KvrsHex32(dwNew) + " would change the bits 0x1, 0x2, 0x4 of '" +
                                              opt.m_strPath + "', which say what it holds (now " +
                                              KvrsHex32(dwKindOld) + "): keep them, or give --raw");
    if ((dwOld & KVRS_TYPE_CONST) && !(dwNew & KVRS_TYPE_CONST))
        throw KvrsError(KVRS_EXIT_FAILED, "'" + opt.m_strPath + "' is const: clearing 0x10000 needs --raw");
}

void RunType(const TypeOptions& opt)
{
    KvrsCheckPath(opt.m_strPath, true);
    const bool bChange = !opt.m_strType.empty() || opt.m_bConst;
    const uint32_t dwGiven = opt.m_strType.empty() ? 0 : KvrsParseNumber(opt.m_strType, "TYPE");
    // The library keeps such a word but reports it as corrupt: refuse it first.
    if ((dwGiven & KVRS_TYPE_REF) && (dwGiven & (KVRS_TYPE_VALUE | KVRS_TYPE_PARENT)))
        KvrsUsageError("type " + KvrsHex32(dwGiven) + " combines ref with value or parent");
    KvRsNodeProxy node = KvrsFindNode(opt.m_strPath);
    if (!bChange) {
        const uint32_t dwType = KvrsNodeType(node);
        const std::string strFlags = KvrsTypeFlags(dwType);
        printf("%s%s\n", KvrsHex32(dwType).c_str(), strFlags.empty() ? "" : (" " + strFlags).c_str());
        return;
    }
    KvrsCheckKept(opt.m_change.m_bAllowVanish);
    KvrsMutexHold hold;
    const uint32_t dwOld = KvrsNodeType(node);
    const uint32_t dwNew = (opt.m_strType.empty() ? dwOld : dwGiven) | (opt.m_bConst ? KVRS_TYPE_CONST : 0);
    CheckLibraryBits(opt, dwOld, dwNew);
    KvRsSetNodeType(node.GetHandle(), node.GetId(), dwNew);
    if (!opt.m_change.m_bQuiet && dwNew != dwOld)
        KvrsAnnounceStructural(node, KVRS_MSG_CHANGED);
}

// --- registration ------------------------------------------------------------

void AddGet(CLI::App& app)
{
    auto opt = std::make_shared<GetOptions>();
    CLI::App* sub = app.add_subcommand("get", "Print a node's value: `type 1, 4 bytes \"21.5\"`, or hex when not text");
    sub->add_option("PATH", opt->m_strPath, "Dotted path of the node")->required();
    auto* pText = sub->add_flag("--text", opt->m_bText, "Print the bytes as text (refused when they are not)");
    auto* pHex = sub->add_flag("--hex", opt->m_bHex, "Print the bytes as hex");
    auto* pRaw = sub->add_flag("--raw", opt->m_bRaw, "Write the bytes as they are, without newline");
    auto* pJson = sub->add_flag("--json", opt->m_bJson, "Print path, node type and value as JSON (null: no value)");
    const std::vector<CLI::Option*> vp{pText, pHex, pRaw, pJson};
    for (size_t i = 0; i < vp.size(); ++i)
        for (size_t j = i + 1; j < vp.size(); ++j)
            vp[i]->excludes(vp[j]);
    sub->callback([opt] { RunGet(*opt); });
}

void AddSet(CLI::App& app)
{
    auto opt = std::make_shared<SetOptions>();
    CLI::App* sub = app.add_subcommand("set", "Store a value at a node, creating the path, and notify its clients");
    sub->add_option("PATH", opt->m_strPath, "Dotted path of the node")->required();
    sub->add_option("VALUE", opt->m_src.m_strValue, "The bytes as text (\"-\": standard input, one newline dropped)")
        ->each([opt](const std::string&) { opt->m_bValueGiven = true; });
    sub->add_option("--file", opt->m_src.m_strFile, "Take the bytes from file F, as they are")->type_name("F");
    sub->add_option("--type", opt->m_strType, "The value's type number (default: keep the present one, else 0)")
        ->type_name("N");
    sub->add_flag("--hex", opt->m_src.m_bHex, "The input is hex text (\"48 69\" or \"4869\"); whitespace is ignored");
    sub->add_flag("--keep-newline", opt->m_src.m_bKeepNewline, "Keep the newline that ends standard input");
    auto* pNotify =
        sub->add_option("--notify", opt->m_strNotify, "Notify the node's clients with message number N (default 1)")
            ->type_name("N");
    AddChangeOptions(sub, &opt->m_change, "Notify nobody");
    pNotify->excludes(sub->get_option("--quiet"));
    sub->callback([opt] { RunSet(*opt); });
}

void AddRm(CLI::App& app)
{
    auto opt = std::make_shared<RmOptions>();
    CLI::App* sub = app.add_subcommand("rm", "Unlink a node from its parent and announce it");
    sub->add_option("PATH", opt->m_strPath, "Dotted path of the node")->required();
    sub->add_flag("-r,--recursive", opt->m_bRecursive, "Also when the node has children: the whole subtree goes");
    AddChangeOptions(sub, &opt->m_change, "Announce nothing");
    sub->callback([opt] { RunRm(*opt); });
}

void AddRef(CLI::App& app)
{
    auto opt = std::make_shared<RefOptions>();
    CLI::App* sub = app.add_subcommand("ref", "Make a node (created when missing) refer to another");
    sub->add_option("PATH", opt->m_strPath, "Dotted path of the referring node")->required();
    sub->add_option("TARGET", opt->m_strTarget, "Dotted path of the node referred to")->required();
    AddChangeOptions(sub, &opt->m_change, "Announce nothing");
    sub->callback([opt] { RunRef(*opt); });
}

void AddType(CLI::App& app)
{
    auto opt = std::make_shared<TypeOptions>();
    CLI::App* sub = app.add_subcommand("type", "Print a node's type word, or set its own bits");
    sub->add_option("PATH", opt->m_strPath, "Dotted path of the node")->required();
    sub->add_option("TYPE", opt->m_strType, "New type word (decimal or 0x-hex); 0x1, 0x2, 0x4 must stay as they are");
    sub->add_flag("--const", opt->m_bConst, "Make the node const (0x10000): its value and children freeze");
    sub->add_flag("--raw", opt->m_bRaw, "Allow changing 0x1, 0x2, 0x4 and clearing const");
    AddChangeOptions(sub, &opt->m_change, "Announce nothing");
    sub->callback([opt] { RunType(*opt); });
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
