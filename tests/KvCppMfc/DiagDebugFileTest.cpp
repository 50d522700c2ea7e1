// The debug file: switched on and sized by an environment variable, written as a
// ring, one prefixed line per output, and the return-code helpers.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>

#include "DiagTestSupport.h"

namespace {

namespace fs = std::filesystem;
constexpr const char* kEnvName = "KV_TEST_DEBUG_FILE";
constexpr const char* kDefaultPath = "/opt/plant/bin/station.KvRfrSvr.err";

TEST(DiagDebugFile, TheVariableSwitchesAndSizesTheFileInTheLogDirectory)
{
    const struct {
        const char* pszValue;  // null: unset
        uint32_t cbLimit;      // 0: no file
    } acases[] = {{nullptr, 0},
                  {"0", 0},
                  {"", 0},
                  {"none", 0},
                  {"0x400", 0},
                  {"1000", 1000},
                  // Values that do not fit 32 bits, and negative ones, mean the largest limit.
                  {"4294967295", 0xFFFFFFFF},
                  {"4294967296", 0xFFFFFFFF},
                  {"-1", 0xFFFFFFFF},
                  {"99999999999999999999999", 0xFFFFFFFF}};
    int i = 0;
    for (const auto& c : acases) {
        SCOPED_TRACE(c.pszValue != nullptr ? c.pszValue : "(unset)");
        char szDir[] = "/tmp/kvtest.dir.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(szDir));
        // The log directory is taken with and without its trailing slash.
        setenv("KVLOGFILEDIR", (std::string(szDir) + (++i % 2 == 0 ? "/" : "")).c_str(), 1);
        if (c.pszValue != nullptr)
            setenv(kEnvName, c.pszValue, 1);
        else
            unsetenv(kEnvName);
        EXPECT_EQ(c.cbLimit != 0, OpenDebugEx(kDefaultPath, kEnvName));
        const std::string strFile = std::string(szDir) + "/station.KvRfrSvr.err";
        if (c.cbLimit == 0) {
            EXPECT_TRUE(fs::is_empty(szDir));
            EXPECT_EQ(0u, _DebugOutput("nowhere")) << "no file open";
        } else {
            EXPECT_EQ(c.cbLimit, KvDebugOutput::Instance().m_cbLimit);
            EXPECT_EQ(strFile, KvDebugOutput::Instance().m_szPath);
            std::vector<std::string> v = KvDebugFileTexts(strFile);
            EXPECT_EQ(4u, v.size());
            v.resize(4);
            EXPECT_EQ(std::string(70, '*'), v[0]);
            EXPECT_FALSE(v[1].empty());
            EXPECT_EQ(kDefaultPath, v[2]);
            EXPECT_EQ(v[0], v[3]);
        }
        CloseDebug();
        fs::remove_all(szDir);
    }
    unsetenv(kEnvName);
    unsetenv("KVLOGFILEDIR");
}

TEST(DiagDebugFile, WritingRestartsAtTheBeginningBeforeTheLimitAndNeverTruncates)
{
    const std::string strPath = KvTestTempFile();
    const std::string strOld(3000, 'x');
    FILE* pf = fopen(strPath.c_str(), "w");
    fputs(strOld.c_str(), pf);
    fclose(pf);
    constexpr uint32_t kLimit = 600;
    ASSERT_NE(static_cast<unsigned long>(-1), OpenDebug(strPath.c_str(), kLimit));
    const int fd = KvDebugOutput::Instance().m_fd;
    int cWraps = 0;
    for (int i = 0; i < 40; ++i) {
        const std::string strText = "ring line " + std::to_string(i);
        const off_t pos = lseek(fd, 0, SEEK_CUR);
        const unsigned long cb = _DebugOutput(strText.c_str());
        // A line (prefix, text, newline) that would end within 9 bytes of the
        // limit, or past it, is written at the start instead.
        const off_t posStart = pos + static_cast<off_t>(cb) + 9 > static_cast<off_t>(kLimit) ? 0 : pos;
        cWraps += posStart == 0 && pos != 0 ? 1 : 0;
        EXPECT_EQ(posStart + static_cast<off_t>(cb), lseek(fd, 0, SEEK_CUR)) << i;
        if (HasFailure())
            break;
        const std::string str = KvTestReadFile(strPath);
        const size_t iEnd = static_cast<size_t>(posStart) + cb;
        EXPECT_EQ(strText + "\n", str.substr(iEnd - strText.size() - 1, strText.size() + 1));
    }
    EXPECT_LE(2, cWraps);
    CloseDebug();
    const std::string str = KvTestReadFile(strPath);
    EXPECT_EQ(strOld.size(), str.size()) << "neither truncated nor appended to";
    EXPECT_EQ(strOld.substr(kLimit), str.substr(kLimit));
    unlink(strPath.c_str());
}

TEST(DiagDebugFile, EachOutputWritesOneLineAndHelpersOnlyWhenTheirConditionHolds)
{
    KvTempDebugFile file;
    const unsigned long kNone = 0xDEAD;  // return value not checked
    const struct {
        std::function<unsigned long()> fn;
        int iErrno;
        unsigned long rcExpected;
        const char* pszWritten;  // "" : nothing
    } acases[] = {
        {[] { return _DebugOutput("ends with a newline\n"); }, 0, kNone, "ends with a newline"},
        {[] { return _DebugOutput(nullptr); }, 0, kNone, "DebugOutput called with NULL-pointer message"},
        {[] { return _DebugOutputRc("a.cpp", 1, 0); }, 5, kNone, ""},
        {[] { return _DebugOutputRc("a.cpp", 2, 0x1f); }, 5, kNone, "a.cpp(2): Wrong rc=1f LastErr=5\r"},
        {[] { return _DebugOutputRcOk("a.cpp", 3, 7, 7); }, 5, 7, ""},
        {[] { return _DebugOutputRcOk("a.cpp", 4, 8, 7); }, 5, kNone, "a.cpp(4): Wrong rc=8 LastErr=5\r"},
        {[] { return _DebugOutputRcErr("a.cpp", 5, 7, 7); }, 0, 7, "a.cpp(5): Wrong rc=7 LastErr=0\r"},
        {[] { return _DebugOutputRcErr("a.cpp", 6, 8, 7); }, 5, 7, ""},
        {[] { return _DebugOutputRcErr("a.cpp", 7, 0, 0xFFFFFFFF); }, 5, 0xFFFFFFFF, ""},
        {[] { return _DebugOutputRcWin("a.cpp", 8); }, 0, kNone, ""},
        {[] { return _DebugOutputRcWin("a.cpp", 9); }, 0x2a, kNone, "a.cpp(9): WinLastErr=2a\r"},
        {[] { return _DebugOutputWithoutRc("a.cpp", 10); }, 0, kNone, "Wrong rc in File a.cpp(10)\r"},
    };
    for (const auto& c : acases) {
        const size_t cBefore = file.Texts().size();
        errno = c.iErrno;
        const unsigned long rc = c.fn();
        if (c.rcExpected != kNone) {
            EXPECT_EQ(c.rcExpected, rc) << c.pszWritten;
        }
        const std::vector<std::string> v = file.Texts();
        if (*c.pszWritten == '\0') {
            EXPECT_EQ(cBefore, v.size()) << "written: " << (v.empty() ? "" : v.back());
        } else {
            ASSERT_EQ(cBefore + 1, v.size()) << c.pszWritten;
            EXPECT_EQ(c.pszWritten, v.back());
        }
    }
}

}  // namespace
