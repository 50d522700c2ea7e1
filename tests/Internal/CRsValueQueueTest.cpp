// Values (storage classes, sharing) and queues (FIFO/LIFO, removal by target,
// the owner check).
#include <cstring>

#include "CRsTestModel.h"

namespace {

class CRsValueQueueTest : public CRsModelTest {
protected:
    static int64_t PoolNet(uint32_t cb)
    {
        return KvTakePoolSnapshot().aNet[KvGranularity::_IndexForSize(cb)];
    }
    static KvSmartPtr<CRsMsg> Msg(void* pvTarget, uint32_t idTarget, uint32_t dwMsg)
    {
        KvSmartPtr<CRsMsg> ptr(KvNewObject);
        ptr->m_pvMsgTarget = pvTarget;
        ptr->m_idMsgTarget = idTarget;
        ptr->m_dwMsg = dwMsg;
        return ptr;
    }
};

TEST_F(CRsValueQueueTest, ValueBytesTakeTheirExactSizeClass)
{
    {
        KvSmartPtr<CRsValue> v(KvNewObject);
        EXPECT_EQ(0, v->GetByteCount());
        EXPECT_EQ(0u, v->GetValueType());
        char ab[8] = {};
        v->GetBytes(ab);  // copies nothing
        const int64_t c8 = PoolNet(8);
        v->SetBytes("12345", 5);
        EXPECT_EQ(c8 + 1, PoolNet(8));
        v->SetBytes("abc", 3);
        EXPECT_EQ(3, v->GetByteCount());
        v->GetBytes(ab);
        EXPECT_EQ(0, memcmp(ab, "abc\0\0", 5));
        const int64_t c4096 = PoolNet(4096);
        std::string str(1500, 'z');
        v->SetBytes(str.data(), 1500);  // no 2048 class: the 4096 pool
        EXPECT_EQ(c4096 + 1, PoolNet(4096));
        v->SetValueType(77);
        v->SetBytes("x", 0);
        EXPECT_EQ(0, v->GetByteCount());
        EXPECT_TRUE(v->m_pvStorage.IsNull());
        EXPECT_EQ(c4096, PoolNet(4096));
        v->SetBytes("x", 1);
        v->SetBytes("x", -4);
        EXPECT_EQ(0, v->GetByteCount());
        v->SetBytes(nullptr, 4);
        EXPECT_EQ(0, v->GetByteCount());
        EXPECT_EQ(77u, v->GetValueType());
        v->SetBytes("keep", 4);  // freed with the value
    }
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

TEST_F(CRsValueQueueTest, ValuesAreSharedNotCopied)
{
    {
        KvSmartPtr<CRsNode> n = MakeNode(KvSmartPtr<CRsNode>(), "n");
        KvSmartPtr<CRsValue> v(KvNewObject);
        n->SetValue(v);
        v->SetBytes("new", 3);
        EXPECT_EQ(v, n->GetValue());
        EXPECT_EQ(3, n->GetValue()->GetByteCount());
        n->SetValue(KvSmartPtr<CRsValue>());  // the value bit stays set with a null value
        EXPECT_TRUE(n->HasValue());
        EXPECT_TRUE(n->GetValue().IsNull());
    }
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

TEST_F(CRsValueQueueTest, FifoAndLifo)
{
    {
        KvSmartPtr<CRsQueue> q(KvNewObject);
        EXPECT_STREQ("", q->GetName());
        EXPECT_TRUE(q->GetMsg().IsNull());
        q->AddMsgFiFo(Msg(nullptr, 0, 1));
        q->AddMsgFiFo(Msg(nullptr, 0, 2));
        q->AddMsgLiFo(Msg(nullptr, 0, 3));
        EXPECT_EQ(3, q->GetMsgCount());
        EXPECT_EQ(3u, uint32_t(q->GetMsg()->m_dwMsg));
        EXPECT_EQ(1u, uint32_t(q->GetMsg()->m_dwMsg));
        EXPECT_EQ(2u, uint32_t(q->GetMsg()->m_dwMsg));
        EXPECT_TRUE(q->GetMsg().IsNull());
        q->AddMsgFiFo(Msg(nullptr, 0, 4));  // the queue's destructor releases it
    }
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

TEST_F(CRsValueQueueTest, RemoveMsgsForTargetMatchesTheHandleAndReportsIdMismatch)
{
    CRsReportCapture cap;
    {
        KvSmartPtr<CRsQueue> q(KvNewObject);
        void* const pvA = reinterpret_cast<void*>(0xA0);
        void* const pvB = reinterpret_cast<void*>(0xB0);
        for (uint32_t i = 1; i <= 6; ++i)
            q->AddMsgFiFo(Msg(i == 1 || i == 4 || i == 6 ? pvA : pvB, i == 4 ? 99 : 1, i));
        q->RemoveMsgsForTarget(pvA, 1);  // head, middle and tail
        EXPECT_EQ(1u, cap.Count("ptrAct->m_idMsgTarget == idMsgTarget"));
        auto& lst = q->m_ptrMsgList->m_lst;
        EXPECT_EQ(3, lst.GetCount());
        EXPECT_EQ(5u, uint32_t(lst.GetTail()->m_data->m_dwMsg));
        q->AddMsgFiFo(Msg(pvB, 1, 7));  // the tail link is intact
        q->RemoveMsgsForTarget(pvB, 1);
        EXPECT_EQ(0, lst.GetCount());
        EXPECT_TRUE(lst.GetHead().IsNull());
        EXPECT_TRUE(lst.GetTail().IsNull());
    }
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

TEST_F(CRsValueQueueTest, GetMsgFromAnotherProcessIsReportedAndStillTakes)
{
    CRsReportCapture cap;
    {
        KvSmartPtr<CRsQueue> q = MakeQueue(KvGetCurrentProcessId() + 1);
        q->AddMsgFiFo(Msg(nullptr, 0, 9));
        KvSmartPtr<CRsMsg> m = q->GetMsg();
        ASSERT_TRUE(m.IsNotNull());
        EXPECT_EQ(9u, uint32_t(m->m_dwMsg));
        EXPECT_EQ(1u, cap.Count("m_dwPrcsId == GetCurrentProcessId()"));
        EXPECT_EQ(0, q->GetMsgCount());
    }
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

}  // namespace
