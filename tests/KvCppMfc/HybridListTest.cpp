// The hybrid sorted list: a long randomized comparison with std::multimap for
// each sort type, with the full structure check (order, counts, the bottom and
// parent links of every index level) along the way.
#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <unordered_map>
#include <vector>

#include "SegmentTestSupport.h"

namespace {

typedef HybridList<KvTestHln> TestList;

class HybridListModelTest : public KvSharedTest, public ::testing::WithParamInterface<uint32_t> {
protected:
    KvTestHln* Insert(TestList& list, int32_t iKey)
    {
        KvTestHln* p = KvNewShared<KvTestHln>(iKey, ++m_iNextId);
        list.Insert(p);
        return p;
    }
    static std::string Check(const TestList& list)
    {
        std::string str;
        return list.CheckStructure(&str) ? std::string("ok") : str;
    }
    int32_t m_iNextId = 0;
};

TEST_P(HybridListModelTest, RandomOperationsMatchAMultimap)
{
    const uint32_t dwSortType = GetParam();
    const bool bDescending = dwSortType == KVHL_SORT_DESCENDING;
    // Sort type 2 places a new element before its equals; 0 and 1 after them.
    const bool bBeforeEquals = dwSortType == KVHL_SEARCH_ASCENDING;
    std::multimap<int32_t, KvTestHln*, std::function<bool(int32_t, int32_t)>> model(
        [bDescending](int32_t a, int32_t b) { return bDescending ? a > b : a < b; });
    std::vector<KvTestHln*> vLive;  // for picking one at random, and where each one stands
    std::unordered_map<KvTestHln*, size_t> mapSlot;
    auto forget = [&](KvTestHln* p) {
        auto range = model.equal_range(p->m_iKey);
        model.erase(std::find_if(range.first, range.second, [p](const auto& e) { return e.second == p; }));
        const size_t i = mapSlot[p];
        vLive[i] = vLive.back();
        mapSlot[vLive[i]] = i;
        vLive.pop_back();
        mapSlot.erase(p);
        KvDeleteShared(p);
    };
    std::mt19937 rng(dwSortType + 1);
    TestList list(dwSortType);
    // Churn on a small list (splits, merges and level changes come thick and
    // fast, and a full check after every operation is cheap), grow to some 30000
    // elements (four levels), churn, then shrink.
    const int cOps = 150000, cSmallOps = 20000;
    for (int iOp = 0; iOp < cOps; ++iOp) {
        const uint32_t cInsertPct = iOp < cSmallOps ? 43 : iOp < 70000 ? 70 : iOp < 120000 ? 45 : 25;
        const uint32_t r = rng() % 100;
        const int32_t iKey = static_cast<int32_t>(rng() % 5000);  // many equal keys
        if (r < cInsertPct || vLive.empty()) {
            KvTestHln* p = Insert(list, iKey);
            if (bBeforeEquals)
                model.insert(model.lower_bound(iKey), {iKey, p});
            else
                model.insert({iKey, p});
            mapSlot[p] = vLive.size();
            vLive.push_back(p);
        } else if (r < cInsertPct + 15) {
            auto it = model.lower_bound(iKey);
            KvTestHln* pExpected = it != model.end() && it->first == iKey ? it->second : nullptr;
            ASSERT_EQ(pExpected, list.FindKey(iKey)) << "key " << iKey << " at operation " << iOp;
            if (pExpected != nullptr) {
                ASSERT_EQ(pExpected, list.Find(pExpected));
            }
        } else if (r < cInsertPct + 20) {
            KvTestHln* p = list.RemoveFirst();
            ASSERT_EQ(model.begin()->second, p) << "operation " << iOp;
            forget(p);
        } else {
            KvTestHln* p = vLive[rng() % vLive.size()];
            ASSERT_TRUE(list.Remove(p)) << "operation " << iOp;
            ASSERT_FALSE(list.Remove(p)) << "removal is by identity, not by key";
            forget(p);
        }
        ASSERT_EQ(model.size(), list.GetCount());
        if (iOp < cSmallOps || iOp % 2000 == 0) {
            ASSERT_EQ("ok", Check(list)) << "after operation " << iOp;
        }
    }
    while (!vLive.empty()) {
        ASSERT_TRUE(list.Remove(vLive.back()));
        forget(vLive.back());
    }
    EXPECT_EQ(nullptr, list.GetAnchor()->GetParent()) << "the index shrank back to the anchor";
    EXPECT_EQ("ok", Check(list));
}

INSTANTIATE_TEST_SUITE_P(SortTypes, HybridListModelTest,
                         ::testing::Values(KVHL_SORT_ASCENDING, KVHL_SORT_DESCENDING, KVHL_SEARCH_ASCENDING));

}  // namespace
