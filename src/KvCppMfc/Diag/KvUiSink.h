// KvUiSink.h - message boxes, tones and the error window go through one
// replaceable sink: by default a box is written to standard error in one
// write, a tone does nothing visible and an error-window line is written to
// standard error. Tests replace it to see what would be shown.
#pragma once

struct KvUiSink {
    void (*pfnMessageBox)(const char* pszText, const char* pszCaption);
    void (*pfnBeep)(unsigned dwFreq, unsigned dwMs);
    void (*pfnErrorWindow)(const char* pszLine);
};
KvUiSink KvSetUiSink(const KvUiSink& sink);  // returns the sink it replaces
const KvUiSink& KvGetUiSink();
void KvMessageBox(const char* pszText, const char* pszCaption);
void KvBeep(unsigned dwFreq, unsigned dwMs);
