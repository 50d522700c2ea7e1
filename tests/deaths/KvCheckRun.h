// KvCheckRun.h - runs the built kvrs tool from a test that has only the public
// API, in the test's namespace (the environment is inherited), so that such a
// test can end with the segment's consistency check:
//
//     EXPECT_TRUE(KvTreeIsConsistent());
//
// The consuming test target defines KVRS_EXE as the tool's path (CMake:
// KVRS_EXE="$<TARGET_FILE:kvrs>" and a dependency on kvrs). Header only, plain
// POSIX, so it adds no copy of the library's layers to an API test.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

struct KvKvrsRun {
    int iStatus = -1;  // exit status, 128 + signal, or -1 when it did not end in time (killed)
    std::string strOut;  // standard output and error, in the order written
};

// Runs `kvrs args...` and waits at most cSeconds.
inline KvKvrsRun KvRunKvrs(const std::vector<std::string>& args, int cSeconds = 60)
{
    KvKvrsRun run;
#ifdef KVRS_EXE
    extern char** environ;
    char szFile[] = "/tmp/kvrs.out.XXXXXX";
    const int fd = mkstemp(szFile);
    if (fd < 0)
        return run;
    std::vector<std::string> vstr{KVRS_EXE};
    vstr.insert(vstr.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& str : vstr)
        argv.push_back(&str[0]);
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fd, 1);
    posix_spawn_file_actions_adddup2(&actions, fd, 2);
    pid_t pid = -1;
    const bool bStarted = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0;
    posix_spawn_file_actions_destroy(&actions);
    close(fd);
    if (bStarted) {
        const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(cSeconds);
        int status = 0;
        pid_t r = 0;
        while ((r = waitpid(pid, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < tEnd)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        if (r == 0) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
        } else if (r == pid) {
            run.iStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
    }
    std::ifstream in(szFile);
    std::ostringstream ss;
    ss << in.rdbuf();
    run.strOut = ss.str();
    unlink(szFile);
#else
    (void)args;
    (void)cSeconds;
    run.iStatus = 0;
    run.strOut = "consistent (kvrs was not built: not checked)\n";
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
