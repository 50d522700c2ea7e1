// The debug file: switched and sized by the environment, ring writes, the line
// prefix and the newline rule.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>

#include "KvCppMfc/Diag/KvDebugOutput.h"
#include "KvCppMfc/Platform/KvPlatform.h"
#include "SegmentTestSupport.h"

namespace {

std::string ReadFile(const std::string& strPath)
{
    std::ifstream in(strPath);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

off_t FileSize(const std::string& strPath)
{
    struct stat st;
    return stat(strPath.c_str(), &st) == 0 ? st.st_size : -1;
}

// A log directory of its own; the debug file is closed and removed afterwards.
class DiagDebugFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        char szDir[] = "/tmp/kvdiag.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(szDir));
        m_strDir = szDir;
        setenv("KVLOGFILEDIR", m_strDir.c_str(), 1);
        m_strFile = m_strDir + "/app.KvRfrSvr.err";
    }
    void TearDown() override
    {
        CloseDebug();
        unlink(m_strFile.c_str());
        rmdir(m_strDir.c_str());
        unsetenv("KVLOGFILEDIR");
        unsetenv("BDC_DEBUG_FILE");
    }
    std::string m_strDir, m_strFile;
};

TEST_F(DiagDebugFile, NoFileUnlessTheVariableIsSetAndNotZero)
{
    unsetenv("BDC_DEBUG_FILE");
    EXPECT_FALSE(OpenDebugEx("/usr/bin/app.KvRfrSvr.err", "BDC_DEBUG_FILE"));
    setenv("BDC_DEBUG_FILE", "0", 1);
    EXPECT_FALSE(OpenDebugEx("/usr/bin/app.KvRfrSvr.err", "BDC_DEBUG_FILE"));
    EXPECT_EQ(-1, FileSize(m_strFile));
    EXPECT_EQ(0u, _DebugOutput("goes nowhere"));
    EXPECT_EQ(static_cast<unsigned long>(-1), FlushDebug());

    setenv("BDC_DEBUG_FILE", "1000", 1);
    ASSERT_TRUE(OpenDebugEx("/usr/bin/app.KvRfrSvr.err", "BDC_DEBUG_FILE"));
    EXPECT_STREQ(m_strFile.c_str(), KvDebugOutput::Instance().m_szPath) << "the log directory, the default name";
    EXPECT_EQ(1000u, KvDebugOutput::Instance().m_cbLimit);
    EXPECT_EQ(0u, FlushDebug());
    const std::string strText = ReadFile(m_strFile);
    const std::string strStars(70, '*');
    const std::string strFirst = strText.substr(0, strText.find('\n'));
    EXPECT_EQ(strFirst.size() - 70, strFirst.find(strStars)) << "a prefixed line of stars: " << strFirst;
    EXPECT_NE(std::string::npos, strText.find(": /usr/bin/app.KvRfrSvr.err\n"));
    EXPECT_EQ(4, std::count(strText.begin(), strText.end(), '\n'));
}

TEST_F(DiagDebugFile, WritesWrapToTheStartBeforePassingTheLimit)
{
    setenv("BDC_DEBUG_FILE", "1000", 1);
    ASSERT_TRUE(OpenDebugEx("app.KvRfrSvr.err", "BDC_DEBUG_FILE"));
    for (int i = 0; i < 60; ++i) {
        _DebugOutput(("line number " + std::to_string(i)).c_str());
        ASSERT_LE(FileSize(m_strFile), 1000) << "after line " << i;
    }
    const std::string strText = ReadFile(m_strFile);
    EXPECT_NE(0u, strText.find(std::string(70, '*'))) << "the header was overwritten";
    EXPECT_NE(std::string::npos, strText.find("line number 59\n"));
}

TEST_F(DiagDebugFile, LinePrefixAndNewlineRule)
{
    ASSERT_NE(static_cast<unsigned long>(-1), OpenDebug(m_strFile.c_str(), 1 << 20));
    _DebugOutput("plain");
    _DebugOutput("ends with newline\n");
    _DebugOutput(nullptr);
    _DebugOutput("with file", "KvRfrSvr/Internal", 42);
    _DebugOutput("", nullptr, 0);
    _DebugOutput("x", std::string(1000, 'f').c_str(), 1);  // a file name longer than the prefix buffer
    EXPECT_EQ(5u, Write("ab", 2, "cd", 2));
    EXPECT_EQ(3u, Write("ab", 2, "\n", 1));
    CloseDebug();
    std::istringstream in(ReadFile(m_strFile));
    std::string str;
    const std::string strPid = std::to_string(KvGetCurrentProcessId());
    const std::string strPrefix = "[0-9.e+]+ \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} P=" + strPid +
                                  " T=[0-9a-f]+ E=-?\\d+: ";
    const char* aExpected[] = {"plain", "ends with newline", "DebugOutput called with NULL-pointer message"};
    for (const char* pszExpected : aExpected) {
        ASSERT_TRUE(std::getline(in, str));
        EXPECT_TRUE(std::regex_match(str, std::regex(strPrefix + pszExpected))) << str;
    }
    ASSERT_TRUE(std::getline(in, str));
    EXPECT_TRUE(std::regex_match(str, std::regex("KvRfrSvr/Internal\\(42\\): " + strPrefix + "with file"))) << str;
    ASSERT_TRUE(std::getline(in, str));
    EXPECT_TRUE(std::regex_match(str, std::regex(strPrefix))) << "an empty text still ends its line: " << str;
    ASSERT_TRUE(std::getline(in, str));
    EXPECT_EQ(0u, str.find("fff")) << "a long file name is cut, nothing overruns";
    ASSERT_TRUE(std::getline(in, str));
    EXPECT_EQ("abcd", str);
    ASSERT_TRUE(std::getline(in, str));
    EXPECT_EQ("ab", str);
    EXPECT_FALSE(std::getline(in, str)) << "nothing else, no empty lines";
}

TEST_F(DiagDebugFile, ReturnCodeLines)
{
    OpenDebug(m_strFile.c_str(), 1 << 20);
    _DebugOutputRc("a.cpp", 7, 0);
    _DebugOutputRc("a.cpp", 8, 0x1f);
    EXPECT_EQ(3u, _DebugOutputRcOk("a.cpp", 9, 3, 3));
    _DebugOutputRcOk("a.cpp", 10, 4, 3);
    _DebugOutputRcErr("a.cpp", 11, 4, 3);
    _DebugOutputRcErr("a.cpp", 12, 3, 3);
    _DebugOutputWithoutRc("b.cpp", 13);
    CloseDebug();
    const std::string strText = ReadFile(m_strFile);
    EXPECT_EQ(std::string::npos, strText.find("a.cpp(7)"));
    EXPECT_NE(std::string::npos, strText.find(": a.cpp(8): Wrong rc=1f LastErr="));
    EXPECT_EQ(std::string::npos, strText.find("a.cpp(9)"));
    EXPECT_NE(std::string::npos, strText.find(": a.cpp(10): Wrong rc=4 LastErr="));
    EXPECT_EQ(std::string::npos, strText.find("a.cpp(11)"));
    EXPECT_NE(std::string::npos, strText.find(": a.cpp(12): Wrong rc=3 LastErr="));
    EXPECT_NE(std::string::npos, strText.find(": Wrong rc in File b.cpp(13)\r\n"));
}

}  // namespace
