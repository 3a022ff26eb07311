// The command line of qorctl.
#include "qorctl/Options.h"

#include <CLI/CLI.hpp>

#include "common/CommandLine.h"

namespace qorctl
{
namespace
{

void AddCommonOptions(CLI::App& app, TSOptions& options)
{
    app.set_version_flag("--version", std::string("qorctl ") + QOR_VERSION);
    app.add_flag("--test-bus-names", options.m_testNames, "Use the bus names meant for tests");
    CLI::Option* pQuiet = app.add_flag("--quiet", options.m_quiet, "Print errors and events only");
    app.add_flag("--verbose", options.m_verbose, "Print the library's log lines too")
        ->excludes(pQuiet);
}

void AddSetPolicy(CLI::App& app, TSOptions& options)
{
    CLI::App* pCommand = app.add_subcommand("set-policy", "Hand the service a new policy");
    pCommand->add_option("FILE", options.m_policyFile, "The policy; - reads standard input")
        ->required();
    pCommand->footer("Exit status: 0 stored, 1 refused by the service, 2 not delivered, "
                     "3 an answer that cannot be read, 64 wrong usage or input.");
    pCommand->callback([&options] { options.m_command = ECommand::SET_POLICY; });
}

void AddListen(CLI::App& app, TSOptions& options)
{
    CLI::App* pCommand = app.add_subcommand("listen", "Print the service's events as they come");
    pCommand->add_flag("--json", options.m_json, "One JSON object a line");
    pCommand->add_option("--count", options.m_eventCount, "Leave after so many events")
        ->type_name("N")
        ->check(CLI::Range(1, 1000000000));
    pCommand
        ->add_option("--exec", options.m_eventCommand,
                     "Run a command on each event, with the event's name in QOR_EVENT; "
                     "quoted like in a shell, but run without one")
        ->type_name("COMMAND");
    pCommand->footer("Ends with status 0 on SIGINT, SIGTERM or after N events; "
                     "2 when the bus is out of reach or goes away.");
    pCommand->callback([&options] { options.m_command = ECommand::LISTEN; });
}

void AddStatus(CLI::App& app, TSOptions& options)
{
    CLI::App* pCommand = app.add_subcommand("status", "Say whether the service is on the bus");
    pCommand->footer("Exit status: 0 it is, 2 it is not.");
    pCommand->callback([&options] { options.m_command = ECommand::STATUS; });
}

void AddInfo(CLI::App& app, TSOptions& options)
{
    CLI::App* pCommand = app.add_subcommand(
        "info", "Print where the platform has its policy, and what platform this is");
    pCommand->footer("Needs no service and no bus. Exit status: 0.");
    pCommand->callback([&options] { options.m_command = ECommand::INFO; });
}

} // namespace

std::optional<TSOptions> ParseOptions(int count, char** pArguments, int& exitStatus)
{
    TSOptions options;
    CLI::App app("Talks to the platform monitoring service.", "qorctl");
    app.require_subcommand(1);
    app.fallthrough();
    AddCommonOptions(app, options);
    AddSetPolicy(app, options);
    AddListen(app, options);
    AddStatus(app, options);
    AddInfo(app, options);
    if (!tools::ParseCommandLine(app, count, pArguments, exitStatus))
    {
        return std::nullopt;
    }
    return options;
}

} // namespace qorctl
