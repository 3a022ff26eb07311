// Delivers events, within the slots that a bus has for them.
#include "QOREventDelivery.h"

#include <algorithm>
#include <atomic>
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
// How often this thread checks whether the connection has closed, which nothing reports to it.
constexpr gint64 CLOSED_CHECK_US = 100 * G_TIME_SPAN_MILLISECOND;
// How often it checks whether a call has been written, which takes a while for large ones.
constexpr gint64 SENT_CHECK_US = 2 * G_TIME_SPAN_MILLISECOND;
constexpr gint64 NOT_DUE = -1;

// GLib knows the source by its first member.
struct TSDeliverySource
{
    GSource m_source;
    const std::atomic<bool>* m_pIsCalled;
};

int IsCalled(GSource* pSource)
{
    return *reinterpret_cast<TSDeliverySource*>(pSource)->m_pIsCalled ? TRUE : FALSE;
}

int PrepareSource(GSource* pSource, int* /*pTimeout*/)
{
    return IsCalled(pSource);
}

} // namespace

// --- Posting -------------------------------------------------------------------------------------

TCEventDelivery::TCEventDelivery(GMainContext* pContext, TCDbusSession& session, TCDbusPeers& peers,
                                 std::function<void()> onNews)
    : m_session(session),
      m_peers(peers),
      m_onNews(std::move(onNews)),
      m_isCalled(false),
      m_isWorking(false),
      m_waiting(0),
      m_wakeTime(NOT_DUE),
      m_hasNews(false),
      m_pUnknown(std::make_shared<TSEventUser>(UNKNOWN_USER)),
      m_overdue(0),
      m_isHeldUp(false),
      m_isFinishing(false),
      m_isIdleTold(false)
{
    static GSourceFuncs functions{&PrepareSource, &IsCalled, &TCEventDelivery::m_Dispatch,
                                  nullptr,        nullptr,   nullptr};
    m_pSource.reset(g_source_new(&functions, sizeof(TSDeliverySource)));
    reinterpret_cast<TSDeliverySource*>(m_pSource.get())->m_pIsCalled = &m_isCalled;
    g_source_set_callback(m_pSource.get(), nullptr, this, nullptr);
    g_source_attach(m_pSource.get(), pContext);
}

TCEventDelivery::~TCEventDelivery()
{
    g_source_destroy(m_pSource.get());
}

int TCEventDelivery::m_Dispatch(GSource* /*pSource*/, GSourceFunc /*callback*/, void* pDelivery)
{
    auto& delivery = *static_cast<TCEventDelivery*>(pDelivery);
    delivery.m_isCalled = false; // first, so that later calls are noticed
    delivery.m_Work(nullptr);
    return G_SOURCE_CONTINUE;
}

// The first thread that posts wakes up a thread to take the turn; a thread that has the turn checks
// the inbox again before it ends.
void TCEventDelivery::m_Post(std::function<void()> work)
{
    bool isFirst = false;
    bool isAwaited = false;
    {
        const TCPosixLock lock(m_inboxMutex);
        m_inbox.push_back(std::move(work));
        isFirst = m_inbox.size() == 1 && !m_isWorking;
        isAwaited = m_waiting != 0;
    }
    if (isFirst)
    {
        m_Wake(isAwaited);
    }
}

// Without the mutex, which the thread that wakes up needs at once. The loop's context is woken up
// without its own lock for the same reason, which setting the source's time would take.
void TCEventDelivery::m_Wake(bool isAwaited)
{
    if (isAwaited)
    {
        m_changed.Signal();
        return;
    }
    m_isCalled = true;
    g_main_context_wakeup(g_source_get_context(m_pSource.get()));
}

TCEventDelivery::TAccountPtr TCEventDelivery::AddClient(const std::string& name)
{
    TAccountPtr pAccount = boost::make_shared<TSEventAccount>(name);
    m_Post([this, pAccount] { pAccount->m_pUser = m_pUnknown; });
    m_peers.Ask(name,
                [this, pAccount](const TSPeer& peer)
                {
                    // All clients whose user the bus does not tell share one account.
                    const std::uint32_t user = peer.m_isKnown ? peer.m_userId : UNKNOWN_USER;
                    m_Post([this, pAccount, user] { m_SetUser(pAccount, user); });
                });
    m_peers.Keep(name);
    return pAccount;
}

void TCEventDelivery::RenewClient(const TAccountPtr& pAccount)
{
    m_Post([pAccount] { pAccount->ResumeAll(); });
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

// To wake the loop thread up with each answer, and then this one, would cost more than the answer.
void TCEventDelivery::DeliverAndWait(const TSEventPtr& pEvent, TCalls calls)
{
    pEvent->m_onDone = [this](const TSEventPtr& pDone) { m_EndWait(*pDone); };
    {
        const TCPosixLock lock(m_inboxMutex);
        ++m_waiting;
    }
    Deliver(pEvent, std::move(calls));
    while (m_WaitForTurn(*pEvent))
    {
        m_Work(pEvent.get());
    }
    bool isLeftOver = false;
    bool isAwaited = false;
    {
        const TCPosixLock lock(m_inboxMutex);
        isAwaited = --m_waiting != 0;
        isLeftOver = !m_inbox.empty() && !m_isWorking; // this thread may have been woken for it
    }
    if (isLeftOver)
    {
        m_Wake(isAwaited);
    }
}

// False once the event has ended.
bool TCEventDelivery::m_WaitForTurn(const TSEvent& event)
{
    TCPosixLock lock(m_inboxMutex);
    while (!event.m_isOver && (m_isWorking || m_inbox.empty()))
    {
        lock.Wait(m_changed);
    }
    return !event.m_isOver;
}

void TCEventDelivery::m_EndWait(TSEvent& event)
{
    const TCPosixLock lock(m_inboxMutex);
    event.m_isOver = true;
    m_changed.Broadcast(); // with the mutex: the waiting thread may destroy the delivery after it
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

// --- Turns ---------------------------------------------------------------------------------------

// A thread that waits for an event goes on until that has ended, and no longer: others may post
// without end.
void TCEventDelivery::m_Work(const TSEvent* pOwn)
{
    TInbox inbox;
    if (!m_BeginTurn(inbox))
    {
        return;
    }
    do
    {
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
        inbox.clear();
    } while (!m_EndTurn(inbox, pOwn));
}

// False while another thread has the turn.
bool TCEventDelivery::m_BeginTurn(TInbox& inbox)
{
    const TCPosixLock lock(m_inboxMutex);
    if (m_isWorking)
    {
        return false;
    }
    m_isWorking = true;
    inbox.swap(m_inbox);
    return true;
}

// False where more has come meanwhile.
bool TCEventDelivery::m_EndTurn(TInbox& inbox, const TSEvent* pOwn)
{
    const gint64 now = g_get_monotonic_time();
    gint64 next = NOT_DUE;
    if (!m_deadlines.empty())
    {
        next = std::min(m_deadlines.begin()->first,
                        now + (m_isHeldUp ? SENT_CHECK_US : CLOSED_CHECK_US));
    }
    const TCPosixLock lock(m_inboxMutex);
    const bool isOver = pOwn != nullptr && pOwn->m_isOver;
    if (!m_inbox.empty() && !isOver)
    {
        inbox.swap(m_inbox);
        return false;
    }
    m_isWorking = false;
    // A time that comes too early is let be: setting one wakes the loop thread up.
    if (m_wakeTime <= now || (next != NOT_DUE && next < m_wakeTime))
    {
        m_wakeTime = next;
        g_source_set_ready_time(m_pSource.get(), next);
    }
    return true;
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

// When a client leaves, the bus answers its open calls; this is for a bus that does not.
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
