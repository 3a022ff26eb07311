// The messages that qorctl prints besides its results.
#ifndef QORCTL_MESSAGE_H
#define QORCTL_MESSAGE_H

#include <string>

namespace qorctl
{

/// One line on standard error.
void SayError(const std::string& message);

/// One line on standard output; nothing when quiet.
void Say(bool quiet, const std::string& message);

} // namespace qorctl

#endif
