// KvToolProcess.h - runs the built kvrs (and the examples) as real processes.
// Output goes to files, so a chatty child never blocks on a full pipe.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

struct KvToolResult {
    int iStatus = -1;  // exit status, 128 + signal, or -1 when it hung
    std::string strOut;
    std::string strErr;
};

class KvToolProcess {
public:
    KvToolProcess() = default;
    ~KvToolProcess();
    KvToolProcess(const KvToolProcess&) = delete;
    KvToolProcess& operator=(const KvToolProcess&) = delete;

    // Starts strExe with args; strStdinFile ("" for /dev/null) becomes its input.
    bool Start(const std::string& strExe, const std::vector<std::string>& args,
               const std::string& strStdinFile = "");
    // Waits until the output (or error output) holds strText; false after cms.
    bool WaitForText(const std::string& strText, bool bStderr, int cms = 10000) const;
    void Signal(int sig) const;
    // Waits for the exit (killing it after cms) and collects the output.
    KvToolResult Finish(int cms = 20000);
    std::string Out() const;
    std::string Err() const;

private:
    pid_t m_pid = -1;
    std::string m_strOutFile;
    std::string m_strErrFile;
};

// Runs kvrs to its end.
KvToolResult KvTool(const std::vector<std::string>& args, const std::string& strStdinFile = "");
// Starts `kvrs serve` and waits until it serves.
bool KvToolServe(KvToolProcess& serve);
// Number of lines in str.
size_t KvToolLineCount(const std::string& str);
