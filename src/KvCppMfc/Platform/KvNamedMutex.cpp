// KvNamedMutex.cpp - named mutexes: process-shared, recursive and robust
// locks on a futex word, entered in the thread's kernel robust list.
//
// The lock word follows the kernel's robust-futex protocol: 0 when free, the
// owner's thread id when held, FUTEX_WAITERS when a thread sleeps on it, and
// FUTEX_OWNER_DIED once the kernel has found its owner dead. glibc owns the one
// robust list each thread may register; its entries are the list links inside
// pthread mutexes. A held mutex of ours joins that list as an entry of the same
// shape (the link at the same distance from the word), linked and unlinked the
// way glibc links its own, so the kernel releases both kinds when a thread dies.
#include "KvNamedMutex.h"
#include "KvPlatformNames.h"
#include "KvProcess.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

// The futex word and its list link lie where glibc's mutex keeps them; the
// rest of the pthread_mutex_t storage is not used.
struct KvSharedMutexObject {
    uint32_t dwReady;        // written last: an object without it was never initialised
    uint32_t cRecursion;     // levels held by the owner; only the owner touches it
    uint32_t cSpinEstimate;  // recent spins before acquisition, for the adaptive spin
    uint32_t dwSequence;     // odd while owned: lets readers check that nobody wrote
    pthread_mutex_t mtxLayout;
};
static_assert(offsetof(KvSharedMutexObject, mtxLayout) == 16, "mutex object layout");
static_assert(offsetof(KvSharedMutexObject, mtxLayout) % alignof(pthread_mutex_t) == 0,
              "the futex word must be aligned");

// "KVM2": this layout; objects of an earlier layout are made again.
static const uint32_t kKvMutexReady = 0x324D564B;

namespace {

constexpr uint32_t kKvSpinMax = 1000;  // upper bound of the adaptive spin
constexpr uint32_t kKvSpinMin = 100;

inline uint32_t* KvWord(KvSharedMutexObject* p)
{
    return reinterpret_cast<uint32_t*>(&p->mtxLayout.__data.__lock);
}

inline robust_list* KvEntry(KvSharedMutexObject* p)
{
#if __PTHREAD_MUTEX_HAVE_PREV
    return reinterpret_cast<robust_list*>(&p->mtxLayout.__data.__list.__next);
#else
    return reinterpret_cast<robust_list*>(&p->mtxLayout.__data.__list);
#endif
}

inline void KvCpuRelax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

inline void KvCompilerBarrier()
{
    __asm__ __volatile__("" ::: "memory");
}

// Distance from an entry's list link to its futex word, as our entries have it.
long KvOwnFutexOffset()
{
    KvSharedMutexObject probe;
    return reinterpret_cast<char*>(KvWord(&probe)) - reinterpret_cast<char*>(KvEntry(&probe));
}

// A list head for threads that the C library started without one (raw clone):
// the library registers its own, shaped like glibc's.
thread_local robust_list_head t_kvOwnHead;

// The calling thread's robust list head, asked of the kernel once per thread.
// Null only when the head is shaped differently from our entries, which the
// start-up refuses (KvCheckOwnerDeathRecovery), so a running library never
// meets it.
struct KvRobustHeadCache {
    robust_list_head* phead = nullptr;
    bool fKnown = false;
};
thread_local KvRobustHeadCache t_kvRobust;

robust_list_head* KvRobustHead()
{
    if (!t_kvRobust.fKnown) {
        t_kvRobust.fKnown = true;
        robust_list_head* phead = nullptr;
        size_t cb = 0;
        const long lOffset = KvOwnFutexOffset();
        if (syscall(SYS_get_robust_list, 0, &phead, &cb) != 0 || phead == nullptr) {
            t_kvOwnHead.list.next = &t_kvOwnHead.list;
            t_kvOwnHead.futex_offset = lOffset;
            t_kvOwnHead.list_op_pending = nullptr;
            if (syscall(SYS_set_robust_list, &t_kvOwnHead, sizeof(t_kvOwnHead)) == 0)
                t_kvRobust.phead = &t_kvOwnHead;
        } else if (cb == sizeof(robust_list_head) && phead->futex_offset == lOffset) {
            t_kvRobust.phead = phead;
        }
    }
    return t_kvRobust.phead;
}

inline void KvSetPending(robust_list_head* phead, robust_list* pentry)
{
    if (phead != nullptr)
        phead->list_op_pending = pentry;
    KvCompilerBarrier();
}

#if __PTHREAD_MUTEX_HAVE_PREV
// Doubly linked list: list pointers point at the __next member of each
// __pthread_list_t; the head is preceded by a word that plays __prev for it.
inline __pthread_list_t* KvLinkOf(void* pv)
{
    return reinterpret_cast<__pthread_list_t*>((reinterpret_cast<uintptr_t>(pv) & ~uintptr_t(1)) -
                                               offsetof(__pthread_list_t, __next));
}

void KvEnqueue(robust_list_head* phead, KvSharedMutexObject* p)
{
    __pthread_list_t& link = p->mtxLayout.__data.__list;
    void* pvFirst = phead->list.next;
    KvLinkOf(pvFirst)->__prev = reinterpret_cast<__pthread_list_t*>(&link.__next);
    link.__next = static_cast<__pthread_list_t*>(pvFirst);
    link.__prev = reinterpret_cast<__pthread_list_t*>(phead);
    KvCompilerBarrier();
    phead->list.next = reinterpret_cast<robust_list*>(&link.__next);
}

void KvDequeue(robust_list_head*, KvSharedMutexObject* p)
{
    __pthread_list_t& link = p->mtxLayout.__data.__list;
    KvLinkOf(link.__next)->__prev = link.__prev;
    KvLinkOf(link.__prev)->__next = link.__next;
    KvCompilerBarrier();
    link.__prev = link.__next = nullptr;
}
#else
// Singly linked list, searched from the head on removal.
inline __pthread_slist_t* KvUntag(void* pv)
{
    return reinterpret_cast<__pthread_slist_t*>(reinterpret_cast<uintptr_t>(pv) & ~uintptr_t(1));
}

void KvEnqueue(robust_list_head* phead, KvSharedMutexObject* p)
{
    __pthread_slist_t& link = p->mtxLayout.__data.__list;
    link.__next = reinterpret_cast<__pthread_slist_t*>(phead->list.next);
    KvCompilerBarrier();
    phead->list.next = reinterpret_cast<robust_list*>(&link);
}

void KvDequeue(robust_list_head* phead, KvSharedMutexObject* p)
{
    __pthread_slist_t& link = p->mtxLayout.__data.__list;
    auto* prun = reinterpret_cast<__pthread_slist_t*>(&phead->list);
    const auto* pend = prun;
    for (__pthread_slist_t* pnext = KvUntag(prun->__next); pnext != &link; pnext = KvUntag(prun->__next)) {
        if (pnext == pend || pnext == nullptr)
            return;  // not in the list: nothing to unlink
        prun = pnext;
    }
    prun->__next = link.__next;
    KvCompilerBarrier();
    link.__next = nullptr;
}
#endif

long KvFutex(uint32_t* pw, int op, uint32_t dwVal)
{
    return syscall(SYS_futex, pw, op, dwVal, nullptr, nullptr, 0);
}

// Free, or abandoned by a dead owner: either counts as available.
inline bool KvIsAvailable(uint32_t w)
{
    return (w & FUTEX_TID_MASK) == 0;
}

// One attempt to take an available word; dwExtra keeps FUTEX_WAITERS set by a
// thread that has slept, since others may still sleep.
inline bool KvTryTake(uint32_t* pw, uint32_t w, uint32_t dwTid, uint32_t dwExtra)
{
    return KvIsAvailable(w) && __atomic_compare_exchange_n(pw, &w, dwTid | dwExtra | (w & FUTEX_WAITERS), false,
                                                           __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
}

// Moves the spin estimate an eighth of the way towards the latest wait. Racing
// updates from several waiters only blur the estimate.
inline void KvAdaptSpin(KvSharedMutexObject* p, uint32_t cSpins)
{
    const int32_t cOld = static_cast<int32_t>(__atomic_load_n(&p->cSpinEstimate, __ATOMIC_RELAXED));
    const int32_t cNew = cOld + (static_cast<int32_t>(cSpins) - cOld) / 8;
    __atomic_store_n(&p->cSpinEstimate, static_cast<uint32_t>(cNew), __ATOMIC_RELAXED);
}

}  // namespace

bool KvIsMutexObject(const std::string& strName)
{
    const int fd = shm_open(strName.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0)
        return false;
    struct stat st;
    uint32_t dwReady = 0;
    const bool f = fstat(fd, &st) == 0 && st.st_size == static_cast<off_t>(sizeof(KvSharedMutexObject)) &&
                   pread(fd, &dwReady, sizeof(dwReady), 0) == static_cast<ssize_t>(sizeof(dwReady)) &&
                   dwReady == kKvMutexReady;
    close(fd);
    return f;
}

bool KvNamedMutex::OpenOrCreate(const char* pszName)
{
    if (m_pobj != nullptr)
        return true;
    bool fCreated = false;
    if (!m_shm.OpenOrCreate(KvObjectName(pszName), sizeof(KvSharedMutexObject), true, &fCreated) || !m_shm.Map()) {
        m_shm.Close();
        return false;
    }
    auto* pobj = static_cast<KvSharedMutexObject*>(m_shm.m_pv);
    // Creation runs under the namespace critical section; an object that is not
    // marked ready was left half made by a process that died, and is made again.
    if (fCreated || pobj->dwReady != kKvMutexReady) {
        memset(static_cast<void*>(pobj), 0, sizeof(*pobj));
        pobj->cSpinEstimate = kKvSpinMin;
        __atomic_store_n(&pobj->dwReady, kKvMutexReady, __ATOMIC_RELEASE);
    }
    m_pobj = pobj;
    return true;
}

// The kernel finds a dead owner's mutexes through the list links inside the
// objects, so an object must stay mapped while any thread may hold it: unmapped,
// it would stay locked for good and cut the rest of that thread's list off.
// Closing gives up the calling thread's ownership (others then take the mutex
// over, as from an owner that ended) and keeps the mapping of a mutex that
// another thread still holds.
void KvNamedMutex::Close()
{
    if (m_pobj == nullptr)
        return;
    if (IsOwned()) {
        m_pobj->cRecursion = 1;
        Unlock();
    }
    if ((__atomic_load_n(KvWord(m_pobj), __ATOMIC_ACQUIRE) & FUTEX_TID_MASK) != 0)
        m_shm.m_pv = nullptr;  // the mapping stays for the rest of the process
    m_shm.Close();
    m_pobj = nullptr;
}

bool KvNamedMutex::IsOwned() const
{
    return m_pobj != nullptr &&
           (__atomic_load_n(KvWord(m_pobj), __ATOMIC_RELAXED) & FUTEX_TID_MASK) == KvGetCurrentThreadId();
}

uint32_t KvNamedMutex::BeginRead() const
{
    if (m_pobj == nullptr)
        return 1;
    // While another thread holds the mutex, wait for it on reads for as long as
    // a locker would spin: queueing for the lock instead would make the reader
    // one more holder in the way of the writers.
    uint32_t dwSeq = __atomic_load_n(&m_pobj->dwSequence, __ATOMIC_ACQUIRE);
    if ((dwSeq & 1) == 0 || IsOwned())
        return dwSeq;
    for (uint32_t i = 0; (dwSeq & 1) != 0 && i < kKvSpinMax; ++i) {
        KvCpuRelax();
        dwSeq = __atomic_load_n(&m_pobj->dwSequence, __ATOMIC_ACQUIRE);
    }
    return dwSeq;
}

bool KvNamedMutex::EndRead(uint32_t dwSeq) const
{
    if ((dwSeq & 1) != 0)
        return IsOwned();  // only the owner writes, and that is the reader
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    return __atomic_load_n(&m_pobj->dwSequence, __ATOMIC_RELAXED) == dwSeq;
}

bool KvNamedMutex::Lock()
{
    KvSharedMutexObject* p = m_pobj;
    if (p == nullptr)
        return false;
    const uint32_t dwTid = KvGetCurrentThreadId();
    uint32_t* pw = KvWord(p);
    const uint32_t w = __atomic_load_n(pw, __ATOMIC_RELAXED);
    if ((w & FUTEX_TID_MASK) == dwTid) {
        ++p->cRecursion;
        return true;
    }
    robust_list_head* phead = KvRobustHead();
    // Announced before the word changes hands, so that the kernel also releases
    // a mutex whose owner dies between taking it and linking it.
    KvSetPending(phead, KvEntry(p));
    if (!KvTryTake(pw, w, dwTid, 0))
        LockContended(dwTid);
    if (phead != nullptr)
        KvEnqueue(phead, p);
    KvSetPending(phead, nullptr);
    p->cRecursion = 1;  // also after taking over an abandoned mutex
    // Odd from here on (an owner that died left it odd already); the fence keeps
    // the owner's writes after it.
    __atomic_store_n(&p->dwSequence, (p->dwSequence + 1) | 1, __ATOMIC_RELAXED);
    __atomic_thread_fence(__ATOMIC_RELEASE);
    return true;
}

bool KvRobustListFits(long lFutexOffset, std::string* pstrWhy)
{
    robust_list_head* phead = nullptr;
    size_t cb = 0;
    if (syscall(SYS_get_robust_list, 0, &phead, &cb) != 0) {
        *pstrWhy = std::string("the kernel has no robust futex lists (") + strerror(errno) + ")";
        return false;
    }
    if (phead == nullptr)
        return true;  // no list yet: the library registers its own
    if (cb != sizeof(robust_list_head) || phead->futex_offset != lFutexOffset) {
        *pstrWhy = "the C library's robust mutex list keeps its futex word " + std::to_string(phead->futex_offset) +
                   " bytes from the link, this build expects " + std::to_string(lFutexOffset);
        return false;
    }
    return true;
}

bool KvCheckOwnerDeathRecovery(std::string* pstrWhy)
{
    return KvRobustListFits(KvOwnFutexOffset(), pstrWhy) && KvRobustHead() != nullptr;
}

void KvNamedMutex::LockContended(uint32_t dwTid)
{
    KvSharedMutexObject* p = m_pobj;
    uint32_t* pw = KvWord(p);
    // Spin on reads (the cache line stays shared while the owner works), then
    // try once the word looks available.
    const uint32_t cLimit = __atomic_load_n(&p->cSpinEstimate, __ATOMIC_RELAXED) * 2 + kKvSpinMin;
    for (uint32_t i = 0; i < cLimit && i < kKvSpinMax; ++i) {
        KvCpuRelax();
        const uint32_t w = __atomic_load_n(pw, __ATOMIC_RELAXED);
        if (KvTryTake(pw, w, dwTid, 0)) {
            KvAdaptSpin(p, i);
            return;
        }
    }
    KvAdaptSpin(p, kKvSpinMax);
    // Sleep until woken. A thread that has slept takes the word with
    // FUTEX_WAITERS kept, because other sleepers may remain.
    for (;;) {
        uint32_t w = __atomic_load_n(pw, __ATOMIC_RELAXED);
        if (KvTryTake(pw, w, dwTid, FUTEX_WAITERS))
            return;
        if (KvIsAvailable(w))
            continue;
        if ((w & FUTEX_WAITERS) == 0 &&
            !__atomic_compare_exchange_n(pw, &w, w | FUTEX_WAITERS, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED))
            continue;
        KvFutex(pw, FUTEX_WAIT, w | FUTEX_WAITERS);
    }
}

void KvNamedMutex::Unlock()
{
    KvSharedMutexObject* p = m_pobj;
    if (p == nullptr)
        return;
    uint32_t* pw = KvWord(p);
    if ((__atomic_load_n(pw, __ATOMIC_RELAXED) & FUTEX_TID_MASK) != KvGetCurrentThreadId())
        return;  // not the owner: releasing is refused, as for any recursive mutex
    if (--p->cRecursion > 0)
        return;
    __atomic_store_n(&p->dwSequence, p->dwSequence + 1, __ATOMIC_RELEASE);
    robust_list_head* phead = KvRobustHead();
    KvSetPending(phead, KvEntry(p));
    if (phead != nullptr)
        KvDequeue(phead, p);
    if (__atomic_exchange_n(pw, 0u, __ATOMIC_RELEASE) & FUTEX_WAITERS)
        KvFutex(pw, FUTEX_WAKE, 1);
    KvSetPending(phead, nullptr);
}
