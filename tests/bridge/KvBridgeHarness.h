// KvBridgeHarness.h - a private mosquitto on a free loopback port and trees in
// namespaces of their own, each kept by `kvrs serve` and joined by `kvrs
// bridge`. Every process runs under timeout(1), so that even a crashed test
// program leaves nothing running for long.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tool/KvToolProcess.h"

// Starts argv under `timeout` with KVRFRSVR_NAMESPACE=strNamespace ("" keeps
// the environment's).
std::unique_ptr<KvToolProcess> KvBridgeStart(const std::string& strNamespace, const std::vector<std::string>& argv,
                                             int csLimit = 120);
// Runs argv to its end in the namespace.
KvToolResult KvBridgeRun(const std::string& strNamespace, const std::vector<std::string>& argv);
// Polls fn every 20 ms for up to cms; true as soon as it holds.
bool KvBridgeEventually(const std::function<bool()>& fn, int cms = 10000);
// Names in /dev/shm that belong to the namespace.
std::vector<std::string> KvBridgeShmObjects(const std::string& strNamespace);

class KvBridgeBroker {
public:
    ~KvBridgeBroker() { Stop(); }
    // Starts on a free port, trying again on another one when the port was
    // taken meanwhile; keeps the port across Stop/Start.
    bool Start();
    void Stop();
    int Port() const { return m_iPort; }
    std::string Address() const { return "127.0.0.1:" + std::to_string(m_iPort); }

private:
    bool StartOn(int iPort);
    std::unique_ptr<KvToolProcess> m_pProcess;
    std::string m_strConf = KvTestTempFile();
    int m_iPort = 0;
};

// One tree: `kvrs serve` and, once started, `kvrs bridge`.
class KvBridgeTree {
public:
    explicit KvBridgeTree(const std::string& strNamespace);
    ~KvBridgeTree() { Stop(); }
    const std::string& Namespace() const { return m_strNamespace; }
    bool StartBridge(const KvBridgeBroker& broker, const std::vector<std::string>& vstrExtra = {});
    // Stops the bridge with SIGTERM and returns its result.
    KvToolResult StopBridge();
    KvToolProcess* Bridge() const { return m_pBridge.get(); }
    KvToolResult Kvrs(const std::vector<std::string>& args) const { return KvBridgeRun(m_strNamespace, args); }
    // The node's value as `kvrs get` prints it, "" when there is none.
    std::string Get(const std::string& strPath) const;
    void Stop();

private:
    std::string m_strNamespace;
    std::unique_ptr<KvToolProcess> m_pServe, m_pBridge;
};
