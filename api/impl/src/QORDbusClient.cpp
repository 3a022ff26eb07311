// The application's endpoint, and the provider that shares one per process.
#include <qor/QORDbusClient.h>

#include <string>
#include <utility>

#include <gio/gio.h>

#include "QORDbusFilter.h"
#include "QORDbusLink.h"
#include "QOREnvelope.h"
#include "QORFork.h"
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

TCDbusClient::TCDbusClient(bool testMode)
    : TCDbus(testMode), m_watcherId(0), m_isStarted(false), m_nextAttempt(0)
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
    static_cast<void>(m_pHangUp.release());
    static_cast<void>(m_pRetry.release());
    MakeAnew(m_pWatchedOn);
    MakeAnew(m_attemptMutex);
    t_Abandon();
}

// --- Start and stop ------------------------------------------------------------------------------

bool TCDbusClient::t_Start()
{
    {
        const TExclusiveLock stateLock(t_stateMutex);
        if (!TCDbus::t_Start() || !m_CreateProxy())
        {
            return false;
        }
        m_isStarted = true;
    }
    m_Watch();
    return true;
}

bool TCDbusClient::m_CreateProxy()
{
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
    return true;
}

// Leaves the bus to a successor, without waiting for a callback: the provider calls it with its
// mutex held. What is left is the destructor's.
void TCDbusClient::m_Retire()
{
    t_SeverHandlers();
    {
        const TExclusiveLock watchLock(t_watchMutex);
        if (m_pRetry != nullptr)
        {
            g_source_destroy(m_pRetry.get());
            m_pRetry.reset();
        }
    }
    m_Unwatch();
    t_Withdraw();
}

void TCDbusClient::t_Stop()
{
    m_Retire();
    t_StopHandlers();
    const TExclusiveLock stateLock(t_stateMutex);
    m_pProxy.reset();
    TCDbus::t_Stop();
}

// --- The service comes and goes ------------------------------------------------------------------

void TCDbusClient::m_NameAppeared(GDBusConnection* pConnection, const char* name, const char* owner,
                                  void* pUserData)
{
    const TCDbusLinkUse use(pUserData);
    QOR_LOG_DEBUG("Name appeared - name %s", name);
    if (auto* pClient = use.Endpoint<TCDbusClient>())
    {
        pClient->t_Handle(use, [=, name = std::string(name), owner = std::string(owner)]
                          { pClient->m_NameAppeared(pConnection, name.c_str(), owner.c_str()); });
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
        pClient->t_Handle(use, [=, name = std::string(name)]
                          { pClient->m_NameVanished(pConnection, name.c_str()); });
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

// --- Callbacks and sends -------------------------------------------------------------------------

bool TCDbusClient::SetCallback(int type, const TMessageCallback& callback)
{
    if (!t_IsInOwnProcess())
    {
        return false;
    }
    const TSharedLock stateLock(t_stateMutex);
    const TExclusiveLock callbacksLock(t_callbacksMutex);
    const bool inserted = t_callbacks.try_emplace(type, callback).second;
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
    std::map<int, TMessageCallback>::node_type removed; // goes after the locks: it is the caller's
    const TSharedLock stateLock(t_stateMutex);
    const TExclusiveLock callbacksLock(t_callbacksMutex);
    removed = t_callbacks.extract(type);
    if (!removed.empty() && t_isReady)
    {
        m_SendHello();
    }
    return !removed.empty();
}

bool TCDbusClient::SendMessage(int type, const TByteArray& data, TByteArray& response, bool isAsync)
{
    if (!t_IsInOwnProcess())
    {
        return false;
    }
    const gint64 deadline = g_get_monotonic_time() + SEND_TIMEOUT_MS * G_TIME_SPAN_MILLISECOND;
    m_FindBusAgain();
    const TSharedLock stateLock(t_stateMutex);
    if (!t_isReady)
    {
        QOR_LOG_DEBUG("Connection is not ready");
        if (!isAsync && (!m_isStarted || t_IsExported()))
        {
            // The bus starts a service that is not running, which then learns our types at once;
            // not before it can call us, while the bus has just been found again. Inside a callback
            // this thread holds the table already.
            const TSharedLock callbacksLock =
                t_IsInHandler() ? TSharedLock() : TSharedLock(t_callbacksMutex);
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
        const gint64 left = (deadline - g_get_monotonic_time()) / G_TIME_SPAN_MILLISECOND;
        return m_CallAndWait(type, data, response, static_cast<int>(left));
    }
    GVariant* pRequest = nullptr;
    t_ConvertBytes(type, isAsync, data, pRequest);
    m_CallWithoutReply(t_dbusSendMethod, pRequest);
    return true;
}

// Calls go to the service's well-known name, not to the owner that the proxy has last heard of: the
// proxy learns of a restarted service only while the main context is iterated, and sends must work
// without. Takes over the floating parameters, also where the start failed and nothing is called.
void TCDbusClient::m_CallWithoutReply(const char* method, GVariant* pParameters)
{
    const TGlibPtr<GVariant> pOwned(g_variant_ref_sink(pParameters));
    if (m_isStarted)
    {
        g_dbus_connection_call(t_pConnection.get(), t_busName, t_objectPath, t_interfaceName,
                               method, pOwned.get(), nullptr, G_DBUS_CALL_FLAGS_NONE,
                               DEFAULT_TIMEOUT, nullptr, nullptr, nullptr);
    }
}

// The answer is picked up on the way in. g_dbus_connection_call_sync would make a main context, and
// with it a file descriptor, for each call.
bool TCDbusClient::m_CallAndWait(int type, const TByteArray& data, TByteArray& response,
                                 int timeoutMs)
{
    if (!m_isStarted)
    {
        QOR_LOG_ERROR("pResult is NULL");
        return false;
    }
    GVariant* pRequest = nullptr;
    t_ConvertBytes(type, false, data, pRequest);
    const TGlibPtr<GDBusMessage> pCall(
        g_dbus_message_new_method_call(t_busName, t_objectPath, t_interfaceName, t_dbusSendMethod));
    g_dbus_message_set_body(pCall.get(), pRequest);
    TCGlibError error;
    const TGlibPtr<GDBusMessage> pAnswer =
        t_pFilter->CallAndWait(pCall.get(), timeoutMs, error.Out());
    if (pAnswer == nullptr || g_dbus_message_to_gerror(pAnswer.get(), error.Out()))
    {
        QOR_LOG_ERROR("Sending message error, errno %d", error.Code());
        return false;
    }
    bool result = true;
    t_ConvertBytes(g_dbus_message_get_body(pAnswer.get()), result, response);
    return result;
}

// --- The process's endpoint ----------------------------------------------------------------------

boost::shared_ptr<IDbusClient> TCDbusClientProvider::Get(bool testMode)
{
    const boost::unique_lock<boost::mutex> lock(*m_pMutex);
    boost::shared_ptr<IDbusClient> client = m_pDbusClient->lock();
    if (client == nullptr)
    {
        if (m_pLatest != nullptr)
        {
            m_pLatest->m_Retire(); // its last holder has let go, and has not come here yet
            m_pLatest = nullptr;
        }
        auto* pClient = new TCDbusClient(testMode);
        client.reset(pClient, &TCDbusClientProvider::m_Release);
        *m_pDbusClient = client;
        m_pLatest = pClient;
    }
    return client;
}

// A successor may be asked for at once, so the bus is left before anything is waited for.
void TCDbusClientProvider::m_Release(TCDbusClient* pClient)
{
    if (pClient->t_IsInOwnProcess())
    {
        const boost::unique_lock<boost::mutex> lock(*m_pMutex);
        pClient->m_Retire();
        m_pLatest = m_pLatest == pClient ? nullptr : m_pLatest;
    }
    delete pClient;
}

} // namespace qor
