// The application's endpoint, and the provider that shares one per process.
#include <qor/QORDbusClient.h>

#include <gio/gio.h>

#include "QORDbusLink.h"
#include "QOREnvelope.h"
#include "QORGlibError.h"
#include "QORLocks.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCDbusClient"

namespace qor
{

namespace
{

constexpr int SEND_TIMEOUT_MS = 10000;
constexpr int DEFAULT_TIMEOUT = -1;

} // namespace

IDbusClient::~IDbusClient() = default;

TCDbusClient::TCDbusClient(bool testMode) : TCDbus(testMode), m_watcherId(0)
{
    t_Start();
}

TCDbusClient::~TCDbusClient()
{
    if (t_IsInOwnProcess())
    {
        t_Stop();
        return;
    }
    static_cast<void>(m_pProxy.release());
    t_Abandon();
}

bool TCDbusClient::t_Start()
{
    {
        const TExclusiveLock stateLock(t_stateMutex);
        if (!TCDbus::t_Start())
        {
            return false;
        }
        TCGlibError error;
        m_pProxy.reset(g_dbus_proxy_new_sync(
            t_pConnection.get(),
            static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES |
                                         G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START_AT_CONSTRUCTION),
            nullptr, t_busName, t_objectPath, t_interfaceName, nullptr, error.Out()));
        if (m_pProxy == nullptr)
        {
            QOR_LOG_ERROR("Registering proxy error, errno %d", error.Code());
            return false;
        }
    }
    const TExclusiveLock watchLock(t_watchMutex);
    m_watcherId = g_bus_watch_name_on_connection(
        t_pConnection.get(), t_busName, G_BUS_NAME_WATCHER_FLAGS_NONE,
        &TCDbusClient::m_NameAppeared, &TCDbusClient::m_NameVanished, t_NewUserData(),
        RELEASE_DBUS_LINK);
    return true;
}

void TCDbusClient::t_Stop()
{
    t_StopHandlers();
    const TExclusiveLock stateLock(t_stateMutex);
    const TExclusiveLock watchLock(t_watchMutex);
    if (m_watcherId != 0)
    {
        g_bus_unwatch_name(m_watcherId);
    }
    m_pProxy.reset();
    TCDbus::t_Stop();
}

void TCDbusClient::m_NameAppeared(GDBusConnection* pConnection, const char* name, const char* owner,
                                  void* pUserData)
{
    const TCDbusLinkUse use(pUserData);
    QOR_LOG_DEBUG("Name appeared - name %s", name);
    if (auto* pClient = use.Endpoint<TCDbusClient>())
    {
        pClient->m_NameAppeared(pConnection, name, owner);
    }
}

void TCDbusClient::m_NameAppeared(GDBusConnection* /*pConnection*/, const char* /*name*/,
                                  const char* /*owner*/)
{
    const TExclusiveLock stateLock(t_stateMutex);
    const TSharedLock callbacksLock(t_callbacksMutex);
    m_SendHello();
    t_isReady = true;
}

void TCDbusClient::m_NameVanished(GDBusConnection* pConnection, const char* name, void* pUserData)
{
    const TCDbusLinkUse use(pUserData);
    QOR_LOG_DEBUG("Name vanished - name %s", name);
    if (auto* pClient = use.Endpoint<TCDbusClient>())
    {
        pClient->m_NameVanished(pConnection, name);
    }
}

void TCDbusClient::m_NameVanished(GDBusConnection* /*pConnection*/, const char* /*name*/)
{
    const TExclusiveLock stateLock(t_stateMutex);
    t_isReady = false;
}

bool TCDbusClient::m_SendHello()
{
    QOR_LOG_DEBUG("Send hello %s", t_uniqueName.c_str());
    m_CallWithoutReply(t_dbusHelloMethod, WriteEventList(t_callbacks));
    return true;
}

// Calls go to the service's well-known name, not to the owner that the proxy has last heard of: the
// proxy learns of a restarted service only while the main context is iterated, and sends must work
// without. Takes over the floating parameters, also where the start failed and nothing is called.
void TCDbusClient::m_CallWithoutReply(const char* method, GVariant* pParameters)
{
    const TGlibPtr<GVariant> pOwned(g_variant_ref_sink(pParameters));
    if (m_pProxy != nullptr)
    {
        g_dbus_connection_call(t_pConnection.get(), t_busName, t_objectPath, t_interfaceName,
                               method, pOwned.get(), nullptr, G_DBUS_CALL_FLAGS_NONE,
                               DEFAULT_TIMEOUT, nullptr, nullptr, nullptr);
    }
}

bool TCDbusClient::SetCallback(int type, const TMessageCallback& callback)
{
    if (!t_IsInOwnProcess())
    {
        return false;
    }
    const TSharedLock stateLock(t_stateMutex);
    const TExclusiveLock callbacksLock(t_callbacksMutex);
    const bool inserted = t_callbacks.emplace(type, callback).second;
    QOR_LOG_DEBUG("Type %d, result %d", type, inserted);
    if (inserted && t_isReady)
    {
        m_SendHello();
    }
    return inserted;
}

bool TCDbusClient::UnSetCallback(int type)
{
    if (!t_IsInOwnProcess())
    {
        return false;
    }
    const TSharedLock stateLock(t_stateMutex);
    const TExclusiveLock callbacksLock(t_callbacksMutex);
    const bool erased = t_callbacks.erase(type) != 0;
    if (erased && t_isReady)
    {
        m_SendHello();
    }
    return erased;
}

bool TCDbusClient::SendMessage(int type, const TByteArray& data, TByteArray& response, bool isAsync)
{
    if (!t_IsInOwnProcess())
    {
        return false;
    }
    const TSharedLock stateLock(t_stateMutex);
    if (!t_isReady)
    {
        QOR_LOG_DEBUG("Connection is not ready");
        if (!isAsync)
        {
            // The bus starts a service that is not running, which then learns our types at once.
            const TSharedLock callbacksLock(t_callbacksMutex);
            m_SendHello();
        }
    }
    if (!t_Fits(data.size()))
    {
        // The bus would close the connection on it.
        QOR_LOG_ERROR("Sending message error, errno %d", G_IO_ERROR_MESSAGE_TOO_LARGE);
        return false;
    }
    if (!isAsync)
    {
        return m_CallAndWait(type, data, response);
    }
    GVariant* pRequest = nullptr;
    t_ConvertBytes(type, isAsync, data, pRequest);
    m_CallWithoutReply(t_dbusSendMethod, pRequest);
    return true;
}

bool TCDbusClient::m_CallAndWait(int type, const TByteArray& data, TByteArray& response)
{
    if (m_pProxy == nullptr)
    {
        QOR_LOG_ERROR("pResult is NULL");
        return false;
    }
    GVariant* pRequest = nullptr;
    t_ConvertBytes(type, false, data, pRequest);
    TCGlibError error;
    const TGlibPtr<GVariant> pResult(g_dbus_connection_call_sync(
        t_pConnection.get(), t_busName, t_objectPath, t_interfaceName, t_dbusSendMethod, pRequest,
        nullptr, G_DBUS_CALL_FLAGS_NONE, SEND_TIMEOUT_MS, nullptr, error.Out()));
    if (error)
    {
        QOR_LOG_ERROR("Sending message error, errno %d", error.Code());
        return false;
    }
    if (pResult == nullptr)
    {
        QOR_LOG_ERROR("pResult is NULL");
        return false;
    }
    bool result = true;
    t_ConvertBytes(pResult.get(), result, response);
    return result;
}

boost::shared_ptr<IDbusClient> TCDbusClientProvider::Get(bool testMode)
{
    const boost::unique_lock<boost::mutex> lock(*m_pMutex);
    boost::shared_ptr<IDbusClient> client = m_pDbusClient->lock();
    if (client == nullptr)
    {
        client.reset(new TCDbusClient(testMode));
        *m_pDbusClient = client;
    }
    return client;
}

} // namespace qor
