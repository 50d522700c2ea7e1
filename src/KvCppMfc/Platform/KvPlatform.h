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
// in KvNamespaceSuffix()) except strKeep (a POSIX name, or ""). Returns how many
// were removed.
int KvUnlinkNamespaceObjects(const std::string& strKeep);

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
    bool IsLinked() const;  // the name still refers to this object
    static bool Unlink(const std::string& strName);
};

// flock(2) on an open description.
bool KvFlockShared(int fd);
bool KvFlockTryExclusive(int fd);  // non-blocking; false when another description holds a lock
void KvFlockUnlock(int fd);

// ---------------------------------------------------------------------------
// Machine-wide (namespace-wide) critical section: an exclusive flock on its own
// named object. The kernel drops it when its holder dies.
// ---------------------------------------------------------------------------
class KvNamedLock {
public:
    bool Open(const char* pszName);  // opens or creates; idempotent
    void Lock();                     // waits without limit; re-opens when the name was unlinked meanwhile
    void Unlock();
    void Close();
    bool IsOpen() const { return m_fd >= 0; }
    int Fd() const { return m_fd; }

private:
    int m_fd = -1;
    std::string m_strName;
};

// ---------------------------------------------------------------------------
// Process-shared robust mutexes, each in a small named object of its own.
// ---------------------------------------------------------------------------
struct KvSharedMutexObject;  // layout private to KvPlatform.cpp

class KvNamedMutex {
public:
    // Opens the named mutex object or creates and initialises it. Must be called
    // while the namespace critical section is held. Returns false on failure.
    bool OpenOrCreate(const char* pszName, bool fRecursive);
    void Close();
    bool IsOpen() const { return m_pmtx != nullptr; }

    // Wait without limit. An owner that died leaves the mutex to the next waiter
    // (EOWNERDEAD counts as acquired). Returns false only when there is no mutex.
    bool Lock();
    void Unlock();
    pthread_mutex_t* Native() const { return m_pmtx; }

private:
    KvShmObject m_shm;
    pthread_mutex_t* m_pmtx = nullptr;
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

// Registers functions run in the child after fork(), in registration order.
void KvAtForkChild(void (*pfn)());

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

// Word size of this build in bits (32 or 64).
constexpr int KvWordSize() { return static_cast<int>(sizeof(void*) * 8); }
