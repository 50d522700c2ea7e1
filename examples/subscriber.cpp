// subscriber.cpp - connects as a client of a node and prints the messages that
// notifications of that node put into this process's queue.
//
//   kvrs_example_subscriber [PATH] [COUNT]    (default: example.counter 10)
//
// It sleeps in KvRsWaitMsg until a message comes, so it uses no CPU while idle,
// and it ends cleanly on SIGINT or SIGTERM: returning from main removes its
// connection from the tree.
#include <KvRfrSvr.h>
#include <KvRfrSvrWait.h>

#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

static volatile sig_atomic_t s_fStop = 0;

static void OnStop(int)
{
    s_fStop = 1;
}

// The bytes of a message's value as text.
static std::string ValueText(const KvRsValueProxy& value)
{
    const long cb = KvRsGetValueByteCount(value.GetHandle(), value.GetId());
    if (cb <= 0)
        return std::string();
    std::vector<unsigned char> ab(static_cast<size_t>(cb));
    KvRsGetValueBytes(value.GetHandle(), value.GetId(), ab.data());
    return std::string(ab.begin(), ab.end());
}

int main(int argc, char** argv)
{
    const char* pszPath = argc > 1 ? argv[1] : "example.counter";
    const int cCount = argc > 2 ? atoi(argv[2]) : 10;

    // Without SA_RESTART, so that a signal ends a wait at once.
    struct sigaction sa = {};
    sa.sa_handler = OnStop;
    sigaction(SIGINT, &sa, 0);
    sigaction(SIGTERM, &sa, 0);

    // Take the root reference that our exit will release (see the README).
    KvRsNodeProxy root = KvRsCreateNode("", 0, 0);
    KvRsAddRef(root.GetHandle(), root.GetId());

    // The target pair comes back in every message of this connection; any
    // pair of our choosing will do.
    KvRsNodeProxy node = KvRsCreateNode(pszPath, 0, 0);
    void* const hTarget = node.GetHandle();
    KvRsConnectClient(node.GetHandle(), node.GetId(), hTarget, 42);
    printf("subscribed to %s\n", pszPath);
    fflush(stdout);

    int cReceived = 0;
    while (cReceived < cCount && !s_fStop) {
        KvRsMsgProxy msg = KvRsGetMsg();
        if (msg.IsNull()) {
            // A second at most: a signal that lands just before the wait
            // begins is seen within that.
            KvRsWaitMsg(0, 0, 1000);
            continue;
        }
        void* hMsgTarget = 0;
        unsigned long idMsgTarget = 0;
        KvRsGetMsgTarget(msg.GetHandle(), msg.GetId(), hMsgTarget, idMsgTarget);
        const KvRsValueProxy value = KvRsGetMsgValue(msg.GetHandle(), msg.GetId());
        printf("message %lu for target %lu: %s\n", KvRsGetMsgType(msg.GetHandle(), msg.GetId()), idMsgTarget,
               ValueText(value).c_str());
        fflush(stdout);
        ++cReceived;
    }
    KvRsDisconnectClient(node.GetHandle(), node.GetId(), hTarget, 42);
    return 0;
}
