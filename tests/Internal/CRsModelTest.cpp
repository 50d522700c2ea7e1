// The object model: references and reference cycles, duplicates and what
// RemoveChild leaves behind, the walk of a notification through subtrees and
// references, and the removal of a target's messages from a queue.
#include "CRsTestModel.h"

namespace {

typedef CRsModelTest CRsTreeTest;
typedef CRsModelTest CRsConnectTest;

TEST_F(CRsTreeTest, ReferencesAreFollowed)
{
    {
        KvSmartPtr<CRsNode> ptrRoot = MakeNode(KvSmartPtr<CRsNode>(), "top");
        KvSmartPtr<CRsNode> q = MakeNode(ptrRoot, "q");
        KvSmartPtr<CRsNode> x = MakeNode(q, "x");
        KvSmartPtr<CRsNode> r = MakeNode(ptrRoot, "r");
        KvSmartPtr<CRsNode> r2 = MakeNode(ptrRoot, "r2");
        r->SetRef(q);
        r2->SetRef(r);  // a chain
        EXPECT_EQ(2u, r->GetType());
        EXPECT_EQ(x, ptrRoot->GetDescendant("r.x"));
        EXPECT_EQ(x, ptrRoot->GetDescendant("r2.x"));
        KvSmartPtr<CRsNode> y = MakeNode(r2, "y");  // lands in q through both references
        EXPECT_EQ(2, q->GetChildCount());
        EXPECT_EQ(2, r2->GetChildCount());
        r2->RemoveChild("y");
        EXPECT_EQ(1, q->GetChildCount());
        KvDeleteShared(y->m_pHln.Get());  // the unlinked entry still held y
        // A reference to a node of the same tree holds that tree's top: drop
        // the references, or the tree would hold itself.
        r->m_ptrRef.RmvRef();
        r2->m_ptrRef.RmvRef();
    }
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

TEST_F(CRsTreeTest, ReferenceCycleIsBoundedAndReported)
{
    {
        KvSmartPtr<CRsNode> a = MakeNode(KvSmartPtr<CRsNode>(), "a");
        KvSmartPtr<CRsNode> b = MakeNode(KvSmartPtr<CRsNode>(), "b");
        a->SetRef(b);
        b->SetRef(a);
        EXPECT_TRUE(a->GetChild("x").IsNull());
        EXPECT_TRUE(a->GetValue().IsNull());
        EXPECT_EQ(0, a->GetChildCount());
        EXPECT_EQ(3, Reports()) << "one for each walk that met the cycle";
        b->SetRef(KvSmartPtr<CRsNode>());  // break the cycle so both can die
    }
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

TEST_F(CRsTreeTest, DuplicatesKeepOrderAndRemoveChildOnlyUnlinks)
{
    {
        KvSmartPtr<CRsNode> p = MakeNode(KvSmartPtr<CRsNode>(), "p");
        KvSmartPtr<CRsNode> c = MakeNode(p, "a");
        KvSmartPtr<CRsNode> d1 = MakeNode(p, "dup", 0x100);
        KvSmartPtr<CRsNode> d2 = MakeNode(p, "dup", 0x200);
        EXPECT_EQ(d1, p->GetChild("dup"));
        EXPECT_TRUE(p->GetChild("Dup").IsNull());
        p->RemoveChild("dup");
        EXPECT_EQ(d2, p->GetChild("dup"));
        EXPECT_EQ(2, p->GetChildCount());
        // Only unlinked: the child lives on with its parent and entry links.
        EXPECT_EQ(p.Offset(), d1->m_ptrParent.Offset());
        ASSERT_TRUE(d1->m_pHln.IsNotNull());
        EXPECT_EQ(d1.Get(), d1->m_pHln->m_ptr.Get());
        EXPECT_TRUE(d1->GetNextSibling().IsNull());
        KvDeleteShared(d1->m_pHln.Get());  // what the tree no longer does for it
        EXPECT_TRUE(d1->m_pHln.IsNull());

        p->AddChild(p);  // a node never becomes its own descendant
        c->AddChild(p);
        EXPECT_EQ(0, c->GetChildCount());
        EXPECT_EQ(2, p->GetChildCount());
    }
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

TEST_F(CRsConnectTest, NotificationWalksSubtreesAndReferences)
{
    {
        KvSmartPtr<CRsQueue>& q = g_ptrThisPrcsQueue;
        KvSmartPtr<CRsNode> top = MakeNode(KvSmartPtr<CRsNode>(), "top");
        KvSmartPtr<CRsNode> a = MakeNode(top, "a"), b = MakeNode(top, "b"), ax = MakeNode(a, "x");
        KvSmartPtr<CRsNode> t = MakeNode(KvSmartPtr<CRsNode>(), "t"), tc = MakeNode(t, "c");
        KvSmartPtr<CRsNode> r = MakeNode(b, "r");
        r->SetRef(t);
        for (auto* p : {top.Get(), a.Get(), b.Get(), ax.Get(), t.Get(), tc.Get(), r.Get()})
            p->ConnectClient(H(reinterpret_cast<uintptr_t>(p)), 1, q);
        t->ConnectClient(H(1), 2, MakeQueue(q->GetProcessId()));  // two clients on t
        KvSmartPtr<CRsValue> v(KvNewObject);

        top->NotifyClients(0x10005, v, false);  // only top; front of the queue
        auto vec = Drain(q);
        ASSERT_EQ(1u, vec.size());
        EXPECT_EQ(5u, uint32_t(vec[0]->m_dwMsg));
        EXPECT_EQ(top, vec[0]->m_ptrNode);
        EXPECT_EQ(v, vec[0]->m_ptrValue);

        top->NotifyClients(1, v, true);  // depth first, parent first, no reference crossing
        std::vector<CRsNode*> vecNodes;
        for (auto& m : Drain(q))
            vecNodes.push_back(m->m_ptrNode.Get());
        EXPECT_EQ((std::vector<CRsNode*>{top.Get(), a.Get(), ax.Get(), b.Get(), r.Get()}), vecNodes);

        r->NotifyClients(2, v, false);  // bit 2 crosses, and always recursively
        vecNodes.clear();
        for (auto& m : Drain(q))
            vecNodes.push_back(m->m_ptrNode.Get());
        EXPECT_EQ((std::vector<CRsNode*>{r.Get(), t.Get(), tc.Get()}), vecNodes);

        a->SetParentFlag(false);  // a child list without the parent bit is not walked
        a->NotifyClients(1, v, true);
        EXPECT_EQ(1u, Drain(q).size());
        r->m_ptrRef.RmvRef();
        // The refresh infos go with their nodes, leaving queued messages alone.
        t->m_ptrRefreshInfo.RmvRef();
    }
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

class CRsValueQueueTest : public CRsModelTest {
protected:
    static KvSmartPtr<CRsMsg> Msg(void* pvTarget, uint32_t idTarget, uint32_t dwMsg)
    {
        KvSmartPtr<CRsMsg> ptr(KvNewObject);
        ptr->m_pvMsgTarget = pvTarget;
        ptr->m_idMsgTarget = idTarget;
        ptr->m_dwMsg = dwMsg;
        return ptr;
    }
};

TEST_F(CRsValueQueueTest, RemoveMsgsForTargetMatchesTheHandleAndReportsIdMismatch)
{
    {
        KvSmartPtr<CRsQueue> q(KvNewObject);
        for (uint32_t i = 1; i <= 6; ++i)
            q->AddMsgFiFo(Msg(i == 1 || i == 4 || i == 6 ? H(0xA0) : H(0xB0), i == 4 ? 99 : 1, i));
        q->RemoveMsgsForTarget(H(0xA0), 1);  // head, middle and tail
        EXPECT_EQ(1, Reports()) << "the message of the other id";
        auto& lst = q->m_ptrMsgList->m_lst;
        EXPECT_EQ(3, lst.GetCount());
        EXPECT_EQ(5u, uint32_t(lst.GetTail()->m_data->m_dwMsg));
        q->AddMsgFiFo(Msg(H(0xB0), 1, 7));  // the tail link is intact
        q->RemoveMsgsForTarget(H(0xB0), 1);
        EXPECT_EQ(0, lst.GetCount());
        EXPECT_TRUE(lst.GetHead().IsNull());
        EXPECT_TRUE(lst.GetTail().IsNull());
        q->AddMsgFiFo(Msg(nullptr, 0, 8));  // the queue's destructor releases it
    }
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

// A value whose storage outlived its count reports the check under the module
// and line that the system has always named, and goes on.
TEST_F(CRsValueQueueTest, ABrokenByteCountIsReportedAtItsFixedLine)
{
    static std::string s_strBox;
    const KvUiSink sinkOld =
        KvSetUiSink({[](const char* pszText, const char*) { s_strBox = pszText; }, [](unsigned, unsigned) {}, nullptr});
    KvDebugOutput::SetTestMode(false);
    {
        KvSmartPtr<CRsValue> v(KvNewObject);
        v->SetBytes("abcd", 4);
        char* pchStorage = v->m_pvStorage.Get();
        v->m_cBytes = 0;
        v->SetBytes("xy", 2);
        KvGranularity::_Free(pchStorage, 4, KvGranularity::_GetDefaultWatcher());  // what the check left behind
        EXPECT_EQ(2, v->GetByteCount()) << "the operation went on";
    }
    KvDebugOutput::SetTestMode(true);
    KvSetUiSink(sinkOld);
    EXPECT_EQ("Internal data structures corrupted in\nfile: KvRfrSvr/Internal\nline: 38\nstatement: m_cBytes > 0",
              s_strBox);
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

}  // namespace
