// KvMemoryWatcher.h - per-kind allocation counters shared by all processes, and
// snapshots of every counter of the pools.
//
// Each watcher lives in a small named shared-memory object of its own, named by
// its type name, ": " and its description; the watchers form a chain by name that
// starts at the header's _szFirstWatcher (newest first).
#pragma once

#include <cstdint>

#include "KvGranularity.h"

#pragma pack(push, 1)
class KvGranularityMemoryWatcher {
public:
    static KvGranularityMemoryWatcher* _GetSharedWatcher(const char* pszName, const char* pszDescr, uint32_t cbSize);
    static KvGranularityMemoryWatcher* _GetMemoryWatcher(const char* pszType, const char* pszDescr);
    static void _FreeSharedWatcher(KvGranularityMemoryWatcher* pWatcher);
    static void _FillMemoryState(KvGranularityMemoryState& state);

    void Init(const char* pszType, const char* pszDescr, uint32_t cbSize);
    KvGranularityMemoryWatcher& operator=(const KvGranularityMemoryWatcher& o);
    uint32_t GetFileMappingHandle() const { return m_hFileMapping; }
    void SetFileMappingHandle(uint32_t h) { m_hFileMapping = h; }
    void DebugOutputGuid() const;

    // Counting by the pools (under "OGRAN.MTX").
    void CountAlloc(bool fChecking)
    {
        if (fChecking)
            m_cAllocChecked += 1;
        else
            m_cNetUnchecked += 1;
    }
    void CountFree(bool fChecking)
    {
        if (fChecking)
            m_cFreeChecked -= 1;
        else
            m_cNetUnchecked -= 1;
    }

    uint8_t m_abGuid[16];
    char m_szType[512];
    char m_szDescr[512];
    uint32_t m_cbSize;
    uint64_t m_cAllocChecked;
    uint64_t m_cFreeChecked;
    uint64_t m_cNetUnchecked;
    uint32_t m_cOpened;
    uint32_t m_hFileMapping;
    char m_szNext[512];
};
#pragma pack(pop)
static_assert(sizeof(KvGranularityMemoryWatcher) == 1588, "a watcher object is 1588 bytes");
static_assert(offsetof(KvGranularityMemoryWatcher, m_cbSize) == 1040, "");
static_assert(offsetof(KvGranularityMemoryWatcher, m_cOpened) == 1068, "");
static_assert(offsetof(KvGranularityMemoryWatcher, m_szNext) == 1076, "");

// Unmaps every watcher this process mapped (at the release of the segment: the
// objects belong to its namespace, which may be gone afterwards).
void KvCloseWatcherMappings();

// A per-process holder of the shared watcher of one kind of object.
class KvGranularitySharedWatcherAllocator {
public:
    KvGranularitySharedWatcherAllocator(const char* pszType, const char* pszDescr, uint32_t cbSize);
    ~KvGranularitySharedWatcherAllocator();
    KvGranularitySharedWatcherAllocator(const KvGranularitySharedWatcherAllocator&) = delete;
    KvGranularitySharedWatcherAllocator& operator=(const KvGranularitySharedWatcherAllocator&) = delete;
    KvGranularityMemoryWatcher* GetWatcher() const { return m_pWatcher; }

private:
    KvGranularityMemoryWatcher* m_pWatcher;
};

// A snapshot of all counters, held by the caller.
class KvGranularityMemoryState {
public:
    struct Block {
        uint64_t qwTotal;
        uint64_t aGran[32];
        uint64_t aWatcher[KVGRAN_NUM_WATCHERS];
    };
    Block m_checkedAlloc;
    Block m_checkedFree;
    Block m_netUnchecked;
    int32_t m_cWatchers;

    KvGranularityMemoryState();
    void Checkpoint();
    bool Difference(const KvGranularityMemoryState& oldState, const KvGranularityMemoryState& newState);
    void DumpStatisticsToDebugOutput() const;
    void DumpStatisticsToStdOut() const;
    // A checkpoint of the pools now, dumped to the debug output and standard
    // output (what KvThrow shows); nothing when no segment is attached.
    static void DumpCurrentStatistics();
};
