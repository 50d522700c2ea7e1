// KvPlatform.h - the one place where the utility library talks to the operating
// system: named shared-memory objects, file locks, process-shared robust mutexes,
// fault signals, process and thread ids, clocks and the environment.
//
// Everything above this layer is platform neutral. Named objects are POSIX
// shared-memory objects whose names carry a namespace and the word size, so that
// test runs, users and 32/64-bit builds never see each other's objects.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <pthread.h>
#include <signal.h>

// ---------------------------------------------------------------------------
// Names
// ---------------------------------------------------------------------------

// The namespace of this process's named objects: $KVRFRSVR_NAMESPACE when set and
// non-empty, else "u" + uid. Read at every call, so a test may switch it before
// it attaches.
std::string KvNamespace();

// Suffix shared by every object of the current namespace: "." + namespace + "."
// + word size ("32" or "64").
std::string KvNamespaceSuffix();

// POSIX name of a fixed object name: "/" + name + suffix. Characters that a POSIX
// name cannot hold ("/", control bytes) are replaced by "_"; a name that would pass
// NAME_MAX is shortened and made unique by a hash of the full name.
std::string KvObjectName(const char* pszName);

// Removes every shared-memory object of the current namespace (the names that end
// in KvNamespaceSuffix()) except strKeep (a POSIX name, or ""). With fKeepMutexes,
// named mutex objects (KvNamedMutex) stay too: processes may hold them before they
// attach, and a robust mutex survives the death of its owner. Returns how many
// were removed.
int KvUnlinkNamespaceObjects(const std::string& strKeep, bool fKeepMutexes = false);

// ---------------------------------------------------------------------------
// Shared-memory objects
// ---------------------------------------------------------------------------

// One open shared-memory object of this process: its own open description (fd)
// and, once mapped, the mapping.
struct KvShmObject {
    int m_fd = -1;
    void* m_pv = nullptr;
    size_t m_cb = 0;
    std::string m_strName;

    // Opens the object, or creates it with mode 0600 and size cb when it does not
    // exist (and fCreateOk). *pfCreated tells which. An existing object must be at
    // least cb bytes and is mapped whole. Returns false on failure.
    bool OpenOrCreate(const std::string& strName, size_t cb, bool fCreateOk, bool* pfCreated);
    // Maps the whole object read-write, shared, at an address of the system's choosing.
    bool Map();
    void Unmap();
    void Close();  // unmaps and closes the descriptor
    // Opens a second, independent description of the same name (used after fork,
    // so that the child holds a lock of its own). Keeps the mapping.
    bool Reopen();
    // Opens another description of the same name without touching this one;
    // returns its descriptor or -1.
    int OpenAnotherDescription() const;
    // Makes fd this object's description, closing the one it had.
    void AdoptDescription(int fd);
    bool IsLinked() const;  // the name still refers to this object
    static bool Unlink(const std::string& strName);
};

// Private (not shared) read-write memory of this process, reserved lazily; null on
// failure.
void* KvReserveMemory(size_t cb);
void KvReleaseMemory(void* pv, size_t cb);

// flock(2) on an open description.
bool KvFlockShared(int fd);
bool KvFlockTryExclusive(int fd);  // non-blocking; false when another description holds a lock
void KvFlockUnlock(int fd);
void KvCloseDescriptor(int fd);

// ---------------------------------------------------------------------------
// Machine-wide (namespace-wide) critical section: an exclusive flock on its own
// named object. The kernel drops it when its holder dies. A flock excludes other
// descriptions only, so threads of this process are kept apart by a process-local
// recursive mutex; the lock is recursive per thread like the mutex it stands for.
// ---------------------------------------------------------------------------
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

// ---------------------------------------------------------------------------
// Process-shared robust mutexes, each in a small named object of its own.
// ---------------------------------------------------------------------------
struct KvSharedMutexObject;  // layout private to KvPlatform.cpp

struct KvSharedMutexObject;

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
// True when a mutex whose owner dies is released by the kernel in this
// process: the C library's robust list is shaped like this build's mutex
// entries (or there is none, and the library registers its own). Otherwise a
// dead owner would leave the mutex locked for good, so the start-up refuses to
// attach and *pstrWhy says why. KvRobustListFits checks a given distance from
// link to futex word; the tests use it to see the refusal.
bool KvCheckOwnerDeathRecovery(std::string* pstrWhy);
bool KvRobustListFits(long lFutexOffset, std::string* pstrWhy);

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

// ---------------------------------------------------------------------------
// Process, thread, time, environment
// ---------------------------------------------------------------------------

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

// ---------------------------------------------------------------------------
// Hardware faults
// ---------------------------------------------------------------------------

// Information about a fault, in the terms of the original exception records.
struct KvFaultInfo {
    uint32_t dwCode;        // 0xC0000005, 0xC0000094, 0xC000001D, 0xC0000006, ...
    uintptr_t pvAddress;    // instruction that faulted
    int cParams;            // 2 for an access violation, else 0
    uintptr_t aParams[2];   // access violation: 0 read / 1 write, then the data address
};

// Translates a signal into the fault record above.
KvFaultInfo KvFaultInfoFromSignal(int sig, const siginfo_t* psi, const void* pvContext);

// Handler that turns a fault into a C++ exception; it must throw, not return.
typedef void (*KvFaultThrower)(const KvFaultInfo& info);

// Installs, once per process, the handler of SIGSEGV, SIGBUS, SIGFPE and SIGILL.
// Inside a fault frame (KvFaultFrame below) a fault calls pfnThrow on the faulting
// thread; outside one, the signal goes to the handler that was installed before
// (or gets the default action), so faults in the caller's own code behave as
// without the library.
void KvInstallFaultHandler(KvFaultThrower pfnThrow);

// Per-thread depth of fault frames.
extern thread_local int t_cKvFaultFrames;

// Scope in which faults are translated. Costs one thread-local increment.
struct KvFaultFrame {
    KvFaultFrame() { ++t_cKvFaultFrames; }
    ~KvFaultFrame() { --t_cKvFaultFrames; }
    KvFaultFrame(const KvFaultFrame&) = delete;
    KvFaultFrame& operator=(const KvFaultFrame&) = delete;
};

// memcpy for buffers a caller handed in. The C library declares memcpy not to
// throw, so a fault inside a direct call could not leave as an exception (the
// process would end); this one touches the buffers in code of its own first,
// so that a bad one faults where the fault can become an exception.
void* KvCopyBytes(void* pvDst, const void* pvSrc, size_t cb);
// strlen for a text a caller handed in, for the same reason.
size_t KvTextLength(const char* psz);

// Word size of this build in bits (32 or 64).
constexpr int KvWordSize() { return static_cast<int>(sizeof(void*) * 8); }
