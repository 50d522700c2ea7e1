// WakeupMain.cpp - how a receiver that has been asleep for a while learns of a
// message, against a pipe, and what an idle waiter costs:
//   compare_wakeup [--short] [--count N]
// - wake-up: the receiver blocks (KvRsWaitMsg, epoll on KvRsGetWaitFd, or
//   read() of a pipe); 5 ms later the sender stamps the clock and notifies
//   (writes); the receiver stamps the clock when it is back. One sample per
//   message, from the sender's stamp to the receiver's.
// - idle: a waiter blocked for 2 s with nothing coming; the CPU time it used.
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "CompareHarness.h"
#include "KvRfrSvr.h"
#include "KvRfrSvrWait.h"

using namespace kvcmp;

namespace {

const char* const kGroupWake = "Wake-up of a receiver asleep for 5 ms";
const char* const kGroupIdle = "CPU used by an idle waiter in 2 s";

void HoldRoot()
{
    KvRsNodeProxy root = KvRsCreateNode("", 0, 0);
    KvRsAddRef(root.GetHandle(), root.GetId());
}

// The sender's clock stamp travels in the message's value.
void SendStamp(const KvRsNodeProxy& node)
{
    uint64_t t = NowNs();
    KvRsValueProxy v = KvRsCreateValue();
    KvRsSetValueBytes(v.GetHandle(), v.GetId(), reinterpret_cast<unsigned char*>(&t), sizeof(t));
    KvRsNotifyNodeClients(node.GetHandle(), node.GetId(), 1, v.GetHandle(), v.GetId(), false);
}

uint64_t TakeStamp()
{
    KvRsMsgProxy m = KvRsGetMsg();
    KvRsValueProxy v = KvRsGetMsgValue(m.GetHandle(), m.GetId());
    uint64_t t = 0;
    if (KvRsGetValueByteCount(v.GetHandle(), v.GetId()) == sizeof(t))
        KvRsGetValueBytes(v.GetHandle(), v.GetId(), reinterpret_cast<unsigned char*>(&t));
    return t;
}

// Receiver: "wait" or "epoll"; prints one delay per message on standard output.
int KvRsReceiver(const std::string& strHow, long cCount)
{
    HoldRoot();
    KvRsNodeProxy node = KvRsCreateNode("wake.n", 0, 0);
    int target = 0;
    int ep = -1, fd = -1;
    if (strHow == "epoll") {
        fd = KvRsGetWaitFd();
        ep = epoll_create1(EPOLL_CLOEXEC);
        epoll_event ev = {};
        ev.events = EPOLLIN;
        epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
    }
    KvRsConnectClient(node.GetHandle(), node.GetId(), &target, 1);
    KvRsCreateNode("wake.ready", 0, 0);
    for (long i = 0; i < cCount; ++i) {
        while (KvRsGetMsgCount() == 0) {
            if (ep < 0) {
                KvRsWaitMsg(nullptr, 0, -1);
            } else {
                epoll_event ev;
                if (epoll_wait(ep, &ev, 1, -1) == 1) {
                    uint64_t u;
                    ssize_t r = read(fd, &u, sizeof(u));
                    (void)r;
                }
            }
        }
        const uint64_t tNow = NowNs();
        printf("%llu\n", static_cast<unsigned long long>(tNow - TakeStamp()));
    }
    fflush(stdout);
    KvRsDisconnectClient(node.GetHandle(), node.GetId(), &target, 1);
    return 0;
}

// Runs a receiver of this program, sends cCount stamps 5 ms apart, reads back
// the delays.
bool MeasureKvRs(const std::string& strHow, long cCount, std::vector<double>* pv)
{
    int afd[2];
    if (pipe(afd) != 0)
        return false;
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(afd[1], STDOUT_FILENO);
        close(afd[0]);
        std::string strCount = std::to_string(cCount);
        char* argv[] = {const_cast<char*>("/proc/self/exe"), const_cast<char*>("--receiver"),
                        const_cast<char*>(strHow.c_str()), const_cast<char*>(strCount.c_str()), nullptr};
        execv("/proc/self/exe", argv);
        _exit(2);
    }
    close(afd[1]);
    HoldRoot();
    for (int i = 0; i < 10000 && KvRsGetNode("wake.ready").IsNull(); ++i)
        usleep(1000);
    KvRsNodeProxy node = KvRsCreateNode("wake.n", 0, 0);
    for (long i = 0; i < cCount; ++i) {
        usleep(5000);
        SendStamp(node);
    }
    FILE* pf = fdopen(afd[0], "r");
    unsigned long long u = 0;
    while (pf != nullptr && fscanf(pf, "%llu", &u) == 1)
        pv->push_back(static_cast<double>(u));
    if (pf != nullptr)
        fclose(pf);
    return WaitChild(pid) && static_cast<long>(pv->size()) == cCount;
}

bool MeasurePipe(long cCount, std::vector<double>* pv)
{
    int afdData[2], afdBack[2];
    if (pipe(afdData) != 0 || pipe(afdBack) != 0)
        return false;
    const pid_t pid = fork();
    if (pid == 0) {
        for (long i = 0; i < cCount; ++i) {
            uint64_t t = 0;
            if (read(afdData[0], &t, sizeof(t)) != sizeof(t))
                _exit(1);
            const uint64_t d = NowNs() - t;
            if (write(afdBack[1], &d, sizeof(d)) != sizeof(d))
                _exit(1);
        }
        _exit(0);
    }
    for (long i = 0; i < cCount; ++i) {
        usleep(5000);
        const uint64_t t = NowNs();
        uint64_t d = 0;
        if (write(afdData[1], &t, sizeof(t)) != sizeof(t) || read(afdBack[0], &d, sizeof(d)) != sizeof(d))
            return false;
        pv->push_back(static_cast<double>(d));
    }
    return WaitChild(pid);
}

// CPU time (user + system) a child spends blocked in KvRsWaitMsg for 2 s.
double IdleWaiterCpuMs()
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(KvRsWaitMsg(nullptr, 0, 2000) == 0 ? 0 : 1);
    int status = 0;
    rusage ru = {};
    if (wait4(pid, &status, 0, &ru) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return -1;
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1000.0 +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1000.0;
}

}  // namespace

int main(int argc, char** argv)
{
    EnsurePrivateNamespace(argv);
    if (argc >= 4 && strcmp(argv[1], "--receiver") == 0)
        return KvRsReceiver(argv[2], atol(argv[3]));
    const Options o = ParseOptions(argc, argv, 20);
    const long cCount = o.cCount == 200000 ? 200 : o.cCount;  // 5 ms apart: 1 s per 200
    int cFailed = 0;
    for (const char* pszHow : {"wait", "epoll"}) {
        std::vector<double> v;
        if (!MeasureKvRs(pszHow, cCount, &v)) {
            fprintf(stderr, "wake-up through %s failed\n", pszHow);
            ++cFailed;
            continue;
        }
        const Summary s = Summarise(v);
        EmitRow(kGroupWake,
                std::string("KvRfrSvr notify, ") +
                    (strcmp(pszHow, "wait") == 0 ? "KvRsWaitMsg" : "epoll on KvRsGetWaitFd"),
                s, "ns", std::to_string(cCount) + " messages");
    }
    std::vector<double> v;
    if (MeasurePipe(cCount, &v)) {
        const Summary s = Summarise(v);
        EmitRow(kGroupWake, "pipe, blocking read", s, "ns", std::to_string(cCount) + " messages");
    } else {
        ++cFailed;
    }
    const double cms = IdleWaiterCpuMs();
    if (cms >= 0)
        EmitValue(kGroupIdle, "KvRfrSvr KvRsWaitMsg, nothing coming", cms * 1000000.0, "ns", "user + system time");
    else
        ++cFailed;
    return cFailed == 0 ? 0 : 1;
}
