// KvBridgeTopicTest.cpp - node names to topic levels and back.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KvrsBridgeTopic.h"

namespace {

TEST(KvBridgeTopicTest, EveryNameRoundTripsThroughOneLevel)
{
    std::string strAllBytes;
    for (int b = 1; b < 256; ++b)
        strAllBytes += static_cast<char>(b);
    for (const std::string& strName :
         {std::string(), std::string("temp"), std::string("a.b"), std::string("%"), std::string("%25"),
          std::string("/"), std::string("+"), std::string("#"), std::string(" "), std::string("\xff\xfe"),
          std::string("temp\xc3\xa9rature"), strAllBytes}) {
        const std::string strLevel = KvrsBridgeEscapeName(strName);
        EXPECT_FALSE(strLevel.empty());
        EXPECT_EQ(std::string::npos, strLevel.find_first_of("/+# "));
        for (char ch : strLevel)  // plain ASCII, so always valid UTF-8
            EXPECT_TRUE(ch > 0x20 && ch < 0x7f) << strLevel;
        std::string strBack = "junk";
        EXPECT_TRUE(KvrsBridgeUnescapeLevel(strLevel, strBack)) << strLevel;
        EXPECT_EQ(strName, strBack);
    }
    EXPECT_EQ("%", KvrsBridgeEscapeName(""));
    EXPECT_EQ("a%2Fb%2Bc%23d%25e%20f", KvrsBridgeEscapeName("a/b+c#d%e f"));
}

TEST(KvBridgeTopicTest, LevelsFromPlainClientsAreTakenLenientlyButNeverAmbiguously)
{
    std::string strName;
    EXPECT_TRUE(KvrsBridgeUnescapeLevel("a%2fb", strName));
    EXPECT_EQ("a/b", strName);
    EXPECT_TRUE(KvrsBridgeUnescapeLevel("temp\xc3\xa9 x", strName));  // UTF-8 and space as they come
    EXPECT_EQ("temp\xc3\xa9 x", strName);
    for (const char* psz : {"", "%2", "a%", "%zz", "%00", "a+b", "#"})
        EXPECT_FALSE(KvrsBridgeUnescapeLevel(psz, strName)) << psz;
}

TEST(KvBridgeTopicTest, KeysJoinLevelsAndTopicsAreMatchedBelowTheRootOnly)
{
    const std::vector<std::string> vstrNames{"plant", "", "a/b", "x.y"};
    const std::string strKey = KvrsBridgeKeyOf(vstrNames);
    EXPECT_EQ("plant/%/a%2Fb/x.y", strKey);
    std::vector<std::string> vstrBack;
    EXPECT_TRUE(KvrsBridgeNamesOf(strKey, vstrBack));
    EXPECT_EQ(vstrNames, vstrBack);
    EXPECT_FALSE(KvrsBridgeNamesOf("plant//x", vstrBack));

    std::string strTopicKey;
    EXPECT_TRUE(KvrsBridgeKeyOfTopic("site/kvrs", "site/kvrs/plant/x", strTopicKey));
    EXPECT_EQ("plant/x", strTopicKey);
    EXPECT_FALSE(KvrsBridgeKeyOfTopic("site/kvrs", "site/kvrsx/plant", strTopicKey));
    EXPECT_FALSE(KvrsBridgeKeyOfTopic("site/kvrs", "site/kvrs/", strTopicKey));

    EXPECT_TRUE(KvrsBridgeKeyWithin("plant", "plant"));
    EXPECT_TRUE(KvrsBridgeKeyWithin("plant/x", "plant"));
    EXPECT_FALSE(KvrsBridgeKeyWithin("plants/x", "plant"));
}

}  // namespace
