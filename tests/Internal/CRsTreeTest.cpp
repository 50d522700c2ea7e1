// Node tree: paths and references, flags and const nodes, child order and
// duplicates, and what RemoveChild leaves behind.
#include <string>

#include "CRsTestModel.h"

namespace {

class CRsTreeTest : public CRsModelTest {
protected:
    std::vector<std::string> ChildNames(const KvSmartPtr<CRsNode>& ptrParent)
    {
        std::vector<std::string> vec;
        for (KvSmartPtr<CRsNode> p = ptrParent->GetFirstChild(); p.IsNotNull(); p = p->GetNextSibling())
            vec.push_back(p->GetName());
        return vec;
    }
};

TEST_F(CRsTreeTest, PathRules)
{
    {
        KvSmartPtr<CRsNode> ptrRoot = MakeNode(KvSmartPtr<CRsNode>(), "top");
        KvSmartPtr<CRsNode> a = MakeNode(ptrRoot, "a");
        KvSmartPtr<CRsNode> b = MakeNode(a, "b");
        EXPECT_EQ(ptrRoot, ptrRoot->GetDescendant(""));
        EXPECT_EQ(a, ptrRoot->GetDescendant("a."));
        EXPECT_EQ(b, ptrRoot->GetDescendant("a.b"));
        EXPECT_TRUE(ptrRoot->GetDescendant(".a").IsNull());
        EXPECT_TRUE(ptrRoot->GetDescendant("a..b").IsNull());
        EXPECT_TRUE(ptrRoot->GetDescendant("a.b.c").IsNull());
        KvSmartPtr<CRsNode> e = MakeNode(ptrRoot, "");  // a child with the empty name makes ".a" a path
        KvSmartPtr<CRsNode> ea = MakeNode(e, "a");
        EXPECT_EQ(ea, ptrRoot->GetDescendant(".a"));
    }
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

TEST_F(CRsTreeTest, OverlongPathIsReportedAndNeverCopied)
{
    CRsReportCapture cap;
    KvSmartPtr<CRsNode> ptrRoot = GetRoot();
    std::string strPath(8191, 'x');
    EXPECT_TRUE(ptrRoot->GetDescendant(strPath.c_str()).IsNull());
    EXPECT_EQ(0u, cap.Statements().size());
    strPath += "x";
    EXPECT_TRUE(ptrRoot->GetDescendant(strPath.c_str()).IsNull());
    EXPECT_EQ(1u, cap.Count("_tcslen(pszPath) < sizeof(szBuf)"));
}

TEST_F(CRsTreeTest, ReferencesAreFollowed)
{
    {
        KvSmartPtr<CRsNode> ptrRoot = MakeNode(KvSmartPtr<CRsNode>(), "top");
        KvSmartPtr<CRsNode> q = MakeNode(ptrRoot, "q");
        KvSmartPtr<CRsNode> x = MakeNode(q, "x");
        KvSmartPtr<CRsNode> r = MakeNode(ptrRoot, "r");
        KvSmartPtr<CRsNode> r2 = MakeNode(ptrRoot, "r2");
        r->SetRef(q);
        r2->SetRef(r);  // a chain
        EXPECT_EQ(2u, r->GetType());
        EXPECT_EQ(x, ptrRoot->GetDescendant("r.x"));
        EXPECT_EQ(x, ptrRoot->GetDescendant("r2.x"));
        KvSmartPtr<CRsNode> y = MakeNode(r2, "y");  // lands in q through both references
        EXPECT_EQ(2, q->GetChildCount());
        EXPECT_EQ(2, r2->GetChildCount());
        r2->RemoveChild("y");
        EXPECT_EQ(1, q->GetChildCount());
        KvDeleteShared(y->m_pHln.Get());  // the unlinked entry still held y
        // A const reference node is not followed by the count (the narrower rule),
        // but still by the lookups.
        r->SetType(KVRS_TYPE_REF | KVRS_TYPE_CONST);
        EXPECT_EQ(0, r->GetChildCount());
        EXPECT_EQ(x, r->GetChild("x"));
        r->SetRef(KvSmartPtr<CRsNode>());  // const with a reference: refused
        EXPECT_EQ(q, r->GetRef());
        // A reference to a node of the same tree holds that tree's top: drop
        // the references, or the tree would hold itself.
        r->m_ptrRef.RmvRef();
        r2->m_ptrRef.RmvRef();
    }
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

TEST_F(CRsTreeTest, ReferenceCycleIsBoundedAndReported)
{
    CRsReportCapture cap;
    {
        KvSmartPtr<CRsNode> a = MakeNode(KvSmartPtr<CRsNode>(), "a");
        KvSmartPtr<CRsNode> b = MakeNode(KvSmartPtr<CRsNode>(), "b");
        a->SetRef(b);
        b->SetRef(a);
        EXPECT_TRUE(a->GetChild("x").IsNull());
        EXPECT_TRUE(a->GetValue().IsNull());
        EXPECT_EQ(0, a->GetChildCount());
        EXPECT_EQ(3u, cap.Count("cRefs < KVRS_MAX_REF_CHAIN"));
        b->SetRef(KvSmartPtr<CRsNode>());  // break the cycle so both can die
    }
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

TEST_F(CRsTreeTest, FlagSettersAndInvariant)
{
    CRsReportCapture cap;
    {
        KvSmartPtr<CRsNode> n = MakeNode(KvSmartPtr<CRsNode>(), "n");
        n->m_dwType = 7;
        n->SetRefFlag(false);
        EXPECT_EQ(0u, n->GetType());
        n->m_dwType = 0x10003;
        n->SetValueFlag(false);
        EXPECT_EQ(0x10000u, n->GetType());
        n->m_dwType = 6;
        n->SetParentFlag(true);
        EXPECT_EQ(4u, n->GetType());
        EXPECT_EQ(0u, cap.Statements().size());
        n->SetType(2);
        n->SetType(5);
        EXPECT_EQ(0u, cap.Statements().size());
        n->SetType(3);
        EXPECT_EQ(3u, n->GetType());  // stored although it breaks the invariant
        EXPECT_EQ(1u, cap.Count("(HasValue() || IsParent()) != HasRef() || !HasRef()"));
    }
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

TEST_F(CRsTreeTest, ConstNodesAndSetRef)
{
    {
        KvSmartPtr<CRsNode> p = MakeNode(KvSmartPtr<CRsNode>(), "p");
        MakeNode(p, "c");
        p->SetConstFlag(true);
        MakeNode(p, "d");
        p->RemoveChild("c");
        EXPECT_EQ(1, p->GetChildCount());
        KvSmartPtr<CRsNode> t = MakeNode(KvSmartPtr<CRsNode>(), "t");
        p->SetRef(t);  // has children: unchanged
        EXPECT_EQ(KVRS_TYPE_PARENT | KVRS_TYPE_CONST, p->GetType());
        EXPECT_TRUE(p->m_ptrRef.IsNull());
        // A const node without a value takes exactly one.
        KvSmartPtr<CRsValue> v1(KvNewObject), v2(KvNewObject);
        t->SetConstFlag(true);
        t->SetValue(v1);
        t->SetValue(v2);
        EXPECT_EQ(v1, t->GetValue());
        EXPECT_EQ(KVRS_TYPE_VALUE | KVRS_TYPE_CONST, t->GetType());
        t->SetRef(p);  // has a value: unchanged
        EXPECT_TRUE(t->GetRef().IsNull());
    }
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

TEST_F(CRsTreeTest, ChildrenSortAsUnsignedBytesAndDuplicatesKeepOrder)
{
    {
        KvSmartPtr<CRsNode> p = MakeNode(KvSmartPtr<CRsNode>(), "p");
        for (const char* psz : {"b", "B", "\xC3\xA4", "a", "A", "ab"})
            MakeNode(p, psz);
        EXPECT_EQ((std::vector<std::string>{"A", "B", "a", "ab", "b", "\xC3\xA4"}), ChildNames(p));

        KvSmartPtr<CRsNode> d1 = MakeNode(p, "dup", 0x100);
        KvSmartPtr<CRsNode> d2 = MakeNode(p, "dup", 0x200);
        EXPECT_EQ(8, p->GetChildCount());
        const KvPoolSnapshot snapLookup = KvTakePoolSnapshot();
        EXPECT_EQ(d1, p->GetChild("dup"));
        EXPECT_TRUE(p->GetChild("Dup").IsNull());
        EXPECT_TRUE(KvPoolsBalanced(snapLookup)) << "a lookup creates nothing";

        p->RemoveChild("dup");
        EXPECT_EQ(d2, p->GetChild("dup"));
        EXPECT_EQ(7, p->GetChildCount());
        // Only unlinked: the child lives on with its parent and entry links.
        EXPECT_EQ(p.Offset(), d1->m_ptrParent.Offset());
        ASSERT_TRUE(d1->m_pHln.IsNotNull());
        EXPECT_EQ(d1.Get(), d1->m_pHln->m_ptr.Get());
        EXPECT_TRUE(d1->GetNextSibling().IsNull());
        KvDeleteShared(d1->m_pHln.Get());  // what the tree no longer does for it
        EXPECT_TRUE(d1->m_pHln.IsNull());

        p->AddChild(p);  // a node never becomes its own descendant
        KvSmartPtr<CRsNode> c = p->GetChild("a");
        c->AddChild(p);
        EXPECT_EQ(0, c->GetChildCount());
        EXPECT_EQ(7, p->GetChildCount());
    }
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

TEST_F(CRsTreeTest, LargeChildListStaysSortedAndTearsDown)
{
    {
        KvSmartPtr<CRsNode> p = MakeNode(KvSmartPtr<CRsNode>(), "p");
        std::vector<KvSmartPtr<CRsNode>> vecRemoved;
        for (int i = 0; i < 2000; ++i) {
            const int n = (i * 7919) % 2000;
            KvSmartPtr<CRsNode> c = MakeNode(p, std::to_string(n).c_str());
            if (n % 3 == 0)
                vecRemoved.push_back(c);
        }
        std::string strError;
        EXPECT_TRUE(p->m_ptrChildList->CheckStructure(&strError)) << strError;
        for (int i = 0; i < 2000; i += 3)
            p->RemoveChild(std::to_string(i).c_str());
        EXPECT_TRUE(p->m_ptrChildList->CheckStructure(&strError)) << strError;
        EXPECT_EQ(1333, p->GetChildCount());
        EXPECT_TRUE(p->GetChild("3").IsNull());
        EXPECT_TRUE(p->GetChild("4").IsNotNull());
        for (auto& c : vecRemoved)
            KvDeleteShared(c->m_pHln.Get());
    }
    EXPECT_TRUE(KvPoolsBalanced(m_snap));
}

}  // namespace
