// The asynchronous calls of an endpoint that have no result yet.
#include "QORDbusPending.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "QORDbusContext.h"
#include "QORDbusLink.h"
#include "QORDbusSession.h"
#include "QORLocks.h"

namespace qor
{

namespace
{

// The worker leaves the answer of one call here. It holds no reference to the session: the worker
// may release the last reference to the mailbox, and a session must not end on the worker.
class TCMailbox
{
public:
    TCMailbox(GMainContext* pContext, GSourceFunc look, TSDbusLink* pLink)
        : m_timer(pContext, look, g_atomic_rc_box_acquire(pLink), RELEASE_DBUS_LINK)
    {
    }

    void Put(GDBusMessage* pAnswer) QOR_EXCLUDES(m_mutex)
    {
        const TCPosixLock lock(m_mutex);
        m_pAnswer.reset(static_cast<GDBusMessage*>(g_object_ref(pAnswer)));
        m_timer.SetIn(0);
    }

    TGlibPtr<GDBusMessage> Take() QOR_EXCLUDES(m_mutex)
    {
        const TCPosixLock lock(m_mutex);
        return std::move(m_pAnswer);
    }

    // The waiting context looks after that time; at once if there is an answer.
    void LookIn(unsigned int milliseconds) QOR_EXCLUDES(m_mutex)
    {
        const TCPosixLock lock(m_mutex);
        if (m_pAnswer == nullptr)
        {
            m_timer.SetIn(milliseconds);
        }
    }

    void Close()
    {
        m_timer.Stop();
    }

private:
    TSPosixMutex m_mutex; // guards when the timer is due as well
    TGlibPtr<GDBusMessage> m_pAnswer QOR_GUARDED_BY(m_mutex);
    TCDbusTimer m_timer;
};

} // namespace

// Used by its starter, then by its main context alone; by the end, when that has left it.
struct TCDbusPending::TSCall : std::enable_shared_from_this<TSCall>
{
    TSCall(TSRequest request, std::shared_ptr<TCDbusPending> pending)
        : m_request(std::move(request)),
          m_pending(std::move(pending)),
          m_pLink(NewDbusLink(this)),
          m_mailbox(std::make_shared<TCMailbox>(m_request.m_pContext.get(), &TCDbusPending::m_Look,
                                                m_pLink))
    {
    }
    ~TSCall()
    {
        RELEASE_DBUS_LINK(m_pLink);
    }
    TSCall(const TSCall&) = delete;
    TSCall& operator=(const TSCall&) = delete;

    void Send();
    bool IsOver(TGlibPtr<GError>& pError);
    void LookAgain();
    void Close(bool isAwaited);

    TSRequest m_request;
    const std::shared_ptr<TCDbusPending> m_pending;
    TSDbusLink* const m_pLink;
    const std::shared_ptr<TCMailbox> m_mailbox;
    std::uint32_t m_serial = 0; // 0: nothing was sent
};

void TCDbusPending::TSCall::Send()
{
    if (m_request.m_pMessage == nullptr)
    {
        return;
    }
    GError* pError = nullptr;
    m_serial = m_request.m_session->Calls().Call(
        m_request.m_pMessage.get(),
        [mailbox = m_mailbox](GDBusMessage* pAnswer) { mailbox->Put(pAnswer); }, &pError);
    m_request.m_pError.reset(pError);
    m_request.m_pMessage.reset(); // which may be large
}

// Without an answer.
bool TCDbusPending::TSCall::IsOver(TGlibPtr<GError>& pError)
{
    if (m_serial == 0)
    {
        pError = std::move(m_request.m_pError);
        return true;
    }
    GError* pReason = nullptr;
    const bool isOver = m_request.m_session->Calls().IsOver(m_request.m_deadline,
                                                            m_request.m_cancellation, &pReason);
    pError.reset(pReason);
    return isOver;
}

// Nothing reaches the call after this.
void TCDbusPending::TSCall::Close(bool isAwaited)
{
    SeverDbusLink(m_pLink);
    m_mailbox->Close();
    if (isAwaited && m_serial != 0)
    {
        m_request.m_session->Calls().Forget(m_serial);
    }
}

void TCDbusPending::TSCall::LookAgain()
{
    const gint64 leftUs = m_request.m_deadline - g_get_monotonic_time();
    const gint64 leftMs = leftUs / G_TIME_SPAN_MILLISECOND + 1;
    const gint64 interval = TCDbusCalls::CHECK_INTERVAL_MS;
    const bool isOver = m_serial == 0 || leftUs <= 0;
    m_mailbox->LookIn(isOver ? 0 : static_cast<unsigned int>(std::min(interval, leftMs)));
}

// An answer may come, and the outcome be told, before this returns.
void TCDbusPending::Start(TSRequest request)
{
    const auto call = std::make_shared<TSCall>(std::move(request), shared_from_this());
    {
        const TCPosixLock lock(m_mutex);
        m_calls.push_back(call);
    }
    call->Send();
    call->LookAgain();
}

// In the call's main context. A process that was forked has the context, but not the call.
gboolean TCDbusPending::m_Look(void* pUserData)
{
    const TCDbusHold hold(pUserData);
    auto* const pCall = static_cast<TSCall*>(hold.Target());
    if (pCall == nullptr || pCall->m_pLink->m_process != getpid())
    {
        return G_SOURCE_CONTINUE;
    }
    const TCallPtr call = pCall->shared_from_this();
    const TGlibPtr<GDBusMessage> pAnswer = call->m_mailbox->Take();
    TGlibPtr<GError> pError;
    if (pAnswer == nullptr && !call->IsOver(pError))
    {
        call->LookAgain();
        return G_SOURCE_CONTINUE;
    }
    call->Close(pAnswer == nullptr);
    TOutcome onOutcome = std::move(call->m_request.m_onOutcome);
    onOutcome(pAnswer.get(), pError.get());
    onOutcome = nullptr; // destroys what it holds, which may be the endpoint
    call->m_pending->m_Remove(call);
    return G_SOURCE_CONTINUE;
}

void TCDbusPending::m_Remove(const TCallPtr& call)
{
    const TCPosixLock lock(m_mutex);
    m_calls.remove(call);
}

// First no function starts any more, then all that run have ended; except the caller's own, which
// releases the endpoint or ends the process.
void TCDbusPending::End()
{
    std::list<TCallPtr> calls;
    {
        const TCPosixLock lock(m_mutex);
        calls.swap(m_calls);
    }
    for (const TCallPtr& call : calls)
    {
        SeverDbusLink(call->m_pLink);
    }
    for (const TCallPtr& call : calls)
    {
        WaitForDbusHandlers(call->m_pLink);
        call->Close(true);
    }
}

} // namespace qor
