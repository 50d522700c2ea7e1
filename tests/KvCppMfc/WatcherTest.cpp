// Memory watchers: the chain by name, one watcher shared by two processes,
// memory states and their differences, both dumps, and a watcher made while
// no segment is attached.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "DiagTestSupport.h"
#include "KvCppMfc/Platform/KvPlatform.h"
#include "KvCppMfc/Pool/KvMemoryWatcher.h"
#include "SegmentTestSupport.h"

namespace {

typedef KvSharedTest WatcherTest;
using G = KvGranularity;
using W = KvGranularityMemoryWatcher;
typedef KvGranularitySharedWatcherAllocator WatcherHolder;
typedef KvGranularityMemoryState MemState;

TEST_F(WatcherTest, ChainIsNewestFirstAndFoundByTypeAndDescription)
{
    EXPECT_EQ(nullptr, W::_GetMemoryWatcher("KvTestObj", "first")) << "empty chain";
    EXPECT_EQ(nullptr, W::_GetSharedWatcher("", "first", 12));
    WatcherHolder a("KvTestObj", "first", 12), b("KvTestObj", "second", 12), c("Other", "first", 40);
    EXPECT_STREQ("Other: first", G::_poinf->_szFirstWatcher);
    EXPECT_STREQ("KvTestObj: second", c.GetWatcher()->m_szNext);
    EXPECT_STREQ("KvTestObj: first", b.GetWatcher()->m_szNext);
    EXPECT_STREQ("", a.GetWatcher()->m_szNext);
    EXPECT_EQ(3u, G::_GetWatcherCount());

    const struct {
        const char *pszType, *pszDescr;
        W* pExpected;
    } acases[] = {{"KvTestObj", "first", a.GetWatcher()}, {"KvTestObj", "second", b.GetWatcher()},
                  {"Other", "first", c.GetWatcher()},     {"Other", "second", nullptr},
                  {"KvTestObj", "third", nullptr},        {"KvTestOb", "first", nullptr}};
    for (const auto& t : acases)
        EXPECT_EQ(t.pExpected, W::_GetMemoryWatcher(t.pszType, t.pszDescr)) << t.pszType << ": " << t.pszDescr;

    // Opening again (by kind, or by chain name alone) shares the watcher and its
    // counts; neither it nor a repeated Init with the same data pushes or resets it.
    void* pv = G::_Alloc(12, a.GetWatcher());
    {
        WatcherHolder again("KvTestObj", "first", 12);
        // A packed field is compared through + (a value), never bound to a reference.
        EXPECT_EQ(a.GetWatcher(), again.GetWatcher());
        EXPECT_EQ(1u, +a.GetWatcher()->m_cOpened);
        W* pByName = W::_GetSharedWatcher("KvTestObj: first", nullptr, 0);
        EXPECT_EQ(a.GetWatcher(), pByName);
        W::_FreeSharedWatcher(pByName);
        a.GetWatcher()->Init("KvTestObj", "first", 12);
    }
    EXPECT_EQ(0u, +a.GetWatcher()->m_cOpened);
    EXPECT_EQ(1u, +a.GetWatcher()->m_cAllocChecked);
    EXPECT_EQ(0u, +b.GetWatcher()->m_cAllocChecked);
    EXPECT_EQ(3u, G::_GetWatcherCount());
    EXPECT_STREQ("Other: first", G::_poinf->_szFirstWatcher);
    G::_Free(pv, 12, a.GetWatcher());

    // A chain name that names no watcher is refused, and its object not left behind.
    const size_t cObjects = KvTestNamespaceObjects().size();
    EXPECT_NE("<nothing thrown>", KvThrownText([] { W::_GetSharedWatcher("KvTestObj: none", nullptr, 0); }));
    EXPECT_EQ(cObjects, KvTestNamespaceObjects().size());
    EXPECT_EQ(3u, G::_GetWatcherCount());
}

// Joins, counts into the watcher the parent made, and reports what it saw.
KV_CHILD_SCENARIO(CountIntoTheSharedWatcher)
{
    (void)args;
    KvThrowSetTestMode(true);
    KvDebugOutput::SetTestMode(true);
    if (KvAttachTestSegment() != 2)
        return 1;
    int iExit = 0;
    {
        W* pFound = W::_GetMemoryWatcher("KvTestObj", "shared");
        WatcherHolder holder("KvTestObj", "shared", 12);
        W* p = holder.GetWatcher();
        if (pFound == nullptr || p != pFound)
            iExit = 2;
        else if (p->m_cAllocChecked != 3 || p->m_cFreeChecked != static_cast<uint64_t>(-1) || p->m_cOpened != 1)
            iExit = 3;
        else if (G::_GetWatcherCount() != 1)
            iExit = 4;
        else
            G::_Free(G::_Alloc(12, p), 12, p);
    }
    return G::_FreeMem() >= 1 ? iExit : 5;
}

TEST_F(WatcherTest, TwoProcessesShareOneWatcherAndItsCounts)
{
    WatcherHolder holder("KvTestObj", "shared", 12);
    W* p = holder.GetWatcher();
    void* apv[3];
    for (auto& pv : apv)
        pv = G::_Alloc(12, p);
    G::_Free(apv[2], 12, p);
    ASSERT_EQ(0, KvTestWait(KvTestSpawn("CountIntoTheSharedWatcher")));
    EXPECT_EQ(4u, +p->m_cAllocChecked);
    EXPECT_EQ(static_cast<uint64_t>(-2), +p->m_cFreeChecked);
    EXPECT_EQ(0u, +p->m_cOpened) << "the child gave its opening back";
    EXPECT_EQ(1u, G::_GetWatcherCount());
    G::_Free(apv[0], 12, p);
    G::_Free(apv[1], 12, p);
}

TEST_F(WatcherTest, DifferenceIsTrueOnlyForCheckedBlocksNotGivenBackAndAlignsNewWatchers)
{
    auto pOld = std::make_unique<MemState>(), pNew = std::make_unique<MemState>(), pDiff = std::make_unique<MemState>();
    WatcherHolder w1("KvTestObj", "old", 12);
    void* pvKept = G::_Alloc(12, w1.GetWatcher());
    void* pvFreed = G::_Alloc(12, w1.GetWatcher());
    pOld->Checkpoint();
    EXPECT_EQ(1, pOld->m_cWatchers);
    EXPECT_EQ(2u, pOld->m_checkedAlloc.aWatcher[0]);
    auto difference = [&] {
        pNew->Checkpoint();
        return pDiff->Difference(*pOld, *pNew);
    };

    G::_Free(G::_Alloc(40), 40);
    EXPECT_FALSE(difference()) << "allocated and given back";
    EXPECT_EQ(64u, pDiff->m_checkedAlloc.qwTotal);
    EXPECT_EQ(1u, pDiff->m_checkedAlloc.aGran[4]);

    G::_EnableMemChecking(false);
    void* pvUnchecked = G::_Alloc(40);
    G::_EnableMemChecking(true);
    EXPECT_FALSE(difference()) << "blocks taken while checking is off do not count";
    EXPECT_EQ(64u, pDiff->m_netUnchecked.qwTotal);
    EXPECT_EQ(1u, pDiff->m_netUnchecked.aGran[4]);

    G::_Free(pvFreed, 12, w1.GetWatcher());
    EXPECT_TRUE(difference()) << "a block of the old state given back";
    EXPECT_EQ(static_cast<uint64_t>(-1), pDiff->m_checkedFree.aWatcher[0]);

    // A watcher made after the old state heads the chain: it is taken whole and
    // the older one is still compared with itself.
    WatcherHolder w2("KvTestObj", "new", 12);
    void* apvNew[2] = {G::_Alloc(12, w2.GetWatcher()), G::_Alloc(12, w2.GetWatcher())};
    void* pvMore = G::_Alloc(12, w1.GetWatcher());
    EXPECT_TRUE(difference());
    EXPECT_EQ(2, pDiff->m_cWatchers);
    EXPECT_EQ(2u, pDiff->m_checkedAlloc.aWatcher[0]);
    EXPECT_EQ(1u, pDiff->m_checkedAlloc.aWatcher[1]);
    EXPECT_EQ(static_cast<uint64_t>(-1), pDiff->m_checkedFree.aWatcher[1]);

    for (void* pv : apvNew)
        G::_Free(pv, 12, w2.GetWatcher());
    G::_Free(pvMore, 12, w1.GetWatcher());
    G::_Free(pvKept, 12, w1.GetWatcher());
    G::_Free(pvUnchecked, 40);
}

// What fn writes to standard output (file descriptor 1).
template <class F>
std::string CaptureStdout(F fn)
{
    const std::string strPath = KvTestTempFile();
    fflush(stdout);
    const int fdSaved = dup(1), fd = open(strPath.c_str(), O_WRONLY);
    dup2(fd, 1);
    close(fd);
    fn();
    fflush(stdout);
    dup2(fdSaved, 1);
    close(fdSaved);
    const std::string str = KvTestReadFile(strPath);
    unlink(strPath.c_str());
    return str;
}

TEST_F(WatcherTest, DumpsPrintTotalsClassesAndWatchers)
{
    auto pOld = std::make_unique<MemState>(), pNew = std::make_unique<MemState>(), pDiff = std::make_unique<MemState>();
    WatcherHolder zero("Dump", "zero", 0x18), lines("Dump", "lines", 0x18);
    W* p = lines.GetWatcher();
    pOld->Checkpoint();
    void* pvKept = G::_Alloc(24, p);
    G::_Free(G::_Alloc(24, p), 24, p);
    G::_EnableMemChecking(false);
    void* pvStatic = G::_Alloc(24, p);
    G::_EnableMemChecking(true);
    pNew->Checkpoint();
    EXPECT_TRUE(pDiff->Difference(*pOld, *pNew));
    {
        KvTempDebugFile file;
        pDiff->DumpStatisticsToDebugOutput();
        // Nothing of the watcher without counts, nor of the classes without blocks.
        const std::vector<std::string> vExpected = {"Memory State:",
                                                    "Total memory : 64 bytes",
                                                    "Total memory : -32 bytes",
                                                    "Total memory : 32 static bytes",
                                                    "Granularity 0x20 : 2 objects",
                                                    "Granularity 0x20 : -1 objects",
                                                    "Granularity 0x20 : 1 static objects",
                                                    "Dump : lines (size=0x18): 2 objects",
                                                    "Dump : lines (size=0x18): -1 objects",
                                                    "Dump : lines (size=0x18): 1 static objects"};
        EXPECT_EQ(vExpected, file.Texts());
    }
    const std::string strOut = CaptureStdout([&] { pDiff->DumpStatisticsToStdOut(); });
    const std::string strWatchers = "Dump : lines (size=0x18): 1 objects\nDump : zero (size=0x18): 0 objects\n";
    EXPECT_EQ(strWatchers, strOut.substr(0, strWatchers.size())) << strOut;
    EXPECT_NE(std::string::npos, strOut.find("\nGranularity 0x20 : 1 objects\n")) << strOut;
    const std::string strTotal = "\nTotal memory : 32 bytes\n";
    EXPECT_EQ(strOut.size() - strTotal.size(), strOut.rfind(strTotal)) << strOut;
    EXPECT_EQ(std::string::npos, strOut.find("static")) << strOut;
    G::_Free(pvKept, 24, p);
    G::_Free(pvStatic, 24, p);
}

TEST(WatcherDetached, AWatcherMadeWithoutASegmentLeavesNothingInDevShm)
{
    KvTestUseFreshNamespace();
    KvDebugOutput::SetTestMode(true);
    KvDebugOutput::ResetTestModeCounters();
    ASSERT_EQ(nullptr, G::_poinf);
    {
        WatcherHolder holder("KvTestObj", "detached", 12);
        EXPECT_NE(nullptr, holder.GetWatcher());
        EXPECT_EQ(1, KvDebugOutput::GetErrorOutputCount()) << "the missing segment is reported";
    }
    const std::vector<std::string> vLeft = KvTestNamespaceObjects();
    EXPECT_TRUE(vLeft.empty()) << vLeft.size() << " left, first: " << (vLeft.empty() ? "" : vLeft[0]);
    KvUnlinkNamespaceObjects("");
    KvDebugOutput::SetTestMode(false);
}

}  // namespace
