// Answers the questions about the policy and the service.
#ifndef QORD_QUERIES_H
#define QORD_QUERIES_H

#include <cstdint>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include <qor/QORDbusServer.h>
#include <qor/Types.h>

#include "qord/Events.h"
#include "qord/Options.h"
#include "qord/PolicyHandler.h"

namespace qord
{

/// Belongs to the thread that iterates the main context.
class TCQueries
{
public:
    TCQueries(const TSOptions& options, TCPolicyHandler& handler, TCEvents& events);

    /// @return false for a request that is none
    bool GetPolicy(const qor::TByteArray& request, bool mayRead, qor::TByteArray& reply) const;

    /// Called while the request is handled. Who only asks is no client worth telling of.
    ///
    /// @param mayRead  else only what the service is and who may change the policy is told
    void GetStatus(qor::TCDbusServer& server, bool mayRead, qor::TByteArray& reply);

    /// One line for the service manager.
    std::string Summary(qor::TCDbusServer& server) const;

private:
    nlohmann::ordered_json m_ListClients(qor::TCDbusServer& server);

    const TSOptions& m_options;
    TCPolicyHandler& m_handler;
    TCEvents& m_events;
    std::int64_t m_upSince;
};

} // namespace qord

#endif
