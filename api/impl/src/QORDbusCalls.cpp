// The doorman's other half: our own calls, and the way of their answers.
#include "QORDbusFilter.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "QORPosixLock.h"

namespace qor
{

namespace
{

// A connection that closes tells nobody on this thread, so a waiting one looks.
constexpr gint64 CLOSED_CHECK_US = 100 * G_TIME_SPAN_MILLISECOND;

} // namespace

// Who waits for an answer on a thread of its own.
struct TCDbusFilter::TSWaiter
{
    TSWaiter() : m_changed()
    {
        pthread_condattr_t attributes;
        pthread_condattr_init(&attributes);
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        pthread_cond_init(&m_changed, &attributes);
        pthread_condattr_destroy(&attributes);
    }
    ~TSWaiter()
    {
        pthread_cond_destroy(&m_changed);
    }
    TSWaiter(const TSWaiter&) = delete;
    TSWaiter& operator=(const TSWaiter&) = delete;

    void WaitUntil(pthread_mutex_t& mutex, gint64 time)
    {
        timespec deadline{};
        deadline.tv_sec = static_cast<time_t>(time / G_USEC_PER_SEC);
        deadline.tv_nsec = static_cast<long>(time % G_USEC_PER_SEC) * 1000;
        pthread_cond_timedwait(&m_changed, &mutex, &deadline);
    }

    pthread_cond_t m_changed;
    TGlibPtr<GDBusMessage> m_pAnswer; // guarded by the filter's mutex
};

std::uint32_t TCDbusFilter::Call(GDBusMessage* pCall, const TAnswerHandler& handler,
                                 GError** ppError)
{
    const std::size_t size = m_SizeOf(pCall);
    m_unsentBytes += size;
    const std::uint32_t serial = m_Send(pCall, {handler, nullptr}, ppError);
    const TCMutexLock lock(m_sentMutex);
    if (serial == 0 || m_IsSent(serial))
    {
        m_unsentBytes -= size;
    }
    else
    {
        m_unsent.emplace_back(serial, size);
    }
    return serial;
}

std::uint32_t TCDbusFilter::m_Send(GDBusMessage* pCall, TSAwaited awaited, GError** ppError)
{
    const TCMutexLock sendLock(m_sendMutex);
    std::uint32_t serial = 0;
    if (!g_dbus_connection_send_message(m_pConnection.get(), pCall, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                        &serial, ppError))
    {
        return 0;
    }
    const TCMutexLock lock(m_mutex);
    m_awaited.emplace(serial, std::move(awaited));
    return serial;
}

void TCDbusFilter::Forget(std::uint32_t serial)
{
    const TCMutexLock lock(m_mutex);
    m_EndAwaiting(serial);
}

std::size_t TCDbusFilter::UnsentBytes() const
{
    return m_unsentBytes;
}

// Messages are written in the order of their serials, which start again after the last one.
bool TCDbusFilter::m_IsSent(std::uint32_t serial) const
{
    return static_cast<std::int32_t>(m_lastSent - serial) >= 0;
}

void TCDbusFilter::m_NoteSent(GDBusMessage* pMessage)
{
    const TCMutexLock lock(m_sentMutex);
    m_lastSent = g_dbus_message_get_serial(pMessage);
    while (!m_unsent.empty() && m_IsSent(m_unsent.front().first))
    {
        m_unsentBytes -= m_unsent.front().second;
        m_unsent.pop_front();
    }
}

bool TCDbusFilter::m_TakeAnswer(GDBusMessage* pMessage)
{
    const std::uint32_t serial = g_dbus_message_get_reply_serial(pMessage);
    if (m_HandOver(serial, pMessage))
    {
        return true;
    }
    // An answer may overtake the end of its call's sending: once nobody sends, it is known.
    {
        const TCMutexLock sendLock(m_sendMutex);
    }
    return m_HandOver(serial, pMessage);
}

bool TCDbusFilter::m_HandOver(std::uint32_t serial, GDBusMessage* pMessage)
{
    std::shared_ptr<TSWaiter> pWaiter;
    {
        const TCMutexLock lock(m_mutex);
        TSAwaited awaited = m_EndAwaiting(serial);
        pWaiter = std::move(awaited.m_pWaiter);
        if (pWaiter == nullptr && !awaited.m_handler)
        {
            return false;
        }
        if (pWaiter == nullptr)
        {
            awaited.m_handler(pMessage);
            return true;
        }
        pWaiter->m_pAnswer.reset(static_cast<GDBusMessage*>(g_object_ref(pMessage)));
    }
    pthread_cond_signal(&pWaiter->m_changed); // without the mutex: who wakes up needs it at once
    return true;
}

// Called with the mutex held. Neither handler nor waiter when the call is not awaited.
TCDbusFilter::TSAwaited TCDbusFilter::m_EndAwaiting(std::uint32_t serial)
{
    const auto found = m_awaited.find(serial);
    if (found == m_awaited.end())
    {
        return TSAwaited();
    }
    TSAwaited awaited = std::move(found->second);
    m_awaited.erase(found);
    return awaited;
}

TGlibPtr<GDBusMessage> TCDbusFilter::CallAndWait(GDBusMessage* pCall, int timeoutMs,
                                                 GError** ppError)
{
    const gint64 deadline = g_get_monotonic_time() + timeoutMs * G_TIME_SPAN_MILLISECOND;
    const auto pWaiter = std::make_shared<TSWaiter>();
    const std::uint32_t serial = m_Send(pCall, {nullptr, pWaiter}, ppError);
    if (serial == 0)
    {
        return nullptr;
    }
    const TCMutexLock lock(m_mutex);
    while (pWaiter->m_pAnswer == nullptr)
    {
        const gint64 now = g_get_monotonic_time();
        const bool isClosed = g_dbus_connection_is_closed(m_pConnection.get());
        if (isClosed || now >= deadline)
        {
            m_EndAwaiting(serial);
            g_set_error_literal(ppError, G_IO_ERROR,
                                isClosed ? G_IO_ERROR_CLOSED : G_IO_ERROR_TIMED_OUT,
                                isClosed ? "The connection is closed" : "Timeout was reached");
            return nullptr;
        }
        pWaiter->WaitUntil(m_mutex, std::min(deadline, now + CLOSED_CHECK_US));
    }
    return std::move(pWaiter->m_pAnswer);
}

} // namespace qor
