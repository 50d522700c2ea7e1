// KvPlatform.cpp - POSIX implementation of the platform layer: names, shared-memory
// objects, the namespace lock and robust mutexes (see KvPlatformProcess.cpp for the rest).
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

