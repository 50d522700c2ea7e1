// KvRsLifecycle.cpp - start-up when the library is loaded, the clean-ups at
// process exit (and dlclose), the fork child, and the global mutex.
//
// Start-up runs from a load-time constructor whose priority places it after the
// library's own statics and before every static of the program (KvInitOrder.h),
// however the objects are linked. The clean-up is registered with atexit() at
// the end of start-up, so it runs before the destructors of those statics (and,
// from a shared library, at dlclose too).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "KvCppMfc/Diag/KvDiag.h"
#include "KvCppMfc/KvInitOrder.h"
#include "KvCppMfc/Platform/KvStaleNamespaces.h"
#include "KvCppMfc/Pool/KvGranularity.h"
#include "KvCppMfc/Pool/KvProcessTable.h"
#include "KvCppMfc/Pool/KvTreeJournal.h"
#include "KvRfrSvr.h"
#include "KvRfrSvr/Internal/CRsModel.h"
#include "KvRsFrame.h"

namespace {

const uint32_t KVRS_SEGMENT_SIZE = 0x4000000;
KV_INIT_STATICS KvNamedMutex s_mtxGlobal;  // "KVRFRSVR_GLOBAL_MUTEX"
// How often this thread holds the global mutex: the first taking opens the
// tree journal's section, the last release closes it.
thread_local uint32_t t_cKvRsGlobalDepth = 0;

// Runs one step of start-up or clean-up under the fault translation of the frame.
// A failure is reported on standard error and the next step still runs: a
// clean-up must never crash the process, whatever state the tree is in.
template <class Step>
bool KvRsRunStep(const char* pszStep, Step&& step)
{
    KvRsException ex{nullptr, nullptr};
    const KvRsCaught caught = KvRsRunGuarded(std::forward<Step>(step), &ex);
    if (caught == KvRsCaught::Nothing)
        return true;
    const char* pszWhat = nullptr;
    if (caught == KvRsCaught::RsException)
        pszWhat = ex.m_pszText;
    char sz[600];
    snprintf(sz, sizeof(sz), "%s failed%s%s", pszStep, pszWhat != nullptr ? ": " : "",
             pszWhat != nullptr ? pszWhat : "");
    KvMessageBox(sz, KVRS_DLL_NAME);
    return false;
}

// Root slot 2 holds the root's counted reference; the first process makes it.
void KvRsCreateRootIfMissing()
{
    if (KvGranularity::_GetRoot(KVRS_ROOT_SLOT) != nullptr)
        return;
    KvSmartPtr<CRsNode> ptrRoot(KvNewObject);
    KvGranularity::_SetRoot(ptrRoot.Detach(), KVRS_ROOT_SLOT);  // the slot keeps the reference
}

// A default queue of this process, named as every process's default queue.
void KvRsCreateDefaultQueue()
{
    g_ptrThisPrcsQueue.NewObject();
    g_ptrThisPrcsQueue->SetName(KVRS_DEFAULT_QUEUE_NAME);
}

// Process detach: this process's connections, queue entries and messages leave
// the tree.
void KvRsDetachCleanUp()
{
    KvSmartPtr<CRsNode> ptrRoot = GetRoot();
    if (ptrRoot.IsNotNull() && g_ptrThisPrcsQueue.IsNotNull())
        ptrRoot->DisconnectProcess(true);
}

// Every process releases one reference on the root at exit, the creator and every
// other alike; the root dies (and its slot is cleared) when that was its last.
void KvRsReleaseRoot()
{
    void* pvRoot = KvGranularity::_GetRoot(KVRS_ROOT_SLOT);
    if (pvRoot != nullptr && KvReleaseSmartUnit(static_cast<KvSmartPtrTarget*>(pvRoot)))
        KvGranularity::_SetRoot(nullptr, KVRS_ROOT_SLOT);
}

// Each step of the exit is recorded in the process's entry as it completes: a
// process killed during its exit is finished by a reaper, and nothing is given
// back twice.
template <class Step>
void KvRsExitStep(const char* pszStep, uint32_t dwDone, Step&& step)
{
    KvRsRunStep(pszStep, std::forward<Step>(step));
    KvTreeSectionCommit();  // the step is final before the entry says it is done
    KvRsMarkExitStep(dwDone);
}

void KvRsAtExit()
{
    if (g_eKvRsState != KvRsState::Running) {
        g_eKvRsState = KvRsState::Stopped;
        return;
    }
    KvRsStopWaitFd();
    KvRsLockGlobal();
    g_eKvRsState = KvRsState::Stopped;  // from here on, calls return neutral results
    KvRsExitStep("KvRfrSvr process detach", KVPRC_DONE_DISCONNECTED, [] { KvRsDetachCleanUp(); });
    KvRsExitStep("KvRfrSvr release of the root", KVPRC_DONE_ROOT, [] { KvRsReleaseRoot(); });
    KvRsExitStep("KvRfrSvr release of the default queue", KVPRC_DONE_QUEUE, [] { g_ptrThisPrcsQueue.RmvRef(); });
    KvRsRunStep("KvRfrSvr process table", [] { KvRsUnregisterThisProcess(); });
    KvTreeSectionClose();
    KvProcessTableWakeNow();  // nothing may point into the segment once it is gone
    KvRsRunStep("KvRfrSvr release of the segment", [] { KvGranularity::_FreeMem(); });
    s_mtxGlobal.Unlock();
    s_mtxGlobal.Close();
    KvExitCritSec();
    KvCloseCritSec();
}

// fork(): the child is a process of its own. The unit of the inherited default
// queue belongs to the parent, so it is forgotten, not released; the child makes
// a queue of its own (the segment layer has already given it an attachment of its
// own). The atexit clean-up is inherited and then cleans up for the child.
void KvRsAfterForkChild()
{
    t_cKvRsGlobalDepth = 0;  // the parent's thread may have held the mutex; this one does not
    if (g_eKvRsState != KvRsState::Running)
        return;
    g_ptrThisPrcsQueue.Detach();
    KvRsForgetParentToken();
    KvRsForgetWaitFd();
    KvRsGlobalLock lock;
    KvRsRunStep("KvRfrSvr default queue of the fork child", [] {
        KvRsCreateDefaultQueue();
        KvRsRegisterThisProcess();
    });
}

void KvRsStartUpFailed(const char* pszWhy)
{
    char sz[700];
    snprintf(sz, sizeof(sz),
             "KvRfrSvr.dll: start-up failed (%s); the library is inactive in this process and every call "
             "returns its neutral result\n",
             pszWhy);
    KvWriteStderr(sz, strlen(sz));
    g_eKvRsState = KvRsState::Failed;
}

// A start-up that failed after attaching gives the attachment back.
void KvRsDetachAfterFailure(const char* pszWhy)
{
    KvRsStartUpFailed(pszWhy);
    KvRsRunStep("KvRfrSvr release of the segment", [] { KvGranularity::_FreeMem(); });
    s_mtxGlobal.Close();
}

bool KvRsAttach()
{
    KvRsException ex{nullptr, nullptr};
    const KvRsCaught caught =
        KvRsRunGuarded([] { KvGranularity::_AllocSharedMem(KVRS_SEGMENT_SIZE, "KVRFRSVR_MEM"); }, &ex);
    if (caught == KvRsCaught::Nothing && KvGranularity::_pvBase != nullptr)
        return true;
    KvRsStartUpFailed(caught == KvRsCaught::RsException ? ex.m_pszText
                                                        : "the shared segment KVRFRSVR_MEM could not be attached");
    return false;
}

bool KvRsOpenGlobalMutex()
{
    KvEnterCritSec();
    const bool fOk = s_mtxGlobal.OpenOrCreate("KVRFRSVR_GLOBAL_MUTEX");
    KvExitCritSec();
    if (!fOk)
        KvRsDetachAfterFailure("the global mutex KVRFRSVR_GLOBAL_MUTEX could not be opened");
    return fOk;
}

void KvRsStartUp()
{
    KvRsRegisterSharedClasses();
    KvInstallFaultHandler(&KvRsThrowFault);
    KvInitCritSec();
    std::string strWhy;
    if (!KvCheckOwnerDeathRecovery(&strWhy)) {
        KvRsStartUpFailed(("a mutex whose owner dies could not be recovered: " + strWhy).c_str());
        return;
    }
    KvRemoveStaleNamespaces();  // what killed namespaces of this user left in /dev/shm
    if (!KvRsAttach() || !KvRsOpenGlobalMutex())
        return;
    const std::string strDebug = KvApplicationPath() + ".KvRfrSvr.err";
    OpenDebugEx(strDebug.c_str(), "BDC_DEBUG_FILE");
    bool fOk;
    {
        KvRsGlobalLock lock;  // another process may be starting at the same moment
        g_eKvRsState = KvRsState::Running;
        fOk = KvRsRunStep("KvRfrSvr start-up", [] {
            // Ended processes first: a process given an ended one's pid never
            // meets that one's connections.
            KvRsReapAtStartUp();
            KvRsCreateRootIfMissing();
            KvRsCreateDefaultQueue();
            KvRsRegisterThisProcess();
        });
    }
    if (!fOk) {
        KvRsDetachAfterFailure("the root node or the default queue could not be made");
        return;
    }
    KvGranularity::_SetReclaimHook(&KvRsReclaimFromEndedProcesses);
    KvAtForkChild(&KvRsAfterForkChild);
    atexit(&KvRsAtExit);
}

__attribute__((constructor(KV_INIT_STARTUP))) void KvRsLoadTimeStartUp()
{
    KvRsStartUp();
}

}  // namespace

// --- the global mutex --------------------------------------------------------

void KvRsLockGlobal()
{
    if (!s_mtxGlobal.Lock())
        return;
    if (++t_cKvRsGlobalDepth == 1)
        KvTreeSectionOpen();
}

bool KvRsGlobalOwned()
{
    return s_mtxGlobal.IsOwned();
}

void KvRsUnlockGlobal()
{
    if (s_mtxGlobal.IsOwned() && t_cKvRsGlobalDepth > 0 && --t_cKvRsGlobalDepth == 0)
        KvTreeSectionClose();
    s_mtxGlobal.Unlock();
    // Receivers of what this thread notified are woken once the mutex is free
    // (the segment stays mapped: the exit clean-up wakes before it unmaps).
    if (KvProcessTableWakesPending() && !s_mtxGlobal.IsOwned())
        KvProcessTableWakeNow();
}

uint32_t KvRsBeginUnlockedRead()
{
    return s_mtxGlobal.BeginRead();
}

bool KvRsEndUnlockedRead(uint32_t dwSeq)
{
    return s_mtxGlobal.EndRead(dwSeq);
}

void KvRsRequestMutex(void)
{
    if (KvRsIsRunning())
        KvRsLockGlobal();
}

void KvRsReleaseMutex(void)
{
    if (KvRsIsRunning())
        KvRsUnlockGlobal();
}
