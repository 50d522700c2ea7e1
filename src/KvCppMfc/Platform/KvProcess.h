// KvProcess.h - process and thread ids, clocks, the executable's path, standard
// error and fork handlers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// getpid(), cached (and refreshed in a fork child), so that hot paths make no
// system call.
uint32_t KvGetCurrentProcessId();
uint32_t KvGetCurrentThreadId();
bool KvIsProcessAlive(uint32_t dwPid);

// Milliseconds since system start (monotonic, wraps at 2^32 like a tick count).
uint32_t KvGetTickCount();

// "YYYY-MM-DD hh:mm:ss.mmm" in UTC: the sortable time text of debug lines.
std::string KvUtcTimeText();

// Full path of the running executable (from /proc/self/exe); "" if unknown.
const std::string& KvApplicationPath();

// Last error of this thread (errno).
int KvGetLastError();

// Writes the bytes to standard error in one write(2) call.
void KvWriteStderr(const char* pch, size_t cch);

// Registers functions run in the child after fork(), in registration order (after
// the cached process id was refreshed).
void KvAtForkChild(void (*pfn)());
// The same for all three phases of fork(); any of them may be null. Prepare
// handlers run in the parent before fork, parent handlers in the parent after it.
void KvAtFork(void (*pfnPrepare)(), void (*pfnParent)(), void (*pfnChild)());
