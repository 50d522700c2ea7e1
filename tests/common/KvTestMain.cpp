// KvTestMain.cpp - main of every test executable: runs a child scenario when
// asked (--kv-child=NAME), else the Google Test cases.
#include "common/KvTestSupport.h"

int main(int argc, char** argv)
{
    int iExit = 0;
    if (KvRunChildScenarioIfAsked(argc, argv, &iExit))
        return iExit;
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
