// KvPlatform.cpp - POSIX implementation of the platform layer.
#include "KvPlatform.h"

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
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

// ---------------------------------------------------------------------------
// Names
// ---------------------------------------------------------------------------

std::string KvNamespace()
{
    const char* psz = getenv("KVRFRSVR_NAMESPACE");
    if (psz != nullptr && *psz != '\0')
        return psz;
    return "u" + std::to_string(static_cast<unsigned long>(getuid()));
}

std::string KvNamespaceSuffix()
{
    return "." + KvNamespace() + "." + std::to_string(KvWordSize());
}

static uint64_t KvFnv1a(const std::string& str)
{
    uint64_t h = 1469598103934665603ull;
    for (unsigned char ch : str)
        h = (h ^ ch) * 1099511628211ull;
    return h;
}

std::string KvObjectName(const char* pszName)
{
    std::string strBase = pszName != nullptr ? pszName : "";
    for (char& ch : strBase)
        if (ch == '/' || static_cast<unsigned char>(ch) < 0x20)
            ch = '_';
    const std::string strSuffix = KvNamespaceSuffix();
    // Leave room for the leading "/" and a 17-character hash tag.
    const size_t cchMax = NAME_MAX - strSuffix.size() - 18;
    if (strBase.size() > cchMax) {
        char szHash[20];
        snprintf(szHash, sizeof(szHash), "~%016llx",
                 static_cast<unsigned long long>(KvFnv1a(strBase)));
        strBase = strBase.substr(0, cchMax) + szHash;
    }
    return "/" + strBase + strSuffix;
}

static bool KvIsMutexObject(const std::string& strName);

int KvUnlinkNamespaceObjects(const std::string& strKeep, bool fKeepMutexes)
{
    const std::string strSuffix = KvNamespaceSuffix();
    DIR* pdir = opendir("/dev/shm");
    if (pdir == nullptr)
        return 0;
    std::vector<std::string> names;
    while (dirent* pent = readdir(pdir)) {
        const std::string strName = pent->d_name;
        if (strName.size() > strSuffix.size() &&
            strName.compare(strName.size() - strSuffix.size(), strSuffix.size(), strSuffix) == 0)
            names.push_back("/" + strName);
    }
    closedir(pdir);
    int c = 0;
    for (const std::string& strName : names) {
        if (strName == strKeep || (fKeepMutexes && KvIsMutexObject(strName)))
            continue;
        if (shm_unlink(strName.c_str()) == 0)
            ++c;
    }
    return c;
}

// ---------------------------------------------------------------------------
// Shared-memory objects
// ---------------------------------------------------------------------------

bool KvShmObject::OpenOrCreate(const std::string& strName, size_t cb, bool fCreateOk, bool* pfCreated)
{
    *pfCreated = false;
    m_strName = strName;
    m_cb = cb;
    m_fd = shm_open(strName.c_str(), O_RDWR | O_CLOEXEC, 0600);
    if (m_fd < 0 && errno == ENOENT && fCreateOk) {
        m_fd = shm_open(strName.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (m_fd >= 0) {
            if (ftruncate(m_fd, static_cast<off_t>(cb)) != 0) {
                close(m_fd);
                shm_unlink(strName.c_str());
                m_fd = -1;
                return false;
            }
            *pfCreated = true;
        }
    }
    if (m_fd < 0)
        return false;
    if (!*pfCreated) {
        // An existing object keeps its own size; cb 0 accepts any size.
        struct stat st;
        if (fstat(m_fd, &st) != 0 || static_cast<size_t>(st.st_size) < cb) {
            close(m_fd);
            m_fd = -1;
            return false;
        }
        m_cb = static_cast<size_t>(st.st_size);
    }
    return true;
}

bool KvShmObject::Map()
{
    if (m_fd < 0)
        return false;
    void* pv = mmap(nullptr, m_cb, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, 0);
    if (pv == MAP_FAILED)
        return false;
    m_pv = pv;
    return true;
}

void KvShmObject::Unmap()
{
    if (m_pv != nullptr)
        munmap(m_pv, m_cb);
    m_pv = nullptr;
}

void KvShmObject::Close()
{
    Unmap();
    if (m_fd >= 0)
        close(m_fd);
    m_fd = -1;
}

bool KvShmObject::Reopen()
{
    const int fd = OpenAnotherDescription();
    if (fd >= 0)
        AdoptDescription(fd);  // the parent's description stays open (and locked) in the parent
    return fd >= 0;
}

int KvShmObject::OpenAnotherDescription() const
{
    return m_strName.empty() ? -1 : shm_open(m_strName.c_str(), O_RDWR | O_CLOEXEC, 0600);
}

void KvShmObject::AdoptDescription(int fd)
{
    if (m_fd >= 0 && m_fd != fd)
        close(m_fd);
    m_fd = fd;
}

bool KvShmObject::IsLinked() const
{
    struct stat stFd, stName;
    if (m_fd < 0 || fstat(m_fd, &stFd) != 0)
        return false;
    const std::string strPath = "/dev/shm" + m_strName;
    if (stat(strPath.c_str(), &stName) != 0)
        return false;
    return stFd.st_ino == stName.st_ino && stFd.st_dev == stName.st_dev;
}

bool KvShmObject::Unlink(const std::string& strName)
{
    return shm_unlink(strName.c_str()) == 0;
}

void* KvReserveMemory(size_t cb)
{
    void* pv = mmap(nullptr, cb, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return pv == MAP_FAILED ? nullptr : pv;
}

void KvReleaseMemory(void* pv, size_t cb)
{
    if (pv != nullptr)
        munmap(pv, cb);
}

bool KvFlockShared(int fd)
{
    while (flock(fd, LOCK_SH) != 0)
        if (errno != EINTR)
            return false;
    return true;
}

bool KvFlockTryExclusive(int fd)
{
    while (flock(fd, LOCK_EX | LOCK_NB) != 0)
        if (errno != EINTR)
            return false;
    return true;
}

void KvFlockUnlock(int fd)
{
    flock(fd, LOCK_UN);
}

void KvCloseDescriptor(int fd)
{
    if (fd >= 0)
        close(fd);
}

// ---------------------------------------------------------------------------
// Named lock (the namespace critical section)
// ---------------------------------------------------------------------------

static void KvInitThreadMutex(pthread_mutex_t* pmtx)
{
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(pmtx, &attr);
    pthread_mutexattr_destroy(&attr);
}

KvNamedLock::KvNamedLock()
{
    KvInitThreadMutex(&m_mtxThreads);
}

KvNamedLock::~KvNamedLock()
{
    Close();
}

bool KvNamedLock::Open(const char* pszName)
{
    if (m_fd >= 0)
        return true;
    m_strName = KvObjectName(pszName);
    m_fd = shm_open(m_strName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    return m_fd >= 0;
}

// Takes the flock of this description. The last process of a namespace unlinks
// the lock object while holding it; a waiter that then gets the lock of the
// unlinked object starts again on the object now under the name.
void KvNamedLock::LockDescription()
{
    for (;;) {
        if (m_fd < 0)
            return;
        while (flock(m_fd, LOCK_EX) != 0 && errno == EINTR) {
        }
        struct stat stFd, stName;
        const std::string strPath = "/dev/shm" + m_strName;
        if (fstat(m_fd, &stFd) == 0 && stat(strPath.c_str(), &stName) == 0 &&
            stFd.st_ino == stName.st_ino && stFd.st_dev == stName.st_dev)
            return;
        close(m_fd);
        m_fd = shm_open(m_strName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    }
}

void KvNamedLock::Lock()
{
    pthread_mutex_lock(&m_mtxThreads);
    if (m_cDepth++ == 0)
        LockDescription();
}

void KvNamedLock::Unlock()
{
    if (m_cDepth <= 0)
        return;  // not held by this process: nothing to release
    if (--m_cDepth == 0 && m_fd >= 0)
        flock(m_fd, LOCK_UN);
    pthread_mutex_unlock(&m_mtxThreads);
}

void KvNamedLock::Close()
{
    if (m_fd >= 0)
        close(m_fd);
    m_fd = -1;
}

void KvNamedLock::ResetAfterFork()
{
    // Only the forking thread exists in the child; whatever the parent's threads
    // held is not the child's.
    KvInitThreadMutex(&m_mtxThreads);
    m_cDepth = 0;
    if (m_fd < 0)
        return;
    close(m_fd);  // the parent's description (and any lock on it) stays the parent's
    m_fd = shm_open(m_strName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
}

// ---------------------------------------------------------------------------
// Named robust mutexes
// ---------------------------------------------------------------------------

struct KvSharedMutexObject {
    uint32_t dwReady;  // written last: an object without it was never initialised
    pthread_mutex_t mtx;
};

static const uint32_t kKvMutexReady = 0x4B564D58;  // "KVMX"

// A mutex object is recognised by its size and its ready mark.
static bool KvIsMutexObject(const std::string& strName)
{
    const int fd = shm_open(strName.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0)
        return false;
    struct stat st;
    uint32_t dwReady = 0;
    const bool f = fstat(fd, &st) == 0 && st.st_size == static_cast<off_t>(sizeof(KvSharedMutexObject)) &&
                   pread(fd, &dwReady, sizeof(dwReady), 0) == static_cast<ssize_t>(sizeof(dwReady)) &&
                   dwReady == kKvMutexReady;
    close(fd);
    return f;
}

bool KvNamedMutex::OpenOrCreate(const char* pszName, bool fRecursive)
{
    if (m_pmtx != nullptr)
        return true;
    bool fCreated = false;
    if (!m_shm.OpenOrCreate(KvObjectName(pszName), sizeof(KvSharedMutexObject), true, &fCreated) ||
        !m_shm.Map()) {
        m_shm.Close();
        return false;
    }
    auto* pobj = static_cast<KvSharedMutexObject*>(m_shm.m_pv);
    // Creation runs under the namespace critical section; an object that is not
    // marked ready was left half made by a process that died, and is made again.
    if (fCreated || pobj->dwReady != kKvMutexReady) {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
        pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
        pthread_mutexattr_settype(&attr, fRecursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_NORMAL);
        pthread_mutex_init(&pobj->mtx, &attr);
        pthread_mutexattr_destroy(&attr);
        __atomic_store_n(&pobj->dwReady, kKvMutexReady, __ATOMIC_RELEASE);
    }
    m_pmtx = &pobj->mtx;
    return true;
}

void KvNamedMutex::Close()
{
    m_pmtx = nullptr;
    m_shm.Close();
}

bool KvNamedMutex::Lock()
{
    if (m_pmtx == nullptr)
        return false;
    int rc = pthread_mutex_lock(m_pmtx);
    if (rc == EOWNERDEAD)
        pthread_mutex_consistent(m_pmtx);  // an abandoned mutex counts as acquired
    return true;
}

void KvNamedMutex::Unlock()
{
    if (m_pmtx != nullptr)
        pthread_mutex_unlock(m_pmtx);
}

// ---------------------------------------------------------------------------
// Process, thread, time, environment
// ---------------------------------------------------------------------------

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

uint32_t KvGetCurrentThreadId()
{
    return static_cast<uint32_t>(syscall(SYS_gettid));
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
    snprintf(sz, sizeof(sz), "%04d-%02d-%02d %02d:%02d:%02d.%03ld", tmUtc.tm_year + 1900,
             tmUtc.tm_mon + 1, tmUtc.tm_mday, tmUtc.tm_hour, tmUtc.tm_min, tmUtc.tm_sec,
             static_cast<long>(ts.tv_nsec / 1000000));
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

// ---------------------------------------------------------------------------
// Hardware faults
// ---------------------------------------------------------------------------

thread_local int t_cKvFaultFrames = 0;

// Kept out of line and free of cleanups, so the unwinder passes through this frame
// and memcpy's to the caller, which sees a call that may throw.
__attribute__((noinline)) void* KvCopyBytes(void* pvDst, const void* pvSrc, size_t cb)
{
    return memcpy(pvDst, pvSrc, cb);
}

static KvFaultThrower s_pfnFaultThrower = nullptr;
static struct sigaction s_aOldActions[4];
static const int s_aFaultSignals[4] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};

static uintptr_t KvInstructionPointer(const void* pvContext)
{
    if (pvContext == nullptr)
        return 0;
    const auto* puc = static_cast<const ucontext_t*>(pvContext);
#if defined(__x86_64__)
    return static_cast<uintptr_t>(puc->uc_mcontext.gregs[REG_RIP]);
#elif defined(__i386__)
    return static_cast<uintptr_t>(puc->uc_mcontext.gregs[REG_EIP]);
#else
    (void)puc;
    return 0;
#endif
}

KvFaultInfo KvFaultInfoFromSignal(int sig, const siginfo_t* psi, const void* pvContext)
{
    KvFaultInfo info{};
    info.pvAddress = KvInstructionPointer(pvContext);
    switch (sig) {
    case SIGSEGV: {
        info.dwCode = 0xC0000005;
        info.cParams = 2;
        uintptr_t fWrite = 0;
#if defined(__x86_64__) || defined(__i386__)
        // Bit 1 of the page-fault error code tells a write from a read.
        if (pvContext != nullptr)
            fWrite = (static_cast<const ucontext_t*>(pvContext)->uc_mcontext.gregs[REG_ERR] & 2) ? 1 : 0;
#endif
        info.aParams[0] = fWrite;
        info.aParams[1] = reinterpret_cast<uintptr_t>(psi != nullptr ? psi->si_addr : nullptr);
        break;
    }
    case SIGFPE: {
        static const struct {
            int iSiCode;
            uint32_t dwCode;
        } s_aCodes[] = {{FPE_INTDIV, 0xC0000094}, {FPE_INTOVF, 0xC0000095}, {FPE_FLTDIV, 0xC000008E},
                        {FPE_FLTOVF, 0xC0000091}, {FPE_FLTUND, 0xC0000093}, {FPE_FLTRES, 0xC000008F}};
        info.dwCode = 0xC0000090;  // any other floating-point fault
        for (const auto& code : s_aCodes)
            if (psi != nullptr && psi->si_code == code.iSiCode)
                info.dwCode = code.dwCode;
        break;
    }
    case SIGILL:
        info.dwCode = psi != nullptr && psi->si_code == ILL_PRVOPC ? 0xC0000096 : 0xC000001D;
        break;
    case SIGBUS:
        info.dwCode = 0xC0000006;
        break;
    default:
        info.dwCode = 0;
        break;
    }
    return info;
}

static void KvFaultSignalHandler(int sig, siginfo_t* psi, void* pvContext)
{
    if (t_cKvFaultFrames > 0 && s_pfnFaultThrower != nullptr) {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, sig);
        pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
        s_pfnFaultThrower(KvFaultInfoFromSignal(sig, psi, pvContext));
        return;  // not reached: the thrower throws
    }
    // Outside the library: hand the signal to whoever had it before.
    for (int i = 0; i < 4; ++i) {
        if (s_aFaultSignals[i] != sig)
            continue;
        const struct sigaction& old = s_aOldActions[i];
        if ((old.sa_flags & SA_SIGINFO) && old.sa_sigaction != nullptr) {
            old.sa_sigaction(sig, psi, pvContext);
            return;
        }
        if (old.sa_handler == SIG_IGN)
            return;
        if (old.sa_handler != SIG_DFL && old.sa_handler != nullptr) {
            old.sa_handler(sig);
            return;
        }
    }
    // Default action: restore it. A fault raised by an instruction happens again
    // when the handler returns; one sent by kill() must be raised anew.
    signal(sig, SIG_DFL);
    if (psi == nullptr || psi->si_code <= 0)
        raise(sig);
}

void KvInstallFaultHandler(KvFaultThrower pfnThrow)
{
    static std::once_flag s_once;
    s_pfnFaultThrower = pfnThrow;
    std::call_once(s_once, [] {
        for (int i = 0; i < 4; ++i) {
            struct sigaction sa;
            memset(&sa, 0, sizeof(sa));
            sa.sa_sigaction = &KvFaultSignalHandler;
            sa.sa_flags = SA_SIGINFO | SA_NODEFER;
            sigemptyset(&sa.sa_mask);
            sigaction(s_aFaultSignals[i], &sa, &s_aOldActions[i]);
        }
    });
}
