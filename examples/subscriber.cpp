// subscriber.cpp - connects as a client of a node and prints the messages that
// notifications of that node put into this process's queue.
//
//   kvrs_example_subscriber [PATH] [COUNT]    (default: example.counter 10)
//
// Nothing is pushed to a process: it polls its default queue.
#include <KvRfrSvr.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

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
    while (cReceived < cCount) {
        KvRsMsgProxy msg = KvRsGetMsg();
        if (msg.IsNull()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));  // poll gently
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
