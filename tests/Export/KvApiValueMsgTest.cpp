// Values, messages, queues and proxies through the public API.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KvApiTestUtil.h"
#include "KvRfrSvr.h"

namespace {
std::vector<unsigned char> KvBytes(const KvRsProxy& v)
{
    std::vector<unsigned char> vb(static_cast<size_t>(KvRsGetValueByteCount(v.GetHandle(), v.GetId())));
    if (!vb.empty())
        KvRsGetValueBytes(v.GetHandle(), v.GetId(), vb.data());
    return vb;
}
}  // namespace

TEST(KvApiValue, BytesAreReplacedWholeAndBadCountsEmptyTheValue)
{
    KvRsValueProxy v = KvRsCreateValue();
    EXPECT_EQ(0u, KvRsGetValueType(v.GetHandle(), v.GetId()));
    EXPECT_TRUE(KvBytes(v).empty());
    KvRsSetValueType(v.GetHandle(), v.GetId(), 77);

    unsigned char ab5[5] = {1, 2, 3, 4, 5}, ab3[3] = {9, 8, 7};
    KvRsSetValueBytes(v.GetHandle(), v.GetId(), ab5, 5);
    KvRsSetValueBytes(v.GetHandle(), v.GetId(), ab3, 3);
    EXPECT_EQ((std::vector<unsigned char>{9, 8, 7}), KvBytes(v));
    EXPECT_EQ(77u, KvRsGetValueType(v.GetHandle(), v.GetId()));

    for (long cb : {0L, -4L}) {
        KvRsSetValueBytes(v.GetHandle(), v.GetId(), ab5, 5);
        KvRsSetValueBytes(v.GetHandle(), v.GetId(), ab5, cb);
        EXPECT_EQ(0, KvRsGetValueByteCount(v.GetHandle(), v.GetId())) << cb;
    }
    KvRsSetValueBytes(v.GetHandle(), v.GetId(), ab5, 5);
    KvRsSetValueBytes(v.GetHandle(), v.GetId(), nullptr, 5);
    EXPECT_EQ(0, KvRsGetValueByteCount(v.GetHandle(), v.GetId()));
    EXPECT_EQ(77u, KvRsGetValueType(v.GetHandle(), v.GetId()));
}

TEST(KvApiValue, NullValueHandleIsIgnoredQuietly)
{
    KvStderrCapture capture;
    unsigned char ab[2] = {42, 43};
    KvRsGetValueBytes(nullptr, 0, ab);
    EXPECT_EQ(42, ab[0]);
    KvRsSetValueBytes(nullptr, 0, ab, 2);
    KvRsSetValueType(nullptr, 0, 1);
    EXPECT_EQ(0u, KvRsGetValueType(nullptr, 0));
    EXPECT_EQ(0, KvRsGetValueByteCount(nullptr, 0));
    EXPECT_EQ(0u, KvRsGetMsgType(nullptr, 0));
    EXPECT_TRUE(KvRsGetMsgValue(nullptr, 0).IsNull());
    EXPECT_TRUE(KvRsGetMsgChangedNode(nullptr, 0).IsNull());
    void* h = &capture;
    unsigned long id = 5;
    KvRsGetMsgTarget(nullptr, 0, h, id);
    EXPECT_EQ(static_cast<void*>(&capture), h);
    EXPECT_EQ(5ul, id);
    EXPECT_FALSE(KvRsRmvRef(nullptr, 0));
    KvRsAddRef(nullptr, 0);
    EXPECT_EQ("", capture.Stop());
}

TEST(KvApiProxy, CopiesCountAndTheLastReleaseDestroys)
{
    KvRsValueProxy v = KvRsCreateValue();
    void* const h = v.GetHandle();
    const unsigned long id = v.GetId();
    {
        KvRsValueProxy copy(v);
        KvRsValueProxy assigned;
        assigned = copy;
        assigned = assigned;  // re-naming the same object keeps it alive
        EXPECT_EQ(h, assigned.GetHandle());
    }
    EXPECT_EQ(id, v.GetId());
    unsigned char ab[1] = {1};
    KvRsSetValueBytes(h, id, ab, 1);  // still alive
    EXPECT_EQ(1, KvRsGetValueByteCount(h, id));

    // A node in the tree outlives its caller references; an unlinked one dies
    // with the last of them (the id check is the caller's business).
    KvRsNodeProxy n = KvRsCreateNode("proxy.n", nullptr, 0);
    void* const hNode = n.GetHandle();
    n = KvRsNodeProxy();
    EXPECT_EQ(hNode, KvRsGetNode("proxy.n").GetHandle());
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    KvRsRemoveChildNode(root.GetHandle(), root.GetId(), "proxy");
}

TEST(KvApiMsg, CreateMsgCarriesTheGivenTargetAndEmptyProxies)
{
    KvRsMsgProxy m = KvRsCreateMsg(0x1234, KvRsValueProxy(), KvRsNodeProxy(), reinterpret_cast<void*>(0x55), 9);
    ASSERT_FALSE(m.IsNull());
    EXPECT_EQ(0x1234u, KvRsGetMsgType(m.GetHandle(), m.GetId()));
    EXPECT_TRUE(KvRsGetMsgValue(m.GetHandle(), m.GetId()).IsNull());
    EXPECT_TRUE(KvRsGetMsgChangedNode(m.GetHandle(), m.GetId()).IsNull());
    void* h = nullptr;
    unsigned long id = 0;
    KvRsGetMsgTarget(m.GetHandle(), m.GetId(), h, id);
    EXPECT_EQ(reinterpret_cast<void*>(0x55), h);
    EXPECT_EQ(9ul, id);

    KvRsRequestMutex();  // as callers do when other processes run
    KvRsValueProxy v = KvRsCreateValue();
    KvRsNodeProxy n = KvRsCreateNode("", nullptr, 0);
    KvRsMsgProxy m2 = KvRsCreateMsg(1, v, n, nullptr, 0);
    KvRsReleaseMutex();
    EXPECT_EQ(v.GetHandle(), KvRsGetMsgValue(m2.GetHandle(), m2.GetId()).GetHandle());
    EXPECT_EQ(n.GetHandle(), KvRsGetMsgChangedNode(m2.GetHandle(), m2.GetId()).GetHandle());
}

TEST(KvApiQueue, DefaultQueueAndNamedQueues)
{
    EXPECT_EQ(0, KvRsGetMsgCount());
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
