// KvToolProcess.h - runs the built kvrs (and the examples) as real processes.
// Output goes to files, so a chatty child never blocks on a full pipe.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "common/KvTestSupport.h"

struct KvToolResult {
    int iStatus = -1;  // exit status, 128 + signal, or -1 when it hung (killed)
    std::string strOut;
    std::string strErr;
};

class KvToolProcess {
public:
    KvToolProcess(const std::string& strExe, const std::vector<std::string>& args, const std::string& strIn = "")
    {
        std::vector<std::string> argv{strExe};
        argv.insert(argv.end(), args.begin(), args.end());
        m_pid = KvTestSpawnExe(argv, strIn.empty() ? "/dev/null" : strIn, m_strOut, m_strErr);
    }
    ~KvToolProcess()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        unlink(m_strOut.c_str());
        unlink(m_strErr.c_str());
    }
    // Waits until the output (or error output) holds strText; false after 10 s
    // or when the process ended without writing it.
    bool WaitForText(const std::string& strText, bool bStderr = false) const
    {
        for (int i = 0; i < 5000; ++i) {
            siginfo_t info{};
            const bool bEnded = waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
                                info.si_pid != 0;
            if (KvTestReadFile(bStderr ? m_strErr : m_strOut).find(strText) != std::string::npos)
                return true;
            if (bEnded)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return false;
    }
    void Signal(int sig) const { kill(m_pid, sig); }
    // Waits for the exit (killing it after cSeconds) and collects the output.
    KvToolResult Finish(int cSeconds = 20)
    {
        const int iStatus = KvTestWait(m_pid, cSeconds);
        m_pid = -1;
        return KvToolResult{iStatus, KvTestReadFile(m_strOut), KvTestReadFile(m_strErr)};
    }

private:
    std::string m_strOut = KvTestTempFile(), m_strErr = KvTestTempFile();
    pid_t m_pid = -1;
};

// Runs kvrs to its end.
inline KvToolResult KvTool(const std::vector<std::string>& args, const std::string& strIn = "")
{
    return KvToolProcess(KVRS_EXE, args, strIn).Finish();
}

inline size_t KvToolLineCount(const std::string& str)
{
    return static_cast<size_t>(std::count(str.begin(), str.end(), '\n'));
}
