// The calls of an event: when they are started, what becomes of their answers.
#include "QOREventDelivery.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "QORBusConnection.h"
#include "QORDbusMessage.h"
#include "QORDbusSession.h"
#include "QOREnvelope.h"
#include "QORGlibError.h"
#include "QORLimits.h"
#include "QORLocks.h"
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

// What is kept of an answer: its size is the client's choice.
struct TCEventDelivery::TSAnswer
{
    bool m_isError = false;
    int m_code = 0;           // of an error
    bool m_isNobody = false;  // an error: the bus knows nobody by the name
    bool m_isEmpty = false;   // no value at all
    bool m_isReadable = true; // a value that is a reply envelope
    bool m_result = false;
};

// --- Calls ---------------------------------------------------------------------------------------

void TCEventDelivery::m_Enqueue(const std::vector<TCDbusServer::TSAsyncMessage*>& messages)
{
    for (TCDbusServer::TSAsyncMessage* pMessage : messages)
    {
        TSEventCall::TList& waiting = pMessage->m_pAccount->m_pUser->m_waiting;
        const TCall call = waiting.insert(waiting.end(), TSEventCall{pMessage, pMessage->m_pAccount,
                                                                     pMessage->m_type, 0, false,
                                                                     m_deadlines.end()});
        m_SetDeadline(call);
    }
}

// Of a call that waits for a slot, or that has been started now.
void TCEventDelivery::m_SetDeadline(TCall call)
{
    const int timeoutMs = call->m_pMessage->m_timeout;
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

// In turn, a call for each user, so that none waits behind another's.
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

// A user may have as many calls without an answer as there are free slots: one takes half of all at
// the most, the next half of what that leaves, and so on, so that some are left for one more.
bool TCEventDelivery::m_HasRoom(const TSEventUser& user) const
{
    return user.m_unanswered < EVENT_SLOTS - m_started.size();
}

// GDBus queues what the bus does not read, without limit. What a lost bus has not read is not sent.
bool TCEventDelivery::m_HasRoomToSend(const TSEventCall& call)
{
    const std::size_t unsent = m_session.Calls().UnsentBytes();
    m_isHeldUp = unsent != 0 &&
                 unsent + g_variant_get_size(call.m_pMessage->m_pParameters) > MAX_UNSENT_BYTES &&
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
                     [](const TSEventCall& waiting)
                     { return waiting.m_pAccount->m_unanswered < EVENT_SLOTS_PER_CLIENT; });
    if (call == user.m_waiting.end() || !m_HasRoomToSend(*call))
    {
        return false;
    }
    m_Start(user, call);
    return true;
}

void TCEventDelivery::m_Start(TSEventUser& user, TCall call)
{
    TCDbusServer::TSAsyncMessage& message = *call->m_pMessage;
    GDBusProxy* pProxy = message.m_pProxy.get();
    const TGlibPtr<GDBusMessage> pCall(g_dbus_message_new_method_call(
        g_dbus_proxy_get_name(pProxy), g_dbus_proxy_get_object_path(pProxy),
        g_dbus_proxy_get_interface_name(pProxy), TCDbusServer::t_dbusSendMethod));
    g_dbus_message_set_body(pCall.get(), message.m_pParameters);
    TCGlibError error;
    call->m_serial = m_session.Calls().Call(
        pCall.get(),
        [this](GDBusMessage* pAnswer)
        {
            m_Post([this, serial = g_dbus_message_get_reply_serial(pAnswer),
                    answer = m_Read(pAnswer)] { m_Answered(serial, answer); });
        },
        error.Out());
    if (call->m_serial == 0)
    {
        m_Fail(call, error.Code());
        return;
    }
    m_started.splice(m_started.end(), user.m_waiting, call);
    ++user.m_unanswered;
    ++call->m_pAccount->m_unanswered;
    m_bySerial.emplace(call->m_serial, call);
    m_SetDeadline(call);
}

void TCEventDelivery::m_FailUnstartable()
{
    for (const auto& entry : m_users)
    {
        m_FailUnstartable(*entry.second);
    }
}

// Calls that only an answer which is overdue could make room for.
void TCEventDelivery::m_FailUnstartable(TSEventUser& user)
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
        const bool isSuspended = account.m_suspended.count(current->m_type) != 0 ||
                                 account.m_overdue >= EVENT_SLOTS_PER_CLIENT;
        if (isSuspended)
        {
            QOR_LOG_DEBUG("Client %s is suspended", account.m_name.c_str());
        }
        if (isSuspended || isUsedUp)
        {
            m_Store(current, false);
        }
    }
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
        m_Fail(call, G_IO_ERROR_TIMED_OUT);
        hasExpired = true;
    }
    return hasExpired;
}

// The outcome of a started call is decided, but the bus still waits for its answer.
void TCEventDelivery::m_Suspend(TSEventCall& call)
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

// No answer comes any more, not even that of the bus to the question whose client somebody is.
void TCEventDelivery::m_CheckConnection()
{
    if ((m_deadlines.empty() && m_started.empty()) || !m_session.IsClosed())
    {
        return;
    }
    while (!m_deadlines.empty())
    {
        m_Fail(m_deadlines.begin()->second, G_IO_ERROR_CLOSED);
    }
    while (!m_started.empty())
    {
        m_session.Calls().Forget(m_started.front().m_serial);
        m_End(m_started.begin());
    }
}

// --- Answers and outcomes ------------------------------------------------------------------------

// On the worker thread: the message goes away here.
TCEventDelivery::TSAnswer TCEventDelivery::m_Read(GDBusMessage* pMessage)
{
    TSAnswer answer;
    if (IsErrorReply(pMessage, answer.m_code))
    {
        answer.m_isError = true;
        const char* sender = g_dbus_message_get_sender(pMessage);
        answer.m_isNobody = sender != nullptr && std::strcmp(sender, BUS_NAME) == 0 &&
                            (answer.m_code == G_DBUS_ERROR_SERVICE_UNKNOWN ||
                             answer.m_code == G_DBUS_ERROR_NAME_HAS_NO_OWNER);
        return answer;
    }
    GVariant* pBody = g_dbus_message_get_body(pMessage);
    answer.m_isEmpty = pBody == nullptr;
    answer.m_isReadable = !answer.m_isEmpty && ReadReplyResult(pBody, answer.m_result);
    return answer;
}

void TCEventDelivery::m_Answered(std::uint32_t serial, const TSAnswer& answer)
{
    const auto found = m_bySerial.find(serial);
    if (found == m_bySerial.end())
    {
        return;
    }
    const TCall call = found->second;
    const std::string& name = call->m_pAccount->m_name;
    if (answer.m_isNobody)
    {
        bool isFirst = false;
        {
            const TCPosixLock lock(m_inboxMutex);
            isFirst = m_gone.empty();
            m_gone.push_back(name);
        }
        if (isFirst)
        {
            m_onGone();
        }
    }
    if (call->m_pMessage != nullptr)
    {
        if (answer.m_isError)
        {
            m_Fail(call, answer.m_code);
        }
        else
        {
            m_Store(call, m_Judge(answer, name.c_str()));
        }
    }
    m_End(call);
}

bool TCEventDelivery::m_Judge(const TSAnswer& answer, const char* name)
{
    if (answer.m_isEmpty)
    {
        QOR_LOG_DEBUG("Result is null");
    }
    else if (!answer.m_isReadable)
    {
        QOR_ASSERT_FAILED();
    }
    if (!answer.m_result)
    {
        QOR_LOG_DEBUG("Sending message to %s failed", name);
    }
    return answer.m_result;
}

void TCEventDelivery::m_Fail(TCall call, int code)
{
    if (call->m_pMessage != nullptr)
    {
        QOR_LOG_ERROR("Sending message from %s error, errno %d", call->m_pAccount->m_name.c_str(),
                      code);
        m_Store(call, false);
    }
}

// A call that has not been started ends with that.
void TCEventDelivery::m_Store(TCall call, bool outcome)
{
    m_deadlines.erase(call->m_deadline);
    call->m_deadline = m_deadlines.end();
    TCDbusServer::TSAsyncMessage* pMessage = std::exchange(call->m_pMessage, nullptr);
    if (call->m_serial == 0)
    {
        call->m_pAccount->m_pUser->m_waiting.erase(call);
    }
    pMessage->m_promise.set_value(outcome); // the message may be gone from here on
}

// An answer, or the end of who would have given it: the slot is free.
void TCEventDelivery::m_End(TCall call)
{
    TSEventAccount& account = *call->m_pAccount;
    --account.m_unanswered;
    --account.m_pUser->m_unanswered;
    if (call->m_isOverdue)
    {
        --account.m_overdue;
        --account.m_pUser->m_overdue;
        --m_overdue;
        account.Resume(call->m_type);
    }
    m_bySerial.erase(call->m_serial);
    m_started.erase(call);
}

} // namespace qor
