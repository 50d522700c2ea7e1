// KvProcess.cpp - see KvProcess.h: process and thread ids, clocks, the
// executable's path, standard error and fork handlers.
#include "KvProcess.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

static uint32_t s_dwPid = 0;
static void KvRegisterForkHandlers();

uint32_t KvGetCurrentProcessId()
{
    if (s_dwPid == 0) {
        // The fork handler that refreshes the cache is registered before the cache
        // is first filled, so a fork child never reports its parent's id.
        KvRegisterForkHandlers();
        s_dwPid = static_cast<uint32_t>(getpid());
    }
    return s_dwPid;
}

// Cached per thread: the robust mutexes compare it with the owner in the lock
// word on every lock. A fork child's thread gets the cache cleared.
static thread_local uint32_t t_dwTid = 0;

uint32_t KvGetCurrentThreadId()
{
    if (t_dwTid == 0) {
        KvRegisterForkHandlers();
        t_dwTid = static_cast<uint32_t>(syscall(SYS_gettid));
    }
    return t_dwTid;
}

bool KvIsProcessAlive(uint32_t dwPid)
{
    return dwPid != 0 && (kill(static_cast<pid_t>(dwPid), 0) == 0 || errno == EPERM);
}

uint32_t KvGetTickCount()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint32_t>(static_cast<uint64_t>(ts.tv_sec) * 1000u +
                                 static_cast<uint64_t>(ts.tv_nsec) / 1000000u);
}

std::string KvUtcTimeText()
{
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    tm tmUtc;
    time_t t = ts.tv_sec;
    gmtime_r(&t, &tmUtc);
    char sz[96];
    snprintf(sz, sizeof(sz), "%04d-%02d-%02d %02d:%02d:%02d.%03ld", tmUtc.tm_year + 1900, tmUtc.tm_mon + 1,
             tmUtc.tm_mday, tmUtc.tm_hour, tmUtc.tm_min, tmUtc.tm_sec, static_cast<long>(ts.tv_nsec / 1000000));
    return sz;
}

const std::string& KvApplicationPath()
{
    static const std::string s_str = [] {
        char sz[PATH_MAX + 1];
        ssize_t cch = readlink("/proc/self/exe", sz, PATH_MAX);
        return cch > 0 ? std::string(sz, static_cast<size_t>(cch)) : std::string();
    }();
    return s_str;
}

int KvGetLastError()
{
    return errno;
}

void KvWriteStderr(const char* pch, size_t cch)
{
    while (cch > 0) {
        ssize_t c = write(STDERR_FILENO, pch, cch);
        if (c < 0 && errno == EINTR)
            continue;
        if (c <= 0)
            return;
        pch += c;
        cch -= static_cast<size_t>(c);
    }
}

namespace {
struct KvForkHandlers {
    std::vector<void (*)()> vPrepare, vParent, vChild;
};

KvForkHandlers& KvGetForkHandlers()
{
    static KvForkHandlers s_handlers;
    return s_handlers;
}

void KvForkPrepare()
{
    const auto& v = KvGetForkHandlers().vPrepare;
    for (auto it = v.rbegin(); it != v.rend(); ++it)  // reverse order, as pthread_atfork does
        (*it)();
}

void KvForkParent()
{
    for (auto pfn : KvGetForkHandlers().vParent)
        pfn();
}

void KvForkChild()
{
    s_dwPid = static_cast<uint32_t>(getpid());
    t_dwTid = 0;
    for (auto pfn : KvGetForkHandlers().vChild)
        pfn();
}
}  // namespace

static void KvRegisterForkHandlers()
{
    static std::once_flag s_once;
    std::call_once(s_once, [] { pthread_atfork(&KvForkPrepare, &KvForkParent, &KvForkChild); });
}

void KvAtFork(void (*pfnPrepare)(), void (*pfnParent)(), void (*pfnChild)())
{
    KvRegisterForkHandlers();
    KvForkHandlers& h = KvGetForkHandlers();
    if (pfnPrepare != nullptr)
        h.vPrepare.push_back(pfnPrepare);
    if (pfnParent != nullptr)
        h.vParent.push_back(pfnParent);
    if (pfnChild != nullptr)
        h.vChild.push_back(pfnChild);
}

void KvAtForkChild(void (*pfn)())
{
    KvAtFork(nullptr, nullptr, pfn);
}
