// Delivers events on the server's loop thread, within the slots that a bus has for them.
#include "QOREventDelivery.h"

#include <algorithm>
#include <utility>

#include <boost/make_shared.hpp>

#include "QORBusConnection.h"
#include "QORDbusSession.h"
#include "QORLimits.h"
#include "QORLocks.h"

namespace qor
{

namespace
{

constexpr std::uint32_t UNKNOWN_USER = UINT32_MAX;
// A connection that closes tells nobody on this thread, so it is looked at.
constexpr gint64 CLOSED_CHECK_US = 100 * G_TIME_SPAN_MILLISECOND;
// Neither does a call that has been written, which takes a while where they are large.
constexpr gint64 SENT_CHECK_US = 2 * G_TIME_SPAN_MILLISECOND;

} // namespace

// --- Posting -------------------------------------------------------------------------------------

TCEventDelivery::TCEventDelivery(GMainContext* pContext, TCDbusSession& session,
                                 std::function<void()> onGone)
    : m_session(session),
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
    const TCPosixLock lock(m_inboxMutex);
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

void TCEventDelivery::RenewClient(const TAccountPtr& pAccount)
{
    m_Post(
        [pAccount]
        {
            if (pAccount->m_overdue < EVENT_SLOTS_PER_CLIENT)
            {
                pAccount->m_suspended.clear();
                pAccount->m_isSuspended = false;
            }
        });
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
                const TCall call = m_deadlines.begin()->second;
                m_Suspend(*call);
                m_Store(call, false);
            }
        });
}

std::vector<std::string> TCEventDelivery::TakeGone()
{
    const TCPosixLock lock(m_inboxMutex);
    return std::exchange(m_gone, {});
}

// --- The loop thread -----------------------------------------------------------------------------

void TCEventDelivery::m_Work()
{
    std::vector<std::function<void()>> inbox;
    {
        const TCPosixLock lock(m_inboxMutex);
        inbox.swap(m_inbox);
    }
    for (const auto& work : inbox)
    {
        work();
    }
    m_CheckConnection();
    m_FailUnstartable();
    m_StartCalls(); // before their timeouts are looked at: one of 0 is a call, too
    if (m_Expire())
    {
        m_FailUnstartable();
    }
    m_SleepUntilNext();
}

void TCEventDelivery::m_SleepUntilNext()
{
    gint64 next = -1;
    if (!m_deadlines.empty())
    {
        next = std::min(m_deadlines.begin()->first,
                        g_get_monotonic_time() + (m_isHeldUp ? SENT_CHECK_US : CLOSED_CHECK_US));
    }
    const TCPosixLock lock(m_inboxMutex);
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
    if (m_session.Calls().Call(pCall.get(), onAnswer, nullptr) == 0)
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
            m_SetDeadline(call);
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
            m_session.Calls().Forget(current->m_serial);
            m_Fail(current, G_DBUS_ERROR_NO_REPLY);
            m_End(current);
        }
    }
}

} // namespace qor
