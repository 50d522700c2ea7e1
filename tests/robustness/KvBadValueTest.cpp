// Values at and past the largest block class, and a segment filled until every
// pool refuses: each failing call reports a clear error and gives its neutral
// result, the tree stays consistent, and once the memory is given back the
// pools balance and everything works again.
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "KvCppMfc/Diag/KvDebugOutput.h"
#include "KvCppMfc/Pool/KvGranularity.h"
#include "KvRobustSupport.h"
#include "common/KvTestSupport.h"

namespace {

constexpr long kLargestClass = 0x1000000;  // 16 MiB

long ByteCount(const KvRsValueProxy& v)
{
    return KvRsGetValueByteCount(v.GetHandle(), v.GetId());
}

void SetBytes(const KvRsValueProxy& v, const std::vector<unsigned char>& ab, long cb)
{
    KvRsSetValueBytes(v.GetHandle(), v.GetId(), const_cast<unsigned char*>(ab.data()), cb);
}

TEST(KvBadValue, SixteenMiBWorksOneByteMoreIsRefusedAndTheValueStaysEmpty)
{
    KvRobustRoot();
    const KvPoolSnapshot snap = KvTakePoolSnapshot();
    std::vector<unsigned char> ab(static_cast<size_t>(kLargestClass) + 1);
    for (size_t i = 0; i < ab.size(); ++i)
        ab[i] = static_cast<unsigned char>(i * 131 + (i >> 16));
    {
        KvRsValueProxy v = KvRsCreateValue();
        KvRsSetValueType(v.GetHandle(), v.GetId(), 0x77);
        SetBytes(v, ab, kLargestClass);
        ASSERT_EQ(kLargestClass, ByteCount(v));
        std::vector<unsigned char> abOut(ab.size() + 64, 0xEE);
        KvRsGetValueBytes(v.GetHandle(), v.GetId(), abOut.data());
        EXPECT_EQ(0, memcmp(ab.data(), abOut.data(), static_cast<size_t>(kLargestClass)));
        EXPECT_EQ(std::vector<unsigned char>(65, 0xEE), std::vector<unsigned char>(abOut.begin() + kLargestClass, abOut.end()))
            << "nothing written past the count";

        KvStderrCapture capture;
        SetBytes(v, ab, kLargestClass + 1);
        std::string strErr = capture.Stop();
        EXPECT_EQ(0, ByteCount(v));
        EXPECT_EQ(0x77u, KvRsGetValueType(v.GetHandle(), v.GetId())) << "the type stays";
        EXPECT_EQ(1, KvCountOf(strErr, "no block size for a request of 0x1000001 bytes")) << strErr;
        std::fill(abOut.begin(), abOut.end(), 0xEE);
        KvRsGetValueBytes(v.GetHandle(), v.GetId(), abOut.data());
        EXPECT_EQ(0xEE, abOut[0]) << "an empty value copies nothing";

        // The largest count a caller can pass is refused the same way.
        KvStderrCapture capture2;
        SetBytes(v, ab, INT32_MAX);
        strErr = capture2.Stop();
        EXPECT_EQ(0, ByteCount(v));
        EXPECT_EQ(1, KvCountOf(strErr, "no block size for a request of 0x7fffffff bytes")) << strErr;

        // Counts of 0 or less and a null source empty the value without a report.
        KvStderrCapture capture3;
        SetBytes(v, ab, 10);
        for (long cb : {0L, -1L, LONG_MIN, static_cast<long>(INT32_MIN)}) {
            SetBytes(v, ab, 10);
            SetBytes(v, ab, cb);
            EXPECT_EQ(0, ByteCount(v)) << cb;
        }
        SetBytes(v, ab, 10);
        KvRsSetValueBytes(v.GetHandle(), v.GetId(), nullptr, 10);
        EXPECT_EQ(0, ByteCount(v));
        EXPECT_EQ("", capture3.Stop());

        // And the value is as good as new.
        SetBytes(v, ab, 4097);
        EXPECT_EQ(4097, ByteCount(v));
    }
    EXPECT_TRUE(KvPoolsBalanced(snap));
}

// Where long is 64 bits, a count of 2^32 + 16 is far past the largest class:
// it must be refused like any other, not cut to its low 32 bits (which would
// store 16 bytes of a source the caller said was 4 GiB long). Found by
// kvfuzz_value_bytes.
TEST(KvBadValue, CountsPastTheLargestClassAreRefusedWhateverTheirWidth)
{
    if (sizeof(long) <= 4)
        GTEST_SKIP() << "long is 32 bits here";
    KvRobustRoot();
    KvRsValueProxy v = KvRsCreateValue();
    std::vector<unsigned char> ab(64, 0x42);
    const long cbWide = static_cast<long>((static_cast<unsigned long long>(1) << 32) + 16);
    KvStderrCapture capture;
    SetBytes(v, ab, cbWide);
    const std::string strErr = capture.Stop();
    EXPECT_EQ(0, ByteCount(v)) << "the count was cut to its low 32 bits";
    EXPECT_NE(std::string::npos, strErr.find("KvRfrSvr.dll")) << "no clear error: " << strErr;
}

// Blocks taken straight from the pools, given back at the end.
struct KvHeldBlocks {
    std::vector<std::pair<void*, uint32_t>> vBlocks;
    std::string strLastError;

    // Takes blocks of pool i until it refuses.
    void Exhaust(uint32_t i)
    {
        const uint32_t cb = KvGranularity::_GetGranularity(i)->_stSize;
        for (;;) {
            try {
                vBlocks.emplace_back(KvGranularity::_Alloc(cb, nullptr), cb);
            } catch (const KvThrowText& ex) {
                strLastError = ex.m_sz;
                return;
            }
        }
    }
    void Release()
    {
        for (auto& b : vBlocks)
            KvGranularity::_Free(b.first, b.second, nullptr);
        vBlocks.clear();
    }
};

TEST(KvBadValue, AFullSegmentFailsEveryAllocationCleanlyAndRecovers)
{
    KvRsNodeProxy root = KvRobustRoot();
    // Made before filling, used while full: a node with a value and a client.
    KvRsNodeProxy n = KvRsCreateNode("full.n", nullptr, 0);
    KvRsQueueProxy q = KvRsCreateQueue("full");
    void* const hTarget = reinterpret_cast<void*>(0x10);
    KvRsConnectClientToQueue(n.GetHandle(), n.GetId(), hTarget, 1, q.GetHandle(), q.GetId());
    std::vector<unsigned char> ab(static_cast<size_t>(kLargestClass), 0x5A);
    KvRsValueProxy vKeep = KvRsCreateValue();
    SetBytes(vKeep, ab, 100);
    KvRsSetNodeValue(n.GetHandle(), n.GetId(), vKeep.GetHandle(), vKeep.GetId());
    const KvPoolSnapshot snap = KvTakePoolSnapshot();

    // Fill through the API, largest class first, until no value can be made or
    // filled; then every pool directly, until each one refuses.
    std::vector<KvRsValueProxy> vHeld;
    KvStderrCapture captureFill;
    for (long cb = kLargestClass; cb >= 8; cb /= 2) {
        for (;;) {
            KvRsValueProxy v = KvRsCreateValue();
            if (v.IsNull())
                break;
            SetBytes(v, ab, cb);
            if (ByteCount(v) != cb)
                break;
            vHeld.push_back(v);
        }
    }
    KvHeldBlocks held;
    KvRsRequestMutex();
    KvThrowSetTestMode(true);
    for (uint32_t i = 1; i < KVGRAN_COUNT - 1; ++i) {
        held.Exhaust(i);
        EXPECT_NE(std::string::npos, held.strLastError.find("Out of Memory")) << i << ": " << held.strLastError;
    }
    KvThrowSetTestMode(false);
    KvRsReleaseMutex();
    const std::string strFill = captureFill.Stop();
    EXPECT_LE(3u, vHeld.size());
    EXPECT_LE(1, KvCountOf(strFill, "Out of Memory"));

    // Every call that needs a block fails with a report and its neutral result.
    KvStderrCapture capture;
    EXPECT_TRUE(KvRsCreateNode("full.m", nullptr, 0).IsNull());
    EXPECT_TRUE(KvRsAddChildNode(n.GetHandle(), n.GetId(), "c").IsNull());
    EXPECT_TRUE(KvRsCreateValue().IsNull());
    EXPECT_TRUE(KvRsCreateQueue("more").IsNull());
    SetBytes(vKeep, ab, 10);
    EXPECT_EQ(0, ByteCount(vKeep)) << "the old bytes went first; the new ones found no block";
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 5, vKeep.GetHandle(), vKeep.GetId(), false);
    KvRsConnectClient(n.GetHandle(), n.GetId(), reinterpret_cast<void*>(0x20), 2);
    const std::string strErr = capture.Stop();
    EXPECT_LE(6, KvCountOf(strErr, "Out of Memory")) << strErr;
    EXPECT_EQ(0, KvRsGetQueueMsgCount(q.GetHandle(), q.GetId()));
    EXPECT_EQ(1, KvRsGetClientCount(n.GetHandle(), n.GetId()));
    // Calls that need no block still work.
    EXPECT_EQ(n.GetHandle(), KvRsGetNode("full.n").GetHandle());
    EXPECT_EQ(0, KvRsGetChildNodeCount(n.GetHandle(), n.GetId()));
    EXPECT_EQ(vKeep.GetHandle(), KvRsGetNodeValue(n.GetHandle(), n.GetId()).GetHandle());
    EXPECT_EQ("ok", KvRobustCheckTree(root));

    // Give everything back: the pools balance and the tree works again.
    KvRsRequestMutex();
    held.Release();
    KvRsReleaseMutex();
    vHeld.clear();
    SetBytes(vKeep, ab, 100);
    EXPECT_EQ(100, ByteCount(vKeep));
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 7, vKeep.GetHandle(), vKeep.GetId(), false);
    ASSERT_EQ(1, KvRsGetQueueMsgCount(q.GetHandle(), q.GetId()));
    {
        KvRsMsgProxy m = KvRsGetQueueMsg(q.GetHandle(), q.GetId());
        EXPECT_EQ(7u, KvRsGetMsgType(m.GetHandle(), m.GetId()));
        EXPECT_EQ(vKeep.GetHandle(), KvRsGetMsgValue(m.GetHandle(), m.GetId()).GetHandle());
    }
    EXPECT_TRUE(KvPoolsBalanced(snap));
    KvRsNodeProxy m = KvRsCreateNode("full.m.deeper", nullptr, 0);
    EXPECT_FALSE(m.IsNull());
    EXPECT_EQ("ok", KvRobustCheckTree(root));
    EXPECT_TRUE(KvRobustCheckerPasses());
    KvRsDisconnectClient(n.GetHandle(), n.GetId(), hTarget, 1);
}

}  // namespace
