// The consistency check: a busy, healthy tree passes and is left byte for byte
// as it was; each kind of damage that a killed process or a stray write can
// leave is named, without the check faulting. Every damage is undone before the
// next, so the teardown still frees a sound tree.
#include <cstring>
#include <type_traits>

#include "CRsTestModel.h"
#include "KvRfrSvr/Internal/CRsCheck.h"

#pragma pack(push, 1)
struct KvUnalignedWord {
    uint32_t dw;
    KvUnalignedWord() = default;
    KvUnalignedWord(uint32_t v) : dw(v) {}
};
#pragma pack(pop)

// A field is named by its expression; its type comes from decltype, its address
// goes over as void* so that no reference to a packed member is formed.
#define KV_REPORTS_WITH(field, value, what) \
    ReportsWithAt<std::remove_cv_t<std::remove_reference_t<decltype(field)>>>(static_cast<void*>(&(field)), value, what)

namespace {

class CRsCheckTest : public CRsModelTest {
protected:
    static std::vector<std::string> Problems(CRsCheckCensus* pCensus = nullptr)
    {
        KvCheckReport report;
        CRsCheckSegment(report, pCensus);
        return report.Problems();
    }
    // Passes when one of the check's lines contains strWhat ("": when there is none).
    static ::testing::AssertionResult Reports(const std::string& strWhat)
    {
        std::string strAll;
        for (const std::string& str : Problems()) {
            if (!strWhat.empty() && str.find(strWhat) != std::string::npos)
                return ::testing::AssertionSuccess();
            strAll += "\n  " + str;
        }
        if (strWhat.empty() && strAll.empty())
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "looked for \"" << strWhat << "\"; lines:" << strAll;
    }
    static ::testing::AssertionResult Clean() { return Reports(""); }
    // Sets a field for one check and puts the old value back. Fields of packed
    // structures may be misaligned, so they are reached by address and copied
    // bytewise, never bound to a reference.
    template <class T, class U>
    static ::testing::AssertionResult ReportsWithAt(void* pvField, U value, const std::string& strWhat)
    {
        T old;
        memcpy(static_cast<void*>(&old), pvField, sizeof(T));
        const T now = static_cast<T>(value);
        memcpy(pvField, &now, sizeof(T));
        ::testing::AssertionResult r = Reports(strWhat);
        memcpy(pvField, &old, sizeof(T));
        return r;
    }
    static uint32_t& Word(uint32_t ofs) { return *static_cast<uint32_t*>(KvGranularity::_CalcPtr(ofs)); }
    // The offset word of a link, for links without assignment (counted or child).
    // Links sit at odd offsets of packed objects: the word is seen through a
    // one-byte-aligned view.
    template <class P>
    static KvUnalignedWord& LinkWord(P& link)
    {
        static_assert(sizeof(P) == 4, "a link is one offset");
        return *reinterpret_cast<KvUnalignedWord*>(&link);
    }
};

// Root > "a" (40 children, so its index has two levels) with values, a reference,
// a removed child, a server and clients of several processes, and messages.
TEST_F(CRsCheckTest, ABusyTreePassesAndIsLeftAsItWas)
{
    KvSmartPtr<CRsNode> root = GetRoot();
    KvSmartPtr<CRsNode> a = MakeNode(root, "a");
    KvSmartPtr<CRsValue> v(KvNewObject);
    v->SetBytes("hello", 5);
    for (int i = 0; i < 40; ++i) {
        KvSmartPtr<CRsNode> c = MakeNode(a, ("c" + std::to_string(i)).c_str());
        if (i % 3 == 0)
            c->SetValue(v);
    }
    MakeNode(a, "c7");  // a duplicate name
    KvSmartPtr<CRsNode> r = MakeNode(root, "r");
    r->SetRef(a);
    KvSmartPtr<CRsNode> gone = a->GetChild("c5");
    a->RemoveChild("c5");  // unlinked, but kept by its entry
    KvSmartPtr<CRsQueue> qDead = MakeQueue(0x7ffffff0);
    a->ConnectServer(H(1), 1, g_ptrThisPrcsQueue);
    a->ConnectClient(H(2), 2, qDead);
    a->ConnectClient(H(3), 3, g_ptrThisPrcsQueue);
    a->ConnectClient(H(3), 3, g_ptrThisPrcsQueue);
    gone->ConnectClient(H(4), 4, qDead);
    a->NotifyClients(0x10005, v, true);
    a->NotifyServer(6, KvSmartPtr<CRsValue>(), false);

    const uint32_t cbUsed = KvGranularity::_poinf->_pchNextCommit.Offset();
    const std::vector<char> vBefore(KvGranularity::_pvBase, KvGranularity::_pvBase + cbUsed);
    CRsCheckCensus census;
    EXPECT_TRUE(Problems(&census).empty()) << Problems().front();
    EXPECT_EQ(0, memcmp(vBefore.data(), KvGranularity::_pvBase, cbUsed));  // nothing written

    EXPECT_EQ(43u, census.m_cNodes);  // root, a, r, 40 children: nothing leads to the removed c5
    EXPECT_EQ(1u, census.m_cValues);
    ASSERT_EQ(2u, census.m_vQueues.size());
    const std::vector<CRsQueueUse> vEnded = CRsQueuesOfEndedProcesses(census);
    ASSERT_EQ(1u, vEnded.size());
    EXPECT_EQ(qDead.Offset(), vEnded[0].m_ofs);
    EXPECT_EQ(1, vEnded[0].m_cMsgs);  // a's client 2; c5 is out of the recursive walk

    a->DisconnectServer();
    a->DisconnectClient(H(3), 3);
    a->DisconnectClient(H(3), 3);
    EXPECT_TRUE(Clean());
}

TEST_F(CRsCheckTest, DamagedHeaderAndPoolsAreNamed)
{
    KvGranularity::Info& info = *KvGranularity::_poinf;
    const uint32_t ofsCommit = info._pchNextCommit.Offset();
    EXPECT_TRUE(
        KV_REPORTS_WITH(info._pchNextFree, KvsPtr<char>::FromOffset(ofsCommit + 8192), "is past _pchNextCommit"));
    EXPECT_TRUE(KV_REPORTS_WITH(info._pchNextCommit, KvsPtr<char>::FromOffset(0x8000000), "is past the segment's end"));
    EXPECT_TRUE(KV_REPORTS_WITH(info._aptrRoot[5], 8, "root slot 5 holds 0x00000008"));
    EXPECT_TRUE(KV_REPORTS_WITH(info._abReserved[3], 1, "reserved bytes"));

    // Two free 64-byte blocks: head A -> B -> ...
    KvGranularity& g = *KvGranularity::_GetGranularity(4);
    void* pA = KvGranularity::_Alloc(64);
    void* pB = KvGranularity::_Alloc(64);
    KvGranularity::_Free(pB, 64);
    KvGranularity::_Free(pA, 64);
    ASSERT_TRUE(Clean());
    const uint32_t ofsA = KvGranularity::_CalcOffset(pA), ofsB = KvGranularity::_CalcOffset(pB);
    ASSERT_EQ(ofsA, g._pchHead.Offset());
    EXPECT_TRUE(KV_REPORTS_WITH(Word(ofsB), ofsA, "free list runs in a cycle through"));
    EXPECT_TRUE(KV_REPORTS_WITH(Word(ofsA), ofsB + 8, "is not aligned to its class"));
    EXPECT_TRUE(KV_REPORTS_WITH(Word(ofsA), 0x7ffff000, "lies outside the carved area"));
    EXPECT_TRUE(KV_REPORTS_WITH(g._cNetUnchecked, g._cNetUnchecked + 1, "the byte counters say"));
    // A block taken off the list by a process that died before counting it.
    EXPECT_TRUE(KV_REPORTS_WITH(g._pchHead, KvsPtr<char>::FromOffset(ofsB), "bytes are carved into blocks"));
    EXPECT_TRUE(Clean());
}

#ifdef KVRS_EXE
// The inspection commands read a damaged segment without faulting: a free-list
// link far outside the segment is reported, not followed. A large block pool is
// damaged, one that the tool's own start-up does not allocate from.
TEST_F(CRsCheckTest, InspectionCommandsSurviveADamagedFreeList)
{
    void* pA = KvGranularity::_Alloc(4096);
    KvGranularity::_Free(pA, 4096);
    const uint32_t ofsA = KvGranularity::_CalcOffset(pA);
    const uint32_t ofsNext = Word(ofsA);
    Word(ofsA) = 0x7ffff000;
    for (const char* pszCommand : {"stats", "check"}) {
        std::string strOut;
        const int iStatus = KvTestRunExe({KVRS_EXE, pszCommand}, &strOut);
        EXPECT_LT(iStatus, 128) << pszCommand << " ended by a signal: " << strOut;
        EXPECT_NE(std::string::npos, strOut.find(*pszCommand == 's' ? "free list broken" : "outside the carved area"))
            << pszCommand << ": " << strOut;
    }
    Word(ofsA) = ofsNext;
    EXPECT_TRUE(Clean());
}
#endif

TEST_F(CRsCheckTest, BrokenLinksInTheTreeAreNamedWithoutFaulting)
{
    KvSmartPtr<CRsNode> root = GetRoot();
    KvSmartPtr<CRsNode> a = MakeNode(root, "a");
    for (int i = 0; i < 35; ++i)
        MakeNode(a, ("c" + std::to_string(i)).c_str());
    KvSmartPtr<CRsNode> c1 = a->GetChild("c1"), c2 = a->GetChild("c2");
    KvSmartPtr<CRsValue> v(KvNewObject);
    c1->SetValue(v);
    ASSERT_TRUE(Clean());

    CRsChildList& lst = *a->m_ptrChildList;
    EXPECT_TRUE(KV_REPORTS_WITH(c1->m_pHln->m_pNext, KvsPtr<CRsNodeHln>(), "the bottom list has"));
    EXPECT_TRUE(KV_REPORTS_WITH(lst.m_cEntries, 34, "child list of node \"a\""));
    EXPECT_TRUE(KV_REPORTS_WITH(lst.GetAnchor()->m_pNext, KvsPtr<QTopNode<CRsNodeHln>>::FromOffset(0x7fffffe0),
                                "index level 0 entry 1"));
    EXPECT_TRUE(KV_REPORTS_WITH(c1->m_pHln, c2->m_pHln, "node \"a.c1\""));
    EXPECT_TRUE(KV_REPORTS_WITH(c1->m_ptrParent, KvsPtr<KvSmartPtrTarget>(c2.Get()), "its parent link is"));
    EXPECT_TRUE(KV_REPORTS_WITH(LinkWord(c1->m_pHln->m_ptr), c2.Offset(), "held by two child entries"));
    EXPECT_TRUE(KV_REPORTS_WITH(LinkWord(c1->m_ptrValue), 0x7ffffff0, "lies outside the carved area"));
    EXPECT_TRUE(KV_REPORTS_WITH(LinkWord(c1->m_ptrValue), c2.Offset(), "is reached as a value and as a node"));
    EXPECT_TRUE(
        KV_REPORTS_WITH(v->m_iDeleteFunction, CRsNode::sm_iDeleteFunction, "starts with delete-function index"));
    EXPECT_TRUE(KV_REPORTS_WITH(v->m_dwId, CRsObj::DEAD_ID, "marks a destroyed object"));
    EXPECT_TRUE(KV_REPORTS_WITH(v->m_cBytes, 3, "with a byte count of 3"));
    // A live value put back on its free list (freed while still linked).
    KvGranularity& g = *KvGranularity::_GetGranularity(KvPoolCheck::PoolOf(sizeof(CRsValue)));
    const uint32_t ofsHead = g._pchHead.Offset();
    const uint32_t dwFirst = v->m_iDeleteFunction;
    Word(v.Offset()) = ofsHead;
    EXPECT_TRUE(KV_REPORTS_WITH(g._pchHead, KvsPtr<char>::FromOffset(v.Offset()), "freed, yet still linked"));
    Word(v.Offset()) = dwFirst;
    EXPECT_TRUE(Clean());
}

TEST_F(CRsCheckTest, CountsBelowWhatTheTreeNeedsAreNamed)
{
    KvSmartPtr<CRsNode> root = GetRoot();
    KvSmartPtr<CRsNode> a = MakeNode(root, "a");
    KvSmartPtr<CRsNode> b = MakeNode(a, "b");
    KvSmartPtr<CRsValue> v(KvNewObject);
    a->SetValue(v);
    b->SetValue(v);
    KvSmartPtr<CRsQueue> q = MakeQueue(0x7ffffff0);
    b->ConnectClient(H(9), 9, q);
    b->NotifyClients(1, v, false);
    b->NotifyClients(2, v, false);
    ASSERT_TRUE(Clean());

    // v: two nodes, two messages and our pointer.
    EXPECT_TRUE(KV_REPORTS_WITH(v->m_cSmart, 3, "its smart count 3 is below the 4"));
    // a carries b's smart units (b: our pointer, two messages).
    EXPECT_TRUE(KV_REPORTS_WITH(a->m_cSmart, b->m_cSmart - 1, "carried for its children"));
    EXPECT_TRUE(KV_REPORTS_WITH(b->m_cChild, 0, "its child count 0 is below the 1"));
    EXPECT_TRUE(KV_REPORTS_WITH(b->m_cSmart, 0, "its smart count 0 is below"));

    CRsMsgList::List& lst = q->m_ptrMsgList->m_lst;
    EXPECT_TRUE(KV_REPORTS_WITH(lst.m_cCount, 1, "its count is 1, but the list holds 2 messages"));
    EXPECT_TRUE(KV_REPORTS_WITH(lst.m_pTail, lst.m_pHead, "its tail is"));
    EXPECT_TRUE(KV_REPORTS_WITH(lst.m_pTail->m_pNext, lst.m_pHead, "the list runs in a cycle, or into another list"));
    CRsConnect& connect = *b->m_ptrRefreshInfo->m_lstClients.GetFirst()->m_ptr;
    EXPECT_TRUE(KV_REPORTS_WITH(connect.m_cConnect, 0, "its count of connects is 0"));
    EXPECT_TRUE(KV_REPORTS_WITH(LinkWord(connect.m_ptrQueue), 0, "it has no queue"));
    EXPECT_TRUE(Clean());

    b->DisconnectClient(H(9), 9);  // not ours: q's process is another
    Drain(q);
}

}  // namespace
