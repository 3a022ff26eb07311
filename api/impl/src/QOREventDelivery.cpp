// Delivers events on the server's loop thread, within the slots that a bus has for them.
#include "QOREventDelivery.h"

#include <algorithm>
#include <utility>

#include <boost/make_shared.hpp>

#include "QORDbusPeers.h"
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

TCEventDelivery::TCEventDelivery(GMainContext* pContext, TCDbusSession& session, TCDbusPeers& peers,
                                 std::function<void()> onNews)
    : m_session(session),
      m_peers(peers),
      m_onNews(std::move(onNews)),
      m_hasNews(false),
      m_pUnknown(std::make_shared<TSEventUser>(UNKNOWN_USER)),
      m_overdue(0),
      m_isHeldUp(false),
      m_isFinishing(false),
      m_isIdleTold(false)
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
    m_Post([this, pAccount] { pAccount->m_pUser = m_pUnknown; });
    m_peers.Ask(name,
                [this, pAccount](const TSPeer& peer)
                {
                    // What the bus does not tell has one share together.
                    const std::uint32_t user = peer.m_isKnown ? peer.m_userId : UNKNOWN_USER;
                    m_Post([this, pAccount, user] { m_SetUser(pAccount, user); });
                });
    m_peers.Keep(name);
    return pAccount;
}

void TCEventDelivery::RenewClient(const TAccountPtr& pAccount)
{
    m_Post(
        [pAccount]
        {
            if (pAccount->m_overdue < EVENT_SLOTS_PER_CLIENT)
            {
                pAccount->ResumeAll();
            }
        });
}

void TCEventDelivery::RemoveClient(const TAccountPtr& pAccount)
{
    m_peers.Forget(pAccount->m_name);
    m_Post([this, pAccount] { m_Remove(pAccount); });
}

void TCEventDelivery::Deliver(const TSEventPtr& pEvent, TCalls calls)
{
    const auto pCalls = std::make_shared<TCalls>(std::move(calls));
    m_Post([this, pEvent, pCalls] { m_Enqueue(pEvent, *pCalls); });
}

void TCEventDelivery::Cancel()
{
    m_Post([this] { m_CancelAll(); });
}

void TCEventDelivery::Finish()
{
    m_Post([this] { m_isFinishing = true; });
}

// --- News for the main context -------------------------------------------------------------------

void TCEventDelivery::m_Tell(const std::function<void(TSNews&)>& tell)
{
    bool isFirst = false;
    {
        const TCPosixLock lock(m_inboxMutex);
        tell(m_news);
        isFirst = !std::exchange(m_hasNews, true);
    }
    if (isFirst)
    {
        m_onNews();
    }
}

void TCEventDelivery::TellDone(const TSEventPtr& pEvent)
{
    m_Tell([&pEvent](TSNews& news) { news.m_done.push_back(pEvent); });
}

TCEventDelivery::TSNews TCEventDelivery::TakeNews()
{
    const TCPosixLock lock(m_inboxMutex);
    m_hasNews = false;
    return std::exchange(m_news, {});
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
    m_EndUnstartable();
    m_StartCalls(); // before their timeouts are looked at: one of 0 is a call, too
    if (m_Expire())
    {
        m_EndUnstartable();
    }
    m_CheckIdle();
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

void TCEventDelivery::m_SetUser(const TAccountPtr& pAccount, std::uint32_t userId)
{
    std::shared_ptr<TSEventUser>& pUser = m_users[userId];
    if (pUser == nullptr)
    {
        pUser = std::make_shared<TSEventUser>(userId);
    }
    pAccount->m_pUser = pUser;
    TCalls& waiting = m_pUnknown->m_waiting;
    for (TCall call = waiting.begin(); call != waiting.end();)
    {
        const TCall current = call++;
        if (current->m_pAccount == pAccount)
        {
            pUser->m_waiting.splice(pUser->m_waiting.end(), waiting, current);
            m_SetDeadline(current);
        }
    }
}

// The bus answers what a client that leaves has left open; this is for one that answers nothing.
void TCEventDelivery::m_Remove(const TAccountPtr& pAccount)
{
    const auto isIts = [&pAccount](const TCDbusServer::TSAsyncMessage& call)
    { return call.m_pAccount == pAccount; };
    TCalls& waiting = pAccount->m_pUser->m_waiting;
    for (TCall call = std::find_if(waiting.begin(), waiting.end(), isIts); call != waiting.end();
         call = std::find_if(waiting.begin(), waiting.end(), isIts))
    {
        m_Fail(call, EDelivery::LEFT, G_DBUS_ERROR_NO_REPLY);
    }
    for (TCall call = m_started.begin(); call != m_started.end();)
    {
        const TCall current = call++;
        if (isIts(*current))
        {
            m_session.Calls().Forget(current->m_serial);
            m_Fail(current, EDelivery::LEFT, G_DBUS_ERROR_NO_REPLY);
            m_End(current);
        }
    }
}

} // namespace qor
