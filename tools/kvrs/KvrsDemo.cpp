// KvrsDemo.cpp - `kvrs demo`: several processes sharing one tree in a namespace
// of their own. The demo process only starts and watches them; it never uses
// the tree of that namespace itself, so the tree lives exactly as long as its
// processes and nothing stays behind in /dev/shm.
#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "KvrsChild.h"
#include "KvrsCommands.h"
#include "KvrsCommon.h"
#include "KvrsDemo.h"

namespace {

constexpr int kcmsStartup = 15000;

struct Counts {
    long m_cSent = 0;
    long m_cReceived = 0;
    bool m_bReported = false;
};

Counts ReadCounts(const KvrsChild& child)
{
    Counts c;
    for (const std::string& str : child.Reports())
        if (sscanf(str.c_str(), "SUMMARY sent=%ld received=%ld", &c.m_cSent, &c.m_cReceived) == 2)
            c.m_bReported = true;
    return c;
}

class Demo {
public:
    explicit Demo(double dSeconds) : m_dSeconds(dSeconds), m_strNamespace("demo." + std::to_string(getpid())) {}
    int Run();

private:
    KvrsChild& Start(const std::string& strName, const std::vector<std::string>& vstrArgs);
    void WaitFor(KvrsChild& child, const std::string& strPrefix);
    void PumpUntilExit(KvrsChild& child);
    void PrintTree();
    bool PrintSummary();
    bool CheckNothingLeft();
    std::vector<KvrsChild*> All() const;

    double m_dSeconds;
    std::string m_strNamespace;
    std::vector<std::unique_ptr<KvrsChild>> m_vpChildren;
    KvrsChild* m_pServer = nullptr;
    KvrsChild* m_pPublisher = nullptr;
    std::vector<KvrsChild*> m_vpListeners;
};

std::vector<KvrsChild*> Demo::All() const
{
    std::vector<KvrsChild*> vp;
    for (const auto& p : m_vpChildren)
        vp.push_back(p.get());
    return vp;
}

KvrsChild& Demo::Start(const std::string& strName, const std::vector<std::string>& vstrArgs)
{
    m_vpChildren.push_back(std::make_unique<KvrsChild>(strName, true));
    KvrsChild& child = *m_vpChildren.back();
    if (!child.Start(vstrArgs, m_strNamespace))
        throw KvrsError(KVRS_EXIT_FAILED, "cannot start the " + strName + " process");
    return child;
}

// Shows the children's output until child printed a line starting with strPrefix.
void Demo::WaitFor(KvrsChild& child, const std::string& strPrefix)
{
    const int64_t tEnd = KvrsNowMicros() + kcmsStartup * 1000LL;
    while (!child.SawLine(strPrefix)) {
        if (KvrsNowMicros() > tEnd || KvrsStopRequested())
            throw KvrsError(KVRS_EXIT_FAILED, "the " + child.Name() + " process did not start");
        KvrsChild::Pump(All(), 20);
    }
}

void Demo::PumpUntilExit(KvrsChild& child)
{
    const int64_t tEnd = KvrsNowMicros() + static_cast<int64_t>((m_dSeconds + 20) * 1e6);
    while (child.Running() && KvrsNowMicros() < tEnd && !KvrsStopRequested()) {
        KvrsChild::Pump(All(), 20);
        child.Reap();
    }
}

void Demo::PrintTree()
{
    printf("\nThe tree at the end (kvrs tree):\n");
    m_vpChildren.push_back(std::make_unique<KvrsChild>("tree", false));
    KvrsChild& tree = *m_vpChildren.back();
    tree.m_pfnLine = [](const std::string& strLine) { printf("  %s\n", strLine.c_str()); };
    if (tree.Start({"tree"}, m_strNamespace))
        tree.Wait(10000);
}

bool Demo::PrintSummary()
{
    printf("\n%-12s %8s %10s %10s  %s\n", "process", "pid", "sent", "received", "");
    long cListenersReceived = 0, cListenersSent = 0;
    bool bAllReported = true;
    for (KvrsChild* p : m_vpListeners) {
        const Counts c = ReadCounts(*p);
        bAllReported = bAllReported && c.m_bReported;
        cListenersReceived += c.m_cReceived;
        cListenersSent += c.m_cSent;
        printf("%-12s %8d %10ld %10ld  %s\n", p->Name().c_str(), static_cast<int>(p->Pid()), c.m_cSent, c.m_cReceived,
               c.m_cSent ? "(sent: echoes to the node's server)" : "");
    }
    const Counts pub = ReadCounts(*m_pPublisher);
    bAllReported = bAllReported && pub.m_bReported;
    printf("%-12s %8d %10ld %10ld  %s\n", "publisher", static_cast<int>(m_pPublisher->Pid()), pub.m_cSent,
           pub.m_cReceived, "(received: echoes)");
    const bool bNotificationsOk = pub.m_cSent == cListenersReceived;
    const bool bEchoesOk = cListenersSent == pub.m_cReceived;
    printf("\nnotifications: %ld queued for listeners, %ld received: %s\n", pub.m_cSent, cListenersReceived,
           bNotificationsOk ? "none lost" : "MISMATCH");
    printf("echoes:        %ld sent by listeners, %ld received: %s\n", cListenersSent, pub.m_cReceived,
           bEchoesOk ? "none lost" : "MISMATCH");
    for (const std::string& str : m_pPublisher->Reports()) {
        long long n = 0, p50 = 0, p90 = 0, p99 = 0, max = 0;
        if (sscanf(str.c_str(), "LATENCY n=%lld p50=%lld p90=%lld p99=%lld max=%lld", &n, &p50, &p90, &p99, &max) == 5)
            printf("round trip publisher -> listener -> publisher, %lld samples: "
                   "p50 %.3f ms, p90 %.3f ms, p99 %.3f ms, max %.3f ms\n",
                   n, static_cast<double>(p50) / 1000.0, static_cast<double>(p90) / 1000.0,
                   static_cast<double>(p99) / 1000.0, static_cast<double>(max) / 1000.0);
    }
    return bAllReported && bNotificationsOk && bEchoesOk;
}

bool Demo::CheckNothingLeft()
{
    const std::string strMark = "." + m_strNamespace + ".";
    std::vector<std::string> vstrLeft;
    if (DIR* pDir = opendir("/dev/shm")) {
        while (const dirent* pEnt = readdir(pDir))
            if (std::string(pEnt->d_name).find(strMark) != std::string::npos)
                vstrLeft.push_back(pEnt->d_name);
        closedir(pDir);
    }
    if (vstrLeft.empty()) {
        printf("/dev/shm: nothing of namespace %s is left\n", m_strNamespace.c_str());
        return true;
    }
    for (const std::string& str : vstrLeft)
        printf("/dev/shm: %s was left behind\n", str.c_str());
    return false;
}

int Demo::Run()
{
    KvrsInstallStopHandlers();
    printf("kvrs demo: processes sharing a tree in namespace %s\n\n", m_strNamespace.c_str());
    m_pServer = &Start("server", {"serve"});
    WaitFor(*m_pServer, "serving");
    m_vpListeners.push_back(&Start("structure", {"listen", "--structural", "--summary"}));
    WaitFor(*m_vpListeners.back(), "listening");
    char szSeconds[32];
    snprintf(szSeconds, sizeof(szSeconds), "%g", m_dSeconds);
    m_pPublisher = &Start("publisher", {"demo-publisher", "--seconds", szSeconds});
    WaitFor(*m_pPublisher, KVRS_DEMO_BUILT_LINE);
    const std::vector<std::pair<std::string, std::vector<std::string>>> vListeners = {
        {"temps", {"plant.line1.temp", "plant.line2.temp"}},
        {"line1", {"plant.line1.temp", "plant.line1.pressure"}},
        {"flow", {"plant.line2.flow"}}};
    for (const auto& l : vListeners) {
        std::vector<std::string> vstrArgs{"listen", "--echo", "--summary", "--no-current"};
        vstrArgs.insert(vstrArgs.end(), l.second.begin(), l.second.end());
        m_vpListeners.push_back(&Start(l.first, vstrArgs));
    }
    PumpUntilExit(*m_pPublisher);
    KvrsChild::Pump(All(), 300);  // the last structural message reaches its listener
    for (KvrsChild* p : m_vpListeners)
        p->Stop();
    int cFailed = 0;
    for (KvrsChild* p : m_vpListeners)
        cFailed += p->Wait(5000) != 0;
    PrintTree();
    m_pServer->Stop();
    cFailed += m_pServer->Wait(5000) != 0;
    cFailed += m_pPublisher->Wait(1000) != 0;
    const bool bCountsOk = PrintSummary();
    const bool bClean = CheckNothingLeft();
    return cFailed == 0 && bCountsOk && bClean ? KVRS_EXIT_OK : KVRS_EXIT_FAILED;
}

}  // namespace

void KvrsAddDemoCommands(CLI::App& app)
{
    auto pstrSeconds = std::make_shared<std::string>("3");
    CLI::App* sub = app.add_subcommand("demo", "Run a server, listeners and a publisher in a namespace of their own");
    sub->add_option("--seconds", *pstrSeconds, "How long the publisher publishes (at most 30)")->type_name("S");
    sub->callback([pstrSeconds] {
        const double dSeconds = KvrsParseSeconds(*pstrSeconds, "--seconds", 30.0);
        if (dSeconds < 0.1)
            KvrsUsageError("bad --seconds '" + KvrsShown(*pstrSeconds) + "': at least 0.1");
        const int iStatus = Demo(dSeconds).Run();
        if (iStatus != KVRS_EXIT_OK)
            throw KvrsError(iStatus, "the demo did not run cleanly (see above)");
    });

    auto pstrPublish = std::make_shared<std::string>("3");
    CLI::App* pub = app.add_subcommand("demo-publisher", "The demo's publisher role")->group("");
    pub->add_option("--seconds", *pstrPublish, "How long to publish")->type_name("S");
    pub->callback([pstrPublish] { KvrsRunDemoPublisher(KvrsParseSeconds(*pstrPublish, "--seconds", 60.0)); });
}
