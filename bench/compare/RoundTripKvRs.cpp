// RoundTripKvRs.cpp - the round trip through the library's public API: this
// process notifies the clients of "pp.a" (the partner is its client and
// polls), the partner answers on "pp.b" (this process is its client and polls).
// The partner is this program started again, so that it loads the library
// into the same namespace (inherited through the environment).
#include <sys/epoll.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "CompareHarness.h"
#include "KvRfrSvr.h"
#include "KvRfrSvrWait.h"
#include "RoundTripKvRs.h"

namespace kvcmp {

namespace {

const unsigned long kPing = 0x0100;   // the message numbers are ours; no
const unsigned long kReady = 0x0200;  // structural bits (0x2, 0x4, 0x8)

// Every process's exit releases one reference on the root; taking one at the
// start keeps the tree alive for whichever process ends last.
void HoldRoot()
{
    KvRsNodeProxy root = KvRsCreateNode("", 0, 0);
    KvRsAddRef(root.GetHandle(), root.GetId());
}

// The side's way of waiting, and (for epoll) its descriptor set.
KvRsReceive s_eHow = KvRsReceive::Poll;
int s_ep = -1;

bool SetUpReceive(KvRsReceive eHow)
{
    s_eHow = eHow;
    if (eHow != KvRsReceive::Epoll)
        return true;
    const int fd = KvRsGetWaitFd();
    s_ep = epoll_create1(EPOLL_CLOEXEC);
    epoll_event ev = {};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    return fd >= 0 && s_ep >= 0 && epoll_ctl(s_ep, EPOLL_CTL_ADD, fd, &ev) == 0;
}

long AwaitMessage()
{
    long cMsgs = 0;
    unsigned c = 0;
    while ((cMsgs = KvRsGetMsgCount()) == 0) {
        if (s_eHow == KvRsReceive::Poll) {
            SpinPause(c);
        } else if (s_eHow == KvRsReceive::Wait) {
            KvRsWaitMsg(nullptr, 0, -1);
        } else {
            epoll_event ev;
            if (epoll_wait(s_ep, &ev, 1, -1) == 1) {
                uint64_t u;
                ssize_t r = read(ev.data.fd, &u, sizeof(u));
                (void)r;
            }
        }
    }
    return cMsgs;
}

// Waits for a message on the default queue, takes it and releases it. Reading
// its number costs one more call, so only every 1024th message (and the ready
// message) is checked; the others are only checked for being there.
bool TakeMessage(unsigned long type, bool fCheckType)
{
    const long cMsgs = AwaitMessage();
    KvRsMsgProxy msg = KvRsGetMsg();
    if (msg.IsNull()) {
        fprintf(stderr, "process %d: %ld messages counted, none taken\n", getpid(), cMsgs);
        return false;
    }
    if (!fCheckType)
        return true;
    const unsigned long got = KvRsGetMsgType(msg.GetHandle(), msg.GetId());
    if (got != type)
        fprintf(stderr, "process %d: message number 0x%lx instead of 0x%lx\n", getpid(), got, type);
    return got == type;
}

const char* ReceiveName(KvRsReceive eHow)
{
    switch (eHow) {
    case KvRsReceive::Poll: return "poll";
    case KvRsReceive::Wait: return "wait";
    default: return "epoll";
    }
}

class KvRsPeer : public RoundTripPeer {
    KvRsNodeProxy m_nodeA, m_nodeB;
    int m_target = 0;
    KvRsReceive m_eHow;

public:
    explicit KvRsPeer(KvRsReceive eHow) : m_eHow(eHow) {}
    const char* Name() const override
    {
        switch (m_eHow) {
        case KvRsReceive::Poll: return "KvRfrSvr notify + poll";
        case KvRsReceive::Wait: return "KvRfrSvr notify + KvRsWaitMsg";
        default: return "KvRfrSvr notify + epoll on KvRsGetWaitFd";
        }
    }
    bool Prepare() override
    {
        HoldRoot();
        if (!SetUpReceive(m_eHow))
            return false;
        m_nodeA = KvRsCreateNode("pp.a", 0, 0);
        m_nodeB = KvRsCreateNode("pp.b", 0, 0);
        if (m_nodeA.IsNull() || m_nodeB.IsNull())
            return false;
        KvRsConnectClient(m_nodeB.GetHandle(), m_nodeB.GetId(), &m_target, 1);
        return true;
    }
    pid_t StartPartner(long cTotal) override
    {
        const pid_t pid = SpawnSelf({"--kvrs-partner", std::to_string(cTotal), ReceiveName(m_eHow)});
        if (pid > 0 && !TakeMessage(kReady, true))
            RoundTripFailed(Name(), "the partner's first message is not its ready message");
        return pid;
    }
    void Echo(long) override {}  // the partner runs KvRsPartnerMain
    void Ping(uint64_t n) override
    {
        KvRsNotifyNodeClients(m_nodeA.GetHandle(), m_nodeA.GetId(), kPing, 0, 0, false);
        if (!TakeMessage(kPing, (n & 1023) == 0))
            RoundTripFailed(Name(), "wrong answer");
    }
    void Finish() override { KvRsDisconnectClient(m_nodeB.GetHandle(), m_nodeB.GetId(), &m_target, 1); }
};

}  // namespace

std::unique_ptr<RoundTripPeer> MakeKvRsPeer(KvRsReceive eHow)
{
    return std::unique_ptr<RoundTripPeer>(new KvRsPeer(eHow));
}

int KvRsPartnerMain(long cTotal, KvRsReceive eHow)
{
    PreparePartner();
    HoldRoot();
    if (!SetUpReceive(eHow))
        RoundTripFailed("KvRfrSvr partner", "no way to wait");
    KvRsNodeProxy nodeA = KvRsCreateNode("pp.a", 0, 0);
    KvRsNodeProxy nodeB = KvRsCreateNode("pp.b", 0, 0);
    int target = 0;
    KvRsConnectClient(nodeA.GetHandle(), nodeA.GetId(), &target, 2);
    KvRsNotifyNodeClients(nodeB.GetHandle(), nodeB.GetId(), kReady, 0, 0, false);
    for (long n = 1; n <= cTotal; ++n) {
        if (!TakeMessage(kPing, (n & 1023) == 0))
            RoundTripFailed("KvRfrSvr partner", "wrong message");
        KvRsNotifyNodeClients(nodeB.GetHandle(), nodeB.GetId(), kPing, 0, 0, false);
    }
    KvRsDisconnectClient(nodeA.GetHandle(), nodeA.GetId(), &target, 2);
    return 0;
}

}  // namespace kvcmp
