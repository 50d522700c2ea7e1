// Pools: size classes, reuse order, carving and the error texts.
#include <cstring>
#include <string>

#include "KvCppMfc/Diag/KvDebugOutput.h"
#include "KvCppMfc/Pool/KvGranularity.h"
#include "common/KvTestSupport.h"

namespace {

// Attaches a fresh named segment for one test and releases it afterwards.
class PoolTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        KvTestUseFreshNamespace();
        KvThrowSetTestMode(true);
        ASSERT_EQ(1, KvGranularity::_AllocSharedMem(0x4000000, "KVRFRSVR_MEM"));
    }
    void TearDown() override
    {
        EXPECT_EQ(0, KvGranularity::_FreeMem());
        KvThrowSetTestMode(false);
    }
    static std::string ThrownText(void (*pfn)())
    {
        try {
            pfn();
        } catch (const KvThrowText& ex) {
            return ex.m_sz;
        }
        return "<nothing thrown>";
    }
};

uint32_t BlockSizeFor(uint32_t n)
{
    return KvGranularity::_GetGranularity(KvGranularity::_IndexForSize(n))->_stSize;
}

TEST_F(PoolTest, RequestsTakeTheSmallestClassThatFits)
{
    EXPECT_EQ(8u, BlockSizeFor(1));
    EXPECT_EQ(8u, BlockSizeFor(8));
    EXPECT_EQ(16u, BlockSizeFor(9));
    EXPECT_EQ(1024u, BlockSizeFor(1024));
    EXPECT_EQ(4096u, BlockSizeFor(1025));  // no 2048-byte class
    EXPECT_EQ(4096u, BlockSizeFor(4096));
    EXPECT_EQ(16384u, BlockSizeFor(4097));
    EXPECT_EQ(0x1000000u, BlockSizeFor(0x1000000));
    EXPECT_EQ(0xFFFFFFFFu, KvGranularity::_IndexForSize(0x1000001));
    EXPECT_EQ(0xFFFFFFFFu, KvGranularity::_IndexForSize(0));
}

TEST_F(PoolTest, FreedBlockIsTheNextOneHandedOut)
{
    void* a = KvGranularity::_Alloc(64);
    void* b = KvGranularity::_Alloc(64);
    EXPECT_NE(a, b);
    memset(a, 0xAB, 64);
    KvGranularity::_Free(a, 64);
    void* c = KvGranularity::_Alloc(60);
    EXPECT_EQ(a, c);
    for (int i = 0; i < 64; ++i)
        ASSERT_EQ(0, static_cast<unsigned char*>(c)[i]) << "blocks are zeroed when handed out";
    KvGranularity::_Free(b, 64);
    KvGranularity::_Free(c, 64);
}

TEST_F(PoolTest, ErrorTextsCarryTheSegmentName)
{
    EXPECT_EQ("KVRFRSVR_MEM: KvGranularity::Free(): pointer not in committed range",
              ThrownText([] { KvGranularity::_Free(KvGranularity::_pvBase + 16, 8); }));
    EXPECT_EQ("KVRFRSVR_MEM: KvGranularity::Free(): pointer does not match granularity size", ThrownText([] {
                  char* p = static_cast<char*>(KvGranularity::_Alloc(64));
                  KvGranularity::_Free(p + 8, 64);
              }));
}

TEST_F(PoolTest, OutOfMemoryLeavesThePoolEmpty)
{
    // Three 16 MiB blocks fit below 64 MiB; the fourth chunk passes the end.
    void* ap[3];
    for (auto& p : ap)
        p = KvGranularity::_Alloc(0x1000000);
    EXPECT_EQ("KVRFRSVR_MEM: KvGranularity::MemPrepare(): Out of Memory",
              ThrownText([] { KvGranularity::_Alloc(0x1000000); }));
    EXPECT_TRUE(KvGranularity::_GetGranularity(15)->_pchHead.IsNull());
    for (auto& p : ap)
        KvGranularity::_Free(p, 0x1000000);
}

}  // namespace
