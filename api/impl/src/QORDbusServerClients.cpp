// The service's registry of clients.
#include <utility>

#include <gio/gio.h>

#include <qor/QORDbusServer.h>

#include "QORBusConnection.h"
#include "QORDbusContext.h"
#include "QORDbusLink.h"
#include "QORDbusPeers.h"
#include "QORDbusSession.h"
#include "QOREnvelope.h"
#include "QOREventDelivery.h"
#include "QORGlibError.h"
#include "QORLocks.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCDbusServer"

namespace qor
{

std::size_t TCDbusServer::NumberOfClients()
{
    if (!t_IsInOwnProcess())
    {
        return 0;
    }
    const TSharedLock lock(t_stateMutex);
    const std::size_t count = m_clients.size();
    QOR_LOG_DEBUG("Number of clients %zu", count);
    return count;
}

std::vector<TCDbusServer::TSClientInfo> TCDbusServer::Clients()
{
    std::vector<TSClientInfo> clients;
    if (!t_IsInOwnProcess())
    {
        return clients;
    }
    const TSharedLock lock(t_stateMutex);
    for (const auto& entry : m_clients)
    {
        clients.push_back(
            {entry.first, entry.second.m_events, entry.second.m_pAccount->m_isSuspended});
    }
    return clients;
}

TSPeer TCDbusServer::CurrentPeer()
{
    const std::string name = GetCurrentSender();
    return name.empty() ? TSPeer() : m_pPeers->Find(name);
}

TSPeer TCDbusServer::Peer(const std::string& uniqueName)
{
    // Of other names the bus tells who has them now, which must not be kept.
    const bool isUnique = g_dbus_is_unique_name(uniqueName.c_str()) != FALSE;
    if (isUnique && t_IsInOwnProcess() && m_pPeers != nullptr)
    {
        return m_pPeers->Find(uniqueName);
    }
    TSPeer unknown;
    unknown.m_name = uniqueName;
    return unknown;
}

void TCDbusServer::m_HandleHelloMessage(const char* sender, GVariant* pParameters,
                                        GDBusMethodInvocation* pInvocation)
{
    if (m_Register(sender, ReadEventList(pParameters)))
    {
        g_dbus_method_invocation_return_value(pInvocation, nullptr);
    }
    else
    {
        g_dbus_method_invocation_return_error_literal(pInvocation, G_DBUS_ERROR,
                                                      G_DBUS_ERROR_LIMITS_EXCEEDED,
                                                      "The client cannot be registered now");
    }
}

// The answer comes after, since it confirms the registration: who gets none says Hello again.
bool TCDbusServer::m_Register(const std::string& client, std::set<int> events)
{
    const TExclusiveLock lock(t_stateMutex);
    const auto found = m_clients.find(client);
    if (found != m_clients.end())
    {
        m_pDelivery->RenewClient(found->second.m_pAccount);
    }
    else if (!m_AddClient(client))
    {
        return false;
    }
    m_clients[client].m_events = std::move(events);
    return true;
}

bool TCDbusServer::m_AddClient(const std::string& name)
{
    QOR_LOG_DEBUG("A new client %s", name.c_str());
    TCGlibError error;
    TGlibPtr<GDBusProxy> pProxy;
    if (HasFreeDescriptors(error.Out()))
    {
        // It connects no signals: a bus has a limited number of match rules for each connection,
        // and the watch takes one already.
        pProxy.reset(g_dbus_proxy_new_sync(
            t_pConnection.get(),
            static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES |
                                         G_DBUS_PROXY_FLAGS_DO_NOT_CONNECT_SIGNALS),
            nullptr, name.c_str(), t_objectPath, t_interfaceName, nullptr, error.Out()));
    }
    if (pProxy == nullptr)
    {
        QOR_LOG_ERROR("Registering proxy error, errno %d", error.Code());
        return false;
    }
    // The thread that iterates the context need not have it as its default.
    const TCThreadDefaultContext context(t_pMainContext.get());
    TSClient& client = m_clients[name];
    client.m_pProxy = std::move(pProxy);
    client.m_pAccount = m_pDelivery->AddClient(name);
    client.m_watcherId = g_bus_watch_name_on_connection(
        t_pConnection.get(), name.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE, nullptr,
        &TCDbusServer::m_ClientNameVanished, t_NewUserData(), RELEASE_DBUS_LINK);
    return true;
}

void TCDbusServer::m_ClientNameVanished(GDBusConnection* pConnection, const char* name,
                                        void* pUserData)
{
    const TCDbusEntry entry(pUserData);
    QOR_LOG_DEBUG("Client name %s has vanished, user_data %p", name,
                  static_cast<void*>(entry.Endpoint()));
    entry.Run<TCDbusServer>([pConnection, name = std::string(name)](TCDbusServer& server)
                            { server.m_ClientNameVanished(pConnection, name.c_str()); });
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
    m_ForgetClient(found);
}

void TCDbusServer::m_ForgetClient(TClients::iterator client)
{
    m_pDelivery->RemoveClient(client->second.m_pAccount);
    m_DestroyClient(client->second);
    m_clients.erase(client);
}

void TCDbusServer::m_DestroyClient(TSClient& client)
{
    if (client.m_watcherId != 0)
    {
        g_bus_unwatch_name(client.m_watcherId);
    }
    client.m_pProxy.reset();
}

// Calls have shown that nobody has these names. A bus that is out of match rules does not say so.
void TCDbusServer::m_ForgetClients(const std::vector<std::string>& names)
{
    const TExclusiveLock lock(t_stateMutex);
    for (const std::string& name : names)
    {
        const auto found = m_clients.find(name);
        if (found != m_clients.end())
        {
            QOR_LOG_DEBUG("Client %s is gone", name.c_str());
            m_ForgetClient(found);
        }
    }
}

} // namespace qor
