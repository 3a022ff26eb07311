// The command line of qord.
#include "qord/Options.h"

#include <limits>

#include <CLI/CLI.hpp>

#include "common/CommandLine.h"

namespace qord
{

std::optional<TSOptions> ParseOptions(int count, char** pArguments, int& exitStatus)
{
    TSOptions options;
    CLI::App app(
        "Platform monitoring service: stores the policy, and tells applications of new ones.\n"
        "SIGUSR1 makes it ask every registered application for process information; "
        "SIGTERM and SIGINT stop it, a second one at once.",
        "qord");
    app.set_version_flag("--version", std::string("qord ") + QOR_VERSION);
    app.add_option("--policy", options.m_policyFile,
                   "The policy file; by default that of the platform")
        ->type_name("FILE")
        ->check(tools::NotEmpty("the name of a file"));
    app.add_option("--keep", options.m_storeRules.m_copies,
                   "Keep this many replaced policies beside the file")
        ->type_name("N")
        ->check(tools::Decimal(0, 1000))
        ->capture_default_str();
    app.add_option("--min-free", options.m_storeRules.m_minFreeMiB,
                   "Store no policy if less space than this is left")
        ->type_name("MIB")
        ->check(tools::Decimal(0, 1000000))
        ->capture_default_str();
    app.add_option("--max-policy-size", options.m_maxPolicySize,
                   "Refuse larger policies; the bus sets a limit of its own")
        ->type_name("BYTES")
        ->check(tools::Decimal(1, std::numeric_limits<std::size_t>::max()))
        ->capture_default_str();
    app.add_flag("--test-bus-names", options.m_testNames, "Use the bus names meant for tests");
    app.add_option("--allow-group", options.m_permission.m_groups,
                   "Let members of this group change the policy too")
        ->type_name("NAME")
        ->check(tools::NotEmpty("the name of a group"));
    app.add_flag("--allow-everyone", options.m_permission.m_everyone,
                 "Let everybody change the policy");
    app.add_flag("--restrict-reading", options.m_permission.m_restrictReading,
                 "Let only users read the policy who may change it");
    app.add_option("--event-timeout", options.m_eventTimeoutMs,
                   "How long an application may take to answer an event")
        ->type_name("MS")
        ->check(tools::Decimal(1, 600000))
        ->capture_default_str();
    app.add_option("--process-info-interval", options.m_processInfoSeconds,
                   "Ask for process information regularly")
        ->type_name("SECONDS")
        ->check(tools::Decimal(1, 1000000));
    app.add_flag("--verbose", options.m_verbose, "Print the library's log lines too");
    app.add_flag("--syslog", options.m_syslog,
                 "Write to the system's log, and not to standard output and standard error");
    app.get_option("--test-bus-names")->needs("--policy"); // the usual file is the real service's
    if (!tools::ParseCommandLine(app, count, pArguments, exitStatus))
    {
        return std::nullopt;
    }
    options.m_storeRules.m_isRestricted = options.m_permission.m_restrictReading;
    if (*QOR_ADMIN_GROUP != '\0')
    {
        options.m_permission.m_ownGroup = QOR_ADMIN_GROUP;
        options.m_permission.m_groups.insert(options.m_permission.m_groups.begin(),
                                             QOR_ADMIN_GROUP);
    }
    return options;
}

} // namespace qord
