// The service's endpoint: the bus name, the registry of clients, event delivery.
#include <qor/QORDbusServer.h>

#include <future>
#include <list>

#include <boost/bind/bind.hpp>

#include <gio/gio.h>

#include "QORDbusLink.h"
#include "QOREnvelope.h"
#include "QORFork.h"
#include "QORGlibError.h"
#include "QORLocks.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCDbusServer"

namespace qor
{

// One outgoing call. It belongs to the SendMessage that made it; the loop thread borrows it until
// it has stored the outcome.
struct TCDbusServer::TSAsyncMessage
{
    TSAsyncMessage(TCDbusServer* pServer, GDBusProxy* pProxy)
        : m_pServer(pServer),
          m_future(m_promise.get_future()),
          m_pProxy(static_cast<GDBusProxy*>(g_object_ref(pProxy))),
          m_pParameters(nullptr),
          m_timeout(-1)
    {
    }

    TCDbusServer* m_pServer;
    std::promise<bool> m_promise;
    std::future<bool> m_future;
    TGlibPtr<GDBusProxy> m_pProxy;
    GVariant* m_pParameters; // all calls of an event share one envelope, which SendMessage owns
    int m_timeout;
};

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
        static_cast<void>(m_pContext.release());
        static_cast<void>(m_pMainLoop.release());
        t_Abandon();
        return;
    }
    // A pending interruption of this thread must not break off the join.
    const boost::this_thread::disable_interruption notNow;
    t_Stop();
}

bool TCDbusServer::t_Start()
{
    const TExclusiveLock lock(t_stateMutex);
    if (!TCDbus::t_Start())
    {
        return false;
    }
    m_ownNameId = g_bus_own_name_on_connection(
        t_pConnection.get(), t_busName, G_BUS_NAME_OWNER_FLAGS_NONE, &TCDbusServer::m_NameAcquired,
        &TCDbusServer::m_NameLost, t_NewUserData(), RELEASE_DBUS_LINK);
    t_SetDbusCallback(t_dbusHelloMethod,
                      boost::bind(&TCDbusServer::m_HandleHelloMessage, this,
                                  boost::placeholders::_1, boost::placeholders::_2,
                                  boost::placeholders::_3));
    m_pContext.reset(g_main_context_new());
    m_pMainLoop.reset(g_main_loop_new(m_pContext.get(), FALSE));
    try
    {
        m_thread = boost::thread(boost::bind(&TCDbusServer::m_StartMainLoop, this));
    }
    catch (const boost::thread_interrupted&)
    {
        QOR_LOG_ERROR("m_StartMainLoop interrupted");
    }
    QOR_LOG_DEBUG("Server started. Own name id %d", static_cast<int>(m_ownNameId));
    return true;
}

void TCDbusServer::t_Stop()
{
    t_StopHandlers();
    const TExclusiveLock lock(t_stateMutex);
    if (m_pMainLoop != nullptr)
    {
        // Posted, not called: a loop does not remember that it was quit before it ran.
        g_main_context_invoke(m_pContext.get(), &TCDbusServer::m_QuitMainLoop, m_pMainLoop.get());
    }
    m_thread.join();
    while (!m_clients.empty())
    {
        m_DestroyClient(m_clients.begin()->second);
        m_clients.erase(m_clients.begin());
    }
    if (m_ownNameId != 0)
    {
        g_bus_unown_name(m_ownNameId);
    }
    TCDbus::t_Stop();
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
    const TCDbusLinkUse use(pUserData);
    auto* pServer = use.Endpoint<TCDbusServer>();
    QOR_LOG_DEBUG("Name %s has been acquired, user_data %p", name, static_cast<void*>(pServer));
    if (pServer != nullptr)
    {
        pServer->m_NameAcquired(pConnection, name);
    }
}

void TCDbusServer::m_NameAcquired(GDBusConnection* /*pConnection*/, const char* /*name*/)
{
    const TExclusiveLock lock(t_stateMutex);
    t_isReady = true;
}

void TCDbusServer::m_NameLost(GDBusConnection* /*pConnection*/, const char* name, void* pUserData)
{
    const TCDbusLinkUse use(pUserData);
    QOR_LOG_DEBUG("Name %s has been lost, user_data %p", name,
                  static_cast<void*>(use.Endpoint<TCDbusServer>()));
    QOR_ASSERT_FAILED();
}

void TCDbusServer::m_HandleHelloMessage(const char* sender, GVariant* pParameters,
                                        GDBusMethodInvocation* pInvocation)
{
    std::set<int> events = ReadEventList(pParameters);
    const std::string client(sender); // answering the call may free what it came with
    g_dbus_method_invocation_return_value(pInvocation, nullptr);

    const TExclusiveLock lock(t_stateMutex);
    if (m_clients.count(client) == 0 && !m_AddClient(client))
    {
        return;
    }
    m_clients[client].m_events = std::move(events);
}

// Called with t_stateMutex held exclusively.
bool TCDbusServer::m_AddClient(const std::string& name)
{
    QOR_LOG_DEBUG("A new client %s", name.c_str());
    TCGlibError error;
    TGlibPtr<GDBusProxy> pProxy(g_dbus_proxy_new_sync(
        t_pConnection.get(), G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES, nullptr, name.c_str(),
        t_objectPath, t_interfaceName, nullptr, error.Out()));
    if (pProxy == nullptr)
    {
        QOR_LOG_ERROR("Registering proxy error, errno %d", error.Code());
        return false;
    }
    TSClient& client = m_clients[name];
    client.m_pProxy = std::move(pProxy);
    client.m_watcherId = g_bus_watch_name_on_connection(
        t_pConnection.get(), name.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE, nullptr,
        &TCDbusServer::m_ClientNameVanished, t_NewUserData(), RELEASE_DBUS_LINK);
    return true;
}

void TCDbusServer::m_ClientNameVanished(GDBusConnection* pConnection, const char* name,
                                        void* pUserData)
{
    const TCDbusLinkUse use(pUserData);
    auto* pServer = use.Endpoint<TCDbusServer>();
    QOR_LOG_DEBUG("Client name %s has vanished, user_data %p", name, static_cast<void*>(pServer));
    if (pServer != nullptr)
    {
        pServer->m_ClientNameVanished(pConnection, name);
    }
}

void TCDbusServer::m_ClientNameVanished(GDBusConnection* /*pConnection*/, const char* name)
{
    const TExclusiveLock lock(t_stateMutex);
    const auto found = m_clients.find(name);
    if (found == m_clients.end())
    {
        QOR_ASSERT_FAILED();
        return;
    }
    m_DestroyClient(found->second);
    m_clients.erase(found);
}

void TCDbusServer::m_DestroyClient(TSClient& client)
{
    if (client.m_watcherId != 0)
    {
        g_bus_unwatch_name(client.m_watcherId);
    }
    client.m_pProxy.reset();
}

bool TCDbusServer::SetCallback(int type, const TMessageCallback& callback)
{
    const TExclusiveLock lock(t_callbacksMutex);
    const bool inserted = t_callbacks.emplace(type, callback).second;
    QOR_LOG_DEBUG("Type %d, result %d", type, inserted);
    return inserted;
}

bool TCDbusServer::UnSetCallback(int type)
{
    const TExclusiveLock lock(t_callbacksMutex);
    return t_callbacks.erase(type) != 0;
}

std::size_t TCDbusServer::NumberOfClients()
{
    const TSharedLock lock(t_stateMutex);
    const std::size_t count = m_clients.size();
    QOR_LOG_DEBUG("Number of clients %zu", count);
    return count;
}

std::pair<std::size_t, std::size_t> TCDbusServer::SendMessage(int type, const TByteArray& data,
                                                              int timeout)
{
    std::size_t succeeded = 0;
    std::size_t failed = 0;
    TGlibPtr<GVariant> pEnvelope;
    std::list<TSAsyncMessage> messages;
    {
        const TSharedLock lock(t_stateMutex);
        if (!t_isReady || m_clients.empty())
        {
            QOR_LOG_DEBUG("Connection is ready %d, number of clients %zu", t_isReady,
                          m_clients.size());
            return {succeeded, failed};
        }
        for (const auto& entry : m_clients)
        {
            if (m_IsToBeCalled(entry.second, type, data, failed))
            {
                messages.emplace_back(this, entry.second.m_pProxy.get());
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
            // In one piece: the loop thread is woken once, not once for each client.
            g_main_context_invoke(m_pContext.get(), &TCDbusServer::m_SendMessages, &messages);
        }
    }
    if (!messages.empty())
    {
        // Outcomes come about in order. Who waits for the last one first sleeps once, not once for
        // each client.
        messages.back().m_future.wait();
    }
    for (; !messages.empty(); messages.pop_front())
    {
        ++(messages.front().m_future.get() ? succeeded : failed);
    }
    QOR_LOG_DEBUG("Callback result: success %zu, fails %zu", succeeded, failed);
    return {succeeded, failed};
}

// Whether an event goes out to a client. One that is registered for it but cannot be called counts
// as a failure. Called with t_stateMutex held.
bool TCDbusServer::m_IsToBeCalled(const TSClient& client, int type, const TByteArray& data,
                                  std::size_t& failed) const
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
    if (!t_Fits(data.size()))
    {
        // The bus would close the connection on it.
        QOR_LOG_ERROR("Sending message from %s error, errno %d", name,
                      G_IO_ERROR_MESSAGE_TOO_LARGE);
        ++failed;
        return false;
    }
    return true;
}

int TCDbusServer::m_SendMessages(void* pMessages)
{
    for (TSAsyncMessage& message : *static_cast<std::list<TSAsyncMessage>*>(pMessages))
    {
        m_SendMessage(&message);
    }
    return G_SOURCE_REMOVE;
}

int TCDbusServer::m_SendMessage(void* pMessage)
{
    auto* pAsyncMessage = static_cast<TSAsyncMessage*>(pMessage);
    if (pAsyncMessage->m_pServer == nullptr)
    {
        QOR_LOG_ERROR("Dbus server equals NULL");
        return G_SOURCE_REMOVE;
    }
    g_dbus_proxy_call(pAsyncMessage->m_pProxy.get(), t_dbusSendMethod, pAsyncMessage->m_pParameters,
                      G_DBUS_CALL_FLAGS_NONE, pAsyncMessage->m_timeout, nullptr,
                      &TCDbusServer::m_AsyncReadyCallback, pAsyncMessage);
    return G_SOURCE_REMOVE;
}

void TCDbusServer::m_AsyncReadyCallback(GObject* pSource, GAsyncResult* pResult, void* pMessage)
{
    auto* pAsyncMessage = static_cast<TSAsyncMessage*>(pMessage);
    if (pAsyncMessage->m_pServer == nullptr)
    {
        QOR_LOG_ERROR("Dbus server equals NULL");
        return;
    }
    pAsyncMessage->m_pServer->m_AsyncReadyCallback(pSource, pResult, pAsyncMessage);
}

void TCDbusServer::m_AsyncReadyCallback(GObject* pSource, GAsyncResult* pResult,
                                        TSAsyncMessage* pMessage)
{
    auto* pProxy = reinterpret_cast<GDBusProxy*>(pSource);
    TCGlibError error;
    const TGlibPtr<GVariant> pReply(g_dbus_proxy_call_finish(pProxy, pResult, error.Out()));
    const char* name = g_dbus_proxy_get_name(pProxy);
    if (error)
    {
        QOR_LOG_ERROR("Sending message from %s error, errno %d", name, error.Code());
        pMessage->m_promise.set_value(false);
        return;
    }
    bool result = false;
    if (pReply == nullptr)
    {
        QOR_LOG_DEBUG("Result is null");
    }
    else
    {
        TByteArray output;
        t_ConvertBytes(pReply.get(), result, output);
    }
    if (!result)
    {
        QOR_LOG_DEBUG("Sending message to %s failed", name);
    }
    pMessage->m_promise.set_value(result); // the message may be gone from here on
}

} // namespace qor
