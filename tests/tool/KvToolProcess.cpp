// KvToolProcess.cpp - spawning the tool under test with its output in files.
#include "KvToolProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace {

std::string TempFile(const char* pszTag)
{
    std::string str = "/tmp/kvtool." + std::string(pszTag) + ".XXXXXX";
    const int fd = mkstemp(&str[0]);
    if (fd >= 0)
        close(fd);
    return str;
}

std::string ReadFile(const std::string& strPath)
{
    std::ifstream in(strPath, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

}  // namespace

KvToolProcess::~KvToolProcess()
{
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    if (!m_strOutFile.empty())
        unlink(m_strOutFile.c_str());
    if (!m_strErrFile.empty())
        unlink(m_strErrFile.c_str());
}

bool KvToolProcess::Start(const std::string& strExe, const std::vector<std::string>& args,
                          const std::string& strStdinFile)
{
    m_strOutFile = TempFile("out");
    m_strErrFile = TempFile("err");
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, STDIN_FILENO, strStdinFile.empty() ? "/dev/null" : strStdinFile.c_str(),
                                     O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, STDOUT_FILENO, m_strOutFile.c_str(), O_WRONLY | O_TRUNC, 0);
    posix_spawn_file_actions_addopen(&fa, STDERR_FILENO, m_strErrFile.c_str(), O_WRONLY | O_TRUNC, 0);
    std::vector<std::string> vstr{strExe};
    vstr.insert(vstr.end(), args.begin(), args.end());
    std::vector<char*> vpsz;
    for (std::string& str : vstr)
        vpsz.push_back(&str[0]);
    vpsz.push_back(nullptr);
    const int iErr = posix_spawn(&m_pid, strExe.c_str(), &fa, nullptr, vpsz.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    if (iErr != 0)
        m_pid = -1;
    return iErr == 0;
}

bool KvToolProcess::WaitForText(const std::string& strText, bool bStderr, int cms) const
{
    const auto tEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(cms);
    while (std::chrono::steady_clock::now() < tEnd) {
        if ((bStderr ? Err() : Out()).find(strText) != std::string::npos)
            return true;
        if (m_pid <= 0 || waitpid(m_pid, nullptr, WNOHANG) != 0)
            return (bStderr ? Err() : Out()).find(strText) != std::string::npos;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

void KvToolProcess::Signal(int sig) const
{
    if (m_pid > 0)
        kill(m_pid, sig);
}

KvToolResult KvToolProcess::Finish(int cms)
{
    KvToolResult r;
    const auto tEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(cms);
    int iStatus = 0;
    while (m_pid > 0) {
        if (waitpid(m_pid, &iStatus, WNOHANG) == m_pid) {
            r.iStatus = WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : 128 + WTERMSIG(iStatus);
            m_pid = -1;
        } else if (std::chrono::steady_clock::now() >= tEnd) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
            m_pid = -1;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    r.strOut = Out();
    r.strErr = Err();
    return r;
}

std::string KvToolProcess::Out() const
{
    return ReadFile(m_strOutFile);
}

std::string KvToolProcess::Err() const
{
    return ReadFile(m_strErrFile);
}

KvToolResult KvTool(const std::vector<std::string>& args, const std::string& strStdinFile)
{
    KvToolProcess p;
    if (!p.Start(KVRS_EXE, args, strStdinFile))
        return KvToolResult();
    return p.Finish();
}

bool KvToolServe(KvToolProcess& serve)
{
    return serve.Start(KVRS_EXE, {"serve"}) && serve.WaitForText("serving namespace", false);
}

size_t KvToolLineCount(const std::string& str)
{
    return static_cast<size_t>(std::count(str.begin(), str.end(), '\n'));
}
