// TrivialLoop.cpp - calls KvRsGetNodeType N times on one held node, without
// contention; bench/check_no_syscalls_api.sh runs it under strace and checks
// that the calls themselves make no system call.
//   compare_trivial_loop N
#include <cstdio>
#include <cstdlib>

#include "CompareHarness.h"
#include "KvRfrSvr.h"

int main(int argc, char** argv)
{
    kvcmp::EnsurePrivateNamespace(argv);
    const long n = argc > 1 ? atol(argv[1]) : 1000;
    KvRsNodeProxy node = KvRsCreateNode("t.a.b", 0, 0);
    if (node.IsNull())
        return 1;
    unsigned long sum = 0;
    for (long i = 0; i < n; ++i)
        sum += KvRsGetNodeType(node.GetHandle(), node.GetId());
    printf("%ld calls, sum %lu\n", n, sum);
    return 0;
}
