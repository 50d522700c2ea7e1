// The public header on its own, used as a caller would use it.
#include "KvRfrSvr.h"

static bool KvVisit(KvRsNodeProxy& node, void* pv)
{
    return node.GetHandle() != pv;
}

int main()
{
    KvRsNodeProxy root = KvRsCreateNode("", 0, 0);
    KvRsNodeProxy child = root.GetChild();
    KVRSCONNECTINFO aInfo[2];
    KvRsEnumClients(root.GetHandle(), root.GetId(), aInfo, 2);
    return KvRsForAllNodes(&KvVisit, root, nullptr, false) && !child.IsNull() ? 0 : 1;
}
