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

#include <sys/mman.h>
#include <unistd.h>

#include "../Diag/KvDebugOutput.h"
#include "../Platform/KvPlatform.h"
#include "KvGranularity.h"
#include "KvSegmentState.h"

namespace {
KvShmObject s_shmSegment;        // this process's description and mapping
KvNamedLock s_lockCritSec;       // "KVCRITSEC"
std::string s_strCritSecName;    // its POSIX name when opened
KvNamedMutex s_mtxPools;         // "OGRAN.MTX"
bool s_fPrivate = false;         // attached by _AllocMem, not to a named segment
bool s_fForkHandlerSet = false;

KvBuildFingerprint s_fingerprint = {{'K', 'V', 'R', 'F', 'R', 'S', 'V', 'R'},
                                    static_cast<uint32_t>(KvWordSize()),
                                    sizeof(KvGranularity::Info),
                                    sizeof(KvGranularity),
                                    0,
                                    1469598103934665603ull};
std::string s_strClassList;

KvBuildFingerprint* KvSegmentFingerprint()
{
    return reinterpret_cast<KvBuildFingerprint*>(KvGranularity::_pvBase + KVGRAN_FINGERPRINT_OFFSET);
}

// In a fork child: an attachment of its own (own description and shared lock),
// and a critical section of its own.
void KvSegmentAfterFork()
{
    if (!s_strCritSecName.empty()) {
        s_lockCritSec.Close();
        s_lockCritSec.Open("KVCRITSEC");
    }
    if (s_shmSegment.m_fd >= 0 && s_shmSegment.Reopen()) {
        KvFlockShared(s_shmSegment.m_fd);
        KvGranularity::_hMem = s_shmSegment.m_fd;
        __atomic_add_fetch(&KvGranularity::_poinf->_cAllocSharedMem, 1, __ATOMIC_SEQ_CST);
    }
}

// Opens the existing segment if a live process holds it; otherwise clears what a
// dead namespace left behind and creates it. Runs under KVCRITSEC.
bool KvOpenOrCreateSegment(const std::string& strName, uint32_t size, bool* pfCreated)
{
    *pfCreated = false;
    bool fNew = false;
    if (s_shmSegment.OpenOrCreate(strName, 0, false, &fNew)) {
        if (!KvFlockTryExclusive(s_shmSegment.m_fd)) {
            // Live: others hold it. Join with a shared lock of our own.
            if (s_shmSegment.m_cb < size) {
                s_shmSegment.Close();
                return false;
            }
            s_shmSegment.m_cb = size;
            return KvFlockShared(s_shmSegment.m_fd);
        }
        s_shmSegment.Close();  // stale: every user died
    }
    // Absent or stale: nothing of this namespace is in use; start clean, keeping
    // the lock object that this process holds.
    KvUnlinkNamespaceObjects(s_strCritSecName);
    if (!s_shmSegment.OpenOrCreate(strName, size, true, &fNew))
        return false;
    *pfCreated = fNew;
    return KvFlockShared(s_shmSegment.m_fd);
}
}  // namespace

// --- KVCRITSEC -------------------------------------------------------------

void KvInitCritSec()
{
    const std::string strName = KvObjectName("KVCRITSEC");
    if (s_lockCritSec.IsOpen() && strName == s_strCritSecName)
        return;
    s_lockCritSec.Close();
    if (s_lockCritSec.Open("KVCRITSEC"))
        s_strCritSecName = strName;
}

void KvEnterCritSec()
{
    KvInitCritSec();
    s_lockCritSec.Lock();
}

void KvExitCritSec()
{
    s_lockCritSec.Unlock();
}

void KvCloseCritSec()
{
    s_lockCritSec.Close();
    s_strCritSecName.clear();
}

// --- the pool mutex --------------------------------------------------------

void KvGranularity::_LockPools()
{
    s_mtxPools.Lock();
}

void KvGranularity::_UnlockPools()
{
    s_mtxPools.Unlock();
}

// --- fingerprint -----------------------------------------------------------

void KvFingerprintAddClass(const char* pszClass, uint32_t cbClass)
{
    const std::string str = std::string(pszClass != nullptr ? pszClass : "?") + ":" + std::to_string(cbClass) + ";";
    for (unsigned char ch : str)
        s_fingerprint.qwClassHash = (s_fingerprint.qwClassHash ^ ch) * 1099511628211ull;
    s_fingerprint.cClasses += 1;
    s_strClassList += str;
}

KvBuildFingerprint KvCurrentFingerprint()
{
    return s_fingerprint;
}

std::string KvFingerprintClassList()
{
    return s_strClassList;
}

bool KvIsSharedSegmentAttached()
{
    return KvGranularity::_pvBase != nullptr && !s_fPrivate;
}

// --- attachment ------------------------------------------------------------

bool KvAllocNamedSharedMem(void** ppvBase, const char* pszName, uint32_t size, uint32_t cbCommitted)
{
    bool fCreated = false;
    KvEnterCritSec();
    if (*ppvBase == nullptr) {
        if (KvOpenOrCreateSegment(KvObjectName(pszName), size, &fCreated) && s_shmSegment.Map() &&
            s_mtxPools.OpenOrCreate("OGRAN.MTX", true)) {
            *ppvBase = s_shmSegment.m_pv;
            KvGranularity::_hMem = s_shmSegment.m_fd;
            s_fPrivate = false;
            if (!s_fForkHandlerSet) {
                s_fForkHandlerSet = true;
                KvAtForkChild(&KvSegmentAfterFork);
            }
        } else {
            s_shmSegment.Close();
            *ppvBase = nullptr;
            fCreated = false;
        }
    }
    KvExitCritSec();
    if (*ppvBase != nullptr && fCreated)
        memset(*ppvBase, 0, cbCommitted);
    char sz[400];
    snprintf(sz, sizeof(sz), "KvAllocNamedSharedMem(): pszName=%s pvBaseRet=0x%lx Size=0x%x Committed=0x%x",
             pszName, static_cast<unsigned long>(reinterpret_cast<uintptr_t>(*ppvBase)), size, cbCommitted);
    _DebugOutput(sz);
    KvGranularity::_s_cThisApplicationsAccess += 1;
    snprintf(KvGranularity::_s_szMemName, sizeof(KvGranularity::_s_szMemName), "%s", pszName);
    return fCreated;
}

// Refuses a segment made by another build: detaches again and throws.
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
    KvEnterCritSec();
    s_shmSegment.Close();
    KvExitCritSec();
    KvGranularity::_pvBase = nullptr;
    KvGranularity::_hMem = -1;
    KvGranThrow(sz);
}

int32_t KvGranularity::_AllocSharedMem(uint32_t size, const char* pszName)
{
    const bool fAlready = _pvBase != nullptr;
    const bool fFirst = KvAllocNamedSharedMem(reinterpret_cast<void**>(&_pvBase), pszName, size, KVGRAN_HEADER_SIZE);
    if (_pvBase == nullptr) {
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
    return _poinf->_cAllocSharedMem;
}

void KvGranularity::_AllocMem(uint32_t size)
{
    void* pv = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (pv == MAP_FAILED)
        KvGranThrow("Out of memory in KvGranularity::AllocMem()");
    _pvBase = static_cast<char*>(pv);
    s_fPrivate = true;
    _stMax = size;
    _Init(true);
    _s_cThisApplicationsAccess += 1;
    snprintf(_s_szMemName, sizeof(_s_szMemName), "%s", KvApplicationPath().c_str());
}

void KvGranularity::_Init(bool fFirst)
{
    _poinf = reinterpret_cast<Info*>(_pvBase);
    if (!fFirst) {
        _aogran = reinterpret_cast<KvGranularity*>(_poinf->_agran);
        _poinf->_cAllocSharedMem += 1;
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
    _poinf->_cAllocSharedMem -= 1;
    const int32_t cRemaining = _poinf->_cAllocSharedMem;
    const bool fRelease = _s_cThisApplicationsAccess == 1;
    _s_cThisApplicationsAccess -= 1;
    if (!fRelease)
        return cRemaining;
    if (s_fPrivate) {
        munmap(_pvBase, _stMax);
        s_fPrivate = false;
    } else {
        // The last user (no other description holds a lock) removes the namespace.
        KvEnterCritSec();
        const bool fLast = KvFlockTryExclusive(s_shmSegment.m_fd);
        s_shmSegment.Close();
        s_mtxPools.Close();
        if (fLast)
            KvUnlinkNamespaceObjects("");
        KvExitCritSec();
    }
    // The base is forgotten, so that a later attachment of this process maps afresh
    // instead of reading through a mapping that no longer exists.
    _pvBase = nullptr;
    _poinf = nullptr;
    _aogran = nullptr;
    _hMem = -1;
    return cRemaining;
}

// --- root slots and ranges -------------------------------------------------

void* KvGranularity::_SetRoot(void* pv, int index)
{
    void* pvOld = _CalcPtr(_poinf->_aptrRoot[index]);
    _poinf->_aptrRoot[index] = _CalcOffset(pv);
    return pvOld;
}

void* KvGranularity::_GetRoot(int index)
{
    return _CalcPtr(_poinf->_aptrRoot[index]);
}

void* KvGranularity::_GetRootObj()
{
    return _pvBase + KVGRAN_HEADER_SIZE;
}

bool KvGranularity::_IsPointerInComittedRange(const void* pv)
{
    const char* pch = static_cast<const char*>(pv);
    return pch >= _pvBase + KVGRAN_HEADER_SIZE && pch < _poinf->_pchNextCommit.Get() - 7;
}

int32_t KvGranularity::_QueryCountAllocSharedMem()
{
    return _poinf->_cAllocSharedMem;
}

void KvGranularity::_DecCountAllocSharedMem()
{
    _poinf->_cAllocSharedMem -= 1;
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
            close(*s_aphHandles[i]);
            *s_aphHandles[i] = -1;
        }
        s_aphHandles[i] = nullptr;
    }
    s_cHandles = 0;
}
