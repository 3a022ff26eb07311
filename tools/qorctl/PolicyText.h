// Reads the policy that is to be sent.
#ifndef QORCTL_POLICYTEXT_H
#define QORCTL_POLICYTEXT_H

#include <string>

namespace qorctl
{

/// Reads a whole file, or standard input for "-".
///
/// @return false, with the reason in error, for a file that cannot be read or is empty
bool ReadPolicyText(const std::string& file, std::string& text, std::string& error);

} // namespace qorctl

#endif
