// The command line of qorctl.
#ifndef QORCTL_OPTIONS_H
#define QORCTL_OPTIONS_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace qorctl
{

struct TSOptions
{
    std::function<int(const TSOptions&)> m_command; ///< Returns the process's exit status.
    bool m_testNames = false;
    bool m_quiet = false;
    bool m_verbose = false;
    bool m_json = false;
    unsigned int m_timeoutSeconds = 0; ///< 0: as long as the library waits.
    std::string m_policyFile;          ///< "-" is standard input.
    bool m_isChecked = true;           ///< The policy, before it is sent.
    unsigned int m_waitSeconds = 0;    ///< Until all have heard of it; 0: not.
    std::optional<std::string>
        m_ifMatch;              ///< The hash that the policy in force must have; empty: none.
    std::uint64_t m_number = 0; ///< Of a kept policy; 0: the one in force.
    std::vector<std::uint64_t> m_numbers; ///< Of those to compare, two at most.
    bool m_isHealthCheck = false;         ///< The status is asked for its problems.
    std::string m_outputFile;             ///< Empty: standard output.
    unsigned int m_eventCount = 0;        ///< 0: listen until a signal.
    std::string m_eventCommand;           ///< Empty: none.
};

/// Reads the command line. Empty if the process only has to end with exitStatus, because help,
/// version or an error has been printed.
std::optional<TSOptions> ParseOptions(int count, char** pArguments, int& exitStatus);

} // namespace qorctl

#endif
