// KvDebugOutput.h - the per-process debug file: switched on and sized by an
// environment variable, written as a ring, one prefixed line per output, and
// the return-code helpers that write to it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The debug output (one object per process).
class KvDebugOutput {
public:
    uint32_t m_cbLimit = 0;
    char m_szPath[260] = {};
    int m_fd = -1;

    static KvDebugOutput& Instance();

    static inline bool sm_bTestMode = false;
    static inline long sm_cCalls2DebugOutput = 0;
    static inline long sm_cCalls2ErrorOutput = 0;
    static void SetTestMode(bool f) { sm_bTestMode = f; }
    static void ResetTestModeCounters()
    {
        sm_cCalls2DebugOutput = 0;
        sm_cCalls2ErrorOutput = 0;
    }
    static long GetDebugOutputCount() { return sm_cCalls2DebugOutput; }
    static long GetErrorOutputCount() { return sm_cCalls2ErrorOutput; }
};

bool OpenDebugEx(const char* pszDefaultPath, const char* pszEnvName);
unsigned long OpenDebug(const char* pszPath, unsigned long cbLimit);
void SetDebugFile(const char* pszPath);
unsigned long FlushDebug();
unsigned long CloseDebug();
unsigned long Write(const char* p1, unsigned long c1, const char* p2, unsigned long c2);
unsigned long _DebugOutput(const char* pszText, const char* pszFile, unsigned long nLine);
unsigned long _DebugOutput(const char* pszText);
// printf-style convenience over _DebugOutput(text).
unsigned long KvDebugPrintf(const char* pszFormat, ...) __attribute__((format(printf, 1, 2)));

unsigned long _DebugOutputRc(const char* pszFile, unsigned long nLine, unsigned long rc);
unsigned long _DebugOutputRcOk(const char* pszFile, unsigned long nLine, unsigned long rc, unsigned long rcOk);
unsigned long _DebugOutputRcErr(const char* pszFile, unsigned long nLine, unsigned long rc, unsigned long rcErr);
unsigned long _DebugOutputRcWin(const char* pszFile, unsigned long nLine);
unsigned long _DebugOutputWithoutRc(const char* pszFile, unsigned long nLine);
