// Answers the questions about the policy and the service.
#ifndef QORD_QUERIES_H
#define QORD_QUERIES_H

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include <qor/GlibTypes.h>
#include <qor/QORDbusServer.h>
#include <qor/Types.h>

#include "qord/Options.h"
#include "qord/PolicyHandler.h"

namespace qord
{

/// What came of an event.
struct TSDelivery
{
    std::string m_event; ///< Empty when there was none yet.
    std::int64_t m_time = 0;
    std::size_t m_delivered = 0;
    std::size_t m_failed = 0;
};

/// All but Delivered belongs to the thread that iterates the main context.
class TCQueries
{
public:
    TCQueries(const TSOptions& options, TCPolicyHandler& handler, TCSenders& senders);

    /// Remembers the last event. Any thread.
    void Delivered(const TSDelivery& delivery);

    /// @return false for a request that is none
    bool GetPolicy(const qor::TByteArray& request, bool mayRead, qor::TByteArray& reply) const;

    /// Called while the request is handled. Who only asks is no client worth telling of.
    ///
    /// @param mayRead  else only what the service is and who may change the policy is told
    void GetStatus(GDBusConnection* pConnection, qor::TCDbusServer& server, bool mayRead,
                   qor::TByteArray& reply);

    /// One line for the service manager.
    std::string Summary(qor::TCDbusServer& server) const;

private:
    nlohmann::ordered_json m_ListClients(GDBusConnection* pConnection, qor::TCDbusServer& server);
    const TSSender* m_FindClient(GDBusConnection* pConnection, const std::string& name);

    const TSOptions& m_options;
    TCPolicyHandler& m_handler;
    TCSenders& m_senders;
    std::int64_t m_upSince;
    std::map<std::string, TSSender> m_clients; ///< Known ones; their names are never given again.
    mutable std::mutex m_mutex;
    TSDelivery m_lastDelivery;
};

} // namespace qord

#endif
