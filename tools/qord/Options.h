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
    std::string m_policyFile; ///< Empty: where the platform has its policy.
    std::size_t m_maxPolicySize = tools::MAX_POLICY_SIZE;
    TSStoreRules m_storeRules = {5, 0, false};
    TSPermissionRules m_permission;
    bool m_testNames = false;
    int m_eventTimeoutMs = 2000;
    unsigned int m_processInfoSeconds = 0; ///< 0: only when asked for.
    bool m_verbose = false;
};

/// Reads the command line. Empty where the process has nothing left to do but to end with
/// exitStatus: help or version has been printed, or what is wrong.
std::optional<TSOptions> ParseOptions(int count, char** pArguments, int& exitStatus);

} // namespace qord

#endif
