// A tree deeper than any one path can make: legal paths, one after another,
// build chains of any depth. Notification and the clean-up of a departing
// process must reach every node of such a chain.
#include <string>

#include <gtest/gtest.h>

#include "KvRobustSupport.h"

namespace {

// The tip of a chain 5000 nodes below "deep", made in steps of 4000 segments
// (each path well under the 8192-byte limit).
KvRsNodeProxy MakeChain()
{
    KvRsNodeProxy n = KvRsCreateNode("deep", nullptr, 0);
    for (int cLeft = 5000; cLeft > 0; cLeft -= 4000) {
        std::string str = "d";
        for (int i = 1; i < (cLeft < 4000 ? cLeft : 4000); ++i)
            str += ".d";
        n = KvRsCreateNode(str.c_str(), n.GetHandle(), n.GetId());
    }
    return n;
}

// A process that connects as a client at the tip and exits normally.
KV_CHILD_SCENARIO(ConnectAtTheTip)
{
    (void)args;
    KvRobustRoot();
    KvRsNodeProxy tip = MakeChain();
    KvRsConnectClient(tip.GetHandle(), tip.GetId(), reinterpret_cast<void*>(uintptr_t{0x51}), 1);
    return KvRsGetClientCount(tip.GetHandle(), tip.GetId()) == 1 ? 0 : 1;
}

TEST(KvDeepTree, AProcessLeavesNoConnectionAtTheBottomOfADeepChain)
{
    KvRobustRoot();
    KvRsNodeProxy tip = MakeChain();
    ASSERT_FALSE(tip.IsNull());
    ASSERT_EQ(0, KvTestWait(KvTestSpawn("ConnectAtTheTip"), 120));
    EXPECT_EQ(0, KvRsGetClientCount(tip.GetHandle(), tip.GetId())) << "the exited process is still connected";
    // Notification down the whole chain reaches the tip.
    KvRsQueueProxy q = KvRsCreateQueue("deep");
    void* const hTarget = reinterpret_cast<void*>(uintptr_t{0x52});
    KvRsConnectClientToQueue(tip.GetHandle(), tip.GetId(), hTarget, 2, q.GetHandle(), q.GetId());
    KvRsNodeProxy top = KvRsGetNode("deep");
    KvRsNotifyNodeClients(top.GetHandle(), top.GetId(), 9, nullptr, 0, true);
    EXPECT_EQ(1, KvRsGetQueueMsgCount(q.GetHandle(), q.GetId()));
    KvRsDisconnectClient(tip.GetHandle(), tip.GetId(), hTarget, 2);
    EXPECT_TRUE(KvSegmentConsistent());
}

}  // namespace
