// The policy message as a client writes and reads it.
#ifndef QORTEST_POLICYMESSAGE_H
#define QORTEST_POLICYMESSAGE_H

#include <string>

#include "RawPeer.h"

namespace qortest
{

/// The whole request envelope for a policy.
Bytes PolicyRequest(const std::string& policy);

/// The result code in a reply; -1 for a call that failed or was answered false.
int PolicyResult(const CallResult& reply);

} // namespace qortest

#endif
