// SegmentTestSupport.h - the shared test classes, and a fixture that attaches a
// fresh named segment for one test. Every process of a test (children too)
// registers the same classes in the same order before it attaches, so that all
// agree on every delete-function index and on the build fingerprint.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "KvCppMfc/Diag/KvDiag.h"
#include "KvCppMfc/Pool/KvGranularity.h"
#include "KvCppMfc/Shared/HybridList.h"
#include "KvCppMfc/Shared/KvSmartPtr.h"
#include "common/KvTestSupport.h"

constexpr uint32_t kKvSegmentSize = 0x4000000;
constexpr const char* kKvSegmentName = "KVRFRSVR_MEM";

#pragma pack(push, 1)
// A counted object that records its destruction. Its constructor hands itself
// out and drops it again, as model objects do: only the construction guard
// keeps the half-built object alive.
class KvTestObj : public KvSmartPtrTarget {
    KV_SHARED_CLASS(KvTestObj)

public:
    KvTestObj()
    {
        KvSmartPtr<KvSmartPtrTarget> ptrSelf = KvGetThisAsSmartPtr();
        m_iValue = 1;
    }
    ~KvTestObj() { sm_cDestroyed += 1; }

    int32_t m_iValue = 0;
    KvChildPtr<KvTestObj> m_ptrOwned;
    static inline int sm_cDestroyed = 0;
};

// An element of a hybrid list: a key and an identity.
class KvTestHln : public HListSimpleNode<KvTestHln> {
    KV_SHARED_CLASS(KvTestHln)

public:
    KvTestHln() {}
    KvTestHln(int32_t iKey, int32_t iId) : m_iKey(iKey), m_iId(iId) {}
    int Compare(const KvTestHln& o) const { return CompareKey(m_iKey, o); }
    static int CompareKey(int32_t iKey, const KvTestHln& o) { return iKey < o.m_iKey ? -1 : iKey > o.m_iKey ? 1 : 0; }

    int32_t m_iKey = 0;
    int32_t m_iId = 0;
};
#pragma pack(pop)

// Registers the test classes and attaches: 1 when made, 2 when joined.
inline int KvAttachTestSegment()
{
    KV_REGISTER_SHARED_CLASS(KvTestObj);
    KV_REGISTER_SHARED_CLASS(KvTestHln);
    KV_REGISTER_SHARED_CLASS(QTopNode<KvTestHln>);
    return KvGranularity::_AllocSharedMem(kKvSegmentSize, kKvSegmentName);
}

// A fresh namespace and segment per test, reports counted instead of shown; at
// the end every block went back and nothing is left in /dev/shm.
class KvSharedTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        KvTestUseFreshNamespace();
        KvThrowSetTestMode(true);
        KvDebugOutput::SetTestMode(true);
        ASSERT_EQ(1, KvAttachTestSegment());
        m_snap = KvTakePoolSnapshot();
        KvTestObj::sm_cDestroyed = 0;
    }
    void TearDown() override
    {
        EXPECT_TRUE(KvPoolsBalanced(m_snap));
        if (KvGranularity::_pvBase != nullptr) {
            EXPECT_EQ(0, KvGranularity::_FreeMem());
        }
        EXPECT_TRUE(KvTestNamespaceObjects().empty());
        KvDebugOutput::SetTestMode(false);
        KvThrowSetTestMode(false);
    }
    KvPoolSnapshot m_snap;
};
typedef KvSharedTest KvAttachedTest;  // for tests that need the segment only

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

// Waits up to 10 s for the marker; removes it when found.
inline bool KvTestWaitForMarker(const std::string& strPath)
{
    struct stat st;
    for (int i = 0; stat(strPath.c_str(), &st) != 0; ++i) {
        if (i > 5000)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    unlink(strPath.c_str());
    return true;
}
