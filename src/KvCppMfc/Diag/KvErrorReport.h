// KvErrorReport.h - internal-consistency reports: a debug line and an error box,
// after which execution goes on.
#pragma once

// "Internal data structures corrupted in\nfile: %s\nline: %u\nstatement: %s" in a
// box titled "ERROR". Returns; never raises.
void KvErrorBox(const char* pszStatement, const char* pszFile, unsigned long nLine);

// An internal-consistency report: the debug line, then the error box; execution goes on.
void KvAssertReport(const char* pszStatement, const char* pszFile, unsigned long nLine);

// Checks a condition and reports its own text when it fails. pszFile names the
// module (for example "KvRfrSvr/Internal").
#define KV_CHECK(cond, pszFile)                         \
    do {                                                \
        if (!(cond))                                    \
            KvAssertReport(#cond, (pszFile), __LINE__); \
    } while (0)
