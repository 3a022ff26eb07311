// qorctl set-policy: hands the service a new policy and puts the outcome into words.
#include <chrono>

#include <boost/archive/archive_exception.hpp>
#include <gio/gio.h>

#include <qor/PolicyMessage.h>
#include <qor/QORDbusClient.h>
#include <qor/api.h>

#include "common/ExitStatus.h"
#include "common/SystemBus.h"
#include "qorctl/Commands.h"
#include "qorctl/Message.h"
#include "qorctl/PolicyText.h"

namespace qorctl
{
namespace
{

constexpr std::chrono::seconds REPLY_TIMEOUT(10);

std::string WhyNotDelivered(const TSOptions& options, std::size_t size,
                            std::chrono::steady_clock::duration elapsed)
{
    std::string error;
    const auto connection = tools::ConnectToSystemBus(error);
    if (!connection)
    {
        return "there is no system bus: " + error;
    }
    if (size > qor::MaxPolicySize())
    {
        return "its " + std::to_string(size) +
               " bytes do not fit into one bus message, which takes " +
               std::to_string(qor::MaxPolicySize());
    }
    if (g_dbus_connection_is_closed(connection.get()) != FALSE)
    {
        return "the connection to the system bus was closed";
    }
    if (elapsed >= REPLY_TIMEOUT)
    {
        return "the service did not answer within 10 seconds";
    }
    const auto status = tools::QueryService(connection.get(), options.m_testNames);
    if (!status.m_error.empty())
    {
        return "the system bus does not answer: " + status.m_error;
    }
    if (status.m_owner.empty())
    {
        return "the service is not on the bus";
    }
    return "the service or the bus refused the request (a 32-bit and a 64-bit process do not "
           "read each other's policies), or the service left before it answered";
}

int Report(const TSOptions& options, int result, std::size_t size)
{
    switch (result)
    {
    case qor::POLICY_STORED:
        Say(options.m_quiet,
            "The service has stored the policy (" + std::to_string(size) + " bytes).");
        return tools::EXIT_OK;
    case qor::POLICY_NOT_WELL_FORMED:
        SayError("the service refused the policy: it is not well-formed XML");
        return tools::EXIT_REFUSED;
    case qor::POLICY_NOT_STORED:
        SayError("the service refused the policy: it could not store it");
        return tools::EXIT_REFUSED;
    case qor::POLICY_STATE_UNKNOWN:
        SayError("the service's disk failed half-way: which policy is in force is not known");
        return tools::EXIT_REFUSED;
    case qor::POLICY_NOT_PERMITTED:
        SayError("the service refused the policy: this user may not change it");
        return tools::EXIT_REFUSED;
    case qor::POLICY_TOO_LARGE:
        SayError("the service refused the policy: its " + std::to_string(size) +
                 " bytes, or the depth of its elements, are more than the service accepts");
        return tools::EXIT_REFUSED;
    default:
        SayError("the service refused the policy: result code " + std::to_string(result));
        return tools::EXIT_REFUSED;
    }
}

int Send(const TSOptions& options, const std::string& text)
{
    // The first endpoint of the process decides on the names; the control object shares it.
    const auto endpoint = qor::TCDbusClientProvider::Get(options.m_testNames);
    const auto control = qor::api::GetControl();
    if (!control)
    {
        SayError("the policy was not delivered: the library is shutting down");
        return tools::EXIT_NOT_DELIVERED;
    }
    const auto start = std::chrono::steady_clock::now();
    const int result = control->SetPolicy(text);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    if (result == -1)
    {
        SayError("the policy was not delivered: " + WhyNotDelivered(options, text.size(), elapsed));
        return tools::EXIT_NOT_DELIVERED;
    }
    return Report(options, result, text.size());
}

} // namespace

int SetPolicy(const TSOptions& options)
{
    std::string text;
    std::string error;
    if (!ReadPolicyText(options.m_policyFile, text, error))
    {
        SayError(error);
        return tools::EXIT_WRONG_USAGE;
    }
    try
    {
        return Send(options, text);
    }
    catch (const boost::archive::archive_exception& exception)
    {
        SayError(std::string("the service's answer cannot be read: ") + exception.what());
        return tools::EXIT_BAD_ANSWER;
    }
}

} // namespace qorctl
