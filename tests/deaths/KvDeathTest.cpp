// Processes that die by SIGKILL while they use the tree.
//
// Workers loop on exported calls on a shared set of nodes. Killed at random
// moments (often inside a call, holding the global mutex or OGRAN.MTX), they must
// never stop the others: the next process gets each mutex, and the check still
// runs to its end. Killed only while they sleep between calls, they must leave a
// tree that passes the check, with their queues (still named by their
// connections) listed as queues of ended processes.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "KvApiTestUtil.h"
#include "KvCheckRun.h"
#include "KvRfrSvr.h"
#include "common/KvTestSupport.h"

namespace {

const int KV_SHARED_NODES = 8;

void* Target(unsigned u)
{
    return reinterpret_cast<void*>(static_cast<uintptr_t>(0x1000 + u));
}

KvRsNodeProxy Shared(unsigned i)
{
    return KvRsGetNode(("shared.s" + std::to_string(i % KV_SHARED_NODES)).c_str());
}

void MakeSharedNodes()
{
    for (int i = 0; i < KV_SHARED_NODES; ++i)
        KvRsCreateNode(("shared.s" + std::to_string(i)).c_str(), nullptr, 0);
}

// One worker's random calls on its own subtree and on the shared nodes.
class Worker {
public:
    Worker(const std::string& strName, unsigned uSeed) : m_rng(uSeed)
    {
        m_own = KvRsCreateNode(("w." + strName).c_str(), nullptr, 0);
        m_value = KvRsCreateValue();
        unsigned char ab[16] = {1, 2, 3};
        KvRsSetValueBytes(m_value.GetHandle(), m_value.GetId(), ab, sizeof(ab));
    }

    // A call that uses the pools only: KvRsCreateMsg runs without the global
    // mutex, so a kill inside it can hold only OGRAN.MTX. Without node and value
    // it touches no count that other processes share (with them, its caller
    // must hold the global mutex).
    void PoolOp()
    {
        KvRsMsgProxy m = KvRsCreateMsg(7, KvRsValueProxy(), KvRsNodeProxy(), Target(9), 9);
    }

    void Op()
    {
        const unsigned r = m_rng() % 9;
        const std::string strName = "n" + std::to_string(m_rng() % 40);
        KvRsNodeProxy s = Shared(m_rng());
        switch (r) {
        case 0: SetValue(KvRsCreateNode(strName.c_str(), m_own.GetHandle(), m_own.GetId())); break;
        case 1:
            // Rarely: a removed child stays allocated (its entry keeps it), by design.
            if (m_rng() % 16 == 0)
                KvRsRemoveChildNode(m_own.GetHandle(), m_own.GetId(), strName.c_str());
            break;
        case 2: KvRsConnectClient(s.GetHandle(), s.GetId(), Target(m_rng() % 2), 1); break;
        case 3: KvRsDisconnectClient(s.GetHandle(), s.GetId(), Target(m_rng() % 2), 1); break;
        case 4:
            // Rarely: a killed client's connections stay, and every notification
            // adds to its queue, which nobody empties any more.
            if (m_rng() % 64 == 0)
                KvRsNotifyNodeClients(s.GetHandle(), s.GetId(), (1 + m_rng() % 100) | (m_rng() % 4 == 0 ? 0x10000 : 0),
                                  m_value.GetHandle(), m_value.GetId(), false);
            break;
        case 5:
            for (int i = 0; i < 100 && KvRsGetMsgCount() > 0; ++i)
                KvRsGetMsg();
            break;
        case 6: PoolOp(); break;
        case 7:
            KvRsConnectServer(s.GetHandle(), s.GetId(), Target(5), 5);
            KvRsNotifyNodeServer(s.GetHandle(), s.GetId(), 3, nullptr, 0);
            KvRsDisconnectServer(s.GetHandle(), s.GetId());
            break;
        default: SetValue(s); break;
        }
    }

    std::mt19937& Rng() { return m_rng; }

private:
    // Fresh bytes of a random size, so that values move between pools.
    void SetValue(const KvRsNodeProxy& n)
    {
        KvRsValueProxy v = KvRsCreateValue();
        std::vector<unsigned char> ab(1 + m_rng() % 600, static_cast<unsigned char>(m_rng()));
        KvRsSetValueBytes(v.GetHandle(), v.GetId(), ab.data(), static_cast<long>(ab.size()));
        KvRsSetNodeValue(n.GetHandle(), n.GetId(), v.GetHandle(), v.GetId());
    }

    std::mt19937 m_rng;
    KvRsNodeProxy m_own;
    KvRsValueProxy m_value;
};

// Loops until killed. Mode "tree": batches of calls, every other one under the
// global mutex held across the batch (so most kills land while it is held);
// mode "pools": calls that take only OGRAN.MTX.
KV_CHILD_SCENARIO(Churn)
{
    Worker w(args.at(0), static_cast<unsigned>(std::stoul(args.at(1))));
    const bool bPools = args.at(2) == "pools";
    for (;;) {
        if (bPools) {
            w.PoolOp();
            continue;
        }
        const bool bHold = w.Rng()() % 2 == 0;
        if (bHold)
            KvRsRequestMutex();
        for (unsigned i = 1 + w.Rng()() % 20; i > 0; --i)
            w.Op();
        if (bHold)
            KvRsReleaseMutex();
    }
}

// One batch of calls, then a marker node (the last call), then sleep until
// killed: the kill always lands between calls.
KV_CHILD_SCENARIO(BatchThenSleep)
{
    Worker w(args.at(0), static_cast<unsigned>(std::stoul(args.at(1))));
    for (unsigned i = 5 + w.Rng()() % 40; i > 0; --i)
        w.Op();
    KvRsCreateNode(("sync." + args.at(0)).c_str(), nullptr, 0);
    for (;;)
        pause();
}

// A client of shared.s0 in its default queue and nothing else; sleeps when done.
KV_CHILD_SCENARIO(ClientThenSleep)
{
    KvRsNodeProxy s = Shared(0);
    KvRsConnectClient(s.GetHandle(), s.GetId(), Target(77), 77);
    KvRsCreateNode(("sync." + args.at(0)).c_str(), nullptr, 0);
    for (;;)
        pause();
}

bool WaitForNode(const std::string& strPath, int cMs = 10000)
{
    for (int i = 0; i < cMs; i += 2) {
        if (!KvRsGetNode(strPath.c_str()).IsNull())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

// SIGKILL, then a bounded wait for the end; the status it ended with (a worker
// may have ended by itself before, when earlier kills wrecked the segment).
int Kill(pid_t pid)
{
    kill(pid, SIGKILL);
    const int iStatus = KvTestWait(pid, 10);
    EXPECT_NE(-1, iStatus) << "worker " << pid << " did not end";
    return iStatus;
}

}  // namespace

TEST(KvDeaths, KillsInsideCallsNeverStopTheOthers)
{
    MakeSharedNodes();
    std::mt19937 rng(static_cast<unsigned>(getpid()));
    const char* const apszMode[] = {"pools", "tree", "tree"};
    std::vector<pid_t> vPids;
    int cSpawned = 0;
    auto spawn = [&](int i) {
        return KvTestSpawn("Churn", {"in" + std::to_string(cSpawned++), std::to_string(rng()), apszMode[i]});
    };
    for (int i = 0; i < 3; ++i)
        vPids.push_back(spawn(i));

    int cKills = 0, cEndedByThemselves = 0;
    const auto tEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(2000);
    while (std::chrono::steady_clock::now() < tEnd) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5 + rng() % 60));
        const int i = static_cast<int>(rng() % vPids.size());
        cEndedByThemselves += Kill(vPids[i]) != 128 + SIGKILL ? 1 : 0;
        ++cKills;
        // The mutex the victim may have held passes on: another process calls in
        // within the watchdog's bound.
        ASSERT_TRUE(KvMutexFreeForOthers(10)) << "after kill " << cKills;
        vPids[i] = spawn(i);
    }
    for (pid_t pid : vPids)
        Kill(pid);

    // The check walks whatever the kills left and ends, consistent or not,
    // without faulting or hanging. (A kill inside a call can wreck the segment
    // for good; this process's own calls then fail, but never block.)
    KvRsCreateNode("after.kills", nullptr, 0);
    const KvKvrsRun run = KvRunKvrs({"check"});
    EXPECT_TRUE(run.iStatus == 0 || run.iStatus == 1) << run.strOut;
    const bool bConsistent = run.strOut.find("consistent\n") != std::string::npos;
    EXPECT_TRUE(bConsistent || run.strOut.find("problem: ") != std::string::npos) << run.strOut;
    RecordProperty("kills", cKills);
    RecordProperty("endedByThemselves", cEndedByThemselves);
    RecordProperty("consistent", bConsistent ? 1 : 0);
    printf("%d kills, %d workers had ended by themselves; kvrs check:\n%s", cKills, cEndedByThemselves,
           run.strOut.c_str());
}

TEST(KvDeaths, KillsBetweenCallsLeaveAConsistentTree)
{
    MakeSharedNodes();
    std::mt19937 rng(static_cast<unsigned>(getpid()));
    int cWorker = 0;
    for (int iRound = 0; iRound < 3; ++iRound) {
        std::vector<pid_t> vPids;
        std::vector<std::string> vNames;
        for (int i = 0; i < 4; ++i) {
            vNames.push_back("b" + std::to_string(cWorker++));
            vPids.push_back(KvTestSpawn("BatchThenSleep", {vNames.back(), std::to_string(rng()), ""}));
        }
        for (size_t i = 0; i < vPids.size(); ++i) {
            ASSERT_TRUE(WaitForNode("sync." + vNames[i])) << vNames[i];
            Kill(vPids[i]);
        }
    }
    // A client that dies with its connection in place: what is sent to it waits
    // in its queue, which outlives it.
    const pid_t pidClient = KvTestSpawn("ClientThenSleep", {"client"});
    ASSERT_TRUE(WaitForNode("sync.client"));
    Kill(pidClient);
    KvRsNodeProxy s0 = Shared(0);
    for (int i = 0; i < 3; ++i)
        KvRsNotifyNodeClients(s0.GetHandle(), s0.GetId(), 40 + i, nullptr, 0, false);

    EXPECT_TRUE(KvTreeIsConsistent());
    const KvKvrsRun stats = KvRunKvrs({"stats"});
    EXPECT_EQ(0, stats.iStatus) << stats.strOut;
    const std::string strLine = "of process " + std::to_string(pidClient) + ": 3 messages waiting";
    EXPECT_NE(std::string::npos, stats.strOut.find(strLine)) << stats.strOut;
    EXPECT_EQ(std::string::npos, stats.strOut.find("consistency problems")) << stats.strOut;
}
