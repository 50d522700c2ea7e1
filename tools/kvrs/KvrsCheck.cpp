// KvrsCheck.cpp - `kvrs check`: the consistency check of the segment, under the
// global mutex. The walk lives in the library (CRsCheckSegment); this prints its
// findings. It never changes the tree.
//
// Output: one "problem: " line per broken invariant, "note: " lines for what
// breaks nothing (blocks the walk did not reach, queues of ended processes), and
// a summary. Exit status 0 when everything holds, 1 otherwise.
#include <cstdio>
#include <memory>
#include <string>

#include "KvCppMfc/Platform/KvPlatform.h"
#include "KvCppMfc/Pool/KvGranularity.h"
#include "KvRfrSvr/Export/KvRsReaper.h"
#include "KvRfrSvr/Internal/CRsCheck.h"
#include "KvrsCommands.h"
#include "KvrsCommon.h"

namespace {

const uint32_t KVRS_SEGMENT_SIZE = 0x4000000;

// Holds the global mutex for the scope, like a sequence of exported calls.
struct GlobalLock {
    GlobalLock() { KvRsRequestMutex(); }
    ~GlobalLock() { KvRsReleaseMutex(); }
    GlobalLock(const GlobalLock&) = delete;
    GlobalLock& operator=(const GlobalLock&) = delete;
};

// When the library could not start in this process (a segment whose pools are
// wrecked cannot give a new process its default queue), the segment is still
// worth checking: join it and take the global mutex here, allocating nothing.
class Attachment {
public:
    Attachment()
    {
        if (KvGranularity::_poinf != nullptr)
            return;
        try {
            KvGranularity::_AllocSharedMem(KVRS_SEGMENT_SIZE, "KVRFRSVR_MEM");
        } catch (...) {
            return;  // reported as "no segment is attached"
        }
        m_bOwn = true;
        KvEnterCritSec();
        m_mtx.OpenOrCreate("KVRFRSVR_GLOBAL_MUTEX");
        KvExitCritSec();
        m_mtx.Lock();
        printf("note: the library could not start in this process; the segment is checked all the same\n");
    }
    ~Attachment()
    {
        if (!m_bOwn)
            return;
        m_mtx.Unlock();
        m_mtx.Close();
        KvGranularity::_FreeMem();
    }
    Attachment(const Attachment&) = delete;
    Attachment& operator=(const Attachment&) = delete;

private:
    bool m_bOwn = false;
    KvNamedMutex m_mtx;
};

void PrintNotes(const CRsCheckCensus& census, const std::vector<KvProcessKey>& vEnded)
{
    for (uint32_t i = 1; i < KVGRAN_COUNT; ++i)
        if (census.m_acInUse[i] != census.m_acReachable[i])
            printf("note: %u-byte blocks: %llu in use, %llu reached from the root (the rest are held by processes, "
                   "or lost)\n",
                   KvGranularity::_agranTemplate[i]._stSize, static_cast<unsigned long long>(census.m_acInUse[i]),
                   static_cast<unsigned long long>(census.m_acReachable[i]));
    for (const KvProcessKey& key : vEnded)
        printf("note: process %u ended without its exit and is not reaped yet (kvrs reap)\n", key.dwPid);
    for (const CRsQueueUse& use : CRsQueuesOfEndedProcesses(census))
        printf("note: queue \"%s\" (%s) of ended process %u holds %d messages\n", use.m_strName.c_str(),
               KvHexOffset(use.m_ofs).c_str(), use.m_dwPrcsId, use.m_cMsgs);
}

void RunCheck(bool bQuiet)
{
    KvCheckReport report;
    auto pCensus = std::make_unique<CRsCheckCensus>();
    std::vector<KvProcessKey> vEnded;
    {
        Attachment attachment;
        GlobalLock lock;
        CRsCheckSegment(report, pCensus.get());
        vEnded = KvRsEndedProcesses();
    }
    for (const std::string& str : report.Problems())
        printf("problem: %s\n", str.c_str());
    if (!bQuiet) {
        PrintNotes(*pCensus, vEnded);
        printf("reached %u nodes, %u values, %u connections, %u queues, %u messages (%u blocks)\n", pCensus->m_cNodes,
               pCensus->m_cValues, pCensus->m_cConnects, pCensus->m_cQueues, pCensus->m_cMsgs, pCensus->m_cBlocks);
    }
    if (report.Ok()) {
        printf("consistent\n");
        return;
    }
    throw KvrsError(KVRS_EXIT_FAILED, std::to_string(report.Problems().size()) + " problem" +
                                          (report.Problems().size() == 1 ? "" : "s") + " in namespace " +
                                          KvNamespace());
}

}  // namespace

void KvrsAddCheckCommand(CLI::App& app)
{
    auto bQuiet = std::make_shared<bool>(false);
    CLI::App* sub = app.add_subcommand("check", "Check the segment's consistency (header, pools, tree, counts, "
                                                "queues); exit 1 when an invariant is broken");
    sub->add_flag("-q,--quiet", *bQuiet, "Only the problems and the verdict");
    sub->callback([bQuiet] { RunCheck(*bQuiet); });
}
