// KvGranularity.h - the shared segment, its header and the fixed-size block pools.
//
// The segment starts with a header (KvGranularity::Info) that every process reads
// and writes in place; its byte layout is the interprocess format and is pinned
// below. The pool area begins at offset 0x10000. A KvGranularity is one pool of
// blocks of one size; the header holds a table of 17 of them. Blocks are carved in
// chunks, handed out zeroed, and freed to the head of their pool's list, from which
// any process can take them again.
#pragma once

#include <cstddef>
#include <cstdint>

#include "KvsPtr.h"

class KvGranularityMemoryWatcher;
class KvGranularityMemoryState;
class KvNamedMutex;

constexpr uint32_t KVGRAN_HEADER_SIZE = 0x10000;  // header zone; no block lies there
constexpr uint32_t KVGRAN_COUNT = 17;             // entries of the granularity table
constexpr uint32_t KVGRAN_NUM_WATCHERS = 16384;   // limit of memory watchers
constexpr uint32_t KVGRAN_MAX_DELETE_FUNCTIONS = 4096;
constexpr uint32_t KVGRAN_MAX_REQUEST = 0x1000000;  // largest block class (16 MiB)

#pragma pack(push, 1)
class KvGranularity : public KvGranularityStatics {
public:
    // The segment header. Offsets are binding for every process.
    struct Info {
        KvsPtr<char> _pchNextFree;          // first byte not yet carved into blocks
        KvsPtr<char> _pchNextCommit;        // end of the committed range
        KvsPtr<char> _pvRootObj;            // first block of the pool area
        uint32_t _aptrRoot[16];             // root slots (offsets)
        char _szFirstWatcher[512];          // kernel-object name of the newest watcher
        int32_t _cAllocSharedMem;           // open attachments of all processes
        uint64_t _cbAllocChecked;           // bytes handed out while checking is on
        uint64_t _cbFreeChecked;            // bytes given back while checking is on (counted down)
        uint64_t _cbNetUnchecked;           // net bytes while checking is off
        uint8_t _agran[KVGRAN_COUNT * 36];  // the granularity table (KvGranularity entries)
        uint8_t _abReserved[28];            // kept zero
        uint32_t _pvCreatorBase;            // creator's mapping address (informative only)
        uint8_t _fMemChecking;              // memory-checking switch
        uint32_t _cWatchers;                // memory watchers handed out
    };

    KvGranularity(void* pv, uint32_t stSize, uint32_t cBlocksPerChunk);

    // --- segment (attachment and release) ---------------------------------
    static int32_t _AllocSharedMem(uint32_t size, const char* pszName);
    static void _AllocMem(uint32_t size);
    static void _Init(bool fFirst);
    static int32_t _FreeMem();
    static void* _SetRoot(void* pv, int index);
    static void* _GetRoot(int index);
    static void* _GetRootObj();
    static bool _IsPointerInComittedRange(const void* pv);
    static int32_t _QueryCountAllocSharedMem();
    static void _DecCountAllocSharedMem();

    // --- pools -------------------------------------------------------------
    static void* _Alloc(uint32_t n, KvGranularityMemoryWatcher* pWatcher = nullptr);
    static void _Free(void* pv, uint32_t n, KvGranularityMemoryWatcher* pWatcher = nullptr);
    static void* _AllocFixed(uint32_t n);
    static void _EnableMemChecking(bool f);
    static uint32_t _GetGranularityCount() { return KVGRAN_COUNT; }
    static KvGranularity* _GetGranularity(uint32_t iIndex);  // entry of _agran
    static uint32_t _IndexForSize(uint32_t n);               // _aulNdxMap lookup; 0xFFFFFFFF: no class
    static KvGranularityMemoryWatcher* _GetDefaultWatcher() { return nullptr; }
    static uint32_t _GetWatcherCount();
    static void _FillMemoryState(KvGranularityMemoryState& state);

    void* Alloc(uint32_t n, KvGranularityMemoryWatcher* pWatcher);
    // Inside a section of the global mutex the block stays allocated until the
    // section ends (KvTreeJournal.h).
    void Free(void* pv, KvGranularityMemoryWatcher* pWatcher);
    // A block that a journal names goes back to its pool now, and *pcbUsed
    // becomes cbUsedAfter in the same pool operation, so that a death never
    // frees it twice or not at all. fUndoAlloc: the block's allocation is taken
    // back (its counters go down again), rather than the block freed.
    static void _FreeFromJournal(void* pv, uint32_t cbBlock, uint32_t* pcbUsed, uint32_t cbUsedAfter, bool fUndoAlloc);
    void FreeLocked(void* pv, KvGranularityMemoryWatcher* pWatcher, bool fUndoAlloc = false);
    // A block that a section gave up and took again (KvTreeSectionReuseFreed)
    // is counted as freed and allocated, as without the journal, in one pool
    // operation that also records this for the section; undoing the section
    // takes both counts back (_UncountReuseFromJournal, *pcbUsed as above).
    void CountReuse(void* pv);
    static void _UncountReuseFromJournal(uint32_t cbBlock, uint32_t* pcbUsed, uint32_t cbUsedAfter);
    void MemPrepare();
    // True when this pool has no free block and the segment no room for a chunk.
    bool IsExhausted() const;

    // Called when an allocation is about to fail for lack of memory, outside the
    // pool mutex: a layer above may give back what ended processes left (and
    // returns true when it gave back anything); the allocation is then tried
    // once more, and fails as before when that was not enough.
    static void _SetReclaimHook(bool (*pfnReclaim)());

    // --- delete-function registry (per process) -----------------------------
    static int32_t _RegisterDeleteFunction(KvDeleteFunction pfn);
    // The same, naming the class and its size for the build fingerprint.
    static int32_t _RegisterDeleteFunction(KvDeleteFunction pfn, const char* pszClass, uint32_t cbClass);
    // An index that no class registered (a wrecked or stale object) gives a
    // function that raises, instead of a call through whatever lies there.
    static KvDeleteFunction _GetDeleteFunction(int32_t iIndex)
    {
        if (iIndex <= 0 || iIndex > sm_iDeleteFunctionMax || sm_aDeleteFunctions[iIndex] == nullptr)
            return &_BadDeleteFunction;
        return sm_aDeleteFunctions[iIndex];
    }
    [[noreturn]] static void _BadDeleteFunction(void* pv);

    // --- the pool mutex "OGRAN.MTX" ------------------------------------------
    static void _LockPools();
    static void _UnlockPools();

    // Fields of one table entry (36 bytes, order binding).
    KvsPtr<char> _pchHead;      // free list; 0 = empty
    uint32_t _stSize;           // block size; 0 marks an unused entry
    uint32_t _cBlocksPerChunk;  // blocks carved at once
    uint64_t _cAllocChecked;    // allocations while checking is on
    uint64_t _cFreeChecked;     // frees while checking is on (counted down)
    uint64_t _cNetUnchecked;    // allocations minus frees while checking is off

    // Per-process statics (never in the segment). _pvBase and _stMax are in KvGranularityStatics.
    static inline Info* _poinf = nullptr;
    static inline KvGranularity* _aogran = nullptr;
    static inline int _hMem = -1;  // descriptor of the segment object
    static inline int32_t _s_cThisApplicationsAccess = 0;
    static inline char _s_szMemName[260] = {};
    static inline KvDeleteFunction sm_aDeleteFunctions[KVGRAN_MAX_DELETE_FUNCTIONS] = {};
    static inline int32_t sm_iDeleteFunctionMax = 0;
    static const uint32_t _aulNdxMap[34];
    static const KvGranularity _agranTemplate[KVGRAN_COUNT];
};
#pragma pack(pop)

static_assert(sizeof(KvGranularity) == 36, "a granularity entry is 36 bytes");
static_assert(offsetof(KvGranularity, _stSize) == 4, "");
static_assert(offsetof(KvGranularity, _cBlocksPerChunk) == 8, "");
static_assert(offsetof(KvGranularity, _cAllocChecked) == 12, "");
static_assert(offsetof(KvGranularity, _cFreeChecked) == 20, "");
static_assert(offsetof(KvGranularity, _cNetUnchecked) == 28, "");
static_assert(offsetof(KvGranularity::Info, _pchNextFree) == 0, "");
static_assert(offsetof(KvGranularity::Info, _pchNextCommit) == 4, "");
static_assert(offsetof(KvGranularity::Info, _pvRootObj) == 8, "");
static_assert(offsetof(KvGranularity::Info, _aptrRoot) == 12, "");
static_assert(offsetof(KvGranularity::Info, _szFirstWatcher) == 76, "");
static_assert(offsetof(KvGranularity::Info, _cAllocSharedMem) == 588, "");
static_assert(offsetof(KvGranularity::Info, _cbAllocChecked) == 592, "");
static_assert(offsetof(KvGranularity::Info, _cbFreeChecked) == 600, "");
static_assert(offsetof(KvGranularity::Info, _cbNetUnchecked) == 608, "");
static_assert(offsetof(KvGranularity::Info, _agran) == 616, "");
static_assert(offsetof(KvGranularity::Info, _abReserved) == 1228, "");
static_assert(offsetof(KvGranularity::Info, _pvCreatorBase) == 1256, "");
static_assert(offsetof(KvGranularity::Info, _fMemChecking) == 1260, "");
static_assert(offsetof(KvGranularity::Info, _cWatchers) == 1261, "");
static_assert(sizeof(KvGranularity::Info) == 1265, "");

// Throws pszText prefixed with the segment name and ": " (259 characters at most)
// through KvThrow.
[[noreturn]] void KvGranThrow(const char* pszText);

// The KVCRITSEC functions: the namespace-wide lock that serialises creation and
// the last release of the segment.
void KvInitCritSec();
void KvEnterCritSec();
void KvExitCritSec();
void KvCloseCritSec();

// Open-or-create of the named segment; true when this call created it.
bool KvAllocNamedSharedMem(void** ppvBase, const char* pszName, uint32_t size, uint32_t cbCommitted);

// Handles closed at exit: a per-process table of 1024 descriptor variables.
void KvAddHandleToBeClosedAtExit(int* phHandle);
void KvCloseHandles();
