// KvNamedLock.cpp - see KvNamedLock.h.
#include "KvNamedLock.h"
#include "KvPlatformNames.h"

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

#include "KvNamedMutex.h"

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
        if (fstat(m_fd, &stFd) == 0 && stat(strPath.c_str(), &stName) == 0 && stFd.st_ino == stName.st_ino &&
            stFd.st_dev == stName.st_dev)
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
