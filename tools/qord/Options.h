// The command line of qord.
#ifndef QORD_OPTIONS_H
#define QORD_OPTIONS_H

#include <cstddef>
#include <optional>
#include <string>

#include "common/PolicyXml.h"
#include "qord/Permission.h"
#include "qord/PolicyStore.h"

namespace qord
{

struct TSOptions
{
    std::string m_policyFile; ///< Empty: the platform's policy file.
    std::size_t m_maxPolicySize = tools::MAX_POLICY_SIZE;
    TSStoreRules m_storeRules = {5, 0, false};
    TSPermissionRules m_permission;
    bool m_testNames = false;
    int m_eventTimeoutMs = 2000;
    unsigned int m_processInfoSeconds = 0; ///< 0: only when asked for.
    bool m_verbose = false;
    bool m_syslog = false;
};

/// Reads the command line. Empty if the process only has to end with exitStatus, because help,
/// version or an error has been printed.
std::optional<TSOptions> ParseOptions(int count, char** pArguments, int& exitStatus);

} // namespace qord

#endif
