// Reads the service's facts about itself, the policy and the applications.
#ifndef QORCTL_SERVICEFACTS_H
#define QORCTL_SERVICEFACTS_H

#include <chrono>

#include <glib.h>

#include <qor/IDbusClient.h>

#include "qorctl/Json.h"
#include "qorctl/Options.h"
#include "qorctl/TimeLimit.h"

namespace qorctl
{

/// Any value, as one for programs: members are named with underscores.
TJson ToJson(GVariant* pValue);

/// The properties of the service's interface as an object. Null if no answer came, or if it cannot
/// be read; in that case the result still says that the service has answered. Starts no service.
TJson AskProperties(const TSOptions& options, qor::TSMethodResult& result,
                    std::chrono::milliseconds atMost = USUAL_WAIT);

/// All that it tells this user, in the order and words of the status; else as above.
TJson AskStatus(const TSOptions& options, qor::TSMethodResult& result);

} // namespace qorctl

#endif
