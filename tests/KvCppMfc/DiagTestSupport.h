// DiagTestSupport.h - a temporary debug file for one test, read back as the
// texts of its lines (each line without the prefix of time, process, thread and
// last error).
#pragma once

#include <unistd.h>

#include <string>
#include <vector>

#include "KvCppMfc/Diag/KvDiag.h"
#include "common/KvTestSupport.h"

// The text after each line's prefix ("... E=<n>: "); lines without one stay whole.
inline std::vector<std::string> KvDebugFileTexts(const std::string& strPath)
{
    const std::string str = KvTestReadFile(strPath);
    std::vector<std::string> v;
    for (size_t i = 0, iEnd; i < str.size(); i = iEnd + 1) {
        iEnd = str.find('\n', i);
        if (iEnd == std::string::npos)
            iEnd = str.size();
        std::string strLine = str.substr(i, iEnd - i);
        const size_t iErr = strLine.find(" E=");
        const size_t iText = iErr == std::string::npos ? std::string::npos : strLine.find(": ", iErr);
        v.push_back(iText == std::string::npos ? strLine : strLine.substr(iText + 2));
    }
    return v;
}

// Opens a fresh temporary debug file for its lifetime.
struct KvTempDebugFile {
    explicit KvTempDebugFile(unsigned long cbLimit = 1u << 20) : m_strPath(KvTestTempFile())
    {
        OpenDebug(m_strPath.c_str(), cbLimit);
    }
    ~KvTempDebugFile()
    {
        CloseDebug();
        unlink(m_strPath.c_str());
    }
    std::vector<std::string> Texts() const { return KvDebugFileTexts(m_strPath); }
    std::string m_strPath;
};
