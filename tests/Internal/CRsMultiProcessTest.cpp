// Two processes on one tree: client order by process id, the clean-up of one
// process, and the owner check of GetMsg. The shared node sits in root slot 3,
// where the child scenarios find it.
#include <cstdlib>

#include "CRsTestModel.h"

namespace {

constexpr int SLOT = 3;

void* H(uintptr_t u)
{
    return reinterpret_cast<void*>(u);
}

KvSmartPtr<CRsNode> SharedNode()
{
    return KvSmartPtr<CRsNode>(static_cast<CRsNode*>(KvGranularity::_GetRoot(SLOT)));
}

// Connects this process as a client of the shared node under each given handle.
KV_CHILD_SCENARIO(ConnectClients)
{
    CRsTestAttach(false);
    for (const auto& str : args)
        SharedNode()->ConnectClient(H(std::stoul(str)), 1, g_ptrThisPrcsQueue);
    CRsTestDetach();
    return 0;
}

// Connects clients 1, 2 (twice) and 5, notifies them, runs the process clean-up
// and exits with the bit set of the handles whose messages are left in its queue.
KV_CHILD_SCENARIO(ConnectNotifyAndLeave)
{
    (void)args;
    CRsTestAttach(false);
    KvSmartPtr<CRsNode> n = SharedNode();
    for (uintptr_t u : {1, 2, 2, 5})
        n->ConnectClient(H(u), 1, g_ptrThisPrcsQueue);
    n->NotifyClients(1, KvSmartPtr<CRsValue>(), false);
    std::vector<CRsConnectHln*> vecMine;
    for (auto* p = n->m_ptrRefreshInfo->m_lstClients.GetFirst(); p != nullptr; p = p->GetNext())
        if (p->m_ptr->IsThisPrcs())
            vecMine.push_back(p);
    n->DisconnectProcess(false);
    int iBits = 0;
    for (KvSmartPtr<CRsMsg> m = g_ptrThisPrcsQueue->GetMsg(); m.IsNotNull(); m = g_ptrThisPrcsQueue->GetMsg())
        iBits |= 1 << reinterpret_cast<uintptr_t>(m->m_pvMsgTarget);
    // The clean-up unlinks entries without destroying them; give those back.
    for (auto* p : vecMine) {
        bool bLinked = false;
        for (auto* q = n->m_ptrRefreshInfo->m_lstClients.GetFirst(); q != nullptr; q = q->GetNext())
            bLinked = bLinked || q == p;
        if (!bLinked)
            KvDeleteShared(p);
    }
    n.RmvRef();
    CRsTestDetach();
    return iBits;
}

// Takes a message from another process's queue (offset in args[0]); exits 0 when
// the owner check was reported and the message was taken all the same.
KV_CHILD_SCENARIO(TakeForeignMessage)
{
    CRsTestAttach(false);
    int iExit = 1;
    {
        CRsReportCapture cap;
        KvSmartPtr<CRsQueue> q(static_cast<CRsQueue*>(KvGranularity::_CalcPtr(std::stoul(args.at(0)))));
        KvSmartPtr<CRsMsg> m = q->GetMsg();
        if (m.IsNotNull() && m->m_dwMsg == 42 && cap.Count("m_dwPrcsId == GetCurrentProcessId()") == 1)
            iExit = 0;
    }
    CRsTestDetach();
    return iExit;
}

class CRsMultiProcessTest : public CRsModelTest {
protected:
    void SetUp() override
    {
        CRsModelTest::SetUp();
        KvSmartPtr<CRsNode> n(KvNewObject);
        KvGranularity::_SetRoot(n.Detach(), SLOT);
    }
    void TearDown() override
    {
        // The slot's reference: the node, and every entry and connection, go with it.
        KvReleaseSmartUnit(static_cast<CRsNode*>(KvGranularity::_SetRoot(nullptr, SLOT)));
        EXPECT_TRUE(KvPoolsBalanced(m_snap));
        CRsModelTest::TearDown();
    }
};

TEST_F(CRsMultiProcessTest, ClientsOfTwoProcessesAreOrderedByProcessId)
{
    KvSmartPtr<CRsNode> n = SharedNode();
    n->ConnectClient(H(5), 1, g_ptrThisPrcsQueue);
    ASSERT_EQ(0, KvTestWait(KvTestSpawn("ConnectClients", {"5", "6"})));
    ASSERT_EQ(3, n->GetClientCount());
    auto* p = n->m_ptrRefreshInfo->m_lstClients.GetFirst();
    const CRsConnectKey k0 = p->GetKey(), k1 = p->GetNext()->GetKey();
    EXPECT_EQ(5u, k0.m_uTarget);
    EXPECT_EQ(5u, k1.m_uTarget);
    EXPECT_LT(k0.m_dwPrcsId, k1.m_dwPrcsId);
    EXPECT_EQ(6u, p->GetNext()->GetNext()->GetKey().m_uTarget);
}

TEST_F(CRsMultiProcessTest, ProcessCleanUpRemovesOnlyItsOwnRun)
{
    KvSmartPtr<CRsNode> n = SharedNode();
    const uint32_t P = g_ptrThisPrcsQueue->GetProcessId();
    n->ConnectClient(H(3), 1, g_ptrThisPrcsQueue);
    // Left in the child's queue: 2 (its count stayed 1) and 5 (behind our entry).
    EXPECT_EQ((1 << 2) | (1 << 5), KvTestWait(KvTestSpawn("ConnectNotifyAndLeave")));
    std::vector<std::pair<uintptr_t, bool>> vec;
    for (auto* p = n->m_ptrRefreshInfo->m_lstClients.GetFirst(); p != nullptr; p = p->GetNext())
        vec.emplace_back(p->GetKey().m_uTarget, p->GetKey().m_dwPrcsId == P);
    EXPECT_EQ((std::vector<std::pair<uintptr_t, bool>>{{3, true}, {5, false}}), vec);
    EXPECT_EQ(1, g_ptrThisPrcsQueue->GetMsgCount());  // ours was not touched
    Drain(g_ptrThisPrcsQueue);
}

TEST_F(CRsMultiProcessTest, GetMsgFromAnotherProcessIsReportedAndTakes)
{
    KvSmartPtr<CRsNode> n = SharedNode();
    n->ConnectClient(H(1), 1, g_ptrThisPrcsQueue);
    n->NotifyClients(42, KvSmartPtr<CRsValue>(), false);
    EXPECT_EQ(0, KvTestWait(KvTestSpawn("TakeForeignMessage", {std::to_string(g_ptrThisPrcsQueue.Offset())})));
    EXPECT_EQ(0, g_ptrThisPrcsQueue->GetMsgCount());
}

}  // namespace
