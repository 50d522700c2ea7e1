// Processes killed with their connections in place are reaped: by the next
// start-up, by `kvrs reap`, and by a notifier whose pools run dry. Every test
// ends with the consistency check.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "KvApiTestUtil.h"
#include "KvCheckRun.h"
#include "KvRfrSvr.h"
#include "KvRfrSvrWait.h"

namespace {

void* Target(unsigned u)
{
    return reinterpret_cast<void*>(static_cast<uintptr_t>(0x2000 + u));
}

bool WaitForNode(const std::string& strPath)
{
    for (int i = 0; i < 5000; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(2)))
        if (!KvRsGetNode(strPath.c_str()).IsNull())
            return true;
    return false;
}

long ClientCount(const char* pszPath)
{
    KvRsNodeProxy n = KvRsCreateNode(pszPath, nullptr, 0);
    return KvRsGetClientCount(n.GetHandle(), n.GetId());
}

void Notify(const char* pszPath, unsigned long dwMsg)
{
    KvRsNodeProxy n = KvRsCreateNode(pszPath, nullptr, 0);
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), dwMsg, nullptr, 0, false);
}

// args: path, marker. A client of the node and its server, with a wake pipe,
// then waits to be killed.
KV_CHILD_SCENARIO(Listener)
{
    KvRsGetWaitFd();
    KvRsNodeProxy n = KvRsCreateNode(args.at(0).c_str(), nullptr, 0);
    KvRsConnectClient(n.GetHandle(), n.GetId(), Target(1), 1);
    KvRsConnectClient(n.GetHandle(), n.GetId(), Target(9), 9);  // behind the parent's entry
    KvRsConnectServer(n.GetHandle(), n.GetId(), Target(2), 2);
    KvRsCreateNode(args.at(1).c_str(), nullptr, 0);
    for (;;)
        pause();
}

pid_t StartListener(const char* pszPath, const std::string& strMarker)
{
    const pid_t pid = KvTestSpawn("Listener", {pszPath, strMarker});
    EXPECT_TRUE(WaitForNode(strMarker));
    return pid;
}

void KillAndWait(pid_t pid)
{
    kill(pid, SIGKILL);
    EXPECT_EQ(128 + SIGKILL, KvTestWait(pid, 10));
}

}  // namespace

TEST(KvReap, AKilledClientIsReapedByKvrsReapAndByTheNextStartUp)
{
    KvRsNodeProxy n = KvRsCreateNode("reap.n", nullptr, 0);
    KvRsConnectClient(n.GetHandle(), n.GetId(), Target(5), 5);  // ours, between the child's
    const pid_t pid = StartListener("reap.n", "sync.a");
    KillAndWait(pid);
    for (int i = 0; i < 3; ++i)
        Notify("reap.n", 40 + i);
    ASSERT_EQ(3, ClientCount("reap.n"));
    KvRsGetMsg(), KvRsGetMsg(), KvRsGetMsg();  // our own three

    // kvrs reap reports what its start-up reaped: both client connections and
    // the server, and the six messages waiting for them.
    const KvKvrsRun run = KvRunKvrs({"reap"});
    EXPECT_EQ(0, run.iStatus) << run.strOut;
    EXPECT_NE(std::string::npos,
              run.strOut.find("reaped process " + std::to_string(pid) + ": 3 connections, 6 messages freed"))
        << run.strOut;
    EXPECT_EQ(1, ClientCount("reap.n"));
    KVRSCONNECTINFO server;
    server.pvTarget = Target(77);
    KvRsGetServer(n.GetHandle(), n.GetId(), &server);
    EXPECT_EQ(Target(77), server.pvTarget) << "the server left too";
    EXPECT_EQ("", KvRunKvrs({"reap"}).strOut) << "nothing is reaped twice";

    // Any start-up reaps, whatever the program.
    const pid_t pid2 = StartListener("reap.n", "sync.b");
    KillAndWait(pid2);
    EXPECT_TRUE(KvTreeIsConsistent());  // kvrs check starts up, and reaps first
    EXPECT_EQ(1, ClientCount("reap.n"));
    KvRsDisconnectClient(n.GetHandle(), n.GetId(), Target(5), 5);
}

// The notifier keeps going: when the pools run out, the messages that wait for
// the killed client are dropped, its connections leave at the end of the call,
// and the allocation is tried again.
TEST(KvReap, NotifyingAKilledClientNeverRunsOutOfMemory)
{
#ifdef KV_SANITIZED
    const long cNotifications = 600000;
#else
    const long cNotifications = 2000000;
#endif
    const pid_t pid = StartListener("dry.n", "sync.dry");
    KillAndWait(pid);
    KvRsNodeProxy n = KvRsCreateNode("dry.n", nullptr, 0);
    KvStderrCapture capture;
    for (long i = 0; i < cNotifications; ++i)
        KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 1, nullptr, 0, false);
    const std::string strErr = capture.Stop();
    EXPECT_EQ("", strErr.substr(0, 2000));
    EXPECT_EQ(0, KvRsGetClientCount(n.GetHandle(), n.GetId()));
    EXPECT_TRUE(KvTreeIsConsistent());
}

// A fork child is a process of its own: killed, it is reaped alone, and its
// parent keeps everything.
TEST(KvReap, AKilledForkChildIsReapedOnItsOwn)
{
    KvRsNodeProxy n = KvRsCreateNode("fork.n", nullptr, 0);
    KvRsConnectClient(n.GetHandle(), n.GetId(), Target(5), 5);
    const pid_t pid = fork();
    if (pid == 0) {
        KvKeepTreeAlive();
        KvRsConnectClient(n.GetHandle(), n.GetId(), Target(6), 6);
        KvRsCreateNode("sync.fork", nullptr, 0);
        for (;;)
            pause();
    }
    ASSERT_TRUE(WaitForNode("sync.fork"));
    KillAndWait(pid);
    ASSERT_EQ(2, ClientCount("fork.n"));
    const KvKvrsRun run = KvRunKvrs({"reap"});
    EXPECT_NE(std::string::npos, run.strOut.find("reaped process " + std::to_string(pid) + ": 1 connections"))
        << run.strOut;
    EXPECT_EQ(1, ClientCount("fork.n"));
    Notify("fork.n", 7);
    EXPECT_EQ(1, KvRsGetMsgCount()) << "the parent's queue still receives";
    KvRsGetMsg();
    EXPECT_TRUE(KvTreeIsConsistent());
    KvRsDisconnectClient(n.GetHandle(), n.GetId(), Target(5), 5);
}

// A namespace whose every process was killed leaves its objects in /dev/shm
// only until some process of the same user starts, in whatever namespace.
TEST(KvReap, AKilledNamespaceIsRemovedByTheNextStartUp)
{
    const std::string strOwn = getenv("KVRFRSVR_NAMESPACE");
    KvTestUseFreshNamespace();
    const pid_t pid = KvTestSpawn("Listener", {"gone.n", "sync.gone"});
    for (int i = 0; i < 5000 && KvTestNamespaceObjects().size() < 5; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    ASSERT_GE(KvTestNamespaceObjects().size(), 5u) << "the namespace is in use, a wake pipe among its objects";
    KillAndWait(pid);  // any start-up from here on, of any test running beside, removes it
    const std::string strGone = getenv("KVRFRSVR_NAMESPACE");
    setenv("KVRFRSVR_NAMESPACE", strOwn.c_str(), 1);
    EXPECT_EQ(0, KvRunKvrs({"reap"}).iStatus);
    setenv("KVRFRSVR_NAMESPACE", strGone.c_str(), 1);
    EXPECT_EQ(std::vector<std::string>(), KvTestNamespaceObjects());
    setenv("KVRFRSVR_NAMESPACE", strOwn.c_str(), 1);
}

namespace {
// Starts a Listener that the kernel gives pid dwPid (through ns_last_pid, which
// needs root); -1 when that could not be arranged.
pid_t StartListenerWithPid(pid_t pidWanted, const char* pszPath, const std::string& strMarker)
{
    for (int iTry = 0; iTry < 20; ++iTry) {
        FILE* pf = fopen("/proc/sys/kernel/ns_last_pid", "w");
        if (pf == nullptr)
            return -1;
        fprintf(pf, "%d", pidWanted - 1);
        fclose(pf);
        const pid_t pid = KvTestSpawn("Listener", {pszPath, strMarker});
        if (pid == pidWanted) {
            EXPECT_TRUE(WaitForNode(strMarker));
            return pid;
        }
        KillAndWait(pid);
    }
    return -1;
}
}  // namespace

// A process given a killed one's pid keeps everything of its own: its start-up
// reaps the predecessor first, and no later reap takes the newcomer for it.
TEST(KvReap, APidReusedByANewProcessKeepsTheNewProcesssEntries)
{
    const pid_t pid = StartListener("reuse.n", "sync.reuse.a");
    KillAndWait(pid);
    const pid_t pidNew = StartListenerWithPid(pid, "reuse.n", "sync.reuse.b");
    if (pidNew < 0)
        GTEST_SKIP() << "the kernel's next pid cannot be set here (ns_last_pid needs root)";
    EXPECT_EQ(2, ClientCount("reuse.n")) << "the new process's clients; the predecessor's are gone";
    const KvKvrsRun run = KvRunKvrs({"reap"});
    EXPECT_EQ(std::string::npos, run.strOut.find("reaped process " + std::to_string(pid) + ":")) << run.strOut;
    EXPECT_EQ(2, ClientCount("reuse.n"));
    KillAndWait(pidNew);
    EXPECT_NE(std::string::npos, KvRunKvrs({"reap"}).strOut.find("reaped process " + std::to_string(pid) + ": 3"));
    EXPECT_EQ(0, ClientCount("reuse.n"));
    EXPECT_TRUE(KvTreeIsConsistent());
}
