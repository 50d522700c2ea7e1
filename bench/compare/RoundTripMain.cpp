// RoundTripMain.cpp - cross-process round trip of every peer in one run:
// warm-up, then one latency sample per round trip, reported as median and p99.
//   compare_roundtrip [--short] [--count N] [--warmup N] [WORD]
// With WORD, only the peers whose name contains it run (for profiling one).
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "CompareHarness.h"
#include "RoundTripPeers.h"
#ifdef KVCMP_WITH_KVRS
#include "RoundTripKvRs.h"
#endif

using namespace kvcmp;

// A partner that died mid-run would leave this process waiting for ever: each
// peer gets a generous deadline instead (its partner dies with it).
static const char* s_pszPeer = "";
static void OnDeadline(int)
{
    static const char szText[] = "round trip: deadline passed (partner gone?): ";
    ssize_t r = write(STDERR_FILENO, szText, sizeof(szText) - 1);
    r = write(STDERR_FILENO, s_pszPeer, strlen(s_pszPeer));
    r = write(STDERR_FILENO, "\n", 1);
    (void)r;
    _exit(4);
}

static bool RunPeer(RoundTripPeer& peer, const Options& o, double clockNs)
{
    s_pszPeer = peer.Name();
    signal(SIGALRM, OnDeadline);
    // 1 ms per round trip on top of a minute: far beyond any healthy run.
    alarm(static_cast<unsigned>(60 + (o.cWarmup + o.cCount) / 1000));
    if (!peer.Prepare()) {
        fprintf(stderr, "%s: set-up failed\n", peer.Name());
        return false;
    }
    const long cTotal = o.cWarmup + o.cCount;
    // A started program inherits the mask: let it choose before pinning here.
    UnpinCpu();
    const pid_t pid = peer.StartPartner(cTotal);
    if (AllowedCpuCount() >= 2)
        PinToCpu(0);
    if (pid <= 0) {
        fprintf(stderr, "%s: partner did not start\n", peer.Name());
        peer.Finish();
        return false;
    }
    uint64_t n = 0;
    for (long i = 0; i < o.cWarmup; ++i)
        peer.Ping(++n);
    std::vector<double> samples(static_cast<size_t>(o.cCount));
    for (double& d : samples) {
        const uint64_t t0 = NowNs();
        peer.Ping(++n);
        d = static_cast<double>(NowNs() - t0) - clockNs;
    }
    const bool fOk = WaitChild(pid);
    alarm(0);
    peer.Finish();
    if (!fOk) {
        fprintf(stderr, "%s: partner failed\n", peer.Name());
        return false;
    }
    const Summary s = Summarise(samples);
    EmitRow("Round trip between two processes", peer.Name(), s, "ns", std::to_string(o.cCount) + " round trips");
    return true;
}

int main(int argc, char** argv)
{
    EnsurePrivateNamespace(argv);
#ifdef KVCMP_WITH_KVRS
    if (argc >= 4 && strcmp(argv[1], "--kvrs-partner") == 0)
        return KvRsPartnerMain(atol(argv[2]), strcmp(argv[3], "poll") == 0   ? KvRsReceive::Poll
                                              : strcmp(argv[3], "wait") == 0 ? KvRsReceive::Wait
                                                                             : KvRsReceive::Epoll);
#endif
    const Options o = ParseOptions(argc, argv, 2000);
    const bool fTwoCpus = AllowedCpuCount() >= 2;
    EmitInfo("roundtrip.cpus", fTwoCpus ? "pinned to two CPUs" : "one CPU: both sides share it");
    const double clockNs = ClockOverheadNs();

    std::vector<std::unique_ptr<RoundTripPeer>> peers;
#ifdef KVCMP_WITH_KVRS
    peers.push_back(MakeKvRsPeer(KvRsReceive::Poll));
    peers.push_back(MakeKvRsPeer(KvRsReceive::Wait));
    peers.push_back(MakeKvRsPeer(KvRsReceive::Epoll));
#endif
    for (auto& p : MakeBasicPeers())
        peers.push_back(std::move(p));
    int cFailed = 0;
    for (auto& p : peers)
        if (o.args.empty() || std::string(p->Name()).find(o.args[0]) != std::string::npos)
            cFailed += RunPeer(*p, o, clockNs) ? 0 : 1;
    return cFailed == 0 ? 0 : 1;
}
