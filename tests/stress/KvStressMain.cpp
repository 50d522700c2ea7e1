// KvStressMain.cpp - kvrs_stress: the parent sets up the subtree, starts the
// workers (this program again, with --worker), and checks the outcome:
//   - every message sent was received exactly once (per sender and receiver),
//   - concurrent creation of one path made it once,
//   - no connection is left, and the pools grew by exactly what the tree grew
//     (a mirror area is brought to the same shape and must cost the same),
//   - `kvrs check` passes, when the tool has the checker.
//
//   kvrs_stress [--seconds N] [--workers N] [--threads N] [--seed N] [--kvrs PATH]
//
// Exit status 0 when everything holds, 1 otherwise, 2 on a usage error.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "KvRfrSvr.h"
#include "KvStress.h"

extern char** environ;

namespace {

int Usage()
{
    fprintf(stderr, "usage: kvrs_stress [--seconds N] [--workers N] [--threads N] [--seed N] [--kvrs PATH]\n");
    return 2;
}

pid_t Spawn(const std::vector<std::string>& args, bool fQuiet)
{
    std::vector<char*> argv;
    for (const std::string& s : args)
        argv.push_back(const_cast<char*>(s.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    if (fQuiet) {
        posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
    }
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&fa);
    return pid;
}

// Exit status of pid, or -1; a child that outlives the deadline is killed.
int Wait(pid_t pid, std::chrono::steady_clock::time_point tDeadline)
{
    int status = 0;
    if (pid <= 0)
        return -1;
    for (;;) {
        const pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid)
            break;
        if (r < 0)
            return -1;
        if (std::chrono::steady_clock::now() > tDeadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string SelfPath()
{
    char sz[4096];
    const ssize_t cch = readlink("/proc/self/exe", sz, sizeof(sz) - 1);
    return std::string(sz, cch > 0 ? static_cast<size_t>(cch) : 0);
}

bool Fail(const std::string& str)
{
    fprintf(stderr, "kvrs_stress: FAILED: %s\n", str.c_str());
    return false;
}

// Sent and received tallies must match pair by pair.
bool CheckMessages(const KvStressLedger& all, uint64_t* pcSent, uint64_t* pcReceived)
{
    uint64_t cLost = 0, cExtra = 0, cMismatch = 0;
    *pcSent = *pcReceived = 0;
    for (const auto& e : all.mapSent) {
        *pcSent += e.second.c;
        auto it = all.mapRecv.find(e.first);
        const KvStressTally got = it != all.mapRecv.end() ? it->second : KvStressTally{};
        if (got.c < e.second.c)
            cLost += e.second.c - got.c;
        else if (got.c > e.second.c)
            cExtra += got.c - e.second.c;
        else if (got.sum != e.second.sum)
            cMismatch += 1;
    }
    for (const auto& e : all.mapRecv) {
        *pcReceived += e.second.c;
        if (all.mapSent.find(e.first) == all.mapSent.end())
            cExtra += e.second.c;
    }
    printf("messages     sent %llu, received %llu, lost %llu, duplicated or stray %llu, mismatched pairs %llu\n",
           static_cast<unsigned long long>(*pcSent), static_cast<unsigned long long>(*pcReceived),
           static_cast<unsigned long long>(cLost), static_cast<unsigned long long>(cExtra),
           static_cast<unsigned long long>(cMismatch));
    if (cLost != 0 || cExtra != 0 || cMismatch != 0)
        return Fail("messages were lost, duplicated or altered");
    if (*pcSent == 0)
        return Fail("no message was sent");
    return true;
}

// Nobody may still be connected once every worker has gone.
bool CheckNoConnections()
{
    for (int h = 0; h < kKvStressHubs; ++h) {
        KvRsNodeProxy hub = KvRsGetNode(("stress.hub" + std::to_string(h)).c_str());
        KVRSCONNECTINFO info;
        KvRsGetServer(hub.GetHandle(), hub.GetId(), &info);
        if (KvRsGetClientCount(hub.GetHandle(), hub.GetId()) != 0 || info.pvTarget != nullptr)
            return Fail("hub" + std::to_string(h) + " still has a connection");
    }
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    if (KvRsGetClientCount(root.GetHandle(), root.GetId()) != 0)
        return Fail("the root still has structural-change clients");
    return true;
}

// The pools grew by what the stress area gained; the mirror, brought to the same
// shape afterwards, must grow by exactly as much, pool by pool.
bool CheckPools(const KvStressPools& before, long* pcNodes)
{
    const KvStressPools after = KvStressTakePools();
    *pcNodes = KvStressMirrorArea("stress", "mirror");
    const KvStressPools mirrored = KvStressTakePools();
    bool fOk = *pcNodes >= 0;
    for (size_t i = 0; i < before.size(); ++i) {
        const int64_t cRun = after[i] - before[i];
        const int64_t cMirror = mirrored[i] - after[i];
        if (cRun != cMirror) {
            fprintf(stderr, "kvrs_stress: pool %zu: the run left %lld blocks, the same tree takes %lld\n", i,
                    static_cast<long long>(cRun), static_cast<long long>(cMirror));
            fOk = false;
        }
    }
    return fOk || Fail("the pools do not match the tree: something leaked");
}

std::string RunChecker(const std::string& strKvrs)
{
    if (strKvrs.empty())
        return "skipped";
    const auto tDeadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    if (Wait(Spawn({strKvrs, "check", "--help"}, true), tDeadline) != 0)
        return "skipped (this kvrs has no checker)";
    return Wait(Spawn({strKvrs, "check"}, false), tDeadline) == 0 ? "ok" : "FAILED";
}

int RunParent(KvStressOptions& opt)
{
    // Our exit releases one root reference: keep one for it.
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    KvRsAddRef(root.GetHandle(), root.GetId());
    // The root's refresh info, and the two areas, exist before the baseline.
    void* const hTarget = reinterpret_cast<void*>(uintptr_t{1});
    KvRsConnectForAllStructuralChanges(hTarget, 1);
    KvRsDisconnectForAllStructuralChanges(hTarget, 1);
    KvStressSetUpArea("stress");
    KvStressSetUpArea("mirror");
    char szDir[] = "/tmp/kvrs-stress-XXXXXX";
    if (mkdtemp(szDir) == nullptr)
        return Fail("no temporary directory"), 1;
    opt.strDir = szDir;
    const KvStressPools before = KvStressTakePools();

    const auto tStart = std::chrono::steady_clock::now();
    std::vector<pid_t> vPids;
    for (int w = 0; w < opt.cWorkers; ++w)
        vPids.push_back(Spawn({SelfPath(), "--worker", std::to_string(w), "--dir", opt.strDir, "--seconds",
                               std::to_string(opt.dSeconds), "--threads", std::to_string(opt.cThreads), "--seed",
                               std::to_string(opt.uSeed)},
                              false));
    const auto tDeadline = tStart + std::chrono::seconds(static_cast<long>(opt.dSeconds * 4) + 120);
    bool fOk = true;
    KvStressLedger all;
    for (int w = 0; w < opt.cWorkers; ++w) {
        const int iExit = Wait(vPids[static_cast<size_t>(w)], tDeadline);
        KvStressLedger one;
        const std::string strPath = opt.strDir + "/w" + std::to_string(w) + ".ledger";
        if (iExit != 0 || !one.Read(strPath))
            fOk = Fail("worker " + std::to_string(w) + " ended with status " + std::to_string(iExit));
        all.Merge(one);
        unlink(strPath.c_str());
    }
    const double dElapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - tStart).count();
    rmdir(opt.strDir.c_str());

    uint64_t cSent = 0, cReceived = 0;
    printf("kvrs_stress  %d workers x %d threads, %.1f s (%.1f s with start and clean-up)\n", opt.cWorkers,
           opt.cThreads, opt.dSeconds, dElapsed);
    printf("operations   %llu (%.0f/s), path creations %llu\n", static_cast<unsigned long long>(all.cOps),
           static_cast<double>(all.cOps) / opt.dSeconds, static_cast<unsigned long long>(all.cCreates));
    fOk = CheckMessages(all, &cSent, &cReceived) && fOk;
    printf("throughput   %.0f messages/s received\n", static_cast<double>(cReceived) / opt.dSeconds);
    if (all.cErrors != 0)
        fOk = Fail(std::to_string(all.cErrors) + " errors, the first: " + all.strFirstError);
    fOk = CheckNoConnections() && fOk;
    const long cDuplicates = KvStressDuplicateNames("stress.made");
    if (cDuplicates != 0)
        fOk = Fail(std::to_string(cDuplicates) + " paths were made more than once");
    long cNodes = 0;
    const bool fPools = CheckPools(before, &cNodes);
    fOk = fPools && fOk;
    printf("tree         %ld nodes in the stress area; pools match the tree: %s\n", cNodes, fPools ? "yes" : "no");
    fflush(stdout);
    const std::string strCheck = RunChecker(opt.strKvrs);
    printf("checker      %s\n", strCheck.c_str());
    if (strCheck == "FAILED")
        fOk = false;
    printf("result       %s\n", fOk ? "PASSED" : "FAILED");
    return fOk ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    KvStressOptions opt;
    int iWorker = -1;
    for (int i = 1; i < argc; ++i) {
        const std::string strArg = argv[i];
        if (i + 1 >= argc)
            return Usage();
        const char* pszValue = argv[++i];
        if (strArg == "--seconds")
            opt.dSeconds = atof(pszValue);
        else if (strArg == "--workers")
            opt.cWorkers = atoi(pszValue);
        else if (strArg == "--threads")
            opt.cThreads = atoi(pszValue);
        else if (strArg == "--seed")
            opt.uSeed = static_cast<unsigned>(strtoul(pszValue, nullptr, 10));
        else if (strArg == "--kvrs")
            opt.strKvrs = pszValue;
        else if (strArg == "--worker")
            iWorker = atoi(pszValue);
        else if (strArg == "--dir")
            opt.strDir = pszValue;
        else
            return Usage();
    }
    if (opt.dSeconds <= 0 || opt.cWorkers < 1 || opt.cWorkers > 8 || opt.cThreads < 1 || opt.cThreads > 3)
        return Usage();  // more would pass 29 clients on one hub and split its index
    if (iWorker >= 0)
        return KvStressWorkerMain(opt, iWorker);

    // The library attached when the program loaded. Never run on a user's own
    // tree: without a namespace of its own, start again with one.
    const char* pszNs = getenv("KVRFRSVR_NAMESPACE");
    if (pszNs == nullptr || *pszNs == '\0') {
        const std::string strNs = "stress." + std::to_string(getpid());
        setenv("KVRFRSVR_NAMESPACE", strNs.c_str(), 1);
        execv("/proc/self/exe", argv);
        perror("kvrs_stress: execv");
        return 1;
    }
    return RunParent(opt);
}
