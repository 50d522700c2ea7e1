// CompareHarness.h - what the comparison programs share: clocks, latency
// summaries, the row format that bench/run.sh turns into tables, CPU pinning,
// command-line options and running a case in a child process.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace kvcmp {

inline uint64_t NowNs()
{
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

// Median cost of one NowNs() pair; subtracted from per-operation samples so that
// short operations are not inflated by the clock itself.
double ClockOverheadNs();

// Busy-wait step: a pause, and a yield now and then so that a spinner sharing
// a CPU with its partner still lets the partner run.
void SpinPause(unsigned& cSpins);

struct Summary {
    double median = 0;
    double p99 = 0;
    size_t count = 0;
};
// Sorts the samples.
Summary Summarise(std::vector<double>& samples);

// Rows on standard output, one per line, tab-separated:
//   ROW <group> <name> <median> <p99> <unit> <note>
//   INFO <key> <value>
// bench/run.sh collects them into the tables. A group's first row whose name
// begins with "KvRfrSvr" is the one the ratios are taken from.
void EmitRow(const std::string& group, const std::string& name, const Summary& s, const char* pszUnit = "ns",
             const std::string& note = "");
void EmitValue(const std::string& group, const std::string& name, double value, const char* pszUnit,
               const std::string& note = "");
void EmitInfo(const std::string& key, const std::string& value);

// Number of CPUs this process was started with, pinning to the n-th of them,
// and going back to all of them (so that a program started now can choose).
int AllowedCpuCount();
bool PinToCpu(int n);
void UnpinCpu();

struct Options {
    long cCount = 200000;  // measured operations (round trips, lookups...)
    long cWarmup = 20000;
    bool fShort = false;
    std::vector<std::string> args;  // what is left after the options
};
// Understands --short, --count N, --warmup N; --short sets small counts unless
// they are given explicitly.
Options ParseOptions(int argc, char** argv, long cShortCount);

// Puts every process of the comparison into a private namespace of the
// library, so that it never touches a user's tree: when KVRFRSVR_NAMESPACE does
// not already name one of ours, sets it and re-executes this program (the
// library reads the variable when it loads, before main). Returns only when
// the namespace is in place.
void EnsurePrivateNamespace(char** argv);
// A fresh namespace name below this process's own, for a child.
std::string ChildNamespace(const char* pszTag);

// Runs this program again with args, in namespace strNamespace, forwards the
// child's ROW lines to standard output and returns its INFO lines as
// key/value pairs; empty key "" with value "failed" when the child failed.
std::vector<std::pair<std::string, std::string>> RunSelf(const std::vector<std::string>& args,
                                                         const std::string& strNamespace);

// Starts this program again with args (environment inherited); returns its pid.
pid_t SpawnSelf(const std::vector<std::string>& args);
// Waits for a child; true when it exited with status 0.
bool WaitChild(pid_t pid);

}  // namespace kvcmp
