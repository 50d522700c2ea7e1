// KvTestProcess.cpp - the process helpers of KvTestSupport.h: child scenarios,
// spawning with a watchdog, namespaces and standard-error capture. Programs that
// use the library only through libKvRfrSvr.so link these too, and must not get a
// second, static copy of the library's layers, so nothing here uses them: the
// namespace suffix, the executable path and the spawning are plain POSIX calls.
#include "common/KvTestSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <thread>

extern char** environ;

namespace {
std::map<std::string, KvChildScenario>& KvScenarios()
{
    static std::map<std::string, KvChildScenario> s_map;
    return s_map;
}

std::string KvSelfPath()
{
    char sz[PATH_MAX + 1];
    const ssize_t cch = readlink("/proc/self/exe", sz, PATH_MAX);
    return cch > 0 ? std::string(sz, static_cast<size_t>(cch)) : std::string();
}

// "." + namespace + "." + word size, as the library names its objects.
std::string KvSuffix()
{
    const char* psz = getenv("KVRFRSVR_NAMESPACE");
    const std::string strNs = psz != nullptr && *psz != '\0' ? psz : "u" + std::to_string(getuid());
    return "." + strNs + "." + std::to_string(sizeof(void*) * 8);
}
}  // namespace

bool KvRegisterChildScenario(const char* pszName, KvChildScenario pfn)
{
    KvScenarios()[pszName] = pfn;
    return true;
}

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
    *piExit = it->second(std::vector<std::string>(argv + 2, argv + argc));
    return true;
}

pid_t KvTestSpawn(const std::string& strScenario, const std::vector<std::string>& args)
{
    std::vector<std::string> vstr{KvSelfPath(), "--kv-child=" + strScenario};
    vstr.insert(vstr.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& s : vstr)
        argv.push_back(const_cast<char*>(s.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    return posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) == 0 ? pid : -1;
}

int KvTestWait(pid_t pid, int cSeconds)
{
    if (pid <= 0)
        return -1;
    const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(cSeconds);
    int status = 0;
    for (;;) {
        const pid_t r = waitpid(pid, &status, WNOHANG);
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
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
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
    const std::string str = s_strBase + "." + std::to_string(getpid()) + "." + std::to_string(++s_c);
    setenv("KVRFRSVR_NAMESPACE", str.c_str(), 1);
    return str;
}

std::vector<std::string> KvTestNamespaceObjects()
{
    std::vector<std::string> v;
    const std::string strSuffix = KvSuffix();
    if (DIR* pdir = opendir("/dev/shm")) {
        while (dirent* pent = readdir(pdir)) {
            const std::string s = pent->d_name;
            if (s.size() > strSuffix.size() && s.compare(s.size() - strSuffix.size(), strSuffix.size(), strSuffix) == 0)
                v.push_back(s);
        }
        closedir(pdir);
    }
    return v;
}

// --- standard-error capture ---------------------------------------------------

KvStderrCapture::KvStderrCapture()
{
    char szPath[] = "/tmp/kvrs-stderr-XXXXXX";
    m_fdFile = mkstemp(szPath);
    unlink(szPath);
    fflush(stderr);
    m_fdSaved = dup(2);
    dup2(m_fdFile, 2);
}

KvStderrCapture::~KvStderrCapture()
{
    Stop();
}

std::string KvStderrCapture::Stop()
{
    std::string str;
    if (m_fdSaved < 0)
        return str;
    fflush(stderr);
    dup2(m_fdSaved, 2);
    close(m_fdSaved);
    m_fdSaved = -1;
    lseek(m_fdFile, 0, SEEK_SET);
    char ach[4096];
    ssize_t cb;
    while ((cb = read(m_fdFile, ach, sizeof(ach))) > 0)
        str.append(ach, static_cast<size_t>(cb));
    close(m_fdFile);
    m_fdFile = -1;
    return str;
}

int KvCountOf(const std::string& str, const std::string& strWhat)
{
    int c = 0;
    for (size_t i = str.find(strWhat); i != std::string::npos; i = str.find(strWhat, i + strWhat.size()))
        ++c;
    return c;
}
