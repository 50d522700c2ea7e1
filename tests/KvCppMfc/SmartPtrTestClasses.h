// SmartPtrTestClasses.h - shared classes and a fixture used by the tests of the
// counted objects, the lists and the string. Every test process (and every
// child it spawns) registers them in the same order before it attaches, so
// parent and child agree on every delete-function index.
#pragma once

#include <cstdint>
#include <string>

#include "KvCppMfc/Diag/KvDebugOutput.h"
#include "KvCppMfc/Pool/KvGranularity.h"
#include "KvCppMfc/Shared/HybridList.h"
#include "KvCppMfc/Shared/Kv1List.h"
#include "KvCppMfc/Shared/KvSmartPtr.h"
#include "common/KvTestSupport.h"

#pragma pack(push, 1)
// A counted object that records its destruction.
class KvTestObj : public KvSmartPtrTarget {
    KV_SHARED_CLASS(KvTestObj)

public:
    // Hands itself out and drops it again, as model objects do: only the
    // construction guard keeps the half-built object alive.
    KvTestObj()
    {
        KvSmartPtr<KvSmartPtrTarget> ptrSelf = KvGetThisAsSmartPtr();
        m_iValue = 1;
    }
    ~KvTestObj() { sm_cDestroyed += 1; }

    int32_t m_iValue = 0;
    KvChildPtr<KvTestObj> m_ptrOwned;  // ownership of a contained object

    static inline int sm_cDestroyed = 0;
};

// An element of a hybrid list: a key and an identity.
class KvTestHln : public HListSimpleNode<KvTestHln> {
    KV_SHARED_CLASS(KvTestHln)

public:
    KvTestHln() {}
    KvTestHln(int32_t iKey, int32_t iId) : m_iKey(iKey), m_iId(iId) {}

    int Compare(const KvTestHln& o) const
    {
        sm_cCompares += 1;
        return m_iKey < o.m_iKey ? -1 : m_iKey > o.m_iKey ? 1 : 0;
    }
    static int CompareKey(int32_t iKey, const KvTestHln& o)
    {
        sm_cCompares += 1;
        return iKey < o.m_iKey ? -1 : iKey > o.m_iKey ? 1 : 0;
    }

    int32_t m_iKey = 0;
    int32_t m_iId = 0;

    static inline uint64_t sm_cCompares = 0;
};
#pragma pack(pop)

typedef Kv1Node<KvSmartPtr<KvTestObj>> KvTestObjNode;
typedef Kv1Node<int32_t> KvTestIntNode;

// Same classes, same order, in every process of a test.
inline void KvRegisterContainerTestClasses()
{
    KV_REGISTER_SHARED_CLASS(KvTestObj);
    KV_REGISTER_SHARED_CLASS(KvTestObjNode);
    KV_REGISTER_SHARED_CLASS(KvTestIntNode);
    KV_REGISTER_SHARED_CLASS(KvTestHln);
    KV_REGISTER_SHARED_CLASS(QTopNode<KvTestHln>);
}

inline bool KvAttachTestSegment()
{
    KvRegisterContainerTestClasses();
    return KvGranularity::_AllocSharedMem(0x4000000, "KVRFRSVR_MEM") >= 1;
}

// A fresh namespace and segment per test; pools must balance at the end.
class KvSharedTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        KvTestUseFreshNamespace();
        KvThrowSetTestMode(true);
        KvDebugOutput::SetTestMode(true);
        KvDebugOutput::ResetTestModeCounters();
        try {
            ASSERT_TRUE(KvAttachTestSegment());
        } catch (const KvThrowText& ex) {
            FAIL() << "attaching failed: " << ex.m_sz;
        }
        m_snap = KvTakePoolSnapshot();
        KvTestObj::sm_cDestroyed = 0;
    }
    void TearDown() override
    {
        EXPECT_TRUE(KvPoolsBalanced(m_snap));
        KvGranularity::_FreeMem();
        KvDebugOutput::SetTestMode(false);
        KvThrowSetTestMode(false);
    }
    static long ErrorBoxes() { return KvDebugOutput::GetErrorOutputCount(); }

    KvPoolSnapshot m_snap;
};
