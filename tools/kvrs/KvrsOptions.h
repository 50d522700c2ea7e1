// KvrsOptions.h - options that every subcommand shares, and the parser's
// errors in our words.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

// The value of the last -n/--namespace option in argv, or null. Read before
// the library starts, because the library attaches to its namespace at load time.
const char* KvrsNamespaceFromArguments(int argc, char** argv);
bool KvrsIsNamespaceName(const std::string& str);
// Refuses a bad name, and a namespace other than the one this process works on.
void KvrsCheckNamespaceOption(const std::string& strGiven);

// -n/--namespace NS on a (sub)command; the value lands in *pstr.
void KvrsAddNamespaceOption(CLI::App* pApp, std::string* pstr);
// --allow-vanish on a command that changes the tree.
void KvrsAddVanishOption(CLI::App* pApp, bool* pb);
// Refuses (status 1) to change a tree that no other process keeps alive,
// unless bAllowVanish.
void KvrsCheckKept(bool bAllowVanish);

// One line in our words for a parse error of CLI11.
std::string KvrsParseErrorText(const CLI::ParseError& e);
