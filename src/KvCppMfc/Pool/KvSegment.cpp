// KvSegment.cpp - creation, attachment and release of the named segment, the
// header set-up, root slots, the KVCRITSEC lock, the pool mutex, the build
// fingerprint and the handles closed at exit.
//
// Lifetime follows the original platform: a named object lives while a process
// uses it. Every attached process holds a shared flock on its own open
// description of the segment; creation and the last release run under KVCRITSEC.
// A segment that exists but that no live process holds is stale and is set up
// afresh; the last process to detach unlinks every object of the namespace.
#include <cstdio>
#include <cstring>
#include <string>

#include "../Diag/KvDiag.h"
#include "../Platform/KvPlatform.h"
#include "KvGranularity.h"
#include "KvJournal.h"
#include "KvMemoryWatcher.h"
#include "KvSegmentState.h"
#include "KvTreeJournal.h"

// The attachment count is changed atomically by every process. The header is
// packed, so the field's type promises no alignment; its offset (588) and the
// page-aligned mapping do, and the aligned view lets the atomics say so.
static_assert(offsetof(KvGranularity::Info, _cAllocSharedMem) % alignof(int32_t) == 0,
              "the attachment count must be aligned for atomic access");
static inline int32_t* KvAttachCount(KvGranularity::Info* pInfo)
{
    return reinterpret_cast<int32_t*>(reinterpret_cast<char*>(pInfo) + offsetof(KvGranularity::Info, _cAllocSharedMem));
}

namespace {
// Per-process state of the attachment. Made on first use and never destroyed, so
// that start-up and exit code of other files may attach and detach in any order
// relative to this file's static initialisers and destructors.
struct KvSegmentStatics {
    KvShmObject shmSegment;      // this process's description and mapping
    KvNamedLock lockCritSec;     // "KVCRITSEC"
    std::string strCritSecName;  // its POSIX name when opened
    KvNamedMutex mtxPools;       // "OGRAN.MTX"
    bool fPrivate = false;       // attached by _AllocMem, not to a named segment
    int fdForkSpare = -1;        // description made for a fork child (see below)
    std::string strClassList;    // registered classes, for messages
};

KvSegmentStatics& S()
{
    static KvSegmentStatics* s_p = new KvSegmentStatics;
    return *s_p;
}

// Constant-initialised, so registrations from static initialisers of any file
// see it ready.
KvBuildFingerprint s_fingerprint = {{'K', 'V', 'R', 'F', 'R', 'S', 'V', 'R'},
                                    static_cast<uint32_t>(KvWordSize()),
                                    sizeof(KvGranularity::Info),
                                    sizeof(KvGranularity),
                                    0,
                                    1469598103934665603ull};

KvBuildFingerprint* KvSegmentFingerprint()
{
    return reinterpret_cast<KvBuildFingerprint*>(KvGranularity::_pvBase + KVGRAN_FINGERPRINT_OFFSET);
}

bool KvIsAttachedShared()
{
    return KvGranularity::_pvBase != nullptr && !S().fPrivate && S().shmSegment.m_fd >= 0;
}

// fork(): the child is an attachment of its own. Its description is opened and
// share-locked by the parent before the fork, so that at no moment the segment is
// held only through a description that parent and child share (a parent that
// detached right after the fork would otherwise take the child's lock for its own
// and remove the namespace under it).
void KvSegmentForkPrepare()
{
    if (!KvIsAttachedShared())
        return;
    const int fd = S().shmSegment.OpenAnotherDescription();
    if (fd >= 0 && !KvFlockShared(fd)) {
        KvCloseDescriptor(fd);
        return;
    }
    S().fdForkSpare = fd;
}

void KvSegmentForkParent()
{
    KvCloseDescriptor(S().fdForkSpare);  // the child's copy keeps the description and its lock
    S().fdForkSpare = -1;
}

void KvSegmentForkChild()
{
    KvSegmentStatics& s = S();
    KvTreeJournalForgetAfterFork();
    if (s.lockCritSec.IsOpen())
        s.lockCritSec.ResetAfterFork();
    if (!KvIsAttachedShared()) {
        KvCloseDescriptor(s.fdForkSpare);
        s.fdForkSpare = -1;
        return;
    }
    if (s.fdForkSpare >= 0)
        s.shmSegment.AdoptDescription(s.fdForkSpare);
    else if (s.shmSegment.Reopen())
        KvFlockShared(s.shmSegment.m_fd);
    s.fdForkSpare = -1;
    KvGranularity::_hMem = s.shmSegment.m_fd;
    __atomic_add_fetch(KvAttachCount(KvGranularity::_poinf), KvGranularity::_s_cThisApplicationsAccess,
                       __ATOMIC_SEQ_CST);
}

void KvRegisterSegmentForkHandlers()
{
    static bool s_fDone = false;
    if (!s_fDone) {
        s_fDone = true;
        KvAtFork(&KvSegmentForkPrepare, &KvSegmentForkParent, &KvSegmentForkChild);
    }
}

// Opens the existing segment if a live process holds it; otherwise clears what a
// dead namespace left behind and creates it. Runs under KVCRITSEC.
bool KvOpenOrCreateSegment(const std::string& strName, uint32_t size, bool* pfCreated)
{
    KvShmObject& shm = S().shmSegment;
    *pfCreated = false;
    bool fNew = false;
    if (shm.OpenOrCreate(strName, 0, false, &fNew)) {
        if (!KvFlockTryExclusive(shm.m_fd)) {
            // Live: others hold it. Join with a shared lock of our own.
            if (shm.m_cb < size) {
                shm.Close();
                return false;
            }
            shm.m_cb = size;
            return KvFlockShared(shm.m_fd);
        }
        shm.Close();  // stale: every user died
    }
    // Absent or stale: nothing of this namespace is attached. Start clean, keeping
    // the lock this process holds and the named mutexes, which processes may have
    // opened before attaching (robust mutexes survive their owners).
    KvUnlinkNamespaceObjects(S().strCritSecName, true);
    if (!shm.OpenOrCreate(strName, size, true, &fNew))
        return false;
    *pfCreated = fNew;
    return KvFlockShared(shm.m_fd);
}

// Holds KVCRITSEC for a scope (recursive per thread).
struct KvCritSecScope {
    KvCritSecScope() { KvEnterCritSec(); }
    ~KvCritSecScope() { KvExitCritSec(); }
    KvCritSecScope(const KvCritSecScope&) = delete;
    KvCritSecScope& operator=(const KvCritSecScope&) = delete;
};

// Gives up this process's attachment without touching the shared counter.
void KvDropAttachment()
{
    KvTreeJournalDetach();
    S().shmSegment.Close();
    S().mtxPools.Close();
    KvGranularity::_pvBase = nullptr;
    KvGranularity::_poinf = nullptr;
    KvGranularity::_aogran = nullptr;
    KvGranularity::_hMem = -1;
}
}  // namespace

// --- KVCRITSEC -------------------------------------------------------------

void KvInitCritSec()
{
    KvSegmentStatics& s = S();
    const std::string strName = KvObjectName("KVCRITSEC");
    if (s.lockCritSec.IsOpen() && strName == s.strCritSecName)
        return;
    s.lockCritSec.Close();
    if (s.lockCritSec.Open("KVCRITSEC"))
        s.strCritSecName = strName;
}

void KvEnterCritSec()
{
    KvInitCritSec();
    S().lockCritSec.Lock();
}

void KvExitCritSec()
{
    S().lockCritSec.Unlock();
}

void KvCloseCritSec()
{
    S().lockCritSec.Close();
    S().strCritSecName.clear();
}

// --- the pool mutex --------------------------------------------------------

// A pool operation is one journaled section: taking the mutex first undoes
// what an owner that died inside left, and releasing it discards the records.
// An operation that throws keeps what it changed before the throw, as it
// always has (a corrupt link moves the head, and the next allocation says so).
namespace {
thread_local uint32_t t_cPoolDepth = 0;
}  // namespace

void KvGranularity::_LockPools()
{
    S().mtxPools.Lock();
    if (++t_cPoolDepth == 1 && _pvBase != nullptr && !KvPoolJournal().IsEmpty())
        KvPoolJournal().RollBack("its owner ended inside it");
}

void KvGranularity::_UnlockPools()
{
    if (!S().mtxPools.IsOwned())
        return;
    if (t_cPoolDepth == 1 && _pvBase != nullptr)
        KvPoolJournal().Commit();
    if (t_cPoolDepth > 0)
        --t_cPoolDepth;
    S().mtxPools.Unlock();
}

// --- fingerprint -----------------------------------------------------------

void KvFingerprintAddClass(const char* pszClass, uint32_t cbClass)
{
    const std::string str = std::string(pszClass != nullptr ? pszClass : "?") + ":" + std::to_string(cbClass) + ";";
    for (unsigned char ch : str)
        s_fingerprint.qwClassHash = (s_fingerprint.qwClassHash ^ ch) * 1099511628211ull;
    s_fingerprint.cClasses += 1;
    S().strClassList += str;
}

KvBuildFingerprint KvCurrentFingerprint()
{
    return s_fingerprint;
}

std::string KvFingerprintClassList()
{
    return S().strClassList;
}

bool KvIsSharedSegmentAttached()
{
    return KvGranularity::_pvBase != nullptr && !S().fPrivate;
}

// --- attachment ------------------------------------------------------------

bool KvAllocNamedSharedMem(void** ppvBase, const char* pszName, uint32_t size, uint32_t cbCommitted)
{
    KvSegmentStatics& s = S();
    bool fCreated = false;
    KvEnterCritSec();
    if (*ppvBase == nullptr) {
        if (KvOpenOrCreateSegment(KvObjectName(pszName), size, &fCreated) && s.shmSegment.Map() &&
            s.mtxPools.OpenOrCreate("OGRAN.MTX") && KvTreeJournalAttach(true)) {
            *ppvBase = s.shmSegment.m_pv;
            KvGranularity::_hMem = s.shmSegment.m_fd;
            s.fPrivate = false;
            KvRegisterSegmentForkHandlers();
        } else {
            s.shmSegment.Close();
            KvTreeJournalDetach();
            *ppvBase = nullptr;
            fCreated = false;
        }
    }
    KvExitCritSec();
    if (*ppvBase != nullptr && fCreated)
        memset(*ppvBase, 0, cbCommitted);
    char sz[400];
    snprintf(sz, sizeof(sz), "KvAllocNamedSharedMem(): pszName=%s pvBaseRet=0x%lx Size=0x%x Committed=0x%x", pszName,
             static_cast<unsigned long>(reinterpret_cast<uintptr_t>(*ppvBase)), size, cbCommitted);
    _DebugOutput(sz);
    KvGranularity::_s_cThisApplicationsAccess += 1;
    snprintf(KvGranularity::_s_szMemName, sizeof(KvGranularity::_s_szMemName), "%s", pszName);
    return fCreated;
}

// Refuses a segment made by another build: detaches again and throws. Indices of
// delete functions and layouts would not agree, and sharing would corrupt the tree.
static void KvCheckFingerprint(const char* pszName)
{
    const KvBuildFingerprint* pfp = KvSegmentFingerprint();
    if (memcmp(pfp, &s_fingerprint, sizeof(s_fingerprint)) == 0)
        return;
    char sz[300];
    snprintf(sz, sizeof(sz),
             "KvGranularity::_AllocSharedMem pszName=%s: the segment was made by another build "
             "(word size %u, %u shared classes); this process (word size %u, %u shared classes) cannot share it",
             pszName, pfp->dwWordSize, pfp->cClasses, s_fingerprint.dwWordSize, s_fingerprint.cClasses);
    KvGranularity::_s_cThisApplicationsAccess -= 1;
    KvDropAttachment();
    KvGranThrow(sz);
}

int32_t KvGranularity::_AllocSharedMem(uint32_t size, const char* pszName)
{
    // The header is set up (or checked) before any other process can join, so a
    // joiner never sees a half-made header.
    KvCritSecScope lock;
    const bool fAlready = _pvBase != nullptr;
    const bool fFirst = KvAllocNamedSharedMem(reinterpret_cast<void**>(&_pvBase), pszName, size, KVGRAN_HEADER_SIZE);
    if (_pvBase == nullptr) {
        _s_cThisApplicationsAccess -= 1;  // a failed attachment is none
        char sz[300];
        snprintf(sz, sizeof(sz), "KvGranularity::_AllocSharedMem pszName=%s _pvBase=%x", pszName, 0);
        KvGranThrow(sz);
    }
    if (fFirst)
        memcpy(KvSegmentFingerprint(), &s_fingerprint, sizeof(s_fingerprint));
    else if (!fAlready)
        KvCheckFingerprint(pszName);
    _Init(fFirst);
    _stMax = size;
    KvSetStatisticsDump(&KvGranularityMemoryState::DumpCurrentStatistics);
    return __atomic_load_n(KvAttachCount(_poinf), __ATOMIC_SEQ_CST);
}

void KvGranularity::_AllocMem(uint32_t size)
{
    void* pv = KvReserveMemory(size);
    if (pv == nullptr)
        KvGranThrow("Out of memory in KvGranularity::AllocMem()");
    _pvBase = static_cast<char*>(pv);
    S().fPrivate = true;
    _stMax = size;
    if (!KvTreeJournalAttach(false)) {
        KvReleaseMemory(pv, size);
        _pvBase = nullptr;
        KvGranThrow("Out of memory in KvGranularity::AllocMem()");
    }
    _Init(true);
    KvSetStatisticsDump(&KvGranularityMemoryState::DumpCurrentStatistics);
    _s_cThisApplicationsAccess += 1;
    snprintf(_s_szMemName, sizeof(_s_szMemName), "%s", KvApplicationPath().c_str());
}

void KvGranularity::_Init(bool fFirst)
{
    _poinf = reinterpret_cast<Info*>(_pvBase);
    if (!fFirst) {
        _aogran = reinterpret_cast<KvGranularity*>(_poinf->_agran);
        __atomic_add_fetch(KvAttachCount(_poinf), 1, __ATOMIC_SEQ_CST);
        return;
    }
    _poinf->_pvRootObj = KvsPtr<char>::FromOffset(KVGRAN_HEADER_SIZE);
    _poinf->_pvCreatorBase = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(_pvBase));
    _poinf->_pchNextFree = KvsPtr<char>::FromOffset(KVGRAN_HEADER_SIZE);
    _poinf->_pchNextCommit = KvsPtr<char>::FromOffset(KVGRAN_HEADER_SIZE);
    _poinf->_cAllocSharedMem = 1;
    _poinf->_fMemChecking = 1;
    _poinf->_cWatchers = 0;
    _poinf->_szFirstWatcher[0] = '\0';
    _aogran = reinterpret_cast<KvGranularity*>(_poinf->_agran);
    memcpy(_poinf->_agran, _agranTemplate, sizeof(_agranTemplate));
    memset(_poinf->_aptrRoot, 0, sizeof(_poinf->_aptrRoot));
}

int32_t KvGranularity::_FreeMem()
{
    if (_pvBase == nullptr)
        return -1;
    // Attachments and releases of several processes meet here without a common
    // lock (joining runs under KVCRITSEC, releasing under the caller's), so the
    // counter moves atomically.
    const int32_t cRemaining = __atomic_sub_fetch(KvAttachCount(_poinf), 1, __ATOMIC_SEQ_CST);
    const bool fRelease = _s_cThisApplicationsAccess == 1;
    _s_cThisApplicationsAccess -= 1;
    if (!fRelease)
        return cRemaining;
    if (S().fPrivate) {
        KvReleaseMemory(_pvBase, _stMax);
        S().fPrivate = false;
    } else {
        KvCloseWatcherMappings();
        // The last user (no other description holds a lock) removes the namespace.
        KvCritSecScope lock;
        const bool fLast = KvFlockTryExclusive(S().shmSegment.m_fd);
        S().shmSegment.Close();
        S().mtxPools.Close();
        if (fLast)
            KvUnlinkNamespaceObjects("");
    }
    // The base is forgotten (unlike the original, which kept it), so that a later
    // attachment maps afresh and a second release returns -1 instead of touching
    // a mapping that no longer exists.
    KvDropAttachment();
    return cRemaining;
}

// --- root slots and ranges -------------------------------------------------

void* KvGranularity::_SetRoot(void* pv, int index)
{
    if (_poinf == nullptr || index < 0 || index >= 16)
        return nullptr;  // a slot that does not exist is never written
    void* pvOld = _CalcPtr(_poinf->_aptrRoot[index]);
    KvsSave(static_cast<void*>(&_poinf->_aptrRoot[index]), sizeof(uint32_t));
    _poinf->_aptrRoot[index] = _CalcOffset(pv);
    return pvOld;
}

void* KvGranularity::_GetRoot(int index)
{
    if (_poinf == nullptr || index < 0 || index >= 16)
        return nullptr;
    return _CalcPtr(_poinf->_aptrRoot[index]);
}

void* KvGranularity::_GetRootObj()
{
    return _pvBase + KVGRAN_HEADER_SIZE;
}

bool KvGranularity::_IsPointerInComittedRange(const void* pv)
{
    if (_poinf == nullptr)
        return false;
    // Compared as integers: pv may point anywhere, also outside the segment.
    const uintptr_t uBase = reinterpret_cast<uintptr_t>(_pvBase);
    const uintptr_t u = reinterpret_cast<uintptr_t>(pv);
    return u >= uBase + KVGRAN_HEADER_SIZE && u + 7 < uBase + _poinf->_pchNextCommit.Offset();
}

int32_t KvGranularity::_QueryCountAllocSharedMem()
{
    return _poinf != nullptr ? __atomic_load_n(KvAttachCount(_poinf), __ATOMIC_SEQ_CST) : 0;
}

void KvGranularity::_DecCountAllocSharedMem()
{
    if (_poinf != nullptr)
        __atomic_sub_fetch(KvAttachCount(_poinf), 1, __ATOMIC_SEQ_CST);
}

// --- handles closed at exit ------------------------------------------------

namespace {
int* s_aphHandles[1024];
int s_cHandles = 0;
}  // namespace

void KvAddHandleToBeClosedAtExit(int* phHandle)
{
    for (int i = 0; i < s_cHandles; ++i)
        if (s_aphHandles[i] != nullptr && *s_aphHandles[i] == *phHandle)
            return;
    if (s_cHandles >= 1024)
        return;
    s_aphHandles[s_cHandles++] = phHandle;
}

void KvCloseHandles()
{
    for (int i = 0; i < s_cHandles; ++i) {
        if (s_aphHandles[i] != nullptr && *s_aphHandles[i] >= 0) {
            KvCloseDescriptor(*s_aphHandles[i]);
            *s_aphHandles[i] = -1;
        }
        s_aphHandles[i] = nullptr;
    }
    s_cHandles = 0;
}
