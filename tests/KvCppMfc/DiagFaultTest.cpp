// Hardware faults outside a fault frame behave as without the library: the
// caller's own handler runs, or the process dies of the signal. (Inside a frame
// they become exceptions: see the exported functions' fault tests.)
#include <signal.h>
#include <unistd.h>

#include <cstring>

#include "KvCppMfc/Platform/KvPlatform.h"
#include "SegmentTestSupport.h"

namespace {

volatile int* volatile g_pNull = nullptr;  // opaque to the optimiser

[[noreturn]] void ThrowFaultInfo(const KvFaultInfo& info)
{
    throw info;
}

// The fault is meant: the undefined-behaviour sanitizer must let it happen.
__attribute__((noinline, no_sanitize("undefined"))) int ReadNull()
{
    return *g_pNull;
}

KV_CHILD_SCENARIO(FaultOutsideAFrame)
{
    if (!args.empty()) {
        struct sigaction sa;
        memset(&sa, 0, sizeof(sa));
        sa.sa_handler = [](int) { _exit(42); };
        sigaction(SIGSEGV, &sa, nullptr);
    }
    KvInstallFaultHandler(&ThrowFaultInfo);
    try {
        return ReadNull();
    } catch (...) {
        return 1;  // must not become an exception
    }
}

TEST(DiagFault, OutsideAFrameTheCallersHandlerRunsOrTheProcessDies)
{
    EXPECT_EQ(42, KvTestWait(KvTestSpawn("FaultOutsideAFrame", {"own-handler"}), 20));
#ifndef KV_SANITIZED  // the sanitizer's own SIGSEGV handler reports and exits instead
    EXPECT_EQ(128 + SIGSEGV, KvTestWait(KvTestSpawn("FaultOutsideAFrame"), 20));
#endif
}

}  // namespace
