// Stores a value under a path, reads it back and notifies itself.
#include <KvRfrSvr.h>

#include <cstdio>
#include <cstring>

int main()
{
    KvRsNodeProxy node = KvRsCreateNode("consumer.greeting", 0, 0);
    KvRsValueProxy value = KvRsCreateValue();
    unsigned char ab[] = "hello";
    KvRsSetValueBytes(value.GetHandle(), value.GetId(), ab, sizeof(ab));
    KvRsSetNodeValue(node.GetHandle(), node.GetId(), value.GetHandle(), value.GetId());
    KvRsConnectClient(node.GetHandle(), node.GetId(), 0, 1);
    KvRsNotifyNodeClients(node.GetHandle(), node.GetId(), 1, value.GetHandle(), value.GetId(), false);

    KvRsNodeProxy found = KvRsGetNode("consumer.greeting");
    KvRsValueProxy stored = KvRsGetNodeValue(found.GetHandle(), found.GetId());
    unsigned char abRead[16] = {};
    KvRsGetValueBytes(stored.GetHandle(), stored.GetId(), abRead);
    const bool fOk = std::strcmp(reinterpret_cast<char*>(abRead), "hello") == 0 && KvRsGetMsgCount() == 1;
    std::printf("consumer: %s\n", fOk ? "ok" : "FAILED");
    return fOk ? 0 : 1;
}
