// Counted shared objects: creation, exact counting, parent chains, ownership,
// and an object that dies in another process than the one that made it.
#include "SegmentTestSupport.h"

namespace {

typedef KvSharedTest SmartPtrTest;

#pragma pack(push, 1)
class KvTestUnregistered : public KvSmartPtrTarget {
    KV_SHARED_CLASS(KvTestUnregistered)
};
#pragma pack(pop)

int32_t Smart(const KvSmartPtrTarget* p)
{
    return p->m_cSmart;
}

TEST_F(SmartPtrTest, CopiesAssignmentsAndMovesCountExactly)
{
    KvSmartPtr<KvTestObj> a(KvNewObject), b(KvNewObject);
    KvTestObj* pa = a.Get();
    EXPECT_EQ(1, Smart(pa));
    EXPECT_EQ(1, +pa->m_iValue) << "the constructor ran to its end";
    EXPECT_EQ(0, KvTestObj::sm_cDestroyed) << "the guard kept the half-built object alive";
    {
        KvSmartPtr<KvTestObj> c(a);
        KvSmartPtr<KvSmartPtrTarget> d(a);  // conversion to the base
        c = c;
        EXPECT_EQ(3, Smart(pa));
        c = b;
        EXPECT_EQ(2, Smart(pa));
        KvSmartPtr<KvTestObj> e(std::move(c));
        EXPECT_TRUE(c.IsNull());
        EXPECT_EQ(2, Smart(b.Get()));
    }
    EXPECT_EQ(1, Smart(pa));
    b = a;  // b's object dies here
    EXPECT_EQ(1, KvTestObj::sm_cDestroyed);
    b.RmvRef();
    a.RmvRef();
    EXPECT_EQ(2, KvTestObj::sm_cDestroyed);
    a.NewObject();
    EXPECT_EQ(pa, a.Get()) << "the freed block is the next one of its class";
    EXPECT_THROW(KvNewShared<KvTestUnregistered>(), KvThrowText);
}

TEST_F(SmartPtrTest, SetParentMovesExactlyTheSmartUnitsUpTheChain)
{
    KvSmartPtr<KvTestObj> ptrG(KvNewObject), ptrQ1(KvNewObject), ptrQ2(KvNewObject), ptrK(KvNewObject);
    ptrQ1->SetParent(ptrG);
    KvSmartPtr<KvTestObj> ptrK2(ptrK), ptrK3(ptrK);  // K: 3 units
    ptrK->SetParent(ptrQ1);
    ptrK->SetParent(ptrQ1);  // same parent: nothing
    EXPECT_EQ(4, Smart(ptrQ1.Get()));
    EXPECT_EQ(5, Smart(ptrG.Get()));
    ptrK->SetParent(ptrQ2);
    EXPECT_EQ(1, Smart(ptrQ1.Get()));
    EXPECT_EQ(2, Smart(ptrG.Get()));
    EXPECT_EQ(4, Smart(ptrQ2.Get()));
    ptrK->SetParent(KvSmartPtr<KvSmartPtrTarget>());
    EXPECT_EQ(1, Smart(ptrQ2.Get()));
    EXPECT_EQ(3, Smart(ptrK.Get()));
    // Moving away from a parent whose only holds were K's units deletes it.
    ptrK->SetParent(ptrQ2);
    ptrQ2.RmvRef();
    ptrK->SetParent(ptrQ1);
    EXPECT_EQ(1, KvTestObj::sm_cDestroyed);
    EXPECT_EQ(ptrQ1.Get(), ptrK->GetParent().Get());
    // Only K's units keep Q1 and G now; releasing them takes all three.
    ptrG.RmvRef();
    ptrQ1.RmvRef();
    EXPECT_EQ(1, KvTestObj::sm_cDestroyed);
    ptrK.RmvRef();
    ptrK2.RmvRef();
    ptrK3.RmvRef();
    EXPECT_EQ(4, KvTestObj::sm_cDestroyed);
}

// The child takes over the unit parked in root slot 5 and releases it.
KV_CHILD_SCENARIO(SmartPtrReleaseInChild)
{
    (void)args;
    KvThrowSetTestMode(true);
    if (KvAttachTestSegment() != 2)
        return 2;
    auto* p = static_cast<KvTestObj*>(KvGranularity::_SetRoot(nullptr, 5));
    if (p == nullptr || p->m_iValue != 42)
        return 3;
    KvSmartPtr<KvTestObj> ptr;
    ptr.Attach(p);
    ptr.RmvRef();
    const int iExit = KvTestObj::sm_cDestroyed == 1 ? 0 : 4;
    KvGranularity::_FreeMem();
    return iExit;
}

TEST_F(SmartPtrTest, ObjectReleasedLastInAnotherProcessDiesThere)
{
    KvSmartPtr<KvTestObj> ptr(KvNewObject);
    KvTestObj* p = ptr.Get();
    p->m_iValue = 42;
    KvGranularity::_SetRoot(p, 5);
    ptr.Detach();  // the unit now belongs to whoever takes it from the slot
    EXPECT_EQ(0, KvTestWait(KvTestSpawn("SmartPtrReleaseInChild")));
    EXPECT_EQ(0, KvTestObj::sm_cDestroyed) << "the destructor ran in the child, not here";
    EXPECT_TRUE(KvPoolsBalanced(m_snap)) << "the block went back to its pool";
}

}  // namespace
