// Requests to the service, and why one brought no answer.
#include "qorctl/ServiceCall.h"

#include <unistd.h>

#include <cstring>
#include <utility>

#include <gio/gio.h>

#include <qor/QORDbusClient.h>

#include "common/ServiceMessage.h"
#include "common/Text.h"
#include "qorctl/Await.h"

namespace qorctl
{
namespace
{

constexpr std::chrono::milliseconds BUS_LIMIT(5000);
constexpr int PROBE_LIMIT_MS = 2000;

std::string Seconds(std::chrono::milliseconds duration)
{
    const auto seconds = std::chrono::round<std::chrono::seconds>(duration).count();
    return std::to_string(seconds) + (seconds == 1 ? " second" : " seconds");
}

std::string Explain(GDBusMessage* pReply)
{
    if (g_dbus_message_get_message_type(pReply) != G_DBUS_MESSAGE_TYPE_ERROR)
    {
        return "the service could not take the request (a 32-bit and a 64-bit process do not read "
               "each other's), or left before it answered";
    }
    GError* pError = nullptr;
    g_dbus_message_to_gerror(pReply, &pError);
    const qor::TGlibPtr<GError> error(pError);
    const char* sender = g_dbus_message_get_sender(pReply);
    const bool isFromBus = sender != nullptr && std::strcmp(sender, "org.freedesktop.DBus") == 0;
    const std::string words =
        tools::Printable(std::string(g_dbus_message_get_error_name(pReply)) + ": " +
                         (g_dbus_error_strip_remote_error(pError) ? pError->message : ""));
    if (!isFromBus)
    {
        return "the service refused the request: " + words;
    }
    return g_error_matches(pError, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED) != FALSE
               ? "permission denied by the system bus, whose policy does not let " +
                     tools::UserName(geteuid()) + " call the service (" + words + ")"
               : "the system bus refused the request: " + words;
}

// A request of a type that no service knows is answered by every service, and changes nothing.
std::string Probe(GDBusConnection* pConnection, bool testNames)
{
    const qor::TGlibPtr<GDBusMessage> call(
        g_dbus_message_new_method_call(tools::ServiceName(testNames), tools::ServicePath(testNames),
                                       tools::SERVICE_INTERFACE, "Send"));
    constexpr unsigned char envelope[5] = {};
    GVariant* pBytes = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, envelope, sizeof envelope, 1);
    g_dbus_message_set_body(call.get(), g_variant_new_tuple(&pBytes, 1));
    g_dbus_message_set_flags(call.get(), G_DBUS_MESSAGE_FLAGS_NO_AUTO_START);
    GError* pError = nullptr;
    const qor::TGlibPtr<GDBusMessage> reply(g_dbus_connection_send_message_with_reply_sync(
        pConnection, call.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, PROBE_LIMIT_MS, nullptr, nullptr,
        &pError));
    const qor::TGlibPtr<GError> error(pError);
    return reply ? Explain(reply.get())
                 : std::string("the service does not answer: ") + error->message;
}

std::string LookForReason(bool testNames)
{
    std::string error;
    const auto connection = tools::ConnectToSystemBus(error);
    if (!connection)
    {
        return "there is no system bus: " + error;
    }
    if (g_dbus_connection_is_closed(connection.get()) != FALSE)
    {
        return "the connection to the system bus was closed";
    }
    const auto status = tools::QueryService(connection.get(), testNames);
    if (!status.m_error.empty())
    {
        return "the system bus does not answer: " + status.m_error;
    }
    return status.m_owner.empty() ? "the service is not on the bus"
                                  : Probe(connection.get(), testNames);
}

struct TSOutcome
{
    bool m_isGood = false;
    qor::TByteArray m_bytes;
};

} // namespace

std::chrono::milliseconds WaitLimit(const TSOptions& options)
{
    constexpr std::chrono::seconds withoutOption(15); // the library's, and time to connect
    return options.m_timeoutSeconds == 0 ? withoutOption
                                         : std::chrono::seconds(options.m_timeoutSeconds);
}

std::string WhyNotAnswered(const TSOptions& options, std::chrono::milliseconds took)
{
    if (took >= WaitLimit(options) || took >= LIBRARY_LIMIT)
    {
        return "no answer came within " + Seconds(took);
    }
    const auto reason =
        Await(BUS_LIMIT, [testNames = options.m_testNames] { return LookForReason(testNames); });
    return reason.value_or("the system bus does not answer");
}

std::optional<qor::TByteArray> AskService(const TSOptions& options, int type,
                                          const qor::TByteArray& request, std::string& error)
{
    const auto start = std::chrono::steady_clock::now();
    const auto outcome = Await(WaitLimit(options),
                               [testNames = options.m_testNames, type, request]
                               {
                                   const auto endpoint = qor::TCDbusClientProvider::Get(testNames);
                                   TSOutcome answer;
                                   answer.m_isGood =
                                       endpoint->SendMessage(type, request, answer.m_bytes, false);
                                   return answer;
                               });
    if (outcome && outcome->m_isGood)
    {
        return outcome->m_bytes;
    }
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    error = WhyNotAnswered(options, took);
    return std::nullopt;
}

tools::TSServiceStatus FindService(const TSOptions& options)
{
    const auto status = Await(WaitLimit(options),
                              [testNames = options.m_testNames]
                              {
                                  tools::TSServiceStatus found;
                                  std::string error;
                                  const auto connection = tools::ConnectToSystemBus(error);
                                  if (!connection)
                                  {
                                      found.m_error = "there is no system bus: " + error;
                                      return found;
                                  }
                                  found = tools::QueryService(connection.get(), testNames);
                                  if (!found.m_error.empty())
                                  {
                                      found.m_error =
                                          "the system bus does not answer: " + found.m_error;
                                  }
                                  return found;
                              });
    if (status)
    {
        return *status;
    }
    tools::TSServiceStatus unknown;
    unknown.m_error = "the system bus does not answer";
    return unknown;
}

std::optional<TJson> AskStatus(const TSOptions& options, std::string& error)
{
    const auto answer = AskService(options, tools::GET_STATUS, {}, error);
    if (!answer)
    {
        return std::nullopt;
    }
    std::string text;
    const bool isText = tools::ReadStatusReply(*answer, text);
    TJson status = TJson::parse(isText ? text : "", nullptr, false);
    if (!status.is_object())
    {
        error = "the service's answer cannot be read";
        return std::make_optional(TJson());
    }
    return std::make_optional(std::move(status));
}

} // namespace qorctl
