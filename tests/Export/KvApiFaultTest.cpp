// Failures at the boundary: functions that test their handle ignore a null one
// quietly; every function that uses a null handle without testing it reports the
// access violation once, returns its neutral result and leaves the global mutex
// free; a bad caller buffer is caught the same way.
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

bool KvVisitAll(KvRsNodeProxy&, void* pv)
{
    *static_cast<int*>(pv) += 1;
    return true;
}
}  // namespace

TEST(KvApiFault, TestedNullHandlesAreIgnoredQuietly)
{
    char szName[4] = "abc";
    unsigned char ab[2] = {42, 43};
    KVRSCONNECTINFO aInfo[1];
    aInfo[0].pvTarget = &szName;
    void* h = &szName;
    unsigned long id = 5;
    // clang-format off
    const std::vector<KvFaultCase> vCases = {
        {"KvRsGetNodeName", [&] { KvRsGetNodeName(nullptr, 0, szName); return std::string(szName) == "abc"; }},
        {"KvRsRemoveChildNode", [] { KvRsRemoveChildNode(nullptr, 0, "x"); return true; }},
        {"KvRsAddChildNode", [] { return KvRsAddChildNode(nullptr, 0, "k").IsNull(); }},
        {"KvRsGetValueBytes", [&] { KvRsGetValueBytes(nullptr, 0, ab); return ab[0] == 42; }},
        {"KvRsGetMsgTarget", [&] { KvRsGetMsgTarget(nullptr, 0, h, id); return h == &szName && id == 5; }},
        {"KvRsRmvRef", [] { KvRsAddRef(nullptr, 0); return !KvRsRmvRef(nullptr, 0); }},
        {"KvRsEnumClients", [&] { KvRsEnumClients(nullptr, 0, aInfo, 1); return aInfo[0].pvTarget == &szName; }},
        {"KvRsConnectClient", [&] { KvRsConnectClient(nullptr, 0, h, 1); KvRsDisconnectClient(nullptr, 0, h, 1); return true; }},
        {"KvRsConnectServer", [&] { KvRsConnectServer(nullptr, 0, h, 1); KvRsDisconnectServer(nullptr, 0); return true; }},
        {"KvRsGetServer", [&] { KvRsGetServer(nullptr, 0, aInfo); return aInfo[0].pvTarget == &szName; }},
    };
    // clang-format on
    for (const KvFaultCase& c : vCases) {
        KvStderrCapture capture;
        EXPECT_TRUE(c.fnCallIsNeutral()) << c.pszName;
        EXPECT_EQ("", capture.Stop()) << c.pszName;
    }
}

TEST(KvApiFault, UntestedNullHandlesReportOnceReturnNeutralAndFreeTheMutex)
{
    KvRsNodeProxy n = KvRsCreateNode("fault.n", nullptr, 0);
    void* const h = n.GetHandle();
    const unsigned long id = n.GetId();
    int cVisited = 0;
    // clang-format off
    const std::vector<KvFaultCase> vCases = {
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
        // Without a start node the walk reports once and visits the empty proxy.
        {"KvRsForAllNodes", [&] { return KvRsForAllNodes(&KvVisitAll, &cVisited, false) && cVisited == 1; }},
        {"KvRsGetNodeType(outside the segment)", [] { return KvRsGetNodeType(reinterpret_cast<void*>(0x7FFFFFF0), 1) == 0; }},
        {"KvRsRmvRef(outside)", [] { return !KvRsRmvRef(reinterpret_cast<void*>(~static_cast<uintptr_t>(0)), 1); }},
    };
    // clang-format on
    for (const KvFaultCase& c : vCases) {
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

#ifndef KV_SANITIZED
// Every copy into or out of a caller's buffer, and every read of a caller's
// text, meets a page it may not touch: each call reports the access violation
// once, returns and leaves the library working.
TEST(KvApiFault, BadCallerBuffersAndTextsAreCaught)
{
    KvRsNodeProxy n = KvRsCreateNode("fault.buf", nullptr, 0);
    KvRsValueProxy v = KvRsCreateValue();
    unsigned char ab[64] = {};
    KvRsSetValueBytes(v.GetHandle(), v.GetId(), ab, sizeof(ab));
    const size_t cbPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    char* pchNone = static_cast<char*>(mmap(nullptr, cbPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    char* pchRead = static_cast<char*>(mmap(nullptr, cbPage, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, static_cast<void*>(pchNone));
    ASSERT_NE(MAP_FAILED, static_cast<void*>(pchRead));
    auto* pbNone = reinterpret_cast<unsigned char*>(pchNone);
    const struct {
        const char* pszName;
        const char* pszAccess;
        std::function<void()> fnCall;
    } acases[] = {
        {"KvRsGetNodeName(read-only)", "write memory", [&] { KvRsGetNodeName(n.GetHandle(), n.GetId(), pchRead); }},
        {"KvRsGetValueBytes", "write memory", [&] { KvRsGetValueBytes(v.GetHandle(), v.GetId(), pbNone); }},
        {"KvRsSetValueBytes", "read memory", [&] { KvRsSetValueBytes(v.GetHandle(), v.GetId(), pbNone, 8); }},
        {"KvRsGetNode", "read memory", [&] { KvRsGetNode(pchNone); }},
        {"KvRsCreateNode", "read memory", [&] { KvRsCreateNode(pchNone, nullptr, 0); }},
        {"KvRsGetChildNode", "read memory", [&] { KvRsGetChildNode(n.GetHandle(), n.GetId(), pchNone); }},
        {"KvRsCreateQueue", "read memory", [&] { KvRsCreateQueue(pchNone); }},
    };
    for (const auto& c : acases) {
        KvStderrCapture capture;
        c.fnCall();
        const std::string strErr = capture.Stop();
        EXPECT_EQ(1, KvCountOf(strErr, "Exception 0xC0000005")) << c.pszName << ": " << strErr;
        EXPECT_NE(std::string::npos, strErr.find(c.pszAccess)) << c.pszName << ": " << strErr;
    }
    munmap(pchNone, cbPage);
    munmap(pchRead, cbPage);
    EXPECT_TRUE(KvMutexFreeForOthers());
    char szName[8] = {};
    KvRsGetNodeName(n.GetHandle(), n.GetId(), szName);
    EXPECT_STREQ("buf", szName) << "the library goes on working";
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    KvRsRemoveChildNode(root.GetHandle(), root.GetId(), "fault");
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
