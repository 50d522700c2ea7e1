// KvBridgeHarness.cpp - brokers, trees and processes for the bridge's tests.
#include "KvBridgeHarness.h"

#include <fstream>

#include "common/KvFreePort.h"

KvBridgeProcess KvBridgeStart(const std::string& strNamespace, const std::vector<std::string>& argv, int csLimit,
                              const std::string& strIn)
{
    std::vector<std::string> vstr;
    if (!strNamespace.empty())
        vstr.push_back("KVRFRSVR_NAMESPACE=" + strNamespace);
    vstr.insert(vstr.end(), {"timeout", "-k", "2", std::to_string(csLimit)});
    vstr.insert(vstr.end(), argv.begin(), argv.end());
    return std::make_unique<KvBridgeChild>(vstr, strIn);
}

KvToolResult KvBridgeRun(const std::string& strNamespace, const std::vector<std::string>& argv,
                         const std::string& strIn)
{
    return KvBridgeStart(strNamespace, argv, 30, strIn)->Finish(40);
}

bool KvBridgeEventually(const std::function<bool()>& fn, int cms)
{
    for (int i = 0; i < cms / 20; ++i) {
        if (fn())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return fn();
}

bool KvBridgeBroker::StartOn(int iPort)
{
    {
        std::ofstream out(m_strConf);
        out << "listener " << iPort << " 127.0.0.1\npersistence false\n" << m_strSecurity;
    }
    m_pProcess = KvBridgeStart("", {KV_MOSQUITTO, "-c", m_strConf}, 240);
    if (m_pProcess->WaitForText(" running", true)) {
        m_iPort = iPort;
        return true;
    }
    m_pProcess->Finish(5);
    m_pProcess.reset();
    return false;
}

bool KvBridgeBroker::Start()
{
    if (m_iPort != 0)
        return StartOn(m_iPort);
    for (int i = 0; i < 5; ++i)
        if (StartOn(KvFreePort()))
            return true;
    return false;
}

void KvBridgeBroker::Stop()
{
    if (m_pProcess == nullptr)
        return;
    m_pProcess->Signal(SIGTERM);
    m_pProcess->Finish(10);
    m_pProcess.reset();
}

KvBridgeTree::KvBridgeTree(const std::string& strNamespace) : m_strNamespace(strNamespace)
{
    m_pServe = KvBridgeStart(m_strNamespace, {KVRS_EXE, "serve"});
    EXPECT_TRUE(m_pServe->WaitForText("serving namespace"));
}

bool KvBridgeTree::StartBridge(const KvBridgeBroker& broker, const std::vector<std::string>& vstrExtra)
{
    std::vector<std::string> argv{KVRS_EXE,    "bridge", "--broker",       broker.Address(),
                                  "--scan-ms", "200",    "--retry-max-ms", "500"};
    argv.insert(argv.end(), vstrExtra.begin(), vstrExtra.end());
    argv.push_back("plant");
    m_pBridge = KvBridgeStart(m_strNamespace, argv);
    return m_pBridge->WaitForText("bridge: connected", true);
}

KvToolResult KvBridgeTree::StopBridge()
{
    if (m_pBridge == nullptr)
        return {};
    m_pBridge->Signal(SIGTERM);  // timeout(1) passes it on
    KvToolResult r = m_pBridge->Finish(10);
    m_pBridge.reset();
    return r;
}

std::string KvBridgeTree::Get(const std::string& strPath) const
{
    KvToolResult r = Kvrs({KVRS_EXE, "get", "--text", strPath});
    if (r.iStatus != 0)
        return "";
    if (!r.strOut.empty() && r.strOut.back() == '\n')
        r.strOut.pop_back();
    return r.strOut;
}

void KvBridgeTree::Stop()
{
    StopBridge();
    if (m_pServe != nullptr) {
        m_pServe->Signal(SIGTERM);
        m_pServe->Finish(10);
        m_pServe.reset();
    }
}
