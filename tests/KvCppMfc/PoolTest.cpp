// Pools: the boundaries of the size classes, every error path with its exact
// text and what it leaves behind, the registry limit, the counters.
#include <fstream>
#include <sstream>

#include "SegmentTestSupport.h"

namespace {

using G = KvGranularity;

// Opens a debug file of its own for a test and reads it back.
class KvDebugCapture {
public:
    KvDebugCapture() : m_strPath(KvTestMarkerPath("debug")) { OpenDebug(m_strPath.c_str(), 1 << 20); }
    ~KvDebugCapture()
    {
        CloseDebug();
        unlink(m_strPath.c_str());
    }
    std::string Text() const
    {
        std::ifstream in(m_strPath);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

private:
    std::string m_strPath;
};

TEST_F(KvAttachedTest, ClassBoundaries)
{
    const struct {
        uint32_t n, cbBlock;
    } acases[] = {{1, 8},         {8, 8},         {9, 16},          {1024, 1024},         {1025, 4096},
                  {4096, 4096},   {4097, 16384},  {16385, 0x10000}, {0x1000000, 0x1000000}};
    for (const auto& c : acases) {
        void* pv = G::_Alloc(c.n);
        const G* g = G::_GetGranularity(G::_IndexForSize(c.n));
        EXPECT_EQ(c.cbBlock, +g->_stSize) << c.n;
        EXPECT_EQ(0u, G::_CalcOffset(pv) % (c.cbBlock < 8192 ? c.cbBlock : 8192)) << c.n;
        G::_Free(pv, c.n);
        EXPECT_EQ(pv, g->_pchHead.Get()) << "a freed block heads its list";
    }
}

TEST_F(KvAttachedTest, RequestsWithoutAClassAreRefused)
{
    EXPECT_EQ("KVRFRSVR_MEM: KvGranularity::_Alloc(): no block size for a request of 0x1000001 bytes",
              KvThrownText([] { G::_Alloc(0x1000001); }));
    EXPECT_EQ("KVRFRSVR_MEM: KvGranularity::_Alloc(): no block size for a request of 0x0 bytes",
              KvThrownText([] { G::_Alloc(0); }));
}

TEST_F(KvAttachedTest, AllocErrorTexts)
{
    G* g8 = G::_GetGranularity(1);
    EXPECT_EQ("KVRFRSVR_MEM: KvGranularity::Alloc(): Illegal attempt to\tallocate 0x9 bytes from Granularity with "
              "0x8 bytes",
              KvThrownText([&] { g8->Alloc(9, nullptr); }));
    EXPECT_EQ(nullptr, G::_GetGranularity(0)->Alloc(8, nullptr)) << "the unused entry gives nothing";

    // A head outside the committed range is refused before the lock is taken.
    char* pv = static_cast<char*>(G::_Alloc(8));
    const uint32_t ofsHead = g8->_pchHead.Offset();
    g8->_pchHead = KvsPtr<char>::FromOffset(0x100);
    EXPECT_EQ("KVRFRSVR_MEM: KvGranularity::Alloc(): b4: next free pointer not in committed range",
              KvThrownText([] { G::_Alloc(8); }));
    g8->_pchHead = KvsPtr<char>::FromOffset(ofsHead);

    // A corrupt link is found after the head moved; the head stays moved.
    char* pvHead = g8->_pchHead.Get();
    *reinterpret_cast<uint32_t*>(pvHead) = 0x20;
    EXPECT_EQ("KVRFRSVR_MEM: KvGranularity::Alloc(): after: next free pointer not in committed range",
              KvThrownText([] { G::_Alloc(8); }));
    EXPECT_EQ(0x20u, g8->_pchHead.Offset());
    g8->_pchHead = KvsPtr<char>::FromOffset(ofsHead);
    *reinterpret_cast<uint32_t*>(pvHead) = ofsHead + 8;
    G::_Free(pv, 8);
    // The lock was released on every throw: another allocation goes through.
    G::_Free(G::_Alloc(8), 8);
    // The two failed allocations were counted by no one.
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

TEST_F(KvAttachedTest, FreeErrorTextsAndDebugLine)
{
    KvDebugCapture capture;
    EXPECT_EQ("KVRFRSVR_MEM: KvGranularity::Free(): pointer not in committed range",
              KvThrownText([] { G::_Free(G::_pvBase + 0x8000, 8); }));
    char* pv = static_cast<char*>(G::_Alloc(64));
    EXPECT_EQ("KVRFRSVR_MEM: KvGranularity::Free(): pointer does not match granularity size",
              KvThrownText([&] { G::_Free(pv + 8, 64); }));
    char szLine[160];
    snprintf(szLine, sizeof(szLine), "KvGranularity::Free: pv=0x%lx _stSize=0x40 base=0x%lx\n",
             static_cast<unsigned long>(reinterpret_cast<uintptr_t>(pv + 8)),
             static_cast<unsigned long>(reinterpret_cast<uintptr_t>(G::_pvBase)));
    const std::string strText = capture.Text();
    EXPECT_NE(std::string::npos, strText.find(szLine)) << strText;
    EXPECT_EQ(std::string::npos, strText.find(std::string(szLine) + "\n")) << "no second newline";
    // Above 8 KiB the alignment test is coarse: 8 KiB steps only.
    char* pvBig = static_cast<char*>(G::_Alloc(0x10000));
    EXPECT_EQ("<nothing thrown>", KvThrownText([&] { G::_Free(pvBig + 0x2000, 0x10000); }));
    EXPECT_EQ(pvBig + 0x2000, G::_Alloc(0x10000)) << "and the odd block is handed out next";
    G::_Free(pvBig, 0x10000);
    G::_Free(pv, 64);
}

TEST_F(KvAttachedTest, MemPrepareCarvesRoundedChunksAndLogs)
{
    KvDebugCapture capture;
    void* pv = G::_Alloc(4096);  // 8 x 4 KiB = 32 KiB
    EXPECT_EQ(0x18000u, G::_poinf->_pchNextFree.Offset());
    EXPECT_EQ(0x18000u, G::_poinf->_pchNextCommit.Offset());
    // _AllocFixed takes the uncarved area without alignment, committing in 8 KiB steps.
    EXPECT_EQ(G::_pvBase + 0x18000, G::_AllocFixed(5));
    EXPECT_EQ(0x18005u, G::_poinf->_pchNextFree.Offset());
    EXPECT_EQ(0x1A000u, G::_poinf->_pchNextCommit.Offset());
    EXPECT_EQ(G::_pvBase + 0x18005, G::_AllocFixed(0xFFB));
    EXPECT_EQ(0x1A000u, G::_poinf->_pchNextCommit.Offset());
    EXPECT_EQ(nullptr, G::_AllocFixed(0));
    void* pv8 = G::_Alloc(8);  // 8 KiB chunk, commit rounded up to 4 KiB
    EXPECT_EQ(G::_pvBase + 0x19000, pv8);
    EXPECT_EQ(0x1B000u, G::_poinf->_pchNextFree.Offset());
    EXPECT_EQ(0x1B000u, G::_poinf->_pchNextCommit.Offset());
    const std::string strText = capture.Text();
    EXPECT_NE(std::string::npos, strText.find("MemPrepare: GranSize=1000  _pchNextCommit.Offset=00010000 "));
    EXPECT_NE(std::string::npos, strText.find("MemPrepare: GranSize=8  _pchNextCommit.Offset=0001a000 "));
    EXPECT_NE(std::string::npos, strText.find("5: _AllocFixed (2000)"));
    EXPECT_NE(std::string::npos, strText.find("ffb: _AllocFixed (0)"));
    G::_Free(pv8, 8);
    G::_Free(pv, 4096);
}

TEST_F(KvAttachedTest, OutOfMemoryLeavesThePoolEmptyAndAllocFixedReportsItsOwnName)
{
    void* ap[3];
    for (auto& p : ap)
        p = G::_Alloc(0x1000000);
    const uint32_t ofsCommit = G::_poinf->_pchNextCommit.Offset();
    EXPECT_EQ("KVRFRSVR_MEM: KvGranularity::MemPrepare(): Out of Memory", KvThrownText([] { G::_Alloc(0x1000000); }));
    EXPECT_TRUE(G::_GetGranularity(15)->_pchHead.IsNull());
    EXPECT_EQ(ofsCommit, G::_poinf->_pchNextCommit.Offset());
    EXPECT_EQ("KVRFRSVR_MEM: KvGranularity::_Alloc(): Out of Memory", KvThrownText([] { G::_AllocFixed(0x1000000); }));
    EXPECT_EQ("KVRFRSVR_MEM: KvGranularity::_Alloc(): Out of Memory", KvThrownText([] { G::_AllocFixed(0xFFFFFFFF); }));
    // Smaller classes still fit in what is left.
    G::_Free(G::_Alloc(0x400000), 0x400000);
    for (auto& p : ap)
        G::_Free(p, 0x1000000);
}

TEST_F(KvAttachedTest, CountersFollowTheCheckingSwitch)
{
    const G* g = G::_GetGranularity(3);
    const uint64_t cbBefore = G::_poinf->_cbAllocChecked;
    void* a = G::_Alloc(32);
    EXPECT_EQ(1u, +g->_cAllocChecked);
    EXPECT_EQ(cbBefore + 32, +G::_poinf->_cbAllocChecked);
    G::_EnableMemChecking(false);
    void* b = G::_Alloc(32);
    G::_Free(a, 32);
    EXPECT_EQ(1u, +g->_cAllocChecked);
    EXPECT_EQ(0u, +g->_cFreeChecked);
    EXPECT_EQ(0u, +g->_cNetUnchecked) << "one up, one down";
    G::_EnableMemChecking(true);
    G::_Free(b, 32);
    EXPECT_EQ(static_cast<uint64_t>(-1), +g->_cFreeChecked) << "frees count downward";
}

TEST(PoolDetached, NothingWorksWithoutASegment)
{
    KvThrowSetTestMode(true);
    EXPECT_EQ(": KvGranularity::MemPrepare(): Memory not initialized", KvThrownText([] { G::_Alloc(8); }));
    EXPECT_EQ(": KvGranularity::Free(): pointer not in committed range", KvThrownText([] {
                  char ach[8];
                  G::_Free(ach, 8);
              }));
    EXPECT_EQ(": KvGranularity::MemPrepare(): Memory not initialized", KvThrownText([] { G::_AllocFixed(8); }));
    const char ch = 0;
    EXPECT_FALSE(G::_IsPointerInComittedRange(&ch));
    EXPECT_EQ(nullptr, G::_GetRoot(2));
    EXPECT_EQ(-1, G::_FreeMem());
}

KV_CHILD_SCENARIO(FillTheRegistry)
{
    (void)args;
    KvThrowSetTestMode(true);
    int32_t iLast = 0;
    for (;;) {
        try {
            iLast = G::_RegisterDeleteFunction([](void*) {});
        } catch (const KvThrowText& ex) {
            const bool fText = std::string(ex.m_sz) == ": Max. Number of shared memory classes reached!";
            return fText && iLast == 4094 ? 0 : 1;
        }
        if (iLast > 5000)
            return 2;
    }
}

TEST(PoolRegistry, The4095thRegistrationThrows)
{
    EXPECT_EQ(0, KvTestWait(KvTestSpawn("FillTheRegistry"), 20));
}

TEST(PoolRegistry, IndicesFollowRegistrationOrder)
{
    auto pfnA = [](void*) {};
    auto pfnB = [](void*) {};
    const int32_t iA = G::_RegisterDeleteFunction(pfnA);
    const int32_t iB = G::_RegisterDeleteFunction(pfnB);
    EXPECT_EQ(iA + 1, iB);
    EXPECT_EQ(static_cast<KvDeleteFunction>(pfnA), G::_GetDeleteFunction(iA));
    EXPECT_EQ(static_cast<KvDeleteFunction>(pfnB), G::_GetDeleteFunction(iB));
}

}  // namespace
