// KvToolTest.cpp - kvrs driven as a user drives it: real processes in a
// namespace of the test's own, checked by exit status and output.
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "KvToolProcess.h"
#include "common/KvTestSupport.h"

namespace {

class KvToolTest : public ::testing::Test {
protected:
    void SetUp() override { KvTestUseFreshNamespace(); }
    // Every process has ended by now: nothing of the namespace may remain.
    void TearDown() override { EXPECT_TRUE(KvTestNamespaceObjects().empty()); }
};

struct UsageCase {
    std::vector<std::string> vstrArgs;
    int iStatus;
    const char* pszErrText;  // part of the one-line message
};

TEST_F(KvToolTest, BadInputGivesOneLineAndItsStatus)
{
    const std::string strLongPath(8192, 'a');
    const std::vector<UsageCase> vCases = {
        {{}, 2, "subcommand"},
        {{"frobnicate"}, 2, "frobnicate"},
        {{"get"}, 2, "PATH"},
        {{"set", "a..b", "x"}, 2, "bad path 'a..b'"},
        {{"set", ".a", "x"}, 2, "empty name"},
        {{"set", strLongPath, "x"}, 2, "bad path"},
        {{"set", "", "x"}, 2, "root"},
        {{"set", "a", "x", "--type", "abc"}, 2, "bad number 'abc' for --type"},
        {{"set", "a", "x", "--type", "0x100000000"}, 2, "32 bits"},
        {{"set", "a", "x", "--type", "-1"}, 2, "bad number"},
        {{"set", "a", "zz", "--hex"}, 2, "not a hex digit"},
        {{"set", "a", "abc", "--hex"}, 2, "odd number"},
        {{"notify", "a", "seven"}, 2, "bad number 'seven' for NUMBER"},
        {{"notify", "", "1", "--server", "--recursive"}, 2, "--recursive"},
        {{"listen"}, 2, "--structural"},
        {{"listen", "--count", "x", "a"}, 2, "count"},
        {{"tree", "--depth", "-1"}, 2, "depth"},
        {{"type", "a", "3"}, 2, "combines ref"},
        {{"get", "a", "--hex", "--raw"}, 2, "excludes"},
        {{"get", "no.such.node"}, 1, "no node 'no.such.node'"},
        {{"rm", "nothing"}, 1, "no node"},
        {{"ref", "a", "missing"}, 1, "no node 'missing'"},
        {{"notify", "missing", "1"}, 1, "no node"},
        {{"listen", "missing", "--count", "1"}, 1, "no node"},
        {{"tree", "missing"}, 1, "no node"},
        {{"type", "missing"}, 1, "no node"},
    };
    for (const UsageCase& c : vCases) {
        const KvToolResult r = KvTool(c.vstrArgs);
        const std::string strCase = c.vstrArgs.empty() ? "(none)" : c.vstrArgs[0] + " ...";
        EXPECT_EQ(c.iStatus, r.iStatus) << strCase << ": " << r.strErr;
        EXPECT_EQ(1u, KvToolLineCount(r.strErr)) << strCase << ": " << r.strErr;
        EXPECT_EQ(0u, r.strErr.rfind("kvrs: ", 0)) << strCase << ": " << r.strErr;
        EXPECT_NE(std::string::npos, r.strErr.find(c.pszErrText)) << strCase << ": " << r.strErr;
    }
}

TEST_F(KvToolTest, ValueTooLargeForTheSegmentIsAUsageError)
{
    const std::string strFile = "/tmp/kvtool.big." + std::to_string(getpid());
    {
        std::ofstream out(strFile, std::ios::binary);
        out.seekp(16 * 1024 * 1024);  // 16 MiB + 1 byte: more than the largest block
        out.put('x');
    }
    const KvToolResult r = KvTool({"set", "big", "-"}, strFile);
    unlink(strFile.c_str());
    EXPECT_EQ(2, r.iStatus);
    EXPECT_NE(std::string::npos, r.strErr.find("too large for the segment")) << r.strErr;
    EXPECT_EQ(1u, KvToolLineCount(r.strErr));
}

TEST_F(KvToolTest, EverySubcommandHasHelp)
{
    for (const char* psz : {"tree", "get", "set", "rm", "ref", "type", "notify", "listen", "serve", "stats", "demo"}) {
        const KvToolResult r = KvTool({psz, "--help"});
        EXPECT_EQ(0, r.iStatus) << psz;
        EXPECT_NE(std::string::npos, r.strOut.find("Usage")) << psz;
    }
}

TEST_F(KvToolTest, ServedTreeKeepsValuesBetweenCommands)
{
    KvToolProcess serve;
    ASSERT_TRUE(KvToolServe(serve));
    EXPECT_EQ(0, KvTool({"set", "plant.line1.temp", "21.5", "--type", "7"}).iStatus);
    EXPECT_EQ(0, KvTool({"set", "plant.raw", "00 01 ff", "--hex"}).iStatus);
    EXPECT_EQ("21.5\n", KvTool({"get", "plant.line1.temp"}).strOut);
    EXPECT_EQ("32312e35\n", KvTool({"get", "plant.line1.temp", "--hex"}).strOut);
    EXPECT_EQ("0001ff\n", KvTool({"get", "plant.raw"}).strOut);  // not printable: hex
    EXPECT_EQ(std::string("\x00\x01\xff", 3), KvTool({"get", "plant.raw", "--raw"}).strOut);
    EXPECT_EQ("{\"path\":\"plant.line1.temp\",\"type\":1,\"value\":{\"type\":7,\"bytes\":4,\"text\":\"21.5\"}}\n",
              KvTool({"get", "plant.line1.temp", "--json"}).strOut);
    EXPECT_EQ("0x4 parent\n", KvTool({"type", "plant"}).strOut);

    // A const node keeps its first value and says so.
    EXPECT_EQ(0, KvTool({"set", "plant.info", "first"}).iStatus);
    EXPECT_EQ(0, KvTool({"type", "plant.info", "0x10001"}).iStatus);
    const KvToolResult rConst = KvTool({"set", "plant.info", "second"});
    EXPECT_EQ(1, rConst.iStatus);
    EXPECT_NE(std::string::npos, rConst.strErr.find("refused")) << rConst.strErr;
    EXPECT_EQ("first\n", KvTool({"get", "plant.info"}).strOut);

    // References: reads go through; a node with a value cannot become one; no cycles.
    EXPECT_EQ(0, KvTool({"ref", "plant.alias", "plant.line1"}).iStatus);
    EXPECT_EQ("21.5\n", KvTool({"get", "plant.alias.temp"}).strOut);
    EXPECT_EQ(1, KvTool({"ref", "plant.raw", "plant.line1"}).iStatus);
    EXPECT_EQ(2, KvTool({"ref", "plant.line1.loop", "plant"}).iStatus);

    EXPECT_EQ(0, KvTool({"rm", "plant.raw"}).iStatus);
    EXPECT_EQ(1, KvTool({"get", "plant.raw"}).iStatus);
    serve.Signal(SIGTERM);
    EXPECT_EQ(0, serve.Finish().iStatus);
}

TEST_F(KvToolTest, TreeShowsTypesValuesReferencesAndDepth)
{
    KvToolProcess serve;
    ASSERT_TRUE(KvToolServe(serve));
    KvTool({"set", "p.b.leaf", "hello"});
    KvTool({"set", "p.a", "0a0b", "--hex", "--type", "3"});
    KvTool({"ref", "p.r", "p.b"});
    const KvToolResult r = KvTool({"tree", "p"});
    EXPECT_EQ(0, r.iStatus);
    EXPECT_EQ("p  [0x4 parent]\n"
              "  a  [0x1 value]  type 3, 2 bytes 0a0b\n"
              "  b  [0x4 parent]\n"
              "    leaf  [0x1 value]  type 0, 5 bytes \"hello\"\n"
              "  r  [0x2 ref]  -> p.b\n",
              r.strOut);
    EXPECT_EQ(2u, KvToolLineCount(KvTool({"tree", "--depth", "1"}).strOut));  // root and p
    const std::string strJson = KvTool({"tree", "p.b", "--json"}).strOut;
    EXPECT_NE(std::string::npos, strJson.find("\"path\":\"p.b.leaf\"")) << strJson;
    EXPECT_NE(std::string::npos, strJson.find("\"text\":\"hello\"")) << strJson;
    serve.Signal(SIGINT);
    EXPECT_EQ(0, serve.Finish().iStatus);
}

TEST_F(KvToolTest, ListenPrintsNotificationsUntilItsCount)
{
    KvToolProcess serve;
    ASSERT_TRUE(KvToolServe(serve));
    KvTool({"set", "n.x", "1"});
    KvToolProcess listen;
    ASSERT_TRUE(listen.Start(KVRS_EXE, {"listen", "n.x", "--json", "--count", "3"}));
    ASSERT_TRUE(listen.WaitForText("listening to n.x", true));
    EXPECT_NE(std::string::npos, KvTool({"tree", "n"}).strOut.find("clients 1"));
    EXPECT_EQ(0, KvTool({"notify", "n.x", "5", "--value", "hi"}).iStatus);
    EXPECT_EQ(0, KvTool({"set", "n.x", "2", "--notify", "0x10009"}).iStatus);  // front bit is not part of the number
    EXPECT_EQ(0, KvTool({"notify", "n", "6", "--recursive"}).iStatus);  // reaches n.x's clients
    const KvToolResult r = listen.Finish();
    EXPECT_EQ(0, r.iStatus) << r.strErr;
    ASSERT_EQ(3u, KvToolLineCount(r.strOut)) << r.strOut;
    EXPECT_NE(std::string::npos, r.strOut.find("\"number\":5,\"path\":\"n.x\",\"target\":{\"handle\":1,\"id\":1},"
                                               "\"value\":{\"type\":0,\"bytes\":2,\"text\":\"hi\"}"))
        << r.strOut;
    EXPECT_NE(std::string::npos, r.strOut.find("\"number\":9,")) << r.strOut;
    EXPECT_NE(std::string::npos, r.strOut.find("\"number\":6,\"path\":\"n.x\"")) << r.strOut;
    // It disconnected on its way out.
    EXPECT_EQ(std::string::npos, KvTool({"tree", "n"}).strOut.find("clients"));
    serve.Signal(SIGTERM);
    serve.Finish();
}

TEST_F(KvToolTest, StructuralListenerHearsOnlyStructuralNumbersAndStopsOnSignal)
{
    KvToolProcess serve;
    ASSERT_TRUE(KvToolServe(serve));
    KvTool({"set", "s.y", "1"});
    KvToolProcess listen;
    ASSERT_TRUE(listen.Start(KVRS_EXE, {"listen", "--structural"}));
    ASSERT_TRUE(listen.WaitForText("all structural changes", true));
    KvTool({"notify", "s.y", "1"});  // a value change: not structural
    KvTool({"notify", "s.y", "4"});
    ASSERT_TRUE(listen.WaitForText("#0x0004", false));
    listen.Signal(SIGTERM);
    const KvToolResult r = listen.Finish();
    EXPECT_EQ(0, r.iStatus);
    EXPECT_EQ(1u, KvToolLineCount(r.strOut)) << r.strOut;
    EXPECT_NE(std::string::npos, r.strOut.find("(root)  target 1/1  (no value)")) << r.strOut;
    EXPECT_EQ("(root)  [0x4 parent]\n  s  [0x4 parent]\n    y  [0x1 value]  type 0, 1 bytes \"1\"\n",
              KvTool({"tree"}).strOut);  // no connection left behind
    serve.Signal(SIGTERM);
    serve.Finish();
}

TEST_F(KvToolTest, StatsReportsTheSegment)
{
    KvToolProcess serve;
    ASSERT_TRUE(KvToolServe(serve));
    KvTool({"set", "a.b", "x"});
    const KvToolResult r = KvTool({"stats"});
    EXPECT_EQ(0, r.iStatus) << r.strErr;
    EXPECT_NE(std::string::npos, r.strOut.find("attachments  2")) << r.strOut;  // serve and stats
    EXPECT_NE(std::string::npos, r.strOut.find("Total memory : ")) << r.strOut;
    const KvToolResult rJson = KvTool({"stats", "--json"});
    EXPECT_NE(std::string::npos, rJson.strOut.find("\"size\":67108864")) << rJson.strOut;
    EXPECT_NE(std::string::npos, rJson.strOut.find("\"pools\":[{\"block\":")) << rJson.strOut;
    serve.Signal(SIGTERM);
    serve.Finish();
}

TEST_F(KvToolTest, ExamplesTalkToEachOther)
{
    KvToolProcess subscriber;
    ASSERT_TRUE(subscriber.Start(KVRS_EXAMPLE_SUBSCRIBER, {"ex.counter", "5"}));
    ASSERT_TRUE(subscriber.WaitForText("subscribed to ex.counter", false));
    KvToolProcess publisher;
    ASSERT_TRUE(publisher.Start(KVRS_EXAMPLE_PUBLISHER, {"ex.counter", "5"}));
    const KvToolResult rPub = publisher.Finish();
    const KvToolResult rSub = subscriber.Finish();
    EXPECT_EQ(0, rPub.iStatus) << rPub.strErr;
    EXPECT_NE(std::string::npos, rPub.strOut.find("to 1 client(s)")) << rPub.strOut;
    EXPECT_EQ(0, rSub.iStatus) << rSub.strErr;
    EXPECT_NE(std::string::npos, rSub.strOut.find("message 1 for target 42: value 1\n")) << rSub.strOut;
    EXPECT_NE(std::string::npos, rSub.strOut.find("message 1 for target 42: value 5\n")) << rSub.strOut;
}

TEST_F(KvToolTest, DemoLosesNothingAndLeavesNothing)
{
    const KvToolResult r = KvTool({"demo", "--seconds", "0.5"});
    EXPECT_EQ(0, r.iStatus) << r.strOut << r.strErr;
    EXPECT_NE(std::string::npos, r.strOut.find("received: none lost")) << r.strOut;
    EXPECT_NE(std::string::npos, r.strOut.find("round trip")) << r.strOut;
    EXPECT_NE(std::string::npos, r.strOut.find("is left")) << r.strOut;
}

}  // namespace
