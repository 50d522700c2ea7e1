// Error window, message boxes and tones through the sink, test mode, the
// internal-error box, KvThrow and KvGranThrow.
#include <cstring>
#include <string>
#include <vector>

#include "KvCppMfc/Diag/KvDebugOutput.h"
#include "KvCppMfc/Platform/KvPlatform.h"
#include "SegmentTestSupport.h"

namespace {

struct Recorded {
    std::vector<std::string> vBoxes;  // caption + "|" + text
    std::vector<unsigned> vFreqs;
    std::vector<std::string> vWindow;
};
Recorded g_rec;

// Replaces the sink for one test and records what reaches it.
class DiagReport : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_rec = Recorded();
        m_sinkOld = KvSetUiSink({[](const char* pszText, const char* pszCaption) {
                                     g_rec.vBoxes.push_back(std::string(pszCaption) + "|" + pszText);
                                 },
                                 [](unsigned dwFreq, unsigned dwMs) {
                                     if (dwMs == 500)
                                         g_rec.vFreqs.push_back(dwFreq);
                                 },
                                 [](const char* pszLine) { g_rec.vWindow.push_back(pszLine); }});
        KvClearErrorWindow();
    }
    void TearDown() override
    {
        KvSetUiSink(m_sinkOld);
        KvDebugOutput::SetTestMode(false);
        KvThrowSetTestMode(false);
    }
    KvUiSink m_sinkOld{};
};

TEST_F(DiagReport, ErrorWindowKeepsTheNewest100LinesOnTop)
{
    for (int i = 0; i < 150; ++i)
        _ErrorOutputToWnd(("error " + std::to_string(i)).c_str(), nullptr, 0);
    const std::vector<std::string> v = KvErrorWindowLines();
    ASSERT_EQ(100u, v.size());
    EXPECT_EQ("error 149", v.front());
    EXPECT_EQ("error 50", v.back());
    EXPECT_EQ(150u, g_rec.vWindow.size()) << "every line is shown";
}

TEST_F(DiagReport, TestModeCountsInsteadOfShowing)
{
    KvDebugOutput::SetTestMode(true);
    KvDebugOutput::ResetTestModeCounters();
    _ErrorOutputToWnd("hidden", nullptr, 0);
    _ErrorOutputToWnd("hidden too", "f", 1);
    KvErrorBox("x", "f", 1);
    _DebugOutput("counted");
    EXPECT_TRUE(KvErrorWindowLines().empty());
    EXPECT_TRUE(g_rec.vWindow.empty());
    EXPECT_TRUE(g_rec.vBoxes.empty());
    EXPECT_EQ(3, KvDebugOutput::GetErrorOutputCount());
    EXPECT_EQ(1, KvDebugOutput::GetDebugOutputCount());
    KvDebugOutput::ResetTestModeCounters();
    EXPECT_EQ(0, KvDebugOutput::GetErrorOutputCount());
}

TEST_F(DiagReport, ConsistencyCheckShowsTheStatementAndGoesOn)
{
    int cReached = 0;
    KV_CHECK(cReached == 1, "KvRfrSvr/Internal");
    const unsigned long nLine = __LINE__ - 1;
    ++cReached;
    KV_CHECK(cReached == 1, "KvRfrSvr/Internal");
    ASSERT_EQ(1u, g_rec.vBoxes.size());
    EXPECT_EQ("ERROR|Internal data structures corrupted in\nfile: KvRfrSvr/Internal\nline: " +
                  std::to_string(nLine) + "\nstatement: cReached == 1",
              g_rec.vBoxes[0]);
}

TEST_F(DiagReport, KvThrowSoundsShowsAndRaisesTheFirst255Bytes)
{
    const std::string str300(300, 'k');
    EXPECT_EQ(str300.substr(0, 255), KvThrownText([&] { KvThrow(str300.c_str()); }));
    EXPECT_EQ((std::vector<unsigned>{220, 440, 880, 440, 220, 440, 880}), g_rec.vFreqs);
    ASSERT_EQ(1u, g_rec.vBoxes.size());
    EXPECT_EQ(KvApplicationPath() + "|" + str300, g_rec.vBoxes[0]);

    // A multibyte character is not split at the cut.
    const std::string strUtf8 = std::string(254, 'a') + "\xC3\xA9" + "tail";
    KvThrowSetTestMode(true);
    EXPECT_EQ(std::string(254, 'a'), KvThrownText([&] { KvThrow(strUtf8.c_str()); }));
    EXPECT_EQ(1u, g_rec.vBoxes.size()) << "test mode: no box, no tones";
    EXPECT_EQ(7u, g_rec.vFreqs.size());
}

TEST_F(DiagReport, KvThrowWithASegmentDumpsTheStatistics)
{
    KvTestUseFreshNamespace();
    KvThrowSetTestMode(true);
    ASSERT_EQ(1, KvGranularity::_AllocSharedMem(kKvSegmentSize, kKvSegmentName));
    KvThrowSetTestMode(false);
    testing::internal::CaptureStdout();
    EXPECT_EQ("oops", KvThrownText([] { KvThrow("oops"); }));
    const std::string strOut = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, strOut.find("Granularity 0x8 : 0 objects\n")) << strOut;
    EXPECT_NE(std::string::npos, strOut.find("Total memory : 0 bytes\n"));
    EXPECT_EQ(0, KvGranularity::_FreeMem());
}

TEST_F(DiagReport, KvGranThrowPrefixesTheSegmentNameWithin259Characters)
{
    KvThrowSetTestMode(true);
    char szOld[sizeof(KvGranularity::_s_szMemName)];
    memcpy(szOld, KvGranularity::_s_szMemName, sizeof(szOld));
    strcpy(KvGranularity::_s_szMemName, "SEGNAME");
    EXPECT_EQ("SEGNAME: text", KvThrownText([] { KvGranThrow("text"); }));
    const std::string str300(300, 'g');
    const std::string strThrown = KvThrownText([&] { KvGranThrow(str300.c_str()); });
    EXPECT_EQ(("SEGNAME: " + str300).substr(0, 255), strThrown) << "KvThrow keeps 255 of the 259";
    memcpy(KvGranularity::_s_szMemName, szOld, sizeof(szOld));
}

// The default sink writes a box as one line to standard error.
TEST(DiagDefaultSink, MessageBoxGoesToStderrInOneLine)
{
    testing::internal::CaptureStderr();
    KvErrorBox("ptrMsg.IsNotNull()", "KvRfrSvr/Internal", 7);
    const std::string str = testing::internal::GetCapturedStderr();
    EXPECT_EQ("ERROR: Internal data structures corrupted in\nfile: KvRfrSvr/Internal\nline: 7\nstatement: "
              "ptrMsg.IsNotNull()\n",
              str);
}

}  // namespace
