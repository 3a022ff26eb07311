// Reads the policy to send, and shows the place of a fault in it.
#ifndef QORCTL_POLICYTEXT_H
#define QORCTL_POLICYTEXT_H

#include <string>

#include "common/PolicyXml.h"

namespace qorctl
{

/// The file's name for messages.
std::string PolicyName(const std::string& file);

/// Reads a whole file, or standard input for "-"; no more than fits into one bus message.
///
/// @return false, with the reason in error, for a file that cannot be read, is empty or too large
bool ReadPolicyText(const std::string& file, std::string& text, std::string& error);

/// The line with the place, or the part of a long line around it, and a line with a mark under it.
std::string ShowPlace(const std::string& text, const tools::TSXmlPlace& place);

} // namespace qorctl

#endif
