// Pools: the boundaries of the size classes, the error paths with their texts
// and what they leave behind, and out of memory.
#include <cstring>
#include <functional>

#include "SegmentTestSupport.h"

namespace {

typedef KvSharedTest PoolTest;
using G = KvGranularity;

TEST_F(PoolTest, ClassBoundariesAlignmentReuseAndZeroing)
{
    const struct {
        uint32_t n, cbBlock;
    } acases[] = {{1, 8},       {8, 8},        {9, 16},          {1024, 1024},          {1025, 4096},
                  {4096, 4096}, {4097, 16384}, {16385, 0x10000}, {0x1000000, 0x1000000}};
    for (const auto& c : acases) {
        auto* pb = static_cast<unsigned char*>(G::_Alloc(c.n));
        const G* g = G::_GetGranularity(G::_IndexForSize(c.n));
        EXPECT_EQ(c.cbBlock, +g->_stSize) << c.n;
        EXPECT_EQ(0u, G::_CalcOffset(pb) % (c.cbBlock < 8192 ? c.cbBlock : 8192)) << c.n;
        memset(pb, 0xAB, c.n);
        G::_Free(pb, c.n);
        EXPECT_EQ(static_cast<void*>(pb), static_cast<void*>(g->_pchHead.Get())) << "a freed block heads its list";
        ASSERT_EQ(static_cast<void*>(pb), static_cast<void*>(G::_Alloc(c.n)));
        for (uint32_t i = 0; i < c.n && i < 4096; ++i)
            ASSERT_EQ(0, pb[i]) << "blocks are zeroed when handed out; size " << c.n;
        G::_Free(pb, c.n);
    }
}

TEST_F(PoolTest, BadRequestsThrowTheirTextAndReleaseTheLock)
{
    char* pv = static_cast<char*>(G::_Alloc(64));
    const struct {
        std::function<void()> fn;
        const char* pszText;
    } acases[] = {
        {[] { G::_Alloc(0x1000001); }, "KvGranularity::_Alloc(): no block size for a request of 0x1000001 bytes"},
        {[] { G::_Alloc(0); }, "KvGranularity::_Alloc(): no block size for a request of 0x0 bytes"},
        {[] { G::_GetGranularity(1)->Alloc(9, nullptr); },
         "KvGranularity::Alloc(): Illegal attempt to\tallocate 0x9 bytes from Granularity with 0x8 bytes"},
        {[] { G::_Free(G::_pvBase + 0x8000, 8); }, "KvGranularity::Free(): pointer not in committed range"},
        {[&] { G::_Free(pv + 8, 64); }, "KvGranularity::Free(): pointer does not match granularity size"},
    };
    for (const auto& c : acases)
        EXPECT_EQ(std::string("KVRFRSVR_MEM: ") + c.pszText, KvThrownText(c.fn));
    G::_Free(pv, 64);
    G::_Free(G::_Alloc(64), 64);  // the lock was released on every throw
}

TEST_F(PoolTest, ACorruptFreeListIsRefusedNotFollowed)
{
    G* g8 = G::_GetGranularity(1);
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
    EXPECT_TRUE(KvPoolsBalanced(m_snap)) << "failed allocations are counted by no one";
}

TEST_F(PoolTest, OutOfMemoryLeavesThePoolEmptyAndSmallerClassesWork)
{
    void* ap[3];
    for (auto& p : ap)
        p = G::_Alloc(0x1000000);
    const uint32_t ofsCommit = G::_poinf->_pchNextCommit.Offset();
    EXPECT_EQ("KVRFRSVR_MEM: KvGranularity::MemPrepare(): Out of Memory", KvThrownText([] { G::_Alloc(0x1000000); }));
    EXPECT_TRUE(G::_GetGranularity(15)->_pchHead.IsNull());
    EXPECT_EQ(ofsCommit, G::_poinf->_pchNextCommit.Offset());
    G::_Free(G::_Alloc(0x400000), 0x400000);  // smaller classes still fit
    for (auto& p : ap)
        G::_Free(p, 0x1000000);
}

TEST(PoolDetached, NothingWorksWithoutASegment)
{
    KvThrowSetTestMode(true);
    EXPECT_EQ(": KvGranularity::MemPrepare(): Memory not initialized", KvThrownText([] { G::_Alloc(8); }));
    char ach[8];
    EXPECT_EQ(": KvGranularity::Free(): pointer not in committed range", KvThrownText([&] { G::_Free(ach, 8); }));
    EXPECT_EQ(nullptr, G::_GetRoot(2));
    EXPECT_EQ(-1, G::_FreeMem());
}

}  // namespace
