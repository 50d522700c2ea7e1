// KvToolSessionTest.cpp - kvrs around the single command: the namespace
// option, the version, help that shows every option, saving a tree and
// bringing it back after a restart, and many commands in one process, from a
// pipe and from a terminal.
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "KvToolFixture.h"

namespace {

TEST_F(KvToolTest, NamespaceOptionPicksTheTreeOfThatNamespace)
{
    Serve();
    const std::string strOther = m_strNamespace + ".other";
    KvToolProcess serveOther(KVRS_EXE, {"-n", strOther, "serve"});
    ASSERT_TRUE(serveOther.WaitForText("serving namespace " + strOther));
    EXPECT_EQ(0, KvTool({"set", "where", "default"}).iStatus);
    EXPECT_EQ(0, KvTool({"set", "where", "other", "--namespace", strOther}).iStatus);
    EXPECT_EQ("other\n", KvTool({"get", "-n", strOther, "where", "--text"}).strOut);
    EXPECT_EQ("default\n", KvTool({"get", "where", "--text"}).strOut);
    EXPECT_NE(std::string::npos, KvTool({"--namespace=" + strOther, "stats"}).strOut.find(strOther));
    serveOther.Signal(SIGTERM);
    EXPECT_EQ(0, serveOther.Finish().iStatus);
    std::string strLeft;
    KvTestRunExe({"/bin/sh", "-c", "ls /dev/shm | grep -F '." + strOther + ".' || true"}, &strLeft);
    EXPECT_EQ("", strLeft) << "the other namespace is gone with its last process";
}

TEST_F(KvToolTest, VersionAndHelpOfEverySubcommand)
{
    const KvToolResult rVersion = KvTool({"--version"});
    EXPECT_EQ(0, rVersion.iStatus) << rVersion.strErr;
    EXPECT_EQ(0u, rVersion.strOut.rfind("kvrs ", 0)) << rVersion.strOut;
    for (const char* pszCommand : {"set", "get", "rm", "type", "listen", "dump", "load"}) {
        const KvToolResult r = KvTool({pszCommand, "--help"});
        EXPECT_EQ(0, r.iStatus) << pszCommand;
        EXPECT_NE(std::string::npos, r.strOut.find(std::string("kvrs ") + pszCommand)) << r.strOut;
    }
}

TEST_F(KvToolTest, DumpAndLoadBringATreeBackAfterARestart)
{
    Serve();
    KvTool({"set", "plant.line1.temp", "21.5", "--type", "1"});
    KvTool({"set", "plant.line1.raw", "00 01 ff", "--hex"});
    KvTool({"set", "plant.info", "say \"hi\""});
    KvTool({"type", "plant.info", "0x201", "--const"});
    KvTool({"ref", "plant.inlet", "plant.line1"});
    const KvToolResult rDump = KvTool({"dump"});
    ASSERT_EQ(0, rDump.iStatus) << rDump.strErr;
    const std::string strTreeBefore = KvTool({"tree"}).strOut;
    const std::string strFile = KvTestTempFile();
    std::ofstream(strFile) << rDump.strOut;

    m_pServe->Signal(SIGTERM);  // the tree goes with its last process
    EXPECT_EQ(0, m_pServe->Finish().iStatus);
    m_pServe.reset();
    Serve();
    KV_EXPECT_FAILS(KvTool({"get", "plant.info"}), 1, "no node");
    const KvToolResult rLoad = KvTool({"load", strFile});
    EXPECT_EQ(0, rLoad.iStatus) << rLoad.strErr;
    EXPECT_EQ(strTreeBefore, KvTool({"tree"}).strOut);
    KV_EXPECT_FAILS(KvTool({"set", "plant.info", "changed"}), 1, "refused");  // const came back last
    EXPECT_EQ(0, KvTool({"dump", "plant.line1"}).iStatus);

    std::ofstream(strFile) << "{\"kvrs-dump\":1,\"nodes\":[{\"path\":\"x\"}]}";
    KV_EXPECT_FAILS(KvTool({"load", strFile}), 2, "not complete");
    std::ofstream(strFile) << "{\"kvrs-dump\":1,";
    KV_EXPECT_FAILS(KvTool({"load", strFile}), 2, "not JSON");
    unlink(strFile.c_str());
}

TEST_F(KvToolTest, BatchInputRunsManyCommandsInOneProcess)
{
    Serve();
    const std::string strIn = KvTestTempFile();
    std::ofstream(strIn) << "# a comment\n"
                            "set a.one 1\n"
                            "set a.two 'two words' --type 2\n"
                            "get a.two\n"
                            "\n"
                            "rm a\n"
                            "set a.never 3\n";
    const KvToolResult r = KvTool({"-"}, strIn);
    KV_EXPECT_FAILS(r, 1, "line 6: 'a' has 2 descendants");
    EXPECT_EQ("type 2, 9 bytes \"two words\"\n", r.strOut);
    EXPECT_EQ(1, KvTool({"get", "a.never"}).iStatus) << "the batch stopped at the failed line";
    unlink(strIn.c_str());
}

// Runs `kvrs -` on a terminal: writes the lines, returns all it printed.
std::string RunOnTerminal(const std::string& strLines)
{
    int fdMaster = -1;
    const pid_t pid = forkpty(&fdMaster, nullptr, nullptr, nullptr);
    if (pid == 0) {
        execl(KVRS_EXE, KVRS_EXE, "-", static_cast<char*>(nullptr));
        _exit(127);
    }
    std::string strOut;
    if (pid < 0)
        return strOut;
    if (write(fdMaster, strLines.data(), strLines.size()) != static_cast<ssize_t>(strLines.size()))
        return strOut;
    char ach[4096];
    ssize_t cb;
    while ((cb = read(fdMaster, ach, sizeof(ach))) > 0)  // EIO once the child has ended
        strOut.append(ach, static_cast<size_t>(cb));
    close(fdMaster);
    EXPECT_EQ(0, KvTestWait(pid, 20));
    return strOut;
}

TEST_F(KvToolTest, InteractiveModePromptsAndGoesOnAfterAFailure)
{
    Serve();
    const std::string strOut = RunOnTerminal("get nothing\nset x 5\nget x --text\nquit\n");
    EXPECT_NE(std::string::npos, strOut.find("kvrs> ")) << strOut;
    EXPECT_NE(std::string::npos, strOut.find("kvrs: no node 'nothing'")) << strOut;
    EXPECT_NE(std::string::npos, strOut.find("5\r\n")) << "went on after the failure: " << strOut;
    EXPECT_EQ("5\n", KvTool({"get", "x", "--text"}).strOut);
}

}  // namespace
