// KvStressTree.cpp - the subtree the workers use, its mirror, and the pool
// counters. Everything but the counters goes through the public API.
#include <string>
#include <vector>

#include "KvCppMfc/Pool/KvGranularity.h"
#include "KvRfrSvr.h"
#include "KvStress.h"

namespace {

long ValueBytes(const KvRsNodeProxy& n, bool* pfHasValue)
{
    KvRsValueProxy v = KvRsGetNodeValue(n.GetHandle(), n.GetId());
    *pfHasValue = !v.IsNull();
    return KvRsGetValueByteCount(v.GetHandle(), v.GetId());
}

void SetValueBytes(const KvRsNodeProxy& n, long cb)
{
    std::vector<unsigned char> ab(static_cast<size_t>(cb), 0x33);
    KvRsValueProxy v = KvRsCreateValue();
    KvRsSetValueBytes(v.GetHandle(), v.GetId(), ab.data(), cb);
    KvRsSetNodeValue(n.GetHandle(), n.GetId(), v.GetHandle(), v.GetId());
}

std::string NameOf(const KvRsNodeProxy& n)
{
    std::string str(static_cast<size_t>(KvRsGetNodeNameLength(n.GetHandle(), n.GetId())) + 1, '\0');
    KvRsGetNodeName(n.GetHandle(), n.GetId(), &str[0]);
    str.pop_back();
    return str;
}

// Copies the children of from (and their subtrees, and their values' sizes)
// under to; returns the number of nodes copied.
long MirrorChildren(const KvRsNodeProxy& from, const KvRsNodeProxy& to)
{
    long c = 0;
    for (KvRsNodeProxy child = from.GetChild(); !child.IsNull(); child = from.GetChild(child)) {
        KvRsNodeProxy twin = KvRsAddChildNode(to.GetHandle(), to.GetId(), NameOf(child).c_str());
        bool fHas = false, fTwinHas = false;
        const long cb = ValueBytes(child, &fHas);
        if (fHas && (ValueBytes(twin, &fTwinHas) != cb || !fTwinHas))
            SetValueBytes(twin, cb);
        c += 1 + MirrorChildren(child, twin);
    }
    return c;
}

long Duplicates(const KvRsNodeProxy& parent)
{
    long c = 0;
    std::string strPrev;
    bool fFirst = true;
    for (KvRsNodeProxy child = parent.GetChild(); !child.IsNull(); child = parent.GetChild(child)) {
        const std::string str = NameOf(child);
        if (!fFirst && str == strPrev)
            ++c;
        fFirst = false;
        strPrev = str;
        c += Duplicates(child);
    }
    return c;
}

}  // namespace

void KvStressSetUpArea(const char* pszTop)
{
    const std::string strTop = pszTop;
    for (int h = 0; h < kKvStressHubs; ++h) {
        KvRsNodeProxy hub = KvRsCreateNode((strTop + ".hub" + std::to_string(h)).c_str(), nullptr, 0);
        SetValueBytes(hub, 24);
        // A refresh info, once made, stays with its node: make it now, so that
        // the workers' first connections do not count as growth.
        void* const hTarget = reinterpret_cast<void*>(uintptr_t{1});
        KvRsConnectClient(hub.GetHandle(), hub.GetId(), hTarget, 1);
        KvRsDisconnectClient(hub.GetHandle(), hub.GetId(), hTarget, 1);
    }
    KvRsCreateNode((strTop + ".made.shared").c_str(), nullptr, 0);
}

long KvStressMirrorArea(const char* pszFrom, const char* pszTo)
{
    KvRsNodeProxy from = KvRsGetNode(pszFrom);
    KvRsNodeProxy to = KvRsGetNode(pszTo);
    if (from.IsNull() || to.IsNull())
        return -1;
    return MirrorChildren(from, to);
}

long KvStressDuplicateNames(const char* pszPath)
{
    KvRsNodeProxy n = KvRsGetNode(pszPath);
    return n.IsNull() ? -1 : Duplicates(n);
}

KvStressPools KvStressTakePools()
{
    KvStressPools pools{};
    KvRsRequestMutex();
    if (KvGranularity::_aogran != nullptr) {
        KvGranularity::_LockPools();
        for (uint32_t i = 0; i < KVGRAN_COUNT; ++i) {
            const KvGranularity* g = KvGranularity::_GetGranularity(i);
            // Frees are counted downwards: the sum wraps to the net count.
            pools[i] = static_cast<int64_t>(g->_cAllocChecked + g->_cFreeChecked + g->_cNetUnchecked);
        }
        KvGranularity::_UnlockPools();
    }
    KvRsReleaseMutex();
    return pools;
}
