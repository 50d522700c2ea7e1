// The singly linked list: head/tail/count bookkeeping, element references, and
// a randomized comparison with std::deque.
#include <deque>
#include <random>

#include "SmartPtrTestClasses.h"

namespace {

class Kv1ListTest : public KvSharedTest {
};

typedef Kv1List<KvSmartPtr<KvTestObj>> ObjList;
typedef Kv1List<int32_t> IntList;

// Head, tail, count and the walk agree with the expected contents.
::testing::AssertionResult Matches(const IntList& list, const std::deque<int32_t>& model)
{
    if (list.GetCount() != static_cast<int32_t>(model.size()))
        return ::testing::AssertionFailure() << "count " << list.GetCount() << " != " << model.size();
    if (model.empty())
        return list.GetHead().IsNull() && list.GetTail().IsNull()
                   ? ::testing::AssertionSuccess()
                   : ::testing::AssertionFailure() << "empty list with head or tail";
    size_t i = 0;
    KvsPtr<KvTestIntNode> pLast;
    for (KvsPtr<KvTestIntNode> p = list.GetHead(); p.IsNotNull(); p = p->m_pNext, ++i) {
        if (i >= model.size() || p->m_data != model[i])
            return ::testing::AssertionFailure() << "element " << i << " differs";
        pLast = p;
    }
    if (i != model.size() || pLast != list.GetTail())
        return ::testing::AssertionFailure() << "the tail is not the last node";
    return ::testing::AssertionSuccess();
}

TEST_F(Kv1ListTest, AddFirstThenAddLastOnAnEmptyList)
{
    KvSmartPtr<KvTestObj> a(KvNewObject), b(KvNewObject);
    {
        ObjList list;
        EXPECT_EQ(0u, list.m_dwVtblPlaceholder);
        KvsPtr<KvTestObjNode> n1 = list.AddFirst(a);
        KvsPtr<KvTestObjNode> n2 = list.AddLast(b);
        EXPECT_EQ(n1, list.GetHead());
        EXPECT_EQ(n2, list.GetTail());
        EXPECT_EQ(2, list.GetCount());
        EXPECT_EQ(KvTestObjNode::sm_iDeleteFunction, +n1->m_iDeleteFunction);
        EXPECT_EQ(2, +a->m_cSmart) << "a node holds a counted reference";
        EXPECT_TRUE(KvTestObjNode::GetData(n2->GetNext()).IsNull()) << "past the end reads the null element";
    }
    EXPECT_EQ(1, +a->m_cSmart) << "the destructor released every element";
    EXPECT_EQ(1, +b->m_cSmart);
}

TEST_F(Kv1ListTest, RemovingTheTailMakesItsPredecessorTheTail)
{
    KvSmartPtr<KvTestObj> a(KvNewObject), b(KvNewObject), c(KvNewObject);
    ObjList list;
    KvsPtr<KvTestObjNode> n1 = list.AddLast(a);
    KvsPtr<KvTestObjNode> n2 = list.AddLast(b);
    KvSmartPtr<KvTestObj> r = list.Remove(n2, n1);
    EXPECT_EQ(b.Get(), r.Get());
    EXPECT_EQ(2, +b->m_cSmart) << "the node's reference moved to the result";
    EXPECT_EQ(n1, list.GetTail());
    EXPECT_EQ(1, list.GetCount());
    KvsPtr<KvTestObjNode> n3 = list.AddLast(c);
    EXPECT_EQ(n3, n1->m_pNext) << "AddLast links behind the new tail";
    EXPECT_EQ(n3, list.GetTail());
}

TEST_F(Kv1ListTest, RemoveFirstEmptiesAndIgnoresAnEmptyList)
{
    KvSmartPtr<KvTestObj> a(KvNewObject);
    ObjList list;
    EXPECT_TRUE(list.RemoveFirst().IsNull());
    EXPECT_EQ(0, list.GetCount());
    list.AddFirst(a);
    KvSmartPtr<KvTestObj> r = list.RemoveFirst();
    EXPECT_EQ(a.Get(), r.Get());
    EXPECT_TRUE(list.GetHead().IsNull());
    EXPECT_TRUE(list.GetTail().IsNull());
    EXPECT_EQ(0, list.GetCount());
    EXPECT_TRUE(list.RemoveFirst().IsNull());
    EXPECT_EQ(0, list.GetCount());
}

TEST_F(Kv1ListTest, ListHoldingTheLastReferenceFreesTheObjects)
{
    {
        ObjList list;
        for (int i = 0; i < 5; ++i)
            list.AddLast(KvSmartPtr<KvTestObj>(KvNewObject));
        EXPECT_EQ(0, KvTestObj::sm_cDestroyed);
        list.RemoveFirst();  // the result is dropped at once
        EXPECT_EQ(1, KvTestObj::sm_cDestroyed);
    }
    EXPECT_EQ(5, KvTestObj::sm_cDestroyed);
}

TEST_F(Kv1ListTest, AWrongPredecessorIsRefused)
{
    IntList list;
    KvsPtr<KvTestIntNode> n1 = list.AddLast(1);
    list.AddLast(2);
    KvsPtr<KvTestIntNode> n3 = list.AddLast(3);
    EXPECT_EQ(0, list.Remove(n3, n1));
    EXPECT_EQ(0, list.Remove(KvsPtr<KvTestIntNode>(), n1));
    EXPECT_TRUE(Matches(list, {1, 2, 3}));
}

TEST_F(Kv1ListTest, RandomOperationsMatchADeque)
{
    const unsigned uSeed = 20240611;
    std::mt19937 rng(uSeed);
    IntList list;
    std::deque<int32_t> model;
    for (int i = 0; i < 20000; ++i) {
        const int iOp = static_cast<int>(rng() % 8);
        const int32_t v = static_cast<int32_t>(rng() % 1000) + 1;
        if (iOp < 2) {
            list.AddFirst(v);
            model.push_front(v);
        } else if (iOp < 4 || model.size() < 2) {
            list.AddLast(v);
            model.push_back(v);
        } else if (iOp < 6) {
            EXPECT_EQ(model.front(), list.RemoveFirst());
            model.pop_front();
        } else {
            // Remove the node at a random position, with its predecessor.
            const size_t iPos = rng() % model.size();
            KvsPtr<KvTestIntNode> pPred, p = list.GetHead();
            for (size_t k = 0; k < iPos; ++k) {
                pPred = p;
                p = p->m_pNext;
            }
            EXPECT_EQ(model[iPos], list.Remove(p, pPred));
            model.erase(model.begin() + static_cast<std::ptrdiff_t>(iPos));
        }
        ASSERT_TRUE(Matches(list, model)) << "seed " << uSeed << ", operation " << i;
    }
}

}  // namespace
