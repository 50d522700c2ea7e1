// KvTestProcess.cpp - the process helpers of KvTestSupport.h. Programs that use
// the library only through libKvRfrSvr.so link these too, and must not get a
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
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

extern char** environ;

namespace {
std::map<std::string, KvChildScenario>& KvScenarios()
{
    static std::map<std::string, KvChildScenario> s_map;
    return s_map;
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
    *piExit = it == KvScenarios().end() ? 99 : it->second(std::vector<std::string>(argv + 2, argv + argc));
    return true;
}

pid_t KvTestSpawnExe(const std::vector<std::string>& argv, const std::string& strIn, const std::string& strOut,
                     const std::string& strErr)
{
    std::vector<char*> vpsz;
    for (const std::string& s : argv)
        vpsz.push_back(const_cast<char*>(s.c_str()));
    vpsz.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    if (!strIn.empty())
        posix_spawn_file_actions_addopen(&fa, 0, strIn.c_str(), O_RDONLY, 0);
    if (!strOut.empty())
        posix_spawn_file_actions_addopen(&fa, 1, strOut.c_str(), O_WRONLY | O_TRUNC, 0);
    if (!strErr.empty() && strErr == strOut)
        posix_spawn_file_actions_adddup2(&fa, 1, 2);
    else if (!strErr.empty())
        posix_spawn_file_actions_addopen(&fa, 2, strErr.c_str(), O_WRONLY | O_TRUNC, 0);
    pid_t pid = -1;
    if (posix_spawn(&pid, vpsz[0], &fa, nullptr, vpsz.data(), environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&fa);
    return pid;
}

pid_t KvTestSpawn(const std::string& strScenario, const std::vector<std::string>& args)
{
    char sz[PATH_MAX + 1];
    const ssize_t cch = readlink("/proc/self/exe", sz, PATH_MAX);
    std::vector<std::string> vstr{std::string(sz, cch > 0 ? static_cast<size_t>(cch) : 0), "--kv-child=" + strScenario};
    vstr.insert(vstr.end(), args.begin(), args.end());
    return KvTestSpawnExe(vstr);
}

int KvTestWait(pid_t pid, int cSeconds)
{
    if (pid <= 0)
        return -1;
    const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(cSeconds);
    int status = 0;
    for (pid_t r; (r = waitpid(pid, &status, WNOHANG)) != pid;) {
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
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string KvTestTempFile()
{
    char sz[] = "/tmp/kvtest.XXXXXX";
    const int fd = mkstemp(sz);
    if (fd >= 0)
        close(fd);
    return sz;
}

std::string KvTestReadFile(const std::string& strPath)
{
    std::ifstream in(strPath, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

int KvTestRunExe(const std::vector<std::string>& argv, std::string* pstrOut, int cSeconds)
{
    const std::string strFile = KvTestTempFile();
    const int iStatus = KvTestWait(KvTestSpawnExe(argv, "", strFile, strFile), cSeconds);
    *pstrOut = KvTestReadFile(strFile);
    unlink(strFile.c_str());
    return iStatus;
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

std::vector<std::string> KvTestNamespaceObjects(const std::string& strNamespace)
{
    // "." + namespace + "." + word size, as the library names its objects.
    const char* psz = getenv("KVRFRSVR_NAMESPACE");
    const std::string strNs = !strNamespace.empty()            ? strNamespace
                              : psz != nullptr && *psz != '\0' ? std::string(psz)
                                                               : "u" + std::to_string(getuid());
    const std::string strSuffix = "." + strNs + "." + std::to_string(sizeof(void*) * 8);
    std::vector<std::string> v;
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

KvStderrCapture::KvStderrCapture() : m_strPath(KvTestTempFile())
{
    fflush(stderr);
    m_fdSaved = dup(2);
    const int fd = open(m_strPath.c_str(), O_WRONLY);
    dup2(fd, 2);
    close(fd);
}

KvStderrCapture::~KvStderrCapture()
{
    Stop();
}

std::string KvStderrCapture::Stop()
{
    if (m_fdSaved < 0)
        return "";
    fflush(stderr);
    dup2(m_fdSaved, 2);
    close(m_fdSaved);
    m_fdSaved = -1;
    const std::string str = KvTestReadFile(m_strPath);
    unlink(m_strPath.c_str());
    return str;
}

int KvCountOf(const std::string& str, const std::string& strWhat)
{
    int c = 0;
    for (size_t i = str.find(strWhat); i != std::string::npos; i = str.find(strWhat, i + strWhat.size()))
        ++c;
    return c;
}
