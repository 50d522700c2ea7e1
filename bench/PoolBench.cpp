// PoolBench.cpp - cost of an _Alloc/_Free pair on an attached named segment, for
// 8, 64 and 4096 bytes (pool mutex taken twice, one list pop and push, the block
// zeroed). `bench_PoolBench --loop=N` instead runs N uncontended pairs of each
// size and exits: check_no_syscalls.sh traces that loop.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "KvCppMfc/Platform/KvPlatform.h"
#include "KvCppMfc/Pool/KvGranularity.h"

namespace {

// Attaches a segment in a namespace of this process for the run.
void KvBenchAttach()
{
    const std::string strNs = "bench.pool." + std::to_string(KvGetCurrentProcessId());
    setenv("KVRFRSVR_NAMESPACE", strNs.c_str(), 1);
    KvGranularity::_AllocSharedMem(0x4000000, "KVRFRSVR_MEM");
}

void BM_AllocFreePair(benchmark::State& state)
{
    const uint32_t cb = static_cast<uint32_t>(state.range(0));
    for (auto _ : state) {
        void* pv = KvGranularity::_Alloc(cb);
        benchmark::DoNotOptimize(pv);
        KvGranularity::_Free(pv, cb);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AllocFreePair)->Arg(8)->Arg(64)->Arg(4096);

int KvRunLoop(long cPairs)
{
    static const uint32_t s_acb[] = {8, 64, 4096};
    for (long i = 0; i < cPairs; ++i)
        for (uint32_t cb : s_acb) {
            void* pv = KvGranularity::_Alloc(cb);
            benchmark::DoNotOptimize(pv);
            KvGranularity::_Free(pv, cb);
        }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    KvBenchAttach();
    int iExit = 0;
    if (argc > 1 && strncmp(argv[1], "--loop=", 7) == 0) {
        iExit = KvRunLoop(strtol(argv[1] + 7, nullptr, 10));
    } else {
        benchmark::Initialize(&argc, argv);
        benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();
    }
    KvGranularity::_FreeMem();
    return iExit;
}
