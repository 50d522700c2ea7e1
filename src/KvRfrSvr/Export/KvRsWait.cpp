// KvRsWait.cpp - KvRsWaitMsg and KvRsGetWaitFd (KvRfrSvrWait.h).
//
// Every process has a wake word in its entry of the process table. A notifier
// that puts a message into one of the process's queues moves the word on and
// wakes its sleepers, but only when the entry counts a sleeper (cWaiters), so
// that a receiver that polls costs the notifier one load. A waiter announces
// itself, looks at its queue once more, and sleeps on the word it read before
// announcing: a message put in between moved the word, and the sleep returns
// at once.
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "KvCppMfc/KvInitOrder.h"
#include "KvCppMfc/Platform/KvLivenessToken.h"
#include "KvCppMfc/Platform/KvProcess.h"
#include "KvCppMfc/Platform/KvWaitWord.h"
#include "KvCppMfc/Platform/KvWakePipe.h"
#include "KvCppMfc/Pool/KvProcessTable.h"
#include "KvRfrSvr/Internal/CRsModel.h"
#include "KvRfrSvrWait.h"
#include "KvRsHandles.h"

namespace {

constexpr uint32_t kcSpinMin = 50;
constexpr uint32_t kcSpinMax = 4000;
uint32_t s_cSpinEstimate = 200;  // spins that recently sufficed (adapts, racy by design)

inline void KvRsCpuRelax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

// The queue a wait is for: the default queue for a null handle.
const CRsQueue* KvRsWaitQueue(void* hQueue)
{
    if (hQueue == nullptr)
        return g_ptrThisPrcsQueue.Get();
    return static_cast<const CRsQueue*>(KvGranularity::_CalcPtr(KvRsHandleOffset(hQueue)));
}

long KvRsCountOf(void* hQueue, unsigned long idQueue, const CRsQueue* pQueue)
{
    long c = 0;
    if (KvRsPollQueue(pQueue, &c))
        return c;
    return hQueue == nullptr ? KvRsGetMsgCount() : KvRsGetQueueMsgCount(hQueue, idQueue);
}

// Spins on reads for a while; the count, or 0 when none came.
long KvRsSpin(void* hQueue, unsigned long idQueue, const CRsQueue* pQueue)
{
    const uint32_t cLimit = __atomic_load_n(&s_cSpinEstimate, __ATOMIC_RELAXED) * 2 + kcSpinMin;
    for (uint32_t i = 0; i < cLimit && i < kcSpinMax; ++i) {
        KvRsCpuRelax();
        long c = 0;
        if (KvRsPollQueue(pQueue, &c) ? c > 0 : (c = KvRsCountOf(hQueue, idQueue, pQueue)) > 0) {
            __atomic_store_n(&s_cSpinEstimate, (s_cSpinEstimate + i) / 2, __ATOMIC_RELAXED);
            return c;
        }
    }
    __atomic_store_n(&s_cSpinEstimate, (s_cSpinEstimate + kcSpinMax) / 2, __ATOMIC_RELAXED);
    return 0;
}

long KvRsMillisLeft(std::chrono::steady_clock::time_point tEnd)
{
    const auto d = std::chrono::duration_cast<std::chrono::milliseconds>(tEnd - std::chrono::steady_clock::now());
    return d.count() > 0 ? static_cast<long>(d.count()) : 0;
}

}  // namespace

long KvRsWaitMsg(void* hQueue, unsigned long idQueue, long msTimeout)
{
    if (!KvRsIsRunning())
        return 0;
    KvRsRearmWaitFd();
    const CRsQueue* pQueue = KvRsWaitQueue(hQueue);
    long c = KvRsCountOf(hQueue, idQueue, pQueue);
    if (c > 0 || msTimeout == 0)
        return c > 0 ? c : 0;
    if ((c = KvRsSpin(hQueue, idQueue, pQueue)) > 0)
        return c;
    const auto tEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(msTimeout > 0 ? msTimeout : 0);
    KvProcessEntry* pEntry = KvRsOwnEntry();
    for (;;) {
        long cmsSleep = msTimeout < 0 ? -1 : KvRsMillisLeft(tEnd);
        if (msTimeout > 0 && cmsSleep == 0)
            return KvRsCountOf(hQueue, idQueue, pQueue);
        if (pEntry == nullptr) {
            cmsSleep = cmsSleep < 0 || cmsSleep > 1 ? 1 : cmsSleep;  // not wakeable: poll
            std::this_thread::sleep_for(std::chrono::milliseconds(cmsSleep));
        } else {
            const uint32_t dwSeen = __atomic_load_n(KvWakeWord(pEntry), __ATOMIC_SEQ_CST);
            __atomic_add_fetch(KvSleeperCount(pEntry), 1, __ATOMIC_SEQ_CST);
            int rc = 0;
            if ((c = KvRsCountOf(hQueue, idQueue, pQueue)) == 0)
                rc = KvWaitWordSleep(KvWakeWord(pEntry), dwSeen, cmsSleep);
            __atomic_sub_fetch(KvSleeperCount(pEntry), 1, __ATOMIC_SEQ_CST);
            if (c > 0)
                return c;
            if (rc == EINTR)
                return -1;
        }
        if ((c = KvRsCountOf(hQueue, idQueue, pQueue)) > 0)
            return c;
    }
}

// --- the descriptor ------------------------------------------------------------

namespace {

// The wake pipe's read end, and this process's pipe state in the segment while
// it has one: looking at the queues re-arms it.
int s_fdWakePipe = -1;
KvProcessPipe* s_pOwnPipe = nullptr;

void KvRsFdFail(const char* pszWhy)
{
    char sz[300];
    snprintf(sz, sizeof(sz), "KvRfrSvr.dll: KvRsGetWaitFd: %s\n", pszWhy);
    KvWriteStderr(sz, strlen(sz));
}

}  // namespace

void KvRsRearmWaitFd()
{
    KvProcessPipe* p = __atomic_load_n(&s_pOwnPipe, __ATOMIC_ACQUIRE);
    if (p == nullptr || __atomic_load_n(&p->dwRung, __ATOMIC_RELAXED) == 0)
        return;
    // Before the caller reads a count: a notifier that still found the pipe
    // rung put its message before this store, so the count shows it.
    __atomic_store_n(&p->dwRung, 0, __ATOMIC_SEQ_CST);
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
}

int KvRsGetWaitFd(void)
{
    if (!KvRsIsRunning())
        return -1;
    KvRsGlobalLock lock;
    if (s_fdWakePipe >= 0)
        return s_fdWakePipe;
    KvProcessEntry* pEntry = KvRsOwnEntry();
    if (pEntry == nullptr) {
        KvRsFdFail("this process is not in the table of attached processes, so nothing can wake it");
        return -1;
    }
    const int fd = KvWakePipe::Create(KvThisProcessKey());
    if (fd < 0) {
        char sz[200];
        snprintf(sz, sizeof(sz), "its FIFO could not be made (%s)", strerror(errno));
        KvRsFdFail(sz);
        return -1;
    }
    KvProcessPipe* pPipe = KvProcessPipeOf(pEntry);
    __atomic_store_n(&pPipe->dwRung, 0, __ATOMIC_SEQ_CST);
    __atomic_store_n(&pPipe->dwHasPipe, 1, __ATOMIC_SEQ_CST);
    __atomic_store_n(&s_pOwnPipe, pPipe, __ATOMIC_RELEASE);
    s_fdWakePipe = fd;
    return fd;
}

// At exit, before the segment is unmapped: no notifier rings the pipe any more,
// and its FIFO goes.
void KvRsStopWaitFd()
{
    KvProcessPipe* p = __atomic_exchange_n(&s_pOwnPipe, nullptr, __ATOMIC_ACQ_REL);
    if (p == nullptr)
        return;
    __atomic_store_n(&p->dwHasPipe, 0, __ATOMIC_SEQ_CST);
    KvWakePipe::Remove(KvThisProcessKey());
    // The descriptor stays open: the caller's event loop may still watch it.
}

// In a fork child: the descriptor and the FIFO are the parent's, and so are
// the descriptors into other processes' pipes.
void KvRsForgetWaitFd()
{
    s_fdWakePipe = -1;
    __atomic_store_n(&s_pOwnPipe, nullptr, __ATOMIC_RELEASE);
    KvWakePipe::ForgetWritersAfterFork();
}
