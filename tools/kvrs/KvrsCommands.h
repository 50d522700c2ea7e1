// KvrsCommands.h - each group of subcommands adds itself to the application.
// A subcommand reports failure by throwing KvrsError (KvrsCommon.h).
#pragma once

#include <CLI/CLI.hpp>

// Bits of the node type word that the library owns.
constexpr uint32_t KVRS_FLAG_VALUE = 0x1;
constexpr uint32_t KVRS_FLAG_REF = 0x2;
constexpr uint32_t KVRS_FLAG_PARENT = 0x4;
constexpr uint32_t KVRS_FLAG_CONST = 0x10000;
// Notification number bit that puts the message at the front of the queue.
constexpr uint32_t KVRS_NOTIFY_FRONT = 0x10000;

void KvrsAddTreeCommand(CLI::App& app);      // tree
void KvrsAddNodeCommands(CLI::App& app);     // get, set, rm, ref, type
void KvrsAddNotifyCommands(CLI::App& app);   // notify, listen, serve
void KvrsAddStatsCommand(CLI::App& app);     // stats
void KvrsAddCheckCommand(CLI::App& app);     // check
void KvrsAddDemoCommands(CLI::App& app);     // demo and its hidden publisher role
