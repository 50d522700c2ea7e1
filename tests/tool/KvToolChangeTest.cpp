// KvToolChangeTest.cpp - the commands that change the tree, as an operator
// meets them: a change nobody keeps is refused, input is taken as meant,
// set keeps the value's type, the library's bits and const nodes are guarded,
// rm asks before taking a subtree, and get never prints two things alike.
#include <fstream>
#include <string>
#include <vector>

#include "KvToolFixture.h"

namespace {

TEST_F(KvToolTest, AChangeThatWouldVanishIsRefusedUnlessAllowed)
{
    // No server: the value would die with the command.
    const KvToolResult r = KvTool({"set", "a.b", "1"});
    KV_EXPECT_FAILS(r, 1, "kvrs serve");
    EXPECT_NE(std::string::npos, r.strErr.find("--allow-vanish")) << r.strErr;
    EXPECT_EQ(0, KvTool({"set", "a.b", "1", "--allow-vanish"}).iStatus);
    // A listener keeps the tree alive as well as a server does.
    auto pListen = Listen({"--structural"});
    EXPECT_EQ(0, KvTool({"set", "a.b", "1"}).iStatus);
    EXPECT_EQ(0, KvTool({"rm", "a.b"}).iStatus);
    pListen->Signal(SIGTERM);
    EXPECT_EQ(0, pListen->Finish().iStatus);
    KV_EXPECT_FAILS(KvTool({"rm", "a"}), 1, "no node");  // the tree died with the listener
}

TEST_F(KvToolTest, SetTakesInputAsMeantAndKeepsTheValueType)
{
    Serve();
    const std::string strIn = KvTestTempFile();
    std::ofstream(strIn) << "21.5\n";
    EXPECT_EQ(0, KvTool({"set", "t.e", "-"}, strIn).iStatus);
    EXPECT_EQ("type 0, 4 bytes \"21.5\"\n", KvTool({"get", "t.e"}).strOut) << "one newline dropped";
    EXPECT_EQ(0, KvTool({"set", "t.e", "-", "--keep-newline"}, strIn).iStatus);
    EXPECT_EQ("32312e350a\n", KvTool({"get", "t.e", "--hex"}).strOut);
    std::ofstream(strIn) << "de ad\n be\tef\n";
    EXPECT_EQ(0, KvTool({"set", "t.h", "-", "--hex"}, strIn).iStatus);
    EXPECT_EQ("deadbeef\n", KvTool({"get", "t.h", "--hex"}).strOut);
    std::ofstream(strIn, std::ios::binary) << std::string("\x00\x01\n", 3);
    EXPECT_EQ(0, KvTool({"set", "t.f", "--file", strIn}).iStatus);
    EXPECT_EQ("00010a\n", KvTool({"get", "t.f", "--hex"}).strOut) << "a file is taken as it is";
    EXPECT_EQ(0, KvTool({"set", "t.empty", ""}).iStatus);
    EXPECT_EQ("type 0, 0 bytes\n", KvTool({"get", "t.empty"}).strOut);

    // The type stays unless --type says otherwise, also when notifying.
    EXPECT_EQ(0, KvTool({"set", "t.v", "21.5", "--type", "1"}).iStatus);
    EXPECT_EQ(0, KvTool({"set", "t.v", "22.0", "--notify", "1"}).iStatus);
    EXPECT_EQ("type 1, 4 bytes \"22.0\"\n", KvTool({"get", "t.v"}).strOut);
    EXPECT_EQ(0, KvTool({"set", "t.v", "23", "--type", "0"}).iStatus);
    EXPECT_EQ("type 0, 2 bytes \"23\"\n", KvTool({"get", "t.v"}).strOut);
    unlink(strIn.c_str());
}

TEST_F(KvToolTest, GetNeverPrintsTwoThingsAlike)
{
    Serve();
    KvTool({"set", "g.text", "0001ff"});
    KvTool({"set", "g.bytes", "00 01 ff", "--hex"});
    KvTool({"set", "g.quote", "say \"hi\""});
    KvTool({"set", "g.none.child", "x"});
    EXPECT_EQ("type 0, 6 bytes \"0001ff\"\n", KvTool({"get", "g.text"}).strOut);
    EXPECT_EQ("type 0, 3 bytes 0001ff\n", KvTool({"get", "g.bytes"}).strOut);
    EXPECT_EQ("type 0, 8 bytes \"say \\\"hi\\\"\"\n", KvTool({"get", "g.quote"}).strOut);
    // Scripts choose a form; bytes that are not text are refused as text.
    EXPECT_EQ("0001ff\n", KvTool({"get", "g.text", "--text"}).strOut);
    KV_EXPECT_FAILS(KvTool({"get", "g.bytes", "--text"}), 1, "not text");
    EXPECT_EQ(std::string("\x00\x01\xff", 3), KvTool({"get", "g.bytes", "--raw"}).strOut);
    // A node without value is an error, not a line that a value could print.
    for (const char* pszMode : {"", "--text", "--hex", "--raw"}) {
        std::vector<std::string> vstr{"get", "g.none"};
        if (*pszMode != '\0')
            vstr.push_back(pszMode);
        const KvToolResult r = KvTool(vstr);
        KV_EXPECT_FAILS(r, 1, "holds no value (a parent node with 1 child)");
        EXPECT_EQ("", r.strOut);
    }
    EXPECT_EQ("{\"path\":\"g.none\",\"type\":4,\"value\":null}\n", KvTool({"get", "g.none", "--json"}).strOut);
}

TEST_F(KvToolTest, TypeGuardsTheLibraryBitsAndConst)
{
    Serve();
    KvTool({"set", "plant.t", "1"});
    KV_EXPECT_FAILS(KvTool({"type", "plant", "0"}), 1, "--raw");      // would hide every child
    KV_EXPECT_FAILS(KvTool({"type", "plant.t", "0x2"}), 1, "--raw");  // would hide the value
    EXPECT_EQ("0x4 parent\n", KvTool({"type", "plant"}).strOut);
    EXPECT_EQ(0, KvTool({"type", "plant.t", "0x101"}).iStatus);  // the caller's own bits
    EXPECT_EQ(0, KvTool({"type", "plant.t", "--const"}).iStatus);
    EXPECT_EQ("0x10101 value,const\n", KvTool({"type", "plant.t"}).strOut);
    KV_EXPECT_FAILS(KvTool({"type", "plant.t", "0x101"}), 1, "const");
    KV_EXPECT_FAILS(KvTool({"set", "plant.t", "2"}), 1, "refused");
    EXPECT_EQ(0, KvTool({"type", "plant.t", "0x1", "--raw"}).iStatus);
    EXPECT_EQ(0, KvTool({"set", "plant.t", "2"}).iStatus);
    EXPECT_EQ(0, KvTool({"type", "plant", "0", "--raw"}).iStatus);  // asked for: the children hide
    EXPECT_EQ(1, KvTool({"get", "plant.t"}).iStatus);
}

TEST_F(KvToolTest, RmAsksBeforeASubtreeAndRefusesConstNodes)
{
    Serve();
    KvTool({"set", "p.c.d", "1"});
    KvTool({"set", "p.k", "1"});
    KvTool({"type", "p.k", "--const"});
    KV_EXPECT_FAILS(KvTool({"rm", "p.c"}), 1, "-r");
    EXPECT_EQ(0, KvTool({"get", "p.c.d"}).iStatus) << "nothing was removed";
    KV_EXPECT_FAILS(KvTool({"rm", "p.k"}), 1, "const");
    KV_EXPECT_FAILS(KvTool({"rm", "-r", "p"}), 1, "'p.k' is const");
    EXPECT_EQ(0, KvTool({"rm", "-r", "p.c"}).iStatus);
    KV_EXPECT_FAILS(KvTool({"get", "p.c.d"}), 1, "no node");
    KvTool({"set", "q.leaf", "x"});
    KvTool({"ref", "q.alias", "p"});
    EXPECT_EQ(0, KvTool({"rm", "q.alias"}).iStatus) << "a reference is a leaf, its target's children are not its own";
    EXPECT_EQ(0, KvTool({"get", "p.k"}).iStatus);
}

}  // namespace
