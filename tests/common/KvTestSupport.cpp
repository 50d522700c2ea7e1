// KvTestSupport.cpp - see KvTestSupport.h.
#include "KvTestSupport.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <thread>

#include "KvCppMfc/Platform/KvPlatform.h"
#include "KvCppMfc/Pool/KvGranularity.h"

extern char** environ;

static std::map<std::string, KvChildScenario>& KvScenarios()
{
    static std::map<std::string, KvChildScenario> s_map;
    return s_map;
}

bool KvRegisterChildScenario(const char* pszName, KvChildScenario pfn)
{
    KvScenarios()[pszName] = pfn;
    return true;
}

// Runs a child scenario when the command line asks for one; returns false otherwise.
bool KvRunChildScenarioIfAsked(int argc, char** argv, int* piExit)
{
    if (argc < 2 || strncmp(argv[1], "--kv-child=", 11) != 0)
        return false;
    auto it = KvScenarios().find(argv[1] + 11);
    if (it == KvScenarios().end()) {
        fprintf(stderr, "unknown child scenario %s\n", argv[1] + 11);
        *piExit = 99;
        return true;
    }
    std::vector<std::string> args(argv + 2, argv + argc);
    *piExit = it->second(args);
    return true;
}

pid_t KvTestSpawn(const std::string& strScenario, const std::vector<std::string>& args)
{
    std::vector<std::string> argvStr;
    argvStr.push_back(KvApplicationPath());
    argvStr.push_back("--kv-child=" + strScenario);
    argvStr.insert(argvStr.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& s : argvStr)
        argv.push_back(const_cast<char*>(s.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0)
        return -1;
    return pid;
}

int KvTestWait(pid_t pid, int cSeconds)
{
    if (pid <= 0)
        return -1;
    const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(cSeconds);
    int status = 0;
    for (;;) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid)
            break;
        if (r < 0)
            return -1;
        if (std::chrono::steady_clock::now() > tEnd) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            ADD_FAILURE() << "child " << pid << " did not finish within " << cSeconds << " s (killed)";
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return -1;
}

std::string KvTestUseFreshNamespace()
{
    // Derived from the namespace the process started with, so that repeated
    // calls in one process do not keep lengthening the name.
    static int s_c = 0;
    static const std::string s_strBase = [] {
        const char* psz = getenv("KVRFRSVR_NAMESPACE");
        return std::string(psz != nullptr && *psz ? psz : "t");
    }();
    std::string str = s_strBase + "." + std::to_string(getpid()) + "." + std::to_string(++s_c);
    setenv("KVRFRSVR_NAMESPACE", str.c_str(), 1);
    return str;
}

std::vector<std::string> KvTestNamespaceObjects()
{
    std::vector<std::string> v;
    const std::string strSuffix = KvNamespaceSuffix();
    if (DIR* pdir = opendir("/dev/shm")) {
        while (dirent* pent = readdir(pdir)) {
            std::string s = pent->d_name;
            if (s.size() > strSuffix.size() && s.compare(s.size() - strSuffix.size(), strSuffix.size(), strSuffix) == 0)
                v.push_back(s);
        }
        closedir(pdir);
    }
    return v;
}

KvPoolSnapshot KvTakePoolSnapshot()
{
    KvPoolSnapshot snap;
    if (KvGranularity::_poinf == nullptr)
        return snap;
    for (uint32_t i = 0; i < KVGRAN_COUNT; ++i) {
        const KvGranularity* g = KvGranularity::_GetGranularity(i);
        snap.aNet[i] = static_cast<int64_t>(g->_cAllocChecked + g->_cFreeChecked + g->_cNetUnchecked);
    }
    snap.cbNet = static_cast<int64_t>(KvGranularity::_poinf->_cbAllocChecked + KvGranularity::_poinf->_cbFreeChecked +
                                      KvGranularity::_poinf->_cbNetUnchecked);
    return snap;
}

::testing::AssertionResult KvPoolsBalanced(const KvPoolSnapshot& before)
{
    const KvPoolSnapshot now = KvTakePoolSnapshot();
    for (uint32_t i = 0; i < KVGRAN_COUNT; ++i)
        if (now.aNet[i] != before.aNet[i])
            return ::testing::AssertionFailure()
                   << "pool " << i << " (block size " << KvGranularity::_GetGranularity(i)->_stSize << ") holds "
                   << (now.aNet[i] - before.aNet[i]) << " more blocks than at the snapshot";
    return ::testing::AssertionSuccess();
}
