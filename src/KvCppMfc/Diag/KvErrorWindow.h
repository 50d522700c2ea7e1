// KvErrorWindow.h - the error window: an in-memory list of the newest 100 lines,
// newest first, each also shown through the sink.
#pragma once

#include <string>
#include <vector>

// The error window: newest line first, at most 100 lines.
void _ErrorOutputToWnd(const char* pszText, const char* pszFile, unsigned long nLine);
std::vector<std::string> KvErrorWindowLines();
void KvClearErrorWindow();
