// How a client watches its bus, and finds it again.
#include <qor/QORDbusClient.h>

#include <limits>
#include <utility>

#include <boost/make_shared.hpp>

#include <gio/gio.h>

#include "QORBusConnection.h"
#include "QORDbusContext.h"
#include "QORDbusLink.h"
#include "QORDbusSession.h"
#include "QORDbusStates.h"
#include "QORGlibError.h"
#include "QORLocks.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCDbusClient"

namespace qor
{

namespace
{

// After the bus is lost: how often it is looked for.
constexpr unsigned int ATTEMPT_INTERVAL_MS = 1000;
constexpr gint64 ATTEMPT_GAP_US = 900 * G_TIME_SPAN_MILLISECOND; // less than the timer's interval
constexpr gint64 HUNG_GAP_US = 20 * G_TIME_SPAN_SECOND;
constexpr std::int64_t UNDER_WAY = std::numeric_limits<std::int64_t>::max();

// Says when the next attempt to connect may be, however this one ends.
struct TSAttempt
{
    ~TSAttempt()
    {
        // A bus that accepts and does not answer holds a thread up, and is asked less often.
        const gint64 end = g_get_monotonic_time();
        const bool isHung =
            !m_isGood && end - m_start >= CONNECT_TIMEOUT_MS * G_TIME_SPAN_MILLISECOND;
        m_next = end + (isHung ? HUNG_GAP_US : ATTEMPT_GAP_US);
    }

    std::atomic<std::int64_t>& m_next;
    const gint64 m_start;
    bool m_isGood = false;
};

} // namespace

// In the main context, or with it as the thread's default.
void TCDbusClient::m_Watch(const TSessionPtr& session)
{
    const TExclusiveLock lock(t_watchMutex);
    if (t_IsSevered())
    {
        return;
    }
    m_watcherId = g_bus_watch_name_on_connection(
        session->Connection(), t_busName, G_BUS_NAME_WATCHER_FLAGS_NONE,
        &TCDbusClient::m_NameAppeared, &TCDbusClient::m_NameVanished, t_NewUserData(),
        RELEASE_DBUS_LINK);
    m_pHangUp = NewHangUpSource(session->Connection()); // held as long as the object is exported
    g_source_set_callback(m_pHangUp.get(), G_SOURCE_FUNC(&TCDbusClient::m_HungUp), t_NewUserData(),
                          RELEASE_DBUS_LINK);
    g_source_attach(m_pHangUp.get(), t_pMainContext.get());
}

void TCDbusClient::m_Unwatch()
{
    const TExclusiveLock lock(t_watchMutex);
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
}

int TCDbusClient::m_HungUp(int /*descriptor*/, unsigned int /*condition*/, void* pUserData)
{
    const TCDbusEntry entry(pUserData);
    QOR_LOG_DEBUG("The connection to the bus is closed");
    entry.Run<TCDbusClient>([](TCDbusClient& client) { client.m_Lost(); });
    return G_SOURCE_REMOVE;
}

void TCDbusClient::m_Lost()
{
    t_isReady = false;
    m_pRecovery->SetIn(ATTEMPT_INTERVAL_MS);
    m_pStates->SetBus(false);
}

// The session to work with; any thread may call it. If the bus is lost, one thread at a time looks
// for it: a thread that calls meanwhile, or too soon after the last attempt, gets the lost session.
// The recovery in the main context does what a new session needs there. A caller whose time is
// over, or that cancels, ends its attempt.
TCDbusClient::TSessionPtr TCDbusClient::m_FindBus(std::int64_t deadline,
                                                  const TCCancellation& cancellation)
{
    TSessionPtr session = t_Session();
    if (!m_IsStarted() || !session->IsClosed())
    {
        return session;
    }
    const gint64 start = g_get_monotonic_time();
    std::int64_t due = m_nextAttempt;
    if (start < due || !m_nextAttempt.compare_exchange_strong(due, UNDER_WAY))
    {
        return session;
    }
    TSAttempt attempt{m_nextAttempt, start};
    TGlibPtr<GMainContext> pContext;
    TGlibPtr<GDBusConnection> pConnection;
    TCGlibError error;
    if (HasFreeDescriptors(error.Out()))
    {
        pContext.reset(g_main_context_new());
        pConnection = OwnBusConnection(pContext.get(), deadline, cancellation, error.Out());
    }
    if (pConnection == nullptr)
    {
        QOR_LOG_ERROR("Connecting to system bus error, errno %d", error.Code());
        return session;
    }
    attempt.m_isGood = true;
    auto found = boost::make_shared<TCDbusSession>(std::move(pConnection), std::move(pContext),
                                                   t_objectPath);
    t_isReady = false;
    t_SetSession(found);
    QOR_LOG_DEBUG("Working with unique name %s", found->UniqueName().c_str());
    m_pRecovery->SetIn(0);
    return found;
}

// In the main context, whichever thread finds the bus.
void TCDbusClient::m_Recover()
{
    const TSessionPtr session = m_FindBus(NO_DEADLINE, TCCancellation());
    if (t_IsExportedOn(session) && !session->IsClosed())
    {
        return;
    }
    m_Unwatch();
    t_Unexport();
    t_isReady = false;
    {
        TGlibPtr<GDBusProxy> pProxy; // goes after the lock; calls do not need it
        const TExclusiveLock lock(t_stateMutex);
        m_pProxy.swap(pProxy);
    }
    m_pStates->SetBus(false); // where another thread was first to see it
    const TCThreadDefaultContext context(t_pMainContext.get());
    if (session->IsClosed() || !t_Export(session))
    {
        m_pRecovery->SetIn(ATTEMPT_INTERVAL_MS);
        return;
    }
    m_Watch(session);
    m_pStates->SetBus(true);
}

} // namespace qor
