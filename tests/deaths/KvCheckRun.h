// KvCheckRun.h - runs the built kvrs tool from a test that has only the public
// API, in the test's namespace (the environment is inherited), so that such a
// test can end with the segment's consistency check. The test target defines
// KVRS_EXE as the tool's path; without it nothing is checked.
#pragma once

#include <string>
#include <vector>

#include "common/KvTestSupport.h"

struct KvKvrsRun {
    int iStatus = 0;  // exit status, 128 + signal, or -1 when it did not end in time (killed)
    std::string strOut = "consistent (kvrs was not built: not checked)\n";  // output and error, in order
};

inline KvKvrsRun KvRunKvrs(const std::vector<std::string>& args)
{
    KvKvrsRun run;
#ifdef KVRS_EXE
    std::vector<std::string> argv{KVRS_EXE};
    argv.insert(argv.end(), args.begin(), args.end());
    run.iStatus = KvTestRunExe(argv, &run.strOut);
#else
    (void)args;
#endif
    return run;
}

// `kvrs check` passes: exit 0. On failure the tool's lines are the message.
inline ::testing::AssertionResult KvTreeIsConsistent()
{
    const KvKvrsRun run = KvRunKvrs({"check", "--quiet"});
    if (run.iStatus == 0)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "kvrs check ended with " << run.iStatus << ":\n" << run.strOut;
}
