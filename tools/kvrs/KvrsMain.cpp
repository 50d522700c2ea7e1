// KvrsMain.cpp - kvrs, the command-line client of the shared tree.
//
// Exit status: 0 success, 1 a node was not found or the tree refused a change,
// 2 a usage error, 3 listen timed out before its count. Every failure prints
// one line on standard error.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "KvrsCommands.h"
#include "KvrsCommon.h"
#include "KvrsOptions.h"

#ifndef KVRS_VERSION
#define KVRS_VERSION "unknown"
#endif

// The library attaches to the namespace in $KVRFRSVR_NAMESPACE when it is
// loaded, before main. kvrs links it statically, so this constructor, ordered
// before the library's own start-up (priority 1001 and later), puts -n NS into
// the environment in time. glibc passes argc and argv to constructors.
__attribute__((constructor(1000))) static void KvrsNamespaceFromCommandLine(int argc, char** argv, char**)
{
    const char* psz = KvrsNamespaceFromArguments(argc, argv);
    // A bad name is left for the parser to refuse in words.
    if (psz != nullptr && KvrsIsNamespaceName(psz))
        setenv("KVRFRSVR_NAMESPACE", psz, 1);
}

namespace {

// CLI11 reports an unknown first word only as a missing subcommand; name it.
void CheckSubcommandName(CLI::App& app, const std::vector<std::string>& vstrArgs)
{
    for (size_t i = 0; i < vstrArgs.size(); ++i) {
        const std::string& str = vstrArgs[i];
        if (str == "-n" || str == "--namespace") {
            ++i;
            continue;
        }
        if (str.empty() || str[0] == '-')
            continue;
        for (const CLI::App* sub : app.get_subcommands([](CLI::App*) { return true; }))
            if (sub->get_name() == str)
                return;
        throw KvrsError(KVRS_EXIT_USAGE, "unknown command '" + KvrsShown(str) + "' (see kvrs --help)");
    }
}

// The innermost subcommand that was given, for the help hint.
const CLI::App& Innermost(const CLI::App& app)
{
    for (const CLI::App* sub : app.get_subcommands())
        return Innermost(*sub);
    return app;
}

struct AppState {
    std::string m_strNamespace;  // -n/--namespace, on the application and every subcommand
};

void BuildApp(CLI::App& app, AppState& state)
{
    app.require_subcommand(1);
    app.fallthrough(false);
    app.set_version_flag("--version", "kvrs " KVRS_VERSION, "Print the version and exit");
    KvrsAddTreeCommand(app);
    KvrsAddNodeCommands(app);
    KvrsAddDumpCommands(app);
    KvrsAddNotifyCommands(app);
    KvrsAddStatsCommand(app);
    KvrsAddCheckCommand(app);
    KvrsAddReapCommand(app);
    KvrsAddDemoCommands(app);
#ifdef KVRS_HAVE_BRIDGE
    KvrsAddBridgeCommand(app);
#endif
    KvrsAddNamespaceOption(&app, &state.m_strNamespace);
    for (CLI::App* sub : app.get_subcommands([](CLI::App*) { return true; }))
        KvrsAddNamespaceOption(sub, &state.m_strNamespace);
    app.footer("`kvrs -` reads commands from standard input, one per line (a prompt on a terminal).\n"
               "Exit status: 0 success, 1 node not found or change refused, 2 usage error,\n"
               "3 listen timed out before --count messages.\n"
               "The tree is the one of namespace -n NS, else $KVRFRSVR_NAMESPACE (default: one per user).");
}

}  // namespace

int KvrsRunCommand(const std::vector<std::string>& vstrArgs, const std::string& strWhere)
{
    CLI::App app("kvrs - look at and drive the shared tree of KvRfrSvr", "kvrs");
    AppState state;
    BuildApp(app, state);
    try {
        CheckSubcommandName(app, vstrArgs);
        std::vector<std::string> vstrReversed(vstrArgs.rbegin(), vstrArgs.rend());  // CLI11 takes them reversed
        app.parse(vstrReversed);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0)
            return app.exit(e);  // --version
        std::string strName = "kvrs";
        if (&Innermost(app) != &app)
            strName += " " + Innermost(app).get_name();
        fflush(stdout);
        fprintf(stderr, "kvrs: %s%s (see %s --help)\n", strWhere.c_str(), KvrsParseErrorText(e).c_str(),
                strName.c_str());
        return KVRS_EXIT_USAGE;
    } catch (const KvrsError& e) {
        fflush(stdout);
        fprintf(stderr, "kvrs: %s%s\n", strWhere.c_str(), e.what());
        return e.Status();
    }
    fflush(stdout);
    return KVRS_EXIT_OK;
}

namespace {

// True when the command line asks for commands from standard input: "-" as
// the only word besides the namespace option.
bool IsBatch(const std::vector<std::string>& vstrArgs)
{
    bool bDash = false;
    for (size_t i = 0; i < vstrArgs.size(); ++i) {
        const std::string& str = vstrArgs[i];
        if (str == "-n" || str == "--namespace")
            ++i;
        else if (str == "-")
            bDash = true;
        else if (str.rfind("-n", 0) != 0 && str.rfind("--namespace=", 0) != 0)
            return false;
    }
    return bDash;
}

int Run(int argc, char** argv)
{
    // Every process releases one root reference when it exits, whether it made
    // the root or not. Taking one now and keeping it means a short command never
    // tears down a tree that other processes use.
    KvRsNodeProxy root = KvrsRoot();
    KvRsAddRef(root.GetHandle(), root.GetId());

    const std::vector<std::string> vstrArgs(argv + 1, argv + argc);
    if (!IsBatch(vstrArgs))
        return KvrsRunCommand(vstrArgs);
    try {
        const char* psz = KvrsNamespaceFromArguments(argc, argv);
        if (psz != nullptr)
            KvrsCheckNamespaceOption(psz);
    } catch (const KvrsError& e) {
        fprintf(stderr, "kvrs: %s\n", e.what());
        return e.Status();
    }
    return KvrsRunBatch();
}

}  // namespace

int main(int argc, char** argv)
{
    // Anything else that goes wrong (out of memory in the tool itself) is one
    // line and status 1, never an abort.
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        fflush(stdout);
        fprintf(stderr, "kvrs: %s\n", e.what());
    } catch (...) {
        fflush(stdout);
        fprintf(stderr, "kvrs: unexpected failure\n");
    }
    return KVRS_EXIT_FAILED;
}
