// The named segment between processes: joining without zeroing, blocks that
// travel between processes, clean-up by the last process, stale segments of
// killed processes, a killed holder of the pool mutex, another build, fork.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "KvCppMfc/Platform/KvPlatform.h"
#include "KvCppMfc/Pool/KvSegmentState.h"
#include "SegmentTestSupport.h"

namespace {

constexpr int kRootSlot = 3;
constexpr char kPattern[] = "written by the first process";

uint32_t ParseOffset(const std::string& str)
{
    return static_cast<uint32_t>(strtoul(str.c_str(), nullptr, 0));
}

// Joins the segment, checks what the first process left, frees its block.
KV_CHILD_SCENARIO(JoinAndFree)
{
    KvThrowSetTestMode(true);
    if (KvGranularity::_AllocSharedMem(kKvSegmentSize, kKvSegmentName) != 2)
        return 1;
    auto* psz = static_cast<char*>(KvGranularity::_GetRoot(kRootSlot));
    if (psz == nullptr || strcmp(psz, kPattern) != 0)
        return 2;  // not the same bytes: zeroed or another segment
    if (KvGranularity::_CalcOffset(psz) != ParseOffset(args.at(0)))
        return 3;
    // The block the first process freed last is the next one handed out here.
    void* pv = KvGranularity::_Alloc(64);
    if (KvGranularity::_CalcOffset(pv) != ParseOffset(args.at(2)))
        return 4;
    KvGranularity::_Free(pv, 64);
    KvGranularity::_Free(KvGranularity::_CalcPtr(ParseOffset(args.at(1))), 64);
    return KvGranularity::_FreeMem() == 1 ? 0 : 5;
}

TEST_F(KvAttachedTest, SecondProcessJoinsSeesRootsAndReusesFreedBlocks)
{
    auto* psz = static_cast<char*>(KvGranularity::_Alloc(sizeof(kPattern)));
    strcpy(psz, kPattern);
    EXPECT_EQ(nullptr, KvGranularity::_SetRoot(psz, kRootSlot));
    void* pvShared = KvGranularity::_Alloc(64);
    void* pvFreed = KvGranularity::_Alloc(64);
    KvGranularity::_Free(pvFreed, 64);
    const pid_t pid = KvTestSpawn("JoinAndFree", {std::to_string(KvGranularity::_CalcOffset(psz)),
                                                  std::to_string(KvGranularity::_CalcOffset(pvShared)),
                                                  std::to_string(KvGranularity::_CalcOffset(pvFreed))});
    ASSERT_EQ(0, KvTestWait(pid, 20));
    EXPECT_EQ(1, KvGranularity::_QueryCountAllocSharedMem());
    // The child freed our block last: it is the next block of its class here.
    EXPECT_EQ(pvShared, KvGranularity::_Alloc(64));
    KvGranularity::_Free(pvShared, 64);
    EXPECT_EQ(psz, KvGranularity::_SetRoot(nullptr, kRootSlot));
    EXPECT_EQ(nullptr, KvGranularity::_GetRoot(kRootSlot));
    KvGranularity::_Free(psz, sizeof(kPattern));
    EXPECT_FALSE(KvTestNamespaceObjects().empty()) << "we still hold the namespace";
}

// Attaches, sets a root, optionally takes the pool mutex, says so and waits to be killed.
KV_CHILD_SCENARIO(AttachAndHang)
{
    KvThrowSetTestMode(true);
    KvGranularity::_AllocSharedMem(kKvSegmentSize, kKvSegmentName);
    KvGranularity::_SetRoot(KvGranularity::_Alloc(8), kRootSlot);
    if (args.size() > 1 && args[1] == "lock")
        KvGranularity::_LockPools();
    KvTestTouch(args.at(0));
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
    EXPECT_FALSE(KvTestNamespaceObjects().empty()) << "a killed process runs no clean-up";

    EXPECT_EQ(1, KvGranularity::_AllocSharedMem(kKvSegmentSize, kKvSegmentName)) << "made afresh";
    EXPECT_EQ(nullptr, KvGranularity::_GetRoot(kRootSlot));
    EXPECT_EQ(KVGRAN_HEADER_SIZE, KvGranularity::_poinf->_pchNextFree.Offset());
    EXPECT_EQ(0, KvGranularity::_FreeMem());
    EXPECT_TRUE(KvTestNamespaceObjects().empty());
}

// Attaches, allocates and frees under the pool mutex, detaches.
KV_CHILD_SCENARIO(AllocFreeDetach)
{
    (void)args;
    KvThrowSetTestMode(true);
    KvGranularity::_AllocSharedMem(kKvSegmentSize, kKvSegmentName);
    KvGranularity::_Free(KvGranularity::_Alloc(100), 100);
    return KvGranularity::_FreeMem() >= 1 ? 0 : 1;
}

TEST_F(KvAttachedTest, AKilledHolderOfThePoolMutexBlocksNoOne)
{
    const std::string strMarker = KvTestMarkerPath("lock");
    const pid_t pidHolder = KvTestSpawn("AttachAndHang", {strMarker, "lock"});
    ASSERT_TRUE(KvTestWaitForMarker(strMarker));
    kill(pidHolder, SIGKILL);
    ASSERT_EQ(128 + SIGKILL, KvTestWait(pidHolder, 10));
    // The mutex was abandoned: the next process gets it (bounded by the watchdog).
    EXPECT_EQ(0, KvTestWait(KvTestSpawn("AllocFreeDetach"), 10));
    KvGranularity::_Free(KvGranularity::_Alloc(8), 8);
    // The killed process never detached: its attachment and its root block stay
    // counted until someone clears up after it.
    EXPECT_EQ(2, KvGranularity::_QueryCountAllocSharedMem());
    KvGranularity::_DecCountAllocSharedMem();
    KvGranularity::_Free(KvGranularity::_SetRoot(nullptr, kRootSlot), 8);
}

// A build with one more shared class must not join.
KV_CHILD_SCENARIO(AttachAsAnotherBuild)
{
    (void)args;
    KvThrowSetTestMode(true);
    KvGranularity::_RegisterDeleteFunction([](void*) {}, "KvClassOfAnotherBuild", 12);
    const std::string strText =
        KvThrownText([] { KvGranularity::_AllocSharedMem(kKvSegmentSize, kKvSegmentName); });
    fprintf(stderr, "%s\n", strText.c_str());
    if (strText.rfind("KVRFRSVR_MEM: KvGranularity::_AllocSharedMem pszName=KVRFRSVR_MEM: the segment was made "
                      "by another build", 0) != 0)
        return 1;
    if (strText.find("cannot share it") == std::string::npos)
        return 2;
    return KvGranularity::_pvBase == nullptr && KvGranularity::_FreeMem() == -1 ? 0 : 3;
}

TEST_F(KvAttachedTest, AProcessOfAnotherBuildIsRefused)
{
    EXPECT_EQ(0, KvTestWait(KvTestSpawn("AttachAsAnotherBuild"), 20));
    EXPECT_EQ(1, KvGranularity::_QueryCountAllocSharedMem());
    // The same build joins as before.
    EXPECT_EQ(0, KvTestWait(KvTestSpawn("AllocFreeDetach"), 20));
    EXPECT_EQ(1, KvGranularity::_QueryCountAllocSharedMem());
}

KV_CHILD_SCENARIO(FreeWithoutAttaching)
{
    (void)args;
    return KvGranularity::_FreeMem() == -1 ? 0 : 1;
}

TEST_F(KvAttachedTest, FreeMemWithoutAttachmentReturnsMinusOneAndTouchesNothing)
{
    EXPECT_EQ(0, KvTestWait(KvTestSpawn("FreeWithoutAttaching"), 20));
    EXPECT_EQ(1, KvGranularity::_QueryCountAllocSharedMem());
}

TEST_F(KvAttachedTest, AttachingTwiceOnlyCounts)
{
    char* pvBase = KvGranularity::_pvBase;
    EXPECT_EQ(2, KvGranularity::_AllocSharedMem(kKvSegmentSize, kKvSegmentName));
    EXPECT_EQ(pvBase, KvGranularity::_pvBase);
    EXPECT_EQ(1, KvGranularity::_FreeMem());
    EXPECT_EQ(pvBase, KvGranularity::_pvBase) << "still mapped after the first release";
}

TEST_F(KvAttachedTest, CommittedRangeExcludesTheHeaderAndTheLastSevenBytes)
{
    char* pvBase = KvGranularity::_pvBase;
    EXPECT_FALSE(KvGranularity::_IsPointerInComittedRange(pvBase + 0x10000)) << "nothing committed yet";
    void* pv = KvGranularity::_Alloc(8);
    char* pchEnd = KvGranularity::_poinf->_pchNextCommit.Get();
    EXPECT_EQ(0x12000u, KvGranularity::_poinf->_pchNextCommit.Offset()) << "one 8 KiB chunk";
    EXPECT_FALSE(KvGranularity::_IsPointerInComittedRange(nullptr));
    EXPECT_FALSE(KvGranularity::_IsPointerInComittedRange(pvBase));
    EXPECT_FALSE(KvGranularity::_IsPointerInComittedRange(pvBase + 0xFFFF));
    EXPECT_TRUE(KvGranularity::_IsPointerInComittedRange(pvBase + 0x10000));
    EXPECT_TRUE(KvGranularity::_IsPointerInComittedRange(pchEnd - 8));
    EXPECT_FALSE(KvGranularity::_IsPointerInComittedRange(pchEnd - 7));
    EXPECT_FALSE(KvGranularity::_IsPointerInComittedRange(pchEnd));
    EXPECT_EQ(nullptr, KvGranularity::_CalcPtr(0));
    EXPECT_EQ(0u, KvGranularity::_CalcOffset(nullptr));
    EXPECT_EQ(nullptr, KvGranularity::_SetRoot(pv, 16)) << "no slot 16";
    EXPECT_EQ(nullptr, KvGranularity::_SetRoot(pv, -1));
    KvGranularity::_Free(pv, 8);
}

TEST(SegmentLifetime, HeaderOfANewSegment)
{
    KvTestUseFreshNamespace();
    ASSERT_EQ(1, KvGranularity::_AllocSharedMem(kKvSegmentSize, kKvSegmentName));
    const KvGranularity::Info* pinf = KvGranularity::_poinf;
    EXPECT_EQ(KVGRAN_HEADER_SIZE, pinf->_pvRootObj.Offset());
    EXPECT_EQ(KvGranularity::_pvBase + KVGRAN_HEADER_SIZE, KvGranularity::_GetRootObj());
    EXPECT_EQ(1, pinf->_fMemChecking);
    EXPECT_EQ(0u, +pinf->_cWatchers);
    EXPECT_EQ(0x1000000u, +KvGranularity::_GetGranularity(15)->_stSize);
    EXPECT_EQ(0u, +KvGranularity::_GetGranularity(16)->_stSize);
    for (uint8_t b : pinf->_abReserved)
        ASSERT_EQ(0, b);
    EXPECT_EQ(0, memcmp(KvGranularity::_pvBase + KVGRAN_FINGERPRINT_OFFSET, "KVRFRSVR", 8));
    EXPECT_EQ(0, KvGranularity::_FreeMem());
    EXPECT_EQ(-1, KvGranularity::_FreeMem()) << "released: a second release finds nothing";
}

// fork(): the child is an attachment of its own; the parent's exit does not pull
// the segment from under it, and the child's exit cleans up.
TEST(SegmentLifetime, ForkChildHasItsOwnAttachment)
{
    KvTestUseFreshNamespace();
    ASSERT_EQ(1, KvGranularity::_AllocSharedMem(kKvSegmentSize, kKvSegmentName));
    KvGranularity::_SetRoot(KvGranularity::_Alloc(8), kRootSlot);
    const uint32_t dwParent = KvGetCurrentProcessId();
    int afd[2], afdReady[2];
    ASSERT_EQ(0, pipe(afd));
    ASSERT_EQ(0, pipe(afdReady));
    const pid_t pid = fork();
    if (pid == 0) {
        close(afd[1]);
        close(afdReady[0]);
        close(afdReady[1]);  // the child is attached once fork() returned here
        char ch;
        if (read(afd[0], &ch, 1) != 0)  // until the parent has detached
            _exit(1);
        if (KvGetCurrentProcessId() != static_cast<uint32_t>(getpid()) || KvGetCurrentProcessId() == dwParent)
            _exit(2);
        void* pv = KvGranularity::_SetRoot(nullptr, kRootSlot);
        if (pv == nullptr)
            _exit(3);
        KvGranularity::_Free(pv, 8);
        _exit(KvGranularity::_FreeMem() == 0 ? 0 : 4);
    }
    close(afd[0]);
    close(afdReady[1]);
    char ch;
    ASSERT_EQ(0, read(afdReady[0], &ch, 1));
    close(afdReady[0]);
    EXPECT_EQ(1, KvGranularity::_FreeMem()) << "the child counts as an attachment";
    EXPECT_FALSE(KvTestNamespaceObjects().empty()) << "the child still holds the segment";
    close(afd[1]);
    EXPECT_EQ(0, KvTestWait(pid, 20));
    EXPECT_TRUE(KvTestNamespaceObjects().empty());
}

TEST(SegmentLifetime, CachedProcessIdIsRefreshedInAForkChild)
{
    const uint32_t dwParent = KvGetCurrentProcessId();
    ASSERT_EQ(static_cast<uint32_t>(getpid()), dwParent);
    const pid_t pid = fork();
    if (pid == 0)
        _exit(KvGetCurrentProcessId() == static_cast<uint32_t>(getpid()) ? 0 : 1);
    EXPECT_EQ(0, KvTestWait(pid, 20));
}

}  // namespace
