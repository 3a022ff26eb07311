// The sub-commands; each returns the process's exit status.
#ifndef QORCTL_COMMANDS_H
#define QORCTL_COMMANDS_H

#include <cstdint>
#include <string>

#include <qor/IDbusClient.h>

#include "qorctl/Options.h"

namespace qorctl
{

int SetPolicy(const TSOptions& options);
int GetPolicy(const TSOptions& options);
int Diff(const TSOptions& options);
int Restore(const TSOptions& options);
int History(const TSOptions& options);
int Validate(const TSOptions& options);
int Listen(const TSOptions& options);
int Status(const TSOptions& options);
int Clients(const TSOptions& options);
int Info(const TSOptions& options);

/// "policy 3"
std::string PolicyName(std::uint64_t number);

/// Why the service does not give a policy away, for one of its errors; empty for any other.
std::string ReadRefusal(const std::string& errorName, std::uint64_t number);

/// Gets the policy of that number; says why not.
///
/// @return the exit status, EXIT_OK with the text
int FetchPolicy(const TSOptions& options, std::uint64_t number, std::string& policy);

/// Says why the service has not given one away, and returns the exit status.
int SayNotRead(const qor::TSSendResult& result, const std::string& errorName, std::uint64_t number);

/// Reports the place where the text is not well-formed, with --json also as JSON.
bool IsWellFormed(const TSOptions& options, const std::string& text);

} // namespace qorctl

#endif
