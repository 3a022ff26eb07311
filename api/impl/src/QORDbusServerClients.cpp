// The service's registry of clients.
#include <unistd.h>

#include <algorithm>
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
#include "QORLimits.h"
#include "QORLocks.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCDbusServer"

namespace qor
{

bool TCDbusServer::TSClient::Wants(int type) const
{
    return std::binary_search(m_events.begin(), m_events.end(), type);
}

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

TSPeer TCDbusServer::CurrentPeer()
{
    const std::string name = GetCurrentSender();
    return name.empty() ? TSPeer() : m_FindPeer(name);
}

// The sender of the call that is handled; the call has waited until the bus told about it.
TSPeer TCDbusServer::m_FindPeer(const std::string& sender)
{
    TSPeer peer;
    return t_Session()->Admission().FindPeer(sender, peer) ? peer : m_pPeers->Find(sender);
}

TSPeer TCDbusServer::Peer(const std::string& uniqueName)
{
    // For other names the bus tells the present owner, which may change and must not be kept.
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

// The answer comes afterwards, because it confirms the registration: a client without an answer
// says Hello again.
bool TCDbusServer::m_Register(const std::string& client, std::vector<int> events)
{
    const TSPeer peer = m_FindPeer(client);
    {
        const TExclusiveLock lock(t_stateMutex);
        const auto found = m_clients.find(client);
        if (found != m_clients.end())
        {
            m_pDelivery->RenewClient(found->second.m_pAccount);
        }
        else if (!m_AddClient(peer))
        {
            return false;
        }
        std::vector<int>& present = m_clients[client].m_events;
        m_numberOfTypes = m_numberOfTypes - present.size() + events.size();
        present = std::move(events);
    }
    m_SweepLater();
    return true;
}

// The user of a client is known, or the bus does not tell.
bool TCDbusServer::m_AddClient(const TSPeer& peer)
{
    const std::string& name = peer.m_name;
    QOR_LOG_DEBUG("A new client %s", name.c_str());
    const bool isBounded = peer.m_isKnown && peer.m_userId != 0 && peer.m_userId != geteuid();
    const auto user = m_clientsByUser.find(peer.m_userId);
    if (isBounded && user != m_clientsByUser.end() && user->second >= MAX_CLIENTS_PER_USER)
    {
        return false;
    }
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
    client.m_since = g_get_monotonic_time();
    client.m_hasUser = peer.m_isKnown;
    client.m_userId = peer.m_userId;
    if (peer.m_isKnown)
    {
        ++m_clientsByUser[peer.m_userId];
    }
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
    TSClient& record = client->second;
    const auto user = m_clientsByUser.find(record.m_userId);
    if (record.m_hasUser)
    {
        --user->second;
        if (user->second == 0)
        {
            m_clientsByUser.erase(user);
        }
    }
    m_numberOfTypes -= record.m_events.size();
    m_pDelivery->RemoveClient(record.m_pAccount);
    m_DestroyClient(record);
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

// Calls have shown that nobody owns these names. A bus that has run out of match rules does not
// report that.
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
