// Memory watchers shared between processes, snapshots, their difference and the
// two dump formats.
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>

#include "KvCppMfc/Pool/KvMemoryWatcher.h"
#include "SegmentTestSupport.h"

namespace {

using G = KvGranularity;
using W = KvGranularityMemoryWatcher;

constexpr const char* kType = "CKvTestObject";
constexpr const char* kDescr = "objects of the watcher test";

TEST_F(KvAttachedTest, EmptyChainFindsNothing)
{
    EXPECT_EQ(nullptr, W::_GetMemoryWatcher(kType, kDescr));
    EXPECT_EQ(nullptr, W::_GetMemoryWatcher(nullptr, kDescr));
    EXPECT_EQ(nullptr, W::_GetSharedWatcher("", kDescr, 8));
    EXPECT_EQ(0u, G::_GetWatcherCount());
}

// Opens the parent's watcher, checks its counts, counts one more block and keeps it.
KV_CHILD_SCENARIO(UseSharedWatcher)
{
    KvThrowSetTestMode(true);
    G::_AllocSharedMem(kKvSegmentSize, kKvSegmentName);
    W* pw = W::_GetMemoryWatcher(kType, kDescr);
    if (pw == nullptr || pw != W::_GetSharedWatcher(kType, kDescr, 24))
        return 1;
    if (pw->m_cAllocChecked != 2 || pw->m_cFreeChecked != static_cast<uint64_t>(-1) || pw->m_cbSize != 24)
        return 2;
    G::_SetRoot(G::_Alloc(24, pw), std::stoi(args.at(0)));
    G::_FreeMem();
    return 0;
}

TEST_F(KvAttachedTest, TwoProcessesShareOneWatcher)
{
    KvGranularitySharedWatcherAllocator holder(kType, kDescr, 24);
    W* pw = holder.GetWatcher();
    ASSERT_NE(nullptr, pw);
    EXPECT_EQ(1u, G::_GetWatcherCount());
    EXPECT_STREQ("CKvTestObject: objects of the watcher test", G::_poinf->_szFirstWatcher);
    void* a = G::_Alloc(24, pw);
    void* b = G::_Alloc(24, pw);
    G::_Free(a, 24, pw);
    EXPECT_EQ(0, KvTestWait(KvTestSpawn("UseSharedWatcher", {"5"}), 20));
    EXPECT_EQ(3u, +pw->m_cAllocChecked) << "the child's allocation shows here";
    void* pvChild = G::_SetRoot(nullptr, 5);
    ASSERT_NE(nullptr, pvChild);
    G::_Free(pvChild, 24, pw);
    G::_Free(b, 24, pw);
    EXPECT_EQ(0u, pw->m_cAllocChecked + pw->m_cFreeChecked);
    EXPECT_EQ(pw, W::_GetMemoryWatcher(kType, kDescr));
    EXPECT_EQ(1u, G::_GetWatcherCount()) << "opening does not make a second one";
}

TEST_F(KvAttachedTest, CheckpointDifference)
{
    KvGranularitySharedWatcherAllocator holder(kType, kDescr, 16);
    auto pOld = std::make_unique<KvGranularityMemoryState>();
    auto pNew = std::make_unique<KvGranularityMemoryState>();
    auto pDiff = std::make_unique<KvGranularityMemoryState>();
    pOld->Checkpoint();
    G::_Free(G::_Alloc(16, holder.GetWatcher()), 16, holder.GetWatcher());
    pNew->Checkpoint();
    EXPECT_FALSE(pDiff->Difference(*pOld, *pNew)) << "everything given back";
    EXPECT_EQ(1u, pDiff->m_checkedAlloc.aGran[2]);
    EXPECT_EQ(1u, pDiff->m_checkedAlloc.aWatcher[0]);

    void* pv = G::_Alloc(16, holder.GetWatcher());
    pNew->Checkpoint();
    EXPECT_TRUE(pDiff->Difference(*pOld, *pNew)) << "one block still out";
    G::_Free(pv, 16, holder.GetWatcher());

    // A watcher made between the snapshots is taken with its full counts, the
    // older one keeps its own place.
    KvGranularitySharedWatcherAllocator newer("CKvNewer", "made later", 8);
    void* pv8 = G::_Alloc(8, newer.GetWatcher());
    pNew->Checkpoint();
    EXPECT_TRUE(pDiff->Difference(*pOld, *pNew));
    EXPECT_EQ(2, pDiff->m_cWatchers);
    EXPECT_EQ(1u, pDiff->m_checkedAlloc.aWatcher[0]) << "the new watcher, newest first";
    EXPECT_EQ(2u, pDiff->m_checkedAlloc.aWatcher[1]);
    G::_Free(pv8, 8, newer.GetWatcher());
}

std::string ReadFile(const std::string& strPath)
{
    std::ifstream in(strPath);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

TEST_F(KvAttachedTest, DumpFormats)
{
    KvGranularitySharedWatcherAllocator holder(kType, kDescr, 0x18);
    const std::string strPath = KvTestMarkerPath("dump");
    OpenDebug(strPath.c_str(), 1 << 20);
    void* pv = G::_Alloc(24, holder.GetWatcher());
    G::_EnableMemChecking(false);
    void* pvStatic = G::_Alloc(100);
    G::_EnableMemChecking(true);
    auto pState = std::make_unique<KvGranularityMemoryState>();
    pState->Checkpoint();
    pState->DumpStatisticsToDebugOutput();
    testing::internal::CaptureStdout();
    pState->DumpStatisticsToStdOut();
    const std::string strOut = testing::internal::GetCapturedStdout();
    CloseDebug();
    const std::string strDebug = ReadFile(strPath);
    unlink(strPath.c_str());

    for (const char* psz : {": Memory State:\n", ": Total memory : 32 bytes\n", ": Total memory : 0 bytes\n",
                            ": Total memory : 128 static bytes\n", ": Granularity 0x20 : 1 objects\n",
                            ": Granularity 0x20 : 0 objects\n", ": Granularity 0x20 : 0 static objects\n",
                            ": CKvTestObject : objects of the watcher test (size=0x18): 1 objects\n"})
        EXPECT_NE(std::string::npos, strDebug.find(psz)) << psz << "\n" << strDebug;
    EXPECT_EQ(std::string::npos, strDebug.find("Granularity 0x80")) << "no checked counts: not listed";
    EXPECT_EQ(std::string::npos, strDebug.find("(size=0x18): 0 objects")) << "zero counts are left out";
    EXPECT_LT(strDebug.find("Total memory : 32 bytes"), strDebug.find("Granularity 0x20"));

    for (const char* psz : {"CKvTestObject : objects of the watcher test (size=0x18): 1 objects\n",
                            "Granularity 0x20 : 1 objects\n", "Granularity 0x8 : 0 objects\n",
                            "Total memory : 32 bytes\n"})
        EXPECT_NE(std::string::npos, strOut.find(psz)) << psz << "\n" << strOut;
    G::_Free(pvStatic, 100);
    G::_Free(pv, 24, holder.GetWatcher());
}

TEST_F(KvAttachedTest, WatcherWithoutDescriptionMustExist)
{
    EXPECT_EQ("KVRFRSVR_MEM: KvGranularityMemoryWatcher::_GetSharedWatcher(): no watcher named CKvMissing",
              KvThrownText([] { W::_GetSharedWatcher("CKvMissing", nullptr, 8); }));
    EXPECT_EQ(0u, G::_GetWatcherCount());
    // By its full chain name an existing watcher opens like with type and description.
    KvGranularitySharedWatcherAllocator holder(kType, kDescr, 8);
    W* pw = W::_GetSharedWatcher("CKvTestObject: objects of the watcher test", nullptr, 0);
    EXPECT_EQ(holder.GetWatcher(), pw);
    W::_FreeSharedWatcher(pw);
}

}  // namespace
