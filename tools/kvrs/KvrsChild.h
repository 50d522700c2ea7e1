// KvrsChild.h - child processes of `kvrs demo`: kvrs itself run with other
// arguments in another namespace, its standard output and error read line by
// line through one pipe.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

class KvrsChild {
public:
    KvrsChild(std::string strName, bool bEcho) : m_strName(std::move(strName)), m_bEcho(bEcho) {}
    ~KvrsChild();
    KvrsChild(const KvrsChild&) = delete;
    KvrsChild& operator=(const KvrsChild&) = delete;

    // Starts this executable with args and the namespace in its environment.
    bool Start(const std::vector<std::string>& vstrArgs, const std::string& strNamespace);
    // Sends SIGTERM (once).
    void Stop();
    // Collects the exit status if the child has ended; true when it has.
    bool Reap();
    // Waits up to cms milliseconds for the exit; kills it when it does not end.
    int Wait(int cms);

    const std::string& Name() const { return m_strName; }
    pid_t Pid() const { return m_pid; }
    bool Running() const { return m_pid > 0 && !m_bExited; }
    // Lines that start with "SUMMARY ", "LATENCY " and the like: kept, not shown.
    const std::vector<std::string>& Reports() const { return m_vstrReports; }
    bool SawLine(const std::string& strPrefix) const;

    // Reads what the children wrote, for up to cms milliseconds, and shows each
    // complete line prefixed with its child's name (or passes it to pfnLine).
    static void Pump(const std::vector<KvrsChild*>& vpChildren, int cms);

    std::function<void(const std::string&)> m_pfnLine;  // replaces the shown line

private:
    void Consume(const char* pch, size_t cch);
    void OnLine(const std::string& strLine);

    std::string m_strName;
    bool m_bEcho;
    pid_t m_pid = -1;
    int m_fd = -1;
    bool m_bExited = false;
    bool m_bStopped = false;
    int m_iStatus = -1;
    std::string m_strPending;
    std::vector<std::string> m_vstrReports;
    std::vector<std::string> m_vstrSeen;
};
