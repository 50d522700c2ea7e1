// Node functions through the public API: path creation, get-or-create, upward
// search, the child iterator and the tree walk.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KvApiTestUtil.h"
#include "KvRfrSvr.h"

namespace {
std::string KvName(const KvRsProxy& node)
{
    std::string str(static_cast<size_t>(KvRsGetNodeNameLength(node.GetHandle(), node.GetId())) + 1, '\0');
    KvRsGetNodeName(node.GetHandle(), node.GetId(), &str[0]);
    str.resize(str.size() - 1);
    return str;
}

KvRsNodeProxy KvRoot()
{
    return KvRsCreateNode("", nullptr, 0);
}

bool KvSameNode(const KvRsProxy& a, const KvRsProxy& b)
{
    return a.GetHandle() == b.GetHandle() && a.GetId() == b.GetId();
}
}  // namespace

TEST(KvApiNode, CreateNodeMakesEachMissingSegmentOnceAndReturnsTheLast)
{
    KvRsNodeProxy c = KvRsCreateNode("ca.cb.cc", nullptr, 0);
    ASSERT_FALSE(c.IsNull());
    EXPECT_EQ("cc", KvName(c));
    KvRsNodeProxy b = KvRsGetNodeParent(c.GetHandle(), c.GetId());
    EXPECT_EQ("cb", KvName(b));
    KvRsNodeProxy a = KvRsGetNodeParent(b.GetHandle(), b.GetId());
    EXPECT_EQ("ca", KvName(a));
    EXPECT_TRUE(KvSameNode(KvRsGetNodeParent(a.GetHandle(), a.GetId()), KvRoot()));

    EXPECT_TRUE(KvSameNode(c, KvRsCreateNode("ca.cb.cc", nullptr, 0)));  // creates nothing the second time
    EXPECT_EQ(1, KvRsGetChildNodeCount(b.GetHandle(), b.GetId()));
    EXPECT_TRUE(KvSameNode(c, KvRsCreateNode("cb.cc.", a.GetHandle(), a.GetId())));  // relative, trailing "."
    EXPECT_TRUE(KvSameNode(a, KvRsCreateNode("", a.GetHandle(), a.GetId())));       // empty path: the start
    EXPECT_TRUE(KvSameNode(c, KvRsGetNode("ca.cb.cc")));

    // Two "." in a row inside the created part make a node with the empty name.
    KvRsNodeProxy d = KvRsCreateNode("x..y", c.GetHandle(), c.GetId());
    KvRsNodeProxy empty = KvRsGetNodeParent(d.GetHandle(), d.GetId());
    EXPECT_EQ("", KvName(empty));
    EXPECT_EQ("x", KvName(KvRsGetNodeParent(empty.GetHandle(), empty.GetId())));
    KvRsRemoveChildNode(KvRoot().GetHandle(), KvRoot().GetId(), "ca");
}

TEST(KvApiNode, CreateNodeRefusesPathsOf8192BytesAndAcceptsShorterOnes)
{
    const std::string strSeg(100, 's');
    std::string strOk;
    while (strOk.size() + strSeg.size() + 1 < 8192)
        strOk += (strOk.empty() ? "" : ".") + strSeg;
    strOk += "." + std::string(8191 - strOk.size() - 1, 't');
    ASSERT_EQ(8191u, strOk.size());
    KvRsNodeProxy deep = KvRsCreateNode(strOk.c_str(), nullptr, 0);
    EXPECT_FALSE(deep.IsNull());

    KvStderrCapture capture;
    KvRsNodeProxy refused = KvRsCreateNode((strOk + "u").c_str(), nullptr, 0);
    const std::string strErr = capture.Stop();
    EXPECT_TRUE(refused.IsNull());
    EXPECT_NE(std::string::npos, strErr.find("8192")) << strErr;
    KvRsNodeProxy first = KvRsGetNode(strSeg.c_str());
    EXPECT_EQ(1, KvRsGetChildNodeCount(first.GetHandle(), first.GetId()));  // nothing more was made
    KvRsRemoveChildNode(KvRoot().GetHandle(), KvRoot().GetId(), strSeg.c_str());
}

TEST(KvApiNode, AddChildNodeGetsOrCreatesAndTakesTheNameWhole)
{
    KvRsNodeProxy p = KvRsCreateNode("add", nullptr, 0);
    KvRsNodeProxy c1 = KvRsAddChildNode(p.GetHandle(), p.GetId(), "k");
    KvRsNodeProxy c2 = KvRsAddChildNode(p.GetHandle(), p.GetId(), "k");
    EXPECT_TRUE(KvSameNode(c1, c2));
    KvRsNodeProxy dotted = KvRsAddChildNode(p.GetHandle(), p.GetId(), "a.b");
    EXPECT_EQ("a.b", KvName(dotted));
    EXPECT_EQ(2, KvRsGetChildNodeCount(p.GetHandle(), p.GetId()));
    EXPECT_TRUE(KvSameNode(dotted, KvRsGetChildNode(p.GetHandle(), p.GetId(), "a.b")));
    EXPECT_TRUE(KvRsGetNode("add.a.b").IsNull());  // not reachable by a path
    EXPECT_TRUE(KvRsAddChildNode(nullptr, 0, "k").IsNull());
    KvRsRemoveChildNode(KvRoot().GetHandle(), KvRoot().GetId(), "add");
}

TEST(KvApiNode, AncestorsDescendantFindsTheNearestAncestorsSubtree)
{
    KvRsNodeProxy leaf = KvRsCreateNode("anc.b.c.d", nullptr, 0);
    KvRsNodeProxy target = KvRsCreateNode("anc.b.side.x", nullptr, 0);
    KvRsNodeProxy rootSide = KvRsCreateNode("side.x", nullptr, 0);
    EXPECT_TRUE(KvSameNode(target, KvRsGetAncestorsDescendantNode(leaf.GetHandle(), leaf.GetId(), "side.x")));
    EXPECT_TRUE(KvSameNode(leaf, KvRsGetAncestorsDescendantNode(leaf.GetHandle(), leaf.GetId(), "")));
    EXPECT_TRUE(KvRsGetAncestorsDescendantNode(leaf.GetHandle(), leaf.GetId(), "nowhere.at.all").IsNull());
    KvRsRemoveChildNode(KvRoot().GetHandle(), KvRoot().GetId(), "anc");
    KvRsRemoveChildNode(KvRoot().GetHandle(), KvRoot().GetId(), "side");
}

TEST(KvApiNode, ChildIteratorVisitsChildrenInSortedOrderThenEnds)
{
    KvRsNodeProxy p = KvRsCreateNode("iter", nullptr, 0);
    for (const char* psz : {"m", "B", "a", "z", "b"})
        KvRsAddChildNode(p.GetHandle(), p.GetId(), psz);
    std::vector<std::string> vNames;
    for (KvRsNodeProxy c = p.GetChild(); !c.IsNull(); c = p.GetChild(c))
        vNames.push_back(KvName(c));
    EXPECT_EQ((std::vector<std::string>{"B", "a", "b", "m", "z"}), vNames);
    EXPECT_TRUE(KvRsGetChildNode(nullptr, 0, nullptr, 0).IsNull());
    KvRsRemoveChildNode(KvRoot().GetHandle(), KvRoot().GetId(), "iter");
}

namespace {
struct KvWalk {
    std::vector<std::string> vVisited;
    int cStopAt = -1;
};
bool KvRecord(KvRsNodeProxy& node, void* pv)
{
    KvWalk* pWalk = static_cast<KvWalk*>(pv);
    pWalk->vVisited.push_back(node.IsNull() ? "<empty>" : KvName(node));
    return static_cast<int>(pWalk->vVisited.size()) != pWalk->cStopAt;
}
}  // namespace

TEST(KvApiNode, ForAllNodesWalksPreOrderAndStopsWhenTold)
{
    KvRsNodeProxy w = KvRsCreateNode("walk", nullptr, 0);
    KvRsCreateNode("a.x", w.GetHandle(), w.GetId());
    KvRsCreateNode("a.y", w.GetHandle(), w.GetId());
    KvRsCreateNode("b", w.GetHandle(), w.GetId());

    KvWalk all;
    EXPECT_TRUE(KvRsForAllNodes(&KvRecord, w, &all, false));
    EXPECT_EQ((std::vector<std::string>{"walk", "a", "x", "y", "b"}), all.vVisited);

    KvWalk stop;
    stop.cStopAt = 3;
    EXPECT_FALSE(KvRsForAllNodes(&KvRecord, w, &stop, false));
    EXPECT_EQ(3u, stop.vVisited.size());

    KvWalk skip;
    EXPECT_TRUE(KvRsForAllNodes(&KvRecord, w, &skip, true));
    EXPECT_EQ((std::vector<std::string>{"a", "x", "y", "b"}), skip.vVisited);
    KvRsRemoveChildNode(KvRoot().GetHandle(), KvRoot().GetId(), "walk");
}

TEST(KvApiNode, ForAllNodesWithoutStartReportsOnceAndVisitsTheEmptyProxy)
{
    KvWalk walk;
    KvStderrCapture capture;
    EXPECT_TRUE(KvRsForAllNodes(&KvRecord, &walk, false));
    const std::string strErr = capture.Stop();
    EXPECT_EQ((std::vector<std::string>{"<empty>"}), walk.vVisited);
    EXPECT_EQ(1, KvCountOf(strErr, "0xC0000005")) << strErr;

    KvWalk skipped;
    KvStderrCapture capture2;
    EXPECT_TRUE(KvRsForAllNodes(&KvRecord, &skipped, true));
    capture2.Stop();
    EXPECT_TRUE(skipped.vVisited.empty());
}

TEST(KvApiNode, TestedFunctionsIgnoreANullHandleQuietly)
{
    KvStderrCapture capture;
    char szName[4] = "abc";
    KvRsGetNodeName(nullptr, 0, szName);
    EXPECT_STREQ("abc", szName);
    EXPECT_EQ(0, KvRsGetNodeNameLength(nullptr, 0));
    EXPECT_EQ(0, KvRsGetChildNodeCount(nullptr, 0));
    EXPECT_EQ(0u, KvRsGetNodeType(nullptr, 0));
    KvRsSetNodeType(nullptr, 0, 5);
    KvRsRemoveChildNode(nullptr, 0, "x");
    EXPECT_TRUE(KvRsGetNodeParent(nullptr, 0).IsNull());
    EXPECT_TRUE(KvRsGetNodeValue(nullptr, 0).IsNull());
    EXPECT_TRUE(KvRsGetRefNode(nullptr, 0).IsNull());
    EXPECT_TRUE(KvRsGetChildNode(nullptr, 0, "x").IsNull());
    EXPECT_EQ("", capture.Stop());
}

TEST(KvApiNode, ValueAndReferenceOfANode)
{
    KvRsNodeProxy n = KvRsCreateNode("vr.n", nullptr, 0);
    KvRsNodeProxy r = KvRsCreateNode("vr.r", nullptr, 0);
    KvRsCreateNode("vr.n.kid", nullptr, 0);
    KvRsSetRefNode(r.GetHandle(), r.GetId(), n.GetHandle(), n.GetId());
    EXPECT_TRUE(KvSameNode(n, KvRsGetRefNode(r.GetHandle(), r.GetId())));
    EXPECT_FALSE(KvRsGetNode("vr.r.kid").IsNull());  // paths follow references

    KvRsValueProxy v = KvRsCreateValue();
    KvRsSetNodeValue(n.GetHandle(), n.GetId(), v.GetHandle(), v.GetId());
    EXPECT_TRUE(KvSameNode(v, KvRsGetNodeValue(n.GetHandle(), n.GetId())));
    EXPECT_EQ(0x5u, KvRsGetNodeType(n.GetHandle(), n.GetId()) & 0x7);
    KvRsRemoveChildNode(KvRoot().GetHandle(), KvRoot().GetId(), "vr");
}
