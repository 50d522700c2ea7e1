// KvNamedMutex.h - process-shared, recursive, robust named mutexes.
#pragma once

#include <cstdint>
#include <string>

#include "KvShmObject.h"

struct KvSharedMutexObject;  // layout private to KvNamedMutex.cpp

// True when the shared-memory object of that full name is an initialised mutex
// object (clean-up can keep mutexes that live processes may still hold).
bool KvIsMutexObject(const std::string& strName);

// A named mutex shared by all processes of the namespace: recursive for its
// owning thread and robust. The lock is a futex word holding the owner's
// thread id; it is entered in the thread's kernel robust list while held, so
// the kernel marks it abandoned when the owner dies, and the next locker
// takes it over (an abandoned mutex counts as acquired). A locker that finds
// it held spins for a while, adapted to how long holders have recently kept
// it, before it sleeps on the futex. Uncontended locking and unlocking make
// no system call.
class KvNamedMutex {
public:
    // Opens the named mutex object or creates and initialises it. Must be called
    // while the namespace critical section is held. Returns false on failure.
    bool OpenOrCreate(const char* pszName);
    void Close();
    bool IsOpen() const { return m_pobj != nullptr; }

    // Wait without limit. Returns false only when there is no mutex.
    bool Lock();
    // Releases one level of the calling thread's ownership; does nothing when
    // the calling thread does not own the mutex.
    void Unlock();
    // True when the calling thread owns the mutex.
    bool IsOwned() const;

    // Reads without locking, for callers that only read: a read made between
    // BeginRead and an EndRead that returns true saw the data as it was at one
    // moment when no other thread held the mutex (or while the caller holds
    // it), so it is the read that locking would have given. On false the data
    // may have changed under the read: lock and read again.
    uint32_t BeginRead() const;
    bool EndRead(uint32_t dwSeq) const;

private:
    void LockContended(uint32_t dwTid);
    KvShmObject m_shm;
    KvSharedMutexObject* m_pobj = nullptr;
};

// True when a mutex whose owner dies is released by the kernel in this
// process: the C library's robust list is shaped like this build's mutex
// entries (or there is none, and the library registers its own). Otherwise a
// dead owner would leave the mutex locked for good, so the start-up refuses to
// attach and *pstrWhy says why. KvRobustListFits checks a given distance from
// link to futex word; the tests use it to see the refusal.
bool KvCheckOwnerDeathRecovery(std::string* pstrWhy);
bool KvRobustListFits(long lFutexOffset, std::string* pstrWhy);
