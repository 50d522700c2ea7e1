// KvDebugOutput.cpp - the debug file: switched and sized by an environment
// variable, written as a ring that restarts at the beginning before it passes its
// size limit, one prefixed line per output.
#include "KvDebugOutput.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "../Platform/KvFile.h"
#include "../Platform/KvProcess.h"

KvDebugOutput& KvDebugOutput::Instance()
{
    static KvDebugOutput s_out;
    return s_out;
}

static void KvRecordPath(const char* pszPath)
{
    snprintf(KvDebugOutput::Instance().m_szPath, sizeof(KvDebugOutput::Instance().m_szPath), "%s", pszPath);
}

void SetDebugFile(const char* pszPath)
{
    if (pszPath != nullptr)
        KvRecordPath(pszPath);
}

static int KvOpenDebugFile(const char* pszPath)
{
    return KvFileOpenReadWrite(pszPath);
}

// The limit is a 32-bit byte count. A larger value, or one that strtoull wraps
// (a negative text), means "as large as possible" rather than its low 32 bits,
// which could be 0 and would put every line at offset 0.
static uint32_t KvDebugLimitClamped(unsigned long long cb)
{
    return cb > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(cb);
}

// The variable's decimal value: 0 (no file) for an empty or non-numeric text.
static uint32_t KvDebugLimitFromText(const char* psz)
{
    errno = 0;
    const unsigned long long cb = strtoull(psz, nullptr, 10);
    return errno == ERANGE ? UINT32_MAX : KvDebugLimitClamped(cb);
}

static void KvWriteDebugHeader(const char* pszDefaultPath)
{
    const std::string strStars(70, '*');
    _DebugOutput(strStars.c_str());
    _DebugOutput(KvUtcTimeText().c_str());
    _DebugOutput(pszDefaultPath);
    _DebugOutput(strStars.c_str());
}

bool OpenDebugEx(const char* pszDefaultPath, const char* pszEnvName)
{
    const char* pszDir = getenv("KVLOGFILEDIR");
    std::string strDir = pszDir != nullptr ? pszDir : "./";
    if (strDir.empty() || strDir.back() != '/')
        strDir += '/';
    const char* pszEnv = pszEnvName != nullptr ? getenv(pszEnvName) : nullptr;
    if (pszEnv == nullptr)
        return false;
    const uint32_t cbLimit = KvDebugLimitFromText(pszEnv);
    if (cbLimit == 0)
        return false;
    // The log directory joined with the file name (and extension) of the default path.
    const std::string strDefault = pszDefaultPath != nullptr ? pszDefaultPath : "";
    const size_t iSlash = strDefault.find_last_of('/');
    const std::string strFile = iSlash == std::string::npos ? strDefault : strDefault.substr(iSlash + 1);
    KvDebugOutput& out = KvDebugOutput::Instance();
    out.m_cbLimit = cbLimit;
    KvRecordPath((strDir + strFile).c_str());
    if (out.m_fd >= 0)
        KvFileClose(out.m_fd);
    out.m_fd = KvOpenDebugFile(out.m_szPath);
    if (out.m_fd < 0)
        return false;
    KvWriteDebugHeader(strDefault.c_str());
    return true;
}

unsigned long OpenDebug(const char* pszPath, unsigned long cbLimit)
{
    KvDebugOutput& out = KvDebugOutput::Instance();
    if (pszPath == nullptr)
        return static_cast<unsigned long>(-1);
    KvRecordPath(pszPath);
    out.m_cbLimit = KvDebugLimitClamped(cbLimit);
    if (out.m_fd >= 0)
        KvFileClose(out.m_fd);
    out.m_fd = KvOpenDebugFile(out.m_szPath);
    return static_cast<unsigned long>(out.m_fd);
}

unsigned long FlushDebug()
{
    KvDebugOutput& out = KvDebugOutput::Instance();
    if (out.m_fd < 0)
        return static_cast<unsigned long>(-1);
    return static_cast<unsigned long>(KvFileSync(out.m_fd));
}

unsigned long CloseDebug()
{
    KvDebugOutput& out = KvDebugOutput::Instance();
    if (out.m_fd >= 0)
        KvFileClose(out.m_fd);
    out.m_fd = -1;
    return 0;
}

static unsigned long KvWriteAll(int fd, const char* pch, size_t cch)
{
    return static_cast<unsigned long>(KvFileWriteAll(fd, pch, cch));
}

unsigned long Write(const char* p1, unsigned long c1, const char* p2, unsigned long c2)
{
    KvDebugOutput& out = KvDebugOutput::Instance();
    if (out.m_fd < 0)
        return 0;
    unsigned long c = KvWriteAll(out.m_fd, p1, c1);
    c += KvWriteAll(out.m_fd, p2, c2);
    if (c2 == 0 || p2[c2 - 1] != '\n')
        c += KvWriteAll(out.m_fd, "\n", 1);
    return c;
}

unsigned long _DebugOutput(const char* pszText, const char* pszFile, unsigned long nLine)
{
    if (KvDebugOutput::sm_bTestMode)
        ++KvDebugOutput::sm_cCalls2DebugOutput;
    KvDebugOutput& out = KvDebugOutput::Instance();
    if (out.m_fd < 0)
        return 0;  // nothing to write to: skip building the prefix
    const int iLastError = KvGetLastError();
    char szPrefix[400];
    int cch = 0;
    // snprintf reports the length it wanted; a long file name is cut, never overrun.
    auto clamp = [&] { cch = cch < 0 ? 0 : std::min(cch, static_cast<int>(sizeof(szPrefix)) - 1); };
    if (pszFile != nullptr)
        cch = snprintf(szPrefix, sizeof(szPrefix), "%s(%lu): ", pszFile, nLine);
    clamp();
    cch += snprintf(szPrefix + cch, sizeof(szPrefix) - static_cast<size_t>(cch),
                    "%.15g %s P=%u T=%x E=%d: ", KvGetTickCount() * 0.001, KvUtcTimeText().c_str(),
                    KvGetCurrentProcessId(), KvGetCurrentThreadId(), iLastError);
    clamp();
    if (pszText == nullptr)
        pszText = "DebugOutput called with NULL-pointer message";
    const size_t cchText = strlen(pszText);
    const int64_t pos = KvFileTell(out.m_fd);
    if (pos < 0) {
        static const char szWarn[] = "!!!!!!!!! DebugOutput-Filepointer == -1 !!!!!!!!!\r\n";
        KvWriteAll(out.m_fd, szWarn, sizeof(szWarn) - 1);
        CloseDebug();
        return 0;
    }
    // A ring: start again at the beginning rather than pass the limit.
    if (static_cast<uint64_t>(pos) + static_cast<uint64_t>(cch) + cchText + 10 > out.m_cbLimit)
        KvFileRewind(out.m_fd);
    return Write(szPrefix, static_cast<unsigned long>(cch), pszText, static_cast<unsigned long>(cchText));
}

unsigned long _DebugOutput(const char* pszText)
{
    return _DebugOutput(pszText, nullptr, 0);
}

unsigned long KvDebugPrintf(const char* pszFormat, ...)
{
    char sz[1024];
    va_list args;
    va_start(args, pszFormat);
    vsnprintf(sz, sizeof(sz), pszFormat, args);
    va_end(args);
    return _DebugOutput(sz);
}

// --- return-code helpers -----------------------------------------------------

static unsigned long KvDebugRc(const char* pszFile, unsigned long nLine, unsigned long rc)
{
    char sz[400];
    snprintf(sz, sizeof(sz), "%s(%lu): Wrong rc=%0lx LastErr=%0x\r\n", pszFile, nLine, rc,
             static_cast<unsigned>(KvGetLastError()));
    return _DebugOutput(sz);
}

unsigned long _DebugOutputRc(const char* pszFile, unsigned long nLine, unsigned long rc)
{
    if (rc != 0)
        KvDebugRc(pszFile, nLine, rc);
    return rc;
}

unsigned long _DebugOutputRcOk(const char* pszFile, unsigned long nLine, unsigned long rc, unsigned long rcOk)
{
    if (rc != rcOk)
        KvDebugRc(pszFile, nLine, rc);
    return rc == rcOk ? rcOk : rc;
}

unsigned long _DebugOutputRcErr(const char* pszFile, unsigned long nLine, unsigned long rc, unsigned long rcErr)
{
    if (rc == rcErr)
        KvDebugRc(pszFile, nLine, rc);
    return rcErr;
}

unsigned long _DebugOutputRcWin(const char* pszFile, unsigned long nLine)
{
    const int iErr = KvGetLastError();
    if (iErr == 0)
        return 0;
    char sz[400];
    snprintf(sz, sizeof(sz), "%s(%lu): WinLastErr=%0x\r\n", pszFile, nLine, static_cast<unsigned>(iErr));
    return _DebugOutput(sz);
}

unsigned long _DebugOutputWithoutRc(const char* pszFile, unsigned long nLine)
{
    char sz[400];
    snprintf(sz, sizeof(sz), "Wrong rc in File %s(%lu)\r\n", pszFile, nLine);
    return _DebugOutput(sz);
}
