// The named segment between processes: joining without zeroing, blocks that
// travel between processes, clean-up by the last process, stale segments of
// killed processes, a killed holder of the pool mutex, another build.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "SegmentTestSupport.h"

namespace {

typedef KvSharedTest SegmentTest;
using G = KvGranularity;
constexpr int kRootSlot = 3;
constexpr char kPattern[] = "written by the first process";

uint32_t Ofs(const std::string& str)
{
    return static_cast<uint32_t>(strtoul(str.c_str(), nullptr, 0));
}

// Joins, checks what the first process left, frees its block.
KV_CHILD_SCENARIO(JoinAndFree)
{
    KvThrowSetTestMode(true);
    if (KvAttachTestSegment() != 2)
        return 1;
    auto* psz = static_cast<char*>(G::_GetRoot(kRootSlot));
    if (psz == nullptr || strcmp(psz, kPattern) != 0 || G::_CalcOffset(psz) != Ofs(args.at(0)))
        return 2;  // not the same bytes: zeroed or another segment
    // The block the first process freed last is the next one handed out here.
    void* pv = G::_Alloc(64);
    if (G::_CalcOffset(pv) != Ofs(args.at(2)))
        return 3;
    G::_Free(pv, 64);
    G::_Free(G::_CalcPtr(Ofs(args.at(1))), 64);
    return G::_FreeMem() == 1 ? 0 : 4;
}

TEST_F(SegmentTest, SecondProcessJoinsSeesRootsAndReusesFreedBlocks)
{
    auto* psz = static_cast<char*>(G::_Alloc(sizeof(kPattern)));
    strcpy(psz, kPattern);
    EXPECT_EQ(nullptr, G::_SetRoot(psz, kRootSlot));
    void* pvShared = G::_Alloc(64);
    void* pvFreed = G::_Alloc(64);
    G::_Free(pvFreed, 64);
    ASSERT_EQ(0, KvTestWait(KvTestSpawn("JoinAndFree",
                                        {std::to_string(G::_CalcOffset(psz)), std::to_string(G::_CalcOffset(pvShared)),
                                         std::to_string(G::_CalcOffset(pvFreed))})));
    EXPECT_EQ(1, G::_QueryCountAllocSharedMem());
    EXPECT_EQ(pvShared, G::_Alloc(64)) << "the child freed our block last";
    G::_Free(pvShared, 64);
    EXPECT_EQ(psz, G::_SetRoot(nullptr, kRootSlot));
    G::_Free(psz, sizeof(kPattern));
}

// Attaches, sets a root, optionally takes the pool mutex, says so and waits to be killed.
KV_CHILD_SCENARIO(AttachAndHang)
{
    KvThrowSetTestMode(true);
    KvAttachTestSegment();
    G::_SetRoot(G::_Alloc(8), kRootSlot);
    if (args.size() > 1)
        G::_LockPools();
    fclose(fopen(args.at(0).c_str(), "w"));
    for (;;)
        pause();
}

TEST(SegmentLifetime, KilledUsersLeaveAStaleSegmentThatIsMadeAfresh)
{
    KvTestUseFreshNamespace();
    KvThrowSetTestMode(true);
    const std::string strMarker = KvTestMarkerPath("hang");
    const pid_t pid = KvTestSpawn("AttachAndHang", {strMarker});
    ASSERT_TRUE(KvTestWaitForMarker(strMarker));
    kill(pid, SIGKILL);
    EXPECT_EQ(128 + SIGKILL, KvTestWait(pid, 10));
    // A killed process runs no clean-up; its objects stay until a start-up
    // (this one, or any other process's of this user) finds them stale.
    EXPECT_EQ(1, KvAttachTestSegment()) << "made afresh";
    EXPECT_EQ(nullptr, G::_GetRoot(kRootSlot));
    EXPECT_EQ(KVGRAN_HEADER_SIZE, G::_poinf->_pchNextFree.Offset());
    EXPECT_EQ(0, G::_FreeMem());
    EXPECT_TRUE(KvTestNamespaceObjects().empty());
}

KV_CHILD_SCENARIO(AllocFreeDetach)
{
    (void)args;
    KvThrowSetTestMode(true);
    KvAttachTestSegment();
    G::_Free(G::_Alloc(100), 100);
    return G::_FreeMem() >= 1 ? 0 : 1;
}

TEST_F(SegmentTest, AKilledHolderOfThePoolMutexBlocksNoOne)
{
    const std::string strMarker = KvTestMarkerPath("lock");
    const pid_t pidHolder = KvTestSpawn("AttachAndHang", {strMarker, "lock"});
    ASSERT_TRUE(KvTestWaitForMarker(strMarker));
    kill(pidHolder, SIGKILL);
    ASSERT_EQ(128 + SIGKILL, KvTestWait(pidHolder, 10));
    // The mutex was abandoned: the next process gets it (bounded by the watchdog).
    EXPECT_EQ(0, KvTestWait(KvTestSpawn("AllocFreeDetach"), 10));
    G::_Free(G::_Alloc(8), 8);
    // The killed process never detached: its attachment and root block stay
    // counted until someone clears up after it.
    EXPECT_EQ(2, G::_QueryCountAllocSharedMem());
    G::_DecCountAllocSharedMem();
    G::_Free(G::_SetRoot(nullptr, kRootSlot), 8);
}

// A build with one more shared class must not join.
KV_CHILD_SCENARIO(AttachAsAnotherBuild)
{
    (void)args;
    KvThrowSetTestMode(true);
    G::_RegisterDeleteFunction([](void*) {}, "KvClassOfAnotherBuild", 12);
    const std::string strText = KvThrownText([] { KvAttachTestSegment(); });
    if (strText.find("the segment was made by another build") == std::string::npos)
        return 1;
    return G::_pvBase == nullptr && G::_FreeMem() == -1 ? 0 : 2;
}

TEST_F(SegmentTest, AProcessOfAnotherBuildIsRefused)
{
    EXPECT_EQ(0, KvTestWait(KvTestSpawn("AttachAsAnotherBuild"), 20));
    EXPECT_EQ(1, G::_QueryCountAllocSharedMem());
    EXPECT_EQ(0, KvTestWait(KvTestSpawn("AllocFreeDetach"), 20)) << "the same build joins";
    EXPECT_EQ(1, G::_QueryCountAllocSharedMem());
}

}  // namespace
