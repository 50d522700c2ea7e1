// KvToolListenTest.cpp - listening as mosquitto_sub and ZooKeeper watches have
// taught operators to expect: present values first, patterns and subtrees
// that follow nodes created later, every change of set, rm, ref and type
// heard, timestamps and formats, and a time-out that says it timed out.
#include <string>
#include <vector>

#include "KvToolFixture.h"

namespace {

TEST_F(KvToolTest, ListenFollowsPatternsAndSubtreesIntoNodesCreatedLater)
{
    Serve();
    KvTool({"set", "plant.l1.temp", "20"});
    auto pTemps = Listen({"plant.*.temp", "-F", "%e %t %p"});
    auto pSubtree = Listen({"plant", "--subtree", "--no-current", "-F", "%e %t %p"});
    ASSERT_TRUE(pTemps->WaitForText("current plant.l1.temp 20\n"));
    KvTool({"set", "plant.l2.temp", "19"});  // created later: followed
    KvTool({"set", "plant.l2.flow", "3"});   // not a temp
    KvTool({"set", "plant.l1.temp", "21"});  // a plain set is heard
    KvTool({"set", "plant.l1.temp", "22", "--quiet"});
    KvTool({"set", "other.temp", "1"});  // outside both
    ASSERT_TRUE(pTemps->WaitForText("message plant.l1.temp 21\n"));
    ASSERT_TRUE(pSubtree->WaitForText("message plant.l1.temp 21\n"));
    KvTool({"rm", "-r", "plant.l2"});
    ASSERT_TRUE(pSubtree->WaitForText("removed plant.l2 \n"));
    pTemps->Signal(SIGTERM);
    pSubtree->Signal(SIGTERM);
    const KvToolResult rTemps = pTemps->Finish(), rSubtree = pSubtree->Finish();
    EXPECT_EQ(0, rTemps.iStatus);
    EXPECT_EQ("current plant.l1.temp 20\n"
              "created plant.l2.temp 19\n"
              "message plant.l1.temp 21\n"
              "removed plant.l2.temp \n",
              rTemps.strOut);
    EXPECT_EQ("created plant.l2 \n"
              "created plant.l2.temp 19\n"
              "created plant.l2.flow 3\n"
              "message plant.l1.temp 21\n"
              "removed plant.l2.temp \n"
              "removed plant.l2.flow \n"
              "removed plant.l2 \n",
              rSubtree.strOut);
    EXPECT_EQ(std::string::npos, KvTool({"tree"}).strOut.find("clients")) << "no connection left behind";
}

TEST_F(KvToolTest, EveryChangeIsAnnouncedToItsListeners)
{
    Serve();
    KvTool({"set", "p.c.d", "1"});
    KvTool({"set", "q", "x"});
    auto pLeaf = Listen({"p.c.d", "--no-current", "-F", "%e %m %t"});
    auto pStructural = Listen({"--structural", "-F", "%e %t"});
    KvTool({"set", "p.c.d", "2"});
    KvTool({"set", "p.c.d", "3", "--notify", "0x20"});
    KvTool({"type", "p.c.d", "0x101"});
    KvTool({"ref", "p.r", "q"});
    KvTool({"rm", "-r", "p.c"});  // the listener of the child hears it
    ASSERT_TRUE(pStructural->WaitForText("removed p.c\n"));
    ASSERT_TRUE(pLeaf->WaitForText("removed"));
    pLeaf->Signal(SIGTERM);
    pStructural->Signal(SIGTERM);
    EXPECT_EQ("message 1 p.c.d\n"
              "message 32 p.c.d\n"
              "changed 12 p.c.d\n"
              "removed 8 p.c.d\n",
              pLeaf->Finish().strOut);
    // Plain sets are not structural; creation, re-typing, referencing and removal are.
    EXPECT_EQ("changed p.c.d\n"
              "created p.r\n"
              "removed p.c.d\n"
              "removed p.c\n",
              pStructural->Finish().strOut);
}

TEST_F(KvToolTest, ListenPrintsDatedLinesAndExitsThreeOnATimeOut)
{
    Serve();
    KvTool({"set", "n.x", "1"});
    const KvToolResult rCurrent = KvTool({"listen", "n.x", "--count", "1", "--json"});
    EXPECT_EQ(0, rCurrent.iStatus) << "the present value is the first line";
    EXPECT_NE(std::string::npos, rCurrent.strOut.find("\"event\":\"current\",\"path\":\"n.x\"")) << rCurrent.strOut;
    EXPECT_NE(std::string::npos, rCurrent.strOut.find("\",\"epoch\":1")) << rCurrent.strOut;
    const KvToolResult rText = KvTool({"listen", "n.x", "--count", "1"});
    // 2026-11-23T22:10:00.123456+01:00  current  n.x ...
    ASSERT_GT(rText.strOut.size(), 34u) << rText.strOut;
    EXPECT_EQ('T', rText.strOut[10]) << rText.strOut;
    EXPECT_EQ(':', rText.strOut[29]) << rText.strOut;
    EXPECT_EQ("  current  n.x  target 1/1  type 0, 1 bytes \"1\"\n", rText.strOut.substr(32)) << rText.strOut;

    const KvToolResult rTimeout = KvTool({"listen", "n.x", "--no-current", "--count", "1", "--timeout", "0.3"});
    EXPECT_EQ(3, rTimeout.iStatus) << rTimeout.strErr;
    EXPECT_NE(std::string::npos, rTimeout.strErr.find("\nkvrs: timed out after 0.3 s with 0 of 1 messages\n"))
        << "after the banner: " << rTimeout.strErr;
    EXPECT_EQ(0, KvTool({"listen", "n.x", "--no-current", "--timeout", "0.1"}).iStatus) << "no count: no shortfall";
}

}  // namespace
