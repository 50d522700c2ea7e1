// Hardware faults: inside a fault frame they become the thrower's exception with
// the code and access of the original exception records; outside one they behave
// as without the library. And the texts that describe them.
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "KvCppMfc/Diag/KvDebugOutput.h"
#include "KvCppMfc/Platform/KvPlatform.h"
#include "SegmentTestSupport.h"

namespace {

// Opaque to the optimiser, so the faulting accesses really happen.
volatile int* volatile g_pNull = nullptr;
volatile int g_iZero = 0;
volatile size_t g_cbCopy = 4096;

// The faults are meant: the undefined-behaviour sanitizer must let them happen.
#define KV_FAULTS_ON_PURPOSE __attribute__((noinline, no_sanitize("undefined")))

KV_FAULTS_ON_PURPOSE void ReadNull()
{
    const int i = *g_pNull;
    (void)i;
}

KV_FAULTS_ON_PURPOSE void WriteNull()
{
    *g_pNull = 1;
}

KV_FAULTS_ON_PURPOSE void DivideByZero()
{
    volatile int i = 1 / g_iZero;
    (void)i;
}

KV_FAULTS_ON_PURPOSE void RemainderByZero()
{
    volatile int i = 7 % g_iZero;
    (void)i;
}

[[noreturn]] void ThrowFaultInfo(const KvFaultInfo& info)
{
    throw info;
}

template <class F>
KvFaultInfo FaultIn(F fn)
{
    KvInstallFaultHandler(&ThrowFaultInfo);
    try {
        KvFaultFrame frame;
        fn();
    } catch (const KvFaultInfo& info) {
        return info;
    }
    return KvFaultInfo{};
}

TEST(DiagFault, NullReadAndWriteBecomeAccessViolations)
{
    KvFaultInfo info = FaultIn(&ReadNull);
    EXPECT_EQ(0xC0000005u, info.dwCode);
    EXPECT_EQ(2, info.cParams);
    EXPECT_EQ(0u, info.aParams[0]) << "read";
    EXPECT_EQ(0u, info.aParams[1]);
    EXPECT_NE(0u, info.pvAddress) << "the faulting instruction";

    info = FaultIn(&WriteNull);
    EXPECT_EQ(0xC0000005u, info.dwCode);
    EXPECT_EQ(1u, info.aParams[0]) << "write";
    EXPECT_EQ(0, t_cKvFaultFrames) << "the frame was left on the way out";
}

TEST(DiagFault, IntegerDivideByZero)
{
    EXPECT_EQ(0xC0000094u, FaultIn(&DivideByZero).dwCode);
    // The same thread faults and recovers again.
    EXPECT_EQ(0xC0000094u, FaultIn(&RemainderByZero).dwCode);
}

TEST(DiagFault, FaultInsideALibraryRoutine)
{
    const size_t cbPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* pvBad = mmap(nullptr, cbPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, pvBad);
    static char s_achSource[4096];
    const KvFaultInfo info = FaultIn([&] { KvCopyBytes(pvBad, s_achSource, g_cbCopy); });
    EXPECT_EQ(0xC0000005u, info.dwCode);
    EXPECT_EQ(1u, info.aParams[0]);
    EXPECT_GE(info.aParams[1], reinterpret_cast<uintptr_t>(pvBad));
    EXPECT_LT(info.aParams[1], reinterpret_cast<uintptr_t>(pvBad) + cbPage);
    munmap(pvBad, cbPage);
}

KV_CHILD_SCENARIO(FaultOutsideAFrame)
{
    if (!args.empty() && args[0] == "own-handler") {
        struct sigaction sa;
        memset(&sa, 0, sizeof(sa));
        sa.sa_handler = [](int) { _exit(42); };
        sigaction(SIGSEGV, &sa, nullptr);
    }
    KvInstallFaultHandler(&ThrowFaultInfo);
    try {
        ReadNull();
    } catch (...) {
        return 1;  // must not become an exception
    }
    return 2;
}

TEST(DiagFault, OutsideAFrameTheCallersHandlerRuns)
{
    EXPECT_EQ(42, KvTestWait(KvTestSpawn("FaultOutsideAFrame", {"own-handler"}), 20));
}

#ifndef KV_SANITIZED  // the sanitizer's own SIGSEGV handler reports and exits instead
TEST(DiagFault, OutsideAFrameAFaultKillsAsWithoutTheLibrary)
{
    EXPECT_EQ(128 + SIGSEGV, KvTestWait(KvTestSpawn("FaultOutsideAFrame"), 20));
}
#endif

TEST(DiagFault, ExceptionTexts)
{
    EXPECT_STREQ("The thread tried to divide an integer value by an integer divisor of zero.",
                 KvExceptionCode2Text(0xC0000094));
    EXPECT_STREQ("The thread tried to access a page that was not present,and the system was unable to load the "
                 "page. For example, this exception might occur if a network connection is lost while running a "
                 "program over the network.",
                 KvExceptionCode2Text(0xC0000006));
    EXPECT_STREQ("Unknown exception.", KvExceptionCode2Text(0x12345678));

    KvFaultInfo info{};
    info.dwCode = 0xC0000005;
    info.pvAddress = 0xAB;
    info.cParams = 2;
    info.aParams[0] = 1;
    info.aParams[1] = 0x1234;
    const std::string strHead = "Exception 0xC0000005 :\nThe thread tried to read from or write to a virtual address "
                                "for which it does not have the appropriate access.\n\nIn application " +
                                KvApplicationPath() + " at address 0x000000AB";
    EXPECT_EQ(strHead + "\nThe Thread tried to write memory at 0x00001234", KvExceptionInfo2Text(info));
    info.aParams[0] = 0;
    EXPECT_EQ(strHead + "\nThe Thread tried to read memory at 0x00001234", KvExceptionInfo2Text(info));
    info.aParams[0] = 8;
    EXPECT_EQ(strHead + "\n\nError in exception information", KvExceptionInfo2Text(info));
    info.cParams = 0;
    EXPECT_EQ(strHead, KvExceptionInfo2Text(info));
    info.dwCode = 0xC000001D;
    EXPECT_EQ(0u, std::string(KvExceptionInfo2Text(info)).find("Exception 0xC000001D :\nThe thread tried to execute "
                                                                "an invalid instruction.\n\nIn application "));
}

}  // namespace
