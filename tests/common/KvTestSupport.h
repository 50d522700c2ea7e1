// KvTestSupport.h - helpers shared by every test executable: child-process
// scenarios (the test binary re-runs itself), spawning with a watchdog, private
// namespaces and pool-balance checks.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

// A scenario is a function run in a child process: `testbinary --kv-child=NAME args...`.
// Its return value is the child's exit status.
typedef int (*KvChildScenario)(const std::vector<std::string>& args);
bool KvRegisterChildScenario(const char* pszName, KvChildScenario pfn);

#define KV_CHILD_SCENARIO(name)                                                        \
    static int KvChildScenario_##name(const std::vector<std::string>& args);          \
    static const bool s_fKvChildScenario_##name =                                      \
        KvRegisterChildScenario(#name, &KvChildScenario_##name);                       \
    static int KvChildScenario_##name(const std::vector<std::string>& args)

// Starts this test binary as a child running the named scenario. The child
// inherits the environment (and so the namespace).
pid_t KvTestSpawn(const std::string& strScenario, const std::vector<std::string>& args = {});

// Waits for a child; kills it and returns -1 when it does not end within
// cSeconds (a hang fails the test instead of the CI run). Otherwise returns its
// exit status, or 128 + signal when a signal ended it.
int KvTestWait(pid_t pid, int cSeconds = 60);

// Gives this process a namespace of its own (unique per process and call), so
// that attachments of a test never meet those of another.
std::string KvTestUseFreshNamespace();

// Names in /dev/shm that belong to the current namespace.
std::vector<std::string> KvTestNamespaceObjects();

// Redirects file descriptor 2 into a temporary file until Stop(), which returns
// what was written.
class KvStderrCapture {
public:
    KvStderrCapture();
    ~KvStderrCapture();
    std::string Stop();

private:
    int m_fdSaved = -1;
    int m_fdFile = -1;
};

// Number of non-overlapping occurrences of strWhat in str.
int KvCountOf(const std::string& str, const std::string& strWhat);

// Net block count (allocations minus frees) of each of the 17 pools, and the
// header's byte totals, as they stand now.
struct KvPoolSnapshot {
    std::array<int64_t, 17> aNet{};
    int64_t cbNet = 0;
};
KvPoolSnapshot KvTakePoolSnapshot();
// Google Test assertion: no pool gained or lost a block since the snapshot.
::testing::AssertionResult KvPoolsBalanced(const KvPoolSnapshot& before);
