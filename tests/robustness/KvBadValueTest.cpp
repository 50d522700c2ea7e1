// Values at and past the largest block class, counts of every width, and a
// segment filled until every pool refuses: each failing call reports a clear
// error and gives its neutral result, the segment stays consistent, and once the
// memory is given back the pools balance and everything works again.
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "KvCppMfc/Diag/KvDiag.h"
#include "KvCppMfc/Pool/KvGranularity.h"
#include "KvRobustSupport.h"

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

TEST(KvBadValue, SixteenMiBWorksLargerAndNonPositiveCountsEmptyTheValue)
{
    KvRobustRoot();
    const KvPoolSnapshot snap = KvTakePoolSnapshot();
    std::vector<unsigned char> ab(static_cast<size_t>(kLargestClass) + 64);
    for (size_t i = 0; i < ab.size(); ++i)
        ab[i] = static_cast<unsigned char>(i * 131 + (i >> 16));
    {
        KvRsValueProxy v = KvRsCreateValue();
        KvRsSetValueType(v.GetHandle(), v.GetId(), 0x77);
        SetBytes(v, ab, kLargestClass);
        ASSERT_EQ(kLargestClass, ByteCount(v));
        std::vector<unsigned char> abOut(ab.size(), 0xEE);
        KvRsGetValueBytes(v.GetHandle(), v.GetId(), abOut.data());
        EXPECT_EQ(0, memcmp(ab.data(), abOut.data(), static_cast<size_t>(kLargestClass)));
        EXPECT_EQ(std::vector<unsigned char>(64, 0xEE),
                  std::vector<unsigned char>(abOut.begin() + kLargestClass, abOut.end()))
            << "nothing written past the count";
        // A count past the largest class is refused whatever its width: never
        // cut to its low 32 bits. Counts of 0 or less and a null source empty
        // the value without a report.
        const long cbWide = sizeof(long) > 4 ? static_cast<long>((1ull << 32) + 16) : LONG_MAX;
        // Negative, with low 32 bits that read as 5.
        const long cbNegWide = sizeof(long) > 4 ? -static_cast<long>((1ull << 32) - 5) : -5;
        const struct {
            long cb;
            bool fNullSource;
            const char* pszReport;
        } acases[] = {{kLargestClass + 1, false, "no block size for a request of 0x1000001 bytes"},
                      {INT32_MAX, false, "no block size for a request of 0x7fffffff bytes"},
                      {cbWide, false, "KvRfrSvr.dll"},
                      {0, false, nullptr},
                      {-1, false, nullptr},
                      {cbNegWide, false, nullptr},
                      {LONG_MIN, false, nullptr},
                      {INT32_MIN, false, nullptr},
                      {10, true, nullptr}};
        for (const auto& c : acases) {
            SetBytes(v, ab, 10);
            KvStderrCapture capture;
            if (c.fNullSource)
                KvRsSetValueBytes(v.GetHandle(), v.GetId(), nullptr, c.cb);
            else
                SetBytes(v, ab, c.cb);
            const std::string strErr = capture.Stop();
            EXPECT_EQ(0, ByteCount(v)) << c.cb;
            EXPECT_EQ(0x77u, KvRsGetValueType(v.GetHandle(), v.GetId())) << "the type stays";
            if (c.pszReport == nullptr) {
                EXPECT_EQ("", strErr) << c.cb;
            } else {
                EXPECT_EQ(1, KvCountOf(strErr, c.pszReport)) << c.cb << ": " << strErr;
            }
        }
        SetBytes(v, ab, 4097);
        EXPECT_EQ(4097, ByteCount(v)) << "the value is as good as new";
    }
    EXPECT_TRUE(KvPoolsBalanced(snap));
}

TEST(KvBadValue, AFullSegmentFailsEveryAllocationCleanlyAndRecovers)
{
    KvRobustRoot();
    // Made before filling, used while full: a node with a value and a client.
    KvRsNodeProxy n = KvRsCreateNode("full.n", nullptr, 0);
    KvRsConnectClient(n.GetHandle(), n.GetId(), reinterpret_cast<void*>(0x10), 1);
    std::vector<unsigned char> ab(static_cast<size_t>(kLargestClass), 0x5A);
    KvRsValueProxy vKeep = KvRsCreateValue();
    KvRsSetNodeValue(n.GetHandle(), n.GetId(), vKeep.GetHandle(), vKeep.GetId());
    const KvPoolSnapshot snap = KvTakePoolSnapshot();

    // Fill through the API, largest class first; then every pool directly,
    // until each one refuses.
    std::vector<KvRsValueProxy> vHeld;
    std::vector<std::pair<void*, uint32_t>> vBlocks;
    KvStderrCapture captureFill;
    for (long cb = kLargestClass; cb >= 8; cb /= 2)
        for (KvRsValueProxy v = KvRsCreateValue(); !v.IsNull(); v = KvRsCreateValue()) {
            SetBytes(v, ab, cb);
            if (ByteCount(v) != cb)
                break;
            vHeld.push_back(v);
        }
    KvRsRequestMutex();
    KvThrowSetTestMode(true);
    for (uint32_t i = 1; i < KVGRAN_COUNT - 1; ++i) {
        const uint32_t cb = KvGranularity::_GetGranularity(i)->_stSize;
        try {
            for (;;)
                vBlocks.emplace_back(KvGranularity::_Alloc(cb, nullptr), cb);
        } catch (const KvThrowText& ex) {
            EXPECT_NE(nullptr, strstr(ex.m_sz, "Out of Memory")) << i << ": " << ex.m_sz;
        }
    }
    KvThrowSetTestMode(false);
    KvRsReleaseMutex();
    captureFill.Stop();
    EXPECT_LE(3u, vHeld.size());

    // Every call that needs a block fails with a report and its neutral result.
    KvStderrCapture capture;
    EXPECT_TRUE(KvRsCreateNode("full.m", nullptr, 0).IsNull());
    EXPECT_TRUE(KvRsAddChildNode(n.GetHandle(), n.GetId(), "c").IsNull());
    EXPECT_TRUE(KvRsCreateValue().IsNull());
    EXPECT_TRUE(KvRsCreateQueue("more").IsNull());
    SetBytes(vKeep, ab, 10);
    EXPECT_EQ(0, ByteCount(vKeep));
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 5, vKeep.GetHandle(), vKeep.GetId(), false);
    KvRsConnectClient(n.GetHandle(), n.GetId(), reinterpret_cast<void*>(0x20), 2);
    const std::string strErr = capture.Stop();
    EXPECT_LE(6, KvCountOf(strErr, "Out of Memory")) << strErr;
    EXPECT_EQ(0, KvRsGetMsgCount());
    EXPECT_EQ(1, KvRsGetClientCount(n.GetHandle(), n.GetId()));
    EXPECT_TRUE(KvSegmentConsistent());

    // Give everything back: the pools balance and the tree works again.
    KvRsRequestMutex();
    for (auto& b : vBlocks)
        KvGranularity::_Free(b.first, b.second, nullptr);
    KvRsReleaseMutex();
    vHeld.clear();
    EXPECT_TRUE(KvPoolsBalanced(snap));
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 7, vKeep.GetHandle(), vKeep.GetId(), false);
    EXPECT_EQ(1, KvRsGetMsgCount());
    EXPECT_FALSE(KvRsCreateNode("full.m.deeper", nullptr, 0).IsNull());
    EXPECT_TRUE(KvSegmentConsistent());
    KvRsGetMsg();
    KvRsDisconnectClient(n.GetHandle(), n.GetId(), reinterpret_cast<void*>(0x10), 1);
}

}  // namespace
