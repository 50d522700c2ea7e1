// KvMutexTest.cpp - the named robust mutex: recursion and ownership, fork,
// take-over after a dead owner (thread exit, SIGKILL, exit after closing),
// coexistence with glibc's robust mutexes in the same per-thread kernel list,
// and reads checked by the sequence. Exclusion itself is exercised by every
// multi-process test and the stress program.
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "KvCppMfc/Platform/KvPlatform.h"
#include "common/KvTestSupport.h"

namespace {

// A robust pthread mutex in memory shared with forked children.
pthread_mutex_t* MapGlibcMutex()
{
    void* pv = mmap(nullptr, sizeof(pthread_mutex_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto* p = static_cast<pthread_mutex_t*>(pv);
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(p, &attr);
    pthread_mutexattr_destroy(&attr);
    return p;
}

class KvMutexTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        KvTestUseFreshNamespace();
        ASSERT_TRUE(m_mtx.OpenOrCreate("TEST.MTX"));
    }
    void TearDown() override
    {
        m_mtx.Close();
        KvUnlinkNamespaceObjects("");
    }
    KvNamedMutex m_mtx;
};

void Pause(int c)
{
    for (int i = 0; i < c; ++i)
        std::atomic_signal_fence(std::memory_order_seq_cst);  // a loop the compiler keeps
}

}  // namespace

TEST_F(KvMutexTest, RecursiveForTheOwnerAndUnlockByOthersIsIgnored)
{
    m_mtx.Lock();
    m_mtx.Lock();
    std::atomic<bool> fEntered{false};
    std::thread other([&] {
        m_mtx.Unlock();  // not the owner: no effect
        m_mtx.Lock();
        fEntered = true;
        EXPECT_TRUE(m_mtx.IsOwned());
        m_mtx.Unlock();
    });
    usleep(50000);
    EXPECT_FALSE(fEntered) << "a stranger's unlock or a single unlock freed the mutex";
    m_mtx.Unlock();
    usleep(20000);
    EXPECT_FALSE(fEntered) << "one unlock freed a mutex locked twice";
    EXPECT_TRUE(m_mtx.IsOwned());
    m_mtx.Unlock();
    other.join();
    EXPECT_TRUE(fEntered);
    EXPECT_FALSE(m_mtx.IsOwned());
}

TEST_F(KvMutexTest, AForkChildDoesNotInheritOwnership)
{
    m_mtx.Lock();
    const pid_t pid = fork();
    if (pid == 0) {
        // Same thread, but not the owner: unlocking must not free the parent's
        // mutex, and locking must wait for the parent.
        m_mtx.Unlock();
        const bool fOwned = m_mtx.IsOwned();
        m_mtx.Lock();
        m_mtx.Unlock();
        _exit(fOwned ? 3 : 0);
    }
    usleep(50000);
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, WNOHANG), 0) << "the child got a mutex its parent holds";
    m_mtx.Unlock();
    EXPECT_EQ(KvTestWait(pid), 0);
}

TEST_F(KvMutexTest, AThreadThatExitsHoldingItLeavesItToTheNext)
{
    std::thread([&] {
        m_mtx.Lock();
        m_mtx.Lock();
    }).join();
    m_mtx.Lock();  // hangs (and the watchdog fails the test) if nobody released it
    EXPECT_TRUE(m_mtx.IsOwned());
    m_mtx.Unlock();
    EXPECT_FALSE(m_mtx.IsOwned()) << "the recursion count of the dead owner was kept";
}

// Owner-death recovery is certain on this C library and word size; a list of
// another shape is refused with its reason instead of running without it.
TEST(KvMutexRecovery, ThisCLibraryFitsAndAnotherShapeIsRefused)
{
    std::string strWhy;
    EXPECT_TRUE(KvCheckOwnerDeathRecovery(&strWhy)) << strWhy;
    long lOffset = 0;
    for (long l = -64; l <= 64 && lOffset == 0; l += 4)
        if (KvRobustListFits(l, &strWhy))
            lOffset = l;
    ASSERT_NE(0, lOffset);
    strWhy.clear();
    EXPECT_FALSE(KvRobustListFits(lOffset + 8, &strWhy));
    EXPECT_NE(std::string::npos, strWhy.find("expects " + std::to_string(lOffset + 8))) << strWhy;
}

TEST_F(KvMutexTest, AKilledOwnerReleasesBothKindsOfRobustMutex)
{
    pthread_mutex_t* pmtxGlibc = MapGlibcMutex();
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        // Interleaved with glibc's own entries in the thread's robust list, and
        // released out of order, so that a wrong link shows as a lost entry.
        pthread_mutex_t mtxLocal;
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
        pthread_mutex_init(&mtxLocal, &attr);
        pthread_mutex_lock(&mtxLocal);
        m_mtx.Lock();
        pthread_mutex_lock(pmtxGlibc);
        pthread_mutex_unlock(&mtxLocal);
        m_mtx.Unlock();
        m_mtx.Lock();
        pthread_mutex_unlock(pmtxGlibc);
        pthread_mutex_lock(pmtxGlibc);
        if (write(fds[1], "x", 1) != 1)
            _exit(2);
        pause();
        _exit(0);
    }
    close(fds[1]);
    char c = 0;
    ASSERT_EQ(read(fds[0], &c, 1), 1);
    close(fds[0]);
    kill(pid, SIGKILL);
    EXPECT_EQ(KvTestWait(pid), 128 + SIGKILL);

    EXPECT_EQ(pthread_mutex_lock(pmtxGlibc), EOWNERDEAD);
    pthread_mutex_consistent(pmtxGlibc);
    // Taken with a glibc mutex held, then released in the opposite order.
    m_mtx.Lock();
    EXPECT_TRUE(m_mtx.IsOwned());
    pthread_mutex_unlock(pmtxGlibc);
    m_mtx.Unlock();
    EXPECT_FALSE(m_mtx.IsOwned());
    EXPECT_EQ(pthread_mutex_lock(pmtxGlibc), 0);
    pthread_mutex_unlock(pmtxGlibc);
}

TEST_F(KvMutexTest, AnOwnerThatClosesAndExitsLeavesItToTheNext)
{
    const pid_t pid = fork();
    if (pid == 0) {
        // A thread closes its handle while holding the mutex and then ends: the
        // object stays mapped, so the kernel can release it.
        std::thread([] {
            KvNamedMutex other;
            other.OpenOrCreate("TEST.MTX");
            other.Lock();
            other.Close();
        }).join();
        m_mtx.Lock();
        m_mtx.Lock();
        m_mtx.Close();  // the owner closing gives it up
        _exit(0);
    }
    EXPECT_EQ(KvTestWait(pid), 0);
    m_mtx.Lock();  // hangs (the watchdog fails the test) if the exit left it held
    m_mtx.Unlock();
}

TEST_F(KvMutexTest, AReadThatEndsWellSawNoHalfMadeChange)
{
    // The writer keeps two values equal outside its critical sections only.
    std::atomic<long> a{0}, b{0};
    std::atomic<bool> fStop{false};
    std::thread writer([&] {
        for (long i = 1; !fStop; ++i) {
            m_mtx.Lock();
            a.store(i, std::memory_order_relaxed);
            Pause(50);
            b.store(i, std::memory_order_relaxed);
            m_mtx.Unlock();
        }
    });
    long cGood = 0, cTorn = 0;
    for (int i = 0; i < 100000; ++i) {
        const uint32_t dwSeq = m_mtx.BeginRead();
        const long la = a.load(std::memory_order_relaxed);
        Pause(20);  // widens the window a missed change would fall into
        const long lb = b.load(std::memory_order_relaxed);
        if (m_mtx.EndRead(dwSeq)) {
            ++cGood;
            cTorn += la != lb;
        }
    }
    fStop = true;
    writer.join();
    EXPECT_EQ(cTorn, 0);
    EXPECT_GT(cGood, 0);
    m_mtx.Lock();  // the owner's own reads always count
    EXPECT_TRUE(m_mtx.EndRead(m_mtx.BeginRead()));
    m_mtx.Unlock();
}
