// The sub-commands; each returns the process's exit status.
#ifndef QORCTL_COMMANDS_H
#define QORCTL_COMMANDS_H

#include <string>

#include "qorctl/Options.h"

namespace qorctl
{

int SetPolicy(const TSOptions& options);
int GetPolicy(const TSOptions& options);
int Restore(const TSOptions& options);
int History(const TSOptions& options);
int Validate(const TSOptions& options);
int Listen(const TSOptions& options);
int Status(const TSOptions& options);
int Clients(const TSOptions& options);
int Info(const TSOptions& options);

/// Hands the service a policy and puts the outcome into words.
///
/// @param what  the policy's name in them
int SendPolicy(const TSOptions& options, const std::string& text, const std::string& what);

/// Gets a policy, and says on standard error where that fails.
///
/// @return the exit status; EXIT_OK with the text in policy
int FetchPolicy(const TSOptions& options, std::string& policy);

/// Says on standard error where the text is not well-formed.
bool IsWellFormed(const std::string& file, const std::string& text);

} // namespace qorctl

#endif
