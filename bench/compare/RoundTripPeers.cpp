// RoundTripPeers.cpp - the round-trip peers that users pick instead of the
// library. Every peer carries one 64-bit counter per message and checks it,
// so that a broken channel cannot produce good-looking figures.
#include "RoundTripPeers.h"

#include <fcntl.h>
#include <mqueue.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <boost/interprocess/ipc/message_queue.hpp>

#include "CompareHarness.h"

namespace bip = boost::interprocess;

namespace kvcmp {

void PreparePartner()
{
    // A partner whose parent died (a failed check) must not spin on forever.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (AllowedCpuCount() >= 2)
        PinToCpu(1);
}

void RoundTripFailed(const char* pszPeer, const char* pszWhat)
{
    fprintf(stderr, "round trip %s: %s\n", pszPeer, pszWhat);
    _exit(3);
}

pid_t RoundTripPeer::StartPartner(long cTotal)
{
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        PreparePartner();
        Echo(cTotal);
        _exit(0);  // no exit handlers: the parent's objects stay the parent's
    }
    return pid;
}

namespace {

std::string UniqueName(const char* pszTag)
{
    return "/kvcmp." + std::to_string(getpid()) + "." + pszTag;
}

void* MapSharedAnonymous(size_t cb)
{
    void* pv = mmap(nullptr, cb, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return pv == MAP_FAILED ? nullptr : pv;
}

// The floor: two cache lines, one written by each side.
class SpinPeer : public RoundTripPeer {
    struct Shared {
        alignas(64) std::atomic<uint64_t> ping;
        alignas(64) std::atomic<uint64_t> pong;
    };
    Shared* m_p = nullptr;

public:
    const char* Name() const override { return "raw shared-memory spin (floor)"; }
    bool Prepare() override
    {
        m_p = new (MapSharedAnonymous(sizeof(Shared))) Shared();
        return m_p != nullptr;
    }
    void Echo(long cTotal) override
    {
        for (uint64_t n = 1; n <= static_cast<uint64_t>(cTotal); ++n) {
            unsigned c = 0;
            while (m_p->ping.load(std::memory_order_acquire) != n)
                SpinPause(c);
            m_p->pong.store(n, std::memory_order_release);
        }
    }
    void Ping(uint64_t n) override
    {
        m_p->ping.store(n, std::memory_order_release);
        unsigned c = 0;
        while (m_p->pong.load(std::memory_order_acquire) != n)
            SpinPause(c);
    }
};

// The same with every access under one process-shared, robust, recursive
// mutex: the locking that any shared-memory design with a global lock pays.
class MutexSpinPeer : public RoundTripPeer {
    struct Shared {
        pthread_mutex_t mtx;
        uint64_t ping;
        uint64_t pong;
    };
    Shared* m_p = nullptr;

    void Lock()
    {
        if (pthread_mutex_lock(&m_p->mtx) == EOWNERDEAD)
            pthread_mutex_consistent(&m_p->mtx);
    }
    uint64_t Read(uint64_t Shared::*field)
    {
        Lock();
        const uint64_t v = m_p->*field;
        pthread_mutex_unlock(&m_p->mtx);
        return v;
    }
    void Write(uint64_t Shared::*field, uint64_t v)
    {
        Lock();
        m_p->*field = v;
        pthread_mutex_unlock(&m_p->mtx);
    }

public:
    const char* Name() const override { return "robust recursive pthread mutex + spin"; }
    bool Prepare() override
    {
        m_p = static_cast<Shared*>(MapSharedAnonymous(sizeof(Shared)));
        if (m_p == nullptr)
            return false;
        pthread_mutexattr_t a;
        pthread_mutexattr_init(&a);
        pthread_mutexattr_setpshared(&a, PTHREAD_PROCESS_SHARED);
        pthread_mutexattr_setrobust(&a, PTHREAD_MUTEX_ROBUST);
        pthread_mutexattr_settype(&a, PTHREAD_MUTEX_RECURSIVE);
        const bool fOk = pthread_mutex_init(&m_p->mtx, &a) == 0;
        pthread_mutexattr_destroy(&a);
        return fOk;
    }
    void Echo(long cTotal) override
    {
        for (uint64_t n = 1; n <= static_cast<uint64_t>(cTotal); ++n) {
            unsigned c = 0;
            while (Read(&Shared::ping) != n)
                SpinPause(c);
            Write(&Shared::pong, n);
        }
    }
    void Ping(uint64_t n) override
    {
        Write(&Shared::ping, n);
        unsigned c = 0;
        while (Read(&Shared::pong) != n)
            SpinPause(c);
    }
};

// Boost.Interprocess message_queue: one queue per direction; the receiver
// either blocks in receive() or polls try_receive().
class BoostQueuePeer : public RoundTripPeer {
    bool m_fPoll;
    std::string m_strA, m_strB;  // parent to partner, partner to parent
    std::unique_ptr<bip::message_queue> m_pqSend, m_pqRecv;

    uint64_t Receive(const char* pszWhat)
    {
        uint64_t v = 0;
        size_t cb = 0;
        unsigned prio = 0;
        if (m_fPoll) {
            unsigned c = 0;
            while (!m_pqRecv->try_receive(&v, sizeof(v), cb, prio))
                SpinPause(c);
        } else {
            m_pqRecv->receive(&v, sizeof(v), cb, prio);
        }
        if (cb != sizeof(v))
            RoundTripFailed(Name(), pszWhat);
        return v;
    }

public:
    explicit BoostQueuePeer(bool fPoll) : m_fPoll(fPoll) {}
    ~BoostQueuePeer() override { Finish(); }
    const char* Name() const override
    {
        return m_fPoll ? "Boost message_queue, try_receive polling" : "Boost message_queue, blocking receive";
    }
    bool Prepare() override
    {
        // Boost names have no leading "/".
        m_strA = UniqueName(m_fPoll ? "bpa" : "bba").substr(1);
        m_strB = UniqueName(m_fPoll ? "bpb" : "bbb").substr(1);
        bip::message_queue::remove(m_strA.c_str());
        bip::message_queue::remove(m_strB.c_str());
        try {
            m_pqSend.reset(new bip::message_queue(bip::create_only, m_strA.c_str(), 8, sizeof(uint64_t)));
            m_pqRecv.reset(new bip::message_queue(bip::create_only, m_strB.c_str(), 8, sizeof(uint64_t)));
        } catch (const bip::interprocess_exception& e) {
            fprintf(stderr, "%s: %s\n", Name(), e.what());
            return false;
        }
        return true;
    }
    void Echo(long cTotal) override
    {
        // The partner talks the other way round on its own handles.
        m_pqRecv.reset(new bip::message_queue(bip::open_only, m_strA.c_str()));
        m_pqSend.reset(new bip::message_queue(bip::open_only, m_strB.c_str()));
        for (uint64_t n = 1; n <= static_cast<uint64_t>(cTotal); ++n) {
            if (Receive("partner got a short message") != n)
                RoundTripFailed(Name(), "partner got a message out of order");
            m_pqSend->send(&n, sizeof(n), 0);
        }
    }
    void Ping(uint64_t n) override
    {
        m_pqSend->send(&n, sizeof(n), 0);
        if (Receive("short answer") != n)
            RoundTripFailed(Name(), "answer out of order");
    }
    void Finish() override
    {
        m_pqSend.reset();
        m_pqRecv.reset();
        if (!m_strA.empty()) {
            bip::message_queue::remove(m_strA.c_str());
            bip::message_queue::remove(m_strB.c_str());
        }
    }
};

// Two pipes, blocking reads of one 8-byte message.
class PipePeer : public RoundTripPeer {
    int m_aDown[2] = {-1, -1}, m_aUp[2] = {-1, -1};

    static uint64_t ReadOne(int fd)
    {
        uint64_t v = 0;
        if (read(fd, &v, sizeof(v)) != static_cast<ssize_t>(sizeof(v)))
            RoundTripFailed("pipe pair", "short read");
        return v;
    }
    static void WriteOne(int fd, uint64_t v)
    {
        if (write(fd, &v, sizeof(v)) != static_cast<ssize_t>(sizeof(v)))
            RoundTripFailed("pipe pair", "short write");
    }

public:
    ~PipePeer() override { Finish(); }
    const char* Name() const override { return "pipe pair"; }
    bool Prepare() override { return pipe(m_aDown) == 0 && pipe(m_aUp) == 0; }
    void Echo(long cTotal) override
    {
        for (uint64_t n = 1; n <= static_cast<uint64_t>(cTotal); ++n) {
            if (ReadOne(m_aDown[0]) != n)
                RoundTripFailed(Name(), "partner got a message out of order");
            WriteOne(m_aUp[1], n);
        }
    }
    void Ping(uint64_t n) override
    {
        WriteOne(m_aDown[1], n);
        if (ReadOne(m_aUp[0]) != n)
            RoundTripFailed(Name(), "answer out of order");
    }
    void Finish() override
    {
        for (int* p : {m_aDown, m_aUp})
            for (int i = 0; i < 2; ++i)
                if (p[i] >= 0) {
                    close(p[i]);
                    p[i] = -1;
                }
    }
};

// POSIX message queues, blocking send and receive.
class PosixMqPeer : public RoundTripPeer {
    std::string m_strA, m_strB;
    mqd_t m_qA = static_cast<mqd_t>(-1), m_qB = static_cast<mqd_t>(-1);

    uint64_t Receive(mqd_t q)
    {
        uint64_t v = 0;
        if (mq_receive(q, reinterpret_cast<char*>(&v), sizeof(v), nullptr) != static_cast<ssize_t>(sizeof(v)))
            RoundTripFailed(Name(), "mq_receive failed");
        return v;
    }
    void Send(mqd_t q, uint64_t v)
    {
        if (mq_send(q, reinterpret_cast<const char*>(&v), sizeof(v), 0) != 0)
            RoundTripFailed(Name(), "mq_send failed");
    }

public:
    ~PosixMqPeer() override { Finish(); }
    const char* Name() const override { return "POSIX mq"; }
    bool Prepare() override
    {
        m_strA = UniqueName("mqa");
        m_strB = UniqueName("mqb");
        mq_attr attr{};
        attr.mq_maxmsg = 8;
        attr.mq_msgsize = sizeof(uint64_t);
        m_qA = mq_open(m_strA.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600, &attr);
        m_qB = mq_open(m_strB.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600, &attr);
        if (m_qA == static_cast<mqd_t>(-1) || m_qB == static_cast<mqd_t>(-1)) {
            perror("mq_open");
            return false;
        }
        return true;
    }
    void Echo(long cTotal) override
    {
        for (uint64_t n = 1; n <= static_cast<uint64_t>(cTotal); ++n) {
            if (Receive(m_qA) != n)
                RoundTripFailed(Name(), "partner got a message out of order");
            Send(m_qB, n);
        }
    }
    void Ping(uint64_t n) override
    {
        Send(m_qA, n);
        if (Receive(m_qB) != n)
            RoundTripFailed(Name(), "answer out of order");
    }
    void Finish() override
    {
        if (m_qA != static_cast<mqd_t>(-1))
            mq_close(m_qA);
        if (m_qB != static_cast<mqd_t>(-1))
            mq_close(m_qB);
        m_qA = m_qB = static_cast<mqd_t>(-1);
        if (!m_strA.empty()) {
            mq_unlink(m_strA.c_str());
            mq_unlink(m_strB.c_str());
            m_strA.clear();
        }
    }
};

}  // namespace

std::vector<std::unique_ptr<RoundTripPeer>> MakeBasicPeers()
{
    std::vector<std::unique_ptr<RoundTripPeer>> v;
    v.emplace_back(new SpinPeer());
    v.emplace_back(new MutexSpinPeer());
    v.emplace_back(new BoostQueuePeer(false));
    v.emplace_back(new BoostQueuePeer(true));
    v.emplace_back(new PipePeer());
    v.emplace_back(new PosixMqPeer());
    return v;
}

}  // namespace kvcmp
