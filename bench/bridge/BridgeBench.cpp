// BridgeBench.cpp - what `kvrs bridge` costs: the latency from a notification
// in one namespace to a listener in another, through a private mosquitto and
// two bridges, and the sustained rate of changes, next to a libmosquitto
// publisher and subscriber on the same broker (the floor a bridge can reach).
//   bench_bridge [--short]
#include <fcntl.h>
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/KvFreePort.h"

extern char** environ;

namespace {

int64_t NowNanos()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

std::string ReadFile(const std::string& strPath)
{
    std::ifstream in(strPath);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string TempFile(const std::string& strTag)
{
    return "/tmp/kvbench-bridge." + std::to_string(getpid()) + "." + strTag;
}

// A child with its output in files and, when strNamespace is set, a namespace
// of its own.
struct Child {
    pid_t m_pid = -1;
    std::string m_strOut, m_strErr;

    Child(const std::vector<std::string>& argv, const std::string& strNamespace, const std::string& strTag)
        : m_strOut(TempFile(strTag + ".out")), m_strErr(TempFile(strTag + ".err"))
    {
        std::vector<std::string> vstrEnv;
        for (char** ppsz = environ; *ppsz != nullptr; ++ppsz)
            if (strncmp(*ppsz, "KVRFRSVR_NAMESPACE=", 19) != 0)
                vstrEnv.push_back(*ppsz);
        if (!strNamespace.empty())
            vstrEnv.push_back("KVRFRSVR_NAMESPACE=" + strNamespace);
        std::vector<char*> vArgs, vEnv;
        for (const std::string& s : argv)
            vArgs.push_back(const_cast<char*>(s.c_str()));
        vArgs.push_back(nullptr);
        for (const std::string& s : vstrEnv)
            vEnv.push_back(const_cast<char*>(s.c_str()));
        vEnv.push_back(nullptr);
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 1, m_strOut.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&fa, 2, m_strErr.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (posix_spawn(&m_pid, vArgs[0], &fa, nullptr, vArgs.data(), vEnv.data()) != 0)
            m_pid = -1;
        posix_spawn_file_actions_destroy(&fa);
    }
    ~Child()
    {
        Stop();
        unlink(m_strOut.c_str());
        unlink(m_strErr.c_str());
    }
    bool WaitFor(const std::string& strText, bool bStderr, int cms = 10000) const
    {
        for (int i = 0; i < cms / 10; ++i) {
            if (ReadFile(bStderr ? m_strErr : m_strOut).find(strText) != std::string::npos)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }
    // Waits for the end, SIGTERM after cms and SIGKILL a while later.
    void Wait(int cms)
    {
        for (int i = 0; m_pid > 0; ++i) {
            if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
                m_pid = -1;
                break;
            }
            if (i == cms / 10)
                kill(m_pid, SIGTERM);
            if (i == cms / 10 + 500)
                kill(m_pid, SIGKILL);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    void Stop()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            Wait(0);
        }
    }
};

struct Figures {
    double m_dP50Us = 0, m_dP99Us = 0, m_dRate = 0;
    size_t m_cLatency = 0, m_cBurst = 0;
};

void Percentiles(std::vector<int64_t> v, Figures& fig)
{
    fig.m_cLatency = v.size();
    if (v.empty())
        return;
    std::sort(v.begin(), v.end());
    fig.m_dP50Us = static_cast<double>(v[v.size() / 2]) / 1000.0;
    fig.m_dP99Us = static_cast<double>(v[std::min(v.size() - 1, v.size() * 99 / 100)]) / 1000.0;
}

// --- through two bridges -------------------------------------------------------

// Runs the listener in B and the notifier in A; the latencies and the time span
// from the first send to the last receipt.
std::vector<int64_t> RunPeers(const std::string& strPeer, const std::string& strNsA, const std::string& strNsB,
                              long cMsgs, long cusInterval, double& dSeconds)
{
    Child listen({strPeer, "listen", std::to_string(cMsgs), "60000"}, strNsB, "listen");
    if (!listen.WaitFor("READY", false))
        return {};
    Child notify({strPeer, "notify", std::to_string(cMsgs), std::to_string(cusInterval)}, strNsA, "notify");
    notify.Wait(120000);
    listen.Wait(90000);
    std::vector<int64_t> v;
    long long llStart = 0, llLast = 0;
    sscanf(ReadFile(notify.m_strOut).c_str(), "START %lld", &llStart);
    std::istringstream in(ReadFile(listen.m_strOut));
    for (std::string strLine; std::getline(in, strLine);) {
        long long ll = 0;
        if (sscanf(strLine.c_str(), "LAT %lld", &ll) == 1)
            v.push_back(ll);
        else if (sscanf(strLine.c_str(), "LAST %lld", &ll) == 1)
            llLast = ll;
    }
    dSeconds = static_cast<double>(llLast - llStart) / 1e9;
    return v;
}

Figures BenchBridge(const std::string& strKvrs, const std::string& strPeer, int iPort, long cPaced, long cBurst)
{
    const std::string strBase = "kvbench.bridge." + std::to_string(getpid());
    const std::string strNsA = strBase + ".a", strNsB = strBase + ".b";
    Figures fig;
    {
        Child serveA({strKvrs, "serve"}, strNsA, "serveA"), serveB({strKvrs, "serve"}, strNsB, "serveB");
        serveA.WaitFor("serving", false);
        serveB.WaitFor("serving", false);
        for (const std::string& strNs : {strNsA, strNsB}) {
            Child set({strKvrs, "set", "plant.bench", "0"}, strNs, "set");
            set.Wait(10000);
        }
        const std::string strBroker = "127.0.0.1:" + std::to_string(iPort);
        Child bridgeA({strKvrs, "bridge", "--broker", strBroker, "plant"}, strNsA, "bridgeA");
        Child bridgeB({strKvrs, "bridge", "--broker", strBroker, "plant"}, strNsB, "bridgeB");
        if (!bridgeA.WaitFor("connected", true) || !bridgeB.WaitFor("connected", true)) {
            fprintf(stderr, "bench_bridge: the bridges did not connect\n");
            return fig;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(300));  // retained values settle
        double dSeconds = 0;
        Percentiles(RunPeers(strPeer, strNsA, strNsB, cPaced, 2000, dSeconds), fig);
        const std::vector<int64_t> v = RunPeers(strPeer, strNsA, strNsB, cBurst, 0, dSeconds);
        fig.m_cBurst = v.size();
        if (dSeconds > 0)
            fig.m_dRate = static_cast<double>(v.size()) / dSeconds;
    }
    return fig;
}

// --- libmosquitto alone --------------------------------------------------------

struct Receiver {
    std::mutex m_mutex;
    std::vector<int64_t> m_vLatency;
    std::atomic<long> m_cReceived{0};
    std::atomic<int64_t> m_tLast{0};
    std::atomic<bool> m_bSubscribed{false};
};

void OnMessage(mosquitto*, void* pv, const mosquitto_message* pMsg)
{
    auto* pRecv = static_cast<Receiver*>(pv);
    const int64_t tNow = NowNanos();
    if (pMsg->retain)
        return;  // the last run's value, delivered on subscribing
    std::string str(static_cast<const char*>(pMsg->payload), static_cast<size_t>(pMsg->payloadlen));
    std::lock_guard<std::mutex> lock(pRecv->m_mutex);
    pRecv->m_vLatency.push_back(tNow - strtoll(str.c_str(), nullptr, 10));
    pRecv->m_tLast = tNow;
    ++pRecv->m_cReceived;
}

void OnSubscribe(mosquitto*, void* pv, int, int, const int*)
{
    static_cast<Receiver*>(pv)->m_bSubscribed = true;
}

mosquitto* NewClient(const char* pszId, void* pv, int iPort)
{
    mosquitto* pm = mosquitto_new(pszId, true, pv);
    mosquitto_int_option(pm, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    if (mosquitto_connect(pm, "127.0.0.1", iPort, 30) != MOSQ_ERR_SUCCESS ||
        mosquitto_loop_start(pm) != MOSQ_ERR_SUCCESS) {
        mosquitto_destroy(pm);
        return nullptr;
    }
    return pm;
}

// One run: cMsgs retained QoS 1 publishes, paced or not, as the bridge sends.
std::vector<int64_t> RunPair(int iPort, long cMsgs, long cusInterval, double& dSeconds)
{
    Receiver recv;
    mosquitto* pmSub = NewClient("kvbench-sub", &recv, iPort);
    mosquitto* pmPub = NewClient("kvbench-pub", nullptr, iPort);
    if (pmSub == nullptr || pmPub == nullptr)
        return {};
    mosquitto_message_callback_set(pmSub, OnMessage);
    mosquitto_subscribe_callback_set(pmSub, OnSubscribe);
    mosquitto_subscribe(pmSub, nullptr, "bench/base", 1);
    for (int i = 0; i < 500 && !recv.m_bSubscribed; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const int64_t tStart = NowNanos();
    for (long i = 0; i < cMsgs; ++i) {
        if (cusInterval > 0) {
            const int64_t tDue = tStart + i * cusInterval * 1000;
            while (NowNanos() < tDue)
                std::this_thread::sleep_for(std::chrono::nanoseconds(tDue - NowNanos()));
        }
        const std::string str = std::to_string(NowNanos());
        while (mosquitto_publish(pmPub, nullptr, "bench/base", static_cast<int>(str.size()), str.data(), 1, true) ==
               MOSQ_ERR_OVERSIZE_PACKET) {
        }
    }
    for (int i = 0; i < 6000 && recv.m_cReceived < cMsgs; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    for (mosquitto* pm : {pmPub, pmSub}) {
        mosquitto_disconnect(pm);
        mosquitto_loop_stop(pm, false);
        mosquitto_destroy(pm);
    }
    dSeconds = static_cast<double>(recv.m_tLast - tStart) / 1e9;
    std::lock_guard<std::mutex> lock(recv.m_mutex);
    return recv.m_vLatency;
}

Figures BenchPair(int iPort, long cPaced, long cBurst)
{
    Figures fig;
    double dSeconds = 0;
    Percentiles(RunPair(iPort, cPaced, 2000, dSeconds), fig);
    const std::vector<int64_t> v = RunPair(iPort, cBurst, 0, dSeconds);
    fig.m_cBurst = v.size();
    if (dSeconds > 0)
        fig.m_dRate = static_cast<double>(v.size()) / dSeconds;
    return fig;
}

void PrintRow(const char* pszName, const Figures& fig, long cPaced, long cBurst)
{
    printf("| %s | %.0f | %.0f | %.0f | %zu/%ld, %zu/%ld |\n", pszName, fig.m_dP50Us, fig.m_dP99Us, fig.m_dRate,
           fig.m_cLatency, cPaced, fig.m_cBurst, cBurst);
}

}  // namespace

int main(int argc, char** argv)
{
    const bool bShort = argc > 1 && strcmp(argv[1], "--short") == 0;
    const long cPaced = bShort ? 100 : 2000, cBurst = bShort ? 500 : 20000;
    mosquitto_lib_init();
    const std::string strConf = TempFile("conf");
    int iPort = 0;
    std::unique_ptr<Child> pBroker;
    for (int i = 0; i < 5 && pBroker == nullptr; ++i) {
        iPort = KvFreePort();
        std::ofstream(strConf) << "listener " << iPort
                               << " 127.0.0.1\nallow_anonymous true\npersistence false\nmax_queued_messages 0\n";
        pBroker = std::make_unique<Child>(std::vector<std::string>{KV_MOSQUITTO, "-c", strConf}, "", "broker");
        if (!pBroker->WaitFor(" running", true, 5000))
            pBroker.reset();
    }
    if (pBroker == nullptr) {
        fprintf(stderr, "bench_bridge: mosquitto did not start\n");
        return 1;
    }
    const Figures figBridge = BenchBridge(KVRS_EXE, KV_BRIDGE_PEER, iPort, cPaced, cBurst);
    const Figures figPair = BenchPair(iPort, cPaced, cBurst);
    pBroker.reset();
    unlink(strConf.c_str());
    mosquitto_lib_cleanup();

    printf("Bridge: %ld changes one every 2 ms (latency), then %ld at once (rate); QoS 1, retained.\n\n", cPaced,
           cBurst);
    printf("| path | p50 us | p99 us | changes/s | received |\n|---|---|---|---|---|\n");
    PrintRow("tree A -> kvrs bridge -> mosquitto -> kvrs bridge -> tree B", figBridge, cPaced, cBurst);
    PrintRow("libmosquitto publisher -> mosquitto -> libmosquitto subscriber", figPair, cPaced, cBurst);
    const bool bOk = figBridge.m_cLatency == static_cast<size_t>(cPaced) &&
                     figBridge.m_cBurst == static_cast<size_t>(cBurst);
    if (!bOk)
        fprintf(stderr, "bench_bridge: FAILED: messages were lost through the bridges\n");
    return bOk ? 0 : 1;
}
