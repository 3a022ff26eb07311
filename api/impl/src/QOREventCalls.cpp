// The calls of an event: when they are started, and when they end without an answer.
#include "QOREventDelivery.h"

#include <algorithm>
#include <utility>

#include "QORDbusSession.h"
#include "QORGlibError.h"
#include "QORLimits.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCDbusServer" // whose events these are

namespace qor
{

namespace
{

constexpr int DEFAULT_TIMEOUT_MS = 25000; // the bus library's
constexpr gint64 NEVER = G_MAXINT64;
// The bus has yet to tell the client's user: that is no time of the client's.
constexpr int BUS_PATIENCE_MS = 2000;

gint64 DeadlineAfter(gint64 now, int timeoutMs)
{
    if (timeoutMs == G_MAXINT)
    {
        return NEVER;
    }
    return now + (timeoutMs < 0 ? DEFAULT_TIMEOUT_MS : timeoutMs) * G_TIME_SPAN_MILLISECOND;
}

} // namespace

void TCEventDelivery::m_Enqueue(const TSEventPtr& pEvent, TCalls& calls)
{
    if (m_isFinishing)
    {
        calls.clear(); // without an outcome of their own they are cancelled
    }
    pEvent->m_open = calls.size();
    while (!calls.empty())
    {
        const TCall call = calls.begin();
        TCalls& waiting = call->m_pAccount->m_pUser->m_waiting;
        waiting.splice(waiting.end(), calls, call);
        call->m_deadline = m_deadlines.end();
        m_SetDeadline(call);
    }
    if (pEvent->m_open == 0)
    {
        pEvent->m_onDone(pEvent);
    }
}

// Of a call that waits for a slot, or that has been started now.
void TCEventDelivery::m_SetDeadline(TCall call)
{
    const int timeoutMs = call->m_pEvent->m_timeout;
    const bool isEarly = call->m_pAccount->m_pUser == m_pUnknown && timeoutMs >= 0;
    if (call->m_deadline != m_deadlines.end())
    {
        m_deadlines.erase(call->m_deadline);
    }
    call->m_deadline = m_deadlines.emplace(
        DeadlineAfter(g_get_monotonic_time(),
                      isEarly ? std::max(timeoutMs, BUS_PATIENCE_MS) : timeoutMs),
        call);
}

// Users take turns, one call each, so that no user waits behind another one's calls.
void TCEventDelivery::m_StartCalls()
{
    m_isHeldUp = false;
    bool hasStarted = true;
    while (hasStarted)
    {
        hasStarted = false;
        for (auto i = m_users.begin(); i != m_users.end();)
        {
            TSEventUser& user = *i->second;
            hasStarted = m_StartNext(user) || hasStarted;
            const bool isUnused = i->second.use_count() == 1 && user.m_waiting.empty();
            i = isUnused ? m_users.erase(i) : std::next(i);
        }
    }
}

// A user may have as many unanswered calls as there are free slots: the first user takes at most
// half of all slots, the next one half of the rest, and so on, so that some are left for one more
// user.
bool TCEventDelivery::m_HasRoom(const TSEventUser& user) const
{
    return user.m_unanswered < EVENT_SLOTS - m_started.size();
}

// GDBus queues messages that the bus does not read, without limit. Messages that a lost bus has not
// read are not sent.
bool TCEventDelivery::m_HasRoomToSend(const TSEvent& event)
{
    const std::size_t unsent = m_session.Calls().UnsentBytes();
    m_isHeldUp = unsent != 0 &&
                 unsent + g_variant_get_size(event.m_pEnvelope.get()) > MAX_UNSENT_BYTES &&
                 !m_session.IsClosed();
    return !m_isHeldUp;
}

bool TCEventDelivery::m_StartNext(TSEventUser& user)
{
    if (!m_HasRoom(user))
    {
        return false;
    }
    const TCall call =
        std::find_if(user.m_waiting.begin(), user.m_waiting.end(),
                     [](const TCDbusServer::TSAsyncMessage& waiting)
                     { return waiting.m_pAccount->m_unanswered < EVENT_SLOTS_PER_CLIENT; });
    if (call == user.m_waiting.end() || !m_HasRoomToSend(*call->m_pEvent))
    {
        return false;
    }
    m_Start(user, call);
    return true;
}

// GLib checks each header that is set, but no header that is copied: the event's calls differ in
// one.
TGlibPtr<GDBusMessage> TCEventDelivery::m_NewMessage(const TCDbusServer::TSAsyncMessage& call) const
{
    TGlibPtr<GDBusMessage> pMessage(g_dbus_message_copy(call.m_pEvent->m_pMessage.get(), nullptr));
    g_dbus_message_set_destination(pMessage.get(), g_dbus_proxy_get_name(call.m_pProxy.get()));
    return pMessage;
}

void TCEventDelivery::m_Start(TSEventUser& user, TCall call)
{
    TCGlibError error;
    call->m_serial = m_session.Calls().Call(
        m_NewMessage(*call).get(),
        [this](GDBusMessage* pAnswer)
        {
            m_Post([this, serial = g_dbus_message_get_reply_serial(pAnswer),
                    answer = m_Read(pAnswer)] { m_Answered(serial, answer); });
        },
        error.Out());
    if (call->m_serial == 0)
    {
        m_Fail(call, EDelivery::FAILED, error.Code());
        return;
    }
    m_started.splice(m_started.end(), user.m_waiting, call);
    ++user.m_unanswered;
    ++call->m_pAccount->m_unanswered;
    m_bySerial.emplace(call->m_serial, call);
    m_SetDeadline(call);
}

void TCEventDelivery::m_EndUnstartable()
{
    for (const auto& entry : m_users)
    {
        m_EndUnstartable(*entry.second);
    }
}

// Calls that only an answer which is overdue could make room for.
void TCEventDelivery::m_EndUnstartable(TSEventUser& user)
{
    const bool isUsedUp = user.m_overdue >= EVENT_SLOTS - m_overdue;
    if (isUsedUp && !user.m_isReported && !user.m_waiting.empty())
    {
        QOR_LOG_ERROR("User %u leaves %zu calls unanswered and is not called", user.m_id,
                      user.m_overdue);
        user.m_isReported = true;
    }
    user.m_isReported = user.m_isReported && isUsedUp;
    for (TCall call = user.m_waiting.begin(); call != user.m_waiting.end();)
    {
        const TCall current = call++;
        const TSEventAccount& account = *current->m_pAccount;
        if (account.m_suspended.count(current->m_type) != 0)
        {
            QOR_LOG_DEBUG("Client %s is suspended", account.m_name.c_str());
            m_Store(current, EDelivery::SUSPENDED);
        }
        else if (isUsedUp || account.m_overdue >= EVENT_SLOTS_PER_CLIENT)
        {
            m_Store(current,
                    m_SendUnconfirmed(*current) ? EDelivery::UNCONFIRMED : EDelivery::SUSPENDED);
        }
    }
}

// Sends an event without a slot, so without an answer: once, until the client answers or says Hello
// again. So clients that do not answer cannot keep news from other clients.
bool TCEventDelivery::m_SendUnconfirmed(const TCDbusServer::TSAsyncMessage& call)
{
    TSEventAccount& account = *call.m_pAccount;
    if (account.m_unconfirmed.count(call.m_type) != 0 || !m_HasRoomToSend(*call.m_pEvent))
    {
        return false;
    }
    const TGlibPtr<GDBusMessage> pMessage = m_NewMessage(call);
    g_dbus_message_set_flags(pMessage.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
    if (!g_dbus_connection_send_message(m_session.Connection(), pMessage.get(),
                                        G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr))
    {
        return false;
    }
    QOR_LOG_DEBUG("Client %s is not asked for an answer", account.m_name.c_str());
    account.m_unconfirmed.insert(call.m_type);
    return true;
}

// Whether there was any.
bool TCEventDelivery::m_Expire()
{
    bool hasExpired = false;
    const gint64 now = g_get_monotonic_time();
    while (!m_deadlines.empty() && m_deadlines.begin()->first <= now)
    {
        const TCall call = m_deadlines.begin()->second;
        m_Suspend(*call);
        m_Fail(call, EDelivery::TIMED_OUT, G_IO_ERROR_TIMED_OUT);
        hasExpired = true;
    }
    return hasExpired;
}

// The outcome of a started call is decided, but the bus still waits for its answer.
void TCEventDelivery::m_Suspend(TCDbusServer::TSAsyncMessage& call)
{
    if (call.m_serial != 0)
    {
        TSEventAccount& account = *call.m_pAccount;
        call.m_isOverdue = true;
        account.Suspend(call.m_type);
        ++account.m_overdue;
        ++account.m_pUser->m_overdue;
        ++m_overdue;
    }
}

void TCEventDelivery::m_CancelAll()
{
    while (!m_deadlines.empty())
    {
        const TCall call = m_deadlines.begin()->second;
        m_Suspend(*call);
        m_Store(call, EDelivery::CANCELLED);
    }
}

void TCEventDelivery::m_CheckIdle()
{
    if (m_isFinishing && !m_isIdleTold && m_deadlines.empty())
    {
        m_isIdleTold = true;
        m_Tell([](TSNews& news) { news.m_isIdle = true; });
    }
}

// After the connection has closed no answers come, not even the bus's answer about a client's user.
void TCEventDelivery::m_CheckConnection()
{
    if ((m_deadlines.empty() && m_started.empty()) || !m_session.IsClosed())
    {
        return;
    }
    while (!m_deadlines.empty())
    {
        m_Fail(m_deadlines.begin()->second, EDelivery::FAILED, G_IO_ERROR_CLOSED);
    }
    while (!m_started.empty())
    {
        m_session.Calls().Forget(m_started.front().m_serial);
        m_End(m_started.begin());
    }
}

} // namespace qor
