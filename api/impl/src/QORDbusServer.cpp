// The service's endpoint: the bus name, the registry of clients, event delivery.
#include <qor/QORDbusServer.h>

#include <list>

#include <boost/bind/bind.hpp>

#include <gio/gio.h>

#include "QORDbusContext.h"
#include "QORDbusLink.h"
#include "QORDbusSession.h"
#include "QOREnvelope.h"
#include "QOREventDelivery.h"
#include "QORFork.h"
#include "QORLocks.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCDbusServer"

namespace qor
{

namespace
{

constexpr int DEFAULT_TIMEOUT = -1;

} // namespace

IDbusServer::~IDbusServer() = default;

TCDbusServer::TCDbusServer(bool testMode) : TCDbus(testMode), m_ownNameId(0)
{
    try
    {
        t_Start();
    }
    catch (const boost::thread_interrupted&)
    {
        QOR_LOG_ERROR("t_Start interrupted");
    }
    catch (...)
    {
        // The destructor does not run: what is on the bus by now must not stay there without us.
        t_Stop();
        throw;
    }
}

TCDbusServer::~TCDbusServer()
{
    if (!t_IsInOwnProcess())
    {
        MakeAnew(m_clients);
        MakeAnew(m_thread);
        MakeAnew(m_pContext);
        MakeAnew(m_pMainLoop);
        MakeAnew(m_pGoneCheck);
        MakeAnew(m_pDelivery);
        t_Abandon();
        return;
    }
    // A pending interruption of this thread must not break off the join.
    const boost::this_thread::disable_interruption notNow;
    t_Stop();
}

// A call may come as soon as the object is exported, so everything that it needs is made before.
bool TCDbusServer::t_Start()
{
    t_SetDbusCallback(t_dbusHelloMethod,
                      boost::bind(&TCDbusServer::m_HandleHelloMessage, this,
                                  boost::placeholders::_1, boost::placeholders::_2,
                                  boost::placeholders::_3));
    if (!t_Connect())
    {
        return false;
    }
    const TSessionPtr session = t_Session();
    m_pContext.reset(g_main_context_new());
    m_pMainLoop.reset(g_main_loop_new(m_pContext.get(), FALSE));
    m_pGoneCheck = std::make_unique<TCDbusTimer>(
        t_pMainContext.get(),
        &TCDbusEntry::RunMember<TCDbusServer, &TCDbusServer::m_ForgetGoneClients>, t_NewUserData(),
        RELEASE_DBUS_LINK);
    m_pDelivery = std::make_unique<TCEventDelivery>(m_pContext.get(), *session,
                                                    [this] { m_pGoneCheck->SetIn(0); });
    if (!t_Export(session))
    {
        return false;
    }
    const unsigned int id =
        g_bus_own_name_on_connection(session->Connection(), t_busName, G_BUS_NAME_OWNER_FLAGS_NONE,
                                     &TCDbusServer::m_NameAcquired, &TCDbusServer::m_NameLost,
                                     t_NewUserData(), RELEASE_DBUS_LINK);
    {
        const TExclusiveLock lock(t_stateMutex);
        m_ownNameId = id;
    }
    try
    {
        m_thread = boost::thread(boost::bind(&TCDbusServer::m_StartMainLoop, this));
    }
    catch (const boost::thread_interrupted&)
    {
        QOR_LOG_ERROR("m_StartMainLoop interrupted");
    }
    QOR_LOG_DEBUG("Server started. Own name id %d", static_cast<int>(id));
    return true;
}

void TCDbusServer::t_Stop()
{
    t_StopHandlers();
    if (m_pMainLoop != nullptr)
    {
        // Posted, not called: a loop does not remember that it was quit before it ran.
        g_main_context_invoke(m_pContext.get(), &TCDbusServer::m_QuitMainLoop, m_pMainLoop.get());
    }
    m_thread.join();
    m_pGoneCheck.reset();
    {
        const TExclusiveLock lock(t_stateMutex);
        while (!m_clients.empty())
        {
            m_ForgetClient(m_clients.begin());
        }
        if (m_ownNameId != 0)
        {
            g_bus_unown_name(m_ownNameId);
        }
    }
    TCDbus::t_Stop();
    m_pDelivery.reset();
    m_pMainLoop.reset();
    m_pContext.reset();
}

void TCDbusServer::m_StartMainLoop()
{
    g_main_context_push_thread_default(m_pContext.get());
    g_main_loop_run(m_pMainLoop.get());
}

int TCDbusServer::m_QuitMainLoop(void* pLoop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(pLoop));
    return G_SOURCE_REMOVE;
}

void TCDbusServer::m_NameAcquired(GDBusConnection* pConnection, const char* name, void* pUserData)
{
    const TCDbusEntry entry(pUserData);
    QOR_LOG_DEBUG("Name %s has been acquired, user_data %p", name,
                  static_cast<void*>(entry.Endpoint()));
    entry.Run<TCDbusServer>([pConnection, name = std::string(name)](TCDbusServer& server)
                            { server.m_NameAcquired(pConnection, name.c_str()); });
}

void TCDbusServer::m_NameAcquired(GDBusConnection* /*pConnection*/, const char* /*name*/)
{
    t_isReady = true;
}

void TCDbusServer::m_NameLost(GDBusConnection* /*pConnection*/, const char* name, void* pUserData)
{
    const TCDbusEntry entry(pUserData);
    QOR_LOG_DEBUG("Name %s has been lost, user_data %p", name,
                  static_cast<void*>(entry.Endpoint()));
    if (entry.Endpoint() != nullptr)
    {
        QOR_ASSERT_FAILED();
    }
}

// --- Callbacks and events ------------------------------------------------------------------------

bool TCDbusServer::SetCallback(int type, const TMessageCallback& callback)
{
    if (!t_IsInOwnProcess())
    {
        return false;
    }
    const TExclusiveLock lock(t_callbacksMutex);
    const bool inserted = t_callbacks.try_emplace(type, callback).second;
    QOR_LOG_DEBUG("Type %d, result %d", type, inserted);
    return inserted;
}

bool TCDbusServer::UnSetCallback(int type)
{
    if (!t_IsInOwnProcess())
    {
        return false;
    }
    std::map<int, TMessageCallback>::node_type removed; // goes after the lock: it is the caller's
    const TExclusiveLock lock(t_callbacksMutex);
    removed = t_callbacks.extract(type);
    return !removed.empty();
}

std::pair<std::size_t, std::size_t> TCDbusServer::SendMessage(int type, const TByteArray& data,
                                                              int timeout)
{
    std::size_t succeeded = 0;
    std::size_t failed = 0;
    if (!t_IsInOwnProcess())
    {
        return {succeeded, failed};
    }
    TGlibPtr<GVariant> pEnvelope;
    std::list<TSAsyncMessage> messages;
    {
        const TSharedLock lock(t_stateMutex);
        if (!t_isReady || m_clients.empty())
        {
            QOR_LOG_DEBUG("Connection is ready %d, number of clients %zu", t_isReady.load(),
                          m_clients.size());
            return {succeeded, failed};
        }
        for (const auto& entry : m_clients)
        {
            if (m_IsToBeCalled(entry.second, type, data, timeout, failed))
            {
                messages.emplace_back(entry.second.m_pProxy.get(), entry.second.m_pAccount, type);
            }
        }
        if (!messages.empty())
        {
            GVariant* pParameters = nullptr;
            t_ConvertBytes(type, false, data, pParameters);
            pEnvelope.reset(g_variant_ref_sink(pParameters));
            for (TSAsyncMessage& message : messages)
            {
                message.m_pParameters = pEnvelope.get();
                message.m_timeout = timeout;
            }
            m_pDelivery->Deliver(messages);
        }
    }
    if (!messages.empty())
    {
        // Calls usually finish in order: waiting for the last first sleeps once.
        messages.back().m_future.wait();
    }
    for (; !messages.empty(); messages.pop_front())
    {
        ++(messages.front().m_future.get() ? succeeded : failed);
    }
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

// Whether an event goes out to a client. One that is registered for it but cannot be called counts
// as a failure.
bool TCDbusServer::m_IsToBeCalled(const TSClient& client, int type, const TByteArray& data,
                                  int timeout, std::size_t& failed) const
{
    const char* name = g_dbus_proxy_get_name(client.m_pProxy.get());
    if (client.m_events.count(type) == 0)
    {
        QOR_LOG_DEBUG("Client %s is not registered for event %d", name, type);
        return false;
    }
    if (t_currentSender == name && !t_isCurrentMessageAsync)
    {
        QOR_LOG_ERROR("Unable to send message to %s, type %d, waiting for sync replay", name, type);
        ++failed;
        return false;
    }
    if (!t_Fits(data.size()) || timeout < DEFAULT_TIMEOUT)
    {
        // The bus would close the connection on the one; nothing would end the other.
        QOR_LOG_ERROR("Sending message from %s error, errno %d", name,
                      timeout < DEFAULT_TIMEOUT ? G_IO_ERROR_INVALID_ARGUMENT
                                                : G_IO_ERROR_MESSAGE_TOO_LARGE);
        ++failed;
        return false;
    }
    return true;
}

} // namespace qor
