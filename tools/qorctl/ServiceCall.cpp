// Requests to the service, and why one brought no answer.
#include "qorctl/ServiceCall.h"

#include <unistd.h>

#include <gio/gio.h>

#include <qor/QORDbusClient.h>

#include "common/ServiceMessage.h"
#include "common/Text.h"

namespace qorctl
{
namespace
{

std::string WhyNobody(const qor::TSSendResult& result)
{
    const bool isUnknown = result.m_code == G_DBUS_ERROR_SERVICE_UNKNOWN ||
                           result.m_code == G_DBUS_ERROR_NAME_HAS_NO_OWNER;
    return isUnknown ? "the service is not on the bus"
                     : "the service could not be started: " + result.m_text;
}

} // namespace

boost::shared_ptr<qor::IDbusClient> Endpoint(const TSOptions& options)
{
    NameWait("the system bus does not answer");
    auto endpoint = qor::TCDbusClientProvider::Get(options.m_testNames);
    NameWait("no answer came in time");
    return endpoint;
}

bool IsGood(const qor::TSSendResult& result)
{
    return result.m_status == qor::ESendStatus::ANSWERED_TRUE;
}

std::string WhyNot(const qor::TSSendResult& result)
{
    switch (result.m_status)
    {
    case qor::ESendStatus::ANSWERED_TRUE:
        return "the service's answer cannot be read";
    case qor::ESendStatus::ANSWERED_FALSE:
        return "the service could not take the request (a 32-bit and a 64-bit process do not read "
               "each other's)";
    case qor::ESendStatus::NO_SERVICE:
        return WhyNobody(result);
    case qor::ESendStatus::NO_ANSWER:
        return result.m_code == G_IO_ERROR_TIMED_OUT ? "no answer came in time"
                                                     : "the service left before it answered";
    case qor::ESendStatus::FORBIDDEN:
        return "permission denied by the system bus, whose policy does not let " +
               tools::UserName(geteuid()) + " call the service (" + result.m_text + ")";
    case qor::ESendStatus::NO_BUS:
        return result.m_code == G_IO_ERROR_NOT_CONNECTED
                   ? "there is no system bus: " + result.m_text
                   : "the connection to the system bus was closed";
    default:
        return "the request was refused: " + result.m_text;
    }
}

TJson AskStatus(const TSOptions& options, qor::TSSendResult& result,
                std::chrono::milliseconds atMost)
{
    constexpr bool mayStart = false;
    const auto endpoint = Endpoint(options);
    result = endpoint->Call(tools::GET_STATUS, {}, MillisecondsLeft(atMost), {}, mayStart);
    std::string text;
    if (!IsGood(result) || !tools::ReadStatusReply(result.m_response, text))
    {
        return {};
    }
    TJson status = TJson::parse(text, nullptr, false);
    return status.is_object() ? status : TJson();
}

} // namespace qorctl
