// Reaping is made of steps recorded in the ended process's entry. A reaper that
// dies after some of them leaves exactly the others to the next reaper: here
// the first reaper's death is played by doing its first steps by hand.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "KvCppMfc/Pool/KvProcessTable.h"
#include "KvRfrSvr/Export/KvRsReaper.h"
#include "KvRfrSvr/Internal/CRsModel.h"
#include "KvRobustSupport.h"

namespace {

// A client of "steps.n" that waits to be killed.
KV_CHILD_SCENARIO(StepsClient)
{
    (void)args;
    KvRsNodeProxy n = KvRsCreateNode("steps.n", nullptr, 0);
    KvRsConnectClient(n.GetHandle(), n.GetId(), reinterpret_cast<void*>(7), 7);
    KvRsCreateNode("steps.ready", nullptr, 0);
    for (;;)
        pause();
}

KvProcessEntry* EntryOf(pid_t pid)
{
    KvProcessEntry* pTable = KvProcessTable();
    for (uint32_t i = 0; i < KVGRAN_PROCESS_TABLE_SIZE; ++i)
        if (pTable[i].dwState != KVPRC_FREE && pTable[i].dwPid == static_cast<uint32_t>(pid))
            return &pTable[i];
    return nullptr;
}

int32_t RootCount()
{
    return static_cast<KvSmartPtrTarget*>(KvGranularity::_GetRoot(KVRS_ROOT_SLOT))->m_cSmart;
}

}  // namespace

TEST(KvReapSteps, AReaperKilledHalfWayLeavesTheRestAndOnlyTheRest)
{
    KvRobustRoot();
    const pid_t pid = KvTestSpawn("StepsClient");
    for (int i = 0; i < 5000 && KvRsGetNode("steps.ready").IsNull(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    kill(pid, SIGKILL);
    ASSERT_EQ(128 + SIGKILL, KvTestWait(pid, 10));

    KvRsRequestMutex();
    KvProcessEntry* pEntry = EntryOf(pid);
    ASSERT_NE(nullptr, pEntry);
    const int32_t cRootBefore = RootCount();
    const int32_t cAttachedBefore = KvGranularity::_QueryCountAllocSharedMem();
    // The first reaper got as far as the connections and the root reference.
    pEntry->dwState = KVPRC_ENDED;
    GetRoot()->DisconnectProcessOf(static_cast<uint32_t>(pid), true);
    pEntry->dwDone |= KVPRC_DONE_DISCONNECTED;
    KvReleaseSmartUnit(static_cast<KvSmartPtrTarget*>(KvGranularity::_GetRoot(KVRS_ROOT_SLOT)));
    pEntry->dwDone |= KVPRC_DONE_ROOT;

    const std::vector<KvRsReaped> v = KvRsReapEndedProcesses();
    KvRsReleaseMutex();
    ASSERT_EQ(1u, v.size());
    EXPECT_EQ(0u, v[0].cConnections) << "the connections had gone already";
    EXPECT_EQ(cRootBefore - 1, RootCount()) << "the root reference was released once";
    EXPECT_EQ(cAttachedBefore - 1, KvGranularity::_QueryCountAllocSharedMem());
    EXPECT_EQ(nullptr, EntryOf(pid));
    KvRsNodeProxy n = KvRsGetNode("steps.n");
    EXPECT_EQ(0, KvRsGetClientCount(n.GetHandle(), n.GetId()));
    EXPECT_TRUE(KvSegmentConsistent());
}
