// The process-wide policy control object and the application's way to it.
#include "QORPolicyControlProxy.h"

#include <exception>

#include <gio/gio.h>

#include <qor/PolicyInterface.h>
#include <qor/PolicyMessage.h>
#include <qor/QORDbusClient.h>
#include <qor/QORDeactivator.h>
#include <qor/api.h>

#include "QORBusConnection.h"
#include "QORProxySingleton.h"

namespace qor
{

namespace
{

TByteArray WriteRequest(const std::string& policy)
{
    TByteArray request;
    WritePolicyRequest(policy, request);
    return request;
}

TSPolicyResult ReadResult(const TSSendResult& sent)
{
    TSPolicyResult result;
    result.m_send = sent;
    if (sent.m_status != ESendStatus::ANSWERED_TRUE)
    {
        return result;
    }
    try
    {
        result.m_result = ReadPolicyReply(sent.m_response);
    }
    catch (const std::exception& exception)
    {
        result.m_send.m_status = ESendStatus::FAILED;
        result.m_send.m_code = G_IO_ERROR_INVALID_DATA;
        result.m_send.m_text = std::string("The answer cannot be read: ") + exception.what();
    }
    return result;
}

constexpr char GET_POLICY_BYTES[] = "GetPolicyBytes";

// None in a forked child, whose call is refused without it.
GVariant* NumberArgument(std::uint64_t number)
{
    return IsForkedChild() ? nullptr : g_variant_new("(t)", static_cast<guint64>(number));
}

TSPolicyText ReadText(const TSMethodResult& answer)
{
    TSPolicyText text;
    text.m_send = answer.m_send;
    text.m_errorName = answer.m_errorName;
    if (answer.m_send.m_status != ESendStatus::ANSWERED_TRUE)
    {
        return text;
    }
    if (!g_variant_is_of_type(answer.m_pBody.get(), G_VARIANT_TYPE("(ay)")))
    {
        text.m_send.m_status = ESendStatus::FAILED;
        text.m_send.m_code = G_IO_ERROR_INVALID_DATA;
        text.m_send.m_text = "The answer cannot be read: it is not a policy";
        return text;
    }
    const TGlibPtr<GVariant> pBytes(g_variant_get_child_value(answer.m_pBody.get(), 0));
    gsize size = 0;
    const auto* pData =
        static_cast<const char*>(g_variant_get_fixed_array(pBytes.get(), &size, sizeof(char)));
    text.m_policy.assign(size == 0 ? "" : pData, size);
    return text;
}

} // namespace

IPolicyControl::~IPolicyControl() = default;

// Not analysed: the two templates take the lock that they are given.
boost::shared_ptr<IPolicyControl> TCPolicyControlProxy::Instance() QOR_NOT_ANALYSED
{
    return ProxyInstance<TCPolicyControlProxy>(*m_pInstance, m_rwlock, m_destroyed);
}

void TCPolicyControlProxy::Destroy() QOR_NOT_ANALYSED
{
    ProxyDestroy(*m_pInstance, m_rwlock, m_destroyed);
}

TCPolicyControlProxy::TCPolicyControlProxy() : m_dbusClient(TCDbusClientProvider::Get(false)) {}

TCPolicyControlProxy::~TCPolicyControlProxy() = default;

TSPolicyResult TCPolicyControlProxy::SetPolicy(const std::string& policy, int timeoutMs,
                                               const TCCancellation& cancellation)
{
    return ReadResult(
        m_dbusClient->Call(SET_POLICY, WriteRequest(policy), timeoutMs, cancellation));
}

void TCPolicyControlProxy::SetPolicyAsync(const std::string& policy, int timeoutMs,
                                          const TCCancellation& cancellation,
                                          const TPolicyCallback& onDone, GMainContext* pContext)
{
    m_dbusClient->CallAsync(
        SET_POLICY, WriteRequest(policy), timeoutMs, cancellation,
        [onDone](const TSSendResult& sent) { onDone(ReadResult(sent)); }, pContext);
}

TSPolicyText TCPolicyControlProxy::GetPolicy(std::uint64_t number, int timeoutMs,
                                             const TCCancellation& cancellation)
{
    return ReadText(m_dbusClient->CallMethod(POLICY_INTERFACE, GET_POLICY_BYTES,
                                             NumberArgument(number), timeoutMs, cancellation));
}

void TCPolicyControlProxy::GetPolicyAsync(std::uint64_t number, int timeoutMs,
                                          const TCCancellation& cancellation,
                                          const TPolicyTextCallback& onDone, GMainContext* pContext)
{
    m_dbusClient->CallMethodAsync(
        POLICY_INTERFACE, GET_POLICY_BYTES, NumberArgument(number), timeoutMs, cancellation,
        [onDone](const TSMethodResult& answer) { onDone(ReadText(answer)); }, pContext);
}

namespace api
{

boost::shared_ptr<IPolicyControl> GetPolicyControl()
{
    TCDeactivator::RegisterDBUS(&TCPolicyControlProxy::Destroy);
    return TCPolicyControlProxy::Instance();
}

} // namespace api

} // namespace qor
