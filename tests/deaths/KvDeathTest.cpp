// Processes that die by SIGKILL while they use the tree.
//
// Workers loop on exported calls on a shared set of nodes. Killed at random
// moments (often inside a call, holding the global mutex or OGRAN.MTX), they must
// never stop the others: the next process gets each mutex, and the check still
// runs to its end. Killed only while they sleep between calls, they must leave a
// tree that passes the check; the next start-up reaps them.
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

namespace {

void* Target(unsigned u)
{
    return reinterpret_cast<void*>(static_cast<uintptr_t>(0x1000 + u));
}

KvRsNodeProxy Shared(unsigned i)
{
    return KvRsCreateNode(("shared.s" + std::to_string(i % 8)).c_str(), nullptr, 0);
}

// One random call on the worker's own subtree or on the shared nodes.
void Op(std::mt19937& rng, const KvRsNodeProxy& own, const KvRsValueProxy& value)
{
    const std::string strName = "n" + std::to_string(rng() % 40);
    KvRsNodeProxy s = Shared(rng());
    KvRsNodeProxy n = rng() % 2 ? s : KvRsCreateNode(strName.c_str(), own.GetHandle(), own.GetId());
    switch (rng() % 8) {
    case 0:
        // Rarely: a removed child stays allocated (its entry keeps it), by design.
        if (rng() % 16 == 0)
            KvRsRemoveChildNode(own.GetHandle(), own.GetId(), strName.c_str());
        break;
    case 1: KvRsConnectClient(s.GetHandle(), s.GetId(), Target(rng() % 2), 1); break;
    case 2: KvRsDisconnectClient(s.GetHandle(), s.GetId(), Target(rng() % 2), 1); break;
    case 3:
        // Rarely: a killed client's connections stay, and every notification
        // adds to its queue, which nobody empties any more.
        if (rng() % 64 == 0)
            KvRsNotifyNodeClients(s.GetHandle(), s.GetId(), (1 + rng() % 100) | (rng() % 4 == 0 ? 0x10000 : 0),
                                  value.GetHandle(), value.GetId(), false);
        break;
    case 4:
        for (int i = 0; i < 100 && KvRsGetMsgCount() > 0; ++i)
            KvRsGetMsg();
        break;
    case 5:
        KvRsConnectServer(s.GetHandle(), s.GetId(), Target(5), 5);
        KvRsNotifyNodeServer(s.GetHandle(), s.GetId(), 3, nullptr, 0);
        KvRsDisconnectServer(s.GetHandle(), s.GetId());
        break;
    default: {
        // Fresh bytes of a random size, so that values move between pools.
        KvRsValueProxy v = KvRsCreateValue();
        std::vector<unsigned char> ab(1 + rng() % 600, static_cast<unsigned char>(rng()));
        KvRsSetValueBytes(v.GetHandle(), v.GetId(), ab.data(), static_cast<long>(ab.size()));
        KvRsSetNodeValue(n.GetHandle(), n.GetId(), v.GetHandle(), v.GetId());
    }
    }
}

// Loops until killed. Mode "tree": batches of calls, every other one under the
// global mutex held across the batch (so most kills land while it is held).
// Mode "pools": KvRsCreateMsg without node and value runs without the global
// mutex, so a kill inside it can hold only OGRAN.MTX. Mode "sleep": one batch,
// then a marker node (the last call), then sleep: the kill lands between calls.
// Mode "client": the same with a client connection instead of the batch.
KV_CHILD_SCENARIO(Churn)
{
    std::mt19937 rng(static_cast<unsigned>(std::stoul(args.at(1))));
    KvRsNodeProxy own = KvRsCreateNode(("w." + args.at(0)).c_str(), nullptr, 0);
    KvRsValueProxy value = KvRsCreateValue();
    unsigned char ab[16] = {1, 2, 3};
    KvRsSetValueBytes(value.GetHandle(), value.GetId(), ab, sizeof(ab));
    if (args.at(2) == "sleep" || args.at(2) == "client") {
        KvRsNodeProxy s0 = Shared(0);
        if (args.at(2) == "client")  // connected, with its default queue
            KvRsConnectClient(s0.GetHandle(), s0.GetId(), Target(77), 77);
        for (unsigned i = args.at(2) == "sleep" ? 5 + rng() % 40 : 0; i > 0; --i)
            Op(rng, own, value);
        KvRsCreateNode(("sync." + args.at(0)).c_str(), nullptr, 0);
        for (;;)
            pause();
    }
    for (const bool bPools = args.at(2) == "pools";;) {
        if (bPools) {
            KvRsCreateMsg(7, KvRsValueProxy(), KvRsNodeProxy(), Target(9), 9);
            continue;
        }
        const bool bHold = rng() % 2 == 0;
        if (bHold)
            KvRsRequestMutex();
        for (unsigned i = 1 + rng() % 20; i > 0; --i)
            Op(rng, own, value);
        if (bHold)
            KvRsReleaseMutex();
    }
}

bool WaitForNode(const std::string& strPath)
{
    for (int i = 0; i < 5000; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(2)))
        if (!KvRsGetNode(strPath.c_str()).IsNull())
            return true;
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
    std::mt19937 rng(static_cast<unsigned>(getpid()));
    const char* const apszMode[] = {"pools", "tree", "tree"};
    std::vector<pid_t> vPids;
    int cSpawned = 0, cKills = 0, cEndedByThemselves = 0;
    auto spawn = [&](int i) {
        return KvTestSpawn("Churn", {"in" + std::to_string(cSpawned++), std::to_string(rng()), apszMode[i]});
    };
    for (int i = 0; i < 3; ++i)
        vPids.push_back(spawn(i));
    for (const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(3);
         std::chrono::steady_clock::now() < tEnd; ++cKills) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2 + rng() % 25));
        const int i = static_cast<int>(rng() % vPids.size());
        cEndedByThemselves += Kill(vPids[i]) != 128 + SIGKILL ? 1 : 0;
        // The mutex the victim may have held passes on: another process calls in
        // within the watchdog's bound.
        ASSERT_TRUE(KvMutexFreeForOthers(10)) << "after kill " << cKills;
        vPids[i] = spawn(i);
    }
    for (pid_t pid : vPids)
        Kill(pid);

    // Whatever call a kill interrupted was undone (or, in its last frees,
    // finished) by the next process to take the mutex: the tree is consistent.
    KvRsCreateNode("after.kills", nullptr, 0);
    const KvKvrsRun run = KvRunKvrs({"check"});
    EXPECT_EQ(0, run.iStatus) << run.strOut;
    EXPECT_NE(std::string::npos, run.strOut.find("consistent\n")) << run.strOut;
    printf("%d kills, %d workers had ended by themselves; kvrs check:\n%s", cKills, cEndedByThemselves,
           run.strOut.c_str());
}

TEST(KvDeaths, KillsBetweenCallsLeaveAConsistentTree)
{
    std::mt19937 rng(static_cast<unsigned>(getpid()));
    for (int iWorker = 0; iWorker < 12; iWorker += 4) {  // rounds of four at a time
        std::vector<pid_t> vPids;
        for (int i = iWorker; i < iWorker + 4; ++i)
            vPids.push_back(KvTestSpawn("Churn", {"b" + std::to_string(i), std::to_string(rng()), "sleep"}));
        for (int i = 0; i < 4; ++i) {
            ASSERT_TRUE(WaitForNode("sync.b" + std::to_string(iWorker + i)));
            Kill(vPids[static_cast<size_t>(i)]);
        }
    }
    EXPECT_TRUE(KvTreeIsConsistent());
    // The check's own start-up reaped the killed workers: no queue of theirs is left.
    const KvKvrsRun stats = KvRunKvrs({"stats"});
    EXPECT_EQ(0, stats.iStatus) << stats.strOut;
    EXPECT_NE(std::string::npos, stats.strOut.find("queues of ended processes: none")) << stats.strOut;
    EXPECT_EQ(std::string::npos, stats.strOut.find("consistency problems")) << stats.strOut;
}
