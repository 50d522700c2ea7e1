// kvfuzz_node_paths: paths and names through KvRsCreateNode, KvRsGetNode,
// KvRsGetDescendantNode, KvRsAddChildNode, KvRsGetChildNode and
// KvRsRemoveChildNode, under a node of no tree that dies after each input.
//
// Input: a sequence of (operation byte, text up to a NUL). The operation's low
// bits choose the call, bits 3..5 the node to work under (the area or a node
// met earlier), bit 7 stretches the text with "x" to 8190..8193 bytes, around the
// length at which paths are refused. Checked after every call: a created path
// is found again and creating it twice makes nothing; a child added is found by
// its name, which reads back whole; a removed child is gone. After each input
// every list below the area is intact, and (when nothing was removed, which
// leaves the unlinked child allocated by design) every pool balances.
#include <cstring>
#include <string>
#include <vector>

#include "KvFuzzSupport.h"

namespace {

constexpr size_t kPathLimit = 8192;

bool Same(const KvRsProxy& a, const KvRsProxy& b)
{
    return a.GetHandle() == b.GetHandle();
}

std::string NameOf(const KvRsNodeProxy& n)
{
    std::string str(static_cast<size_t>(KvRsGetNodeNameLength(n.GetHandle(), n.GetId())) + 1, '\0');
    KvRsGetNodeName(n.GetHandle(), n.GetId(), &str[0]);
    str.pop_back();
    return str;
}

// Runs one input; returns true when a child was removed.
bool RunOps(KvFuzzInput& in, const KvRsNodeProxy& area)
{
    std::vector<KvRsNodeProxy> vNodes{area};
    bool fRemoved = false;
    for (int cOps = 0; cOps < 64 && !in.AtEnd(); ++cOps) {
        const uint8_t op = in.Byte();
        std::string str = in.Text();
        if (op & 0x80)
            str.resize(kPathLimit - 2 + ((op >> 5) & 3), 'x');
        const KvRsNodeProxy parent = vNodes[((op >> 3) & 7) % vNodes.size()];
        void* const h = parent.GetHandle();
        const unsigned long id = parent.GetId();
        const char* psz = str.c_str();
        switch (op % 6) {
        case 0: {
            KvRsNodeProxy n = KvRsCreateNode(psz, h, id);
            if (str.size() >= kPathLimit) {
                if (!n.IsNull())
                    KvFuzzFail("a path of 8192 bytes or more was accepted");
                break;
            }
            if (n.IsNull() && KvFuzzSegmentNearlyFull())
                break;
            if (n.IsNull())
                KvFuzzFail("KvRsCreateNode failed on a path it must take");
            if (!Same(n, KvRsGetDescendantNode(h, id, psz)))
                KvFuzzFail("a created path is not found again");
            const long cChildren = KvRsGetChildNodeCount(h, id);
            if (!Same(n, KvRsCreateNode(psz, h, id)) || KvRsGetChildNodeCount(h, id) != cChildren)
                KvFuzzFail("creating a path twice made something");
            vNodes.push_back(n);
            break;
        }
        case 1: {
            KvRsNodeProxy n = KvRsGetDescendantNode(h, id, psz);
            if (str.size() >= kPathLimit && !n.IsNull())
                KvFuzzFail("a path of 8192 bytes or more was looked up");
            if (!n.IsNull())
                vNodes.push_back(n);
            break;
        }
        case 2: {
            KvRsNodeProxy n = KvRsAddChildNode(h, id, psz);
            if (n.IsNull() && KvFuzzSegmentNearlyFull())
                break;
            if (n.IsNull() || !Same(n, KvRsGetChildNode(h, id, psz)) || NameOf(n) != str)
                KvFuzzFail("an added child is not found by its name");
            vNodes.push_back(n);
            break;
        }
        case 3: {
            const bool fWas = !KvRsGetChildNode(h, id, psz).IsNull();
            const long cBefore = KvRsGetChildNodeCount(h, id);
            KvRsRemoveChildNode(h, id, psz);
            if (!KvRsGetChildNode(h, id, psz).IsNull() || KvRsGetChildNodeCount(h, id) != cBefore - (fWas ? 1 : 0))
                KvFuzzFail("a removed child is still there");
            fRemoved = fRemoved || fWas;
            break;
        }
        case 4: {
            KvRsNodeProxy n = KvRsGetChildNode(h, id, psz);
            if (!n.IsNull() && NameOf(n) != str)
                KvFuzzFail("a child found by name has another name");
            break;
        }
        default: KvRsGetNode(psz); break;
        }
        if (vNodes.size() > 8)
            vNodes.erase(vNodes.begin() + 1);
    }
    return fRemoved;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pb, size_t cb)
{
    const uint64_t qwBefore = KvFuzzPoolState();
    bool fRemoved = false;
    {
        KvFuzzArea area;
        KvRsNodeProxy areaProxy;
        areaProxy.SetRef(area.Handle(), area.Id());
        KvFuzzInput in(pb, cb);
        fRemoved = RunOps(in, areaProxy);
        KvRsRequestMutex();
        KvFuzzCheckTree(area.Node());
        KvRsReleaseMutex();
    }
    if (!fRemoved && KvFuzzPoolState() != qwBefore)
        KvFuzzFail("the pools do not balance after an input");
    return 0;
}
