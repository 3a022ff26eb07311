// The command line of qorctl.
#ifndef QORCTL_OPTIONS_H
#define QORCTL_OPTIONS_H

#include <optional>
#include <string>

namespace qorctl
{

enum class ECommand
{
    SET_POLICY,
    LISTEN,
    STATUS,
    INFO
};

struct TSOptions
{
    ECommand m_command = ECommand::STATUS;
    bool m_testNames = false;
    bool m_quiet = false;
    bool m_verbose = false;
    std::string m_policyFile; ///< "-" is standard input.
    bool m_json = false;
    unsigned int m_eventCount = 0; ///< 0: listen until a signal.
    std::string m_eventCommand;    ///< Empty: none.
};

/// Reads the command line. Empty where the process has nothing left to do but to end with
/// exitStatus: help or version has been printed, or what is wrong.
std::optional<TSOptions> ParseOptions(int count, char** pArguments, int& exitStatus);

} // namespace qorctl

#endif
