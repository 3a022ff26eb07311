// Sends events, and reports their outcomes.
#include "qord/Events.h"

#include <ctime>
#include <exception>
#include <memory>
#include <utility>

#include <qor/ICallbacks.h>

#include "common/Events.h"
#include "qord/Report.h"

namespace qord
{
namespace
{

constexpr std::size_t MAX_LINES = 8;
constexpr std::size_t MAX_MISSED = 64;

std::string Words(const qor::TSDelivery& delivery)
{
    switch (delivery.m_outcome)
    {
    case qor::EDelivery::DELIVERED:
        return "answered";
    case qor::EDelivery::ANSWERED_FALSE:
        return "answered false";
    case qor::EDelivery::TIMED_OUT:
        return "no answer in time";
    case qor::EDelivery::SUSPENDED:
        return "suspended";
    case qor::EDelivery::LEFT:
        return "left";
    case qor::EDelivery::FAILED:
        return "error " + std::to_string(delivery.m_code);
    case qor::EDelivery::UNCONFIRMED:
        return "not confirmed";
    case qor::EDelivery::WAITING_FOR_REPLY:
        return "waiting for a reply";
    case qor::EDelivery::CANCELLED:
        return "cancelled";
    }
    return "unknown";
}

TSEventResult Sum(const std::vector<qor::TSDelivery>& deliveries, const TApplications& applications)
{
    TSEventResult result;
    result.m_time = std::time(nullptr);
    for (const qor::TSDelivery& delivery : deliveries)
    {
        if (delivery.m_outcome == qor::EDelivery::DELIVERED)
        {
            ++result.m_delivered;
            continue;
        }
        ++result.m_failed;
        if (result.m_missed.size() < MAX_MISSED)
        {
            const auto found = applications.find(delivery.m_name);
            result.m_missed.push_back(
                {delivery.m_name,
                 found == applications.end() ? TSSender() : found->second->m_sender,
                 Words(delivery)});
        }
    }
    return result;
}

// An earlier event may end after this one.
void Hears(TSApplication& application, std::uint64_t event, std::int64_t time,
           const std::string& policy)
{
    application.m_heardAt = time;
    if (event > application.m_event)
    {
        application.m_event = event;
        application.m_heard = policy;
    }
}

void Say(const TSEventResult& result, bool isAgain)
{
    const std::string name = tools::EventName(result.m_type);
    const std::string event = "event " + name + (isAgain ? " again: " : ": ");
    const std::string delivered = std::to_string(result.m_delivered);
    const std::string failed = std::to_string(result.m_failed);
    ReportWithFields(false,
                     {"QOR_EVENT=" + name, "QOR_DELIVERED=" + delivered, "QOR_FAILED=" + failed},
                     event + delivered + " delivered, " + failed + " failed");
    for (std::size_t i = 0; i < result.m_missed.size() && i < MAX_LINES; ++i)
    {
        const TSMissed& missed = result.m_missed[i];
        const std::string process = std::to_string(missed.m_sender.m_processId);
        const std::string& program = missed.m_sender.m_program;
        std::string line = event + "not heard by process ";
        line += process;
        line += " (" + program + "), ";
        line += missed.m_name + ": " + missed.m_outcome;
        ReportWithFields(true,
                         {"QOR_EVENT=" + name, "QOR_OUTCOME=" + missed.m_outcome,
                          "QOR_CLIENT=" + missed.m_name, "QOR_CLIENT_PID=" + process,
                          "QOR_CLIENT_PROGRAM=" + program},
                         line);
    }
    if (result.m_failed > MAX_LINES)
    {
        ReportError("%sand %zu more", event.c_str(), result.m_failed - MAX_LINES);
    }
}

} // namespace

TCEvents::TCEvents(const TCPolicyStore& store, int timeoutMs, std::function<void()> onEnd)
    : m_store(store), m_timeoutMs(timeoutMs), m_onEnd(std::move(onEnd))
{
}

void TCEvents::Send(qor::TCDbusServer& server, int type)
{
    const TDone onDone = m_NewEvent(server, type, false);
    if (type == qor::ICallbacks::POLICY_UPDATE)
    {
        m_announced = m_sent;
    }
    server.SendEvent(type, {}, m_timeoutMs, onDone);
}

TCEvents::TDone TCEvents::m_NewEvent(qor::TCDbusServer& server, int type, bool isAgain)
{
    const auto sent = std::make_shared<const TSSent>(
        TSSent{type, ++m_sent, Applications(server), MarkOfPolicyInForce(m_store), isAgain});
    return [this, sent](const std::vector<qor::TSDelivery>& deliveries)
    { m_HasEnded(*sent, deliveries); };
}

// Runs inside the bus library, which takes no exception.
void TCEvents::Resumed(qor::TCDbusServer& server, const std::string& client, int type) noexcept
try
{
    const auto found = m_applications.find(client);
    if (type != qor::ICallbacks::POLICY_UPDATE || found == m_applications.end() ||
        found->second->m_again == m_announced ||
        found->second->m_heard == MarkOfPolicyInForce(m_store))
    {
        return;
    }
    found->second->m_again = m_announced;
    server.SendEventTo({client}, type, {}, m_timeoutMs, m_NewEvent(server, type, true));
}
catch (const std::exception& exception)
{
    ReportError("event %s: %s", tools::EventName(type), exception.what());
}

// Runs inside the bus library, which takes no exception. One that was sent later may have ended
// before.
void TCEvents::m_HasEnded(const TSSent& sent,
                          const std::vector<qor::TSDelivery>& deliveries) noexcept
try
{
    TSEventResult result = Sum(deliveries, sent.m_applications);
    result.m_type = sent.m_type;
    result.m_number = sent.m_number;
    for (const qor::TSDelivery& delivery : deliveries)
    {
        const auto found = sent.m_applications.find(delivery.m_name);
        if (sent.m_type == qor::ICallbacks::POLICY_UPDATE && found != sent.m_applications.end() &&
            delivery.m_outcome == qor::EDelivery::DELIVERED)
        {
            Hears(*found->second, sent.m_number, result.m_time, sent.m_policy);
        }
    }
    Say(result, sent.m_isAgain);
    m_delivered += result.m_delivered;
    m_failed += result.m_failed;
    if (!sent.m_isAgain && result.m_number > m_last.m_number)
    {
        m_last = std::move(result);
    }
    m_onEnd();
}
catch (const std::exception& exception)
{
    ReportError("event %s: %s", tools::EventName(sent.m_type), exception.what());
}

} // namespace qord
