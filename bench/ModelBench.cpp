// ModelBench.cpp - the object model on an attached segment: a depth-3 path in a
// tree of about 100k nodes, AddChild into a node with 100k children, one child
// looked up among 1k, 100k and 1M children, and NotifyClients to 1 and to 100
// clients (the messages are taken back out every iteration, so memory stays
// bounded). The segment is 256 MiB rather than the library's 64 MiB, so that a
// node with 1M children fits.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "KvCppMfc/Platform/KvPlatform.h"
#include "KvRfrSvr/Internal/CRsModel.h"

namespace {

void KvBenchAttach()
{
    const std::string strNs = "bench.model." + std::to_string(KvGetCurrentProcessId());
    setenv("KVRFRSVR_NAMESPACE", strNs.c_str(), 1);
    KvRsRegisterSharedClasses();
    KvGranularity::_AllocSharedMem(0x10000000, "KVRFRSVR_MEM");
    KvSmartPtr<CRsNode> ptrRoot(KvNewObject);
    KvGranularity::_SetRoot(ptrRoot.Detach(), KVRS_ROOT_SLOT);
    g_ptrThisPrcsQueue.NewObject();
    g_ptrThisPrcsQueue->SetName(KVRS_DEFAULT_QUEUE_NAME);
}

KvSmartPtr<CRsNode> KvBenchNode(const KvSmartPtr<CRsNode>& ptrParent, const std::string& strName)
{
    KvSmartPtr<CRsNode> ptr(KvNewObject);
    ptr->SetName(strName.c_str());
    ptrParent->AddChild(ptr);
    return ptr;
}

// 47 x 47 x 45 leaves under the root: about 101.6k nodes. Built once: the
// benchmark function runs several times.
KvSmartPtr<CRsNode> KvBenchTree()
{
    KvSmartPtr<CRsNode> ptrTop = GetRoot()->GetChild("tree");
    if (ptrTop.IsNotNull())
        return ptrTop;
    ptrTop = KvBenchNode(GetRoot(), "tree");
    for (int i = 0; i < 47; ++i) {
        KvSmartPtr<CRsNode> a = KvBenchNode(ptrTop, "n" + std::to_string(i));
        for (int j = 0; j < 47; ++j) {
            KvSmartPtr<CRsNode> b = KvBenchNode(a, "n" + std::to_string(j));
            for (int k = 0; k < 45; ++k)
                KvBenchNode(b, "n" + std::to_string(k));
        }
    }
    return ptrTop;
}

void BM_GetDescendantDepth3(benchmark::State& state)
{
    KvSmartPtr<CRsNode> ptrTop = KvBenchTree();
    for (auto _ : state) {
        KvSmartPtr<CRsNode> p = ptrTop->GetDescendant("n23.n17.n31");
        benchmark::DoNotOptimize(p.Offset());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GetDescendantDepth3);

// One AddChild into the middle of 100k children, with the RemoveChild and the
// entry release that undo it (the child node itself is reused).
void BM_AddChildInto100k(benchmark::State& state)
{
    KvSmartPtr<CRsNode> ptrParent = GetRoot()->GetChild("wide");
    if (ptrParent.IsNull()) {
        ptrParent = KvBenchNode(GetRoot(), "wide");
        char sz[16];
        for (int i = 0; i < 100000; ++i) {
            snprintf(sz, sizeof(sz), "c%06d", i);
            KvBenchNode(ptrParent, sz);
        }
    }
    KvSmartPtr<CRsNode> ptrChild(KvNewObject);
    ptrChild->SetName("c050000x");
    for (auto _ : state) {
        ptrParent->AddChild(ptrChild);
        ptrParent->RemoveChild("c050000x");
        KvDeleteShared(ptrChild->m_pHln.Get());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AddChildInto100k);

// One child looked up by name among N children of one node, the names taken
// in random order, so that large lists are searched with cold caches as in use.
void BM_GetChildAmong(benchmark::State& state)
{
    const int cChildren = static_cast<int>(state.range(0));
    const std::string strParent = "among" + std::to_string(cChildren);
    KvSmartPtr<CRsNode> ptrParent = GetRoot()->GetChild(strParent.c_str());
    std::vector<std::string> names;
    char sz[16];
    for (int i = 0; i < cChildren; ++i) {
        snprintf(sz, sizeof(sz), "c%07d", i);
        names.push_back(sz);
    }
    if (ptrParent.IsNull()) {
        ptrParent = KvBenchNode(GetRoot(), strParent);
        std::vector<std::string> order(names);
        std::shuffle(order.begin(), order.end(), std::mt19937(7));
        for (const std::string& str : order)
            KvBenchNode(ptrParent, str);
    }
    std::shuffle(names.begin(), names.end(), std::mt19937(11));
    size_t i = 0;
    for (auto _ : state) {
        KvSmartPtr<CRsNode> p = ptrParent->GetChild(names[i].c_str());
        benchmark::DoNotOptimize(p.Offset());
        if (++i == names.size())
            i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GetChildAmong)->Arg(1000)->Arg(100000)->Arg(1000000);

// One notification to N clients of the default queue, and the N messages taken out.
void BM_NotifyClients(benchmark::State& state)
{
    const long cClients = state.range(0);
    KvSmartPtr<CRsNode> ptrNode(KvNewObject);
    for (long i = 0; i < cClients; ++i)
        ptrNode->ConnectClient(reinterpret_cast<void*>(0x1000 + i), 1, g_ptrThisPrcsQueue);
    KvSmartPtr<CRsValue> ptrValue(KvNewObject);
    ptrValue->SetBytes("value", 5);
    CRsQueue* pQueue = g_ptrThisPrcsQueue.Get();
    for (auto _ : state) {
        ptrNode->NotifyClients(1, ptrValue, false);
        for (long i = 0; i < cClients; ++i)
            benchmark::DoNotOptimize(pQueue->GetMsg().Offset());
    }
    state.SetItemsProcessed(state.iterations() * cClients);
}
BENCHMARK(BM_NotifyClients)->Arg(1)->Arg(100);

}  // namespace

int main(int argc, char** argv)
{
    KvBenchAttach();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    // The tree is dropped with the namespace: the last detach removes the segment.
    g_ptrThisPrcsQueue.Detach();
    KvGranularity::_FreeMem();
    return 0;
}
