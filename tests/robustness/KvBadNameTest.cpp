// Bad paths and names at the boundary: paths at and past the 8192-byte working
// buffers, names made of every byte value 1..255, empty names. Each gives the
// stated result or a report, never a write past a buffer, and the segment stays
// consistent and usable.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KvRobustSupport.h"

namespace {

bool Same(const KvRsProxy& a, const KvRsProxy& b)
{
    return a.GetHandle() == b.GetHandle() && !a.IsNull();
}

TEST(KvBadName, PathsOf8192BytesAndMoreAreRefusedShorterOnesWork)
{
    KvRobustRoot();
    KvRsNodeProxy base = KvRsCreateNode("long", nullptr, 0);
    // 8191 bytes is the longest path the buffers take: one name of that length,
    // and 4096 names of one byte (a chain 4096 nodes deep).
    const std::string strName(8191, 'n');
    std::string strDeep = "d";
    while (strDeep.size() < 8191)
        strDeep += ".d";
    for (const std::string& str : {strName, strDeep}) {
        KvRsNodeProxy n = KvRsCreateNode(str.c_str(), base.GetHandle(), base.GetId());
        EXPECT_TRUE(Same(n, KvRsGetDescendantNode(base.GetHandle(), base.GetId(), str.c_str())));
        EXPECT_TRUE(Same(n, KvRsGetAncestorsDescendantNode(n.GetHandle(), n.GetId(), "")));
    }
    EXPECT_EQ(strName, KvNameOf(KvRsGetChildNode(base.GetHandle(), base.GetId(), strName.c_str())));
    const long cChildren = KvRsGetChildNodeCount(base.GetHandle(), base.GetId());
    for (size_t cb : {size_t{8192}, size_t{8193}, size_t{65536}, size_t{1} << 20}) {
        SCOPED_TRACE(cb);
        // The first 8191 bytes name the nodes made above: a copy that ignored the
        // limit would find or extend them instead of refusing.
        const std::string strLong(cb, 'n'), strDots = strDeep + std::string(cb - strDeep.size(), '.');
        KvStderrCapture capture;
        EXPECT_TRUE(KvRsCreateNode(strLong.c_str(), base.GetHandle(), base.GetId()).IsNull());
        EXPECT_TRUE(KvRsCreateNode(strDots.c_str(), base.GetHandle(), base.GetId()).IsNull());
        EXPECT_TRUE(KvRsGetNode(("long." + strLong).c_str()).IsNull());
        EXPECT_TRUE(KvRsGetDescendantNode(base.GetHandle(), base.GetId(), strLong.c_str()).IsNull());
        EXPECT_TRUE(KvRsGetDescendantNode(base.GetHandle(), base.GetId(), strDots.c_str()).IsNull());
        const std::string strErr = capture.Stop();
        EXPECT_EQ(2, KvCountOf(strErr, "strlen(path) < 8192 (the path is refused)")) << strErr;
        EXPECT_EQ(3, KvCountOf(strErr, "_tcslen(pszPath) < sizeof(szBuf)")) << strErr;
        EXPECT_EQ(0, KvCountOf(strErr, "Exception")) << strErr;
    }
    EXPECT_EQ(cChildren, KvRsGetChildNodeCount(base.GetHandle(), base.GetId())) << "a refused path created nothing";
    EXPECT_TRUE(KvSegmentConsistent());
}

TEST(KvBadName, EveryByteValueRoundTripsAndSortsAsUnsignedBytes)
{
    KvRobustRoot();
    KvRsNodeProxy parent = KvRsCreateNode("bytes", nullptr, 0);
    std::vector<std::string> vExpected, vGot;
    for (int b = 1; b <= 255; ++b) {
        const std::string strName(1, static_cast<char>(b));
        KvRsNodeProxy c = KvRsAddChildNode(parent.GetHandle(), parent.GetId(), strName.c_str());
        EXPECT_EQ(strName, KvNameOf(c)) << b;
        EXPECT_TRUE(Same(c, KvRsGetChildNode(parent.GetHandle(), parent.GetId(), strName.c_str()))) << b;
        if (b != '.') {
            EXPECT_TRUE(Same(c, KvRsGetNode(("bytes." + strName).c_str()))) << b;
        }
        vExpected.push_back(strName);
    }
    for (KvRsNodeProxy c = parent.GetChild(); !c.IsNull(); c = parent.GetChild(c))
        vGot.push_back(KvNameOf(c));
    EXPECT_EQ(vExpected, vGot) << "children in unsigned byte order, 0x80..0xFF last";
    KvRsRemoveChildNode(parent.GetHandle(), parent.GetId(), "\xFF");
    EXPECT_EQ(254, KvRsGetChildNodeCount(parent.GetHandle(), parent.GetId()));
    EXPECT_TRUE(KvSegmentConsistent());
}

TEST(KvBadName, EmptyNamesAreOrdinaryNamesThatSortFirst)
{
    KvRobustRoot();
    KvRsNodeProxy parent = KvRsCreateNode("empty", nullptr, 0);
    KvRsNodeProxy b = KvRsAddChildNode(parent.GetHandle(), parent.GetId(), "b");
    KvRsNodeProxy e = KvRsAddChildNode(parent.GetHandle(), parent.GetId(), "");
    EXPECT_EQ("", KvNameOf(e));
    EXPECT_TRUE(Same(e, parent.GetChild())) << "the empty name sorts first";
    EXPECT_TRUE(Same(e, KvRsAddChildNode(parent.GetHandle(), parent.GetId(), ""))) << "get-or-create finds it";
    // A leading or doubled separator looks up the empty name, a trailing one is
    // ignored; doubled separators in the part being created make empty names.
    KvRsNodeProxy under = KvRsCreateNode(".x", parent.GetHandle(), parent.GetId());
    EXPECT_TRUE(Same(e, KvRsGetNodeParent(under.GetHandle(), under.GetId())));
    EXPECT_TRUE(Same(under, KvRsGetNode("empty..x")));
    EXPECT_TRUE(Same(under, KvRsGetDescendantNode(parent.GetHandle(), parent.GetId(), ".x")));
    EXPECT_TRUE(Same(b, KvRsGetNode("empty.b.")));
    KvRsNodeProxy made = KvRsCreateNode("p..q", parent.GetHandle(), parent.GetId());
    EXPECT_EQ("", KvNameOf(KvRsGetNodeParent(made.GetHandle(), made.GetId())));
    KvRsRemoveChildNode(parent.GetHandle(), parent.GetId(), "");
    EXPECT_TRUE(Same(b, parent.GetChild()));
    EXPECT_TRUE(KvSegmentConsistent());
}

}  // namespace
