// kvfuzz_hybrid_list: operation sequences on HybridList, driven straight
// through the utility library and compared with a plain vector that applies
// the placement rule element by element.
//
// Input: the first byte picks the sort type (0, 1, 2, 3 or 7); then each
// operation byte inserts, removes by identity, takes the first element or
// finds a key, with a key or index from the next byte. Keys are few, so equal
// keys are common; operations are many, so the index splits and merges. After
// every operation the list's structure is verified; at the end the order of
// the elements is compared and every block must be back in its pool.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "KvCppMfc/Diag/KvDiag.h"
#include "KvCppMfc/Pool/KvGranularity.h"
#include "KvCppMfc/Shared/HybridList.h"
#include "KvFuzzPools.h"

#pragma pack(push, 1)
class KvFuzzHln : public HListSimpleNode<KvFuzzHln> {
    KV_SHARED_CLASS(KvFuzzHln)

public:
    explicit KvFuzzHln(int32_t iKey) : m_iKey(iKey) {}
    int Compare(const KvFuzzHln& o) const { return CompareKey(m_iKey, o); }
    static int CompareKey(int32_t iKey, const KvFuzzHln& o) { return iKey < o.m_iKey ? -1 : iKey > o.m_iKey ? 1 : 0; }

    int32_t m_iKey;
};
#pragma pack(pop)

namespace {

typedef HybridList<KvFuzzHln> KvFuzzList;

[[noreturn]] void Fail(const std::string& str)
{
    fprintf(stderr, "kvfuzz: %s\n", str.c_str());
    fflush(stderr);
    abort();
}

// Where the walk along the bottom list stops for key under a rule.
size_t ModelPlace(const std::vector<KvFuzzHln*>& v, int32_t iKey, uint32_t dwRule)
{
    size_t i = 0;
    while (i < v.size() && KvHlPasses(KvFuzzHln::CompareKey(iKey, *v[i]), dwRule))
        ++i;
    return i;
}

void Run(const uint8_t* pb, size_t cb)
{
    static const uint32_t s_adwTypes[] = {0, 1, 2, 3, 7};
    const uint32_t dwType = s_adwTypes[pb[0] % 5];
    // Removal and lookup search with the rule of types 0 and 1; on lists kept in
    // another order their answers are not defined, only insertion is.
    const bool fSearchable = dwType <= KVHL_SEARCH_ASCENDING;
    KvFuzzList list(dwType);
    std::vector<KvFuzzHln*> vModel;
    std::string strError;
    for (size_t i = 1; i + 1 < cb; i += 2) {
        const uint8_t op = pb[i];
        const uint8_t arg = pb[i + 1];
        const int32_t iKey = arg % 48;
        switch (op % 4) {
        case 0:
        case 1: {
            KvFuzzHln* p = KvNewShared<KvFuzzHln>(iKey);
            list.Insert(p);
            vModel.insert(vModel.begin() + static_cast<long>(ModelPlace(vModel, iKey, dwType)), p);
            break;
        }
        case 2: {
            if (vModel.empty())
                break;
            const size_t iAt = arg % vModel.size();
            KvFuzzHln* p = vModel[iAt];
            if (list.Remove(p)) {
                vModel.erase(vModel.begin() + static_cast<long>(iAt));
                KvDeleteShared(p);
            } else if (fSearchable) {
                Fail("an element in the list was not removed");
            }
            break;
        }
        default:
            if (op & 0x80) {
                KvFuzzHln* p = list.RemoveFirst();
                if (p != (vModel.empty() ? nullptr : vModel.front()))
                    Fail("RemoveFirst took another element");
                if (p != nullptr) {
                    vModel.erase(vModel.begin());
                    KvDeleteShared(p);
                }
            } else if (fSearchable) {
                const size_t iAt = ModelPlace(vModel, iKey, KvHlSearchTypeFor(dwType));
                KvFuzzHln* pExpected = iAt < vModel.size() && vModel[iAt]->m_iKey == iKey ? vModel[iAt] : nullptr;
                if (list.FindKey(iKey) != pExpected)
                    Fail("FindKey(" + std::to_string(iKey) + ") found another element");
            }
            break;
        }
        if (list.GetCount() != vModel.size())
            Fail("the count differs");
        if (!list.CheckStructure(&strError))
            Fail(strError);
    }
    std::vector<KvFuzzHln*> vList;
    for (KvFuzzHln* p = list.GetFirst(); p != nullptr; p = p->GetNext())
        vList.push_back(p);
    if (vList != vModel)
        Fail("the order of the elements differs");
    while (KvFuzzHln* p = list.RemoveFirst())
        KvDeleteShared(p);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // A segment of our own, in a namespace of our own.
    const char* pszNs = getenv("KVRFRSVR_NAMESPACE");
    const std::string strBase = pszNs != nullptr && *pszNs != '\0' ? pszNs : "fuzzhl." + std::to_string(getpid());
    setenv("KVRFRSVR_NAMESPACE", (strBase + ".hl").c_str(), 1);
    KvSetUiSink(KvUiSink{nullptr, nullptr, nullptr});
    KvThrowSetTestMode(true);
    KvDebugOutput::SetTestMode(true);
    KV_REGISTER_SHARED_CLASS(KvFuzzHln);
    KV_REGISTER_SHARED_CLASS(QTopNode<KvFuzzHln>);
    if (KvGranularity::_AllocSharedMem(0x4000000, "KVRFRSVR_MEM") < 1)
        Fail("no segment");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pb, size_t cb)
{
    if (cb == 0)
        return 0;
    const uint64_t qwBefore = KvFuzzPoolState();
    Run(pb, cb);
    if (KvFuzzPoolState() != qwBefore)
        Fail("the pools do not balance after an input");
    return 0;
}
