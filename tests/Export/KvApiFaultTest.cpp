// Failures at the boundary: every function that uses a null handle without
// testing it reports the access violation once, returns its neutral result and
// leaves the global mutex free; a bad caller buffer is caught the same way.
#include <sys/mman.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KvApiTestUtil.h"
#include "KvRfrSvr.h"

namespace {
struct KvFaultCase {
    const char* pszName;
    std::function<bool()> fnCallIsNeutral;
};

std::vector<KvFaultCase> KvUntestedNullCalls()
{
    KvRsNodeProxy n = KvRsCreateNode("fault.n", nullptr, 0);
    void* const h = n.GetHandle();
    const unsigned long id = n.GetId();
    return {
        {"KvRsGetNode(null path)", [] { return KvRsGetNode(nullptr).IsNull(); }},
        {"KvRsGetDescendantNode", [] { return KvRsGetDescendantNode(nullptr, 0, "a").IsNull(); }},
        {"KvRsSetNodeValue", [] { KvRsSetNodeValue(nullptr, 0, nullptr, 0); return true; }},
        {"KvRsSetRefNode", [=] { KvRsSetRefNode(nullptr, 0, h, id); return true; }},
        {"KvRsNotifyNodeServer", [] { KvRsNotifyNodeServer(nullptr, 0, 1, nullptr, 0); return true; }},
        {"KvRsNotifyNodeClients", [] { KvRsNotifyNodeClients(nullptr, 0, 2, nullptr, 0, true); return true; }},
        {"KvRsGetQueueMsgCount", [] { return KvRsGetQueueMsgCount(nullptr, 0) == 0; }},
        {"KvRsGetQueueMsg", [] { return KvRsGetQueueMsg(nullptr, 0).IsNull(); }},
        {"KvRsGetQueueProcessId", [] { return KvRsGetQueueProcessId(nullptr, 0) == 0; }},
        {"KvRsGetQueueName", [] { return KvRsGetQueueName(nullptr, 0) == nullptr; }},
        {"KvRsGetChildNode(null name)", [=] { return KvRsGetChildNode(h, id, static_cast<const char*>(nullptr)).IsNull(); }},
    };
}
}  // namespace

TEST(KvApiFault, UntestedNullHandlesReportOnceReturnNeutralAndFreeTheMutex)
{
    for (const KvFaultCase& c : KvUntestedNullCalls()) {
        KvStderrCapture capture;
        const bool fNeutral = c.fnCallIsNeutral();
        const std::string strErr = capture.Stop();
        EXPECT_TRUE(fNeutral) << c.pszName;
        EXPECT_EQ(1, KvCountOf(strErr, "KvRfrSvr.dll: Exception 0xC0000005")) << c.pszName << ": " << strErr;
    }
    EXPECT_TRUE(KvMutexFreeForOthers());
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    KvRsRemoveChildNode(root.GetHandle(), root.GetId(), "fault");
}

TEST(KvApiFault, AHandleOutsideTheSegmentIsAnAccessViolationNotAWildAccess)
{
    KvStderrCapture capture;
    EXPECT_EQ(0u, KvRsGetNodeType(reinterpret_cast<void*>(0x7FFFFFF0), 1));
    EXPECT_FALSE(KvRsRmvRef(reinterpret_cast<void*>(~static_cast<uintptr_t>(0)), 1));
    EXPECT_EQ(2, KvCountOf(capture.Stop(), "0xC0000005"));
}

TEST(KvApiFault, StaleHandleWithOldIdIsStillAccepted)
{
    // The id is carried, never compared: a handle with any id names the object.
    KvRsNodeProxy n = KvRsCreateNode("stale.n", nullptr, 0);
    KvRsSetNodeType(n.GetHandle(), n.GetId() ^ 0xFFFF, 0x100);
    EXPECT_EQ(0x100u, KvRsGetNodeType(n.GetHandle(), 0));
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    KvRsRemoveChildNode(root.GetHandle(), root.GetId(), "stale");
}

#ifndef KV_SANITIZED
TEST(KvApiFault, BadCallerBufferInGetValueBytesIsCaught)
{
    KvRsValueProxy v = KvRsCreateValue();
    unsigned char ab[64] = {};
    KvRsSetValueBytes(v.GetHandle(), v.GetId(), ab, sizeof(ab));
    const long cbPage = sysconf(_SC_PAGESIZE);
    void* pv = mmap(nullptr, static_cast<size_t>(cbPage), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, pv);
    KvStderrCapture capture;
    KvRsGetValueBytes(v.GetHandle(), v.GetId(), static_cast<unsigned char*>(pv));
    const std::string strErr = capture.Stop();
    munmap(pv, static_cast<size_t>(cbPage));
    EXPECT_EQ(1, KvCountOf(strErr, "Exception 0xC0000005")) << strErr;
    EXPECT_NE(std::string::npos, strErr.find("write memory")) << strErr;
    EXPECT_TRUE(KvMutexFreeForOthers());
    EXPECT_EQ(64, KvRsGetValueByteCount(v.GetHandle(), v.GetId()));  // the library goes on working
}
#endif

TEST(KvApiFault, FaultsInTheCallersOwnCodeAreNotTranslated)
{
    // Outside any exported call the library's handler passes the signal on.
    EXPECT_DEATH(
        {
            volatile int* p = nullptr;
            *p = 1;
        },
        "");
}
