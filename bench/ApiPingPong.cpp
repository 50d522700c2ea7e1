// ApiPingPong.cpp - round-trip latency between two processes through the public
// API: the parent notifies the child's node, the child polls its default queue
// and notifies the parent's node back; the parent polls for the answer. Both
// sides poll without sleeping, as a latency-bound caller would.
//   bench_ApiPingPong [round trips, default 20000]
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "KvRfrSvr.h"

namespace {
void* const kTarget = reinterpret_cast<void*>(0x1);

// Waits for the next message on the default queue and returns its number.
unsigned long KvPollOne()
{
    for (;;) {
        KvRsMsgProxy m = KvRsGetMsg();
        if (!m.IsNull())
            return KvRsGetMsgType(m.GetHandle(), m.GetId());
    }
}

int KvChild(int cRounds)
{
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    KvRsAddRef(root.GetHandle(), root.GetId());  // its exit releases one root reference
    KvRsNodeProxy ping = KvRsCreateNode("pp.ping", nullptr, 0);
    KvRsNodeProxy pong = KvRsCreateNode("pp.pong", nullptr, 0);
    KvRsConnectClient(ping.GetHandle(), ping.GetId(), kTarget, 1);
    for (int i = 0; i < cRounds; ++i) {
        const unsigned long n = KvPollOne();
        KvRsNotifyNodeClients(pong.GetHandle(), pong.GetId(), n, nullptr, 0, false);
    }
    return 0;
}
}  // namespace

int main(int argc, char** argv)
{
    const int cRounds = argc > 1 ? atoi(argv[1]) : 20000;
    KvRsNodeProxy ping = KvRsCreateNode("pp.ping", nullptr, 0);
    KvRsNodeProxy pong = KvRsCreateNode("pp.pong", nullptr, 0);
    KvRsConnectClient(pong.GetHandle(), pong.GetId(), kTarget, 2);
    const pid_t pid = fork();
    if (pid == 0)
        exit(KvChild(cRounds));
    while (KvRsGetClientCount(ping.GetHandle(), ping.GetId()) == 0)
        ;
    std::vector<double> vUs;
    vUs.reserve(static_cast<size_t>(cRounds));
    for (int i = 0; i < cRounds; ++i) {
        const auto t0 = std::chrono::steady_clock::now();
        KvRsNotifyNodeClients(ping.GetHandle(), ping.GetId(), static_cast<unsigned long>(i & 0xFFFF), nullptr, 0,
                              false);
        KvPollOne();
        vUs.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count());
    }
    int status = 0;
    waitpid(pid, &status, 0);
    std::sort(vUs.begin(), vUs.end());
    auto pct = [&](double p) { return vUs[static_cast<size_t>(p * static_cast<double>(vUs.size() - 1))]; };
    printf("round trips: %d\n", cRounds);
    printf("round-trip latency (us): p50 %.2f  p90 %.2f  p99 %.2f  p99.9 %.2f  max %.2f\n", pct(0.5), pct(0.9),
           pct(0.99), pct(0.999), vUs.back());
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}
