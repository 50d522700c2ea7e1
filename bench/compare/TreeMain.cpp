// TreeMain.cpp - in-process comparison of this library's public API with a
// Boost.Interprocess map keyed by the dotted path. Each size runs in a child
// process of its own (a fresh segment, a fresh namespace), so that no case
// inherits another's free lists.
//   compare_tree [--short] [--count N]          all cases
//   compare_tree --case tree|children|trivial N  one case (used by the above)
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "CompareHarness.h"
#include "TreeSubject.h"

using namespace kvcmp;

namespace {

const double kSegmentCapacity = (64u << 20) - 0x10000;  // the pool area of either segment
const double kFillFactor = 0.85;                        // headroom for values, messages, lists
const size_t kShortBatch = 10;                          // calls per sample for repeated short operations

std::string CountLabel(long n)
{
    if (n >= 1000000 && n % 1000000 == 0)
        return std::to_string(n / 1000000) + "M";
    if (n >= 1000 && n % 1000 == 0)
        return std::to_string(n / 1000) + "k";
    return std::to_string(n);
}

std::vector<std::unique_ptr<TreeSubject>> OpenSubjects()
{
    std::vector<std::unique_ptr<TreeSubject>> v;
#ifdef KVCMP_WITH_KVRS
    v.push_back(MakeKvRsSubject());
#endif
    v.push_back(MakeBoostSubject());
    for (auto& s : v)
        if (!s->Open()) {
            fprintf(stderr, "%s: cannot open\n", s->Name().c_str());
            exit(2);
        }
    return v;
}

// Runs op over items and counts failures. One latency sample per batch of
// cBatch calls: the clock moves in steps of about 10 ns here, so operations
// that cost tens of ns are timed in batches (their p99 is then that of the
// batch means).
template <class Op>
Summary Measure(size_t cItems, double clockNs, long& cFailed, Op op, size_t cBatch = 1)
{
    std::vector<double> samples(cItems / cBatch);
    size_t i = 0;
    for (double& d : samples) {
        const uint64_t t0 = NowNs();
        for (size_t k = 0; k < cBatch; ++k, ++i)
            cFailed += op(i) ? 0 : 1;
        d = (static_cast<double>(NowNs() - t0) - clockNs) / static_cast<double>(cBatch);
    }
    return Summarise(samples);
}

std::string FailNote(long cFailed)
{
    return cFailed == 0 ? "" : std::to_string(cFailed) + " FAILED";
}

// N leaves at depth 3, fan-out ceil(cbrt(N)) at every level; created in random
// order, then looked up in random order; values and notifications on held leaves.
int RunTreeCase(long cLeaves, const std::string& label, const Options& o)
{
    const long f = std::max(2L, static_cast<long>(std::ceil(std::cbrt(static_cast<double>(cLeaves)) - 1e-9)));
    std::vector<std::string> paths(static_cast<size_t>(cLeaves));
    for (long i = 0; i < cLeaves; ++i)
        paths[static_cast<size_t>(i)] =
            "n" + std::to_string(i / (f * f)) + ".n" + std::to_string((i / f) % f) + ".n" + std::to_string(i % f);
    std::mt19937_64 rng(42);
    std::vector<size_t> order(paths.size());
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::shuffle(order.begin(), order.end(), rng);
    std::vector<size_t> probes(static_cast<size_t>(o.cCount));
    std::uniform_int_distribution<size_t> pick(0, paths.size() - 1);
    for (size_t& p : probes)
        p = pick(rng);
    const size_t cSlots = std::min<size_t>(paths.size(), 1024);
    unsigned char ab[16];
    for (int i = 0; i < 16; ++i)
        ab[i] = static_cast<unsigned char>(i * 7);

    const double clockNs = ClockOverheadNs();
    auto subjects = OpenSubjects();
    for (auto& s : subjects) {
        const std::string name = s->Name();
        long cFailed = 0;
        const double cbBefore = s->BytesUsed();
        Summary sum = Measure(order.size(), clockNs, cFailed, [&](size_t i) { return s->CreateLeaf(paths[order[i]]); });
        EmitRow("Create a depth-3 leaf (" + label + ")", name, sum, "ns", FailNote(cFailed));
        const double cbPerLeaf = (s->BytesUsed() - cbBefore) / static_cast<double>(cLeaves);
        // The tree also holds the parent nodes; the map holds one entry per leaf path.
        EmitValue("Bytes per leaf node (" + label + ")", name, cbPerLeaf, "B",
                  name == "KvRfrSvr" ? "parent nodes included" : "one entry per leaf path");
        EmitInfo("bytes_per_leaf." + name, std::to_string(cbPerLeaf));

        cFailed = 0;
        for (size_t i = 0; i < std::min<size_t>(probes.size(), static_cast<size_t>(o.cWarmup)); ++i)
            s->LookupLeaf(paths[probes[i]]);
        sum = Measure(probes.size(), clockNs, cFailed, [&](size_t i) { return s->LookupLeaf(paths[probes[i]]); });
        EmitRow("Look up a depth-3 path, random order (" + label + ")", name, sum, "ns", FailNote(cFailed));

        for (size_t slot = 0; slot < cSlots; ++slot)
            if (!s->HoldLeaf(paths[order[slot]], slot))
                ++cFailed;
        sum = Measure(
            static_cast<size_t>(o.cCount), clockNs, cFailed,
            [&](size_t i) {
                s->SetValue(i % cSlots, ab);
                return true;
            },
            kShortBatch);
        EmitRow("Set a 16-byte value on a held node (" + label + ")", name, sum, "ns", FailNote(cFailed));

        if (!s->ConnectClient(0))
            fprintf(stderr, "%s: connecting the client failed\n", name.c_str());
        const auto variants = s->NotifyVariants();
        for (size_t v = 0; v < variants.size(); ++v) {
            cFailed = 0;
            for (long i = 0; i < o.cWarmup; ++i)
                s->NotifyTakeRelease(0, v);
            sum = Measure(
                static_cast<size_t>(o.cCount), clockNs, cFailed, [&](size_t) { return s->NotifyTakeRelease(0, v); },
                kShortBatch);
            EmitRow("Notify one client, take the message, release it (" + label + ")", variants[v], sum, "ns",
                    FailNote(cFailed));
        }
    }
    return 0;
}

// One parent with N children; lookups of random children by name.
int RunChildrenCase(long cChildren, const std::string& label, const Options& o)
{
    std::vector<std::string> names(static_cast<size_t>(cChildren));
    for (long i = 0; i < cChildren; ++i)
        names[static_cast<size_t>(i)] = "x" + std::to_string(i);
    std::mt19937_64 rng(7);
    std::shuffle(names.begin(), names.end(), rng);
    std::vector<size_t> probes(static_cast<size_t>(o.cCount));
    std::uniform_int_distribution<size_t> pick(0, names.size() - 1);
    for (size_t& p : probes)
        p = pick(rng);
    const std::string parent = "c";
    const double clockNs = ClockOverheadNs();
    auto subjects = OpenSubjects();
    for (auto& s : subjects) {
        long cFailed = 0;
        for (const std::string& n : names)
            cFailed += s->CreateChild(parent, n) ? 0 : 1;
        for (size_t i = 0; i < std::min<size_t>(probes.size(), static_cast<size_t>(o.cWarmup)); ++i)
            s->LookupChild(parent, names[probes[i]]);
        const Summary sum = Measure(probes.size(), clockNs, cFailed,
                                    [&](size_t i) { return s->LookupChild(parent, names[probes[i]]); });
        EmitRow("Look up one child among " + label, s->Name(), sum, "ns", FailNote(cFailed));
    }
    return 0;
}

// The cheapest exported call, timed in batches of 100 (a single call is too
// short for the clock).
int RunTrivialCase(const Options& o)
{
    const int kBatch = 100;
    auto subjects = OpenSubjects();
    const size_t cBatches = static_cast<size_t>(std::max(100L, o.cCount / 10));
    for (auto& s : subjects) {
        s->CreateLeaf("t.a.b");
        s->HoldLeaf("t.a.b", 0);
        volatile unsigned long sink = 0;
        for (int i = 0; i < 10000; ++i)
            sink = sink + s->TrivialCall(0);
        std::vector<double> samples(cBatches);
        for (double& d : samples) {
            const uint64_t t0 = NowNs();
            for (int i = 0; i < kBatch; ++i)
                sink = sink + s->TrivialCall(0);
            d = static_cast<double>(NowNs() - t0) / kBatch;
        }
        const Summary sum = Summarise(samples);
        const bool fKvRs = s->Name() == "KvRfrSvr";
        EmitRow("Trivial call (read a held node's type)",
                fKvRs ? "KvRfrSvr (KvRsGetNodeType)" : "Boost: lock, read, unlock", sum, "ns",
                "batches of " + std::to_string(kBatch));
    }
    return 0;
}

double ParseDouble(const std::vector<std::pair<std::string, std::string>>& info, const std::string& prefix)
{
    double v = 0;
    for (const auto& kv : info)
        if (kv.first.compare(0, prefix.size(), prefix) == 0)
            v = std::max(v, atof(kv.second.c_str()));
    return v;
}

int RunAll(const Options& o)
{
    std::vector<std::string> common = {"--count", std::to_string(o.cCount), "--warmup", std::to_string(o.cWarmup)};
    auto run = [&](const std::vector<std::string>& args) {
        std::vector<std::string> a = args;
        a.insert(a.end(), common.begin(), common.end());
        return RunSelf(a, ChildNamespace("c"));
    };
    int cFailed = 0;
    auto failed = [](const std::vector<std::pair<std::string, std::string>>& info) {
        for (const auto& kv : info)
            if (kv.first.empty())
                return true;
        return false;
    };

    const std::vector<long> sizes = o.fShort ? std::vector<long>{1000, 10000} : std::vector<long>{1000, 100000};
    double cbPerLeaf = 0;
    for (long n : sizes) {
        auto info = run({"--case", "tree", std::to_string(n), CountLabel(n) + " leaves"});
        cFailed += failed(info) ? 1 : 0;
        cbPerLeaf = std::max(cbPerLeaf, ParseDouble(info, "bytes_per_leaf."));
    }
    // The largest tree that both segments hold, from the bytes per leaf just measured.
    long cFit = 0;
    if (cbPerLeaf > 0)
        cFit = static_cast<long>(kFillFactor * kSegmentCapacity / cbPerLeaf) / 1000 * 1000;
    EmitInfo("largest_fit", std::to_string(cFit));
    if (!o.fShort && cFit > sizes.back()) {
        auto info = run({"--case", "tree", std::to_string(cFit), "largest tree: " + CountLabel(cFit) + " leaves"});
        cFailed += failed(info) ? 1 : 0;
    }

    std::vector<long> children = o.fShort ? std::vector<long>{1000, 10000} : std::vector<long>{1000, 100000, 1000000};
    for (long n : children) {
        std::string label = CountLabel(n) + " children";
        long c = n;
        if (cFit > 0 && n > cFit) {
            c = cFit;
            label = CountLabel(n) + " children (" + CountLabel(n) + " do not fit the segment; " + CountLabel(cFit) +
                    " measured)";
        }
        auto info = run({"--case", "children", std::to_string(c), label});
        cFailed += failed(info) ? 1 : 0;
    }
    cFailed += failed(run({"--case", "trivial", "0", ""})) ? 1 : 0;
    return cFailed == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    EnsurePrivateNamespace(argv);
    const Options o = ParseOptions(argc, argv, 2000);
    if (o.args.size() >= 4 && o.args[0] == "--case") {
        const long n = atol(o.args[2].c_str());
        if (o.args[1] == "tree")
            return RunTreeCase(n, o.args[3], o);
        if (o.args[1] == "children")
            return RunChildrenCase(n, o.args[3], o);
        if (o.args[1] == "trivial")
            return RunTrivialCase(o);
        fprintf(stderr, "unknown case %s\n", o.args[1].c_str());
        return 2;
    }
    return RunAll(o);
}
