// Message boxes and tones through the sink, the internal-error box and KvThrow.
#include <vector>

#include "KvCppMfc/Platform/KvPlatform.h"
#include "SegmentTestSupport.h"

namespace {

std::vector<std::string> g_vBoxes;  // caption + "|" + text
int g_cTones = 0;

// Replaces the sink for one test and records what reaches it.
class DiagReport : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_vBoxes.clear();
        g_cTones = 0;
        m_sinkOld = KvSetUiSink({[](const char* pszText, const char* pszCaption) {
                                     g_vBoxes.push_back(std::string(pszCaption) + "|" + pszText);
                                 },
                                 [](unsigned, unsigned) { ++g_cTones; }, nullptr});
    }
    void TearDown() override
    {
        KvSetUiSink(m_sinkOld);
        KvDebugOutput::SetTestMode(false);
        KvThrowSetTestMode(false);
    }
    KvUiSink m_sinkOld{};
};

TEST_F(DiagReport, ConsistencyCheckShowsTheStatementAndGoesOn)
{
    int cReached = 0;
    KV_CHECK(cReached == 1, "KvRfrSvr/Internal");
    const unsigned long nLine = __LINE__ - 1;
    ++cReached;
    KV_CHECK(cReached == 1, "KvRfrSvr/Internal");
    ASSERT_EQ(1u, g_vBoxes.size());
    EXPECT_EQ("ERROR|Internal data structures corrupted in\nfile: KvRfrSvr/Internal\nline: " + std::to_string(nLine) +
                  "\nstatement: cReached == 1",
              g_vBoxes[0]);
}

TEST_F(DiagReport, KvThrowSoundsShowsAndRaisesTheFirst255BytesWithoutSplittingACharacter)
{
    const std::string str300(300, 'k');
    EXPECT_EQ(str300.substr(0, 255), KvThrownText([&] { KvThrow(str300.c_str()); }));
    EXPECT_LT(0, g_cTones);
    ASSERT_EQ(1u, g_vBoxes.size());
    EXPECT_EQ(KvApplicationPath() + "|" + str300, g_vBoxes[0]);

    const std::string strUtf8 = std::string(254, 'a') + "\xC3\xA9" + "tail";
    KvThrowSetTestMode(true);
    const int cTones = g_cTones;
    EXPECT_EQ(std::string(254, 'a'), KvThrownText([&] { KvThrow(strUtf8.c_str()); }));
    EXPECT_EQ(1u, g_vBoxes.size()) << "test mode: no box, no tones";
    EXPECT_EQ(cTones, g_cTones);
}

}  // namespace
