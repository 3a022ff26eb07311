// How a client watches its bus, and finds it again.
#include <qor/QORDbusClient.h>

#include <utility>

#include <boost/make_shared.hpp>

#include <gio/gio.h>
#include <glib-unix.h>

#include "QORBusConnection.h"
#include "QORDbusContext.h"
#include "QORDbusFilter.h"
#include "QORDbusLink.h"
#include "QORGlibError.h"
#include "QORLocks.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCDbusClient"

namespace qor
{

namespace
{

// After the bus is lost: how often and how long it is looked for.
constexpr unsigned int ATTEMPT_INTERVAL_MS = 1000;
constexpr gint64 ATTEMPT_GAP_US = 900 * G_TIME_SPAN_MILLISECOND; // less than a timer's interval
constexpr int CONNECT_TIMEOUT_MS = 2000;
constexpr gint64 HUNG_GAP_US = 20 * G_TIME_SPAN_SECOND;
constexpr int ADOPT_TRIES = 100;
constexpr gulong ADOPT_PAUSE_US = 5000;

} // namespace

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

} // namespace qor
