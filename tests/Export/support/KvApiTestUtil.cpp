// KvApiTestUtil.cpp - see KvApiTestUtil.h.
#include "KvApiTestUtil.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "common/KvTestSupport.h"

void KvKeepTreeAlive()
{
    KvRsNodeProxy root = KvRsCreateNode("", 0, 0);
    KvRsAddRef(root.GetHandle(), root.GetId());
}

// A child that makes one exported call and exits.
KV_CHILD_SCENARIO(OneCall)
{
    (void)args;
    return KvRsGetNodeType(nullptr, 0) == 0 ? 0 : 1;
}

bool KvMutexFreeForOthers(int cSeconds)
{
    return KvTestWait(KvTestSpawn("OneCall"), cSeconds) == 0;
}
