// Several processes on one tree: notification across processes, handles passed
// as numbers, the global mutex between processes (blocking, a holder killed),
// the clean-up of an exiting process, fork, and the end of a namespace.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "KvApiTestUtil.h"
#include "KvRfrSvr.h"
#include "deaths/KvCheckRun.h"

namespace {
// Every test ends with the consistency check of the segment.
class KvMultiProcess : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_TRUE(KvTreeIsConsistent()); }
};

void* KvTarget(uintptr_t u)
{
    return reinterpret_cast<void*>(u);
}

// Polls cond every millisecond for up to 10 s.
template <class Cond>
bool KvWaitFor(Cond cond)
{
    for (int i = 0; i < 10000 && !cond(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return cond();
}

std::string KvNumber(const void* pv)
{
    return std::to_string(reinterpret_cast<uintptr_t>(pv));
}
}  // namespace

// Connects to "data.x" and waits for one message; checks it, and that the node
// named by a handle passed as a number is the same node here.
KV_CHILD_SCENARIO(Client)
{
    KvRsNodeProxy n = KvRsCreateNode("data.x", nullptr, 0);
    if (KvNumber(n.GetHandle()) != args.at(0) || KvNumber(KvRsCreateNode("", nullptr, 0).GetHandle()) != args.at(1))
        return 1;
    KvRsConnectClient(n.GetHandle(), n.GetId(), KvTarget(0x77), 42);
    KvRsCreateNode("sync.client_ready", nullptr, 0);
    if (!KvWaitFor([] { return KvRsGetMsgCount() > 0; }))
        return 2;
    KvRsMsgProxy m = KvRsGetMsg();
    void* h = nullptr;
    unsigned long id = 0;
    KvRsGetMsgTarget(m.GetHandle(), m.GetId(), h, id);
    KvRsValueProxy v = KvRsGetMsgValue(m.GetHandle(), m.GetId());
    unsigned char ab[4] = {};
    if (KvRsGetValueByteCount(v.GetHandle(), v.GetId()) != 4)
        return 3;
    KvRsGetValueBytes(v.GetHandle(), v.GetId(), ab);
    const bool fOk = KvRsGetMsgType(m.GetHandle(), m.GetId()) == 7 && h == KvTarget(0x77) && id == 42 &&
                     KvRsGetMsgChangedNode(m.GetHandle(), m.GetId()).GetHandle() == n.GetHandle() && ab[3] == 4;
    return fOk ? 0 : 4;
}

TEST_F(KvMultiProcess, NotificationReachesAClientInAnotherProcess)
{
    KvRsNodeProxy n = KvRsCreateNode("data.x", nullptr, 0);
    const pid_t pid =
        KvTestSpawn("Client", {KvNumber(n.GetHandle()), KvNumber(KvRsCreateNode("", nullptr, 0).GetHandle())});
    ASSERT_TRUE(KvWaitFor([] { return !KvRsGetNode("sync.client_ready").IsNull(); }));
    EXPECT_EQ(1, KvRsGetClientCount(n.GetHandle(), n.GetId()));
    KvRsValueProxy v = KvRsCreateValue();
    unsigned char ab[4] = {1, 2, 3, 4};
    KvRsSetValueBytes(v.GetHandle(), v.GetId(), ab, 4);
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 7, v.GetHandle(), v.GetId(), false);
    EXPECT_EQ(0, KvRsGetMsgCount());  // the client's queue, not ours
    EXPECT_EQ(0, KvTestWait(pid));
    EXPECT_EQ(0, KvRsGetClientCount(n.GetHandle(), n.GetId()));  // its exit removed the connection
}

KV_CHILD_SCENARIO(HoldMutexForever)
{
    (void)args;
    KvRsRequestMutex();
    KvRsCreateNode("sync.holding", nullptr, 0);  // made while holding: seen only after the kill
    for (;;)
        pause();
}

TEST_F(KvMultiProcess, ACallBlocksWhileAnotherProcessHoldsTheMutexAndAKilledHolderReleasesIt)
{
    KvRsRequestMutex();
    const pid_t pid = KvTestSpawn("OneCall");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(0, waitpid(pid, nullptr, WNOHANG));  // still waiting for us
    KvRsReleaseMutex();
    EXPECT_EQ(0, KvTestWait(pid, 10));

    const pid_t pidHolder = KvTestSpawn("HoldMutexForever");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    kill(pidHolder, SIGKILL);
    EXPECT_EQ(128 + SIGKILL, KvTestWait(pidHolder));
    EXPECT_TRUE(KvMutexFreeForOthers());
    EXPECT_FALSE(KvRsGetNode("sync.holding").IsNull());
}

// Connects as clients with handles 1 and 3, as server and for all structural changes, then exits.
KV_CHILD_SCENARIO(ConnectAndExit)
{
    (void)args;
    KvRsNodeProxy n = KvRsCreateNode("clean.n", nullptr, 0);
    KvRsNodeProxy s = KvRsCreateNode("clean.s", nullptr, 0);
    KvRsConnectClient(n.GetHandle(), n.GetId(), KvTarget(1), 1);
    KvRsConnectClient(n.GetHandle(), n.GetId(), KvTarget(3), 3);
    KvRsConnectServer(s.GetHandle(), s.GetId(), KvTarget(5), 5);
    KvRsConnectForAllStructuralChanges(KvTarget(6), 6);
    return 0;
}

TEST_F(KvMultiProcess, ExitRemovesTheProcessesConnectionsUpToAnotherProcessesEntry)
{
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    KvRsNodeProxy n = KvRsCreateNode("clean.n", nullptr, 0);
    KvRsNodeProxy s = KvRsCreateNode("clean.s", nullptr, 0);
    KvRsConnectClient(n.GetHandle(), n.GetId(), KvTarget(2), 2);  // between the child's 1 and 3
    const long cRootClients = KvRsGetClientCount(root.GetHandle(), root.GetId());
    ASSERT_EQ(0, KvTestWait(KvTestSpawn("ConnectAndExit")));
    // The run of the child's entries after key (0, child) is removed up to our
    // entry; its client with handle 3, behind ours, stays. Its server and its
    // structural-change connection are gone.
    KVRSCONNECTINFO aInfo[2];
    ASSERT_EQ(2, KvRsGetClientCount(n.GetHandle(), n.GetId()));
    KvRsEnumClients(n.GetHandle(), n.GetId(), aInfo, 2);
    EXPECT_EQ(KvTarget(2), aInfo[0].pvTarget);
    EXPECT_EQ(KvTarget(3), aInfo[1].pvTarget);
    KVRSCONNECTINFO server;
    KvRsGetServer(s.GetHandle(), s.GetId(), &server);
    EXPECT_TRUE(server.proxyQueue.IsNull());
    EXPECT_EQ(cRootClients, KvRsGetClientCount(root.GetHandle(), root.GetId()));
    KvRsDisconnectClient(n.GetHandle(), n.GetId(), KvTarget(2), 2);
}

TEST_F(KvMultiProcess, AForkChildIsAProcessOfItsOwn)
{
    KvRsNodeProxy n = KvRsCreateNode("fork.n", nullptr, 0);
    const pid_t pid = fork();
    if (pid == 0) {
        // The child: its own default queue, its connection, its clean-up (and,
        // as every process, its own root reference for its exit to release).
        KvKeepTreeAlive();
        KvRsConnectClient(n.GetHandle(), n.GetId(), KvTarget(9), 9);
        const bool fGot = KvWaitFor([] { return KvRsGetMsgCount() == 1; });
        KvRsMsgProxy m = KvRsGetMsg();
        const bool fOwnQueue = KvRsGetMsgCount() == 0;
        m = KvRsMsgProxy();  // ours; n's reference is the parent's, and exit() leaves it alone
        exit(fGot && fOwnQueue ? 0 : 1);
    }
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(KvWaitFor([&] { return KvRsGetClientCount(n.GetHandle(), n.GetId()) == 1; }));
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 1, nullptr, 0, false);
    EXPECT_EQ(0, KvRsGetMsgCount());
    EXPECT_EQ(0, KvTestWait(pid));
    EXPECT_EQ(0, KvRsGetClientCount(n.GetHandle(), n.GetId()));
    // Our default queue survived the child's exit and still receives.
    KvRsConnectClient(n.GetHandle(), n.GetId(), KvTarget(8), 8);
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 1, nullptr, 0, false);
    EXPECT_EQ(1, KvRsGetMsgCount());
    KvRsDisconnectClient(n.GetHandle(), n.GetId(), KvTarget(8), 8);
}

// "build": leaves a node, a connection and a message; "wreck": also drops
// references that are not its own until the root dies; "expect-empty": exits 0
// when it finds an empty tree.
KV_CHILD_SCENARIO(NamespaceUser)
{
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    if (args.at(0) == "expect-empty")
        return !root.IsNull() && KvRsGetChildNodeCount(root.GetHandle(), root.GetId()) == 0 ? 0 : 1;
    KvRsNodeProxy n = KvRsCreateNode("left.behind", nullptr, 0);
    KvRsConnectClient(n.GetHandle(), n.GetId(), KvTarget(1), 1);
    KvRsConnectServer(n.GetHandle(), n.GetId(), KvTarget(1), 1);
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 1, nullptr, 0, false);
    for (int i = 0; args.at(0) == "wreck" && i < 4; ++i)
        KvRsRmvRef(root.GetHandle(), root.GetId());
    return 0;
}

TEST_F(KvMultiProcess, TheLastProcessOfANamespaceLeavesNothingAndExitNeverCrashes)
{
    // Children in a namespace of their own, where this process is not attached.
    KvTestUseFreshNamespace();
    for (const char* pszMode : {"build", "wreck"}) {
#ifdef KV_SANITIZED  // the sanitizers stop at the wrecked tree's first bad read, before it faults
        if (std::string(pszMode) == "wreck")
            continue;
#endif
        EXPECT_EQ(0, KvTestWait(KvTestSpawn("NamespaceUser", {pszMode}))) << pszMode;
        EXPECT_TRUE(KvTestNamespaceObjects().empty()) << pszMode;
        EXPECT_EQ(0, KvTestWait(KvTestSpawn("NamespaceUser", {"expect-empty"}))) << pszMode;
    }
}
