// The shared string: appending its own text, copies, the word in front of an
// embedded string, the block size chosen for each length, and blocks given back
// when a string moves.
#include <functional>
#include <new>
#include <string>

#include "KvCppMfc/Shared/KvString.h"
#include "SegmentTestSupport.h"

namespace {

typedef KvSharedTest KvStringTest;

TEST_F(KvStringTest, StringAppendsItsOwnTextCopiesOwnTheirBlocksAndTheIndexWordStays)
{
    void* pv = KvGranularity::_Alloc(sizeof(KvString));
    *static_cast<uint32_t*>(pv) = 0x12345678;
    KvString& str = *::new (pv) KvString("0123456789");  // 16-byte block
    str.ConcatN(str.GetCharPtr(), str.GetLength());
    EXPECT_STREQ("01234567890123456789", str.GetCharPtr());
    str.Assign(str.GetCharPtr() + 10);
    EXPECT_STREQ("0123456789", str.GetCharPtr());
    KvString b(str), c;
    c = str;
    str.Assign("changed, and long enough for another block");
    EXPECT_STREQ("0123456789", b.GetCharPtr());
    EXPECT_STREQ("0123456789", c.GetCharPtr());
    str.~KvString();
    EXPECT_EQ(0x12345678u, *static_cast<uint32_t*>(pv)) << "an embedded string leaves the word in front alone";
    KvGranularity::_Free(pv, sizeof(KvString));
}

// Blocks taken from the pools since the fixture's snapshot.
int64_t BlocksHeld(const KvPoolSnapshot& snap)
{
    const KvPoolSnapshot now = KvTakePoolSnapshot();
    int64_t c = 0;
    for (size_t i = 0; i < now.size(); ++i)
        c += now[i] - snap[i];
    return c;
}

TEST_F(KvStringTest, EachLengthTakesTheSmallestClassForItAndItsTerminator)
{
    const struct {
        uint32_t cch, cbBlock;
    } acases[] = {{0, 0},
                  {1, 8},
                  {7, 8},
                  {8, 16},
                  {15, 16},
                  {16, 32},
                  {31, 32},
                  {32, 64},
                  {63, 64},
                  {64, 128},
                  {127, 128},
                  {128, 256},
                  {255, 256},
                  {256, 512},
                  {511, 512},
                  {512, 1024},
                  {1023, 1024},
                  {1024, 4096},
                  {4095, 4096},
                  {4096, 16384},
                  {16383, 16384},
                  {16384, 0x10000},
                  {0xFFFF, 0x10000},
                  {0x10000, 0x40000},
                  {0x3FFFF, 0x40000},
                  {0x40000, 0x100000},
                  {0xFFFFF, 0x100000},
                  {0x100000, 0x400000},
                  {0x3FFFFF, 0x400000},
                  {0x400000, 0x1000000},
                  {0xFFFFFF, 0x1000000}};
    for (const auto& c : acases) {
        std::string strText(c.cch, 'a');
        for (uint32_t i = 0; i < c.cch; i += 997)
            strText[i] = static_cast<char>('b' + i % 23);
        KvString made(strText.c_str());
        EXPECT_EQ(c.cbBlock, made.GetCapacity()) << c.cch;
        EXPECT_TRUE(made.GetCharPtr() == strText) << c.cch;
        if (c.cch == 0)
            continue;
        // Reaching the length by appending its last byte ends in the same class.
        KvString grown(strText.substr(0, c.cch - 1).c_str());
        grown.ConcatN(strText.c_str() + c.cch - 1, 1);
        EXPECT_EQ(c.cbBlock, grown.GetCapacity()) << c.cch;
        EXPECT_TRUE(grown.GetCharPtr() == strText) << c.cch;
        EXPECT_EQ(2, BlocksHeld(m_snap)) << c.cch;
    }
    KvString str("kept");
    const std::string strTooLong(KVGRAN_MAX_REQUEST, 'z');
    EXPECT_NE("<nothing thrown>", KvThrownText([&] { str.Assign(strTooLong.c_str()); }));
    EXPECT_EQ(1, BlocksHeld(m_snap));
}

TEST_F(KvStringTest, GrowsOnlyPastItsBlockNeverShrinksAndGivesTheOldBlockBack)
{
    KvString str;
    EXPECT_STREQ("", str.GetCharPtr());
    EXPECT_EQ(0, BlocksHeld(m_snap)) << "the empty text takes no block";
    const std::string str1023(1023, 'q');
    const struct {
        std::function<void()> fn;
        std::string strText;
        uint32_t cbBlock;
    } asteps[] = {
        {[&] { str.ConcatN("hello", 5); }, "hello", 8},
        {[&] { str.Assign("1234567"); }, "1234567", 8},
        {[&] { str.Assign("12345678"); }, "12345678", 16},
        {[&] { str.Assign(""); }, "", 16},
        {[&] { str.ConcatN("xyz", 0); }, "", 16},
        {[&] { str.Concat("abc"); }, "abc", 16},
        {[&] { str.Concat("defghijklmnop"); }, "abcdefghijklmnop", 32},
        {[&] { str.Assign(nullptr); }, "", 32},
        {[&] { str.Assign(str1023.c_str()); }, str1023, 1024},
        {[&] { str.ConcatN("r", 1); }, str1023 + "r", 4096},
        {[&] { str.Assign("short"); }, "short", 4096},
    };
    for (const auto& step : asteps) {
        step.fn();
        EXPECT_TRUE(str.GetCharPtr() == step.strText) << step.strText.size();
        EXPECT_EQ(step.cbBlock, str.GetCapacity()) << step.strText.size();
        EXPECT_EQ(1, BlocksHeld(m_snap)) << "one block at a time; " << step.strText.size();
    }
}

}  // namespace
