// Connections, notification, queues and proxies through the public API in one
// process, and the global mutex's recursion.
#include <unistd.h>

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
    KvRsNodeProxy kid = KvRsCreateNode("kid", n.GetHandle(), n.GetId());
    KvRsConnectClient(n.GetHandle(), n.GetId(), KvTarget(10), 1);
    KvRsConnectClient(kid.GetHandle(), kid.GetId(), KvTarget(11), 1);
    KvRsConnectForAllStructuralChanges(KvTarget(20), 2);
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 0x1, nullptr, 0, false);
    EXPECT_EQ((std::vector<unsigned long>{1}), KvDrain());
    for (unsigned long type : {0x2ul, 0x4ul, 0x8ul}) {
        KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), type, nullptr, 0, false);
        EXPECT_EQ((std::vector<unsigned long>{type, type}), KvDrain()) << type;
    }
    // Recursive on the node: the child's client hears of it too; the root's
    // notification is not recursive whatever the flag.
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 0x4, nullptr, 0, true);
    EXPECT_EQ(3u, KvDrain().size());
    KvRsNotifyNodeServer(n.GetHandle(), n.GetId(), 0x2, nullptr, 0);  // no server, and never the root
    EXPECT_TRUE(KvDrain().empty());
    KvRsDisconnectForAllStructuralChanges(KvTarget(20), 2);
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 0x2, nullptr, 0, false);
    EXPECT_EQ(1u, KvDrain().size());
    KvRsDisconnectClient(n.GetHandle(), n.GetId(), KvTarget(10), 1);
    KvRsDisconnectClient(kid.GetHandle(), kid.GetId(), KvTarget(11), 1);
}

TEST_F(KvNodeFixture, ServerAndClientRecords)
{
    KVRSCONNECTINFO info;
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
    KvRsDisconnectServer(n.GetHandle(), n.GetId());               // one disconnect ends both
    KVRSCONNECTINFO none;
    KvRsGetServer(n.GetHandle(), n.GetId(), &none);
    EXPECT_TRUE(none.proxyQueue.IsNull());

    KvRsConnectClient(n.GetHandle(), n.GetId(), KvTarget(30), 3);
    KvRsConnectClient(n.GetHandle(), n.GetId(), KvTarget(10), 1);
    KvRsConnectClient(n.GetHandle(), n.GetId(), KvTarget(10), 1);  // the same client, counted twice
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
}

TEST(KvApiMutex, RequestIsRecursiveForItsThread)
{
    KvRsRequestMutex();
    KvRsRequestMutex();
    EXPECT_FALSE(KvRsCreateNode("", nullptr, 0).IsNull());  // calls inside do not block
    KvRsReleaseMutex();
    KvRsReleaseMutex();
    EXPECT_TRUE(KvMutexFreeForOthers());
}

TEST(KvApiProxy, CopiesCountAndTheLastReleaseDestroys)
{
    KvRsValueProxy v = KvRsCreateValue();
    void* const h = v.GetHandle();
    const unsigned long id = v.GetId();
    {
        KvRsValueProxy copy(v), assigned;
        assigned = copy;
        assigned = assigned;  // re-naming the same object keeps it alive
    }
    unsigned char ab[1] = {1};
    KvRsSetValueBytes(h, id, ab, 1);  // still alive
    EXPECT_EQ(1, KvRsGetValueByteCount(h, id));
}

TEST(KvApiQueue, NamedQueueTakesItsClientsMessagesFrontBitFirst)
{
    EXPECT_TRUE(KvRsGetMsg().IsNull());
    KvRsQueueProxy q = KvRsCreateQueue("my queue");
    EXPECT_STREQ("my queue", KvRsGetQueueName(q.GetHandle(), q.GetId()));
    EXPECT_EQ(static_cast<unsigned long>(getpid()), KvRsGetQueueProcessId(q.GetHandle(), q.GetId()));
    KvRsNodeProxy n = KvRsCreateNode("queues.n", nullptr, 0);
    KvRsConnectClientToQueue(n.GetHandle(), n.GetId(), reinterpret_cast<void*>(1), 1, q.GetHandle(), q.GetId());
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 3, nullptr, 0, false);
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 0x10004, nullptr, 0, false);  // to the front
    EXPECT_EQ(2, KvRsGetQueueMsgCount(q.GetHandle(), q.GetId()));
    EXPECT_EQ(0, KvRsGetMsgCount());
    KvRsMsgProxy m1 = KvRsGetQueueMsg(q.GetHandle(), q.GetId());
    KvRsMsgProxy m2 = KvRsGetQueueMsg(q.GetHandle(), q.GetId());
    EXPECT_EQ(4u, KvRsGetMsgType(m1.GetHandle(), m1.GetId()));
    EXPECT_EQ(3u, KvRsGetMsgType(m2.GetHandle(), m2.GetId()));
    EXPECT_EQ(n.GetHandle(), KvRsGetMsgChangedNode(m1.GetHandle(), m1.GetId()).GetHandle());
    EXPECT_TRUE(KvRsGetQueueMsg(q.GetHandle(), q.GetId()).IsNull());
    KvRsDisconnectClient(n.GetHandle(), n.GetId(), reinterpret_cast<void*>(1), 1);
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    KvRsRemoveChildNode(root.GetHandle(), root.GetId(), "queues");
}
