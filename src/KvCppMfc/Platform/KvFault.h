// KvFault.h - hardware faults become C++ exceptions inside a fault frame, and
// the fault-safe copies of caller memory.
#pragma once

#include <cstddef>
#include <cstdint>

#include <signal.h>

// Information about a fault, in the terms of the original exception records.
struct KvFaultInfo {
    uint32_t dwCode;       // 0xC0000005, 0xC0000094, 0xC000001D, 0xC0000006, ...
    uintptr_t pvAddress;   // instruction that faulted
    int cParams;           // 2 for an access violation, else 0
    uintptr_t aParams[2];  // access violation: 0 read / 1 write, then the data address
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
extern __thread int t_cKvFaultFrames;  // __thread: no initialisation check per access

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
