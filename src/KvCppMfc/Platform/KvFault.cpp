// KvFault.cpp - see KvFault.h: the fault signal handler, the fault record and
// the fault-safe copies of caller memory.
#include "KvFault.h"

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

__thread int t_cKvFaultFrames = 0;

// A fault inside the C library's own assembly cannot be unwound on every
// target (the i386 memcpy's unwind data does not describe every instruction),
// so caller memory is first touched by code of ours, once per page: a read
// for a source, an atomic read-modify-write that stores nothing new for a
// destination (it faults as the write it stands for, and races with no other
// writer). A bad buffer then faults here, where the frame can catch it, and
// memcpy runs only on memory that was there a moment ago.
namespace {
constexpr size_t kKvProbeStep = 4096;  // the smallest page size: no page is skipped

void KvProbeRead(const void* pv, size_t cb)
{
    const auto* pb = static_cast<const volatile unsigned char*>(pv);
    for (size_t i = 0; i < cb; i += kKvProbeStep)
        (void)pb[i];
    (void)pb[cb - 1];
}

void KvProbeWrite(void* pv, size_t cb)
{
    auto* pb = static_cast<unsigned char*>(pv);
    for (size_t i = 0; i < cb; i += kKvProbeStep)
        __atomic_fetch_add(pb + i, 0, __ATOMIC_RELAXED);
    __atomic_fetch_add(pb + cb - 1, 0, __ATOMIC_RELAXED);
}
}  // namespace

void* KvCopyBytes(void* pvDst, const void* pvSrc, size_t cb)
{
    if (cb == 0)
        return pvDst;
    KvProbeRead(pvSrc, cb);
    KvProbeWrite(pvDst, cb);
    return memcpy(pvDst, pvSrc, cb);
}

size_t KvTextLength(const char* psz)
{
    // A loop of ours rather than strlen, for the same reason; caller texts
    // are short (paths and names).
    const volatile char* p = psz;
    size_t cch = 0;
    while (p[cch] != '\0')
        ++cch;
    return cch;
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
    case SIGILL: info.dwCode = psi != nullptr && psi->si_code == ILL_PRVOPC ? 0xC0000096 : 0xC000001D; break;
    case SIGBUS: info.dwCode = 0xC0000006; break;
    default: info.dwCode = 0; break;
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
