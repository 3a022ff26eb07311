// Puts the service's facts about itself into words.
#ifndef QORCTL_STATUSWORDS_H
#define QORCTL_STATUSWORDS_H

#include <string>

#include "qorctl/Json.h"

namespace qorctl
{

/// "root, qord, members of the group qor"; empty if the status does not say.
std::string MayChange(const TJson& status);

/// "root (qorctl, process 812)"; "unknown" for null.
std::string Setter(const TJson& policy);

/// "policy-update, process-info": of a client.
std::string EventNames(const TJson& client);

/// Whether it has heard of the one in force, and when: "2026-11-24T20:56:52+00:00", "yes", "no",
/// "unknown"; "-" for one that does not want to.
std::string Heard(const TJson& client);

/// "agent (process 812, :1.7)", and with a remark that is not empty "agent (process 812, :1.7,
/// timed out)".
std::string Client(const TJson& client, const std::string& remark = "");

} // namespace qorctl

#endif
