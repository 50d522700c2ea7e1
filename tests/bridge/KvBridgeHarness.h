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

// A process started under timeout(1). Ending it takes SIGTERM, which timeout
// passes on: SIGKILL would end timeout alone and leave its child running. Once
// finished it is never signalled again (a finished KvToolProcess no longer
// knows its pid, and kill(-1, ...) would reach every process).
class KvBridgeChild {
public:
    KvBridgeChild(const std::vector<std::string>& argv, const std::string& strIn)
        : m_process("/usr/bin/env", argv, strIn)
    {
    }
    ~KvBridgeChild()
    {
        if (!m_bFinished) {
            m_process.Signal(SIGTERM);
            m_process.Finish(10);
        }
    }
    KvBridgeChild(const KvBridgeChild&) = delete;
    KvBridgeChild& operator=(const KvBridgeChild&) = delete;
    bool WaitForText(const std::string& strText, bool bStderr = false) const
    {
        return m_process.WaitForText(strText, bStderr);
    }
    void Signal(int sig) const
    {
        if (!m_bFinished)
            m_process.Signal(sig);
    }
    KvToolResult Finish(int cSeconds = 20)
    {
        if (m_bFinished)
            return {};
        m_bFinished = true;
        return m_process.Finish(cSeconds);
    }

private:
    KvToolProcess m_process;
    bool m_bFinished = false;
};
using KvBridgeProcess = std::unique_ptr<KvBridgeChild>;

// Starts argv under `timeout` with KVRFRSVR_NAMESPACE=strNamespace ("" keeps
// the environment's) and standard input from the file strIn ("": none).
KvBridgeProcess KvBridgeStart(const std::string& strNamespace, const std::vector<std::string>& argv, int csLimit = 120,
                              const std::string& strIn = "");
// Runs argv to its end in the namespace.
KvToolResult KvBridgeRun(const std::string& strNamespace, const std::vector<std::string>& argv,
                         const std::string& strIn = "");
// Polls fn every 20 ms for up to cms; true as soon as it holds.
bool KvBridgeEventually(const std::function<bool()>& fn, int cms = 10000);

class KvBridgeBroker {
public:
    ~KvBridgeBroker() { Stop(); }
    // Starts on a free port, trying again on another one when the port was
    // taken meanwhile; keeps the port across Stop/Start.
    bool Start();
    // Configuration lines that replace "allow_anonymous true" (TLS, passwords).
    void SetSecurity(const std::string& strLines) { m_strSecurity = strLines; }
    void Stop();
    int Port() const { return m_iPort; }
    std::string Address() const { return "127.0.0.1:" + std::to_string(m_iPort); }

private:
    bool StartOn(int iPort);
    KvBridgeProcess m_pProcess;
    std::string m_strConf = KvTestTempFile();
    std::string m_strSecurity = "allow_anonymous true\n";
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
    KvBridgeChild* Bridge() const { return m_pBridge.get(); }
    KvToolResult Kvrs(const std::vector<std::string>& args) const { return KvBridgeRun(m_strNamespace, args); }
    // The node's value as `kvrs get` prints it, "" when there is none.
    std::string Get(const std::string& strPath) const;
    void Stop();

private:
    std::string m_strNamespace;
    KvBridgeProcess m_pServe, m_pBridge;
};
