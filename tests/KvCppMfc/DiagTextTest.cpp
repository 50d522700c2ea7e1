// Texts of hardware exceptions, and the error window (newest line first, at
// most 100 lines; counted only in test mode).
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <vector>

#include "DiagTestSupport.h"
#include "KvCppMfc/Platform/KvPlatform.h"

namespace {

TEST(DiagText, ExceptionCodesHaveTheirSentencesAndOthersAreUnknown)
{
    // The blanks missing after "," belong to the texts; other codes are unknown.
    const struct {
        unsigned long dwCode;
        const char* pszText;
    } acases[] = {
        {0xC0000006, "The thread tried to access a page that was not present,and the system was unable to load the "
                     "page. For example, this exception might occur if a network connection is lost while running a "
                     "program over the network."},
        {0, "Unknown exception."},
        {0xC0000007, "Unknown exception."},
    };
    for (const auto& c : acases)
        EXPECT_STREQ(c.pszText, KvExceptionCode2Text(c.dwCode)) << std::hex << c.dwCode;
    // Every code of the table has a sentence of its own.
    std::vector<std::string> v;
    for (unsigned long dwCode :
         {0x80000002ul, 0x80000003ul, 0x80000004ul, 0xC0000005ul, 0xC0000006ul, 0xC000001Dul, 0xC0000025ul,
          0xC0000026ul, 0xC000008Cul, 0xC000008Dul, 0xC000008Eul, 0xC000008Ful, 0xC0000090ul, 0xC0000091ul,
          0xC0000092ul, 0xC0000093ul, 0xC0000094ul, 0xC0000095ul, 0xC0000096ul, 0xC00000FDul})
        v.push_back(KvExceptionCode2Text(dwCode));
    std::sort(v.begin(), v.end());
    EXPECT_EQ(v.end(), std::unique(v.begin(), v.end()));
    EXPECT_EQ(v.end(), std::find(v.begin(), v.end(), "Unknown exception."));
}

std::string Lower(std::string str)
{
    for (char& ch : str)
        ch = static_cast<char>(tolower(static_cast<unsigned char>(ch)));
    return str;
}

TEST(DiagText, ExceptionInfoNamesCodeApplicationAddressAndTheAccess)
{
    const struct {
        KvFaultInfo info;
        const char* pszTail;
    } acases[] = {
        {{0xC0000005, 0x401000, 2, {1, 0x12345678}}, "\nThe Thread tried to write memory at 0x12345678"},
        {{0xC0000005, 0x401000, 2, {0, 0x10}}, "\nThe Thread tried to read memory at 0x00000010"},
        {{0xC0000005, 0x401000, 2, {8, 0x10}}, "\n\nError in exception information"},
        {{0xC0000005, 0x401000, 0, {1, 0x10}}, ""},
        {{0xC0000094, 0x401000, 2, {1, 0x10}}, ""},
    };
    for (const auto& c : acases) {
        char szCode[16];
        snprintf(szCode, sizeof(szCode), "%08X", c.info.dwCode);
        const std::string strExpected = "Exception 0x" + std::string(szCode) + " :\n" +
                                        KvExceptionCode2Text(c.info.dwCode) + "\n\nIn application " +
                                        KvApplicationPath() + " at address 0x00401000" + c.pszTail;
        // The case of the hexadecimal digits is not part of the text's meaning.
        EXPECT_EQ(Lower(strExpected), Lower(KvExceptionInfo2Text(c.info))) << c.pszTail;
    }
}

std::vector<std::string> g_vShown;

class DiagErrorWindow : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_vShown.clear();
        KvClearErrorWindow();
        KvDebugOutput::SetTestMode(false);
        m_sinkOld = KvSetUiSink({nullptr, nullptr, [](const char* psz) { g_vShown.push_back(psz); }});
    }
    void TearDown() override
    {
        KvSetUiSink(m_sinkOld);
        KvClearErrorWindow();
        KvDebugOutput::SetTestMode(false);
    }
    KvUiSink m_sinkOld{};
};

TEST_F(DiagErrorWindow, KeepsTheNewest100LinesOnTopAndWritesEachToTheDebugFile)
{
    KvTempDebugFile file;
    for (int i = 0; i < 105; ++i)
        _ErrorOutputToWnd(("error " + std::to_string(i)).c_str(), "Window.cpp", static_cast<unsigned long>(i));
    const std::vector<std::string> v = KvErrorWindowLines();
    ASSERT_EQ(100u, v.size());
    EXPECT_EQ("error 104", v.front());
    EXPECT_EQ("error 103", v[1]);
    EXPECT_EQ("error 5", v.back());
    ASSERT_EQ(105u, g_vShown.size());
    EXPECT_EQ("error 104", g_vShown.back());
    const std::vector<std::string> vFile = file.Texts();
    ASSERT_EQ(105u, vFile.size());
    EXPECT_EQ("error 0", vFile.front());
    EXPECT_NE(std::string::npos, KvTestReadFile(file.m_strPath).find("Window.cpp(104): "));

    KvDebugOutput::SetTestMode(true);
    KvDebugOutput::ResetTestModeCounters();
    _ErrorOutputToWnd("counted only", "Window.cpp", 1);
    EXPECT_EQ(1, KvDebugOutput::GetErrorOutputCount());
    EXPECT_EQ(v, KvErrorWindowLines());
    EXPECT_EQ(105u, g_vShown.size());
    EXPECT_EQ(105u, file.Texts().size()) << "nothing written in test mode";
}

}  // namespace
