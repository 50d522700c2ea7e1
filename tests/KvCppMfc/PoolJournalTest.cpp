// Pool operations against the death of their process: a child dies at every
// journaled write of an operation in turn, and the next owner of the pool
// mutex finds the pools as they were before the operation began.
#include <signal.h>
#include <sys/wait.h>

#include <cstring>
#include <functional>
#include <vector>

#include "KvCppMfc/Pool/KvJournal.h"
#include "SegmentTestSupport.h"

namespace {

using G = KvGranularity;

// What a pool operation may change: the header with the granularity table,
// and the chain of every free list.
struct KvPoolImage {
    std::vector<char> vchHeader;
    std::vector<std::vector<uint32_t>> vvofsFree;
    bool operator==(const KvPoolImage& o) const { return vchHeader == o.vchHeader && vvofsFree == o.vvofsFree; }
};

KvPoolImage KvTakePoolImage()
{
    KvPoolImage img;
    img.vchHeader.assign(G::_pvBase, G::_pvBase + sizeof(G::Info));
    // The attachment count is not the pools': a fork child counts itself in.
    memset(&img.vchHeader[offsetof(G::Info, _cAllocSharedMem)], 0, sizeof(int32_t));
    for (uint32_t i = 0; i < G::_GetGranularityCount(); ++i) {
        std::vector<uint32_t> vofs;
        for (uint32_t ofs = G::_GetGranularity(i)->_pchHead.Offset(); ofs != 0 && vofs.size() < 100000;
             ofs = *reinterpret_cast<uint32_t*>(G::_pvBase + ofs))
            vofs.push_back(ofs);
        img.vvofsFree.push_back(vofs);
    }
    return img;
}

// Runs op in a child that dies at its k-th journaled write, for k = 1, 2, ...
// until the child completes it. After each death the state must be the one
// before. The completed run's change is then wiped, so the test goes on from
// the state before. Returns how many deaths there were.
int KvDieAtEveryWrite(const std::function<void()>& op)
{
    const KvPoolImage imgBefore = KvTakePoolImage();
    const std::vector<char> vchSegment(G::_pvBase, G::_pvBase + G::_poinf->_pchNextCommit.Offset());
    const uint32_t cRolledBack = KvPoolJournal().RolledBackCount();
    for (uint32_t k = 1; k < 100; ++k) {
        const pid_t pid = fork();
        if (pid == 0) {
            KvJournal::DieAtSave(k);
            op();
            _exit(0);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        G::_DecCountAllocSharedMem();  // the child's attachment, as reaping gives it back
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
            EXPECT_TRUE(KvPoolJournal().IsEmpty()) << "a completed operation leaves no records";
            memcpy(G::_pvBase, vchSegment.data(), vchSegment.size());
            return static_cast<int>(k) - 1;
        }
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "k=" << k;
        EXPECT_FALSE(KvPoolJournal().IsEmpty()) << "k=" << k;
        G::_LockPools();  // takes over the dead owner's mutex, and undoes its change
        G::_UnlockPools();
        EXPECT_EQ(cRolledBack + k, KvPoolJournal().RolledBackCount());
        const KvPoolImage imgAfter = KvTakePoolImage();
        if (!(imgAfter == imgBefore)) {
            size_t i = 0;
            while (i < imgAfter.vchHeader.size() && imgAfter.vchHeader[i] == imgBefore.vchHeader[i])
                ++i;
            ADD_FAILURE() << "the pools differ from before after a death at write " << k << " (header byte " << i
                          << ")";
            return -1;
        }
    }
    ADD_FAILURE() << "the operation never completed";
    return -1;
}

class PoolJournalTest : public KvSharedTest {};

TEST_F(PoolJournalTest, EveryDeathInsideAnAllocationOrAFreeIsUndone)
{
    // The first 64 KiB block carves a chunk; a second comes off the free list.
    EXPECT_GE(KvDieAtEveryWrite([] { G::_Alloc(0x10000); }), 5);
    void* pv = G::_Alloc(0x10000);
    EXPECT_GE(KvDieAtEveryWrite([] { G::_Alloc(0x10000); }), 3);
    EXPECT_GE(KvDieAtEveryWrite([pv] { G::_Free(pv, 0x10000); }), 3);
    G::_Free(pv, 0x10000);
    EXPECT_EQ(2, KvDieAtEveryWrite([] { G::_AllocFixed(100); }));
    G::_EnableMemChecking(true);
    void* pvChecked = G::_Alloc(8);
    EXPECT_GE(KvDieAtEveryWrite([pvChecked] { G::_Free(pvChecked, 8); }), 3);
    G::_Free(pvChecked, 8);
    G::_EnableMemChecking(false);
}

TEST_F(PoolJournalTest, AFullJournalRefusesTheChangeBeforeMakingIt)
{
    G::_LockPools();
    std::vector<char> vch(KVGRAN_POOL_JOURNAL_END - KVGRAN_POOL_JOURNAL_OFFSET);
    EXPECT_EQ("KVRFRSVR_MEM: OGRAN.MTX: the journal has no room for a change of " + std::to_string(vch.size()) +
                  " bytes",
              KvThrownText([&] { KvPoolJournal().Save(G::_pvBase + 0x10000, static_cast<uint32_t>(vch.size())); }));
    KvPoolJournal().Save(&vch[0], static_cast<uint32_t>(vch.size()));  // not the segment's: nothing recorded
    EXPECT_TRUE(KvPoolJournal().IsEmpty());
    G::_UnlockPools();
}

}  // namespace
