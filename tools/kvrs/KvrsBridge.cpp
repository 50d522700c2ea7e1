// KvrsBridge.cpp - `kvrs bridge`: mirrors subtrees both ways through an MQTT
// broker, so that trees on several machines (or namespaces) stay alike.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "KvCppMfc/Platform/KvPlatform.h"
#include "KvRfrSvrWait.h"
#include "KvrsBridgeLocal.h"
#include "KvrsBridgeMqtt.h"
#include "KvrsBridgeSync.h"
#include "KvrsBridgeTopic.h"
#include "KvrsCommands.h"
#include "KvrsCommon.h"

namespace {

struct BridgeOptions {
    std::string m_strBroker;
    std::vector<std::string> m_vstrSubtrees;
    std::string m_strRoot = "kvrs";
    long m_cmsScan = 1000;
    std::string m_strClientId;
    std::string m_strUser;
    std::string m_strPasswordFile;
    std::string m_strCaFile;
    int m_csKeepAlive = 30;
    long m_cmsRetryMax = 10000;
};

// HOST, HOST:PORT, [V6ADDR] or [V6ADDR]:PORT.
void ParseBroker(const std::string& str, KvrsBridgeMqttOptions& mqtt)
{
    std::string strHost = str, strPort;
    if (!str.empty() && str[0] == '[') {
        const size_t iClose = str.find(']');
        if (iClose == std::string::npos || (iClose + 1 < str.size() && str[iClose + 1] != ':'))
            KvrsUsageError("bad --broker '" + str + "'");
        strHost = str.substr(1, iClose - 1);
        if (iClose + 1 < str.size())
            strPort = str.substr(iClose + 2);
    } else if (const size_t iColon = str.rfind(':'); iColon != std::string::npos) {
        strHost = str.substr(0, iColon);
        strPort = str.substr(iColon + 1);
        if (strHost.find(':') != std::string::npos)
            KvrsUsageError("bad --broker '" + str + "': write an IPv6 address as [ADDR]:PORT");
    }
    if (strHost.empty())
        KvrsUsageError("bad --broker '" + str + "': no host");
    if (!strPort.empty() || str.back() == ':') {
        const uint32_t dwPort = KvrsParseNumber(strPort, "the broker's port");
        if (dwPort == 0 || dwPort > 65535)
            KvrsUsageError("bad --broker '" + str + "': port out of range");
        mqtt.m_iPort = static_cast<int>(dwPort);
    }
    mqtt.m_strHost = strHost;
}

std::string ReadPassword(const std::string& strFile)
{
    std::ifstream in(strFile);
    std::string strLine;
    if (!in || !std::getline(in, strLine))
        KvrsUsageError("cannot read --password-file '" + strFile + "'");
    if (!strLine.empty() && strLine.back() == '\r')
        strLine.pop_back();
    return strLine;
}

void CheckRoot(const std::string& strRoot)
{
    if (strRoot.empty() || strRoot.find_first_of("+#") != std::string::npos || strRoot.front() == '/' ||
        strRoot.back() == '/' || strRoot.find('\0') != std::string::npos)
        KvrsUsageError("bad --topic-root '" + strRoot + "': not empty, no '+' or '#', no '/' at either end");
}

// Subtrees must not overlap: a node would be bridged twice.
void CheckSubtrees(const std::vector<std::string>& vstrPaths)
{
    for (const std::string& strPath : vstrPaths)
        KvrsCheckPath(strPath, false);
    for (const std::string& strA : vstrPaths)
        for (const std::string& strB : vstrPaths)
            if (&strA != &strB && (strA == strB || strB.compare(0, strA.size() + 1, strA + ".") == 0))
                KvrsUsageError("subtrees '" + strA + "' and '" + strB + "' overlap");
}

KvrsBridgeMqttOptions MqttOptions(const BridgeOptions& opt)
{
    KvrsBridgeMqttOptions mqtt;
    if (!opt.m_strCaFile.empty())
        mqtt.m_iPort = 8883;
    ParseBroker(opt.m_strBroker, mqtt);
    mqtt.m_strClientId = opt.m_strClientId;
    if (mqtt.m_strClientId.empty()) {
        char szHost[256] = {};
        gethostname(szHost, sizeof szHost - 1);
        mqtt.m_strClientId = "kvrs-bridge-" + std::string(szHost) + "-" + std::to_string(KvGetCurrentProcessId());
    }
    mqtt.m_strUser = opt.m_strUser;
    if (!opt.m_strPasswordFile.empty()) {
        if (opt.m_strUser.empty())
            KvrsUsageError("--password-file needs --user");
        mqtt.m_strPassword = ReadPassword(opt.m_strPasswordFile);
    }
    mqtt.m_strCaFile = opt.m_strCaFile;
    if (!mqtt.m_strCaFile.empty() && access(mqtt.m_strCaFile.c_str(), R_OK) != 0)
        KvrsUsageError("cannot read --cafile '" + mqtt.m_strCaFile + "'");
    mqtt.m_csKeepAlive = opt.m_csKeepAlive;
    mqtt.m_cusRetryMax = static_cast<int64_t>(opt.m_cmsRetryMax) * 1000;
    return mqtt;
}

// One wait for the library's wake-up descriptor (a message in this process's
// queues) and the broker's socket, bounded by the next scan and the MQTT
// client's own deadline. Nothing spins: an idle bridge sleeps in poll().
void WaitForWork(int fdWake, KvrsBridgeMqtt& mqtt, int64_t cusWait)
{
    pollfd apfd[2] = {};
    nfds_t cfd = 0;
    if (fdWake >= 0)
        apfd[cfd++] = {fdWake, POLLIN, 0};
    const int fdSock = mqtt.Socket();
    if (fdSock >= 0)
        apfd[cfd++] = {fdSock, static_cast<short>(POLLIN | (mqtt.WantWrite() ? POLLOUT : 0)), 0};
    // Without the descriptor (the process could not be entered in the table of
    // waiters) the queue is looked at every 20 ms.
    if (fdWake < 0)
        cusWait = std::min<int64_t>(cusWait, 20000);
    const int cms = static_cast<int>(std::clamp<int64_t>((cusWait + 999) / 1000, 0, 60000));
    if (poll(apfd, cfd, cms) <= 0)
        return;  // time-out, or a signal: the caller looks at the stop flag
    for (nfds_t i = 0; i < cfd; ++i) {
        if (apfd[i].fd == fdWake && (apfd[i].revents & POLLIN) != 0) {
            uint64_t u = 0;
            if (read(fdWake, &u, sizeof u) < 0 && errno != EAGAIN)
                fprintf(stderr, "bridge: wake-up descriptor: %s\n", strerror(errno));
        } else if (apfd[i].fd == fdSock && apfd[i].revents != 0) {
            if ((apfd[i].revents & (POLLIN | POLLERR | POLLHUP)) != 0)
                mqtt.OnReadable();
            if ((apfd[i].revents & POLLOUT) != 0 && mqtt.Socket() >= 0)
                mqtt.OnWritable();
        }
    }
}

void RunBridge(const BridgeOptions& opt)
{
    CheckRoot(opt.m_strRoot);
    CheckSubtrees(opt.m_vstrSubtrees);
    const KvrsBridgeMqttOptions optMqtt = MqttOptions(opt);
    KvrsInstallStopHandlers();

    KvrsBridgeLocal local(opt.m_vstrSubtrees);
    KvrsBridgeMqtt mqtt(optMqtt);
    KvrsBridgeSync sync(local, mqtt, opt.m_strRoot, optMqtt.m_strClientId);
    for (const std::string& strPrefix : local.Prefixes())
        mqtt.AddSubscription(opt.m_strRoot + "/" + strPrefix + "/#");  // "#" also matches the top node
    mqtt.m_fnConnected = [&sync] { sync.Republish(); };
    mqtt.m_fnMessage = [&sync](const KvrsBridgeIncoming& in) { sync.OnIncoming(in); };

    const int fdWake = KvRsGetWaitFd();
    std::vector<KvrsBridgeChange> vchange;
    local.Scan(vchange);
    sync.OnLocalChanges(vchange, true);
    fprintf(stderr, "bridge: %zu nodes of namespace %s under %s/, broker %s:%d (pid %u)\n", vchange.size(),
            KvNamespace().c_str(), opt.m_strRoot.c_str(), optMqtt.m_strHost.c_str(), optMqtt.m_iPort,
            KvGetCurrentProcessId());
    const int64_t cusScan = static_cast<int64_t>(opt.m_cmsScan) * 1000;
    int64_t tNextScan = KvrsNowMicros() + cusScan;
    while (!KvrsStopRequested()) {
        vchange.clear();
        local.TakeMessages(vchange);
        int64_t tNow = KvrsNowMicros();
        if (tNow >= tNextScan) {
            local.Scan(vchange);
            tNextScan = tNow + cusScan;
        }
        sync.OnLocalChanges(vchange, false);
        const int64_t cusMqtt = mqtt.Tick(tNow);
        tNow = KvrsNowMicros();
        WaitForWork(fdWake, mqtt, std::min(cusMqtt, tNextScan - tNow));
    }
    mqtt.Disconnect();
    fprintf(stderr, "bridge: stopped; published %ld, applied %ld\n", sync.PublishedCount(), sync.AppliedCount());
}

}  // namespace

void KvrsAddBridgeCommand(CLI::App& app)
{
    auto opt = std::make_shared<BridgeOptions>();
    CLI::App* sub = app.add_subcommand("bridge", "Mirror subtrees both ways through an MQTT broker");
    sub->add_option("SUBTREE", opt->m_vstrSubtrees, "Dotted paths of the subtrees to mirror (made when missing)")
        ->required();
    sub->add_option("--broker", opt->m_strBroker,
                    "Broker address HOST[:PORT] or [IPV6]:PORT (port 1883, 8883 with --cafile)")
        ->required();
    sub->add_option("--topic-root", opt->m_strRoot, "First topic levels of every node")->capture_default_str();
    sub->add_option("--scan-ms", opt->m_cmsScan, "Look for new nodes and unnotified changes every N ms")
        ->capture_default_str()
        ->check(CLI::Range(10L, 86400000L));
    sub->add_option("--client-id", opt->m_strClientId,
                    "MQTT client id (default kvrs-bridge-HOST-PID); unique per bridge");
    sub->add_option("--user", opt->m_strUser, "User name for the broker");
    sub->add_option("--password-file", opt->m_strPasswordFile, "File whose first line is the password (needs --user)");
    sub->add_option("--cafile", opt->m_strCaFile, "CA certificates (PEM): connect with TLS and check the broker");
    sub->add_option("--keepalive", opt->m_csKeepAlive, "MQTT keep-alive in seconds")
        ->capture_default_str()
        ->check(CLI::Range(5, 65535));
    sub->add_option("--retry-max-ms", opt->m_cmsRetryMax, "Longest pause between reconnection attempts")
        ->capture_default_str()
        ->check(CLI::Range(100L, 3600000L));
    sub->footer("Runs until SIGINT or SIGTERM. Subtrees must not overlap.\n"
                "Node a.b.c is topic ROOT/a/b/c. In a name, '%', '/', '+', '#', space, control and\n"
                "non-ASCII bytes are written %XX (hex); the empty name is the level '%'.\n"
                "Local notifications (and value changes a scan finds) are published retained, QoS 1,\n"
                "with user properties kvrs-type (value type) and kvrs-msg (message number); a\n"
                "publish from the broker creates the node, stores the payload (type kvrs-type, else 0)\n"
                "and notifies the node's clients (number kvrs-msg, else 1). The newest change wins\n"
                "(kvrs-stamp, kvrs-origin). Reconnects with back-off and republishes after a broker\n"
                "restart. Reference nodes are not bridged.\n\n"
                "Exit status: 0 after SIGINT/SIGTERM, 1 the tree refused a subtree, 2 usage error.\n"
                "Set-up, topics and escaping: docs/bridge.md.");
    sub->callback([opt] { RunBridge(*opt); });
}
