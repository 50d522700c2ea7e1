// KvErrorReport.cpp - message boxes, tones and the error window (through one
// replaceable sink), internal-consistency reports and KvThrow.
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "../KvInitOrder.h"
#include "../Platform/KvProcess.h"
#include "KvDiag.h"

namespace {

std::mutex s_mtxWindow;                               // guards additions to the error window
KV_INIT_STATICS std::deque<std::string> s_lstWindow;  // newest first, at most 100 lines
bool s_fThrowTestMode = false;
void (*s_pfnStatisticsDump)() = nullptr;  // the pools' memory state, once they are attached

// A box is caption, ": ", text and a newline, in one write so that lines of
// several processes do not interleave.
void KvStderrMessageBox(const char* pszText, const char* pszCaption)
{
    std::string str = std::string(pszCaption != nullptr ? pszCaption : "") + ": " + (pszText != nullptr ? pszText : "");
    str += '\n';
    KvWriteStderr(str.data(), str.size());
}

void KvSilentBeep(unsigned, unsigned) {}

void KvStderrErrorWindow(const char* pszLine)
{
    std::string str = pszLine != nullptr ? pszLine : "";
    if (str.empty() || str.back() != '\n')
        str += '\n';
    KvWriteStderr(str.data(), str.size());
}

KvUiSink s_sink = {&KvStderrMessageBox, &KvSilentBeep, &KvStderrErrorWindow};

}  // namespace

KvUiSink KvSetUiSink(const KvUiSink& sink)
{
    KvUiSink old = s_sink;
    s_sink = sink;
    return old;
}

const KvUiSink& KvGetUiSink()
{
    return s_sink;
}

void KvMessageBox(const char* pszText, const char* pszCaption)
{
    if (s_sink.pfnMessageBox != nullptr)
        s_sink.pfnMessageBox(pszText, pszCaption);
}

void KvBeep(unsigned dwFreq, unsigned dwMs)
{
    if (s_sink.pfnBeep != nullptr)
        s_sink.pfnBeep(dwFreq, dwMs);
}

void _ErrorOutputToWnd(const char* pszText, const char* pszFile, unsigned long nLine)
{
    if (KvDebugOutput::sm_bTestMode) {
        ++KvDebugOutput::sm_cCalls2ErrorOutput;
        return;
    }
    {
        std::lock_guard<std::mutex> lock(s_mtxWindow);
        while (s_lstWindow.size() > 99)
            s_lstWindow.pop_back();
        s_lstWindow.emplace_front(pszText != nullptr ? pszText : "");
        if (s_sink.pfnErrorWindow != nullptr)
            s_sink.pfnErrorWindow(pszText);
    }
    _DebugOutput(pszText, pszFile, nLine);
}

std::vector<std::string> KvErrorWindowLines()
{
    std::lock_guard<std::mutex> lock(s_mtxWindow);
    return std::vector<std::string>(s_lstWindow.begin(), s_lstWindow.end());
}

void KvClearErrorWindow()
{
    std::lock_guard<std::mutex> lock(s_mtxWindow);
    s_lstWindow.clear();
}

void KvErrorBox(const char* pszStatement, const char* pszFile, unsigned long nLine)
{
    char sz[1200];
    snprintf(sz, sizeof(sz), "Internal data structures corrupted in\nfile: %s\nline: %lu\nstatement: %s",
             pszFile != nullptr ? pszFile : "", nLine, pszStatement != nullptr ? pszStatement : "");
    if (KvDebugOutput::sm_bTestMode) {
        ++KvDebugOutput::sm_cCalls2ErrorOutput;
        return;
    }
    KvMessageBox(sz, "ERROR");
}

void KvAssertReport(const char* pszStatement, const char* pszFile, unsigned long nLine)
{
    _DebugOutput(pszStatement, pszFile, nLine);
    KvErrorBox(pszStatement, pszFile, nLine);
}

void KvThrowSetTestMode(bool f)
{
    s_fThrowTestMode = f;
}

bool KvThrowGetTestMode()
{
    return s_fThrowTestMode;
}

size_t KvCutAtCharBoundary(const char* psz, size_t cchMax)
{
    size_t cch = strlen(psz);
    if (cch <= cchMax)
        return cch;
    cch = cchMax;
    while (cch > 0 && (static_cast<unsigned char>(psz[cch]) & 0xC0) == 0x80)
        --cch;
    return cch;
}

void KvThrow(const char* pszText)
{
    if (pszText == nullptr)
        pszText = "";
    _DebugOutput("*********************KvThrow**************************");
    _DebugOutput(pszText);
    FlushDebug();
    if (!s_fThrowTestMode) {
        static const unsigned s_aFreq[7] = {220, 440, 880, 440, 220, 440, 880};
        for (unsigned dwFreq : s_aFreq)
            KvBeep(dwFreq, 500);
        if (s_pfnStatisticsDump != nullptr)
            s_pfnStatisticsDump();
        KvMessageBox(pszText, KvApplicationPath().c_str());
    }
    KvThrowText ex;
    const size_t cch = KvCutAtCharBoundary(pszText, sizeof(ex.m_sz) - 1);
    memcpy(ex.m_sz, pszText, cch);
    ex.m_sz[cch] = '\0';
    throw ex;
}

void KvSetStatisticsDump(void (*pfnDump)())
{
    s_pfnStatisticsDump = pfnDump;
}
