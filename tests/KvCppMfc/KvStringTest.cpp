// The shared string: empty strings take no block, growth by exact size class,
// no shrinking, appending (also from its own text) and the size limit.
#include <cstring>
#include <new>
#include <string>

#include "KvCppMfc/Shared/KvString.h"
#include "SmartPtrTestClasses.h"

namespace {

class KvStringTest : public KvSharedTest {
protected:
    static int64_t NetBlocks(uint32_t cbBlock)
    {
        const KvGranularity* g = KvGranularity::_GetGranularity(KvGranularity::_IndexForSize(cbBlock));
        return static_cast<int64_t>(g->_cAllocChecked + g->_cFreeChecked + g->_cNetUnchecked);
    }
};

TEST_F(KvStringTest, DefaultStringHasNoBlockAndReadsEmpty)
{
    const int64_t c8 = NetBlocks(8);
    KvString str;
    EXPECT_TRUE(str.m_psz.IsNull());
    EXPECT_TRUE(str.m_pGran.IsNull());
    ASSERT_NE(nullptr, str.GetCharPtr());
    EXPECT_STREQ("", str.GetCharPtr());
    EXPECT_EQ(0u, str.GetLength());
    EXPECT_EQ(0u, str.GetCapacity());
    str.Assign(nullptr);
    str.Assign("");
    EXPECT_TRUE(str.m_psz.IsNull()) << "the empty text takes no block";
    EXPECT_EQ(c8, NetBlocks(8));
}

TEST_F(KvStringTest, GrowsByExactSizeClassAndNeverShrinks)
{
    KvString str;
    str.Assign("1234567");
    EXPECT_EQ(8u, str.GetCapacity());
    EXPECT_EQ(KvGranularity::_GetGranularity(1), str.m_pGran.Get());
    const int64_t c8 = NetBlocks(8);
    str.Assign("12345678");
    EXPECT_EQ(16u, str.GetCapacity());
    EXPECT_STREQ("12345678", str.GetCharPtr());
    EXPECT_EQ(c8 - 1, NetBlocks(8)) << "the 8-byte block went back";
    const char* pBuf = str.GetCharPtr();
    str.Assign("");
    EXPECT_EQ(16u, str.GetCapacity());
    EXPECT_EQ(pBuf, str.GetCharPtr());
    EXPECT_STREQ("", str.GetCharPtr());
}

TEST_F(KvStringTest, AppendingCrossesOnlyClassBoundaries)
{
    KvString str;
    str.ConcatN("abc", 0);
    EXPECT_TRUE(str.m_psz.IsNull()) << "appending nothing changes nothing";
    str.ConcatN("abcdef", 3);
    EXPECT_STREQ("abc", str.GetCharPtr());
    EXPECT_EQ(8u, str.GetCapacity());

    std::string strModel = "abc";
    std::string strCapacities;
    uint32_t cbLast = str.GetCapacity();
    for (int i = 0; i < 1200; ++i) {
        const char ch = static_cast<char>('a' + i % 26);
        str.ConcatN(&ch, 1);
        strModel += ch;
        if (str.GetCapacity() != cbLast) {
            cbLast = str.GetCapacity();
            strCapacities += std::to_string(cbLast) + " ";
        }
    }
    EXPECT_EQ(strModel, str.GetCharPtr());
    EXPECT_EQ(strModel.size(), str.GetLength());
    // No 2048-byte class: 1025 bytes with the terminator take 4096.
    EXPECT_EQ("16 32 64 128 256 512 1024 4096 ", strCapacities);
}

TEST_F(KvStringTest, AppendingItsOwnTextAcrossABoundary)
{
    KvString str("0123456789");  // 16-byte block
    str.ConcatN(str.GetCharPtr(), str.GetLength());
    EXPECT_STREQ("01234567890123456789", str.GetCharPtr());
    EXPECT_EQ(32u, str.GetCapacity());
    str.Assign(str.GetCharPtr() + 10);
    EXPECT_STREQ("0123456789", str.GetCharPtr());
}

TEST_F(KvStringTest, CopiesOwnTheirBlocks)
{
    KvString a("shared text");
    KvString b(a);
    EXPECT_STREQ("shared text", b.GetCharPtr());
    EXPECT_NE(a.GetCharPtr(), b.GetCharPtr());
    KvString c;
    c = a;
    a.Assign("changed");
    EXPECT_STREQ("shared text", c.GetCharPtr());
}

TEST_F(KvStringTest, RequestAboveSixteenMegabytesIsAnAllocationFailure)
{
    KvString str("keep");
    try {
        str.AllocIfNecessary(0x1000001);
        ADD_FAILURE() << "no exception";
    } catch (const KvThrowText& ex) {
        EXPECT_EQ(0, strncmp(ex.m_sz, "KVRFRSVR_MEM: KvString", 22)) << ex.m_sz;
    }
    EXPECT_STREQ("keep", str.GetCharPtr()) << "the string is left as it was";
    str.AllocIfNecessary(0x1000000);
    EXPECT_EQ(0x1000000u, str.GetCapacity());
    EXPECT_STREQ("keep", str.GetCharPtr());
}

TEST_F(KvStringTest, EmbeddedStringLeavesTheIndexWordAlone)
{
    void* pv = KvGranularity::_Alloc(sizeof(KvString));
    *static_cast<uint32_t*>(pv) = 0x12345678;
    KvString* pStr = ::new (pv) KvString("name");
    EXPECT_EQ(0x12345678u, *static_cast<uint32_t*>(pv));
    pStr->Assign("a longer name");
    pStr->~KvString();
    EXPECT_EQ(0x12345678u, *static_cast<uint32_t*>(pv));
    KvGranularity::_Free(pv, sizeof(KvString));
}

}  // namespace
