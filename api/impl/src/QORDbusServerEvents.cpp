// The service's events: the clients that get them, and the outcomes.
#include <qor/QORDbusServer.h>

#include <algorithm>
#include <set>
#include <utility>

#include <gio/gio.h>

#include "QORDbusContext.h"
#include "QORDbusServerStop.h"
#include "QORDbusSession.h"
#include "QOREventDelivery.h"
#include "QORLocks.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCDbusServer"

namespace qor
{

namespace
{

constexpr int DEFAULT_TIMEOUT = -1;

} // namespace

std::pair<std::size_t, std::size_t> TCDbusServer::SendMessage(int type, const TByteArray& data,
                                                              int timeout)
{
    if (!t_IsInOwnProcess())
    {
        return {0, 0};
    }
    const TEventPtr pEvent = m_NewEvent(type, data, timeout);
    TCEventDelivery::TCalls calls;
    if (!m_Choose(pEvent, nullptr, calls))
    {
        return {0, 0};
    }
    if (!calls.empty())
    {
        m_pDelivery->DeliverAndWait(pEvent, std::move(calls)); // without the lock: it sends
    }
    const auto succeeded = static_cast<std::size_t>(std::count_if(
        pEvent->m_deliveries.begin(), pEvent->m_deliveries.end(),
        [](const TSDelivery& delivery) { return delivery.m_outcome == EDelivery::DELIVERED; }));
    const std::size_t failed = pEvent->m_deliveries.size() - succeeded;
    QOR_LOG_DEBUG("Callback result: success %zu, fails %zu", succeeded, failed);
    return {succeeded, failed};
}

void TCDbusServer::CancelMessages()
{
    if (t_IsInOwnProcess() && m_pDelivery != nullptr)
    {
        m_pDelivery->Cancel();
    }
}

void TCDbusServer::SendEvent(int type, const TByteArray& data, int timeout,
                             const TEventDone& onDone)
{
    m_SendAndTell(type, data, timeout, nullptr, onDone);
}

void TCDbusServer::SendEventTo(const std::vector<std::string>& clients, int type,
                               const TByteArray& data, int timeout, const TEventDone& onDone)
{
    m_SendAndTell(type, data, timeout, &clients, onDone);
}

void TCDbusServer::m_SendAndTell(int type, const TByteArray& data, int timeout,
                                 const std::vector<std::string>* pClients, const TEventDone& onDone)
{
    if (!t_IsInOwnProcess() || m_pDelivery == nullptr)
    {
        return;
    }
    const TEventPtr pEvent = m_NewEvent(type, data, timeout);
    pEvent->m_onTold = onDone;
    pEvent->m_onDone = [this](const TEventPtr& pDone) { m_pDelivery->TellDone(pDone); };
    TCEventDelivery::TCalls calls;
    if (m_Choose(pEvent, pClients, calls) && !calls.empty())
    {
        m_pDelivery->Deliver(pEvent, std::move(calls));
    }
    else
    {
        m_pDelivery->TellDone(pEvent);
    }
}

TCDbusServer::TEventPtr TCDbusServer::m_NewEvent(int type, const TByteArray& data,
                                                 int timeout) const
{
    auto pEvent = std::make_shared<TSEvent>();
    pEvent->m_type = type;
    pEvent->m_timeout = timeout;
    if (t_Fits(data.size()))
    {
        GVariant* pEnvelope = nullptr;
        t_ConvertBytes(type, false, data, pEnvelope);
        pEvent->m_pEnvelope.reset(g_variant_ref_sink(pEnvelope));
        pEvent->m_pMessage.reset(g_dbus_message_new_method_call(nullptr, t_objectPath,
                                                                t_interfaceName, t_dbusSendMethod));
        g_dbus_message_set_body(pEvent->m_pMessage.get(), pEnvelope);
    }
    return pEvent;
}

// False if there are no clients. A client that cannot be called gets an outcome, but no call.
bool TCDbusServer::m_Choose(const TEventPtr& pEvent, const std::vector<std::string>* pClients,
                            std::list<TSAsyncMessage>& calls)
{
    const TSharedLock lock(t_stateMutex);
    if (!t_isReady || (m_clients.empty() && pClients == nullptr))
    {
        QOR_LOG_DEBUG("Connection is ready %d, number of clients %zu", t_isReady.load(),
                      m_clients.size());
        return false;
    }
    if (pClients == nullptr)
    {
        for (const auto& entry : m_clients)
        {
            m_AddCall(pEvent, entry.second, calls);
        }
    }
    else
    {
        for (const std::string& name : std::set<std::string>(pClients->begin(), pClients->end()))
        {
            const auto found = m_clients.find(name);
            if (found == m_clients.end())
            {
                pEvent->m_deliveries.push_back({name, EDelivery::LEFT, 0});
                continue;
            }
            m_AddCall(pEvent, found->second, calls);
        }
    }
    return true;
}

// One that is registered for it but cannot be called has its outcome at once.
void TCDbusServer::m_AddCall(const TEventPtr& pEvent, const TSClient& client,
                             std::list<TSAsyncMessage>& calls)
{
    const char* name = g_dbus_proxy_get_name(client.m_pProxy.get());
    if (!client.Wants(pEvent->m_type))
    {
        QOR_LOG_DEBUG("Client %s is not registered for event %d", name, pEvent->m_type);
        return;
    }
    pEvent->m_deliveries.push_back({name, EDelivery::CANCELLED, 0});
    TSDelivery& delivery = pEvent->m_deliveries.back();
    if (t_currentSender == name && !t_isCurrentMessageAsync)
    {
        QOR_LOG_ERROR("Unable to send message to %s, type %d, waiting for sync replay", name,
                      pEvent->m_type);
        delivery.m_outcome = EDelivery::WAITING_FOR_REPLY;
    }
    else if (pEvent->m_pEnvelope == nullptr || pEvent->m_timeout < DEFAULT_TIMEOUT)
    {
        // The bus would close the connection on the one; nothing would end the other.
        delivery.m_outcome = EDelivery::FAILED;
        delivery.m_code = pEvent->m_pEnvelope == nullptr ? G_IO_ERROR_MESSAGE_TOO_LARGE
                                                         : G_IO_ERROR_INVALID_ARGUMENT;
        QOR_LOG_ERROR("Sending message from %s error, errno %d", name, delivery.m_code);
    }
    else
    {
        calls.emplace_back(pEvent, pEvent->m_deliveries.size() - 1, client.m_pProxy.get(),
                           client.m_pAccount);
    }
}

void TCDbusServer::SetResumeCallback(
    const boost::function<void(const std::string& client, int type)>& callback)
{
    if (!t_IsInOwnProcess())
    {
        return;
    }
    boost::function<void(const std::string&, int)> last(
        callback); // goes after the lock: it is the caller's
    const TLock lock(m_resumeCallbackMutex);
    m_resumeCallback.swap(last);
}

// In the main context: clients that have left, events that have ended, and an end that goes on.
void TCDbusServer::m_HandleNews()
{
    const TCEventDelivery::TSNews news = m_pDelivery->TakeNews();
    m_ForgetClients(news.m_gone);
    for (const TEventPtr& pEvent : news.m_done)
    {
        TEventDone told; // goes here: the event's last holder may be another thread
        told.swap(pEvent->m_onTold);
        if (told)
        {
            told(pEvent->m_deliveries);
        }
    }
    for (const auto& resumed : news.m_resumed) // after the events that they have missed
    {
        const TLock lock(m_resumeCallbackMutex);
        if (m_resumeCallback)
        {
            m_resumeCallback(resumed.first, resumed.second);
        }
    }
    if (news.m_isIdle)
    {
        m_pStop->m_isIdle = true;
        m_GoOnStopping();
    }
}

} // namespace qor
