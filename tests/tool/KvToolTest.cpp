// KvToolTest.cpp - kvrs driven as a user drives it: real processes in a
// namespace of the test's own, checked by exit status and output.
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "KvToolFixture.h"

namespace {

TEST_F(KvToolTest, BadInputGivesOneLineAndItsStatus)
{
    const std::string strBig = KvTestTempFile();
    {
        std::ofstream out(strBig, std::ios::binary);
        out.seekp(16 * 1024 * 1024);  // 16 MiB + 1 byte: more than the largest block
        out.put('x');
    }
    const struct {
        std::vector<std::string> vstrArgs;
        int iStatus;
        const char* pszErrText;  // part of the one-line message
        std::string strIn;
    } acases[] = {
        {{}, 2, "missing command", ""},
        {{"listen", "a", "--count", "-1"}, 2, "bad --count '-1'", ""},
        {{"listen", "a", "--timeout", "soon"}, 2, "bad --timeout 'soon'", ""},
        {{"listen", "a.b*", "--count", "1"}, 2, "bad pattern", ""},
        {{"listen", "a", "-F", "%Q"}, 2, "unknown code '%Q'", ""},
        {{"set", "a", "x", "--unknown"}, 2, "unknown option --unknown", ""},
        {{"set", "a"}, 2, "VALUE or --file", ""},
        {{"-n", "bad/name", "tree"}, 2, "bad namespace", ""},
        {{"set", "a", "-", "--hex"}, 2, "odd number", "abc\n"},
        {{"frobnicate"}, 2, "frobnicate", ""},
        {{"get"}, 2, "PATH", ""},
        {{"set", "a..b", "x"}, 2, "bad path 'a..b'", ""},
        {{"set", ".a", "x"}, 2, "empty name", ""},
        {{"set", std::string(8192, 'a'), "x"}, 2, "bad path", ""},
        {{"set", "", "x"}, 2, "root", ""},
        {{"set", "a", "x", "--type", "abc"}, 2, "bad number 'abc' for --type", ""},
        {{"set", "a", "x", "--type", "0x100000000"}, 2, "32 bits", ""},
        {{"set", "a", "zz", "--hex"}, 2, "not a hex digit", ""},
        {{"set", "big", "--file", strBig}, 2, "too large for the segment", ""},
        {{"set", "big", "--file", "/no/such/file"}, 1, "cannot open", ""},
        {{"notify", "a", "seven"}, 2, "bad number 'seven' for NUMBER", ""},
        {{"notify", "", "1", "--server", "--recursive"}, 2, "--recursive", ""},
        {{"listen"}, 2, "--structural", ""},
        {{"tree", "--depth", "-1"}, 2, "depth", ""},
        {{"type", "a", "3"}, 2, "combines ref", ""},
        {{"get", "a", "--hex", "--raw"}, 2, "excludes", ""},
        {{"get", "no.such.node"}, 1, "no node 'no.such.node'", ""},
        {{"rm", "nothing"}, 1, "no node", ""},
        {{"ref", "a", "missing"}, 1, "no node 'missing'", ""},
        {{"listen", "missing", "--count", "1"}, 1, "no node", ""},
    };
    for (const auto& c : acases) {
        std::string strIn;
        if (!c.strIn.empty()) {
            strIn = KvTestTempFile();
            std::ofstream(strIn) << c.strIn;
        }
        const KvToolResult r = KvTool(c.vstrArgs, strIn);
        SCOPED_TRACE(c.vstrArgs.empty() ? "(none)" : c.vstrArgs[0] + " " + c.vstrArgs.back().substr(0, 20));
        KV_EXPECT_FAILS(r, c.iStatus, c.pszErrText);
        EXPECT_LT(r.strErr.size(), 200u) << "one short line";
        EXPECT_EQ(std::string::npos, r.strErr.find("--help --help")) << r.strErr;
        if (!strIn.empty())
            unlink(strIn.c_str());
    }
    unlink(strBig.c_str());
}

TEST_F(KvToolTest, ServedTreeKeepsValuesTypesAndReferencesBetweenCommands)
{
    Serve();
    EXPECT_EQ(0, KvTool({"set", "plant.line1.temp", "21.5", "--type", "7"}).iStatus);
    EXPECT_EQ(0, KvTool({"set", "plant.raw", "00 01 ff", "--hex"}).iStatus);
    EXPECT_EQ("21.5\n", KvTool({"get", "plant.line1.temp", "--text"}).strOut);
    EXPECT_EQ("32312e35\n", KvTool({"get", "plant.line1.temp", "--hex"}).strOut);
    EXPECT_EQ("type 0, 3 bytes 0001ff\n", KvTool({"get", "plant.raw"}).strOut);  // not printable: hex
    EXPECT_EQ(std::string("\x00\x01\xff", 3), KvTool({"get", "plant.raw", "--raw"}).strOut);
    EXPECT_EQ("{\"path\":\"plant.line1.temp\",\"type\":1,\"value\":{\"type\":7,\"bytes\":4,\"text\":\"21.5\"}}\n",
              KvTool({"get", "plant.line1.temp", "--json"}).strOut);
    // A const node keeps its first value and says so.
    EXPECT_EQ(0, KvTool({"set", "plant.info", "first"}).iStatus);
    EXPECT_EQ(0, KvTool({"type", "plant.info", "--const"}).iStatus);
    const KvToolResult rConst = KvTool({"set", "plant.info", "second"});
    EXPECT_EQ(1, rConst.iStatus);
    EXPECT_NE(std::string::npos, rConst.strErr.find("refused")) << rConst.strErr;
    EXPECT_EQ("first\n", KvTool({"get", "plant.info", "--text"}).strOut);
    // References: reads go through; a node with a value cannot become one; no cycles.
    EXPECT_EQ(0, KvTool({"ref", "plant.alias", "plant.line1"}).iStatus);
    EXPECT_EQ("21.5\n", KvTool({"get", "plant.alias.temp", "--text"}).strOut);
    EXPECT_EQ(1, KvTool({"ref", "plant.raw", "plant.line1"}).iStatus);
    KV_EXPECT_FAILS(KvTool({"ref", "plant.line1.loop", "plant"}), 1, "cycle");  // a refusal like the others
    EXPECT_EQ(0, KvTool({"rm", "plant.raw"}).iStatus);
    EXPECT_EQ(1, KvTool({"get", "plant.raw"}).iStatus);
}

TEST_F(KvToolTest, TreeAndStatsShowTheSegment)
{
    Serve();
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
    EXPECT_NE(std::string::npos, KvTool({"tree", "p.b", "--json"}).strOut.find("\"path\":\"p.b.leaf\""));
    const KvToolResult rStats = KvTool({"stats"});
    EXPECT_EQ(0, rStats.iStatus) << rStats.strErr;
    EXPECT_NE(std::string::npos, rStats.strOut.find("attachments  2")) << rStats.strOut;  // serve and stats
    EXPECT_NE(std::string::npos, rStats.strOut.find("  block size       in use         free\n")) << rStats.strOut;
    EXPECT_EQ(1, KvCountOf(rStats.strOut, "block size")) << "the pools are listed once: " << rStats.strOut;
    EXPECT_NE(std::string::npos, KvTool({"stats", "--json"}).strOut.find("\"pools\":[{\"block\":"));
    const KvToolResult rCheck = KvTool({"check"});
    EXPECT_EQ(0, rCheck.iStatus) << rCheck.strOut;
    EXPECT_NE(std::string::npos, rCheck.strOut.find("consistent\n")) << rCheck.strOut;
}

TEST_F(KvToolTest, ListenPrintsNotificationsUntilItsCountThenDisconnects)
{
    Serve();
    KvTool({"set", "n.x", "1"});
    KvToolProcess listen(KVRS_EXE, {"listen", "n.x", "--json", "--count", "4"});
    ASSERT_TRUE(listen.WaitForText("listening to n.x", true));
    EXPECT_NE(std::string::npos, KvTool({"tree", "n"}).strOut.find("clients 1"));
    EXPECT_EQ(0, KvTool({"notify", "n.x", "5", "--value", "hi"}).iStatus);
    EXPECT_EQ(0, KvTool({"set", "n.x", "2", "--notify", "0x10009"}).iStatus);  // front bit is not part of the number
    EXPECT_EQ(0, KvTool({"notify", "n", "6", "--recursive"}).iStatus);         // reaches n.x's clients
    const KvToolResult r = listen.Finish();
    EXPECT_EQ(0, r.iStatus) << r.strErr;
    ASSERT_EQ(4u, KvToolLineCount(r.strOut)) << r.strOut;
    EXPECT_NE(std::string::npos, r.strOut.find("\"event\":\"current\",\"path\":\"n.x\"")) << r.strOut;
    EXPECT_NE(std::string::npos, r.strOut.find("\"number\":5,\"path\":\"n.x\",\"target\":{\"handle\":1,\"id\":1},"
                                               "\"value\":{\"type\":0,\"bytes\":2,\"text\":\"hi\"}"))
        << r.strOut;
    EXPECT_NE(std::string::npos, r.strOut.find("\"number\":9,")) << r.strOut;
    EXPECT_NE(std::string::npos, r.strOut.find("\"number\":6,\"path\":\"n.x\"")) << r.strOut;
    EXPECT_EQ(std::string::npos, KvTool({"tree", "n"}).strOut.find("clients"));

    // A structural listener hears only the structural numbers, until a signal.
    KvToolProcess structural(KVRS_EXE, {"listen", "--structural"});
    ASSERT_TRUE(structural.WaitForText("all structural changes", true));
    KvTool({"notify", "n.x", "1"});  // a value change: not structural
    KvTool({"notify", "n.x", "4"});
    ASSERT_TRUE(structural.WaitForText("#0x0004"));
    structural.Signal(SIGTERM);
    const KvToolResult rStruct = structural.Finish();
    EXPECT_EQ(0, rStruct.iStatus);
    EXPECT_EQ(1u, KvToolLineCount(rStruct.strOut)) << rStruct.strOut;
    EXPECT_NE(std::string::npos, rStruct.strOut.find("(root)  target 1/1  (no value)")) << rStruct.strOut;
    EXPECT_EQ(std::string::npos, KvTool({"tree"}).strOut.find("clients")) << "no connection left behind";
}

TEST_F(KvToolTest, ExamplesTalkToEachOtherAndTheDemoLosesNothing)
{
    KvToolProcess subscriber(KVRS_EXAMPLE_SUBSCRIBER, {"ex.counter", "5"});
    ASSERT_TRUE(subscriber.WaitForText("subscribed to ex.counter"));
    const KvToolResult rPub = KvToolProcess(KVRS_EXAMPLE_PUBLISHER, {"ex.counter", "5"}).Finish();
    const KvToolResult rSub = subscriber.Finish();
    EXPECT_EQ(0, rPub.iStatus) << rPub.strErr;
    EXPECT_NE(std::string::npos, rPub.strOut.find("to 1 client(s)")) << rPub.strOut;
    EXPECT_EQ(0, rSub.iStatus) << rSub.strErr;
    EXPECT_NE(std::string::npos, rSub.strOut.find("message 1 for target 42: value 1\n")) << rSub.strOut;
    EXPECT_NE(std::string::npos, rSub.strOut.find("message 1 for target 42: value 5\n")) << rSub.strOut;

    // A stopped subscriber ends cleanly: its wait ends and its connection goes.
    KvToolProcess stopped(KVRS_EXAMPLE_SUBSCRIBER, {"ex.counter", "100"});
    ASSERT_TRUE(stopped.WaitForText("subscribed to ex.counter"));
    EXPECT_NE(std::string::npos, KvTool({"tree", "ex"}).strOut.find("clients 1"));
    stopped.Signal(SIGTERM);
    EXPECT_EQ(0, stopped.Finish(5).iStatus) << "SIGTERM ends the wait and main returns";

    const KvToolResult r = KvTool({"demo", "--seconds", "0.5"});
    EXPECT_EQ(0, r.iStatus) << r.strOut << r.strErr;
    EXPECT_NE(std::string::npos, r.strOut.find("received: none lost")) << r.strOut;
    EXPECT_NE(std::string::npos, r.strOut.find("is left")) << r.strOut;
}

}  // namespace
