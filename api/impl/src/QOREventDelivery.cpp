// Delivers events on the server's loop thread, within the slots that a bus has for them.
#include "QOREventDelivery.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <boost/make_shared.hpp>

#include "QORDbusFilter.h"
#include "QOREnvelope.h"
#include "QORGlibError.h"
#include "QORLimits.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCEventDelivery"

namespace qor
{

namespace
{

constexpr const char* BUS_NAME = "org.freedesktop.DBus";
constexpr std::uint32_t UNKNOWN_USER = UINT32_MAX;
constexpr int DEFAULT_TIMEOUT_MS = 25000; // the bus library's
constexpr gint64 NEVER = G_MAXINT64;
// A connection that closes tells nobody on this thread, so it is looked at.
constexpr gint64 CLOSED_CHECK_US = 100 * G_TIME_SPAN_MILLISECOND;
// Neither does a call that has been written, which takes a while where they are large.
constexpr gint64 SENT_CHECK_US = 2 * G_TIME_SPAN_MILLISECOND;

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

// --- Posting -------------------------------------------------------------------------------------

TCEventDelivery::TCEventDelivery(GMainContext* pContext, TCDbusFilter& filter,
                                 std::function<void()> onGone)
    : m_filter(filter),
      m_onGone(std::move(onGone)),
      m_pUnknown(std::make_shared<TSEventUser>(UNKNOWN_USER)),
      m_overdue(0),
      m_isHeldUp(false)
{
    static GSourceFuncs functions{nullptr, nullptr, &TCEventDelivery::m_Dispatch,
                                  nullptr, nullptr, nullptr};
    m_pSource.reset(g_source_new(&functions, sizeof(GSource)));
    g_source_set_callback(m_pSource.get(), nullptr, this, nullptr);
    g_source_attach(m_pSource.get(), pContext);
}

TCEventDelivery::~TCEventDelivery()
{
    g_source_destroy(m_pSource.get());
}

int TCEventDelivery::m_Dispatch(GSource* /*pSource*/, GSourceFunc /*callback*/, void* pDelivery)
{
    static_cast<TCEventDelivery*>(pDelivery)->m_Work();
    return G_SOURCE_CONTINUE;
}

void TCEventDelivery::m_Post(std::function<void()> work)
{
    const std::lock_guard<std::mutex> lock(m_inboxMutex);
    m_inbox.push_back(std::move(work));
    if (m_inbox.size() == 1)
    {
        g_source_set_ready_time(m_pSource.get(), 0);
    }
}

TCEventDelivery::TAccountPtr TCEventDelivery::AddClient(const std::string& name)
{
    TAccountPtr pAccount = boost::make_shared<TSEventAccount>(name);
    m_Post(
        [this, pAccount]
        {
            pAccount->m_pUser = m_pUnknown;
            m_AskForUser(pAccount);
        });
    return pAccount;
}

void TCEventDelivery::WelcomeClient(const TAccountPtr& pAccount)
{
    m_Post([pAccount] { pAccount->m_isSuspended = pAccount->m_overdue >= EVENT_SLOTS_PER_CLIENT; });
}

void TCEventDelivery::RemoveClient(const TAccountPtr& pAccount)
{
    m_Post([this, pAccount] { m_Remove(pAccount); });
}

void TCEventDelivery::Deliver(TMessages& messages)
{
    std::vector<TCDbusServer::TSAsyncMessage*> all;
    all.reserve(messages.size());
    for (TCDbusServer::TSAsyncMessage& message : messages)
    {
        all.push_back(&message);
    }
    m_Post([this, all = std::move(all)] { m_Enqueue(all); });
}

void TCEventDelivery::Cancel()
{
    m_Post(
        [this]
        {
            while (!m_deadlines.empty())
            {
                m_Store(m_deadlines.begin()->second, false);
            }
        });
}

std::vector<std::string> TCEventDelivery::TakeGone()
{
    const std::lock_guard<std::mutex> lock(m_inboxMutex);
    return std::exchange(m_gone, {});
}

// --- The loop thread -----------------------------------------------------------------------------

void TCEventDelivery::m_Work()
{
    std::vector<std::function<void()>> inbox;
    {
        const std::lock_guard<std::mutex> lock(m_inboxMutex);
        inbox.swap(m_inbox);
    }
    for (const auto& work : inbox)
    {
        work();
    }
    m_Expire();
    m_CheckConnection();
    m_StartCalls();
    m_SleepUntilNext();
}

void TCEventDelivery::m_SleepUntilNext()
{
    gint64 next = m_deadlines.empty() ? -1 : m_deadlines.begin()->first;
    if ((m_isHeldUp || !m_bySerial.empty()) && !m_deadlines.empty())
    {
        next =
            std::min(next, g_get_monotonic_time() + (m_isHeldUp ? SENT_CHECK_US : CLOSED_CHECK_US));
    }
    const std::lock_guard<std::mutex> lock(m_inboxMutex);
    g_source_set_ready_time(m_pSource.get(), m_inbox.empty() ? next : 0);
}

// --- Clients and their users ---------------------------------------------------------------------

void TCEventDelivery::m_AskForUser(const TAccountPtr& pAccount)
{
    const TGlibPtr<GDBusMessage> pCall(g_dbus_message_new_method_call(
        BUS_NAME, "/org/freedesktop/DBus", BUS_NAME, "GetConnectionUnixUser"));
    g_dbus_message_set_body(pCall.get(), g_variant_new("(s)", pAccount->m_name.c_str()));
    const auto onAnswer = [this, pAccount](GDBusMessage* pAnswer)
    {
        guint32 userId = UNKNOWN_USER; // as after an error: one share for all of those
        GVariant* pBody = g_dbus_message_get_body(pAnswer);
        if (pBody != nullptr && g_variant_is_of_type(pBody, G_VARIANT_TYPE("(u)")))
        {
            g_variant_get(pBody, "(u)", &userId);
        }
        m_Post([this, pAccount, userId] { m_SetUser(pAccount, userId); });
    };
    if (m_filter.Call(pCall.get(), onAnswer, nullptr) == 0)
    {
        m_SetUser(pAccount, UNKNOWN_USER);
    }
}

void TCEventDelivery::m_SetUser(const TAccountPtr& pAccount, std::uint32_t userId)
{
    std::shared_ptr<TSEventUser>& pUser = m_users[userId];
    if (pUser == nullptr)
    {
        pUser = std::make_shared<TSEventUser>(userId);
    }
    pAccount->m_pUser = pUser;
    TSEventCall::TList& waiting = m_pUnknown->m_waiting;
    for (TCall call = waiting.begin(); call != waiting.end();)
    {
        const TCall next = std::next(call);
        if (call->m_pAccount == pAccount)
        {
            pUser->m_waiting.splice(pUser->m_waiting.end(), waiting, call);
        }
        call = next;
    }
}

// The bus answers what a client that leaves has left open; this is for one that answers nothing.
void TCEventDelivery::m_Remove(const TAccountPtr& pAccount)
{
    for (TCall call = m_started.begin(); call != m_started.end();)
    {
        const TCall current = call++;
        if (current->m_pAccount == pAccount)
        {
            m_filter.Forget(current->m_serial);
            m_Fail(current, G_DBUS_ERROR_NO_REPLY);
            m_End(current);
        }
    }
}

// --- Calls ---------------------------------------------------------------------------------------

void TCEventDelivery::m_Enqueue(const std::vector<TCDbusServer::TSAsyncMessage*>& messages)
{
    const gint64 now = g_get_monotonic_time();
    for (TCDbusServer::TSAsyncMessage* pMessage : messages)
    {
        TSEventCall::TList& waiting = pMessage->m_pAccount->m_pUser->m_waiting;
        const TCall call = waiting.insert(waiting.end(), TSEventCall{pMessage, pMessage->m_pAccount,
                                                                     0, false, m_deadlines.end()});
        call->m_deadline = m_deadlines.emplace(DeadlineAfter(now, pMessage->m_timeout), call);
    }
}

// In turn, a call for each user, so that none waits behind another's.
void TCEventDelivery::m_StartCalls()
{
    for (const auto& entry : m_users)
    {
        m_DropHopeless(*entry.second);
    }
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

// The last slots are for users who leave nothing unanswered: several that do cannot take all.
bool TCEventDelivery::m_HasRoom(const TSEventUser& user) const
{
    const std::size_t free = EVENT_SLOTS - m_started.size();
    if (free == 0 || user.m_unanswered >= EVENT_SLOTS_PER_USER)
    {
        return false;
    }
    return free > EVENT_SLOTS_IN_RESERVE ||
           (user.m_overdue == 0 && user.m_unanswered < EVENT_SLOTS_IN_RESERVE / 2 + 1);
}

// GDBus queues what the bus does not read, without limit.
bool TCEventDelivery::m_HasRoomToSend(const TSEventCall& call)
{
    const std::size_t unsent = m_filter.UnsentBytes();
    m_isHeldUp = unsent != 0 &&
                 unsent + g_variant_get_size(call.m_pMessage->m_pParameters) > MAX_UNSENT_BYTES;
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
    call->m_serial = m_filter.Call(
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
    m_deadlines.erase(call->m_deadline);
    call->m_deadline =
        m_deadlines.emplace(DeadlineAfter(g_get_monotonic_time(), message.m_timeout), call);
}

// Calls that no answer in sight could make room for.
void TCEventDelivery::m_DropHopeless(TSEventUser& user)
{
    const bool isUsedUp =
        user.m_overdue >= EVENT_SLOTS_PER_USER || m_overdue >= EVENT_SLOTS ||
        (user.m_overdue != 0 && EVENT_SLOTS - m_overdue <= EVENT_SLOTS_IN_RESERVE);
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
        if (account.m_isSuspended)
        {
            QOR_LOG_DEBUG("Client %s is suspended", account.m_name.c_str());
        }
        if (account.m_isSuspended || isUsedUp)
        {
            m_Store(current, false);
        }
    }
}

void TCEventDelivery::m_Expire()
{
    const gint64 now = g_get_monotonic_time();
    while (!m_deadlines.empty() && m_deadlines.begin()->first <= now)
    {
        const TCall call = m_deadlines.begin()->second;
        if (call->m_serial != 0)
        {
            TSEventAccount& account = *call->m_pAccount;
            call->m_isOverdue = true;
            account.m_isSuspended = true;
            ++account.m_overdue;
            ++account.m_pUser->m_overdue;
            ++m_overdue;
        }
        m_Fail(call, G_IO_ERROR_TIMED_OUT);
    }
}

// No answer comes any more.
void TCEventDelivery::m_CheckConnection()
{
    if (m_bySerial.empty() || !m_filter.IsClosed())
    {
        return;
    }
    while (!m_started.empty())
    {
        m_filter.Forget(m_started.front().m_serial);
        m_Fail(m_started.begin(), G_IO_ERROR_CLOSED);
        m_End(m_started.begin());
    }
}

// --- Answers and outcomes ------------------------------------------------------------------------

// On the worker thread: the message goes away here.
TCEventDelivery::TSAnswer TCEventDelivery::m_Read(GDBusMessage* pMessage)
{
    TSAnswer answer;
    TCGlibError error;
    if (g_dbus_message_to_gerror(pMessage, error.Out()))
    {
        answer.m_isError = true;
        answer.m_code = error.Code();
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
            const std::lock_guard<std::mutex> lock(m_inboxMutex);
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
        account.m_isSuspended = false;
    }
    m_bySerial.erase(call->m_serial);
    m_started.erase(call);
}

} // namespace qor
