// Every exported call against the death of its process: a child dies at the
// k-th journaled write of a call, for k = 1, 2, ... until the call completes.
// After each death this process takes the global mutex (which undoes what the
// child left), and the segment must hold what it held before the call, byte for
// byte apart from the journals, the pools' free blocks and carving, and the
// process table, and pass the consistency check.
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KvCppMfc/Pool/KvJournal.h"
#include "KvCppMfc/Pool/KvProcessTable.h"
#include "KvCppMfc/Pool/KvTreeJournal.h"
#include "KvRfrSvr/Export/KvRsReaper.h"
#include "KvRobustSupport.h"

namespace {

using G = KvGranularity;

void* Target(uintptr_t u)
{
    return reinterpret_cast<void*>(0x5000 + u);
}

// The child's copy of the segment just before its call, in memory both share.
struct KvSharedImage {
    uint32_t cb;
    char ach[1];
};
KvSharedImage* SharedImage()
{
    static void* s_pv = mmap(nullptr, 0x4000000 + 64, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return static_cast<KvSharedImage*>(s_pv);
}

void TakeImage()
{
    KvRsRequestMutex();
    KvSharedImage* p = SharedImage();
    p->cb = G::_poinf->_pchNextCommit.Offset();
    memcpy(p->ach, G::_pvBase, p->cb);
    KvRsReleaseMutex();
}

// A pool's counts: allocations and frees while checking was on, the net
// count while it was off. An undone call leaves each as it was.
std::array<uint64_t, 3> Counts(const char* pInfo, uint32_t iPool)
{
    const char* p = pInfo + offsetof(G::Info, _agran) + iPool * sizeof(G);
    std::array<uint64_t, 3> a{};
    memcpy(&a[0], p + offsetof(G, _cAllocChecked), 8);
    memcpy(&a[1], p + offsetof(G, _cFreeChecked), 8);
    memcpy(&a[2], p + offsetof(G, _cNetUnchecked), 8);
    return a;
}

// Bytes that may differ from the image: the journals, the process table, the
// carving and the pools' table (compared by blocks in use), free blocks.
std::vector<bool> Excluded(uint32_t cb)
{
    std::vector<bool> v(cb, false);
    auto exclude = [&](uint64_t ofs, uint64_t cbRange) {
        for (uint64_t i = ofs; i < ofs + cbRange && i < cb; ++i)
            v[i] = true;
    };
    exclude(KVGRAN_TREE_JOURNAL_OFFSET, KVGRAN_POOL_JOURNAL_END - KVGRAN_TREE_JOURNAL_OFFSET);
    exclude(KVGRAN_PROCESS_TABLE_OFFSET, KVGRAN_HEADER_SIZE - KVGRAN_PROCESS_TABLE_OFFSET);
    exclude(offsetof(G::Info, _pchNextFree), 8);
    exclude(offsetof(G::Info, _cAllocSharedMem), 4);
    exclude(offsetof(G::Info, _agran), sizeof(G::Info::_agran));
    for (uint32_t i = 0; i < G::_GetGranularityCount(); ++i) {
        const G* g = G::_GetGranularity(i);
        for (uint32_t ofs = g->_pchHead.Offset(), c = 0; ofs != 0 && c < 1000000; ++c) {
            exclude(ofs, g->_stSize);
            ofs = *reinterpret_cast<const uint32_t*>(G::_pvBase + ofs);
        }
    }
    return v;
}

// Takes the global mutex (undoing what a dead owner left) and compares.
::testing::AssertionResult SameAsImage()
{
    KvRsRequestMutex();
    const KvSharedImage* p = SharedImage();
    ::testing::AssertionResult r = ::testing::AssertionSuccess();
    const std::vector<bool> vExcluded = Excluded(p->cb);
    int cDiffs = 0;
    for (uint32_t i = 0; i < p->cb && cDiffs < 8; ++i)
        if (!vExcluded[i] && p->ach[i] != G::_pvBase[i]) {
            if (cDiffs++ == 0)
                r = ::testing::AssertionFailure();
            r << " byte 0x" << std::hex << i << ": was " << (p->ach[i] & 0xFF) << ", is " << (G::_pvBase[i] & 0xFF)
              << std::dec;
        }
    for (uint32_t i = 0; i < G::_GetGranularityCount(); ++i) {
        const std::array<uint64_t, 3> aBefore = Counts(p->ach, i);
        const std::array<uint64_t, 3> aNow = Counts(G::_pvBase, i);
        if (aBefore != aNow) {
            r = ::testing::AssertionFailure();
            r << " pool " << i << ": counts (allocations, frees, net) were " << aBefore[0] << ", "
              << static_cast<int64_t>(aBefore[1]) << ", " << aBefore[2] << "; are " << aNow[0] << ", "
              << static_cast<int64_t>(aNow[1]) << ", " << aNow[2];
        }
    }
    KvRsReleaseMutex();
    return r;
}

// Every process gives back one root reference when it ends (or is reaped):
// a child takes the one it will give back.
void HoldRoot()
{
    KvRsNodeProxy root = KvRsCreateNode("", nullptr, 0);
    KvRsAddRef(root.GetHandle(), root.GetId());
}

void ReapEnded()
{
    KvRsRequestMutex();
    KvRsReapEndedProcesses();
    KvRsReleaseMutex();
}

enum class KvCompare { Image, ConsistentOnly };

// Runs prepare and then call in a child that dies at its k-th journaled write,
// for every k until the call completes. Returns the number of deaths.
int DieAtEveryWrite(const std::function<void()>& prepare, const std::function<void()>& call,
                    KvCompare eCompare = KvCompare::Image)
{
    int cForward = 0;
    for (uint32_t k = 1; k < 5000; ++k) {
        const uint32_t cUndoneBefore = KvTreeJournalRolledBack() + KvPoolJournal().RolledBackCount();
        const pid_t pid = fork();
        if (pid == 0) {
            HoldRoot();
            prepare();
            TakeImage();
            KvJournal::DieAtSave(k);
            call();
            KvJournal::DieAtSave(0);
            _exit(0);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        const bool fDied = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
        if (!fDied && !(WIFEXITED(status) && WEXITSTATUS(status) == 0)) {
            ADD_FAILURE() << "the child ended with status " << status << " at k=" << k;
            return -1;
        }
        // A death in the call's deferred frees leaves a completed call, which the
        // next owner finishes rather than undoes: the image no longer applies.
        const bool fRollForward = fDied && KvTreeJournal().Head()->dwState == KVJRN_STATE_COMMITTING &&
                                  KvTreeJournal().Head()->cbUsed != 0;
        cForward += fRollForward ? 1 : 0;
        if (eCompare == KvCompare::Image && fDied && !fRollForward) {
            const ::testing::AssertionResult r = SameAsImage();
            if (!r) {
                ADD_FAILURE() << "a death at write " << k << " left:" << r.message();
                return -1;
            }
        }
        const ::testing::AssertionResult rCheck = KvSegmentConsistent();
        // Counted for kvrs stats: a call, a pool operation or both.
        EXPECT_LT(cUndoneBefore, fDied ? KvTreeJournalRolledBack() + KvPoolJournal().RolledBackCount() : ~0u);
        if (!rCheck) {
            ADD_FAILURE() << "after a death at write " << k << ":" << rCheck.message();
            return -1;
        }
        ReapEnded();
        if (!fDied) {
            printf("  %u deaths, %d of them in the deferred frees (finished, not undone)\n", k - 1, cForward);
            return static_cast<int>(k) - 1;
        }
    }
    ADD_FAILURE() << "the call never completed";
    return -1;
}

KvRsNodeProxy Node(const char* pszPath)
{
    return KvRsCreateNode(pszPath, nullptr, 0);
}

void Notify(const char* pszPath, bool fRecursive)
{
    KvRsNodeProxy n = Node(pszPath);
    KvRsValueProxy v = KvRsCreateValue();
    unsigned char ab[] = "a message's value";
    KvRsSetValueBytes(v.GetHandle(), v.GetId(), ab, sizeof(ab));
    KvRsNotifyNodeClients(n.GetHandle(), n.GetId(), 7, v.GetHandle(), v.GetId(), fRecursive);
}

// A tree with clients (this process's) on two levels, a server and values.
class KvJournalCrash : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_NE(MAP_FAILED, static_cast<void*>(SharedImage()));  // mapped here, before any fork
        KvRsNodeProxy a = Node("j.a");
        KvRsNodeProxy b = Node("j.a.b");
        for (uintptr_t u = 1; u <= 3; ++u)
            KvRsConnectClient(a.GetHandle(), a.GetId(), Target(u), static_cast<unsigned long>(u));
        KvRsConnectClient(b.GetHandle(), b.GetId(), Target(9), 9);
        KvRsConnectServer(a.GetHandle(), a.GetId(), Target(4), 4);
        KvRsValueProxy v = KvRsCreateValue();
        unsigned char ab[] = "21.5";
        KvRsSetValueBytes(v.GetHandle(), v.GetId(), ab, sizeof(ab));
        KvRsSetNodeValue(a.GetHandle(), a.GetId(), v.GetHandle(), v.GetId());
    }
    void TearDown() override
    {
        while (KvRsGetMsgCount() > 0)
            KvRsGetMsg();
        KvRsNodeProxy j = Node("j");
        KvRsRemoveChildNode(j.GetHandle(), j.GetId(), "a");
        EXPECT_TRUE(KvSegmentConsistent());
    }
};

// The child's objects, looked up (each lookup a call of its own) before the
// image is taken: the call under test is then exactly one exported call.
KvRsNodeProxy s_j, s_a, s_b;
KvRsValueProxy s_v;
void LookUp()
{
    s_j = Node("j");
    s_a = Node("j.a");
    s_b = Node("j.a.b");
    s_v = KvRsCreateValue();
    unsigned char ab[] = "a message's value";
    KvRsSetValueBytes(s_v.GetHandle(), s_v.GetId(), ab, sizeof(ab));
}

}  // namespace

TEST_F(KvJournalCrash, NodesAndValues)
{
    // Results are kept (never released): releasing is a call of its own.
    EXPECT_GT(DieAtEveryWrite(LookUp, [] { new KvRsNodeProxy(Node("j.new.x.y")); }), 10) << "create a path";
    EXPECT_GT(DieAtEveryWrite(LookUp, [] { KvRsRemoveChildNode(s_j.GetHandle(), s_j.GetId(), "a"); }), 5)
        << "remove a subtree with connections";
    EXPECT_GT(DieAtEveryWrite(LookUp,
                              [] {
                                  unsigned char ab[100] = {1, 2, 3};
                                  KvRsSetValueBytes(s_v.GetHandle(), s_v.GetId(), ab, sizeof(ab));
                              }),
              3)
        << "set a value";
    // Bytes of the size it holds (the undone call above left it so): the call
    // takes back the block it gave up.
    EXPECT_GT(DieAtEveryWrite(LookUp,
                              [] {
                                  unsigned char ab[24] = {4, 5, 6};
                                  KvRsSetValueBytes(s_v.GetHandle(), s_v.GetId(), ab, sizeof(ab));
                              }),
              3)
        << "replace a value's bytes";
    EXPECT_GT(DieAtEveryWrite(LookUp,
                              [] { KvRsSetNodeValue(s_b.GetHandle(), s_b.GetId(), s_v.GetHandle(), s_v.GetId()); }),
              2)
        << "give a node a value";
    EXPECT_GT(DieAtEveryWrite(LookUp, [] { KvRsSetNodeType(s_b.GetHandle(), s_b.GetId(), 0x10); }), 0) << "set a type";
}

TEST_F(KvJournalCrash, ConnectionsAndNotifications)
{
    EXPECT_GT(DieAtEveryWrite(LookUp, [] { KvRsConnectClient(s_b.GetHandle(), s_b.GetId(), Target(20), 20); }), 3)
        << "connect a client";
    auto connect = [] {
        LookUp();
        KvRsConnectClient(s_b.GetHandle(), s_b.GetId(), Target(21), 21);
        KvRsConnectServer(s_b.GetHandle(), s_b.GetId(), Target(22), 22);
    };
    EXPECT_GT(DieAtEveryWrite(connect, [] { KvRsDisconnectClient(s_b.GetHandle(), s_b.GetId(), Target(21), 21); }), 3)
        << "disconnect a client";
    EXPECT_GT(DieAtEveryWrite(connect, [] { KvRsDisconnectServer(s_b.GetHandle(), s_b.GetId()); }), 1)
        << "disconnect a server";
    EXPECT_GT(DieAtEveryWrite(
                  LookUp,
                  [] { KvRsNotifyNodeClients(s_a.GetHandle(), s_a.GetId(), 7, s_v.GetHandle(), s_v.GetId(), true); }),
              10)
        << "notify with fan-out and recursion";
    EXPECT_GT(DieAtEveryWrite(
                  [] {
                      LookUp();
                      KvRsConnectClient(s_b.GetHandle(), s_b.GetId(), Target(23), 23);
                      Notify("j.a.b", false);
                  },
                  [] { new KvRsMsgProxy(KvRsGetMsg()); }),
              1)
        << "take a message";
    // Its proxy arguments are copies, each taken by a call of its own, which
    // stays: only the consistency is checked.
    EXPECT_GT(DieAtEveryWrite(
                  [] {
                      LookUp();
                      KvRsRequestMutex();
                  },
                  [] { KvRsCreateMsg(5, s_v, s_a, Target(24), 24); }, KvCompare::ConsistentOnly),
              1)
        << "KvRsCreateMsg under KvRsRequestMutex";
}

// The exit and reaping commit step by step (each step is recorded as done in
// the process table): a death undoes the unfinished step, and the next reaper
// does the rest. The segment is then consistent and nothing of the process is
// left.
TEST_F(KvJournalCrash, ExitAndReaping)
{
    // The exit removes the connections of a node where the process comes
    // first (behind another process's entry they stay, as they always have).
    EXPECT_GT(DieAtEveryWrite(
                  [] {
                      KvRsNodeProxy n = Node("j.e");
                      KvRsConnectClient(n.GetHandle(), n.GetId(), Target(30), 30);
                      KvRsConnectServer(n.GetHandle(), n.GetId(), Target(32), 32);
                      Notify("j.e", false);
                  },
                  [] { exit(0); }, KvCompare::ConsistentOnly),
              5)
        << "the exit clean-up";
    KvRsNodeProxy e = Node("j.e");
    EXPECT_EQ(0, KvRsGetClientCount(e.GetHandle(), e.GetId()));
    KvRsNodeProxy b = Node("j.a.b");
    const long cClients = KvRsGetClientCount(b.GetHandle(), b.GetId());
    EXPECT_GT(DieAtEveryWrite(
                  [] {
                      const pid_t pidVictim = fork();
                      if (pidVictim == 0) {
                          HoldRoot();
                          KvRsNodeProxy n = Node("j.a.b");
                          KvRsConnectClient(n.GetHandle(), n.GetId(), Target(31), 31);
                          _exit(0);  // ends without its exit clean-up
                      }
                      waitpid(pidVictim, nullptr, 0);
                  },
                  [] { ReapEnded(); }, KvCompare::ConsistentOnly),
              3)
        << "a reap";
    EXPECT_EQ(cClients, KvRsGetClientCount(b.GetHandle(), b.GetId()));
}

// A fork child makes its default queue and enters itself in the process table
// in one section: a death undoes both.
TEST_F(KvJournalCrash, AForkChildsStartUp)
{
    int cDeaths = 0;
    for (uint32_t k = 1; k < 200; ++k) {
        TakeImage();
        KvJournal::DieAtSave(k);
        const pid_t pid = fork();
        KvJournal::DieAtSave(0);
        if (pid == 0)
            _exit(0);
        int status = 0;
        waitpid(pid, &status, 0);
        if (!WIFSIGNALED(status))
            break;
        ++cDeaths;
        ASSERT_TRUE(SameAsImage()) << "a death at write " << k;
        ASSERT_TRUE(KvSegmentConsistent());
    }
    HoldRoot();  // the reference the completed child gives back when it is reaped
    ReapEnded();
    EXPECT_GT(cDeaths, 2);
}

// A call larger than the journal is split where the journal fills: it
// completes, and the tree is consistent.
// A call that gives up a block and then takes one of its size gets the same
// block back, counted as freed and allocated. Undone (as for a retry), it
// leaves the block, its bytes and every count as they were.
TEST_F(KvJournalCrash, ABlockTakenBackByItsCallIsUndoneWithItsCounts)
{
    KvRsRequestMutex();
    char* pOld = static_cast<char*>(G::_Alloc(24, nullptr));
    strcpy(pOld, "the old bytes");
    KvRsReleaseMutex();
    TakeImage();
    KvRsRequestMutex();
    G::_Free(pOld, 24, nullptr);
    char* pNew = static_cast<char*>(G::_Alloc(24, nullptr));
    EXPECT_EQ(pOld, pNew);
    strcpy(pNew, "new");
    void* pLater = G::_Alloc(8, nullptr);  // a change after the counting
    EXPECT_NE(nullptr, pLater);
    KvTreeSectionRollBack("a test");
    KvRsReleaseMutex();
    EXPECT_TRUE(SameAsImage());
    KvRsRequestMutex();
    G::_Free(pOld, 24, nullptr);
    KvRsReleaseMutex();
}

TEST_F(KvJournalCrash, ACallLargerThanTheJournalIsSplitAndCompletes)
{
    KvRsNodeProxy n = Node("j.many");
    for (uintptr_t u = 0; u < 300; ++u)
        KvRsConnectClient(n.GetHandle(), n.GetId(), Target(100 + u), static_cast<unsigned long>(100 + u));
    const long cBefore = KvRsGetMsgCount();
    KvTreeJournalLimitForTest(64);  // a few records
    Notify("j.many", false);
    KvTreeJournalLimitForTest(0);
    EXPECT_EQ(cBefore + 300, KvRsGetMsgCount());
    EXPECT_TRUE(KvSegmentConsistent());
    for (uintptr_t u = 0; u < 300; ++u)
        KvRsDisconnectClient(n.GetHandle(), n.GetId(), Target(100 + u), static_cast<unsigned long>(100 + u));
}
