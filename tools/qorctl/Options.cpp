// The command line of qorctl.
#include "qorctl/Options.h"

#include <limits>

#include <CLI/CLI.hpp>

#include "common/CommandLine.h"
#include "qorctl/Commands.h"

namespace qorctl
{
namespace
{

using TCommand = int (*)(const TSOptions&);

constexpr int MAX_TIMEOUT = 86400;
constexpr int MAX_WAIT = 3600;
constexpr std::uint64_t MAX_NUMBER = std::numeric_limits<std::uint64_t>::max();
constexpr std::size_t HASH_LENGTH = 64;

void AddCommonOptions(CLI::App& app, TSOptions& options)
{
    app.set_version_flag("--version", std::string("qorctl ") + QOR_VERSION);
    app.add_flag("--test-bus-names", options.m_testNames, "Use the bus names meant for tests");
    CLI::Option* pQuiet = app.add_flag("--quiet", options.m_quiet, "Print errors and events only");
    CLI::Option* pVerbose =
        app.add_flag("--verbose", options.m_verbose, "Print the library's log lines too")
            ->excludes(pQuiet);
    app.add_flag("--json", options.m_json, "Print the result as JSON")->excludes(pVerbose);
    app.add_option("--timeout", options.m_timeoutSeconds,
                   "End after this time; without it, wait 10 seconds for an answer")
        ->type_name("SECONDS")
        ->check(tools::Decimal(1, MAX_TIMEOUT));
}

CLI::App* AddCommand(CLI::App& app, TSOptions& options, const std::string& name, TCommand command,
                     const std::string& description, const std::string& footer)
{
    CLI::App* pCommand = app.add_subcommand(name, description);
    pCommand->footer(footer);
    pCommand->callback([&options, command] { options.m_command = command; });
    return pCommand;
}

constexpr const char* WAIT = "--wait";

// Bound to no variable, because releases of CLI11 write different values there for a command that
// was not given.
void AddWait(CLI::App& command)
{
    command
        .add_flag(std::string(WAIT) + "{10}",
                  "Wait until all applications have heard of it, at most this many seconds")
        ->check(tools::Decimal(1, MAX_WAIT));
}

// So a user does not overwrite a policy that another user has set after the first one read it.
void AddIfMatch(CLI::App& command, TSOptions& options)
{
    command
        .add_option_function<std::string>(
            "--if-match",
            [&options](const std::string& hash) { options.m_ifMatch = hash == "none" ? "" : hash; },
            "Set it only if the policy in force has this SHA-256; none: if there is no policy")
        ->type_name("SHA256")
        ->check(
            [](const std::string& hash)
            {
                const bool isHash = hash.size() == HASH_LENGTH &&
                                    hash.find_first_not_of("0123456789abcdef") == std::string::npos;
                return isHash || hash == "none"
                           ? std::string()
                           : std::string("a SHA-256 is ") + std::to_string(HASH_LENGTH) +
                                 " digits of lower-case hexadecimal, as qorctl status prints it";
            });
}

void ReadWait(const CLI::App& app, TSOptions& options)
{
    for (const CLI::App* pCommand : app.get_subcommands())
    {
        const CLI::Option* pWait = pCommand->get_option_no_throw(WAIT);
        if (pWait != nullptr && pWait->count() != 0)
        {
            options.m_waitSeconds = pWait->as<unsigned int>();
        }
    }
}

void AddPolicyCommands(CLI::App& app, TSOptions& options)
{
    const char* statuses = "Exit status: 0 stored, 1 refused, 2 not delivered, 3 an answer that "
                           "cannot be read, 4 not all have heard of it, 64 wrong usage or input.";
    CLI::App* pSet = AddCommand(app, options, "set-policy", SetPolicy,
                                "Hand the service a new policy", statuses);
    pSet->add_option("FILE", options.m_policyFile, "The policy; - reads standard input")
        ->required();
    pSet->add_flag_callback(
        "--no-check", [&options] { options.m_isChecked = false; },
        "Send the policy without checking it");
    AddWait(*pSet);
    AddIfMatch(*pSet, options);

    CLI::App* pGet = AddCommand(app, options, "get-policy", GetPolicy,
                                "Write the policy in force, or a kept one",
                                "Exit status: 0 written, 1 there is none or the service refused, "
                                "2 no answer, 3 an answer that cannot be read.");
    pGet->add_option("NUMBER", options.m_number,
                     "Of a kept policy, as history prints it; 0: the one in force")
        ->check(tools::Decimal(0, MAX_NUMBER));
    pGet->add_option("--output", options.m_outputFile, "Write to a file instead")
        ->type_name("FILE")
        ->check(tools::NotEmpty("the name of a file"));

    AddCommand(app, options, "history", History, "List the policies that the service keeps",
               "Exit status: 0 listed, 1 refused, 2 no answer, 3 an answer that cannot be read.");
    CLI::App* pDiff = AddCommand(
        app, options, "diff", Diff, "Show the differences between two policies",
        "Without a number: the latest kept one and the one in force; with one: that one and the "
        "one in force. Exit status: 0 the same, 1 different, 2 no answer, a refusal, or no such "
        "policy, 3 an answer that cannot be read.");
    for (const char* name : {"NUMBER", "OTHER"})
    {
        pDiff
            ->add_option_function<std::uint64_t>(
                name, [&options](std::uint64_t number) { options.m_numbers.push_back(number); },
                "Of a kept policy; 0: the one in force")
            ->check(tools::Decimal(0, MAX_NUMBER));
    }
    CLI::App* pRestore =
        AddCommand(app, options, "restore", Restore, "Put a kept policy in force again", statuses);
    pRestore->add_option("NUMBER", options.m_number, "Of a kept policy, as history prints it")
        ->required()
        ->check(tools::Decimal(1, MAX_NUMBER));
    AddWait(*pRestore);
    AddIfMatch(*pRestore, options);

    CLI::App* pValidate =
        AddCommand(app, options, "validate", Validate, "Check a policy as the service would",
                   "Needs no service and no bus. Exit status: 0 it is well-formed, "
                   "1 it is not, 64 wrong usage or input.");
    pValidate->add_option("FILE", options.m_policyFile, "The policy; - reads standard input")
        ->required();
}

void AddListen(CLI::App& app, TSOptions& options)
{
    CLI::App* pCommand =
        AddCommand(app, options, "listen", Listen, "Print the service's events as they arrive",
                   "Ends with status 0 on SIGINT, SIGTERM or after N events; 2 when the bus is out "
                   "of reach at the start, and when fewer than N events came in time.");
    pCommand->add_option("--count", options.m_eventCount, "Exit after this many events")
        ->type_name("N")
        ->check(tools::Decimal(1, 1000000000));
    pCommand
        ->add_option("--exec", options.m_eventCommand,
                     "Run a command on each event, with the event's name in QOR_EVENT; "
                     "quoted like in a shell, but run without one")
        ->type_name("COMMAND")
        ->check(tools::NotEmpty("the command"));
}

void AddQuestions(CLI::App& app, TSOptions& options)
{
    CLI::App* pStatus = AddCommand(
        app, options, "status", Status, "Show the state of the service",
        "Exit status: 0 it answers, with --check: it is healthy, 1 with --check: it is not, "
        "2 it is not on the bus or does not answer, 3 an answer that cannot be read.");
    pStatus->add_flag("--check", options.m_isHealthCheck,
                      "Print only what is wrong, one line for each problem");
    AddCommand(app, options, "clients", Clients,
               "List the applications that are registered for events",
               "Exit status: 0 listed, 1 refused, 2 no answer, 3 an answer that cannot be read.");
    AddCommand(app, options, "info", Info,
               "Print the path of the policy, and facts about the platform",
               "Needs neither the service nor the bus. Exit status: 0.");
}

} // namespace

std::optional<TSOptions> ParseOptions(int count, char** pArguments, int& exitStatus)
{
    TSOptions options;
    CLI::App app("Talks to the platform monitoring service.", "qorctl");
    app.require_subcommand(1);
    app.fallthrough();
    AddCommonOptions(app, options);
    AddPolicyCommands(app, options);
    AddListen(app, options);
    AddQuestions(app, options);
    if (!tools::ParseCommandLine(app, count, pArguments, exitStatus))
    {
        return std::nullopt;
    }
    ReadWait(app, options);
    return options;
}

} // namespace qorctl
