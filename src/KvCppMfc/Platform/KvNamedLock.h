// KvNamedLock.h - the namespace-wide critical section.
//
// An exclusive flock on a named object of its own, held across the namespace's
// creation and last release. The kernel drops it when its holder dies. A flock
// excludes other descriptions only, so threads of this process are kept apart
// by a process-local recursive mutex; the lock is recursive per thread like
// the mutex it stands for.
#pragma once

#include <string>

#include <pthread.h>

class KvNamedLock {
public:
    KvNamedLock();
    ~KvNamedLock();
    KvNamedLock(const KvNamedLock&) = delete;
    KvNamedLock& operator=(const KvNamedLock&) = delete;

    bool Open(const char* pszName);  // opens or creates; idempotent
    void Lock();                     // waits without limit; re-opens when the name was unlinked meanwhile
    void Unlock();
    void Close();
    // In a fork child: forget the parent's state and take a description of its
    // own, so that parent and child exclude each other.
    void ResetAfterFork();
    bool IsOpen() const { return m_fd >= 0; }
    int Fd() const { return m_fd; }

private:
    void LockDescription();
    int m_fd = -1;
    int m_cDepth = 0;  // nesting of the owning thread
    std::string m_strName;
    pthread_mutex_t m_mtxThreads;
};
