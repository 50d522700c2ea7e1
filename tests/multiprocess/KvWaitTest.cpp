// Waiting instead of polling: KvRsWaitMsg across processes and threads, with
// time-outs, signals and fork, and the descriptor of KvRsGetWaitFd in epoll.
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "KvApiTestUtil.h"
#include "KvRfrSvrWait.h"
#include "deaths/KvCheckRun.h"

namespace {

using Clock = std::chrono::steady_clock;

void* Target(uintptr_t u)
{
    return reinterpret_cast<void*>(u);
}

long MillisSince(Clock::time_point t)
{
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

void Notify(const char* pszPath)
{
    KvRsNodeProxy n = KvRsCreateNode(pszPath, nullptr, 0);
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 1, nullptr, 0, false);
}

bool WaitForNode(const char* pszPath)
{
    for (int i = 0; i < 10000; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(1)))
        if (!KvRsGetNode(pszPath).IsNull())
            return true;
    return false;
}

// A client of args[0] that marks args[1] and blocks until its message comes.
KV_CHILD_SCENARIO(Waiter)
{
    KvRsNodeProxy n = KvRsCreateNode(args.at(0).c_str(), nullptr, 0);
    KvRsConnectClient(n.GetHandle(), n.GetId(), Target(1), 1);
    KvRsCreateNode(args.at(1).c_str(), nullptr, 0);
    const long c = KvRsWaitMsg(nullptr, 0, 20000);
    return c == 1 && !KvRsGetMsg().IsNull() ? 0 : 10 + static_cast<int>(c);
}

// A client of args[0] that marks args[1] and waits for its message in epoll on
// the descriptor; with a third argument it only sleeps, to be killed.
KV_CHILD_SCENARIO(EpollWaiter)
{
    const int fd = KvRsGetWaitFd();
    KvRsNodeProxy n = KvRsCreateNode(args.at(0).c_str(), nullptr, 0);
    KvRsConnectClient(n.GetHandle(), n.GetId(), Target(1), 1);
    const int ep = epoll_create1(EPOLL_CLOEXEC);
    epoll_event ev = {};
    ev.events = EPOLLIN;
    if (fd < 0 || epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev) != 0)
        return 2;
    KvRsCreateNode(args.at(1).c_str(), nullptr, 0);
    while (args.size() > 2)
        pause();
    while (KvRsGetMsgCount() == 0)
        if (epoll_wait(ep, &ev, 1, 20000) != 1)
            return 3;
    return KvRsGetMsg().IsNull() ? 4 : 0;
}

bool WakePipeExists(pid_t pid)
{
    const std::string strPrefix = "KVRS_WFD." + std::to_string(pid) + ".";
    for (const std::string& str : KvTestNamespaceObjects())
        if (str.compare(0, strPrefix.size(), strPrefix) == 0)
            return true;
    return false;
}

extern "C" void KvOnUsr1(int) {}

}  // namespace

TEST(KvWait, TimeOutsAndCounts)
{
    EXPECT_EQ(0, KvRsWaitMsg(nullptr, 0, 0)) << "0 only looks";
    const auto t = Clock::now();
    EXPECT_EQ(0, KvRsWaitMsg(nullptr, 0, 60));
    EXPECT_GE(MillisSince(t), 55);
    KvRsNodeProxy n = KvRsCreateNode("wait.t", nullptr, 0);
    KvRsConnectClient(n.GetHandle(), n.GetId(), Target(1), 1);
    Notify("wait.t");
    Notify("wait.t");
    EXPECT_EQ(2, KvRsWaitMsg(nullptr, 0, -1)) << "messages waiting: no wait at all";
    KvRsGetMsg(), KvRsGetMsg();
    KvRsDisconnectClient(n.GetHandle(), n.GetId(), Target(1), 1);
}

TEST(KvWait, AnotherProcessWakesAWaiterAndAThreadWakesItsOwnQueue)
{
    const pid_t pid = KvTestSpawn("Waiter", {"wait.p", "sync.wait.p"});
    ASSERT_TRUE(WaitForNode("sync.wait.p"));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // asleep by now
    Notify("wait.p");
    EXPECT_EQ(0, KvTestWait(pid, 30));

    // A queue of its own, waited on by one thread and filled by another.
    KvRsQueueProxy q = KvRsCreateQueue("mine");
    KvRsNodeProxy n = KvRsCreateNode("wait.q", nullptr, 0);
    KvRsConnectClientToQueue(n.GetHandle(), n.GetId(), Target(2), 2, q.GetHandle(), q.GetId());
    std::atomic<long> cGot{-2};
    std::thread waiter([&] { cGot = KvRsWaitMsg(q.GetHandle(), q.GetId(), 20000); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    Notify("wait.q");
    waiter.join();
    EXPECT_EQ(1, cGot.load());
    EXPECT_EQ(0, KvRsGetMsgCount()) << "the default queue got nothing";
    KvRsGetQueueMsg(q.GetHandle(), q.GetId());
    KvRsDisconnectClient(n.GetHandle(), n.GetId(), Target(2), 2);
}

TEST(KvWait, ASignalEndsTheWaitWithMinusOne)
{
    struct sigaction sa = {}, saOld = {};
    sa.sa_handler = KvOnUsr1;  // no SA_RESTART
    sigaction(SIGUSR1, &sa, &saOld);
    std::atomic<long> c{-2};
    std::atomic<bool> fIn{false};
    std::thread waiter([&] {
        fIn = true;
        c = KvRsWaitMsg(nullptr, 0, 20000);
    });
    while (!fIn)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // past the spin, asleep
    pthread_kill(waiter.native_handle(), SIGUSR1);
    waiter.join();
    sigaction(SIGUSR1, &saOld, nullptr);
    EXPECT_EQ(-1, c.load());
}

TEST(KvWait, AForkChildWaitsOnItsOwnQueue)
{
    KvRsNodeProxy n = KvRsCreateNode("wait.f", nullptr, 0);
    const pid_t pid = fork();
    if (pid == 0) {
        KvKeepTreeAlive();
        KvRsConnectClient(n.GetHandle(), n.GetId(), Target(3), 3);
        KvRsCreateNode("sync.wait.f", nullptr, 0);
        const long c = KvRsWaitMsg(nullptr, 0, 20000);
        exit(c == 1 ? 0 : 1);
    }
    ASSERT_TRUE(WaitForNode("sync.wait.f"));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    Notify("wait.f");
    EXPECT_EQ(0, KvTestWait(pid, 30));
    EXPECT_EQ(0, KvRsGetMsgCount()) << "the parent's queue got nothing";
}

TEST(KvWait, TheDescriptorIsReadableInEpollAfterAMessage)
{
    const int fd = KvRsGetWaitFd();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fd, KvRsGetWaitFd()) << "one descriptor per process";
    const int ep = epoll_create1(EPOLL_CLOEXEC);
    epoll_event ev = {};
    ev.events = EPOLLIN;
    ASSERT_EQ(0, epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev));
    epoll_event got = {};
    EXPECT_EQ(0, epoll_wait(ep, &got, 1, 50)) << "nothing yet";
    KvRsNodeProxy n = KvRsCreateNode("wait.e", nullptr, 0);
    KvRsConnectClient(n.GetHandle(), n.GetId(), Target(4), 4);
    const pid_t pid = KvTestSpawn("Waiter", {"wait.other", "sync.wait.e"});  // another process notifies us
    ASSERT_TRUE(WaitForNode("sync.wait.e"));
    std::thread notifier([] { Notify("wait.e"); });
    EXPECT_EQ(1, epoll_wait(ep, &got, 1, 10000));
    notifier.join();
    Notify("wait.e");
    char ach[64];
    EXPECT_EQ(1, read(fd, ach, sizeof(ach))) << "the second message before a look rang nothing";
    EXPECT_EQ(2, KvRsGetMsgCount());
    KvRsGetMsg();
    KvRsGetMsg();
    EXPECT_EQ(0, epoll_wait(ep, &got, 1, 20)) << "read() cleared it";
    Notify("wait.e");
    EXPECT_EQ(1, epoll_wait(ep, &got, 1, 10000)) << "a look re-armed it";
    EXPECT_EQ(1, read(fd, ach, sizeof(ach)));
    KvRsGetMsg();
    Notify("wait.other");
    EXPECT_EQ(0, KvTestWait(pid, 30));
    close(ep);
    KvRsDisconnectClient(n.GetHandle(), n.GetId(), Target(4), 4);
}

TEST(KvWait, ANotifierRingsAnotherProcesssDescriptorAndItsFifoGoesWithIt)
{
    const pid_t pid = KvTestSpawn("EpollWaiter", {"wait.r", "sync.wait.r"});
    ASSERT_TRUE(WaitForNode("sync.wait.r"));
    EXPECT_TRUE(WakePipeExists(pid));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // asleep in epoll by now
    Notify("wait.r");
    EXPECT_EQ(0, KvTestWait(pid, 30));
    EXPECT_FALSE(WakePipeExists(pid)) << "its exit removed it";

    // Killed: its reaping (here by kvrs check's start-up) removes the FIFO, and
    // a notifier that still rings it is not hurt.
    const pid_t pidKilled = KvTestSpawn("EpollWaiter", {"wait.k", "sync.wait.k", "forever"});
    ASSERT_TRUE(WaitForNode("sync.wait.k"));
    Notify("wait.k");
    kill(pidKilled, SIGKILL);
    EXPECT_EQ(128 + SIGKILL, KvTestWait(pidKilled, 10));
    EXPECT_TRUE(KvTreeIsConsistent());
    EXPECT_FALSE(WakePipeExists(pidKilled));
    Notify("wait.k");
}
