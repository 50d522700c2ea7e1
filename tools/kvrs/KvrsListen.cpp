// KvrsListen.cpp - `kvrs listen`: a client of nodes that prints what it hears.
// It prints the present value of each node first (like a retained message),
// then every message; patterns and --subtree follow nodes created later, for
// which it also listens to all structural changes.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "KvCppMfc/Platform/KvPlatform.h"
#include "KvRfrSvrWait.h"
#include "KvrsAnnounce.h"
#include "KvrsCommands.h"
#include "KvrsCommon.h"
#include "KvrsFollow.h"
#include "KvrsListenFormat.h"

namespace {

struct ListenOptions {
    std::vector<std::string> m_vstrPaths;
    bool m_bStructural = false;
    bool m_bSubtree = false;
    bool m_bNoCurrent = false;
    std::string m_strCount;    // --count; empty: no limit
    std::string m_strTimeout;  // --timeout in seconds; empty: none
    bool m_bJson = false;
    std::string m_strFormat;
    bool m_bEcho = false;     // answer each message to the node's server (round trips)
    bool m_bSummary = false;  // print a machine-read SUMMARY line at the end
};

// The running listener: its connections, output and counts.
class Listener {
public:
    Listener(const ListenOptions& opt, const KvrsListenFormat& format)
        : m_opt(opt), m_format(format), m_follow(opt.m_vstrPaths, opt.m_bSubtree)
    {
    }
    void Connect();
    void Disconnect();
    // Prints one message, and what following it brought.
    void OnMessage(const KvRsMsgProxy& msg);
    long Printed() const { return m_cPrinted; }
    long Echoed() const { return m_cEchoed; }
    long Received() const { return m_cReceived; }
    std::string Describe() const;

private:
    void Print(const KvrsEvent& ev);
    KvrsEvent EventOf(const KvRsMsgProxy& msg, KvRsNodeProxy* pNode) const;
    KvrsEvent FollowedEvent(const KvRsNodeProxy& node, uint32_t dwNumber) const;
    bool StructuralWanted() const { return m_opt.m_bStructural || m_follow.FollowsCreation(); }

    const ListenOptions& m_opt;
    const KvrsListenFormat& m_format;
    KvrsFollow m_follow;
    uintptr_t m_uStructural = 0;  // the structural connection's target, 0 without
    std::vector<KvRsNodeProxy> m_vCurrent;
    long m_cPrinted = 0, m_cEchoed = 0, m_cReceived = 0;
};

void Listener::Connect()
{
    // Under the mutex: no node is created between the walk and the structural
    // connection, so none is missed, and the present values are of one moment.
    KvrsMutexHold hold;
    const std::vector<KvRsNodeProxy> vNodes = m_follow.ConnectExisting();
    if (StructuralWanted()) {
        m_uStructural = m_follow.NextTarget();
        KvRsConnectForAllStructuralChanges(reinterpret_cast<void*>(m_uStructural),
                                           static_cast<unsigned long>(m_uStructural));
    }
    if (m_opt.m_bNoCurrent)
        return;
    for (const KvRsNodeProxy& node : vNodes) {
        if (!(KvrsNodeType(node) & KVRS_TYPE_VALUE))
            continue;
        KvrsEvent ev = FollowedEvent(node, 0);
        ev.m_bCurrent = true;
        Print(ev);
    }
}

void Listener::Disconnect()
{
    m_follow.DisconnectAll();
    if (m_uStructural != 0)
        KvRsDisconnectForAllStructuralChanges(reinterpret_cast<void*>(m_uStructural),
                                              static_cast<unsigned long>(m_uStructural));
}

std::string Listener::Describe() const
{
    std::string str = m_follow.Describe();
    if (m_opt.m_bStructural)
        str +=
            (str.empty() ? "" : ", ") + std::string("all structural changes (created 0x4, removed 0x8, changed 0xc)");
    return str;
}

void Listener::Print(const KvrsEvent& ev)
{
    const std::string str = m_format.Line(ev);
    fwrite(str.data(), 1, str.size(), stdout);
    fflush(stdout);
    ++m_cPrinted;
}

KvrsEvent Listener::EventOf(const KvRsMsgProxy& msg, KvRsNodeProxy* pNode) const
{
    KvrsEvent ev;
    ev.m_dwNumber = static_cast<uint32_t>(KvRsGetMsgType(msg.GetHandle(), msg.GetId()));
    void* hTarget = nullptr;
    KvRsGetMsgTarget(msg.GetHandle(), msg.GetId(), hTarget, ev.m_idTarget);
    ev.m_uTarget = reinterpret_cast<uintptr_t>(hTarget);
    *pNode = KvRsGetMsgChangedNode(msg.GetHandle(), msg.GetId());
    ev.m_bNode = !pNode->IsNull();
    if (ev.m_bNode)
        ev.m_strPath = KvrsNodePath(*pNode);
    ev.m_value = KvrsReadValue(KvRsGetMsgValue(msg.GetHandle(), msg.GetId()));
    return ev;
}

// The event of a node that a pattern follows (its present value, when dwNumber
// is 0).
KvrsEvent Listener::FollowedEvent(const KvRsNodeProxy& node, uint32_t dwNumber) const
{
    KvrsEvent ev;
    ev.m_dwNumber = dwNumber;
    ev.m_bNode = true;
    ev.m_strPath = KvrsNodePath(node);
    ev.m_uTarget = m_follow.TargetOf(node);
    ev.m_idTarget = static_cast<unsigned long>(ev.m_uTarget);
    ev.m_value = KvrsReadValue(KvRsGetNodeValue(node.GetHandle(), node.GetId()));
    return ev;
}

void Listener::OnMessage(const KvRsMsgProxy& msg)
{
    ++m_cReceived;
    KvRsNodeProxy node;
    KvrsEvent ev = EventOf(msg, &node);
    // kvrs names the node of a structural change in the value's bytes.
    if (ev.m_value.m_bPresent && ev.m_value.m_dwType == KVRS_VALUE_TYPE_PATH) {
        ev.m_strPath.assign(ev.m_value.m_ab.begin(), ev.m_value.m_ab.end());
        ev.m_bNode = true;
        ev.m_value = KvrsValue();
    }
    const bool bViaStructural = m_uStructural != 0 && ev.m_uTarget == m_uStructural;
    if (!bViaStructural && ev.m_bNode && ev.m_dwNumber == KVRS_MSG_REMOVED)
        m_follow.OnRemoved(node);
    if (!bViaStructural || m_opt.m_bStructural)
        Print(ev);
    if (bViaStructural && (ev.m_dwNumber & KVRS_NOTIFY_STRUCTURAL_MASK) != 0) {
        for (const KvRsNodeProxy& nodeNew : m_follow.ConnectNew())
            Print(FollowedEvent(nodeNew, ev.m_dwNumber == KVRS_MSG_CHANGED ? KVRS_MSG_CHANGED : KVRS_MSG_CREATED));
    }
    if (m_opt.m_bEcho && !bViaStructural && !node.IsNull()) {
        // Answer with the same number and the very same value object: the
        // sender measures the round trip.
        KvRsValueProxy value = KvRsGetMsgValue(msg.GetHandle(), msg.GetId());
        KvRsNotifyNodeServer(node.GetHandle(), node.GetId(), ev.m_dwNumber, value.GetHandle(), value.GetId());
        ++m_cEchoed;
    }
}

// Longest single sleep of an idle listener: five wake-ups a second.
constexpr long kcmsSlice = 200;

KvrsListenStyle StyleOf(const ListenOptions& opt)
{
    if (opt.m_bJson)
        return KvrsListenStyle::Json;
    return opt.m_strFormat.empty() ? KvrsListenStyle::Text : KvrsListenStyle::Format;
}

void RunListen(const ListenOptions& opt)
{
    if (opt.m_vstrPaths.empty() && !opt.m_bStructural)
        KvrsUsageError("listen needs a PATH or --structural");
    const long cMax = opt.m_strCount.empty() ? -1 : KvrsParseCount(opt.m_strCount, "--count", 0, 2000000000L);
    const double dTimeout = opt.m_strTimeout.empty() ? -1.0 : KvrsParseSeconds(opt.m_strTimeout, "--timeout", 1e8);
    const KvrsListenFormat format(StyleOf(opt), opt.m_strFormat);
    KvrsInstallStopHandlers();
    Listener listener(opt, format);
    listener.Connect();
    fprintf(stderr, "listening to %s (pid %u)\n", listener.Describe().c_str(), KvGetCurrentProcessId());

    const int64_t tEnd = dTimeout >= 0 ? KvrsNowMicros() + static_cast<int64_t>(dTimeout * 1e6) : -1;
    bool bTimedOut = false;
    while (!KvrsStopRequested() && (cMax < 0 || listener.Printed() < cMax)) {
        const int64_t tNow = KvrsNowMicros();
        if (tEnd >= 0 && tNow >= tEnd) {
            bTimedOut = true;
            break;
        }
        KvRsMsgProxy msg = KvRsGetMsg();
        if (msg.IsNull()) {
            // Sleeps until a message comes or the time is up. A stop signal
            // (installed without SA_RESTART) ends the wait, unless it came just
            // before the sleep began: the slices bound how long that can delay
            // the stop.
            const long cmsLeft = tEnd >= 0 ? static_cast<long>((tEnd - tNow + 999) / 1000) : kcmsSlice;
            KvRsWaitMsg(nullptr, 0, std::min(cmsLeft, kcmsSlice));
            continue;
        }
        listener.OnMessage(msg);
    }
    listener.Disconnect();
    if (opt.m_bSummary)
        printf("SUMMARY sent=%ld received=%ld\n", listener.Echoed(), listener.Received());
    if (bTimedOut && cMax >= 0 && listener.Printed() < cMax)
        throw KvrsError(KVRS_EXIT_TIMEOUT, "timed out after " + opt.m_strTimeout + " s with " +
                                               std::to_string(listener.Printed()) + " of " + std::to_string(cMax) +
                                               " messages");
}

}  // namespace

void KvrsAddListenCommand(CLI::App& app)
{
    auto opt = std::make_shared<ListenOptions>();
    CLI::App* sub = app.add_subcommand("listen", "Print the values of nodes, then every message they receive");
    sub->add_option("PATH", opt->m_vstrPaths,
                    "Dotted paths or patterns: \"*\" one name, \"#\" any number (plant.*.temp, plant.#)");
    sub->add_flag("--subtree", opt->m_bSubtree, "Each PATH with every node below it, also nodes created later");
    sub->add_flag("--structural", opt->m_bStructural, "Also print all structural changes (0x2/0x4/0x8)");
    sub->add_flag("--no-current", opt->m_bNoCurrent, "Do not print the present values first");
    sub->add_option("--count", opt->m_strCount, "Stop after N lines (present values included)")->type_name("N");
    sub->add_option("--timeout", opt->m_strTimeout,
                    "Stop after S seconds; with --count, fewer lines by then exit with status 3")
        ->type_name("S");
    auto* pJson = sub->add_flag("--json", opt->m_bJson, "One JSON object per line (time, epoch, event, path, value)");
    auto* pFormat = sub->add_option("-F,--format", opt->m_strFormat, kpszKvrsFormatHelp)->type_name("FMT");
    pJson->excludes(pFormat);
    sub->add_flag("--echo", opt->m_bEcho, "Answer each message to the node's server")->group("");
    sub->add_flag("--summary", opt->m_bSummary, "Print a SUMMARY line at the end")->group("");
    sub->callback([opt] { RunListen(*opt); });
}
