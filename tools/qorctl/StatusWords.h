// Puts parts of what the service tells about itself into words.
#ifndef QORCTL_STATUSWORDS_H
#define QORCTL_STATUSWORDS_H

#include <string>

#include "qorctl/Json.h"

namespace qorctl
{

/// "root, qord, members of the group qor"; empty where the status does not say.
std::string MayChange(const TJson& status);

/// "root (qorctl, process 812)"; "unknown" for null.
std::string Setter(const TJson& policy);

/// "policy-update, process-info": of a client.
std::string EventNames(const TJson& client);

} // namespace qorctl

#endif
