// KvrsReap.cpp - `kvrs reap`: gives back what processes that ended without
// their exit (killed, crashed) left in the tree: their connections, the
// messages waiting for them, their root and default-queue references. Every
// process's start-up does the same, this command's own included; it prints
// what was reaped by either, one line per process.
#include <cstdio>

#include "KvRfrSvr/Export/KvRsReaper.h"
#include "KvrsCommands.h"
#include "KvrsCommon.h"

namespace {

void PrintReaped(const std::vector<KvRsReaped>& v)
{
    for (const KvRsReaped& r : v)
        printf("reaped process %u: %u connections, %d messages freed\n", r.key.dwPid, r.cConnections, r.cMessages);
}

void RunReap()
{
    PrintReaped(KvRsReapedAtStartUp());
    KvRsRequestMutex();
    const std::vector<KvRsReaped> v = KvRsReapEndedProcesses();
    KvRsReleaseMutex();
    PrintReaped(v);
}

}  // namespace

void KvrsReapNow(bool bPrint)
{
    KvRsRequestMutex();
    const std::vector<KvRsReaped> v = KvRsReapEndedProcesses();
    KvRsReleaseMutex();
    if (bPrint) {
        PrintReaped(v);
        fflush(stdout);
    }
}

void KvrsAddReapCommand(CLI::App& app)
{
    CLI::App* sub = app.add_subcommand("reap", "Give back what killed processes left in the tree (one line each)");
    sub->callback([] { RunReap(); });
}
