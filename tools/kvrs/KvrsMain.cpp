// KvrsMain.cpp - kvrs, the command-line client of the shared tree.
//
// Exit status: 0 success, 1 a node was not found or the tree refused a change,
// 2 a usage error. Every failure prints one line on standard error.
#include <cstdio>
#include <string>

#include "KvrsCommands.h"
#include "KvrsCommon.h"

namespace {

int UsageFailure(const CLI::ParseError& e, const std::string& strCommand)
{
    std::string strText = e.what();
    for (char& ch : strText)
        if (ch == '\n')
            ch = ' ';
    fprintf(stderr, "kvrs: %s (see %s --help)\n", strText.c_str(), strCommand.c_str());
    return KVRS_EXIT_USAGE;
}

// The innermost subcommand that was given, for the help hint.
const CLI::App& Innermost(const CLI::App& app)
{
    for (const CLI::App* sub : app.get_subcommands())
        return Innermost(*sub);
    return app;
}

// CLI11 reports an unknown first word only as a missing subcommand; name it.
void CheckSubcommandName(CLI::App& app, int argc, char** argv)
{
    if (argc < 2 || argv[1][0] == '-')
        return;
    for (const CLI::App* sub : app.get_subcommands([](CLI::App*) { return true; }))
        if (sub->get_name() == argv[1])
            return;
    throw CLI::ParseError(std::string("unknown subcommand '") + argv[1] + "'", CLI::ExitCodes::ExtrasError);
}

}  // namespace

namespace {

int Run(int argc, char** argv)
{
    // Every process releases one root reference when it exits, whether it made
    // the root or not. Taking one now and keeping it means a short command never
    // tears down a tree that other processes use.
    KvRsNodeProxy root = KvrsRoot();
    KvRsAddRef(root.GetHandle(), root.GetId());

    CLI::App app("kvrs - look at and drive the shared tree of KvRfrSvr", "kvrs");
    app.require_subcommand(1);
    app.fallthrough(false);
    KvrsAddTreeCommand(app);
    KvrsAddNodeCommands(app);
    KvrsAddNotifyCommands(app);
    KvrsAddStatsCommand(app);
    KvrsAddCheckCommand(app);
    KvrsAddReapCommand(app);
    KvrsAddDemoCommands(app);
#ifdef KVRS_HAVE_BRIDGE
    KvrsAddBridgeCommand(app);
#endif
    app.footer("Exit status: 0 success, 1 node not found or change refused, 2 usage error.\n"
               "The tree is the one of namespace $KVRFRSVR_NAMESPACE (default: one per user).");

    try {
        CheckSubcommandName(app, argc, argv);
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0)
            return app.exit(e);  // --version and the like
        std::string strName = "kvrs";
        if (&Innermost(app) != &app)
            strName += " " + Innermost(app).get_name();
        return UsageFailure(e, strName);
    } catch (const KvrsError& e) {
        fflush(stdout);
        fprintf(stderr, "kvrs: %s\n", e.what());
        return e.Status();
    }
    fflush(stdout);
    return KVRS_EXIT_OK;
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
