// KvrsStats.cpp - `kvrs stats`: how the segment is used. The public API has no
// such view, so this reads the segment header and the pools through the
// library's own classes, under the global mutex and the pool mutex, like the
// library itself. The tree walk of the consistency check finds the queues that
// outlived their process.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "KvCppMfc/Platform/KvPlatform.h"
#include "KvCppMfc/Pool/KvGranularity.h"
#include "KvCppMfc/Pool/KvJournal.h"
#include "KvCppMfc/Pool/KvMemoryWatcher.h"
#include "KvCppMfc/Pool/KvTreeJournal.h"
#include "KvRfrSvr/Export/KvRsReaper.h"
#include "KvRfrSvr/Internal/CRsCheck.h"
#include "KvrsCommands.h"
#include "KvrsCommon.h"

namespace {

struct PoolUse {
    uint32_t m_cbBlock = 0;
    uint64_t m_cInUse = 0;           // allocations minus frees, checked and unchecked
    uint64_t m_cFree = 0;            // blocks waiting on the pool's free list
    bool m_bFreeListBroken = false;  // a link left the carved area: counted up to it
};

struct SegmentUse {
    uint32_t m_cbSize = 0;
    uint32_t m_cbCommitted = 0;  // end of the committed range
    uint32_t m_cbCarved = 0;     // bytes carved into blocks after the header zone
    int32_t m_cAttachments = 0;
    uint32_t m_cPoolRollBacks = 0;  // pool operations undone after their process ended inside them
    uint32_t m_cCallRollBacks = 0;  // calls undone (or finished) after their process ended inside them
    std::vector<PoolUse> m_vPools;
    // Queues that connections still lead to although their process has ended
    // (killed, so it never detached), and how many broken invariants the walk met.
    std::vector<CRsQueueUse> m_vEndedQueues;
    // Processes whose liveness token is gone but that are not reaped yet.
    std::vector<KvProcessKey> m_vEndedProcesses;
    size_t m_cProblems = 0;
};

// Counts the free list's blocks. A damaged segment may link anywhere: every link
// must name a block inside the carved area before it is followed, and a list
// longer than the area could hold is a cycle.
uint64_t CountFreeBlocks(const KvGranularity& gran, uint32_t ofsCarvedEnd, bool* pbBroken)
{
    const uint64_t cMax = gran._stSize != 0 ? (ofsCarvedEnd - KVGRAN_HEADER_SIZE) / gran._stSize : 0;
    uint64_t c = 0;
    for (uint32_t ofs = gran._pchHead.Offset(); ofs != 0; ++c) {
        if (ofs < KVGRAN_HEADER_SIZE || ofs > ofsCarvedEnd - sizeof(uint32_t) || c > cMax) {
            *pbBroken = true;
            break;
        }
        ofs = *static_cast<const uint32_t*>(KvGranularityStatics::_CalcPtr(ofs));
    }
    return c;
}

// Reads the header and walks the free lists; the caller holds the global mutex.
SegmentUse ReadSegmentUse()
{
    SegmentUse use;
    const KvGranularity::Info* pInfo = KvGranularity::_poinf;
    use.m_cbSize = KvGranularity::_stMax;
    use.m_cbCommitted = pInfo->_pchNextCommit.Offset();
    use.m_cbCarved = pInfo->_pchNextFree.Offset() - KVGRAN_HEADER_SIZE;
    use.m_cAttachments = KvGranularity::_QueryCountAllocSharedMem();
    KvGranularity::_LockPools();
    for (uint32_t i = 0; i < KvGranularity::_GetGranularityCount(); ++i) {
        const KvGranularity& gran = *KvGranularity::_GetGranularity(i);
        if (gran._stSize == 0)
            continue;
        PoolUse p;
        p.m_cbBlock = gran._stSize;
        // Frees are counted downwards: the sum wraps to the net count.
        p.m_cInUse = gran._cAllocChecked + gran._cFreeChecked + gran._cNetUnchecked;
        p.m_cFree = CountFreeBlocks(gran, pInfo->_pchNextFree.Offset(), &p.m_bFreeListBroken);
        use.m_vPools.push_back(p);
    }
    use.m_cPoolRollBacks = KvPoolJournal().RolledBackCount();
    use.m_cCallRollBacks = KvTreeJournalRolledBack();
    KvGranularity::_UnlockPools();
    KvCheckReport report;
    auto pCensus = std::make_unique<CRsCheckCensus>();
    CRsCheckSegment(report, pCensus.get());
    use.m_vEndedQueues = CRsQueuesOfEndedProcesses(*pCensus);
    use.m_vEndedProcesses = KvRsEndedProcesses();
    use.m_cProblems = report.Problems().size();
    return use;
}

void PrintText(const SegmentUse& use)
{
    printf("namespace    %s\n", KvNamespace().c_str());
    printf("segment      %u bytes, committed %u, carved into blocks %u\n", use.m_cbSize, use.m_cbCommitted,
           use.m_cbCarved);
    printf("attachments  %d\n", use.m_cAttachments);
    // Calls and pool operations that processes ended inside, undone (or, in
    // their last frees, finished) by the next process to take the mutex.
    printf("calls rolled back: %u\n", use.m_cCallRollBacks);
    printf("pool operations rolled back: %u\n", use.m_cPoolRollBacks);
    printf("\n%12s %12s %12s\n", "block size", "in use", "free");
    for (const PoolUse& p : use.m_vPools)
        if (p.m_cInUse != 0 || p.m_cFree != 0)
            printf("%12u %12llu %12llu%s\n", p.m_cbBlock, static_cast<unsigned long long>(p.m_cInUse),
                   static_cast<unsigned long long>(p.m_cFree), p.m_bFreeListBroken ? "  free list broken" : "");
    printf("\nqueues of ended processes:%s\n", use.m_vEndedQueues.empty() ? " none" : "");
    for (const CRsQueueUse& q : use.m_vEndedQueues)
        printf("  \"%s\" (%s) of process %u: %d messages waiting\n", q.m_strName.c_str(), KvHexOffset(q.m_ofs).c_str(),
               q.m_dwPrcsId, q.m_cMsgs);
    printf("ended processes not reaped yet:%s\n", use.m_vEndedProcesses.empty() ? " none" : "");
    for (const KvProcessKey& key : use.m_vEndedProcesses)
        printf("  process %u (started at tick %llu): kvrs reap gives back what it left\n", key.dwPid,
               static_cast<unsigned long long>(key.qwStartTime));
    if (use.m_cProblems != 0)
        printf("\nthe tree has %zu consistency problems (see kvrs check)\n", use.m_cProblems);
}

void PrintJson(const SegmentUse& use)
{
    printf("{\"namespace\":%s,\"size\":%u,\"committed\":%u,\"carved\":%u,\"attachments\":%d,"
           "\"callRollBacks\":%u,\"poolRollBacks\":%u,\"pools\":[",
           KvrsJsonString(KvNamespace()).c_str(), use.m_cbSize, use.m_cbCommitted, use.m_cbCarved, use.m_cAttachments,
           use.m_cCallRollBacks, use.m_cPoolRollBacks);
    for (size_t i = 0; i < use.m_vPools.size(); ++i)
        printf("%s{\"block\":%u,\"inUse\":%llu,\"free\":%llu,\"freeListBroken\":%s}", i ? "," : "",
               use.m_vPools[i].m_cbBlock, static_cast<unsigned long long>(use.m_vPools[i].m_cInUse),
               static_cast<unsigned long long>(use.m_vPools[i].m_cFree),
               use.m_vPools[i].m_bFreeListBroken ? "true" : "false");
    printf("],\"endedQueues\":[");
    for (size_t i = 0; i < use.m_vEndedQueues.size(); ++i) {
        const CRsQueueUse& q = use.m_vEndedQueues[i];
        printf("%s{\"queue\":%u,\"name\":%s,\"process\":%u,\"messages\":%d}", i ? "," : "", q.m_ofs,
               KvrsJsonString(q.m_strName).c_str(), q.m_dwPrcsId, q.m_cMsgs);
    }
    printf("],\"endedProcesses\":[");
    for (size_t i = 0; i < use.m_vEndedProcesses.size(); ++i)
        printf("%s{\"process\":%u,\"startTime\":%llu}", i ? "," : "", use.m_vEndedProcesses[i].dwPid,
               static_cast<unsigned long long>(use.m_vEndedProcesses[i].qwStartTime));
    printf("],\"problems\":%zu}\n", use.m_cProblems);
}

void RunStats(bool bJson)
{
    KvRsRequestMutex();
    if (KvGranularity::_poinf == nullptr || KvGranularity::_aogran == nullptr) {
        KvRsReleaseMutex();
        throw KvrsError(KVRS_EXIT_FAILED, "no segment is attached in namespace " + KvNamespace());
    }
    const SegmentUse use = ReadSegmentUse();
    if (bJson)
        PrintJson(use);
    else
        PrintText(use);
    KvRsReleaseMutex();
}

}  // namespace

void KvrsAddStatsCommand(CLI::App& app)
{
    auto bJson = std::make_shared<bool>(false);
    CLI::App* sub =
        app.add_subcommand("stats", "Segment use: sizes, blocks per pool, attachments, queues of ended processes");
    sub->add_flag("--json", *bJson, "Sizes and pools as one JSON object");
    sub->callback([bJson] { RunStats(*bJson); });
}
