// KvrsCommands.h - each group of subcommands adds itself to the application.
// A subcommand reports failure by throwing KvrsError (KvrsCommon.h).
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "KvRfrSvr.h"

void KvrsAddTreeCommand(CLI::App& app);     // tree
void KvrsAddNodeCommands(CLI::App& app);    // get, set, rm, ref, type
void KvrsAddDumpCommands(CLI::App& app);    // dump, load
void KvrsAddNotifyCommands(CLI::App& app);  // notify, listen, serve
void KvrsAddListenCommand(CLI::App& app);   // listen
void KvrsAddStatsCommand(CLI::App& app);    // stats
void KvrsAddCheckCommand(CLI::App& app);    // check
void KvrsAddReapCommand(CLI::App& app);     // reap
// Reaps ended processes now (kvrs serve does so periodically); prints a line
// per process when asked.
void KvrsReapNow(bool bPrint);
void KvrsAddDemoCommands(CLI::App& app);  // demo and its hidden publisher role

// Parses and runs one command line (without the program name); prints its
// error line (strWhere after "kvrs: ") and returns its exit status.
int KvrsRunCommand(const std::vector<std::string>& vstrArgs, const std::string& strWhere = "");
// `kvrs -`: commands from standard input, one per line, in this process.
int KvrsRunBatch();
// bridge, built only where libmosquitto is found
void KvrsAddBridgeCommand(CLI::App& app);
