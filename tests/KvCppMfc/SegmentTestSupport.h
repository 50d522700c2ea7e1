// SegmentTestSupport.h - a fixture that attaches a fresh named segment for one
// test, and small helpers for tests that let child processes meet at points.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "KvCppMfc/Diag/KvDebugOutput.h"
#include "KvCppMfc/Pool/KvGranularity.h"
#include "common/KvTestSupport.h"

constexpr uint32_t kKvSegmentSize = 0x4000000;
constexpr const char* kKvSegmentName = "KVRFRSVR_MEM";

// Attaches a fresh segment (a namespace of its own) with KvThrow in test mode;
// at the end checks that every block went back and nothing is left in /dev/shm.
class KvAttachedTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        KvTestUseFreshNamespace();
        KvThrowSetTestMode(true);
        ASSERT_EQ(1, KvGranularity::_AllocSharedMem(kKvSegmentSize, kKvSegmentName));
        m_snap = KvTakePoolSnapshot();
    }
    void TearDown() override
    {
        EXPECT_TRUE(KvPoolsBalanced(m_snap));
        if (KvGranularity::_pvBase != nullptr) {
            EXPECT_EQ(0, KvGranularity::_FreeMem());
        }
        EXPECT_TRUE(KvTestNamespaceObjects().empty());
        KvThrowSetTestMode(false);
    }
    KvPoolSnapshot m_snap;
};

// The text KvThrow raised from fn, or "<nothing thrown>".
template <class F>
std::string KvThrownText(F fn)
{
    try {
        fn();
    } catch (const KvThrowText& ex) {
        return ex.m_sz;
    }
    return "<nothing thrown>";
}

// A marker file through which a child tells that it reached a point.
inline std::string KvTestMarkerPath(const char* pszTag)
{
    return std::string("/tmp/kvtest.") + std::to_string(getpid()) + "." + pszTag;
}

inline void KvTestTouch(const std::string& strPath)
{
    if (FILE* pf = fopen(strPath.c_str(), "w"))
        fclose(pf);
}

// Waits up to cSeconds for the marker; removes it when found.
inline bool KvTestWaitForMarker(const std::string& strPath, int cSeconds = 10)
{
    const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(cSeconds);
    struct stat st;
    while (stat(strPath.c_str(), &st) != 0) {
        if (std::chrono::steady_clock::now() > tEnd)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    unlink(strPath.c_str());
    return true;
}
