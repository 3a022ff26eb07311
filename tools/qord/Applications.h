// The applications on the bus, and what they have heard of.
#ifndef QORD_APPLICATIONS_H
#define QORD_APPLICATIONS_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include <qor/IDbusService.h>
#include <qor/QORDbusServer.h>

#include "qord/PolicyStore.h"
#include "qord/Sender.h"

namespace qord
{

/// The file of the policy in force, as a text that no other policy's has; empty where there is
/// none. The same policy, set again, stays the same file.
std::string MarkOfPolicyInForce(const TCPolicyStore& store);

struct TSApplication
{
    TSSender m_sender;
    bool m_isKnown = false;     ///< Whether the bus has told who it is.
    std::int64_t m_heardAt = 0; ///< When it last answered an event about a policy; 0: never.
    std::uint64_t m_event = 0;  ///< The number of the latest event that it has answered so.
    std::string m_heard;        ///< The mark of that policy.
    std::uint64_t m_again = 0;  ///< The number of the latest event that it was told of once more.
};

/// Whether the client wants to hear of new policies.
bool IsListening(qor::TCDbusServer& server, const std::string& client);

/// By their unique names, which are never given again.
using TApplications = std::map<std::string, std::shared_ptr<TSApplication>>;

/// Those that are clients now. The bus was asked who they are when they came; where it is slow to
/// answer, this waits two seconds at most.
///
/// @param before  from an earlier look
TApplications Look(qor::TCDbusServer& server, const TApplications& before);

} // namespace qord

#endif
