// Requests to the service, and why one brought no answer.
#ifndef QORCTL_SERVICECALL_H
#define QORCTL_SERVICECALL_H

#include <chrono>
#include <string>

#include <boost/shared_ptr.hpp>

#include <qor/IDbusClient.h>

#include "qorctl/Json.h"
#include "qorctl/Options.h"
#include "qorctl/TimeLimit.h"

namespace qorctl
{

/// The endpoint of the process, with the names that the command line asks for: who gets it first
/// decides on them, so everybody gets it here.
boost::shared_ptr<qor::IDbusClient> Endpoint(const TSOptions& options);

/// Whether the answer said yes; otherwise why not, in words.
bool IsGood(const qor::TSSendResult& result);
std::string WhyNot(const qor::TSSendResult& result);

/// What the service tells about itself: an object; or null where no answer came, or one that cannot
/// be read, which is good all the same. Starts no service.
TJson AskStatus(const TSOptions& options, qor::TSSendResult& result,
                std::chrono::milliseconds atMost = USUAL_WAIT);

} // namespace qorctl

#endif
