// Bad paths and names at the boundary: paths at and past the 8192-byte working
// buffers, names made of every byte value 1..255, empty names. Each gives the
// stated result or a report, never a write past a buffer, and the tree stays
// consistent and usable.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KvRobustSupport.h"

namespace {

std::string NameOf(const KvRsNodeProxy& n)
{
    // Guard bytes behind the name catch a copy that runs past its terminator.
    const long cch = KvRsGetNodeNameLength(n.GetHandle(), n.GetId());
    std::vector<char> v(static_cast<size_t>(cch) + 1 + 32, '\xEE');
    KvRsGetNodeName(n.GetHandle(), n.GetId(), v.data());
    for (size_t i = static_cast<size_t>(cch) + 1; i < v.size(); ++i)
        if (v[i] != '\xEE')
            return "<written past the name>";
    return std::string(v.data(), static_cast<size_t>(cch));
}

std::vector<std::string> ChildNames(const KvRsNodeProxy& parent)
{
    std::vector<std::string> v;
    for (KvRsNodeProxy c = parent.GetChild(); !c.IsNull(); c = parent.GetChild(c))
        v.push_back(NameOf(c));
    return v;
}

bool Same(const KvRsProxy& a, const KvRsProxy& b)
{
    return a.GetHandle() == b.GetHandle();
}

TEST(KvBadName, PathsOf8192BytesAndMoreAreRefusedShorterOnesWork)
{
    KvRsNodeProxy root = KvRobustRoot();
    KvRsNodeProxy base = KvRsCreateNode("long", nullptr, 0);

    // 8191 bytes is the longest path the buffers take: one name of that length...
    const std::string strName(8191, 'n');
    KvRsNodeProxy n = KvRsCreateNode(strName.c_str(), base.GetHandle(), base.GetId());
    ASSERT_FALSE(n.IsNull());
    EXPECT_EQ(strName, NameOf(n));
    EXPECT_TRUE(Same(n, KvRsGetDescendantNode(base.GetHandle(), base.GetId(), strName.c_str())));
    EXPECT_TRUE(Same(n, KvRsGetChildNode(base.GetHandle(), base.GetId(), strName.c_str())));

    // ... and 4096 names of one byte: a chain 4096 nodes deep.
    std::string strDeep = "d";
    while (strDeep.size() < 8191)
        strDeep += ".d";
    ASSERT_EQ(8191u, strDeep.size());
    KvRsNodeProxy deep = KvRsCreateNode(strDeep.c_str(), base.GetHandle(), base.GetId());
    ASSERT_FALSE(deep.IsNull());
    EXPECT_TRUE(Same(deep, KvRsGetDescendantNode(base.GetHandle(), base.GetId(), strDeep.c_str())));
    KvRsNodeProxy first = KvRsGetChildNode(base.GetHandle(), base.GetId(), "d");
    EXPECT_TRUE(Same(base, KvRsGetNodeParent(first.GetHandle(), first.GetId())));
    EXPECT_TRUE(Same(deep, KvRsGetAncestorsDescendantNode(deep.GetHandle(), deep.GetId(), "")));

    const long cChildren = KvRsGetChildNodeCount(base.GetHandle(), base.GetId());
    for (size_t cb : {size_t{8192}, size_t{8193}, size_t{65536}, size_t{1} << 20}) {
        SCOPED_TRACE(cb);
        // The first 8191 bytes name the node made above: a copy that ignored the
        // limit would find or extend it instead of refusing.
        const std::string strLong(cb, 'n');
        std::string strDots = strDeep + std::string(cb - strDeep.size(), '.');
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
    EXPECT_EQ("ok", KvRobustCheckTree(root));
    EXPECT_TRUE(KvRobustCheckerPasses());

    // Still usable: a short path below the deep chain.
    KvRsNodeProxy tip = KvRsCreateNode("tip", deep.GetHandle(), deep.GetId());
    EXPECT_TRUE(Same(deep, KvRsGetNodeParent(tip.GetHandle(), tip.GetId())));
}

TEST(KvBadName, EveryByteValueRoundTripsAndSortsAsUnsignedBytes)
{
    KvRsNodeProxy root = KvRobustRoot();
    KvRsNodeProxy parent = KvRsCreateNode("bytes", nullptr, 0);
    std::vector<std::string> vExpected;
    for (int b = 1; b <= 255; ++b) {
        const std::string strName(1, static_cast<char>(b));
        KvRsNodeProxy c = KvRsAddChildNode(parent.GetHandle(), parent.GetId(), strName.c_str());
        ASSERT_FALSE(c.IsNull()) << b;
        EXPECT_EQ(strName, NameOf(c)) << b;
        vExpected.push_back(strName);
    }
    // 255 children: the index has split several times.
    EXPECT_EQ(255, KvRsGetChildNodeCount(parent.GetHandle(), parent.GetId()));
    EXPECT_EQ(vExpected, ChildNames(parent)) << "children in unsigned byte order, 0x80..0xFF last";
    for (int b = 1; b <= 255; ++b) {
        const std::string strName(1, static_cast<char>(b));
        KvRsNodeProxy byName = KvRsGetChildNode(parent.GetHandle(), parent.GetId(), strName.c_str());
        EXPECT_EQ(strName, NameOf(byName)) << b;
        if (b != '.') {
            EXPECT_TRUE(Same(byName, KvRsGetNode(("bytes." + strName).c_str()))) << b;
        }
    }

    // One name holding every byte value: whole through the child functions; a
    // path splits it at its ".".
    std::string strAll;
    for (int b = 1; b <= 255; ++b)
        strAll += static_cast<char>(b);
    KvRsNodeProxy all = KvRsAddChildNode(parent.GetHandle(), parent.GetId(), strAll.c_str());
    EXPECT_EQ(strAll, NameOf(all));
    EXPECT_TRUE(Same(all, KvRsGetChildNode(parent.GetHandle(), parent.GetId(), strAll.c_str())));
    std::string strNoDot = strAll;
    strNoDot.erase(std::remove(strNoDot.begin(), strNoDot.end(), '.'), strNoDot.end());
    KvRsNodeProxy viaPath = KvRsCreateNode(strNoDot.c_str(), parent.GetHandle(), parent.GetId());
    EXPECT_EQ(strNoDot, NameOf(viaPath));
    EXPECT_TRUE(Same(viaPath, KvRsGetNode(("bytes." + strNoDot).c_str())));
    KvRsNodeProxy split = KvRsCreateNode(strAll.c_str(), parent.GetHandle(), parent.GetId());
    EXPECT_EQ(strAll.substr(strAll.find('.') + 1), NameOf(split));
    EXPECT_EQ(strAll.substr(0, strAll.find('.')), NameOf(KvRsGetNodeParent(split.GetHandle(), split.GetId())));
    EXPECT_EQ(258, KvRsGetChildNodeCount(parent.GetHandle(), parent.GetId()));

    KvRsRemoveChildNode(parent.GetHandle(), parent.GetId(), strAll.c_str());
    KvRsRemoveChildNode(parent.GetHandle(), parent.GetId(), "\xFF");
    EXPECT_TRUE(KvRsGetChildNode(parent.GetHandle(), parent.GetId(), strAll.c_str()).IsNull());
    EXPECT_EQ(256, KvRsGetChildNodeCount(parent.GetHandle(), parent.GetId()));
    EXPECT_EQ("ok", KvRobustCheckTree(root));
    EXPECT_TRUE(KvRobustCheckerPasses());
}

TEST(KvBadName, EmptyNamesAreOrdinaryNamesThatSortFirst)
{
    KvRsNodeProxy root = KvRobustRoot();
    KvRsNodeProxy parent = KvRsCreateNode("empty", nullptr, 0);
    KvRsNodeProxy b = KvRsAddChildNode(parent.GetHandle(), parent.GetId(), "b");
    KvRsNodeProxy e = KvRsAddChildNode(parent.GetHandle(), parent.GetId(), "");
    ASSERT_FALSE(e.IsNull());
    EXPECT_EQ(0, KvRsGetNodeNameLength(e.GetHandle(), e.GetId()));
    EXPECT_EQ("", NameOf(e));
    EXPECT_TRUE(Same(e, KvRsAddChildNode(parent.GetHandle(), parent.GetId(), ""))) << "get-or-create finds it";
    EXPECT_TRUE(Same(e, parent.GetChild())) << "the empty name sorts first";
    EXPECT_TRUE(Same(e, KvRsGetNode("empty..")));
    // A leading or doubled separator looks up the empty name.
    EXPECT_TRUE(Same(e, KvRsGetDescendantNode(parent.GetHandle(), parent.GetId(), ".")));
    KvRsNodeProxy under = KvRsCreateNode("x", e.GetHandle(), e.GetId());
    EXPECT_TRUE(Same(under, KvRsGetNode("empty..x")));
    EXPECT_TRUE(Same(under, KvRsGetDescendantNode(parent.GetHandle(), parent.GetId(), ".x")));

    // Doubled separators in the part being created make empty names.
    KvRsNodeProxy made = KvRsCreateNode("p..q", parent.GetHandle(), parent.GetId());
    KvRsNodeProxy p = KvRsGetChildNode(parent.GetHandle(), parent.GetId(), "p");
    KvRsNodeProxy pe = KvRsGetChildNode(p.GetHandle(), p.GetId(), "");
    ASSERT_FALSE(pe.IsNull());
    EXPECT_TRUE(Same(made, KvRsGetChildNode(pe.GetHandle(), pe.GetId(), "q")));
    // A trailing separator is ignored, a path of separators only is a lookup of "".
    EXPECT_TRUE(Same(b, KvRsCreateNode("b.", parent.GetHandle(), parent.GetId())));
    EXPECT_EQ(3, KvRsGetChildNodeCount(parent.GetHandle(), parent.GetId()));

    KvRsRemoveChildNode(parent.GetHandle(), parent.GetId(), "");
    EXPECT_TRUE(KvRsGetChildNode(parent.GetHandle(), parent.GetId(), "").IsNull());
    EXPECT_TRUE(Same(b, parent.GetChild()));
    EXPECT_EQ("ok", KvRobustCheckTree(root));
}

}  // namespace
