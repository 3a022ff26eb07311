// The process-wide policy control object and the application's way to it.
#include "QORPolicyControlProxy.h"

#include <exception>

#include <gio/gio.h>

#include <qor/PolicyMessage.h>
#include <qor/QORDbusClient.h>
#include <qor/QORDeactivator.h>
#include <qor/api.h>

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

namespace api
{

boost::shared_ptr<IPolicyControl> GetPolicyControl()
{
    TCDeactivator::RegisterDBUS(&TCPolicyControlProxy::Destroy);
    return TCPolicyControlProxy::Instance();
}

} // namespace api

} // namespace qor
