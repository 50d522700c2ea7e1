// Node functions through the public API: path creation, get-or-create, upward
// search and the tree walk.
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

KvRsNodeProxy KvParent(const KvRsProxy& n)
{
    return KvRsGetNodeParent(n.GetHandle(), n.GetId());
}

bool KvSame(const KvRsProxy& a, const KvRsProxy& b)
{
    return a.GetHandle() == b.GetHandle() && a.GetId() == b.GetId();
}

void KvRemoveTop(const char* pszName)
{
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    KvRsRemoveChildNode(root.GetHandle(), root.GetId(), pszName);
}
}  // namespace

TEST(KvApiNode, CreateAddAndSearchUpwards)
{
    KvRsNodeProxy c = KvRsCreateNode("ca.cb.cc", nullptr, 0);
    EXPECT_EQ("cc", KvName(c));
    KvRsNodeProxy b = KvParent(c), a = KvParent(b);
    EXPECT_EQ("cb", KvName(b));
    EXPECT_EQ("ca", KvName(a));
    EXPECT_TRUE(KvSame(KvParent(a), KvRsCreateNode("", nullptr, 0)));
    EXPECT_TRUE(KvSame(c, KvRsCreateNode("ca.cb.cc", nullptr, 0)));  // creates nothing the second time
    EXPECT_EQ(1, KvRsGetChildNodeCount(b.GetHandle(), b.GetId()));
    EXPECT_TRUE(KvSame(c, KvRsCreateNode("cb.cc.", a.GetHandle(), a.GetId())));  // relative, trailing "."
    EXPECT_TRUE(KvSame(a, KvRsCreateNode("", a.GetHandle(), a.GetId())));        // empty path: the start

    // AddChildNode gets or creates, and takes the name whole.
    KvRsNodeProxy dotted = KvRsAddChildNode(a.GetHandle(), a.GetId(), "x.y");
    EXPECT_EQ("x.y", KvName(dotted));
    EXPECT_TRUE(KvSame(dotted, KvRsAddChildNode(a.GetHandle(), a.GetId(), "x.y")));
    EXPECT_TRUE(KvSame(dotted, KvRsGetChildNode(a.GetHandle(), a.GetId(), "x.y")));
    EXPECT_TRUE(KvRsGetNode("ca.x.y").IsNull()) << "not reachable by a path";
    EXPECT_EQ(2, KvRsGetChildNodeCount(a.GetHandle(), a.GetId()));
    // The upward search takes the nearest ancestor's subtree that holds the path.
    KvRsNodeProxy side = KvRsCreateNode("ca.cb.side", nullptr, 0);
    KvRsCreateNode("cb.side", nullptr, 0);
    EXPECT_TRUE(KvSame(side, KvRsGetAncestorsDescendantNode(c.GetHandle(), c.GetId(), "side")));
    EXPECT_TRUE(KvSame(c, KvRsGetAncestorsDescendantNode(c.GetHandle(), c.GetId(), "")));
    EXPECT_TRUE(KvRsGetAncestorsDescendantNode(c.GetHandle(), c.GetId(), "nowhere.at.all").IsNull());
    KvRemoveTop("ca");
    KvRemoveTop("cb");
}

namespace {
struct KvWalk {
    std::vector<std::string> vVisited;
    int cStopAt = -1;
};
bool KvRecord(KvRsNodeProxy& node, void* pv)
{
    KvWalk* pWalk = static_cast<KvWalk*>(pv);
    pWalk->vVisited.push_back(KvName(node));
    return static_cast<int>(pWalk->vVisited.size()) != pWalk->cStopAt;
}
}  // namespace

TEST(KvApiNode, ForAllNodesWalksPreOrderAndStopsWhenTold)
{
    KvRsNodeProxy w = KvRsCreateNode("walk", nullptr, 0);
    for (const char* psz : {"b", "a.y", "a.x"})
        KvRsCreateNode(psz, w.GetHandle(), w.GetId());
    KvWalk all, stop, skip;
    EXPECT_TRUE(KvRsForAllNodes(&KvRecord, w, &all, false));
    EXPECT_EQ((std::vector<std::string>{"walk", "a", "x", "y", "b"}), all.vVisited);
    stop.cStopAt = 3;
    EXPECT_FALSE(KvRsForAllNodes(&KvRecord, w, &stop, false));
    EXPECT_EQ(3u, stop.vVisited.size());
    EXPECT_TRUE(KvRsForAllNodes(&KvRecord, w, &skip, true));
    EXPECT_EQ((std::vector<std::string>{"a", "x", "y", "b"}), skip.vVisited);
    KvRemoveTop("walk");
}
