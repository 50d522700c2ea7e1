// publisher.cpp - sets a node's value and tells the node's clients about it.
//
//   kvrs_example_publisher [PATH] [COUNT]     (default: example.counter 10)
//
// Every notification becomes one message in each client's queue; the value
// travels with it. Run a subscriber on the same PATH first (and in the same
// namespace, $KVRFRSVR_NAMESPACE), or nobody hears it.
#include <KvRfrSvr.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

int main(int argc, char** argv)
{
    const char* pszPath = argc > 1 ? argv[1] : "example.counter";
    const int cCount = argc > 2 ? atoi(argv[2]) : 10;

    // Every process releases one root reference at exit. Take the one ours
    // will release, so that our exit never tears down a tree others still use.
    KvRsNodeProxy root = KvRsCreateNode("", 0, 0);
    KvRsAddRef(root.GetHandle(), root.GetId());

    // Finds the node, creating the path when missing.
    KvRsNodeProxy node = KvRsCreateNode(pszPath, 0, 0);
    printf("publishing %d values at %s to %ld client(s)\n", cCount, pszPath,
           KvRsGetClientCount(node.GetHandle(), node.GetId()));

    const unsigned long dwValueChanged = 1;  // message numbers are ours to choose
    for (int i = 1; i <= cCount; ++i) {
        std::string strText = "value " + std::to_string(i);
        // A fresh value per message: receivers keep seeing what they were sent.
        KvRsValueProxy value = KvRsCreateValue();
        KvRsSetValueType(value.GetHandle(), value.GetId(), 1);
        KvRsSetValueBytes(value.GetHandle(), value.GetId(), reinterpret_cast<unsigned char*>(&strText[0]),
                          static_cast<long>(strText.size()));
        KvRsSetNodeValue(node.GetHandle(), node.GetId(), value.GetHandle(), value.GetId());
        KvRsNotifyNodeClients(node.GetHandle(), node.GetId(), dwValueChanged, value.GetHandle(), value.GetId(), false);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    printf("done\n");
    return 0;  // exit removes our connections and releases our references
}
