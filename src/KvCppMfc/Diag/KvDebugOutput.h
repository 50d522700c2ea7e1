// KvDebugOutput.h - diagnostics: the per-process debug file, the error window,
// internal-consistency reports, KvThrow and the texts of hardware exceptions.
//
// Nothing here raises except KvThrow (and KvGranThrow through it). Message boxes,
// tones and the error window go through one replaceable sink (KvUiSink): by default
// a box is written to standard error in one write, a tone does nothing visible and
// the error window is an in-memory list of the newest 100 lines, also written to
// standard error. In test mode the sink only counts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct KvFaultInfo;

// ---------------------------------------------------------------------------
// The sink for boxes, tones and the error window.
// ---------------------------------------------------------------------------
struct KvUiSink {
    void (*pfnMessageBox)(const char* pszText, const char* pszCaption);
    void (*pfnBeep)(unsigned dwFreq, unsigned dwMs);
    void (*pfnErrorWindow)(const char* pszLine);
};
KvUiSink KvSetUiSink(const KvUiSink& sink);  // returns the sink it replaces
const KvUiSink& KvGetUiSink();
void KvMessageBox(const char* pszText, const char* pszCaption);
void KvBeep(unsigned dwFreq, unsigned dwMs);

// ---------------------------------------------------------------------------
// The debug output (one object per process).
// ---------------------------------------------------------------------------
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

// The error window: newest line first, at most 100 lines.
void _ErrorOutputToWnd(const char* pszText, const char* pszFile, unsigned long nLine);
std::vector<std::string> KvErrorWindowLines();
void KvClearErrorWindow();

// "Internal data structures corrupted in\nfile: %s\nline: %u\nstatement: %s" in a
// box titled "ERROR". Returns; never raises.
void KvErrorBox(const char* pszStatement, const char* pszFile, unsigned long nLine);

// An internal-consistency report: the debug line, then the error box; execution goes on.
void KvAssertReport(const char* pszStatement, const char* pszFile, unsigned long nLine);

// Checks a condition and reports its own text when it fails. pszFile names the
// module (for example "KvRfrSvr/Internal").
#define KV_CHECK(cond, pszFile)                                   \
    do {                                                          \
        if (!(cond))                                              \
            KvAssertReport(#cond, (pszFile), __LINE__);           \
    } while (0)

// The object raised by KvThrow: the first 255 bytes of the text.
struct KvThrowText {
    char m_sz[256];
};

[[noreturn]] void KvThrow(const char* pszText);
void KvThrowSetTestMode(bool f);
bool KvThrowGetTestMode();

// Texts of hardware exceptions.
const char* KvExceptionCode2Text(unsigned long dwCode);
const char* KvExceptionInfo2Text(const KvFaultInfo& info);
