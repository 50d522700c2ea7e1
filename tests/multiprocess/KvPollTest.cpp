// KvPollTest.cpp - polling the default queue while another process changes the
// tree under the global mutex: a poll never sees a batch of notifications half
// made, and waits while the mutex is held.
#include <unistd.h>

#include <chrono>

#include <gtest/gtest.h>

#include "KvApiTestUtil.h"
#include "KvRfrSvr.h"
#include "common/KvTestSupport.h"

namespace {
constexpr long kBatches = 3000;
}

// Client of "poll.batch": polls until every batch has arrived; status 3 when a
// poll saw a batch half made.
KV_CHILD_SCENARIO(BatchPoller)
{
    (void)args;
    KvRsNodeProxy n = KvRsCreateNode("poll.batch", nullptr, 0);
    int target = 0;
    KvRsConnectClient(n.GetHandle(), n.GetId(), &target, 1);
    KvRsCreateNode("poll.ready", nullptr, 0);
    const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    long c = 0;
    while (c < 2 * kBatches && std::chrono::steady_clock::now() < tEnd)
        if ((c = KvRsGetMsgCount()) % 2 != 0)
            return 3;
    return c == 2 * kBatches ? 0 : 4;
}

TEST(KvPoll, APollNeverSeesABatchMadeUnderTheMutexHalfDone)
{
    const pid_t pid = KvTestSpawn("BatchPoller");
    while (KvRsGetNode("poll.ready").IsNull())
        usleep(1000);
    KvRsNodeProxy n = KvRsGetNode("poll.batch");
    for (long i = 0; i < kBatches; ++i) {
        KvRsRequestMutex();
        KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 1, nullptr, 0, false);
        for (int k = 0; k < 200; ++k)  // a poll in this window must wait
            KvRsGetNodeType(n.GetHandle(), n.GetId());
        KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 2, nullptr, 0, false);
        KvRsReleaseMutex();
    }
    EXPECT_EQ(KvTestWait(pid, 60), 0);
}
