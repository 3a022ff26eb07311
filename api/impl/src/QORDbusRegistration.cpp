// Announces a client's types to the service until the service has confirmed them.
#include "QORDbusRegistration.h"

#include <algorithm>
#include <utility>

#include "QORDbusCalls.h"
#include "QORDbusMessage.h"
#include "QOREnvelope.h"
#include "QORLocks.h"

namespace qor
{

namespace
{

// A refused Hello is said again soon, since the service is there and busy; one without an answer
// late, since each takes one of the calls that the bus lets wait for a reply.
constexpr unsigned int FIRST_PAUSE_MS = 100;
constexpr unsigned int LAST_PAUSE_MS = 10000;
constexpr unsigned int FIRST_PATIENCE_MS = 10000;
constexpr unsigned int LAST_PATIENCE_MS = 640000;
// A host may change its types faster than the service answers. Those without an answer must leave
// most of the calls that a stock bus lets wait for a reply, 128, to the host's messages.
constexpr std::size_t MAX_UNANSWERED = 16;

} // namespace

TCDbusRegistration::TCDbusRegistration(std::unique_ptr<TCDbusTimer> pTimer)
    : m_pTimer(std::move(pTimer)),
      m_pTypes(g_variant_ref_sink(WriteEventList({}))),
      m_number(0),
      m_firstNumber(0),
      m_unanswered(0),
      m_isOverdue(false),
      m_hasNews(false),
      m_isConfirmed(false),
      m_isConfirmationTaken(false),
      m_isReasonTold(false),
      m_reason(G_IO_ERROR_TIMED_OUT),
      m_pauseMs(FIRST_PAUSE_MS),
      m_patienceMs(FIRST_PATIENCE_MS)
{
}

void TCDbusRegistration::SetTypes(const std::map<int, TMessageCallback>& callbacks)
{
    const TCPosixLock lock(m_mutex);
    m_pTypes.reset(g_variant_ref_sink(WriteEventList(callbacks)));
    m_hasNews = true;
}

bool TCDbusRegistration::HasNews()
{
    const TCPosixLock lock(m_mutex);
    return m_hasNews;
}

void TCDbusRegistration::Announce(TCDbusCalls& calls, GDBusMessage* pHello)
{
    const TCPosixLock lock(m_mutex);
    if (m_unanswered < MAX_UNANSWERED || m_isOverdue)
    {
        m_Send(calls, pHello);
    }
    else
    {
        m_pHeld.reset(static_cast<GDBusMessage*>(g_object_ref(pHello)));
    }
}

// Under the lock: the last Hello that goes out has the last types.
void TCDbusRegistration::m_Send(TCDbusCalls& calls, GDBusMessage* pHello)
{
    g_dbus_message_set_body(pHello, m_pTypes.get());
    m_pHeld.reset();
    m_isOverdue = false;
    m_hasNews = false;
    m_isConfirmed = false;
    m_isConfirmationTaken = false;
    m_reason = G_IO_ERROR_TIMED_OUT; // until there is a better one
    ++m_number;
    const auto onAnswer = [self = shared_from_this(), &calls, number = m_number](
                              GDBusMessage* pAnswer) { self->m_Answered(calls, number, pAnswer); };
    m_unanswered += calls.Call(pHello, onAnswer, nullptr) == 0 ? 0 : 1;
    m_pTimer->SetIn(m_patienceMs);
}

// On the worker thread.
void TCDbusRegistration::m_Answered(TCDbusCalls& calls, std::uint32_t number, GDBusMessage* pAnswer)
{
    const TCPosixLock lock(m_mutex);
    int reason = 0;
    const bool isLast = number == m_number;
    m_unanswered -= number < m_firstNumber ? 0 : 1;
    if (IsErrorReply(pAnswer, reason))
    {
        if (isLast)
        {
            m_reason = reason;
            m_pTimer->SetIn(m_pauseMs);
            m_pauseMs = std::min(2 * m_pauseMs, LAST_PAUSE_MS);
        }
    }
    else if (const auto pHeld = std::exchange(m_pHeld, nullptr))
    {
        m_Send(calls, pHeld.get());
    }
    else if (isLast)
    {
        m_isConfirmed = true;
        m_pTimer->SetIn(0);
        m_ResetIntervals();
    }
}

void TCDbusRegistration::Restart()
{
    const TCPosixLock lock(m_mutex);
    m_firstNumber = m_number + 1;
    m_unanswered = 0;
    m_pHeld.reset();
    m_ResetIntervals();
}

void TCDbusRegistration::m_ResetIntervals()
{
    m_isReasonTold = false;
    m_pauseMs = FIRST_PAUSE_MS;
    m_patienceMs = FIRST_PATIENCE_MS;
}

bool TCDbusRegistration::IsUnconfirmed(std::optional<int>& newReason)
{
    const TCPosixLock lock(m_mutex);
    newReason.reset();
    if (m_isConfirmed)
    {
        return false;
    }
    if (!std::exchange(m_isReasonTold, true))
    {
        newReason = m_reason;
    }
    m_isOverdue = true;
    if (m_reason == G_IO_ERROR_TIMED_OUT)
    {
        m_patienceMs = std::min(2 * m_patienceMs, LAST_PATIENCE_MS);
    }
    return true;
}

bool TCDbusRegistration::TakeConfirmation()
{
    const TCPosixLock lock(m_mutex);
    const bool isNew = m_isConfirmed && !m_hasNews && !m_isConfirmationTaken;
    m_isConfirmationTaken = m_isConfirmationTaken || isNew;
    return isNew;
}

bool TCDbusRegistration::IsConfirmationTaken()
{
    const TCPosixLock lock(m_mutex);
    return m_isConfirmationTaken && !m_hasNews;
}

void TCDbusRegistration::Stop()
{
    m_pTimer->Stop();
}

} // namespace qor
