// KvTestSupport.h - helpers shared by every test program: child-process
// scenarios (the test binary re-runs itself), spawning with a watchdog, private
// namespaces, standard-error capture and pool-balance checks.
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
// Runs the scenario named on the command line, if any; true when it did.
bool KvRunChildScenarioIfAsked(int argc, char** argv, int* piExit);

#define KV_CHILD_SCENARIO(name)                                                                            \
    static int KvChildScenario_##name(const std::vector<std::string>& args);                               \
    static const bool s_fKvChildScenario_##name = KvRegisterChildScenario(#name, &KvChildScenario_##name); \
    static int KvChildScenario_##name(const std::vector<std::string>& args)

// Starts argv (argv[0] is the program's path) with this environment. Standard
// input comes from strIn, output and error go to the files strOut and strErr
// ("" leaves a stream as it is; one file for both keeps the order of writes).
pid_t KvTestSpawnExe(const std::vector<std::string>& argv, const std::string& strIn = "",
                     const std::string& strOut = "", const std::string& strErr = "");
// Starts this test binary as a child running the named scenario.
pid_t KvTestSpawn(const std::string& strScenario, const std::vector<std::string>& args = {});

// Waits for a child; kills it and returns -1 when it does not end within
// cSeconds (a hang fails the test instead of the CI run). Otherwise returns its
// exit status, or 128 + signal when a signal ended it.
int KvTestWait(pid_t pid, int cSeconds = 60);

// Runs argv to its end (bounded like KvTestWait): its status, and its output and
// error in the order written into *pstrOut.
int KvTestRunExe(const std::vector<std::string>& argv, std::string* pstrOut, int cSeconds = 60);

// A new empty temporary file, and the whole of a file.
std::string KvTestTempFile();
std::string KvTestReadFile(const std::string& strPath);

// Gives this process a namespace of its own (unique per process and call), so
// that attachments of a test never meet those of another.
std::string KvTestUseFreshNamespace();

// Names in /dev/shm that belong to the namespace (empty: the current one).
std::vector<std::string> KvTestNamespaceObjects(const std::string& strNamespace = "");

// Redirects file descriptor 2 into a temporary file until Stop(), which returns
// what was written.
class KvStderrCapture {
public:
    KvStderrCapture();
    ~KvStderrCapture();
    std::string Stop();

private:
    int m_fdSaved = -1;
    std::string m_strPath;
};

// Number of non-overlapping occurrences of strWhat in str.
int KvCountOf(const std::string& str, const std::string& strWhat);

// Net block count (allocations minus frees) of each of the 17 pools.
typedef std::array<int64_t, 17> KvPoolSnapshot;
KvPoolSnapshot KvTakePoolSnapshot();
// Google Test assertion: no pool gained or lost a block since the snapshot.
::testing::AssertionResult KvPoolsBalanced(const KvPoolSnapshot& before);
