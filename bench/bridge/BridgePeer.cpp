// BridgePeer.cpp - the tree-side roles of the bridge benchmark, each run in the
// namespace its environment names:
//   bench_bridge_peer notify COUNT INTERVAL_US   notifies plant.bench COUNT times,
//       each message carrying its send time (CLOCK_MONOTONIC, ns, as text)
//   bench_bridge_peer listen COUNT TIMEOUT_MS    client of plant.bench; prints
//       READY, then the latency of each message and the time of the last one
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "KvRfrSvr.h"
#include "KvRfrSvrWait.h"

namespace {

int64_t NowNanos()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void SleepUntil(int64_t tNanos)
{
    timespec ts{static_cast<time_t>(tNanos / 1000000000), static_cast<long>(tNanos % 1000000000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) != 0) {
    }
}

int Notify(long cMsgs, long cusInterval)
{
    KvRsNodeProxy node = KvRsCreateNode("plant.bench", nullptr, 0);
    const int64_t tStart = NowNanos();
    printf("START %lld\n", static_cast<long long>(tStart));
    for (long i = 0; i < cMsgs; ++i) {
        if (cusInterval > 0)
            SleepUntil(tStart + i * cusInterval * 1000);
        std::string str = std::to_string(NowNanos());
        KvRsValueProxy value = KvRsCreateValue();
        KvRsSetValueBytes(value.GetHandle(), value.GetId(), reinterpret_cast<unsigned char*>(str.data()),
                          static_cast<long>(str.size()));
        KvRsNotifyNodeClients(node.GetHandle(), node.GetId(), 1, value.GetHandle(), value.GetId(), false);
    }
    return 0;
}

int Listen(long cMsgs, long cmsTimeout)
{
    KvRsNodeProxy node = KvRsCreateNode("plant.bench", nullptr, 0);
    void* const hTarget = reinterpret_cast<void*>(static_cast<uintptr_t>(7));
    KvRsConnectClient(node.GetHandle(), node.GetId(), hTarget, 7);
    printf("READY\n");
    fflush(stdout);
    std::vector<int64_t> vLatency;
    vLatency.reserve(static_cast<size_t>(cMsgs));
    int64_t tLast = 0;
    const int64_t tEnd = NowNanos() + cmsTimeout * 1000000;
    while (static_cast<long>(vLatency.size()) < cMsgs && NowNanos() < tEnd) {
        KvRsMsgProxy msg = KvRsGetMsg();
        if (msg.IsNull()) {
            KvRsWaitMsg(nullptr, 0, 100);
            continue;
        }
        tLast = NowNanos();
        KvRsValueProxy value = KvRsGetMsgValue(msg.GetHandle(), msg.GetId());
        char sz[32] = {};
        const long cb = KvRsGetValueByteCount(value.GetHandle(), value.GetId());
        if (cb <= 0 || cb >= static_cast<long>(sizeof sz))
            continue;
        KvRsGetValueBytes(value.GetHandle(), value.GetId(), reinterpret_cast<unsigned char*>(sz));
        vLatency.push_back(tLast - strtoll(sz, nullptr, 10));
    }
    KvRsDisconnectClient(node.GetHandle(), node.GetId(), hTarget, 7);
    for (int64_t t : vLatency)
        printf("LAT %lld\n", static_cast<long long>(t));
    printf("LAST %lld\nCOUNT %zu\n", static_cast<long long>(tLast), vLatency.size());
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        fprintf(stderr, "usage: bench_bridge_peer notify|listen COUNT INTERVAL_US|TIMEOUT_MS\n");
        return 2;
    }
    const std::string strRole = argv[1];
    const long c = atol(argv[2]), n = atol(argv[3]);
    // Keeps the tree when this is the last process that had the root.
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    KvRsAddRef(root.GetHandle(), root.GetId());
    return strRole == "notify" ? Notify(c, n) : Listen(c, n);
}
