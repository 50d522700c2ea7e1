// KvrsChild.cpp - spawning and reading the demo's child processes.
#include "KvrsChild.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "KvCppMfc/Platform/KvPlatform.h"
#include "KvrsCommon.h"

namespace {

const char* const kapszReportPrefixes[] = {"SUMMARY ", "LATENCY "};

// This process's environment with KVRFRSVR_NAMESPACE replaced.
std::vector<std::string> ChildEnvironment(const std::string& strNamespace)
{
    std::vector<std::string> vstr;
    for (char** ppsz = environ; *ppsz != nullptr; ++ppsz)
        if (strncmp(*ppsz, "KVRFRSVR_NAMESPACE=", 19) != 0)
            vstr.push_back(*ppsz);
    vstr.push_back("KVRFRSVR_NAMESPACE=" + strNamespace);
    return vstr;
}

std::vector<char*> PointerArray(std::vector<std::string>& vstr)
{
    std::vector<char*> vpsz;
    vpsz.reserve(vstr.size() + 1);
    for (std::string& str : vstr)
        vpsz.push_back(str.data());
    vpsz.push_back(nullptr);
    return vpsz;
}

}  // namespace

KvrsChild::~KvrsChild()
{
    if (Running()) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    if (m_fd >= 0)
        close(m_fd);
}

bool KvrsChild::Start(const std::vector<std::string>& vstrArgs, const std::string& strNamespace)
{
    int afd[2];
    if (pipe2(afd, O_CLOEXEC) != 0)
        return false;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, afd[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&fa, afd[1], STDERR_FILENO);
    std::vector<std::string> vstrArgv{KvApplicationPath()};
    vstrArgv.insert(vstrArgv.end(), vstrArgs.begin(), vstrArgs.end());
    std::vector<std::string> vstrEnv = ChildEnvironment(strNamespace);
    std::vector<char*> vpszArgv = PointerArray(vstrArgv);
    std::vector<char*> vpszEnv = PointerArray(vstrEnv);
    const int iErr = posix_spawn(&m_pid, vpszArgv[0], &fa, nullptr, vpszArgv.data(), vpszEnv.data());
    posix_spawn_file_actions_destroy(&fa);
    close(afd[1]);
    if (iErr != 0) {
        close(afd[0]);
        m_pid = -1;
        return false;
    }
    m_fd = afd[0];
    fcntl(m_fd, F_SETFL, fcntl(m_fd, F_GETFL) | O_NONBLOCK);
    return true;
}

void KvrsChild::Stop()
{
    if (Running() && !m_bStopped) {
        kill(m_pid, SIGTERM);
        m_bStopped = true;
    }
}

bool KvrsChild::Reap()
{
    int iStatus = 0;
    if (!Running() || waitpid(m_pid, &iStatus, WNOHANG) != m_pid)
        return !Running();
    m_bExited = true;
    m_iStatus = WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : 128 + WTERMSIG(iStatus);
    return true;
}

int KvrsChild::Wait(int cms)
{
    const int64_t tEnd = KvrsNowMicros() + static_cast<int64_t>(cms) * 1000;
    while (!Reap()) {
        if (KvrsNowMicros() >= tEnd) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
            m_bExited = true;
            m_iStatus = -1;
            break;
        }
        Pump({this}, 20);
    }
    Pump({this}, 0);  // what it wrote last
    return m_iStatus;
}

bool KvrsChild::SawLine(const std::string& strPrefix) const
{
    for (const std::string& str : m_vstrSeen)
        if (str.compare(0, strPrefix.size(), strPrefix) == 0)
            return true;
    return false;
}

void KvrsChild::Pump(const std::vector<KvrsChild*>& vpChildren, int cms)
{
    std::vector<pollfd> vpfd;
    std::vector<KvrsChild*> vpOpen;
    for (KvrsChild* p : vpChildren)
        if (p->m_fd >= 0) {
            vpfd.push_back({p->m_fd, POLLIN, 0});
            vpOpen.push_back(p);
        }
    if (vpfd.empty() || poll(vpfd.data(), vpfd.size(), cms) <= 0)
        return;
    for (size_t i = 0; i < vpfd.size(); ++i) {
        if ((vpfd[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0)
            continue;
        char ach[4096];
        ssize_t cch;
        while ((cch = read(vpOpen[i]->m_fd, ach, sizeof(ach))) > 0)
            vpOpen[i]->Consume(ach, static_cast<size_t>(cch));
        if (cch == 0) {  // the child closed its end
            close(vpOpen[i]->m_fd);
            vpOpen[i]->m_fd = -1;
        }
    }
}

void KvrsChild::Consume(const char* pch, size_t cch)
{
    m_strPending.append(pch, cch);
    size_t iNl;
    while ((iNl = m_strPending.find('\n')) != std::string::npos) {
        OnLine(m_strPending.substr(0, iNl));
        m_strPending.erase(0, iNl + 1);
    }
}

void KvrsChild::OnLine(const std::string& strLine)
{
    for (const char* pszPrefix : kapszReportPrefixes)
        if (strLine.compare(0, strlen(pszPrefix), pszPrefix) == 0) {
            m_vstrReports.push_back(strLine);
            return;
        }
    if (m_vstrSeen.size() < 64)  // enough to recognise start-up lines
        m_vstrSeen.push_back(strLine);
    if (m_pfnLine)
        m_pfnLine(strLine);
    else if (m_bEcho)
        printf("%-10s %s\n", ("[" + m_strName + "]").c_str(), strLine.c_str());
    fflush(stdout);
}
