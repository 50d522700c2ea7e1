// Hybrid list: find and insert in lists of 1k, 100k and 1M elements, with the
// number of element comparisons per operation as a counter.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "KvCppMfc/Pool/KvGranularity.h"
#include "KvCppMfc/Shared/HybridList.h"

namespace {

#pragma pack(push, 1)
class BenchHln : public HListSimpleNode<BenchHln> {
    KV_SHARED_CLASS(BenchHln)

public:
    BenchHln() {}
    explicit BenchHln(int32_t iKey) : m_iKey(iKey) {}
    int Compare(const BenchHln& o) const { return CompareKey(m_iKey, o); }
    static int CompareKey(int32_t iKey, const BenchHln& o)
    {
        sm_cCompares += 1;
        return iKey < o.m_iKey ? -1 : iKey > o.m_iKey ? 1 : 0;
    }
    int32_t m_iKey = 0;
    static inline uint64_t sm_cCompares = 0;
};
#pragma pack(pop)

typedef HybridList<BenchHln> BenchList;

// A private (unnamed) segment for the whole run.
void AttachOnce()
{
    static bool s_fDone = false;
    if (s_fDone)
        return;
    s_fDone = true;
    KV_REGISTER_SHARED_CLASS(BenchHln);
    KV_REGISTER_SHARED_CLASS(QTopNode<BenchHln>);
    KvGranularity::_AllocMem(0x4000000);
}

// A list of n elements with the even keys 0 .. 2n-2, inserted in random order.
struct Fixture {
    explicit Fixture(int n) : list(0), rng(12345)
    {
        std::vector<int32_t> vKeys(static_cast<size_t>(n));
        for (int i = 0; i < n; ++i)
            vKeys[static_cast<size_t>(i)] = 2 * i;
        std::shuffle(vKeys.begin(), vKeys.end(), rng);
        for (int32_t k : vKeys)
            list.Insert(KvNewShared<BenchHln>(k));
    }
    ~Fixture()
    {
        while (BenchHln* p = list.RemoveFirst())
            KvDeleteShared(p);
    }
    BenchList list;
    std::mt19937 rng;
};

void BM_Find(benchmark::State& state)
{
    AttachOnce();
    const int n = static_cast<int>(state.range(0));
    auto pFix = std::make_unique<Fixture>(n);
    std::uniform_int_distribution<int32_t> dist(0, 2 * n - 1);
    const uint64_t cBefore = BenchHln::sm_cCompares;
    for (auto _ : state) {
        BenchHln* p = pFix->list.FindKey(dist(pFix->rng));
        benchmark::DoNotOptimize(p);
    }
    state.counters["cmp/op"] =
        benchmark::Counter(static_cast<double>(BenchHln::sm_cCompares - cBefore), benchmark::Counter::kAvgIterations);
}

// Inserts new elements (odd keys, so each one lands between two others). They
// are made, and every 1000 insertions taken out again, outside the timing.
void BM_Insert(benchmark::State& state)
{
    AttachOnce();
    const int n = static_cast<int>(state.range(0));
    auto pFix = std::make_unique<Fixture>(n);
    std::uniform_int_distribution<int32_t> dist(0, n - 1);
    std::vector<BenchHln*> vBatch;
    size_t iNext = 0;
    auto refill = [&] {
        for (BenchHln* q : vBatch) {
            pFix->list.Remove(q);
            KvDeleteShared(q);
        }
        vBatch.clear();
        for (int i = 0; i < 1000; ++i)
            vBatch.push_back(KvNewShared<BenchHln>(2 * dist(pFix->rng) + 1));
        iNext = 0;
    };
    refill();
    const uint64_t cBefore = BenchHln::sm_cCompares;
    uint64_t cOutside = 0;
    for (auto _ : state) {
        if (iNext == vBatch.size()) {
            state.PauseTiming();
            const uint64_t c = BenchHln::sm_cCompares;
            refill();
            cOutside += BenchHln::sm_cCompares - c;
            state.ResumeTiming();
        }
        pFix->list.Insert(vBatch[iNext++]);
    }
    const uint64_t cInserts = BenchHln::sm_cCompares - cBefore - cOutside;
    for (size_t i = 0; i < vBatch.size(); ++i) {
        if (i < iNext)  // only these went in
            pFix->list.Remove(vBatch[i]);
        KvDeleteShared(vBatch[i]);
    }
    state.counters["cmp/op"] = benchmark::Counter(static_cast<double>(cInserts), benchmark::Counter::kAvgIterations);
}

BENCHMARK(BM_Find)->Arg(1000)->Arg(100000)->Arg(1000000);
BENCHMARK(BM_Insert)->Arg(1000)->Arg(100000)->Arg(1000000);

}  // namespace

BENCHMARK_MAIN();
