// KvrsDemoPublisher.cpp - the publisher of `kvrs demo` (hidden subcommand
// `demo-publisher`): builds a small plant, serves its measuring points, sets and
// notifies values for a few seconds and measures the round trip of each value
// through the listeners, which echo it back to the node's server.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "KvrsCommands.h"
#include "KvrsCommon.h"
#include "KvrsDemo.h"

namespace {

constexpr uint32_t kdwMsgValue = 0x1;      // "value changed"
constexpr uint32_t kdwMsgNodeAdded = 0x4;  // structural: reaches structural listeners

struct Point {
    const char* m_pszPath;
    const char* m_pszUnit;
    double m_dBase, m_dSwing;
    KvRsNodeProxy m_node;
};

class Publisher {
public:
    explicit Publisher(double dSeconds) : m_dSeconds(dSeconds) {}
    int Run();

private:
    void Build();
    void AddNode(const std::string& strPath, const std::string& strValue, uint32_t dwExtraType);
    void NotifyAdded(const KvRsNodeProxy& node, const std::string& strPath);
    bool WaitForClients();
    void PublishRound(int iRound);
    void CollectEchoes();
    void Report() const;
    // Counts the messages a notification of node makes: one per client, and
    // for structural numbers one per structural listener too.
    long Deliveries(const KvRsNodeProxy& node, uint32_t dwNumber) const;

    double m_dSeconds;
    KvRsNodeProxy m_root = KvrsRoot();
    std::vector<Point> m_vPoints = {{"plant.line1.temp", "C", 21.0, 1.5, {}},
                                    {"plant.line1.pressure", "bar", 1.2, 0.1, {}},
                                    {"plant.line2.temp", "C", 64.0, 3.0, {}},
                                    {"plant.line2.flow", "l/min", 120.0, 15.0, {}}};
    long m_cSent = 0;  // messages put into listeners' queues
    long m_cEchoExpected = 0;
    long m_cEchoes = 0;
    unsigned m_uSeq = 0;
    std::map<unsigned, int64_t> m_mapSentAt;  // sequence number -> send time
    std::vector<int64_t> m_vRoundTrips;
};

long Publisher::Deliveries(const KvRsNodeProxy& node, uint32_t dwNumber) const
{
    long c = KvRsGetClientCount(node.GetHandle(), node.GetId());
    if (dwNumber & 0xE)
        c += KvRsGetClientCount(m_root.GetHandle(), m_root.GetId());
    return c;
}

void Publisher::AddNode(const std::string& strPath, const std::string& strValue, uint32_t dwExtraType)
{
    KvRsNodeProxy node = KvRsCreateNode(strPath.c_str(), nullptr, 0);
    if (!strValue.empty()) {
        KvRsValueProxy value = KvrsMakeValue(1, std::vector<unsigned char>(strValue.begin(), strValue.end()));
        KvRsSetNodeValue(node.GetHandle(), node.GetId(), value.GetHandle(), value.GetId());
    }
    if (dwExtraType != 0) {
        const unsigned long dwType = KvRsGetNodeType(node.GetHandle(), node.GetId());
        KvRsSetNodeType(node.GetHandle(), node.GetId(), dwType | dwExtraType);
    }
    NotifyAdded(node, strPath);
}

// Structural listeners hear of it through the root: the message names the root,
// so the value says which node was added.
void Publisher::NotifyAdded(const KvRsNodeProxy& node, const std::string& strPath)
{
    const std::string strText = "added " + strPath;
    KvRsValueProxy value = KvrsMakeValue(1, std::vector<unsigned char>(strText.begin(), strText.end()));
    m_cSent += Deliveries(node, kdwMsgNodeAdded);
    KvRsNotifyNodeClients(node.GetHandle(), node.GetId(), kdwMsgNodeAdded, value.GetHandle(), value.GetId(), false);
}

void Publisher::Build()
{
    AddNode("plant.info", "KvRfrSvr demo plant, 2 lines", KVRS_TYPE_CONST);
    for (Point& p : m_vPoints) {
        AddNode(p.m_pszPath, "", 0);
        p.m_node = KvRsGetNode(p.m_pszPath);
        KvRsConnectServer(p.m_node.GetHandle(), p.m_node.GetId(), p.m_node.GetHandle(), p.m_node.GetId());
    }
    KvRsNodeProxy alias = KvRsCreateNode("plant.line2.inlet", nullptr, 0);
    KvRsSetRefNode(alias.GetHandle(), alias.GetId(), m_vPoints[0].m_node.GetHandle(), m_vPoints[0].m_node.GetId());
    NotifyAdded(alias, "plant.line2.inlet");
    printf("%s\n", KVRS_DEMO_BUILT_LINE);
    fflush(stdout);
}

bool Publisher::WaitForClients()
{
    const int64_t tEnd = KvrsNowMicros() + 15000000;
    while (KvrsNowMicros() < tEnd && !KvrsStopRequested()) {
        bool bAll = true;
        for (const Point& p : m_vPoints)
            bAll = bAll && KvRsGetClientCount(p.m_node.GetHandle(), p.m_node.GetId()) > 0;
        if (bAll)
            return true;
        KvrsSleepMicros(2000);
    }
    return false;
}

void Publisher::PublishRound(int iRound)
{
    for (size_t i = 0; i < m_vPoints.size(); ++i) {
        const Point& p = m_vPoints[i];
        const double d = p.m_dBase + p.m_dSwing * std::sin(iRound * 0.4 + static_cast<double>(i));
        char sz[64];
        snprintf(sz, sizeof(sz), "%.2f %s #%u", d, p.m_pszUnit, ++m_uSeq);
        // A new value each time: listeners keep seeing the value they were sent.
        KvRsValueProxy value = KvrsMakeValue(1, std::vector<unsigned char>(sz, sz + strlen(sz)));
        KvRsSetNodeValue(p.m_node.GetHandle(), p.m_node.GetId(), value.GetHandle(), value.GetId());
        const long c = Deliveries(p.m_node, kdwMsgValue);
        m_cSent += c;
        m_cEchoExpected += c;
        m_mapSentAt[m_uSeq] = KvrsNowMicros();
        KvRsNotifyNodeClients(p.m_node.GetHandle(), p.m_node.GetId(), kdwMsgValue, value.GetHandle(), value.GetId(),
                              false);
    }
}

// Takes the echoes out of the default queue; the value's text ends in "#seq".
void Publisher::CollectEchoes()
{
    for (KvRsMsgProxy msg = KvRsGetMsg(); !msg.IsNull(); msg = KvRsGetMsg()) {
        const int64_t tNow = KvrsNowMicros();
        const KvrsValue v = KvrsReadValue(KvRsGetMsgValue(msg.GetHandle(), msg.GetId()));
        const std::string strText(v.m_ab.begin(), v.m_ab.end());
        const size_t iHash = strText.rfind('#');
        ++m_cEchoes;
        if (iHash == std::string::npos)
            continue;
        auto it = m_mapSentAt.find(static_cast<unsigned>(strtoul(strText.c_str() + iHash + 1, nullptr, 10)));
        if (it != m_mapSentAt.end())
            m_vRoundTrips.push_back(tNow - it->second);
    }
}

void Publisher::Report() const
{
    printf("SUMMARY sent=%ld received=%ld\n", m_cSent, m_cEchoes);
    std::vector<int64_t> v(m_vRoundTrips);
    std::sort(v.begin(), v.end());
    auto pct = [&v](double d) {
        return v.empty() ? 0 : v[std::min(v.size() - 1, static_cast<size_t>(d * static_cast<double>(v.size())))];
    };
    printf("LATENCY n=%zu p50=%lld p90=%lld p99=%lld max=%lld\n", v.size(), static_cast<long long>(pct(0.5)),
           static_cast<long long>(pct(0.9)), static_cast<long long>(pct(0.99)),
           static_cast<long long>(v.empty() ? 0 : v.back()));
    fflush(stdout);
}

int Publisher::Run()
{
    KvrsInstallStopHandlers();
    Build();
    if (!WaitForClients())
        throw KvrsError(KVRS_EXIT_FAILED, "the listeners did not connect");
    const int64_t cusRound = 125000;
    const int64_t tStart = KvrsNowMicros();
    int iRound = 0;
    while (!KvrsStopRequested() && KvrsNowMicros() - tStart < static_cast<int64_t>(m_dSeconds * 1e6)) {
        if (KvrsNowMicros() >= tStart + iRound * cusRound)
            PublishRound(iRound++);
        CollectEchoes();
        KvrsSleepMicros(100);
    }
    AddNode("plant.line2.alarm", "flow low", 0);  // one late structural change
    const int64_t tDrain = KvrsNowMicros() + 3000000;
    while (m_cEchoes < m_cEchoExpected && KvrsNowMicros() < tDrain) {
        CollectEchoes();
        KvrsSleepMicros(100);
    }
    for (const Point& p : m_vPoints)
        KvRsDisconnectServer(p.m_node.GetHandle(), p.m_node.GetId());
    Report();
    return 0;
}

}  // namespace

void KvrsRunDemoPublisher(double dSeconds)
{
    Publisher(dSeconds).Run();
}
