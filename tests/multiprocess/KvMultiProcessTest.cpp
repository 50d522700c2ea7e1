// Several processes on one tree: notification across processes, handles passed
// as numbers, the global mutex between processes (blocking, a holder killed),
// the clean-up of an exiting process, fork, and the end of a namespace.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "KvApiTestUtil.h"
#include "KvRfrSvr.h"
#include "common/KvTestSupport.h"
#include "deaths/KvCheckRun.h"

namespace {
// Every test ends with the consistency check of the segment (the built kvrs, in
// this test's namespace).
class KvMultiProcess : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_TRUE(KvTreeIsConsistent()); }
};

void* KvTarget(uintptr_t u)
{
    return reinterpret_cast<void*>(u);
}

// Polls cond every millisecond for up to cMs.
template <class Cond>
bool KvWaitFor(Cond cond, int cMs = 10000)
{
    for (int i = 0; i < cMs; ++i) {
        if (cond())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return cond();
}

bool KvExists(const char* pszPath)
{
    return !KvRsGetNode(pszPath).IsNull();
}

KvRsNodeProxy KvRoot()
{
    return KvRsCreateNode("", nullptr, 0);
}
}  // namespace

// --- the typical notification ---------------------------------------------

// Client: connects to "data.x", says so, and waits for one message.
KV_CHILD_SCENARIO(Client)
{
    (void)args;
    KvKeepTreeAlive();
    KvRsNodeProxy n = KvRsCreateNode("data.x", nullptr, 0);
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
    const pid_t pid = KvTestSpawn("Client");
    ASSERT_TRUE(KvWaitFor([] { return KvExists("sync.client_ready"); }));
    KvRsNodeProxy n = KvRsGetNode("data.x");
    EXPECT_EQ(1, KvRsGetClientCount(n.GetHandle(), n.GetId()));
    KvRsValueProxy v = KvRsCreateValue();
    unsigned char ab[4] = {1, 2, 3, 4};
    KvRsSetValueBytes(v.GetHandle(), v.GetId(), ab, 4);
    KvRsSetNodeValue(n.GetHandle(), n.GetId(), v.GetHandle(), v.GetId());
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 7, v.GetHandle(), v.GetId(), false);
    EXPECT_EQ(0, KvRsGetMsgCount());  // the client's queue, not ours
    EXPECT_EQ(0, KvTestWait(pid));
    EXPECT_EQ(0, KvRsGetClientCount(n.GetHandle(), n.GetId()));  // its exit removed the connection
}

// --- handles as numbers, the root made once ----------------------------------

KV_CHILD_SCENARIO(NameByHandle)
{
    KvKeepTreeAlive();
    void* h = reinterpret_cast<void*>(std::stoull(args.at(0)));
    const unsigned long id = std::stoul(args.at(1));
    char sz[16] = {};
    if (KvRsGetNodeNameLength(h, id) != 5)
        return 2;
    KvRsGetNodeName(h, id, sz);
    if (std::string(sz) != "named" || KvRsGetNodeType(h, id) != 0x12340000)
        return 3;
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    return std::to_string(reinterpret_cast<uintptr_t>(root.GetHandle())) == args.at(2) ? 0 : 4;
}

TEST_F(KvMultiProcess, AHandlePassedAsANumberNamesTheSameNodeElsewhere)
{
    KvRsNodeProxy n = KvRsCreateNode("num.named", nullptr, 0);
    KvRsSetNodeType(n.GetHandle(), n.GetId(), 0x12340000);
    EXPECT_EQ(0, KvTestWait(KvTestSpawn("NameByHandle", {std::to_string(reinterpret_cast<uintptr_t>(n.GetHandle())),
                                                        std::to_string(n.GetId()),
                                                        std::to_string(reinterpret_cast<uintptr_t>(KvRoot().GetHandle()))})));
}

// --- the global mutex between processes ---------------------------------------

TEST_F(KvMultiProcess, ACallBlocksWhileAnotherProcessHoldsTheMutex)
{
    KvRsRequestMutex();
    const pid_t pid = KvTestSpawn("OneCall");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    int status = 0;
    EXPECT_EQ(0, waitpid(pid, &status, WNOHANG));  // still waiting for us
    KvRsReleaseMutex();
    EXPECT_EQ(0, KvTestWait(pid, 10));
}

KV_CHILD_SCENARIO(HoldMutexForever)
{
    (void)args;
    KvRsRequestMutex();
    KvRsCreateNode("sync.holding", nullptr, 0);  // made while holding: seen only after the kill
    for (;;)
        pause();
}

TEST_F(KvMultiProcess, SigkillOfTheMutexHolderLeavesTheMutexAcquirable)
{
    const pid_t pid = KvTestSpawn("HoldMutexForever");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    kill(pid, SIGKILL);
    EXPECT_EQ(128 + SIGKILL, KvTestWait(pid));
    EXPECT_TRUE(KvMutexFreeForOthers());
    EXPECT_TRUE(KvExists("sync.holding"));
}

// --- clean-up of an exiting process --------------------------------------------

// Connects as clients with handles 1 and 3 and as server, then exits.
KV_CHILD_SCENARIO(ConnectAndExit)
{
    (void)args;
    KvKeepTreeAlive();
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
    KvRsNodeProxy n = KvRsCreateNode("clean.n", nullptr, 0);
    KvRsNodeProxy s = KvRsCreateNode("clean.s", nullptr, 0);
    KvRsConnectClient(n.GetHandle(), n.GetId(), KvTarget(2), 2);  // between the child's 1 and 3
    const long cRootClients = KvRsGetClientCount(KvRoot().GetHandle(), KvRoot().GetId());
    ASSERT_EQ(0, KvTestWait(KvTestSpawn("ConnectAndExit")));

    // The run of the child's entries after key (0, child) is removed up to our
    // entry; its client with handle 3, behind ours, stays. Its server and its
    // structural-change connection are gone.
    KVRSCONNECTINFO aInfo[4];
    ASSERT_EQ(2, KvRsGetClientCount(n.GetHandle(), n.GetId()));
    KvRsEnumClients(n.GetHandle(), n.GetId(), aInfo, 4);
    EXPECT_EQ(KvTarget(2), aInfo[0].pvTarget);
    EXPECT_EQ(KvTarget(3), aInfo[1].pvTarget);
    EXPECT_NE(KvRsGetQueueProcessId(aInfo[0].proxyQueue.GetHandle(), aInfo[0].proxyQueue.GetId()),
              KvRsGetQueueProcessId(aInfo[1].proxyQueue.GetHandle(), aInfo[1].proxyQueue.GetId()));
    KVRSCONNECTINFO server;
    KvRsGetServer(s.GetHandle(), s.GetId(), &server);
    EXPECT_TRUE(server.proxyQueue.IsNull());
    EXPECT_EQ(cRootClients, KvRsGetClientCount(KvRoot().GetHandle(), KvRoot().GetId()));
    KvRsDisconnectClient(n.GetHandle(), n.GetId(), KvTarget(2), 2);
}

// --- fork ---------------------------------------------------------------------

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

// --- the end of a namespace, and exits whatever the tree's state --------------

KV_CHILD_SCENARIO(BuildTree)
{
    (void)args;
    KvRsNodeProxy n = KvRsCreateNode("left.behind", nullptr, 0);
    KvRsConnectClient(n.GetHandle(), n.GetId(), KvTarget(1), 1);
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 1, nullptr, 0, false);
    return 0;
}

KV_CHILD_SCENARIO(ExpectEmptyTree)
{
    (void)args;
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    return !root.IsNull() && KvRsGetChildNodeCount(root.GetHandle(), root.GetId()) == 0 ? 0 : 1;
}

// Wrecks the tree: drops references that are not its own until the root dies.
KV_CHILD_SCENARIO(WreckTreeAndExit)
{
    (void)args;
    KvRsNodeProxy n = KvRsCreateNode("wreck.a.b", nullptr, 0);
    KvRsConnectClient(n.GetHandle(), n.GetId(), KvTarget(1), 1);
    KvRsConnectServer(n.GetHandle(), n.GetId(), KvTarget(1), 1);
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    void* const h = root.GetHandle();
    const unsigned long id = root.GetId();
    for (int i = 0; i < 4; ++i)
        KvRsRmvRef(h, id);
    return 0;
}

TEST_F(KvMultiProcess, TheLastProcessOfANamespaceLeavesNothingAndExitNeverCrashes)
{
    // Children in a namespace of their own, where this process is not attached.
    KvTestUseFreshNamespace();
    EXPECT_EQ(0, KvTestWait(KvTestSpawn("BuildTree")));
    EXPECT_TRUE(KvTestNamespaceObjects().empty());
    EXPECT_EQ(0, KvTestWait(KvTestSpawn("ExpectEmptyTree")));
#ifndef KV_SANITIZED  // the sanitizers stop at the wrecked tree's first bad read, before it faults
    EXPECT_EQ(0, KvTestWait(KvTestSpawn("WreckTreeAndExit")));
    EXPECT_TRUE(KvTestNamespaceObjects().empty());
    EXPECT_EQ(0, KvTestWait(KvTestSpawn("ExpectEmptyTree")));
#endif
}
