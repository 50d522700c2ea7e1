// KvMemoryWatcher.cpp - shared memory watchers, the watcher chain and memory-state
// snapshots with their two dump formats.
#include "KvMemoryWatcher.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>

#include "../Diag/KvDiag.h"
#include "../Platform/KvPlatform.h"

namespace {

const char* const kOpool = "KvCppMfc/OPOOL";

// One mapping of a watcher object in this process, with the number of holders
// in this process: the opening count in the object is shared by all processes,
// while the mapping is this process's own and must stay while it is held here.
struct KvWatcherMapping : KvShmObject {
    int cHeld = 0;
    // Made while no segment was attached: no chain names it, so no namespace
    // clean-up would ever find it; its maker removes it with its last hold.
    bool fUnchained = false;
};

// This process's mappings of watcher objects, by POSIX name (which carries the
// namespace, so a mapping is never taken for the same chain name elsewhere).
std::map<std::string, std::unique_ptr<KvWatcherMapping>>& KvWatcherMappings()
{
    static std::map<std::string, std::unique_ptr<KvWatcherMapping>> s_map;
    return s_map;
}

// The mapping that holds the watcher at pv, or end().
auto KvFindMapping(const void* pv)
{
    auto& map = KvWatcherMappings();
    auto it = map.begin();
    while (it != map.end() && it->second->m_pv != pv)
        ++it;
    return it;
}

struct KvPoolLockScope {
    KvPoolLockScope() { KvGranularity::_LockPools(); }
    ~KvPoolLockScope() { KvGranularity::_UnlockPools(); }
};

void KvCopyTerminated(char* pszDst, const char* pszSrc, size_t cbField)
{
    snprintf(pszDst, cbField, "%s", pszSrc != nullptr ? pszSrc : "");
}

std::string KvWatcherObjectName(const char* pszName, const char* pszDescr)
{
    std::string str = pszName;
    if (pszDescr != nullptr)
        str = str + ": " + pszDescr;
    if (str.size() > 511)
        str.resize(511);
    return str;
}

// Maps the watcher of that chain name in this process (opening or creating it).
KvGranularityMemoryWatcher* KvMapWatcher(const std::string& strName, bool fCreateOk, bool* pfCreated)
{
    *pfCreated = false;
    auto& map = KvWatcherMappings();
    const std::string strObject = KvObjectName(strName.c_str());
    auto it = map.find(strObject);
    if (it != map.end())
        return static_cast<KvGranularityMemoryWatcher*>(it->second->m_pv);
    auto pshm = std::make_unique<KvWatcherMapping>();
    if (!pshm->OpenOrCreate(strObject, sizeof(KvGranularityMemoryWatcher), fCreateOk, pfCreated) || !pshm->Map()) {
        if (*pfCreated)
            KvShmObject::Unlink(pshm->m_strName);
        pshm->Close();
        *pfCreated = false;
        return nullptr;
    }
    auto* pWatcher = static_cast<KvGranularityMemoryWatcher*>(pshm->m_pv);
    pWatcher->SetFileMappingHandle(static_cast<uint32_t>(pshm->m_fd));
    map[strObject] = std::move(pshm);
    return pWatcher;
}

// Removes a watcher object again (made by mistake) from this process and the system.
void KvDiscardWatcher(const std::string& strName)
{
    auto& map = KvWatcherMappings();
    auto it = map.find(KvObjectName(strName.c_str()));
    if (it == map.end())
        return;
    KvShmObject::Unlink(it->first);
    it->second->Close();
    map.erase(it);
}

// Walks the chain from the header, newest first.
template <class F>
void KvForEachWatcher(F fn)
{
    if (KvGranularity::_poinf == nullptr)
        return;
    std::string strName = KvGranularity::_poinf->_szFirstWatcher;
    for (uint32_t c = 0; !strName.empty() && c < KVGRAN_NUM_WATCHERS; ++c) {
        bool fCreated = false;
        KvGranularityMemoryWatcher* p = KvMapWatcher(strName, false, &fCreated);
        if (p == nullptr)
            return;
        if (!fn(p))
            return;
        strName = p->m_szNext;
    }
}

}  // namespace

KvGranularityMemoryWatcher* KvGranularityMemoryWatcher::_GetSharedWatcher(const char* pszName, const char* pszDescr,
                                                                          uint32_t cbSize)
{
    if (pszName == nullptr || *pszName == '\0')
        return nullptr;
    KvPoolLockScope lock;
    const std::string strName = KvWatcherObjectName(pszName, pszDescr);
    bool fCreated = false;
    KvGranularityMemoryWatcher* p = KvMapWatcher(strName, true, &fCreated);
    if (p == nullptr)
        return nullptr;
    if (fCreated) {
        if (pszDescr == nullptr) {
            // Only an existing watcher can be opened by its chain name alone.
            KvDiscardWatcher(strName);
            const std::string strText = "KvGranularityMemoryWatcher::_GetSharedWatcher(): no watcher named " + strName;
            KvGranThrow(strText.c_str());
        }
        p->Init(pszName, pszDescr, cbSize);
        KvFindMapping(p)->second->cHeld += 1;
        KvFindMapping(p)->second->fUnchained = KvGranularity::_poinf == nullptr;
        return p;
    }
    p->m_cOpened += 1;
    KvFindMapping(p)->second->cHeld += 1;
    return p;
}

KvGranularityMemoryWatcher* KvGranularityMemoryWatcher::_GetMemoryWatcher(const char* pszType, const char* pszDescr)
{
    if (pszType == nullptr || pszDescr == nullptr)
        return nullptr;
    KvPoolLockScope lock;
    KvGranularityMemoryWatcher* pFound = nullptr;
    KvForEachWatcher([&](KvGranularityMemoryWatcher* p) {
        if (strcmp(p->m_szType, pszType) == 0 && strcmp(p->m_szDescr, pszDescr) == 0) {
            pFound = p;
            return false;
        }
        return true;
    });
    return pFound;
}

void KvGranularityMemoryWatcher::_FreeSharedWatcher(KvGranularityMemoryWatcher* pWatcher)
{
    // A watcher this process does not hold (already released, or never a
    // watcher) is left alone rather than touched.
    auto it = KvFindMapping(pWatcher);
    if (pWatcher == nullptr || it == KvWatcherMappings().end())
        return;
    pWatcher->m_cOpened -= 1;
    if (--it->second->cHeld > 0)
        return;
    if (it->second->fUnchained)
        KvShmObject::Unlink(it->first);
    it->second->Close();
    KvWatcherMappings().erase(it);
}

void KvGranularityMemoryWatcher::Init(const char* pszType, const char* pszDescr, uint32_t cbSize)
{
    if (pszType == nullptr)
        KvAssertReport("pszType != NULL", kOpool, 1180);
    if (pszDescr == nullptr)
        KvAssertReport("pszDescr != NULL", kOpool, 1181);
    if (pszType == nullptr)
        pszType = "";
    if (pszDescr == nullptr)
        pszDescr = "";
    if (strcmp(m_szType, pszType) == 0 && strcmp(m_szDescr, pszDescr) == 0 && m_cbSize == cbSize)
        return;
    m_cAllocChecked = 0;
    m_cFreeChecked = 0;
    m_cNetUnchecked = 0;
    std::random_device rd;
    for (size_t i = 0; i < sizeof(m_abGuid); i += 4) {
        const uint32_t r = rd();
        memcpy(m_abGuid + i, &r, 4);
    }
    DebugOutputGuid();
    KvCopyTerminated(m_szType, pszType, sizeof(m_szType));
    KvCopyTerminated(m_szDescr, pszDescr, sizeof(m_szDescr));
    m_cbSize = cbSize;
    KvGranularity::Info* pinf = KvGranularity::_poinf;
    if (pinf == nullptr) {
        KvAssertReport("KvGranularity::_poinf != NULL", kOpool, 1193);
        return;
    }
    pinf->_cWatchers += 1;
    if (pinf->_cWatchers >= KVGRAN_NUM_WATCHERS) {
        KvAssertReport("KvGranularity::_poinf->_cWatchers < KVGRAN_NUM_WATCHERS", kOpool, 1195);
        KvMessageBox((std::string(pszType) + "\n" + pszDescr).c_str(), "ERROR");
    }
    KvCopyTerminated(m_szNext, pinf->_szFirstWatcher, sizeof(m_szNext));
    KvCopyTerminated(pinf->_szFirstWatcher, KvWatcherObjectName(pszType, pszDescr).c_str(),
                     sizeof(pinf->_szFirstWatcher));
}

KvGranularityMemoryWatcher& KvGranularityMemoryWatcher::operator=(const KvGranularityMemoryWatcher& o)
{
    if (this == &o)
        return *this;
    KvPoolLockScope lock;
    _DebugOutput("KvGranularityMemoryWatcher::operator = ");
    KvCopyTerminated(m_szType, o.m_szType, sizeof(m_szType));
    KvCopyTerminated(m_szDescr, o.m_szDescr, sizeof(m_szDescr));
    KvCopyTerminated(m_szNext, o.m_szNext, sizeof(m_szNext));
    m_cbSize = o.m_cbSize;
    m_cAllocChecked = o.m_cAllocChecked;
    m_cFreeChecked = o.m_cFreeChecked;
    m_cNetUnchecked = o.m_cNetUnchecked;
    return *this;
}

void KvGranularityMemoryWatcher::DebugOutputGuid() const
{
    const uint8_t* b = m_abGuid;
    char sz[48];
    snprintf(sz, sizeof(sz), "{%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X}", b[3], b[2], b[1],
             b[0], b[5], b[4], b[7], b[6], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
    _DebugOutput(sz);
}

void KvGranularityMemoryWatcher::_FillMemoryState(KvGranularityMemoryState& state)
{
    KvPoolLockScope lock;
    uint32_t i = 0;
    KvForEachWatcher([&](KvGranularityMemoryWatcher* p) {
        state.m_checkedAlloc.aWatcher[i] = p->m_cAllocChecked;
        state.m_checkedFree.aWatcher[i] = p->m_cFreeChecked;
        state.m_netUnchecked.aWatcher[i] = p->m_cNetUnchecked;
        return ++i < KVGRAN_NUM_WATCHERS;
    });
}

void KvCloseWatcherMappings()
{
    auto& map = KvWatcherMappings();
    for (auto& entry : map)
        entry.second->Close();
    map.clear();
}

// --- KvGranularitySharedWatcherAllocator --------------------------------------

KvGranularitySharedWatcherAllocator::KvGranularitySharedWatcherAllocator(const char* pszType, const char* pszDescr,
                                                                         uint32_t cbSize)
    : m_pWatcher(KvGranularityMemoryWatcher::_GetSharedWatcher(pszType, pszDescr, cbSize))
{
}

KvGranularitySharedWatcherAllocator::~KvGranularitySharedWatcherAllocator()
{
    try {
        KvGranularityMemoryWatcher::_FreeSharedWatcher(m_pWatcher);
    } catch (...) {
    }
}

// --- snapshots ---------------------------------------------------------------

void KvGranularity::_FillMemoryState(KvGranularityMemoryState& state)
{
    if (_poinf == nullptr)
        return;
    state.m_checkedAlloc.qwTotal = _poinf->_cbAllocChecked;
    state.m_checkedFree.qwTotal = _poinf->_cbFreeChecked;
    state.m_netUnchecked.qwTotal = _poinf->_cbNetUnchecked;
    for (uint32_t i = 0; i < KVGRAN_COUNT; ++i) {
        const KvGranularity* g = _GetGranularity(i);
        state.m_checkedAlloc.aGran[i] = g->_cAllocChecked;
        state.m_checkedFree.aGran[i] = g->_cFreeChecked;
        state.m_netUnchecked.aGran[i] = g->_cNetUnchecked;
    }
}

KvGranularityMemoryState::KvGranularityMemoryState()
{
    memset(static_cast<void*>(this), 0, sizeof(*this));
}

void KvGranularityMemoryState::Checkpoint()
{
    KvGranularity::_FillMemoryState(*this);
    KvGranularityMemoryWatcher::_FillMemoryState(*this);
    m_cWatchers = static_cast<int32_t>(KvGranularity::_GetWatcherCount());
}

bool KvGranularityMemoryState::Difference(const KvGranularityMemoryState& o, const KvGranularityMemoryState& n)
{
    bool fDiff = false;
    auto diffBlock = [&](Block& r, const Block& a, const Block& b) {
        r.qwTotal = b.qwTotal - a.qwTotal;
        for (size_t i = 0; i < 32; ++i)
            r.aGran[i] = b.aGran[i] - a.aGran[i];
        for (size_t i = 0; i < KVGRAN_NUM_WATCHERS; ++i)
            r.aWatcher[i] = b.aWatcher[i] - a.aWatcher[i];
    };
    // Watchers are in chain order, newest first: a watcher made between the two
    // snapshots shifts the older ones, so align the chains at their ends.
    const int32_t cNew = n.m_cWatchers > o.m_cWatchers ? n.m_cWatchers - o.m_cWatchers : 0;
    diffBlock(m_checkedAlloc, o.m_checkedAlloc, n.m_checkedAlloc);
    diffBlock(m_checkedFree, o.m_checkedFree, n.m_checkedFree);
    diffBlock(m_netUnchecked, o.m_netUnchecked, n.m_netUnchecked);
    if (cNew > 0) {
        auto alignBlock = [&](Block& r, const Block& a, const Block& b) {
            for (int32_t i = 0; i < n.m_cWatchers && i < static_cast<int32_t>(KVGRAN_NUM_WATCHERS); ++i)
                r.aWatcher[i] = i < cNew ? b.aWatcher[i] : b.aWatcher[i] - a.aWatcher[i - cNew];
        };
        alignBlock(m_checkedAlloc, o.m_checkedAlloc, n.m_checkedAlloc);
        alignBlock(m_checkedFree, o.m_checkedFree, n.m_checkedFree);
        alignBlock(m_netUnchecked, o.m_netUnchecked, n.m_netUnchecked);
    }
    m_cWatchers = n.m_cWatchers;
    if (m_checkedAlloc.qwTotal + m_checkedFree.qwTotal != 0)
        fDiff = true;
    for (size_t i = 0; i < 32; ++i)
        if (m_checkedAlloc.aGran[i] + m_checkedFree.aGran[i] != 0)
            fDiff = true;
    for (size_t i = 0; i < KVGRAN_NUM_WATCHERS; ++i)
        if (m_checkedAlloc.aWatcher[i] + m_checkedFree.aWatcher[i] != 0)
            fDiff = true;
    return fDiff;
}

void KvGranularityMemoryState::DumpStatisticsToDebugOutput() const
{
    char sz[1400];
    _DebugOutput("Memory State:");
    snprintf(sz, sizeof(sz), "Total memory : %" PRId64 " bytes", static_cast<int64_t>(m_checkedAlloc.qwTotal));
    _DebugOutput(sz);
    snprintf(sz, sizeof(sz), "Total memory : %" PRId64 " bytes", static_cast<int64_t>(m_checkedFree.qwTotal));
    _DebugOutput(sz);
    snprintf(sz, sizeof(sz), "Total memory : %" PRId64 " static bytes", static_cast<int64_t>(m_netUnchecked.qwTotal));
    _DebugOutput(sz);
    for (uint32_t i = 0; i < KVGRAN_COUNT; ++i) {
        if (m_checkedAlloc.aGran[i] == 0 && m_checkedFree.aGran[i] == 0)
            continue;
        const uint32_t stSize = KvGranularity::_aogran != nullptr ? KvGranularity::_GetGranularity(i)->_stSize
                                                                  : KvGranularity::_agranTemplate[i]._stSize;
        snprintf(sz, sizeof(sz), "Granularity 0x%x : %" PRId64 " objects", stSize,
                 static_cast<int64_t>(m_checkedAlloc.aGran[i]));
        _DebugOutput(sz);
        snprintf(sz, sizeof(sz), "Granularity 0x%x : %" PRId64 " objects", stSize,
                 static_cast<int64_t>(m_checkedFree.aGran[i]));
        _DebugOutput(sz);
        snprintf(sz, sizeof(sz), "Granularity 0x%x : %" PRId64 " static objects", stSize,
                 static_cast<int64_t>(m_netUnchecked.aGran[i]));
        _DebugOutput(sz);
    }
    int32_t i = 0;
    KvForEachWatcher([&](KvGranularityMemoryWatcher* p) {
        const struct {
            uint64_t c;
            const char* pszForm;
        } lines[3] = {{m_checkedAlloc.aWatcher[i], "%s : %s (size=0x%x): %" PRId64 " objects"},
                      {m_checkedFree.aWatcher[i], "%s : %s (size=0x%x): %" PRId64 " objects"},
                      {m_netUnchecked.aWatcher[i], "%s : %s (size=0x%x): %" PRId64 " static objects"}};
        for (const auto& line : lines) {
            if (line.c == 0)
                continue;
            snprintf(sz, sizeof(sz), line.pszForm, p->m_szType, p->m_szDescr, p->m_cbSize,
                     static_cast<int64_t>(line.c));
            _DebugOutput(sz);
        }
        return ++i < m_cWatchers;
    });
}

void KvGranularityMemoryState::DumpStatisticsToStdOut() const
{
    int32_t i = 0;
    KvForEachWatcher([&](KvGranularityMemoryWatcher* p) {
        printf("%s : %s (size=0x%x): %d objects\n", p->m_szType, p->m_szDescr, p->m_cbSize,
               static_cast<int>(m_checkedAlloc.aWatcher[i] + m_checkedFree.aWatcher[i]));
        return ++i < m_cWatchers;
    });
    for (uint32_t g = 0; g < KVGRAN_COUNT; ++g) {
        const uint32_t stSize = KvGranularity::_aogran != nullptr ? KvGranularity::_GetGranularity(g)->_stSize
                                                                  : KvGranularity::_agranTemplate[g]._stSize;
        if (stSize != 0)
            printf("Granularity 0x%x : %d objects\n", stSize,
                   static_cast<int>(m_checkedAlloc.aGran[g] + m_checkedFree.aGran[g]));
    }
    printf("Total memory : %d bytes\n", static_cast<int>(m_checkedAlloc.qwTotal + m_checkedFree.qwTotal));
    fflush(stdout);
}

void KvGranularityMemoryState::DumpCurrentStatistics()
{
    if (KvGranularity::_poinf == nullptr)
        return;
    auto pState = std::make_unique<KvGranularityMemoryState>();  // about 400 KiB
    pState->Checkpoint();
    pState->DumpStatisticsToDebugOutput();
    pState->DumpStatisticsToStdOut();
}
