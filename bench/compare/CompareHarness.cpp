// CompareHarness.cpp - clocks, summaries, rows, pinning, options and child
// processes for the comparison programs.
#include "CompareHarness.h"

#include <sched.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

extern char** environ;

namespace kvcmp {

namespace {
const char kNamespacePrefix[] = "kvcmp.";
std::string s_strSelf;  // this program's path, for running it again
}  // namespace

double ClockOverheadNs()
{
    std::vector<double> v(10001);
    for (double& d : v) {
        const uint64_t t0 = NowNs();
        const uint64_t t1 = NowNs();
        d = static_cast<double>(t1 - t0);
    }
    std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
    return v[v.size() / 2];
}

void SpinPause(unsigned& cSpins)
{
#if defined(__x86_64__) || defined(__i386__)
    _mm_pause();
#endif
    if ((++cSpins & 0xFFF) == 0 || AllowedCpuCount() < 2)
        sched_yield();
}

Summary Summarise(std::vector<double>& samples)
{
    Summary s;
    s.count = samples.size();
    if (samples.empty())
        return s;
    std::sort(samples.begin(), samples.end());
    // Nearest-rank percentiles.
    auto rank = [&](double p) {
        size_t i = static_cast<size_t>(std::ceil(p * static_cast<double>(samples.size())));
        return samples[std::min(samples.size() - 1, i == 0 ? 0 : i - 1)];
    };
    s.median = rank(0.50);
    s.p99 = rank(0.99);
    return s;
}

void EmitRow(const std::string& group, const std::string& name, const Summary& s, const char* pszUnit,
             const std::string& note)
{
    printf("ROW\t%s\t%s\t%.1f\t%.1f\t%s\t%s\n", group.c_str(), name.c_str(), s.median, s.p99, pszUnit, note.c_str());
    fflush(stdout);
}

void EmitValue(const std::string& group, const std::string& name, double value, const char* pszUnit,
               const std::string& note)
{
    printf("ROW\t%s\t%s\t%.1f\t-\t%s\t%s\n", group.c_str(), name.c_str(), value, pszUnit, note.c_str());
    fflush(stdout);
}

void EmitInfo(const std::string& key, const std::string& value)
{
    printf("INFO\t%s\t%s\n", key.c_str(), value.c_str());
    fflush(stdout);
}

// The CPUs this process was started with, before any pinning: a partner
// process inherits its parent's pinned mask, so pinning always chooses from
// this set.
static const cpu_set_t& OriginalCpus()
{
    static const cpu_set_t s_set = [] {
        cpu_set_t set;
        CPU_ZERO(&set);
        if (sched_getaffinity(0, sizeof(set), &set) != 0)
            CPU_SET(0, &set);
        return set;
    }();
    return s_set;
}

int AllowedCpuCount()
{
    return CPU_COUNT(&OriginalCpus());
}

bool PinToCpu(int n)
{
    const cpu_set_t& set = OriginalCpus();
    for (int cpu = 0, seen = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (!CPU_ISSET(cpu, &set))
            continue;
        if (seen++ == n) {
            cpu_set_t one;
            CPU_ZERO(&one);
            CPU_SET(cpu, &one);
            return sched_setaffinity(0, sizeof(one), &one) == 0;
        }
    }
    return false;
}

void UnpinCpu()
{
    sched_setaffinity(0, sizeof(cpu_set_t), &OriginalCpus());
}

Options ParseOptions(int argc, char** argv, long cShortCount)
{
    Options o;
    bool fCount = false;
    bool fWarmup = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--short") {
            o.fShort = true;
        } else if (a == "--count" && i + 1 < argc) {
            o.cCount = atol(argv[++i]);
            fCount = true;
        } else if (a == "--warmup" && i + 1 < argc) {
            o.cWarmup = atol(argv[++i]);
            fWarmup = true;
        } else {
            o.args.push_back(a);
        }
    }
    if (o.fShort && !fCount)
        o.cCount = cShortCount;
    if (o.fShort && !fWarmup)
        o.cWarmup = std::max(1L, cShortCount / 10);
    o.cCount = std::max(1L, o.cCount);
    o.cWarmup = std::max(0L, o.cWarmup);
    return o;
}

void EnsurePrivateNamespace(char** argv)
{
    char szSelf[4096];
    const ssize_t cch = readlink("/proc/self/exe", szSelf, sizeof(szSelf) - 1);
    s_strSelf = cch > 0 ? std::string(szSelf, static_cast<size_t>(cch)) : std::string(argv[0]);
    const char* psz = getenv("KVRFRSVR_NAMESPACE");
    if (psz != nullptr && strncmp(psz, kNamespacePrefix, sizeof(kNamespacePrefix) - 1) == 0)
        return;
    const std::string ns = std::string(kNamespacePrefix) + std::to_string(getpid());
    setenv("KVRFRSVR_NAMESPACE", ns.c_str(), 1);
    execv(s_strSelf.c_str(), argv);
    perror("execv");
    exit(2);
}

std::string ChildNamespace(const char* pszTag)
{
    static int s_cChildren = 0;
    const char* psz = getenv("KVRFRSVR_NAMESPACE");
    return std::string(psz != nullptr ? psz : "kvcmp") + "." + pszTag + std::to_string(++s_cChildren);
}

// This program's path followed by args, as posix_spawn takes it (the strings
// must outlive the call).
static std::vector<char*> SelfArgv(const std::vector<std::string>& args)
{
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(s_strSelf.c_str()));
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    return argv;
}

pid_t SpawnSelf(const std::vector<std::string>& args)
{
    std::vector<char*> argv = SelfArgv(args);
    pid_t pid = -1;
    if (posix_spawn(&pid, s_strSelf.c_str(), nullptr, nullptr, argv.data(), environ) != 0)
        return -1;
    return pid;
}

bool WaitChild(pid_t pid)
{
    int status = 0;
    if (pid <= 0 || waitpid(pid, &status, 0) != pid)
        return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::vector<std::pair<std::string, std::string>> RunSelf(const std::vector<std::string>& args,
                                                         const std::string& strNamespace)
{
    std::vector<std::pair<std::string, std::string>> info;
    int fds[2];
    if (pipe(fds) != 0)
        return {{"", "failed"}};
    const std::string strOld = getenv("KVRFRSVR_NAMESPACE") ? getenv("KVRFRSVR_NAMESPACE") : "";
    setenv("KVRFRSVR_NAMESPACE", strNamespace.c_str(), 1);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&fa, fds[0]);
    std::vector<char*> argv = SelfArgv(args);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, s_strSelf.c_str(), &fa, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    setenv("KVRFRSVR_NAMESPACE", strOld.c_str(), 1);
    close(fds[1]);
    if (rc != 0) {
        close(fds[0]);
        return {{"", "failed"}};
    }
    FILE* pf = fdopen(fds[0], "r");
    char szLine[4096];
    while (pf != nullptr && fgets(szLine, sizeof(szLine), pf) != nullptr) {
        if (strncmp(szLine, "INFO\t", 5) == 0) {
            std::string line(szLine + 5);
            while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
                line.pop_back();
            const size_t tab = line.find('\t');
            info.emplace_back(line.substr(0, tab), tab == std::string::npos ? "" : line.substr(tab + 1));
        }
        fputs(szLine, stdout);
    }
    fflush(stdout);
    if (pf != nullptr)
        fclose(pf);
    if (!WaitChild(pid))
        info.emplace_back("", "failed");
    return info;
}

}  // namespace kvcmp
