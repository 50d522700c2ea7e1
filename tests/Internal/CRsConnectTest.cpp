// Connections, notification and the clean-up of a departing process.
#include "CRsTestModel.h"

namespace {

void* H(uintptr_t u)
{
    return reinterpret_cast<void*>(u);
}

class CRsConnectTest : public CRsModelTest {
protected:
    // The client keys in list order, as (handle, process id).
    static std::vector<std::pair<uintptr_t, uint32_t>> Clients(const KvSmartPtr<CRsNode>& n)
    {
        std::vector<std::pair<uintptr_t, uint32_t>> vec;
        if (n->m_ptrRefreshInfo.IsNotNull())
            for (auto* p = n->m_ptrRefreshInfo->m_lstClients.GetFirst(); p != nullptr; p = p->GetNext())
                vec.emplace_back(p->GetKey().m_uTarget, p->GetKey().m_dwPrcsId);
        return vec;
    }
    // Releases the proxy part of filled records, as the caller's proxies would.
    static void ReleaseRecords(CRsConnectInfo* a, int c)
    {
        for (int i = 0; i < c; ++i)
            if (a[i].m_pvQueue != nullptr)
                KvReleaseSmartUnit(static_cast<KvSmartPtrTarget*>(
                    KvGranularity::_CalcPtr(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(a[i].m_pvQueue)))));
    }
};

TEST_F(CRsConnectTest, ClientsAreKeyedByHandleThenProcess)
{
    {
        KvSmartPtr<CRsNode> n = MakeNode(KvSmartPtr<CRsNode>(), "n");
        KvSmartPtr<CRsQueue>& q = g_ptrThisPrcsQueue;
        const uint32_t P = q->GetProcessId();
        KvSmartPtr<CRsQueue> q2(KvNewObject);  // another queue of this process
        KvSmartPtr<CRsQueue> qHigh = MakeQueue(P + 5), qLow = MakeQueue(P - 1);
        n->ConnectClient(H(7), 1, q);
        n->ConnectClient(H(7), 2, q2);  // same handle and process: the same client
        n->ConnectClient(H(7), 3, qHigh);
        n->ConnectClient(H(7), 4, qLow);
        n->ConnectClient(H(~uintptr_t(0)), 5, q);  // handles compare unsigned
        n->ConnectClient(H(1), 6, q);
        EXPECT_EQ(5, n->GetClientCount());
        EXPECT_EQ((std::vector<std::pair<uintptr_t, uint32_t>>{
                      {1, P}, {7, P - 1}, {7, P}, {7, P + 5}, {~uintptr_t(0), P}}),
                  Clients(n));

        // The merged client took the second queue and id, and counts 2.
        CRsConnectInfo a[6] = {};
        n->EnumClients(a, 0);
        EXPECT_EQ(nullptr, a[0].m_pvQueue);
        n->EnumClients(a, 6);
        EXPECT_EQ(q2.Offset(), reinterpret_cast<uintptr_t>(a[2].m_pvQueue));
        EXPECT_EQ(q2->GetId(), a[2].m_dwQueueId);
        EXPECT_EQ(2u, a[2].idTarget);
        EXPECT_EQ(nullptr, a[5].m_pvQueue);
        n->EnumClients(a, 1);  // refilling releases what the record held
        ReleaseRecords(a, 6);

        q->AddMsgFiFo(KvSmartPtr<CRsMsg>(KvNewObject));
        n->NotifyClients(1, KvSmartPtr<CRsValue>(), false);
        EXPECT_EQ(1 + 2, q->GetMsgCount());
        EXPECT_EQ(1, q2->GetMsgCount());
        n->DisconnectClient(H(7), 0);  // count 2 -> 1: stays, messages stay
        n->DisconnectClient(H(9), 0);  // nobody: nothing
        EXPECT_EQ(5, n->GetClientCount());
        EXPECT_EQ(1, q2->GetMsgCount());
        n->DisconnectClient(H(7), 0);  // count 0: gone with its messages
        EXPECT_EQ(4, n->GetClientCount());
        EXPECT_EQ(0, q2->GetMsgCount());
        EXPECT_EQ(1, qHigh->GetMsgCount());  // another process's client of that handle stays
        Drain(q);
        Drain(qHigh);
        Drain(qLow);
    }
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

TEST_F(CRsConnectTest, OneServerDisconnectEndsAnyNumberOfConnects)
{
    {
        KvSmartPtr<CRsNode> n = MakeNode(KvSmartPtr<CRsNode>(), "n");
        CRsConnectInfo info = {H(0), 0, H(0x55), 0x66};
        n->GetServer(&info);
        EXPECT_EQ(H(0x55), info.pvTarget);
        KvSmartPtr<CRsQueue> q1(KvNewObject), q2(KvNewObject);
        n->ConnectServer(H(1), 1, q1);
        n->NotifyServer(3, KvSmartPtr<CRsValue>(), false);
        n->ConnectServer(H(2), 2, q2);  // the same server takes the new target and queue
        n->GetServer(&info);
        EXPECT_EQ(H(2), info.pvTarget);
        EXPECT_EQ(q2.Offset(), reinterpret_cast<uintptr_t>(info.m_pvQueue));
        ReleaseRecords(&info, 1);
        EXPECT_EQ(2, int32_t(n->m_ptrRefreshInfo->m_ptrServer->m_cConnect));
        n->DisconnectServer();
        EXPECT_TRUE(n->m_ptrRefreshInfo->m_ptrServer.IsNull());
        EXPECT_EQ(1, q1->GetMsgCount());  // the old queue keeps what it got
        Drain(q1);
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

TEST_F(CRsConnectTest, DisconnectProcessRemovesOnlyTheRunAfterTheKey)
{
    CRsReportCapture cap;
    {
        KvSmartPtr<CRsQueue>& q = g_ptrThisPrcsQueue;
        const uint32_t P = q->GetProcessId();
        KvSmartPtr<CRsQueue> qOther = MakeQueue(P + 1);
        KvSmartPtr<CRsNode> top = MakeNode(KvSmartPtr<CRsNode>(), "top");
        KvSmartPtr<CRsNode> c = MakeNode(top, "c");
        top->ConnectServer(H(1), 1, q);
        c->ConnectServer(H(1), 1, qOther);
        c->ConnectClient(H(0), 1, q);
        c->ConnectClient(H(3), 1, q);
        c->ConnectClient(H(3), 1, q);  // count 2: its messages stay
        c->ConnectClient(H(4), 1, qOther);
        c->ConnectClient(H(9), 1, q);  // behind another process's entry: stays
        c->NotifyClients(1, KvSmartPtr<CRsValue>(), false);
        top->NotifyServer(1, KvSmartPtr<CRsValue>(), false);
        EXPECT_EQ(3 + 1, q->GetMsgCount());
        // The unlinked entries are not destroyed; remember them to give them back.
        std::vector<CRsConnectHln*> vecEntries;
        for (auto* p = c->m_ptrRefreshInfo->m_lstClients.GetFirst(); p != nullptr; p = p->GetNext())
            vecEntries.push_back(p);

        top->DisconnectProcess(true);

        EXPECT_TRUE(top->m_ptrRefreshInfo->m_ptrServer.IsNull());
        EXPECT_TRUE(c->m_ptrRefreshInfo->m_ptrServer.IsNotNull());  // another process's server
        EXPECT_EQ((std::vector<std::pair<uintptr_t, uint32_t>>{{4, P + 1}, {9, P}}), Clients(c));
        // Left: the messages of the client of count 2 and of the one behind the run.
        std::vector<void*> vecTargets;
        for (auto& m : Drain(q))
            vecTargets.push_back(static_cast<void*>(m->m_pvMsgTarget));
        EXPECT_EQ((std::vector<void*>{H(3), H(9)}), vecTargets);
        EXPECT_EQ(0u, cap.Statements().size());
        for (auto* p : {vecEntries[0], vecEntries[1]})
            KvDeleteShared(p);
        Drain(qOther);
    }
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

}  // namespace
