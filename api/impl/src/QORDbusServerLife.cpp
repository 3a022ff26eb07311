// The life of the service on the bus: its name, the connection, its end.
#include <qor/QORDbusServer.h>

#include <string>
#include <utility>

#include <gio/gio.h>

#include "QORBusConnection.h"
#include "QORDbusContext.h"
#include "QORDbusLink.h"
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

// For a bus that does not read, when everything else has ended.
constexpr unsigned int FLUSH_LIMIT_MS = 500;

enum ENameAnswer
{
    NONE,
    QUEUED,
    NOT_QUEUED
};

// Whether the answer's list of names has this one.
ENameAnswer ReadOwners(GDBusMessage* pAnswer, const std::string& name)
{
    GVariant* pBody = g_dbus_message_get_body(pAnswer);
    if (pBody == nullptr || !g_variant_is_of_type(pBody, G_VARIANT_TYPE("(as)")))
    {
        return NOT_QUEUED;
    }
    const TGlibPtr<GVariant> pNames(g_variant_get_child_value(pBody, 0));
    for (gsize i = 0; i < g_variant_n_children(pNames.get()); ++i)
    {
        const TGlibPtr<GVariant> pName(g_variant_get_child_value(pNames.get(), i));
        if (name == g_variant_get_string(pName.get(), nullptr))
        {
            return QUEUED;
        }
    }
    return NOT_QUEUED;
}

TGlibPtr<GDBusMessage> NewBusCall(const char* method)
{
    return TGlibPtr<GDBusMessage>(
        g_dbus_message_new_method_call(BUS_NAME, BUS_PATH, BUS_NAME, method));
}

} // namespace

// --- The state -----------------------------------------------------------------------------------

EServiceState TCDbusServer::State()
{
    if (!t_IsInOwnProcess())
    {
        return EServiceState::BUS_CLOSED;
    }
    const TSharedLock lock(t_stateMutex);
    return m_state;
}

void TCDbusServer::SetStateCallback(const boost::function<void(EServiceState)>& callback)
{
    if (!t_IsInOwnProcess())
    {
        return;
    }
    boost::function<void(EServiceState)> last(callback); // goes after the lock: it is the caller's
    {
        const TLock lock(m_stateCallbackMutex);
        m_stateCallback.swap(last);
        m_toldState = EServiceState::STARTING;
    }
    if (m_pStateNews != nullptr)
    {
        m_pStateNews->SetIn(0);
    }
}

void TCDbusServer::m_SetState(EServiceState state)
{
    {
        const TExclusiveLock lock(t_stateMutex);
        if (m_state == state || m_state == EServiceState::BUS_CLOSED)
        {
            return;
        }
        m_state = state;
    }
    m_TellState();
}

// The lock is this function's own: the service may set message callbacks from its function.
void TCDbusServer::m_TellState()
{
    const EServiceState state = State();
    const TLock lock(m_stateCallbackMutex);
    if (state != m_toldState && m_stateCallback)
    {
        m_toldState = state;
        m_stateCallback(state);
    }
}

int TCDbusServer::m_HungUp(int /*descriptor*/, unsigned int /*condition*/, void* pUserData)
{
    const TCDbusEntry entry(pUserData);
    QOR_LOG_DEBUG("The connection to the bus is closed");
    entry.Run<TCDbusServer>([](TCDbusServer& server)
                            { server.m_SetState(EServiceState::BUS_CLOSED); });
    return G_SOURCE_REMOVE;
}

// GLib reports a name that is queued for, one that is refused and one that is taken away alike.
void TCDbusServer::m_AskWhoHasTheName()
{
    const TSessionPtr session = t_Session();
    if (session->IsClosed())
    {
        m_SetState(EServiceState::BUS_CLOSED);
        return;
    }
    if (t_isReady)
    {
        m_SetState(EServiceState::LOST);
        return;
    }
    const TGlibPtr<GDBusMessage> pCall = NewBusCall("ListQueuedOwners");
    g_dbus_message_set_body(pCall.get(), g_variant_new("(s)", t_busName));
    session->Calls().Call(
        pCall.get(),
        [this, name = session->UniqueName()](GDBusMessage* pAnswer)
        {
            m_nameAnswer = ReadOwners(pAnswer, name);
            m_pNameNews->SetIn(0);
        },
        nullptr);
}

void TCDbusServer::m_LearnWhoHasTheName()
{
    const int answer = m_nameAnswer.exchange(NONE);
    if (answer != NONE && !t_isReady) // else it has become ours meanwhile
    {
        m_SetState(answer == QUEUED ? EServiceState::QUEUED : EServiceState::REFUSED);
    }
}

// --- The end -------------------------------------------------------------------------------------

bool TCDbusServer::Stop(unsigned int limit, const boost::function<void()>& onStopped)
{
    if (!t_IsInOwnProcess() || !m_thread.joinable() || m_pStop->m_hasBegun.exchange(true))
    {
        return false;
    }
    t_Session()->Admission().Close();
    m_pStop->m_onStopped = onStopped;
    m_pStop->m_deadline = g_get_monotonic_time() + limit * G_TIME_SPAN_MILLISECOND;
    m_pStop->m_pTimer->SetIn(limit); // before the main context may set it for the next step
    m_pDelivery->Finish();
    return true;
}

// Each time that something has ended which it waits for, or a limit is reached.
void TCDbusServer::m_GoOnStopping()
{
    TSStop& stop = *m_pStop;
    if (stop.m_isOver)
    {
        return;
    }
    const bool isLate = g_get_monotonic_time() >= stop.m_deadline;
    if (!stop.m_isIdle)
    {
        if (isLate && !std::exchange(stop.m_isCancelled, true))
        {
            m_pDelivery->Finish(); // Stop may not have got there yet
            m_pDelivery->Cancel(); // which ends the rest at once, and comes back here
        }
        return;
    }
    if (!std::exchange(stop.m_isFlushing, true))
    {
        m_FlushAndGoOn();
        return;
    }
    if (!stop.m_isWritten && !isLate)
    {
        return;
    }
    if (!std::exchange(stop.m_isLastTurn, true))
    {
        // Calls that came in before the end began are in the main context by now, and go first.
        stop.m_pTimer->SetIn(0);
        return;
    }
    if (stop.m_isWritten) // else the bus does not answer that either
    {
        m_GiveUpName();
    }
    stop.m_isOver = true;
    if (stop.m_onStopped)
    {
        stop.m_onStopped();
    }
}

// The bus's answer shows that it has read all that was written before.
void TCDbusServer::m_FlushAndGoOn()
{
    m_pStop->m_deadline = g_get_monotonic_time() + FLUSH_LIMIT_MS * G_TIME_SPAN_MILLISECOND;
    m_pStop->m_pTimer->SetIn(FLUSH_LIMIT_MS); // first: the answer sets it as well
    const unsigned int serial = t_Session()->Calls().Call(
        NewBusCall("GetId").get(),
        [this](GDBusMessage*)
        {
            m_pStop->m_isWritten = true;
            m_pStop->m_pTimer->SetIn(0);
        },
        nullptr);
    if (serial == 0)
    {
        m_pStop->m_deadline = 0;
        m_pStop->m_pTimer->SetIn(0);
    }
}

} // namespace qor
