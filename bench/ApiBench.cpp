// ApiBench.cpp - the cost of exported calls, through the public header and the
// shared library: the frame alone, a path lookup in a large tree, node creation,
// setting a small value, and one notification taken off the queue and read.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "KvRfrSvr.h"

namespace {
// A tree of 100k nodes: 100 x 100 x 10 below "big", built once per process.
const KvRsNodeProxy& KvBigTree()
{
    static const KvRsNodeProxy s_big = [] {
        KvRsNodeProxy big = KvRsCreateNode("big", nullptr, 0);
        char sz[32];
        for (int i = 0; i < 100; ++i) {
            snprintf(sz, sizeof(sz), "n%03d", i);
            KvRsNodeProxy a = KvRsAddChildNode(big.GetHandle(), big.GetId(), sz);
            for (int j = 0; j < 100; ++j) {
                snprintf(sz, sizeof(sz), "m%03d", j);
                KvRsNodeProxy b = KvRsAddChildNode(a.GetHandle(), a.GetId(), sz);
                for (int k = 0; k < 10; ++k) {
                    snprintf(sz, sizeof(sz), "k%d", k);
                    KvRsAddChildNode(b.GetHandle(), b.GetId(), sz);
                }
            }
        }
        return big;
    }();
    return s_big;
}

void BM_GetNodeType(benchmark::State& state)
{
    KvRsNodeProxy n = KvRsCreateNode("bench.type", nullptr, 0);
    for (auto _ : state)
        benchmark::DoNotOptimize(KvRsGetNodeType(n.GetHandle(), n.GetId()));
}
BENCHMARK(BM_GetNodeType);

void BM_GetNodeDepth3In100k(benchmark::State& state)
{
    KvBigTree();
    for (auto _ : state) {
        KvRsNodeProxy n = KvRsGetNode("big.n057.m042.k7");
        benchmark::DoNotOptimize(n.GetHandle());
    }
}
BENCHMARK(BM_GetNodeDepth3In100k);

void BM_CreateNode(benchmark::State& state)
{
    KvRsNodeProxy parent = KvRsCreateNode("bench.create", nullptr, 0);
    long i = 0;
    char sz[32];
    for (auto _ : state) {
        snprintf(sz, sizeof(sz), "c%ld", i++);
        KvRsNodeProxy n = KvRsCreateNode(sz, parent.GetHandle(), parent.GetId());
        benchmark::DoNotOptimize(n.GetHandle());
    }
}
// A fixed count: every creation lengthens the list the next one searches.
BENCHMARK(BM_CreateNode)->Iterations(20000);

void BM_SetValue16(benchmark::State& state)
{
    KvRsNodeProxy n = KvRsCreateNode("bench.value", nullptr, 0);
    KvRsValueProxy v = KvRsCreateValue();
    KvRsSetNodeValue(n.GetHandle(), n.GetId(), v.GetHandle(), v.GetId());
    unsigned char ab[16] = {1, 2, 3};
    for (auto _ : state)
        KvRsSetValueBytes(v.GetHandle(), v.GetId(), ab, sizeof(ab));
}
BENCHMARK(BM_SetValue16);

void BM_NotifyGetMsgRead(benchmark::State& state)
{
    KvRsNodeProxy n = KvRsCreateNode("bench.notify", nullptr, 0);
    KvRsConnectClient(n.GetHandle(), n.GetId(), reinterpret_cast<void*>(1), 1);
    KvRsValueProxy v = KvRsCreateValue();
    unsigned char ab[16] = {};
    KvRsSetValueBytes(v.GetHandle(), v.GetId(), ab, sizeof(ab));
    for (auto _ : state) {
        KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 1, v.GetHandle(), v.GetId(), false);
        KvRsMsgProxy m = KvRsGetMsg();
        KvRsValueProxy mv = KvRsGetMsgValue(m.GetHandle(), m.GetId());
        KvRsGetValueBytes(mv.GetHandle(), mv.GetId(), ab);
        benchmark::DoNotOptimize(KvRsGetMsgType(m.GetHandle(), m.GetId()));
    }
    KvRsDisconnectClient(n.GetHandle(), n.GetId(), reinterpret_cast<void*>(1), 1);
}
BENCHMARK(BM_NotifyGetMsgRead);
}  // namespace

BENCHMARK_MAIN();
