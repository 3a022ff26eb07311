// Requests to the service, and why one brought no answer.
#include "qorctl/ServiceCall.h"

#include <unistd.h>

#include <gio/gio.h>

#include <qor/PolicyInterface.h>
#include <qor/QORDbusClient.h>

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

bool IsUnknown(int code)
{
    return code == G_DBUS_ERROR_UNKNOWN_METHOD || code == G_DBUS_ERROR_UNKNOWN_INTERFACE ||
           code == G_DBUS_ERROR_UNKNOWN_OBJECT || code == G_DBUS_ERROR_INVALID_ARGS;
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
        return "the service could not take the request; its log says why";
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
        return IsUnknown(result.m_code)
                   ? std::string("the service does not offer ") + qor::POLICY_INTERFACE
                   : "the request was refused: " + result.m_text;
    }
}

qor::TSMethodResult CallService(const TSOptions& options, const char* method, GVariant* pArguments,
                                std::chrono::milliseconds atMost, bool mayStart)
{
    return Endpoint(options)->CallMethod(qor::POLICY_INTERFACE, method, pArguments,
                                         MillisecondsLeft(atMost), {}, mayStart);
}

std::string ErrorWords(const qor::TSMethodResult& result)
{
    const std::string name = result.m_errorName + ": ";
    const std::string& text = result.m_send.m_text;
    return text.compare(0, name.size(), name) == 0 ? text.substr(name.size()) : text;
}

} // namespace qorctl
