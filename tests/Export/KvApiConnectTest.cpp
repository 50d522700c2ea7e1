// Connections and notification through the public API in one process.
#include <gtest/gtest.h>

#include "KvApiTestUtil.h"
#include "KvRfrSvr.h"

namespace {
void* KvTarget(uintptr_t u)
{
    return reinterpret_cast<void*>(u);
}

// Takes every message of the default queue; returns their numbers in order.
std::vector<unsigned long> KvDrain()
{
    std::vector<unsigned long> v;
    for (KvRsMsgProxy m = KvRsGetMsg(); !m.IsNull(); m = KvRsGetMsg())
        v.push_back(KvRsGetMsgType(m.GetHandle(), m.GetId()));
    return v;
}

struct KvNodeFixture : ::testing::Test {
    KvRsNodeProxy n = KvRsCreateNode("conn.n", nullptr, 0);
    ~KvNodeFixture() override
    {
        KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
        KvRsRemoveChildNode(root.GetHandle(), root.GetId(), "conn");
    }
};
}  // namespace

TEST_F(KvNodeFixture, StructuralBitsAlsoReachTheStructuralChangeClients)
{
    KvRsConnectClient(n.GetHandle(), n.GetId(), KvTarget(10), 1);
    KvRsConnectForAllStructuralChanges(KvTarget(20), 2);

    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 0x1, nullptr, 0, false);
    EXPECT_EQ((std::vector<unsigned long>{1}), KvDrain());
    for (unsigned long type : {0x2ul, 0x4ul, 0x8ul}) {
        KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), type, nullptr, 0, false);
        EXPECT_EQ((std::vector<unsigned long>{type, type}), KvDrain()) << type;
    }
    KvRsNotifyNodeServer(n.GetHandle(), n.GetId(), 0x2, nullptr, 0);  // no server, and never the root
    EXPECT_TRUE(KvDrain().empty());

    KvRsDisconnectForAllStructuralChanges(KvTarget(20), 2);
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 0x2, nullptr, 0, false);
    EXPECT_EQ(1u, KvDrain().size());
    KvRsDisconnectClient(n.GetHandle(), n.GetId(), KvTarget(10), 1);
}

TEST_F(KvNodeFixture, TheFlagReachesOnlyTheNodesOwnNotification)
{
    KvRsNodeProxy kid = KvRsCreateNode("kid", n.GetHandle(), n.GetId());
    KvRsConnectClient(kid.GetHandle(), kid.GetId(), KvTarget(11), 1);
    KvRsConnectForAllStructuralChanges(KvTarget(21), 2);
    // Recursive on the node: the child's client hears of it. The root's
    // notification is not recursive whatever the flag, so its own client only.
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 0x4, nullptr, 0, true);
    EXPECT_EQ(2u, KvDrain().size());
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 0x1, nullptr, 0, false);
    EXPECT_TRUE(KvDrain().empty());
    KvRsDisconnectForAllStructuralChanges(KvTarget(21), 2);
    KvRsDisconnectClient(kid.GetHandle(), kid.GetId(), KvTarget(11), 1);
}

TEST_F(KvNodeFixture, ServerAndClientRecords)
{
    KVRSCONNECTINFO info;
    KvRsGetServer(n.GetHandle(), n.GetId(), &info);
    EXPECT_TRUE(info.proxyQueue.IsNull());  // no server: untouched

    KvRsQueueProxy q = KvRsCreateQueue("srv");
    KvRsConnectServerToQueue(n.GetHandle(), n.GetId(), KvTarget(5), 6, q.GetHandle(), q.GetId());
    KvRsGetServer(n.GetHandle(), n.GetId(), &info);
    EXPECT_EQ(q.GetHandle(), info.proxyQueue.GetHandle());
    EXPECT_EQ(KvTarget(5), info.pvTarget);
    EXPECT_EQ(6ul, info.idTarget);
    KvRsValueProxy v = KvRsCreateValue();
    KvRsNotifyNodeServer(n.GetHandle(), n.GetId(), 0x10007, v.GetHandle(), v.GetId());
    KvRsMsgProxy m = KvRsGetQueueMsg(q.GetHandle(), q.GetId());
    EXPECT_EQ(7u, KvRsGetMsgType(m.GetHandle(), m.GetId()));
    EXPECT_EQ(v.GetHandle(), KvRsGetMsgValue(m.GetHandle(), m.GetId()).GetHandle());
    KvRsConnectServer(n.GetHandle(), n.GetId(), KvTarget(5), 6);  // a second connect updates the server
    KvRsDisconnectServer(n.GetHandle(), n.GetId());              // one disconnect ends both
    KVRSCONNECTINFO none;
    KvRsGetServer(n.GetHandle(), n.GetId(), &none);
    EXPECT_TRUE(none.proxyQueue.IsNull());

    KvRsConnectClient(n.GetHandle(), n.GetId(), KvTarget(30), 3);
    KvRsConnectClient(n.GetHandle(), n.GetId(), KvTarget(10), 1);
    KvRsConnectClient(n.GetHandle(), n.GetId(), KvTarget(10), 1);  // same client, counted twice
    ASSERT_EQ(2, KvRsGetClientCount(n.GetHandle(), n.GetId()));
    KVRSCONNECTINFO aInfo[3];
    aInfo[2].pvTarget = KvTarget(99);
    KvRsEnumClients(n.GetHandle(), n.GetId(), aInfo, 3);
    EXPECT_EQ(KvTarget(10), aInfo[0].pvTarget);
    EXPECT_EQ(KvTarget(30), aInfo[1].pvTarget);
    EXPECT_EQ(KvTarget(99), aInfo[2].pvTarget);
    KvRsDisconnectClient(n.GetHandle(), n.GetId(), KvTarget(10), 1);
    EXPECT_EQ(2, KvRsGetClientCount(n.GetHandle(), n.GetId()));
    KvRsDisconnectClient(n.GetHandle(), n.GetId(), KvTarget(10), 1);
    KvRsDisconnectClient(n.GetHandle(), n.GetId(), KvTarget(30), 3);
    EXPECT_EQ(0, KvRsGetClientCount(n.GetHandle(), n.GetId()));

    KvStderrCapture capture;
    EXPECT_EQ(0, KvRsGetClientCount(nullptr, 0));
    KvRsEnumClients(nullptr, 0, aInfo, 3);
    EXPECT_EQ(KvTarget(99), aInfo[2].pvTarget);
    KvRsConnectClient(nullptr, 0, KvTarget(1), 1);
    KvRsConnectServer(nullptr, 0, KvTarget(1), 1);
    KvRsDisconnectServer(nullptr, 0);
    KvRsDisconnectClient(nullptr, 0, KvTarget(1), 1);
    KvRsGetServer(nullptr, 0, &info);
    EXPECT_EQ("", capture.Stop());
}

TEST(KvApiMutex, RequestIsRecursiveForItsThread)
{
    KvRsRequestMutex();
    KvRsRequestMutex();
    KvRsNodeProxy n = KvRsCreateNode("", nullptr, 0);  // calls inside do not block
    EXPECT_FALSE(n.IsNull());
    KvRsReleaseMutex();
    KvRsReleaseMutex();
    EXPECT_TRUE(KvMutexFreeForOthers());
}
