// Requests to the service, and why one brought no answer.
#ifndef QORCTL_SERVICECALL_H
#define QORCTL_SERVICECALL_H

#include <chrono>
#include <optional>
#include <string>

#include <qor/Types.h>

#include "common/SystemBus.h"
#include "qorctl/Json.h"
#include "qorctl/Options.h"

namespace qorctl
{

/// How long a command waits for one answer.
std::chrono::milliseconds WaitLimit(const TSOptions& options);

/// The library waits for so long.
constexpr std::chrono::seconds LIBRARY_LIMIT(10);

/// Puts into words why a request that took that long was not answered with success: looks at the
/// bus, and asks the service something harmless.
std::string WhyNotAnswered(const TSOptions& options, std::chrono::milliseconds took);

/// Sends a request of qord's own.
///
/// @return nothing, with the reason in error, where there is no good answer
std::optional<qor::TByteArray> AskService(const TSOptions& options, int type,
                                          const qor::TByteArray& request, std::string& error);

/// Whether the service is there, asked of the bus: that starts no service.
tools::TSServiceStatus FindService(const TSOptions& options);

/// What the service tells about itself: an object, or with the reason in error null for an answer
/// that cannot be read, and nothing where none came. A service that is not running may be started.
std::optional<TJson> AskStatus(const TSOptions& options, std::string& error);

} // namespace qorctl

#endif
