// KvrsListen.cpp - `kvrs notify`, `listen` and `serve`: sending notifications,
// receiving them as a client, and keeping a tree alive.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "KvCppMfc/Platform/KvPlatform.h"
#include "KvRfrSvrWait.h"
#include "KvrsCommands.h"
#include "KvrsCommon.h"

namespace {

// --- notify ------------------------------------------------------------------

struct NotifyOptions {
    std::string m_strPath;
    std::string m_strNumber;
    std::string m_strValue;
    bool m_bValue = false;
    bool m_bServer = false;
    bool m_bRecursive = false;
    bool m_bFront = false;
    long m_cRepeat = 1;  // --repeat: notifications sent, as a load for measuring
};

void RunNotify(const NotifyOptions& opt)
{
    KvrsCheckPath(opt.m_strPath, true);
    uint32_t dwNumber = KvrsParseNumber(opt.m_strNumber, "NUMBER");
    if (opt.m_bFront)
        dwNumber |= KVRS_NOTIFY_FRONT;
    if (opt.m_bServer && opt.m_bRecursive)
        KvrsUsageError("--recursive applies to clients only, not with --server");
    const std::vector<unsigned char> ab(opt.m_strValue.begin(), opt.m_strValue.end());
    KvrsCheckValueSize(ab.size());
    KvRsNodeProxy node = KvrsFindNode(opt.m_strPath);
    KvRsValueProxy value;
    if (opt.m_bValue)
        value = KvrsMakeValue(0, ab);
    for (long i = 0; i < opt.m_cRepeat && !KvrsStopRequested(); ++i) {
        if (opt.m_bServer)
            KvRsNotifyNodeServer(node.GetHandle(), node.GetId(), dwNumber, value.GetHandle(), value.GetId());
        else
            KvRsNotifyNodeClients(node.GetHandle(), node.GetId(), dwNumber, value.GetHandle(), value.GetId(),
                                  opt.m_bRecursive);
    }
}

// --- listen ------------------------------------------------------------------

struct ListenOptions {
    std::vector<std::string> m_vstrPaths;
    bool m_bStructural = false;
    long m_cMax = -1;          // --count; -1: no limit
    double m_dTimeout = -1.0;  // --timeout in seconds; negative: none
    bool m_bJson = false;
    bool m_bEcho = false;     // answer each message to the node's server (round trips)
    bool m_bSummary = false;  // print a machine-read SUMMARY line at the end
};

// One subscription: its node and the target that its messages carry. The target
// handle is the subscription's number (1, 2, ...), so that two subscriptions of
// this process never count as the same client.
struct Subscription {
    KvRsNodeProxy m_node;
    std::string m_strPath;
    void* m_hTarget;
};

void* TargetOf(size_t i)
{
    return reinterpret_cast<void*>(static_cast<uintptr_t>(i + 1));
}

std::vector<Subscription> Connect(const ListenOptions& opt)
{
    std::vector<Subscription> vsub;
    for (const std::string& strPath : opt.m_vstrPaths)
        KvrsCheckPath(strPath, true);
    for (const std::string& strPath : opt.m_vstrPaths)
        vsub.push_back({KvrsFindNode(strPath), strPath, TargetOf(vsub.size())});
    for (const Subscription& s : vsub)
        KvRsConnectClient(s.m_node.GetHandle(), s.m_node.GetId(), s.m_hTarget,
                          reinterpret_cast<uintptr_t>(s.m_hTarget));
    if (opt.m_bStructural)
        KvRsConnectForAllStructuralChanges(TargetOf(vsub.size()), static_cast<unsigned long>(vsub.size() + 1));
    return vsub;
}

void Disconnect(const std::vector<Subscription>& vsub, const ListenOptions& opt)
{
    for (const Subscription& s : vsub)
        KvRsDisconnectClient(s.m_node.GetHandle(), s.m_node.GetId(), s.m_hTarget,
                             reinterpret_cast<uintptr_t>(s.m_hTarget));
    if (opt.m_bStructural)
        KvRsDisconnectForAllStructuralChanges(TargetOf(vsub.size()), static_cast<unsigned long>(vsub.size() + 1));
}

void PrintMessage(const KvRsMsgProxy& msg, const ListenOptions& opt)
{
    const uint32_t dwNumber = static_cast<uint32_t>(KvRsGetMsgType(msg.GetHandle(), msg.GetId()));
    void* hTarget = nullptr;
    unsigned long idTarget = 0;
    KvRsGetMsgTarget(msg.GetHandle(), msg.GetId(), hTarget, idTarget);
    KvRsNodeProxy node = KvRsGetMsgChangedNode(msg.GetHandle(), msg.GetId());
    const std::string strPath = node.IsNull() ? std::string() : KvrsNodePath(node);
    const KvrsValue v = KvrsReadValue(KvRsGetMsgValue(msg.GetHandle(), msg.GetId()));
    const uintptr_t uTarget = reinterpret_cast<uintptr_t>(hTarget);
    if (opt.m_bJson) {
        printf("{\"time\":\"%s\",\"number\":%u,\"path\":%s,\"target\":{\"handle\":%lu,\"id\":%lu},\"value\":%s}\n",
               KvrsClockText().c_str(), dwNumber, node.IsNull() ? "null" : KvrsJsonString(strPath).c_str(),
               static_cast<unsigned long>(uTarget), idTarget, KvrsValueJson(v).c_str());
    } else {
        printf("%s  #0x%04x  %s  target %lu/%lu  %s\n", KvrsClockText().c_str(), dwNumber,
               node.IsNull()     ? "(no node)"
               : strPath.empty() ? "(root)"
                                 : strPath.c_str(),
               static_cast<unsigned long>(uTarget), idTarget, KvrsValueText(v, 64).c_str());
    }
    fflush(stdout);
}

// Answers a message to the server of the node it was about, with the same number
// and the very same value object: the sender measures the round trip.
void Echo(const KvRsMsgProxy& msg)
{
    KvRsNodeProxy node = KvRsGetMsgChangedNode(msg.GetHandle(), msg.GetId());
    KvRsValueProxy value = KvRsGetMsgValue(msg.GetHandle(), msg.GetId());
    if (!node.IsNull())
        KvRsNotifyNodeServer(node.GetHandle(), node.GetId(), KvRsGetMsgType(msg.GetHandle(), msg.GetId()),
                             value.GetHandle(), value.GetId());
}

// Longest single sleep of an idle listener: five wake-ups a second.
constexpr long kcmsSlice = 200;

void RunListen(const ListenOptions& opt)
{
    if (opt.m_vstrPaths.empty() && !opt.m_bStructural)
        KvrsUsageError("listen needs a PATH or --structural");
    KvrsInstallStopHandlers();
    const std::vector<Subscription> vsub = Connect(opt);
    std::string strWhat;
    for (const Subscription& s : vsub)
        strWhat += (strWhat.empty() ? "" : ", ") + (s.m_strPath.empty() ? std::string("(root)") : s.m_strPath);
    if (opt.m_bStructural)
        strWhat += (strWhat.empty() ? "" : ", ") + std::string("all structural changes");
    fprintf(stderr, "listening to %s (pid %u)\n", strWhat.c_str(), KvGetCurrentProcessId());

    const int64_t tEnd = opt.m_dTimeout >= 0 ? KvrsNowMicros() + static_cast<int64_t>(opt.m_dTimeout * 1e6) : -1;
    long cReceived = 0, cEchoed = 0;
    while (!KvrsStopRequested() && (opt.m_cMax < 0 || cReceived < opt.m_cMax)) {
        const int64_t tNow = KvrsNowMicros();
        if (tEnd >= 0 && tNow >= tEnd)
            break;
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
        ++cReceived;
        PrintMessage(msg, opt);
        if (opt.m_bEcho) {
            Echo(msg);
            ++cEchoed;
        }
    }
    Disconnect(vsub, opt);
    if (opt.m_bSummary)
        printf("SUMMARY sent=%ld received=%ld\n", cEchoed, cReceived);
}

// --- serve -------------------------------------------------------------------

// Keeps the tree, and reaps ended processes every reap interval (0: never), so
// that a killed client's queue never fills the segment while nobody starts.
void RunServe(long cmsReap)
{
    KvrsInstallStopHandlers();
    printf("serving namespace %s pid %u\n", KvNamespace().c_str(), KvGetCurrentProcessId());
    fflush(stdout);
    const int64_t cusSleep = cmsReap > 0 ? cmsReap * 1000 : 1000000;
    while (!KvrsStopRequested()) {
        KvrsSleepMicros(cusSleep);  // a stop signal cuts the sleep short
        if (cmsReap > 0 && !KvrsStopRequested())
            KvrsReapNow(true);
    }
}

void AddNotify(CLI::App& app)
{
    auto opt = std::make_shared<NotifyOptions>();
    CLI::App* sub = app.add_subcommand("notify", "Send a notification to a node's clients (or its server)");
    sub->add_option("PATH", opt->m_strPath, "Dotted path of the node")->required();
    sub->add_option("NUMBER", opt->m_strNumber,
                    "Notification number: low 16 bits the message number; 0x2 passes through references; "
                    "0x2/0x4/0x8 also reach structural listeners")
        ->required();
    sub->add_option("--value", opt->m_strValue, "Text sent with the message (type 0)")->each([opt](const std::string&) {
        opt->m_bValue = true;
    });
    sub->add_flag("--server", opt->m_bServer, "Notify the node's server instead of its clients");
    sub->add_flag("--recursive", opt->m_bRecursive, "Also notify the clients of every descendant");
    sub->add_flag("--front", opt->m_bFront, "Put the messages at the front of the queues (bit 0x10000)");
    sub->add_option("--repeat", opt->m_cRepeat, "Send the notification N times (a load for measuring)")
        ->check(CLI::Range(1L, 1000000000L));
    sub->callback([opt] {
        KvrsInstallStopHandlers();
        RunNotify(*opt);
    });
}

void AddListen(CLI::App& app)
{
    auto opt = std::make_shared<ListenOptions>();
    CLI::App* sub = app.add_subcommand("listen", "Connect as a client and print every message received");
    sub->add_option("PATH", opt->m_vstrPaths, "Dotted paths of the nodes (\"\" is the root)");
    sub->add_flag("--structural", opt->m_bStructural, "Also receive all structural changes (0x2/0x4/0x8)");
    sub->add_option("--count", opt->m_cMax, "Stop after N messages")->check(CLI::NonNegativeNumber);
    sub->add_option("--timeout", opt->m_dTimeout, "Stop after S seconds")->check(CLI::NonNegativeNumber);
    sub->add_flag("--json", opt->m_bJson, "One JSON object per message");
    sub->add_flag("--echo", opt->m_bEcho, "Answer each message to the node's server")->group("");
    sub->add_flag("--summary", opt->m_bSummary, "Print a SUMMARY line at the end")->group("");
    sub->callback([opt] { RunListen(*opt); });
}

}  // namespace

void KvrsAddNotifyCommands(CLI::App& app)
{
    AddNotify(app);
    AddListen(app);
    CLI::App* sub = app.add_subcommand("serve", "Keep the tree alive until SIGINT or SIGTERM");
    auto cmsReap = std::make_shared<long>(1000);
    sub->add_option("--reap-ms", *cmsReap, "Reap killed processes every N ms (0: never)")
        ->capture_default_str()
        ->check(CLI::Range(0L, 86400000L));
    sub->callback([cmsReap] { RunServe(*cmsReap); });
}
