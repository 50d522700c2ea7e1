// The hybrid sorted list: index shape after splits, placement rules, bottom
// links on every level, and a long randomized comparison with std::multimap for
// several sort types, checking every invariant along the way.
#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <unordered_map>
#include <vector>

#include "SmartPtrTestClasses.h"

namespace {

typedef HybridList<KvTestHln> TestList;
typedef QTopNode<KvTestHln> TestTop;

class HybridListTest : public KvSharedTest {
protected:
    KvTestHln* Insert(TestList& list, int32_t iKey)
    {
        KvTestHln* p = KvNewShared<KvTestHln>(iKey, ++m_iNextId);
        list.Insert(p);
        return p;
    }
    // The owner's part: take the elements out and delete them.
    static void DeleteAll(TestList& list)
    {
        while (KvTestHln* p = list.RemoveFirst())
            KvDeleteShared(p);
    }
    static std::vector<KvTestHln*> Elements(const TestList& list)
    {
        std::vector<KvTestHln*> v;
        for (KvTestHln* p = list.GetFirst(); p != nullptr; p = p->GetNext())
            v.push_back(p);
        return v;
    }
    static std::string Check(const TestList& list)
    {
        std::string str;
        return list.CheckStructure(&str) ? std::string("ok") : str;
    }

    int32_t m_iNextId = 0;
};

TEST_F(HybridListTest, EmptyListFindsNothing)
{
    TestList list;
    TestTop* pCover = nullptr;
    KvTestHln* pLeft = reinterpret_cast<KvTestHln*>(1);
    EXPECT_EQ(nullptr, list.FindKeyInsertionPoint(5, &pCover, &pLeft, 0));
    EXPECT_EQ(nullptr, pLeft);
    EXPECT_EQ(list.GetAnchor(), pCover);
    EXPECT_EQ(nullptr, list.FindKey(5));
    EXPECT_EQ(nullptr, list.RemoveFirst());
    KvTestHln* p = KvNewShared<KvTestHln>(5, 1);
    EXPECT_FALSE(list.Remove(p));
    EXPECT_EQ(nullptr, list.Find(p));
    EXPECT_EQ("ok", Check(list));
    KvDeleteShared(p);
}

TEST_F(HybridListTest, ThirtiethElementSplitsTheRunAndGrowsATopLevel)
{
    TestList list;
    for (int i = 0; i < 29; ++i)
        Insert(list, i);
    TestTop* pAnchor = list.GetAnchor();
    EXPECT_EQ(29u, pAnchor->GetCount());
    EXPECT_EQ(nullptr, pAnchor->GetParent());
    Insert(list, 29);
    ASSERT_NE(nullptr, pAnchor->GetNext());
    EXPECT_EQ(15u, pAnchor->GetCount());
    EXPECT_EQ(15u, pAnchor->GetNext()->GetCount());
    EXPECT_EQ(15, +pAnchor->GetNext()->GetBottom()->m_iKey) << "the new entry takes the later half";
    TestTop* pTop = pAnchor->GetParent();
    ASSERT_NE(nullptr, pTop);
    EXPECT_EQ(2u, pTop->GetCount());
    EXPECT_EQ(pAnchor, pTop->GetChild());
    EXPECT_EQ(nullptr, pTop->GetNext());
    EXPECT_EQ(list.GetFirst(), pTop->GetBottom());
    EXPECT_EQ(nullptr, pAnchor->GetNext()->GetParent()) << "only the first entry of a run links up";
    EXPECT_EQ("ok", Check(list));
    DeleteAll(list);
}

TEST_F(HybridListTest, SmallestKeyGoesInFrontAndIsTheBottomOnEveryLevel)
{
    TestList list;
    for (int i = 0; i < 2000; ++i)
        Insert(list, 10 + (i * 7919) % 2000);
    ASSERT_NE(nullptr, list.GetAnchor()->GetParent());
    ASSERT_NE(nullptr, list.GetAnchor()->GetParent()->GetParent()) << "three levels at least";

    TestTop* pCover = nullptr;
    KvTestHln* pLeft = nullptr;
    EXPECT_EQ(list.GetFirst(), list.FindKeyInsertionPoint(3, &pCover, &pLeft, 0));
    EXPECT_EQ(nullptr, pLeft);
    EXPECT_EQ(TestTop::BeforeFirst(), pCover);

    KvTestHln* p = Insert(list, 3);
    EXPECT_EQ(p, list.GetFirst());
    for (TestTop* q = list.GetAnchor(); q != nullptr; q = q->GetParent())
        EXPECT_EQ(p, q->GetBottom());
    EXPECT_EQ("ok", Check(list));

    // Taking it out again hands the bottom on to the next element on every level.
    KvTestHln* pSecond = p->GetNext();
    EXPECT_TRUE(list.Remove(p));
    KvDeleteShared(p);
    for (TestTop* q = list.GetAnchor(); q != nullptr; q = q->GetParent())
        EXPECT_EQ(pSecond, q->GetBottom());
    EXPECT_EQ("ok", Check(list));
    DeleteAll(list);
}

TEST_F(HybridListTest, RemovingTheFirstElementOfALaterRunMovesThatRunsBottom)
{
    TestList list;
    for (int i = 0; i < 300; ++i)
        Insert(list, i);
    TestTop* pRun = list.GetAnchor()->GetNext()->GetNext();
    KvTestHln* pFirst = pRun->GetBottom();
    KvTestHln* pSecond = pFirst->GetNext();
    EXPECT_TRUE(list.Remove(pFirst));
    KvDeleteShared(pFirst);
    EXPECT_EQ(pSecond, pRun->GetBottom());
    EXPECT_EQ("ok", Check(list));
    DeleteAll(list);
}

TEST_F(HybridListTest, EqualKeysKeepInsertionOrderAndFindTheFirst)
{
    TestList list;
    for (int i = 0; i < 100; ++i)
        Insert(list, i % 10);
    std::vector<KvTestHln*> v = Elements(list);
    ASSERT_EQ(100u, v.size());
    // Sort type 0 puts a new element after its equals: ids rise within a key.
    for (size_t i = 1; i < v.size(); ++i)
        if (v[i - 1]->m_iKey == v[i]->m_iKey) {
            EXPECT_LT(+v[i - 1]->m_iId, +v[i]->m_iId);
        }
    KvTestHln* p = list.FindKey(7);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(8, +p->m_iId) << "the first of the equal elements";

    // Removal is by identity: an equal stranger is not found, a later equal is.
    KvTestHln* pStranger = KvNewShared<KvTestHln>(7, 999);
    EXPECT_FALSE(list.Remove(pStranger));
    EXPECT_EQ(100u, list.GetCount());
    KvTestHln* pLast7 = v[79];
    ASSERT_EQ(7, +pLast7->m_iKey);
    EXPECT_TRUE(list.Remove(pLast7));
    EXPECT_FALSE(list.Remove(pLast7));
    KvDeleteShared(pLast7);
    KvDeleteShared(pStranger);
    EXPECT_EQ("ok", Check(list));
    DeleteAll(list);
}

TEST_F(HybridListTest, SortTypesAboveThreeAlwaysTakeTheFirstPlace)
{
    TestList list(7);
    for (int i = 1; i <= 40; ++i)
        Insert(list, i);
    EXPECT_EQ(40, +list.GetFirst()->m_iKey);
    EXPECT_EQ("ok", Check(list));
    DeleteAll(list);
}

std::string s_strBox;
void CaptureBox(const char* pszText, const char* pszCaption)
{
    s_strBox = std::string(pszCaption) + "|" + pszText;
}

TEST_F(HybridListTest, SplitBetweenEntriesThatAreNotNeighboursIsReported)
{
    // A level of one entry over four loose elements, and an unrelated entry.
    KvTestHln* ap[4];
    for (int i = 0; i < 4; ++i)
        ap[i] = KvNewShared<KvTestHln>(i, i);
    for (int i = 0; i < 3; ++i)
        ap[i]->InsertThisBetween(nullptr, ap[i + 1]);
    TestTop* pLeft = KvNewShared<TestTop>();
    pLeft->m_cCount = 4;
    pLeft->m_pBottom = ap[0];
    TestTop* pStray = KvNewShared<TestTop>();
    TestTop* pNew = KvNewShared<TestTop>();

    KvDebugOutput::SetTestMode(false);
    const KvUiSink sinkOld = KvSetUiSink({&CaptureBox, nullptr, nullptr});
    pNew->InsertThisBetween(pLeft, pStray);
    KvSetUiSink(sinkOld);
    KvDebugOutput::SetTestMode(true);
    EXPECT_EQ("ERROR|Internal data structures corrupted in\nfile: KvCppMfc/HybridList\nline: 59\nstatement: false",
              s_strBox);
    // It went on: the later half moved to the new entry and a top level grew.
    EXPECT_EQ(2u, +pLeft->m_cCount);
    EXPECT_EQ(2u, +pNew->m_cCount);
    EXPECT_EQ(ap[2], pNew->GetBottom());
    ASSERT_NE(nullptr, pLeft->GetParent());
    EXPECT_EQ(2u, +pLeft->GetParent()->m_cCount);

    KvDeleteShared(pLeft->GetParent());
    for (TestTop* q : {pLeft, pStray, pNew})
        KvDeleteShared(q);
    for (KvTestHln* p : ap)
        KvDeleteShared(p);
}

// --- randomized comparison with std::multimap --------------------------------

struct ModelCase {
    uint32_t dwSortType;
    unsigned uSeed;
};

class HybridListModelTest : public HybridListTest, public ::testing::WithParamInterface<ModelCase> {
};

typedef std::multimap<int32_t, KvTestHln*, std::function<bool(int32_t, int32_t)>> Model;

TEST_P(HybridListModelTest, RandomOperationsMatchAMultimap)
{
    const ModelCase c = GetParam();
    const bool bDescending = c.dwSortType == KVHL_SORT_DESCENDING;
    // Sort type 2 places a new element before its equals; 0 and 1 after them.
    const bool bBeforeEquals = c.dwSortType == KVHL_SEARCH_ASCENDING;
    Model model([bDescending](int32_t a, int32_t b) { return bDescending ? a > b : a < b; });
    // The live elements, for picking one at random, and where each one stands.
    std::vector<KvTestHln*> vLive;
    std::unordered_map<KvTestHln*, size_t> mapSlot;
    auto forget = [&](KvTestHln* p) {
        const size_t i = mapSlot[p];
        vLive[i] = vLive.back();
        mapSlot[vLive[i]] = i;
        vLive.pop_back();
        mapSlot.erase(p);
    };
    std::mt19937 rng(c.uSeed);
    TestList list(c.dwSortType);
    SCOPED_TRACE("seed " + std::to_string(c.uSeed) + ", sort type " + std::to_string(c.dwSortType));

    // Churn on a small list (where splits, merges and level changes come
    // thick and fast, and a full check after every operation is cheap), grow to
    // about 40000 elements, churn, then shrink: the index grows and collapses
    // level by level.
    const int cOps = 400000;
    const int cSmallOps = 40000;
    int cChecks = 0;
    for (int iOp = 0; iOp < cOps; ++iOp) {
        const uint32_t cInsertPct = iOp < cSmallOps ? 43 : iOp < 140000 ? 70 : iOp < 320000 ? 45 : 25;
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
            ASSERT_EQ(pExpected, list.FindKey(iKey)) << "find of key " << iKey << " at operation " << iOp;
            if (pExpected != nullptr) {
                ASSERT_EQ(pExpected, list.Find(pExpected));
            }
        } else if (r < cInsertPct + 20) {
            KvTestHln* p = list.RemoveFirst();
            ASSERT_EQ(model.begin()->second, p) << "operation " << iOp;
            model.erase(model.begin());
            forget(p);
            KvDeleteShared(p);
        } else {
            const size_t i = rng() % vLive.size();
            KvTestHln* p = vLive[i];
            ASSERT_TRUE(list.Remove(p)) << "operation " << iOp;
            auto range = model.equal_range(p->m_iKey);
            model.erase(std::find_if(range.first, range.second, [p](const auto& e) { return e.second == p; }));
            forget(p);
            KvDeleteShared(p);
        }
        ASSERT_EQ(model.size(), list.GetCount());
        if (iOp < cSmallOps || iOp % 2000 == 0) {
            ++cChecks;
            std::string strError;
            ASSERT_TRUE(list.CheckStructure(&strError)) << strError << " after operation " << iOp;
        }
        if (iOp % 20000 == 0) {
            std::vector<KvTestHln*> v = Elements(list);
            ASSERT_TRUE(std::equal(v.begin(), v.end(), model.begin(), model.end(),
                                   [](KvTestHln* p, const auto& e) { return p == e.second; }))
                << "element order differs after operation " << iOp;
        }
    }
    while (!vLive.empty()) {
        KvTestHln* p = vLive.back();
        vLive.pop_back();
        ASSERT_TRUE(list.Remove(p));
        KvDeleteShared(p);
    }
    EXPECT_EQ(0u, list.GetCount());
    EXPECT_EQ(nullptr, list.GetAnchor()->GetParent()) << "the index shrank back to the anchor";
    EXPECT_EQ("ok", Check(list));
    EXPECT_GT(cChecks, cSmallOps);
}

INSTANTIATE_TEST_SUITE_P(SortTypes, HybridListModelTest,
                         ::testing::Values(ModelCase{KVHL_SORT_ASCENDING, 1}, ModelCase{KVHL_SORT_DESCENDING, 2},
                                           ModelCase{KVHL_SEARCH_ASCENDING, 3}),
                         [](const ::testing::TestParamInfo<ModelCase>& info) {
                             return "Type" + std::to_string(info.param.dwSortType);
                         });

}  // namespace
