// The shared string: appending its own text, copies, and the word in front of
// an embedded string.
#include <new>

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

}  // namespace
