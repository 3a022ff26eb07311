// Sends events, and reports their outcomes.
#ifndef QORD_EVENTS_H
#define QORD_EVENTS_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <qor/IDbusService.h>
#include <qor/QORDbusServer.h>

#include "qord/Applications.h"

namespace qord
{

/// An application that has not heard an event.
struct TSMissed
{
    std::string m_name;
    TSSender m_sender; ///< Without a user name; empty if the bus has not told.
    std::string m_outcome;
};

/// The outcome of an event.
struct TSEventResult
{
    int m_type = 0;
    std::uint64_t m_number = 0; ///< Of the order in which they were sent, from 1; 0: there is none.
    std::int64_t m_time = 0;    ///< Of its end.
    std::size_t m_delivered = 0;
    std::size_t m_failed = 0;
    std::vector<TSMissed> m_missed; ///< So many of the failures as are told.
};

/// Belongs to the thread that iterates the main context.
class TCEvents
{
public:
    /// @param onEnd  called when an event has ended and is in Last
    TCEvents(const TCPolicyStore& store, int timeoutMs, std::function<void()> onEnd);

    /// Does not wait for the applications. The server must be destroyed before this object.
    void Send(qor::TCDbusServer& server, int type);

    /// An application that was busy for too long has answered: it is told alone if it has not heard
    /// of the policy in force. Once for each event: one that is always slow is not told for ever.
    void Resumed(qor::TCDbusServer& server, const std::string& client, int type) noexcept;

    /// Of the events for all that have ended, the one that was sent last.
    const TSEventResult& Last() const
    {
        return m_last;
    }

    /// Of all events since the start.
    std::uint64_t NumberOfDelivered() const
    {
        return m_delivered;
    }
    std::uint64_t NumberOfFailed() const
    {
        return m_failed;
    }

    const TApplications& Applications(qor::TCDbusServer& server)
    {
        m_applications = Look(server, m_applications);
        return m_applications;
    }

    /// As they were at the last look; there was one for each event.
    const TApplications& Known() const
    {
        return m_applications;
    }

private:
    struct TSSent
    {
        int m_type;
        std::uint64_t m_number;
        TApplications m_applications; ///< As they were then; one may be gone at the event's end.
        std::string m_policy;         ///< The mark of the one that was in force.
        bool m_isAgain;               ///< For one application that has missed it.
    };
    using TDone = qor::IDbusService::TEventDone;

    TDone m_NewEvent(qor::TCDbusServer& server, int type, bool isAgain);
    void m_HasEnded(const TSSent& sent, const std::vector<qor::TSDelivery>& deliveries) noexcept;

    const TCPolicyStore& m_store;
    int m_timeoutMs;
    std::function<void()> m_onEnd;
    TApplications m_applications;
    std::uint64_t m_sent = 0;
    std::uint64_t m_announced = 0; ///< The number of the latest one about a policy, for all.
    TSEventResult m_last;
    std::uint64_t m_delivered = 0;
    std::uint64_t m_failed = 0;
};

} // namespace qord

#endif
