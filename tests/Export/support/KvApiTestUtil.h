// KvApiTestUtil.h - small helpers of the API tests: capturing standard error
// around a call, and the root reference that every process of a test adds so
// that its exit (which releases one root reference) leaves the tree to others.
#pragma once

#include <string>

#include "KvRfrSvr.h"

// Redirects file descriptor 2 into a temporary file until Stop(), which returns
// what was written.
class KvStderrCapture {
public:
    KvStderrCapture();
    ~KvStderrCapture();
    std::string Stop();

private:
    int m_fdSaved = -1;
    int m_fdFile = -1;
};

// Number of non-overlapping occurrences of strWhat in str.
int KvCountOf(const std::string& str, const std::string& strWhat);

// Adds this process's own root reference (released again by its exit).
void KvKeepTreeAlive();

// True when another process can make an exported call within cSeconds (the
// global mutex is free or is freed in time).
bool KvMutexFreeForOthers(int cSeconds = 10);
