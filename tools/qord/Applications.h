// The applications on the bus, and the last event that each has heard.
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

/// A text that identifies the file of the policy in force; empty if there is no policy. If the same
/// policy is set again, the file stays the same.
std::string MarkOfPolicyInForce(const TCPolicyStore& store);

struct TSApplication
{
    TSSender m_sender;
    bool m_isKnown = false;     ///< The bus has told its user and process.
    std::int64_t m_heardAt = 0; ///< When it last answered an event about a policy; 0: never.
    std::uint64_t m_event = 0;  ///< The number of the latest event that it has answered so.
    std::string m_heard;        ///< The mark of that policy.
    std::uint64_t m_again = 0;  ///< The number of the latest event that it was told of once more.
};

/// Whether the client wants to hear of new policies.
bool IsListening(qor::TCDbusServer& server, const std::string& client);

/// By their unique names, which are never given again.
using TApplications = std::map<std::string, std::shared_ptr<TSApplication>>;

/// The present clients. The server has asked the bus about them when they registered; if the bus is
/// slow to answer, this waits two seconds at most.
///
/// @param before  the result of an earlier call
TApplications Look(qor::TCDbusServer& server, const TApplications& before);

} // namespace qord

#endif
