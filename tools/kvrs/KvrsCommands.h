// KvrsCommands.h - each group of subcommands adds itself to the application.
// A subcommand reports failure by throwing KvrsError (KvrsCommon.h).
#pragma once

#include <CLI/CLI.hpp>

#include "KvRfrSvr.h"

void KvrsAddTreeCommand(CLI::App& app);     // tree
void KvrsAddNodeCommands(CLI::App& app);    // get, set, rm, ref, type
void KvrsAddNotifyCommands(CLI::App& app);  // notify, listen, serve
void KvrsAddStatsCommand(CLI::App& app);    // stats
void KvrsAddCheckCommand(CLI::App& app);    // check
void KvrsAddReapCommand(CLI::App& app);     // reap
// Reaps ended processes now (kvrs serve does so periodically); prints a line
// per process when asked.
void KvrsReapNow(bool bPrint);
void KvrsAddDemoCommands(CLI::App& app);  // demo and its hidden publisher role
// bridge, built only where libmosquitto is found
void KvrsAddBridgeCommand(CLI::App& app);
