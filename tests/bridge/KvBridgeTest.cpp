// KvBridgeTest.cpp - two trees joined by `kvrs bridge` through a real
// mosquitto: changes cross both ways exactly once, plain MQTT clients take
// part, a broker restart is survived, and nothing is left behind.
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "KvBridgeHarness.h"

namespace {

class KvBridgeTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char* psz = getenv("KVRFRSVR_NAMESPACE");
        const std::string strBase = psz != nullptr && *psz != '\0' ? psz : "t.bridge." + std::to_string(getpid());
        ASSERT_TRUE(m_broker.Start());
        m_pA = std::make_unique<KvBridgeTree>(strBase + ".a");
        m_pB = std::make_unique<KvBridgeTree>(strBase + ".b");
    }
    void TearDown() override
    {
        for (KvBridgeTree* pTree : {m_pA.get(), m_pB.get()}) {
            if (pTree == nullptr)
                continue;
            const std::string strNamespace = pTree->Namespace();
            KvToolResult r = pTree->StopBridge();
            if (r.iStatus != -1) {  // -1: never started, or stopped by the test
                EXPECT_EQ(0, r.iStatus) << r.strErr;
                EXPECT_EQ(std::string::npos, r.strErr.find("lost the broker")) << r.strErr;
            }
            pTree->Stop();
            EXPECT_TRUE(KvTestNamespaceObjects(strNamespace).empty()) << strNamespace;
        }
        m_broker.Stop();
    }
    void StartBridges()
    {
        ASSERT_TRUE(m_pA->StartBridge(m_broker));
        ASSERT_TRUE(m_pB->StartBridge(m_broker));
    }
    // mosquitto_sub on everything below kvrs/, printing "topic payload
    // properties"; returns once it is known to be subscribed.
    KvBridgeProcess Subscribe()
    {
        auto p = KvBridgeStart("", {KV_MOSQUITTO_SUB, "-V", "mqttv5", "-p", std::to_string(m_broker.Port()), "-R", "-t",
                                    "kvrs/#", "-t", "probe", "-F", "%t %p %P"});
        EXPECT_TRUE(KvBridgeEventually([&] {
            Publish({"-t", "probe", "-m", "probe"});
            return p->WaitForText("probe probe");
        }));
        return p;
    }
    void Publish(const std::vector<std::string>& args, const std::string& strIn = "")
    {
        std::vector<std::string> argv{KV_MOSQUITTO_PUB, "-V", "mqttv5", "-p", std::to_string(m_broker.Port())};
        argv.insert(argv.end(), args.begin(), args.end());
        EXPECT_EQ(0, KvBridgeRun("", argv, strIn).iStatus);
    }
    KvBridgeProcess Listen(KvBridgeTree& tree, const std::string& strPath)
    {
        auto p = KvBridgeStart(tree.Namespace(), {KVRS_EXE, "listen", "--no-current", strPath});
        EXPECT_TRUE(p->WaitForText("listening to", true));
        return p;
    }
    static std::string StopAndRead(KvBridgeProcess& p)
    {
        p->Signal(SIGTERM);
        return p->Finish(10).strOut;
    }
    // Long enough for several scans of both bridges: an echo would show by then.
    static void LetScansRun() { std::this_thread::sleep_for(std::chrono::milliseconds(1200)); }

    KvBridgeBroker m_broker;
    std::unique_ptr<KvBridgeTree> m_pA, m_pB;
};

TEST_F(KvBridgeTest, ChangesCrossBothWaysExactlyOnce)
{
    for (KvBridgeTree* pTree : {m_pA.get(), m_pB.get()})
        ASSERT_EQ(0, pTree->Kvrs({KVRS_EXE, "set", "plant.line1.temp", "20", "--type", "1"}).iStatus);
    StartBridges();
    auto pListenA = Listen(*m_pA, "plant.line1.temp");
    auto pListenB = Listen(*m_pB, "plant.line1.temp");
    auto pSub = Subscribe();

    ASSERT_EQ(0, m_pA->Kvrs({KVRS_EXE, "set", "plant.line1.temp", "21.5", "--type", "1", "--notify", "16"}).iStatus);
    ASSERT_TRUE(pListenB->WaitForText("#0x0010  plant.line1.temp  target 1/1  type 1, 4 bytes \"21.5\""));
    ASSERT_EQ(0, m_pB->Kvrs({KVRS_EXE, "notify", "plant.line1.temp", "5", "--value", "to-a"}).iStatus);
    ASSERT_TRUE(pListenA->WaitForText("#0x0005  plant.line1.temp  target 1/1  type 0, 4 bytes \"to-a\""));
    LetScansRun();

    // Each listener heard its own tree's notification and the other's, once.
    EXPECT_EQ(2u, KvToolLineCount(StopAndRead(pListenA)));
    EXPECT_EQ(2u, KvToolLineCount(StopAndRead(pListenB)));
    const std::string strSub = StopAndRead(pSub);
    EXPECT_EQ(2, KvCountOf(strSub, "kvrs/plant/line1/temp ")) << strSub;
    EXPECT_NE(std::string::npos, strSub.find("kvrs/plant/line1/temp 21.5 kvrs-type:1 kvrs-msg:16 ")) << strSub;
    EXPECT_NE(std::string::npos, strSub.find("kvrs/plant/line1/temp to-a kvrs-type:0 kvrs-msg:5 ")) << strSub;
    // The message's value travels; the node keeps the value it had where the
    // notification was made, and takes the payload where it arrives.
    EXPECT_EQ("21.5", m_pB->Get("plant.line1.temp"));
    EXPECT_EQ("to-a", m_pA->Get("plant.line1.temp"));
    EXPECT_EQ("21.5", m_pB->Get("plant.line1.temp"));
}

TEST_F(KvBridgeTest, ABurstArrivesWholeAndInOrder)
{
    ASSERT_EQ(0, m_pA->Kvrs({KVRS_EXE, "set", "plant.burst", "0"}).iStatus);
    ASSERT_EQ(0, m_pB->Kvrs({KVRS_EXE, "set", "plant.burst", "0"}).iStatus);
    StartBridges();
    auto pListenB = Listen(*m_pB, "plant.burst");
    ASSERT_EQ(0, m_pA->Kvrs({KVRS_EXE, "notify", "plant.burst", "1", "--value", "last", "--repeat", "300"}).iStatus);
    ASSERT_EQ(0, m_pA->Kvrs({KVRS_EXE, "notify", "plant.burst", "2", "--value", "end"}).iStatus);
    ASSERT_TRUE(pListenB->WaitForText("#0x0002  plant.burst"));
    const std::string strOut = StopAndRead(pListenB);
    EXPECT_EQ(301u, KvToolLineCount(strOut));
    EXPECT_EQ(300, KvCountOf(strOut, "#0x0001  plant.burst  target 1/1  type 0, 4 bytes \"last\""));
}

TEST_F(KvBridgeTest, StructuralNotificationsCrossAndGiveParentsNoValue)
{
    for (KvBridgeTree* pTree : {m_pA.get(), m_pB.get()})
        ASSERT_EQ(0, pTree->Kvrs({KVRS_EXE, "set", "plant.l1.t", "1"}).iStatus);
    StartBridges();
    auto pListenB = KvBridgeStart(m_pB->Namespace(), {KVRS_EXE, "listen", "--no-current", "--structural"});
    ASSERT_TRUE(pListenB->WaitForText("listening to", true));
    ASSERT_EQ(0, m_pA->Kvrs({KVRS_EXE, "notify", "plant", "4", "--recursive"}).iStatus);
    ASSERT_TRUE(pListenB->WaitForText("type 0, 1 bytes \"1\""));
    LetScansRun();
    // One message per node that heard it in A: plant and l1 without a value,
    // t with its node's value.
    const std::string strOut = StopAndRead(pListenB);
    EXPECT_EQ(3, KvCountOf(strOut, "#0x0004 created  (root)")) << strOut;
    EXPECT_EQ(2, KvCountOf(strOut, "(no value)")) << strOut;
    const std::string strTree = m_pB->Kvrs({KVRS_EXE, "tree", "plant"}).strOut;
    EXPECT_EQ(0u, strTree.find("plant  [0x4 parent]")) << strTree;
    EXPECT_NE(std::string::npos, strTree.find("\n  l1  [0x4 parent]")) << strTree;
}

TEST_F(KvBridgeTest, ScansCarryNewNodesAndUnnotifiedValuesWithEscapedNames)
{
    StartBridges();
    auto pSub = Subscribe();
    ASSERT_EQ(0, m_pA->Kvrs({KVRS_EXE, "set", "plant.a/b+c#d%e f", "x", "--type", "7"}).iStatus);
    ASSERT_TRUE(pSub->WaitForText("kvrs/plant/a%2Fb%2Bc%23d%25e%20f x kvrs-type:7 kvrs-msg:1 "));
    ASSERT_TRUE(KvBridgeEventually([&] { return m_pB->Get("plant.a/b+c#d%e f") == "x"; }));
    const std::string strTree = m_pB->Kvrs({KVRS_EXE, "tree", "plant"}).strOut;
    EXPECT_NE(std::string::npos, strTree.find("a/b+c#d%e f  [0x1 value]  type 7, 1 bytes \"x\"")) << strTree;
    // A value changed without a notification crosses with the next scan.
    ASSERT_EQ(0, m_pB->Kvrs({KVRS_EXE, "set", "plant.a/b+c#d%e f", "y", "--type", "7"}).iStatus);
    ASSERT_TRUE(KvBridgeEventually([&] { return m_pA->Get("plant.a/b+c#d%e f") == "y"; }));
    LetScansRun();
    EXPECT_EQ(2, KvCountOf(StopAndRead(pSub), "kvrs/plant/a%2Fb%2Bc%23d%25e%20f "));
}

TEST_F(KvBridgeTest, PlainMqttClientsReachEveryTree)
{
    StartBridges();
    Publish({"-t", "kvrs/plant/ext", "-m", "hello", "-r"});
    for (KvBridgeTree* pTree : {m_pA.get(), m_pB.get()})
        EXPECT_TRUE(KvBridgeEventually([&] { return pTree->Get("plant.ext") == "hello"; })) << pTree->Namespace();

    // Properties choose type and message number; escapes name any node, the
    // empty name included ("%" alone).
    auto pListenB = Listen(*m_pB, "plant.ext");
    Publish({"-t", "kvrs/plant/ext", "-m", "42", "-D", "publish", "user-property", "kvrs-type", "3", "-D", "publish",
             "user-property", "kvrs-msg", "33"});
    EXPECT_TRUE(pListenB->WaitForText("#0x0021  plant.ext  target 1/1  type 3, 2 bytes \"42\""));
    // Lines published at once are as many changes, however close together.
    const std::string strLines = KvTestTempFile();
    {
        std::ofstream out(strLines);
        for (int i = 0; i < 100; ++i)
            out << "line" << i << "\n";
    }
    Publish({"-t", "kvrs/plant/ext", "-l"}, strLines);
    EXPECT_TRUE(pListenB->WaitForText("type 0, 6 bytes \"line99\""));
    EXPECT_EQ(100, KvCountOf(StopAndRead(pListenB), "#0x0001  plant.ext"));
    unlink(strLines.c_str());
    Publish({"-t", "kvrs/plant/sp%20ace/%", "-m", "deep"});
    EXPECT_TRUE(KvBridgeEventually([&] {
        return m_pA->Kvrs({KVRS_EXE, "tree", "plant"}).strOut.find("sp ace  [0x4 parent]") != std::string::npos;
    }));
    const std::string strTree = m_pA->Kvrs({KVRS_EXE, "tree", "plant.sp ace"}).strOut;
    EXPECT_NE(std::string::npos, strTree.find("\n    [0x1 value]  type 0, 4 bytes \"deep\"")) << strTree;
    // Topics outside the subtrees and malformed escapes are left alone.
    Publish({"-t", "kvrs/other/x", "-m", "no"});
    Publish({"-t", "kvrs/plant/bad%zz", "-m", "no"});
    LetScansRun();
    EXPECT_EQ(1, m_pA->Kvrs({KVRS_EXE, "get", "other.x"}).iStatus);
    EXPECT_EQ(std::string::npos, m_pA->Kvrs({KVRS_EXE, "tree", "plant"}).strOut.find("bad"));
}

TEST_F(KvBridgeTest, BrokerRestartIsSurvivedAndTreesConverge)
{
    ASSERT_EQ(0, m_pA->Kvrs({KVRS_EXE, "set", "plant.old", "1"}).iStatus);
    StartBridges();
    ASSERT_TRUE(KvBridgeEventually([&] { return m_pB->Get("plant.old") == "1"; }));

    m_broker.Stop();
    ASSERT_TRUE(m_pA->Bridge()->WaitForText("lost the broker", true));
    ASSERT_TRUE(m_pB->Bridge()->WaitForText("lost the broker", true));
    // Changes on both sides while the broker is away; the newer one of the same
    // node wins everywhere.
    ASSERT_EQ(0, m_pA->Kvrs({KVRS_EXE, "set", "plant.from_a", "a", "--notify", "1"}).iStatus);
    ASSERT_EQ(0, m_pB->Kvrs({KVRS_EXE, "set", "plant.old", "2", "--notify", "1"}).iStatus);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_EQ(0, m_pA->Kvrs({KVRS_EXE, "set", "plant.old", "3"}).iStatus);
    LetScansRun();
    ASSERT_TRUE(m_broker.Start());  // empty: no persistence

    for (KvBridgeTree* pTree : {m_pA.get(), m_pB.get()}) {
        EXPECT_TRUE(KvBridgeEventually([&] { return pTree->Get("plant.from_a") == "a"; })) << pTree->Namespace();
        EXPECT_TRUE(KvBridgeEventually([&] { return pTree->Get("plant.old") == "3"; })) << pTree->Namespace();
    }
    // The broker holds the current values again for newcomers (once the older
    // republish of B has been answered by A).
    EXPECT_TRUE(KvBridgeEventually([&] {
        return KvBridgeRun("", {KV_MOSQUITTO_SUB, "-p", std::to_string(m_broker.Port()), "-t", "kvrs/plant/old", "-C",
                                "1", "-W", "5"})
                   .strOut == "3\n";
    }));
    for (KvBridgeTree* pTree : {m_pA.get(), m_pB.get()}) {
        KvToolResult r = pTree->StopBridge();
        EXPECT_EQ(0, r.iStatus);
        EXPECT_EQ(2, KvCountOf(r.strErr, "bridge: connected")) << r.strErr;
    }
}

// A broker that takes TLS only and wants a password. The broker drops root
// before it reads its files: they are readable by all.
class KvBridgeTlsTest : public KvBridgeTest {
protected:
    void SetUp() override
    {
        if (access("/usr/bin/openssl", X_OK) != 0)
            GTEST_SKIP() << "openssl is not installed";
        char szDir[] = "/tmp/kvbridge-tls.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(szDir));
        m_strDir = szDir;
        const std::string strScript =
            "set -e; cd " + m_strDir +
            "; openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 2 -subj /CN=kvtest-ca"
            "; openssl req -newkey rsa:2048 -nodes -keyout srv.key -out srv.csr -subj /CN=127.0.0.1"
            "; printf 'subjectAltName=IP:127.0.0.1\\n' > san"
            "; openssl x509 -req -in srv.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out srv.pem -days 2"
            " -extfile san"
            "; " KV_MOSQUITTO_PASSWD " -c -b passwd bridge 's3cret pass'"
            "; printf 's3cret pass\\n' > pw; printf 'wrong\\n' > bad; chmod -R a+rX .";
        std::string strOut;
        ASSERT_EQ(0, KvTestRunExe({"/bin/sh", "-c", strScript}, &strOut)) << strOut;
        m_broker.SetSecurity("allow_anonymous false\npassword_file " + m_strDir + "/passwd\ncafile " + m_strDir +
                             "/ca.pem\ncertfile " + m_strDir + "/srv.pem\nkeyfile " + m_strDir + "/srv.key\n");
        KvBridgeTest::SetUp();
    }
    void TearDown() override
    {
        KvBridgeTest::TearDown();
        std::string strOut;
        if (!m_strDir.empty())
            KvTestRunExe({"/bin/rm", "-rf", m_strDir}, &strOut);
    }
    std::vector<std::string> Credentials(const std::string& strPasswordFile) const
    {
        return {"--cafile", m_strDir + "/ca.pem", "--user",
                "bridge",   "--password-file",    m_strDir + "/" + strPasswordFile};
    }
    std::string m_strDir;
};

TEST_F(KvBridgeTlsTest, CredentialsAndTlsComeFromFilesNeverTheCommandLine)
{
    ASSERT_TRUE(m_pA->StartBridge(m_broker, Credentials("pw")));
    ASSERT_TRUE(m_pB->StartBridge(m_broker, Credentials("pw")));
    ASSERT_EQ(0, m_pA->Kvrs({KVRS_EXE, "set", "plant.secret", "42", "--notify", "1"}).iStatus);
    EXPECT_TRUE(KvBridgeEventually([&] { return m_pB->Get("plant.secret") == "42"; }));

    // A wrong password is refused; the bridge keeps trying and keeps running.
    std::vector<std::string> argv{KVRS_EXE,         "bridge", "--broker",    m_broker.Address(),
                                  "--retry-max-ms", "200",    "--client-id", "kvtest-wrong"};
    const std::vector<std::string> vstrCred = Credentials("bad");
    argv.insert(argv.end(), vstrCred.begin(), vstrCred.end());
    argv.push_back("plant");
    KvBridgeProcess pWrong = KvBridgeStart(m_pA->Namespace(), argv);
    EXPECT_TRUE(pWrong->WaitForText("broker refused the connection", true));
    pWrong->Signal(SIGTERM);
    const KvToolResult r = pWrong->Finish(10);
    EXPECT_EQ(0, r.iStatus) << r.strErr;
    EXPECT_EQ(std::string::npos, r.strErr.find("s3cret")) << r.strErr;
}

TEST(KvBridgeUsageTest, BadInputGivesOneLineAndStatusTwo)
{
    const std::string strNamespace = "t.bridge.usage." + std::to_string(getpid());
    const std::vector<std::vector<std::string>> vargs{
        {"bridge", "plant"},
        {"bridge", "--broker", "localhost:x", "plant"},
        {"bridge", "--broker", "::1", "plant"},
        {"bridge", "--broker", "localhost", "plant", "plant.line1"},
        {"bridge", "--broker", "localhost", "plant..x"},
        {"bridge", "--broker", "localhost", "--topic-root", "a/+", "plant"},
        {"bridge", "--broker", "localhost", "--user", "u", "--password-file", "/nonexistent", "plant"},
        {"bridge", "--broker", "localhost", "--password-file", "/dev/null", "plant"},
        {"bridge", "--broker", "localhost", "--cafile", "/nonexistent", "plant"},
    };
    for (const std::vector<std::string>& args : vargs) {
        std::vector<std::string> argv{KVRS_EXE};
        argv.insert(argv.end(), args.begin(), args.end());
        const KvToolResult r = KvBridgeRun(strNamespace, argv);
        EXPECT_EQ(2, r.iStatus) << args[2];
        EXPECT_EQ(1u, KvToolLineCount(r.strErr)) << r.strErr;
        EXPECT_EQ(0u, r.strErr.rfind("kvrs: ", 0)) << r.strErr;
    }
    EXPECT_EQ(0, KvBridgeRun(strNamespace, {KVRS_EXE, "bridge", "--help"}).iStatus);
    EXPECT_TRUE(KvTestNamespaceObjects(strNamespace).empty());
}

}  // namespace
