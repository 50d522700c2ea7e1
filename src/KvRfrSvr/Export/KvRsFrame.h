// KvRsFrame.h - the boundary of the library: its run state, the global mutex and
// the frame that every exported function wraps around its body.
//
// The frame gives the neutral result first, takes the global mutex, opens a
// fault frame (hardware faults become KvRsException), runs the body and answers
// any failure with tones and a message box, so that nothing crosses the boundary.
// The mutex is released on every path.
#pragma once

#include <type_traits>
#include <utility>

#include "KvCppMfc/Platform/KvPlatform.h"
#include "KvCppMfc/Pool/KvTreeJournal.h"
#include "KvRsException.h"
#include "KvRsReaper.h"

// Run state of the library in this process.
enum class KvRsState { Loaded, Running, Failed, Stopped };
extern KvRsState g_eKvRsState;
inline bool KvRsIsRunning()
{
    return g_eKvRsState == KvRsState::Running;
}

// The global mutex "KVRFRSVR_GLOBAL_MUTEX" (recursive per thread, robust).
void KvRsLockGlobal();
void KvRsUnlockGlobal();
bool KvRsGlobalOwned();  // by the calling thread

// Reads without the global mutex (see KvNamedMutex::BeginRead): true from the
// end call when the read counts as made under the mutex.
uint32_t KvRsBeginUnlockedRead();
bool KvRsEndUnlockedRead(uint32_t dwSeq);

// Holds the global mutex for a scope.
struct KvRsGlobalLock {
    KvRsGlobalLock() { KvRsLockGlobal(); }
    ~KvRsGlobalLock() { KvRsUnlockGlobal(); }
    KvRsGlobalLock(const KvRsGlobalLock&) = delete;
    KvRsGlobalLock& operator=(const KvRsGlobalLock&) = delete;
};

// Answers of the frame: three tones and the exception's box; or the box
// "Exception in file KvRfrSvr/Export, line <nLine>".
void KvRsReportException(const KvRsException& ex);
void KvRsReportUnknown(int nLine);

// Turns a fault record into the library's exception (installed as the fault
// thrower). Also used to raise an access violation explicitly where the code
// would otherwise read through a null or out-of-segment object.
[[noreturn]] void KvRsThrowFault(const KvFaultInfo& info);
[[noreturn]] void KvRsRaiseAccessViolation(const void* pvData);

// What a guarded run caught. Retry: a pool ran out inside a call while ended
// processes held memory that only the end of a call can give back; the call
// is undone, that memory is given back, and the call runs once more.
enum class KvRsCaught { Nothing, RsException, Other, Retry };
struct KvRsRetryAfterReclaim {};

// Runs body inside a fault frame and a try block; says what it caught and keeps
// a caught KvRsException in *pex. The report is made by the caller, outside the
// fault frame, so that a fault while reporting is not translated again.
template <class Body>
KvRsCaught KvRsRunGuarded(Body&& body, KvRsException* pex)
{
    KvFaultFrame frame;
    try {
        body();
    } catch (const KvRsException& ex) {
        *pex = ex;
        return KvRsCaught::RsException;
    } catch (const KvRsRetryAfterReclaim&) {
        return KvRsCaught::Retry;
    } catch (...) {
        return KvRsCaught::Other;
    }
    return KvRsCaught::Nothing;
}

// The outermost frame's call is one section of the tree journal: it is
// committed when the body ends, however it ends. A body that ran out of pool
// memory for ended processes' messages is undone, the memory given back, and
// run once more (the retry flag keeps it to once).
extern __thread bool t_fKvRsRetried;  // __thread: no initialisation check per access
void KvRsReclaimForRetry();

// The frame around a body without result. nLine is the exported function's line,
// reported by the catch-all answer. The body may run twice (see above).
template <class Body>
void KvRsFramed(int nLine, Body&& body)
{
    if (!KvRsIsRunning())
        return;
    KvRsGlobalLock lock;
    const bool fOuter = t_cKvFaultFrames == 0;
    KvRsException ex{nullptr, nullptr};
    KvRsCaught caught = KvRsRunGuarded(body, &ex);
    if (caught == KvRsCaught::Retry) {
        KvRsReclaimForRetry();
        caught = KvRsRunGuarded(body, &ex);
    }
    if (fOuter) {
        KvTreeSectionCommit();
        t_fKvRsRetried = false;
    }
    if (caught == KvRsCaught::RsException)
        KvRsReportException(ex);
    else if (caught == KvRsCaught::Other || caught == KvRsCaught::Retry)
        KvRsReportUnknown(nLine);
    // Ended processes that a pool ran out for are reaped once the outermost
    // call is done, when no operation is half-way through the tree.
    if (g_fKvRsReapPending && t_cKvFaultFrames == 0) {
        KvRsReapPendingNow();
        KvTreeSectionCommit();
    }
}

// A result set by a run that was undone names nothing any more: forgotten, not
// released (the undo took its reference back already).
class KvRsProxy;
void KvRsForgetProxy(KvRsProxy& proxy);
template <class R>
void KvRsForgetResult(R& result)
{
    if constexpr (std::is_base_of<KvRsProxy, R>::value)
        KvRsForgetProxy(result);
    else
        result = R{};
}

// The frame around a body that fills a result of type R. The result starts
// neutral (0, false, null, empty proxy); after a failure the caller gets it as
// far as the body had set it.
template <class R, class Body>
R KvRsFramedResult(int nLine, Body&& body)
{
    R result{};
    bool fRun = false;
    KvRsFramed(nLine, [&] {
        if (fRun)
            KvRsForgetResult(result);
        fRun = true;
        body(result);
    });
    return result;
}
