// kvfuzz_value_bytes: value bytes, counts and types through KvRsSetValueBytes
// and KvRsGetValueBytes, a node's value, notification and KvRsCreateMsg,
// checked against a model of what each value must hold.
//
// Input: operation bytes with their arguments. A count byte below 200 takes
// that many bytes from the input; 200 and up are the edges: 0, -1, INT32_MIN,
// 16 MiB, 16 MiB + 1 and INT32_MAX (the last two with a 1-byte source: a
// library that read it would be caught by AddressSanitizer) and, where long
// is 64 bits, 2^32 + 16. Every read-back goes into a buffer of exactly the
// reported size.
#include <climits>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "KvFuzzSupport.h"
#include "KvRfrSvr.h"

namespace {

constexpr long kLargestClass = KVRS_VALUE_MAX_BYTES;

struct KvFuzzValue {
    KvRsValueProxy proxy;
    std::vector<unsigned char> vBytes;  // what it must hold
    unsigned long dwType = 0;
};

void Expect(bool f, const char* pszWhat)
{
    if (!f)
        KvFuzzFail(pszWhat);
}

// The bytes of value (h, id), read into a buffer of exactly its size.
std::vector<unsigned char> BytesOf(void* h, unsigned long id)
{
    const long cb = KvRsGetValueByteCount(h, id);
    Expect(cb >= 0 && cb <= kLargestClass, "a byte count out of range");
    std::unique_ptr<unsigned char[]> pb(new unsigned char[static_cast<size_t>(cb) + (cb == 0 ? 1 : 0)]);
    KvRsGetValueBytes(h, id, pb.get());
    return std::vector<unsigned char>(pb.get(), pb.get() + cb);
}

void SetBytes(KvFuzzInput& in, KvFuzzValue& v)
{
    static const std::vector<unsigned char> s_vLarge(static_cast<size_t>(kLargestClass), 0xA5);
    const uint8_t bCount = in.Byte();
    std::vector<unsigned char> vSource;
    std::unique_ptr<unsigned char[]> pbOne(new unsigned char[1]{0x11});
    const unsigned char* pb = nullptr;
    long cb = 0;
    if (bCount < 200) {
        for (uint8_t i = 0; i < bCount; ++i)
            vSource.push_back(in.Byte());
        pb = vSource.data();
        cb = bCount;
    } else {
        switch (bCount % 8) {
        case 0:
            cb = 0;
            pb = pbOne.get();
            break;
        case 1:
            cb = -1;
            pb = pbOne.get();
            break;
        case 2:
            cb = INT32_MIN;
            pb = pbOne.get();
            break;
        case 3:
            cb = kLargestClass;
            pb = s_vLarge.data();
            break;
        case 4:
            cb = kLargestClass + 1;
            pb = pbOne.get();
            break;
        case 5:
            cb = INT32_MAX;
            pb = pbOne.get();
            break;
        case 6:
            cb = sizeof(long) > 4 ? static_cast<long>((static_cast<unsigned long long>(1) << 32) + 16) : 16;
            pb = sizeof(long) > 4 ? pbOne.get() : s_vLarge.data();
            break;
        default:
            cb = 5;
            pb = nullptr;
            break;
        }
    }
    KvRsSetValueBytes(v.proxy.GetHandle(), v.proxy.GetId(), const_cast<unsigned char*>(pb), cb);
    if (cb > 0 && cb <= kLargestClass && pb != nullptr)
        v.vBytes.assign(pb, pb + cb);
    else
        v.vBytes.clear();  // refused or emptied: the value stays empty
    Expect(BytesOf(v.proxy.GetHandle(), v.proxy.GetId()) == v.vBytes, "a value does not hold what was set");
    Expect(KvRsGetValueType(v.proxy.GetHandle(), v.proxy.GetId()) == v.dwType, "setting bytes changed the type");
}

void RunOps(KvFuzzInput& in, const KvRsNodeProxy& area)
{
    KvFuzzValue av[2];
    for (KvFuzzValue& v : av)
        v.proxy = KvRsCreateValue();
    KvRsNodeProxy node = KvRsAddChildNode(area.GetHandle(), area.GetId(), "v");
    KvRsQueueProxy q = KvRsCreateQueue("fuzz");
    void* const hTarget = reinterpret_cast<void*>(uintptr_t{0x77});
    KvRsConnectClientToQueue(node.GetHandle(), node.GetId(), hTarget, 7, q.GetHandle(), q.GetId());
    for (int cOps = 0; cOps < 32 && !in.AtEnd(); ++cOps) {
        const uint8_t op = in.Byte();
        KvFuzzValue& v = av[(op >> 4) & 1];
        void* const h = v.proxy.GetHandle();
        const unsigned long id = v.proxy.GetId();
        switch (op % 5) {
        case 0: SetBytes(in, v); break;
        case 1:
            v.dwType = in.Word();
            KvRsSetValueType(h, id, v.dwType);
            Expect(KvRsGetValueType(h, id) == v.dwType, "a type does not read back");
            Expect(BytesOf(h, id) == v.vBytes, "setting the type changed the bytes");
            break;
        case 2: {
            KvRsSetNodeValue(node.GetHandle(), node.GetId(), h, id);
            KvRsValueProxy got = KvRsGetNodeValue(node.GetHandle(), node.GetId());
            Expect(got.GetHandle() == h && BytesOf(got.GetHandle(), got.GetId()) == v.vBytes,
                   "a node's value is not the value set");
            break;
        }
        case 3: {
            const unsigned long dwType = in.Word() & ~0x10000ul;
            KvRsNotifyNodeClients(node.GetHandle(), node.GetId(), dwType, h, id, false);
            Expect(KvRsGetQueueMsgCount(q.GetHandle(), q.GetId()) == 1, "a notification did not arrive once");
            KvRsMsgProxy m = KvRsGetQueueMsg(q.GetHandle(), q.GetId());
            KvRsValueProxy got = KvRsGetMsgValue(m.GetHandle(), m.GetId());
            Expect(KvRsGetMsgType(m.GetHandle(), m.GetId()) == (dwType & 0xFFFF), "a message number is wrong");
            Expect(got.GetHandle() == h && BytesOf(got.GetHandle(), got.GetId()) == v.vBytes,
                   "a message does not carry the value sent");
            break;
        }
        default: {
            KvRsRequestMutex();
            KvRsMsgProxy m = KvRsCreateMsg(op, v.proxy, node, hTarget, op);
            KvRsReleaseMutex();
            void* hGot = nullptr;
            unsigned long idGot = 0;
            KvRsGetMsgTarget(m.GetHandle(), m.GetId(), hGot, idGot);
            KvRsValueProxy got = KvRsGetMsgValue(m.GetHandle(), m.GetId());
            Expect(hGot == hTarget && idGot == op && got.GetHandle() == h, "a made message reads back wrong");
            break;
        }
        }
    }
    KvRsDisconnectClient(node.GetHandle(), node.GetId(), hTarget, 7);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pb, size_t cb)
{
    const uint64_t qwBefore = KvFuzzPoolState();
    {
        KvFuzzArea area;
        KvRsNodeProxy areaProxy;
        areaProxy.SetRef(area.Handle(), area.Id());
        KvFuzzInput in(pb, cb);
        RunOps(in, areaProxy);
    }
    if (KvFuzzPoolState() != qwBefore)
        KvFuzzFail("the pools do not balance after an input");
    return 0;
}
