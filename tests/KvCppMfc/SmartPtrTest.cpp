// Counted shared objects: creation, release, parent chains, ownership, and an
// object that dies in another process than the one that made it.
#include <unistd.h>

#include "SmartPtrTestClasses.h"

namespace {

#pragma pack(push, 1)
class KvTestUnregistered : public KvSmartPtrTarget {
    KV_SHARED_CLASS(KvTestUnregistered)

public:
    KvTestUnregistered() {}
};
#pragma pack(pop)

class SmartPtrTest : public KvSharedTest {
};

int32_t Smart(const KvSmartPtrTarget* p)
{
    return p->m_cSmart;
}

TEST_F(SmartPtrTest, NewObjectIsOwnedByItsPointerAndItsBlockIsReused)
{
    KvSmartPtr<KvTestObj> ptr(KvNewObject);
    KvTestObj* p = ptr.Get();
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(KvTestObj::sm_iDeleteFunction, +p->m_iDeleteFunction);
    EXPECT_EQ(1, +p->m_cSmart);
    EXPECT_EQ(0, +p->m_cChild);
    EXPECT_EQ(0, +p->m_bReserved);
    EXPECT_TRUE(p->m_ptrParent.IsNull());
    EXPECT_EQ(1, +p->m_iValue) << "the constructor ran to its end";
    EXPECT_EQ(0, KvTestObj::sm_cDestroyed) << "the guard kept the half-built object alive";

    ptr.RmvRef();
    EXPECT_TRUE(ptr.IsNull());
    EXPECT_EQ(1, KvTestObj::sm_cDestroyed);
    ptr.NewObject();
    EXPECT_EQ(p, ptr.Get()) << "the freed block is the next one of its class";
}

TEST_F(SmartPtrTest, CopiesAssignmentsAndMovesCountExactly)
{
    KvSmartPtr<KvTestObj> a(KvNewObject);
    KvSmartPtr<KvTestObj> b(KvNewObject);
    KvTestObj* pa = a.Get();
    {
        KvSmartPtr<KvTestObj> c(a);
        KvSmartPtr<KvSmartPtrTarget> d(a);  // conversion to the base
        EXPECT_EQ(3, Smart(pa));
        c = c;
        EXPECT_EQ(3, Smart(pa));
        c = b;
        EXPECT_EQ(2, Smart(pa));
        EXPECT_EQ(2, Smart(b.Get()));
        KvSmartPtr<KvTestObj> e(std::move(c));
        EXPECT_TRUE(c.IsNull());
        EXPECT_EQ(2, Smart(b.Get()));
    }
    EXPECT_EQ(1, Smart(pa));
    EXPECT_EQ(1, Smart(b.Get()));
    b = a;  // b's object dies here
    EXPECT_EQ(1, KvTestObj::sm_cDestroyed);
    EXPECT_EQ(2, Smart(pa));
    b.NewObject();  // releases a's unit first, then makes a new object
    EXPECT_EQ(1, Smart(pa));
    EXPECT_NE(pa, b.Get());
}

TEST_F(SmartPtrTest, SmartPointerToAChildCountsOnEveryAncestor)
{
    KvSmartPtr<KvTestObj> ptrG(KvNewObject), ptrQ(KvNewObject), ptrK(KvNewObject);
    KvTestObj *pG = ptrG.Get(), *pQ = ptrQ.Get(), *pK = ptrK.Get();
    ptrQ->SetParent(ptrG);
    ptrK->SetParent(ptrQ);
    EXPECT_EQ(3, Smart(pG));
    EXPECT_EQ(2, Smart(pQ));
    {
        KvSmartPtr<KvTestObj> ptrK2(ptrK);
        EXPECT_EQ(2, Smart(pK));
        EXPECT_EQ(3, Smart(pQ));
        EXPECT_EQ(4, Smart(pG));
        KvSmartPtr<KvSmartPtrTarget> ptrParent = pK->GetParent();
        EXPECT_EQ(pQ, ptrParent.Get());
        EXPECT_EQ(4, Smart(pQ));
    }
    EXPECT_EQ(1, Smart(pK));
    EXPECT_EQ(2, Smart(pQ));
    EXPECT_EQ(3, Smart(pG));

    // Only the child's unit keeps the ancestors now; its release takes all three.
    ptrG.RmvRef();
    ptrQ.RmvRef();
    EXPECT_EQ(0, KvTestObj::sm_cDestroyed);
    ptrK.RmvRef();
    EXPECT_EQ(3, KvTestObj::sm_cDestroyed);
}

TEST_F(SmartPtrTest, ReleasingTheLastHoldOfAParentClearsTheChildsLink)
{
    KvSmartPtr<KvTestObj> ptrOwner(KvNewObject), ptrQ(KvNewObject), ptrK(KvNewObject);
    KvTestObj* pK = ptrK.Get();
    ptrOwner->m_ptrOwned.Set(pK);  // K is owned (child unit) and so outlives its smart pointers
    EXPECT_EQ(1, +pK->m_cChild);
    pK->SetParent(ptrQ);
    ptrQ.RmvRef();
    EXPECT_EQ(0, KvTestObj::sm_cDestroyed) << "K's unit still holds Q";
    ptrK.RmvRef();
    EXPECT_EQ(1, KvTestObj::sm_cDestroyed) << "Q died with its last hold";
    EXPECT_TRUE(pK->m_ptrParent.IsNull());
    EXPECT_EQ(0, +pK->m_cSmart);
    ptrOwner.RmvRef();
    EXPECT_EQ(3, KvTestObj::sm_cDestroyed) << "the owner's child pointer took K along";
}

TEST_F(SmartPtrTest, SetParentMovesExactlyTheSmartUnits)
{
    KvSmartPtr<KvTestObj> ptrG(KvNewObject), ptrQ1(KvNewObject), ptrQ2(KvNewObject), ptrK(KvNewObject);
    ptrQ1->SetParent(ptrG);
    KvSmartPtr<KvTestObj> ptrK2(ptrK), ptrK3(ptrK);  // K: 3 units
    ptrK->SetParent(ptrQ1);
    EXPECT_EQ(4, Smart(ptrQ1.Get()));
    EXPECT_EQ(5, Smart(ptrG.Get()));

    ptrK->SetParent(ptrQ1);  // same parent: nothing
    EXPECT_EQ(4, Smart(ptrQ1.Get()));

    ptrK->SetParent(ptrQ2);
    EXPECT_EQ(1, Smart(ptrQ1.Get()));
    EXPECT_EQ(2, Smart(ptrG.Get()));
    EXPECT_EQ(4, Smart(ptrQ2.Get()));

    ptrK->SetParent(KvSmartPtr<KvSmartPtrTarget>());
    EXPECT_EQ(1, Smart(ptrQ2.Get()));
    EXPECT_EQ(3, Smart(ptrK.Get()));
    EXPECT_TRUE(ptrK->m_ptrParent.IsNull());

    // Moving away from a parent whose only holds were K's units deletes it.
    ptrK->SetParent(ptrQ2);
    ptrQ2.RmvRef();
    ptrK->SetParent(ptrQ1);
    EXPECT_EQ(1, KvTestObj::sm_cDestroyed);
    EXPECT_EQ(ptrQ1.Offset(), ptrK->m_ptrParent.Offset());
}

TEST_F(SmartPtrTest, ChildPointerGoingAwayLeavesSmartHoldersAlone)
{
    KvSmartPtr<KvTestObj> ptr(KvNewObject);
    {
        KvChildPtr<KvTestObj> ptrChild(ptr.Get());
        EXPECT_EQ(1, +ptr->m_cChild);
    }
    EXPECT_EQ(0, +ptr->m_cChild);
    EXPECT_EQ(0, KvTestObj::sm_cDestroyed);
    ptr.RmvRef();
    EXPECT_EQ(1, KvTestObj::sm_cDestroyed);

    // And the other way round: the child pointer holds it past the smart one.
    KvChildPtr<KvTestObj> ptrChild;
    {
        KvSmartPtr<KvTestObj> ptr2(KvNewObject);
        ptrChild.Set(ptr2.Get());
    }
    EXPECT_EQ(1, KvTestObj::sm_cDestroyed);
    ptrChild.Release();
    EXPECT_EQ(2, KvTestObj::sm_cDestroyed);
}

TEST_F(SmartPtrTest, InitRefOnAnUnheldObjectIsReportedAndNotDeleted)
{
    KvTestObj* p = KvNewShared<KvTestObj>();  // smart 1, child 1
    p->m_cSmart = 0;
    KvSmartPtr<KvTestObj> ptr;
    ptr.Attach(p);
    const long cBefore = ErrorBoxes();
    ptr.InitRef();
    EXPECT_EQ(cBefore + 1, ErrorBoxes());
    EXPECT_EQ(0, KvTestObj::sm_cDestroyed);
    p->m_cSmart = 1;  // give the pointer its unit back, so that it can release it
}

TEST_F(SmartPtrTest, UnregisteredClassIsRefused)
{
    EXPECT_THROW(KvNewShared<KvTestUnregistered>(), KvThrowText);
}

// The child attaches, takes over the unit parked in root slot 5 and releases it.
KV_CHILD_SCENARIO(SmartPtrReleaseInChild)
{
    (void)args;
    KvThrowSetTestMode(true);
    if (!KvAttachTestSegment())
        return 2;
    auto* p = static_cast<KvTestObj*>(KvGranularity::_GetRoot(5));
    if (p == nullptr || p->m_iValue != 42)
        return 3;
    KvSmartPtr<KvTestObj> ptr;
    ptr.Attach(p);
    ptr.RmvRef();
    KvGranularity::_SetRoot(nullptr, 5);
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

    EXPECT_EQ(0, KvTestWait(KvTestSpawn("SmartPtrReleaseInChild"), 60));
    EXPECT_EQ(0, KvTestObj::sm_cDestroyed) << "the destructor ran in the child, not here";
    EXPECT_EQ(nullptr, KvGranularity::_GetRoot(5));
    EXPECT_TRUE(KvPoolsBalanced(m_snap)) << "the block went back to its pool";
    KvSmartPtr<KvTestObj> ptrNext(KvNewObject);
    EXPECT_EQ(p, ptrNext.Get()) << "and is the next block handed out";
}

}  // namespace
