// The application's endpoint, and the provider that shares one per process.
#include <qor/QORDbusClient.h>

#include <string>
#include <utility>

#include <boost/make_shared.hpp>

#include <gio/gio.h>
#include <glib-unix.h>

#include "QORBusConnection.h"
#include "QORDbusContext.h"
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
// After the bus is lost: how often and how long it is looked for.
constexpr unsigned int ATTEMPT_INTERVAL_MS = 1000;
constexpr gint64 ATTEMPT_GAP_US = 900 * G_TIME_SPAN_MILLISECOND; // less than a timer's interval
constexpr int CONNECT_TIMEOUT_MS = 2000;
constexpr gint64 HUNG_GAP_US = 20 * G_TIME_SPAN_SECOND;
constexpr int ADOPT_TRIES = 100;
constexpr gulong ADOPT_PAUSE_US = 5000;

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

// What the sources in the main context call.
struct TCDbusClient::TSSourceHandlers
{
    static gboolean HungUp(int /*descriptor*/, GIOCondition /*condition*/, void* pUserData)
    {
        const TCDbusLinkUse use(pUserData);
        if (auto* pClient = use.Endpoint<TCDbusClient>())
        {
            QOR_LOG_DEBUG("The connection to the bus is closed");
            pClient->t_Handle(use, [pClient] { pClient->m_Lost(); });
        }
        return G_SOURCE_REMOVE;
    }

    static gboolean Retry(void* pUserData)
    {
        const TCDbusLinkUse use(pUserData);
        auto* pClient = use.Endpoint<TCDbusClient>();
        if (pClient == nullptr || use.IsNested()) // inside a callback: the next time
        {
            return G_SOURCE_CONTINUE;
        }
        if (!pClient->m_Retry())
        {
            return G_SOURCE_CONTINUE;
        }
        const TSharedLock stateLock(pClient->t_stateMutex);
        if (!pClient->t_IsExported())
        {
            return G_SOURCE_CONTINUE; // lost and found again meanwhile
        }
        const TExclusiveLock watchLock(pClient->t_watchMutex);
        pClient->m_pRetry.reset();
        return G_SOURCE_REMOVE;
    }
};

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

// In the main context, or with it as the thread's default.
void TCDbusClient::m_Watch()
{
    const TExclusiveLock watchLock(t_watchMutex);
    if (t_IsSevered())
    {
        return;
    }
    m_pWatchedOn = t_pFilter;
    m_watcherId = g_bus_watch_name_on_connection(
        t_pConnection.get(), t_busName, G_BUS_NAME_WATCHER_FLAGS_NONE,
        &TCDbusClient::m_NameAppeared, &TCDbusClient::m_NameVanished, t_NewUserData(),
        RELEASE_DBUS_LINK);
    // The connection reports its end in the context that it was made in, which may be another one
    // or iterated by nobody. So the socket itself is watched; it stays open as long as
    // m_pWatchedOn.
    GSocket* pSocket = g_socket_connection_get_socket(
        G_SOCKET_CONNECTION(g_dbus_connection_get_stream(t_pConnection.get())));
    m_pHangUp.reset(g_unix_fd_source_new(g_socket_get_fd(pSocket),
                                         static_cast<GIOCondition>(G_IO_HUP | G_IO_ERR)));
    g_source_set_callback(m_pHangUp.get(), G_SOURCE_FUNC(&TSSourceHandlers::HungUp),
                          t_NewUserData(), RELEASE_DBUS_LINK);
    g_source_attach(m_pHangUp.get(), t_pMainContext.get());
}

void TCDbusClient::m_Unwatch()
{
    boost::shared_ptr<TCDbusFilter> filter; // goes after the lock
    const TExclusiveLock watchLock(t_watchMutex);
    if (m_pHangUp != nullptr)
    {
        g_source_destroy(m_pHangUp.get());
        m_pHangUp.reset();
    }
    if (m_watcherId != 0)
    {
        g_bus_unwatch_name(m_watcherId);
        m_watcherId = 0;
    }
    m_pWatchedOn.swap(filter);
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

// --- The bus comes back --------------------------------------------------------------------------

// Any thread; does nothing while there is a connection. Whoever comes while another thread tries
// goes on without.
void TCDbusClient::m_FindBusAgain()
{
    {
        const TSharedLock stateLock(t_stateMutex);
        if (!m_isStarted || !t_IsLost())
        {
            return;
        }
    }
    const boost::unique_lock<boost::mutex> attemptLock(m_attemptMutex, boost::try_to_lock);
    const gint64 start = g_get_monotonic_time();
    if (!attemptLock || start < m_nextAttempt)
    {
        return;
    }
    TGlibPtr<GMainContext> pContext;
    TGlibPtr<GDBusConnection> pConnection;
    TCGlibError error;
    if (HasFreeDescriptors(error.Out()))
    {
        pContext.reset(g_main_context_new());
        pConnection = OwnBusConnection(pContext.get(), CONNECT_TIMEOUT_MS, error.Out());
    }
    // A bus that accepts and does not answer holds this thread up, and is asked less often.
    const bool isHung =
        g_get_monotonic_time() - start >= CONNECT_TIMEOUT_MS * G_TIME_SPAN_MILLISECOND;
    m_nextAttempt = g_get_monotonic_time() + (isHung ? HUNG_GAP_US : ATTEMPT_GAP_US);
    if (pConnection == nullptr)
    {
        QOR_LOG_ERROR("Connecting to system bus error, errno %d", error.Code());
        return;
    }
    if (m_AdoptAgain(boost::make_shared<TCDbusFilter>(std::move(pConnection), std::move(pContext),
                                                      t_objectPath)))
    {
        m_RetryIn(0);
    }
}

// Tries for the lock, and gives up: to wait for it exclusively would stop a callback that asks for
// it shared, while a registration holds it and waits for that callback.
bool TCDbusClient::m_AdoptAgain(const boost::shared_ptr<TCDbusFilter>& filter)
{
    boost::shared_ptr<TCDbusFilter> old; // goes after the lock
    for (int i = 0; i < ADOPT_TRIES; ++i)
    {
        const TExclusiveLock stateLock(t_stateMutex, boost::try_to_lock);
        if (stateLock)
        {
            old = t_pFilter;
            t_isReady = false;
            t_Adopt(filter);
            QOR_LOG_DEBUG("Working with unique name %s", t_uniqueName.c_str());
            return true;
        }
        g_usleep(ADOPT_PAUSE_US);
    }
    return false;
}

void TCDbusClient::m_Lost()
{
    {
        const TExclusiveLock stateLock(t_stateMutex);
        t_isReady = false;
    }
    m_RetryIn(ATTEMPT_INTERVAL_MS);
}

// Any thread. From then on once in the interval, until it succeeds.
void TCDbusClient::m_RetryIn(unsigned int milliseconds)
{
    const TExclusiveLock watchLock(t_watchMutex);
    if (t_IsSevered())
    {
        return;
    }
    if (m_pRetry == nullptr)
    {
        m_pRetry.reset(g_timeout_source_new(ATTEMPT_INTERVAL_MS));
        g_source_set_callback(m_pRetry.get(), &TSSourceHandlers::Retry, t_NewUserData(),
                              RELEASE_DBUS_LINK);
        g_source_attach(m_pRetry.get(), t_pMainContext.get());
    }
    if (milliseconds == 0)
    {
        g_source_set_ready_time(m_pRetry.get(), 0);
    }
}

// What belongs to the main context happens here, whichever thread has found the bus. True when
// done.
bool TCDbusClient::m_Retry()
{
    m_Unwatch();
    t_Withdraw();
    m_FindBusAgain();
    const TExclusiveLock stateLock(t_stateMutex);
    m_pProxy.reset(); // calls do not need it, and to make it blocks
    const TCThreadDefaultContext context(t_pMainContext.get());
    if (t_IsLost() || !t_Export())
    {
        return false;
    }
    m_Watch();
    return true;
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
