// Waits until the applications have heard of a policy.
#ifndef QORCTL_HEARING_H
#define QORCTL_HEARING_H

#include "qorctl/Json.h"
#include "qorctl/Options.h"

namespace qorctl
{

/// Waits for as long as the options say, and says how many have heard of the policy, and who has
/// not.
///
/// @param told  what is printed of the policy, with its "sha256"; gets who has heard
/// @return the exit status
int WaitUntilHeard(const TSOptions& options, TJson& told);

} // namespace qorctl

#endif
