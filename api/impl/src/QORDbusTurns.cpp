// What an endpoint has yet to handle, and in which order.
#include "QORDbusTurns.h"

#include <utility>

#include "QORDbusAdmission.h"

namespace qor
{

namespace
{

// A call may take longer, but then it was the only one.
constexpr gint64 ROUND_US = 20 * G_TIME_SPAN_MILLISECOND;
constexpr gint64 BURST_GAP_US = 10 * G_TIME_SPAN_SECOND;

} // namespace

void TCDbusTurns::Add(TWork work)
{
    m_own.push_back(std::move(work));
}

void TCDbusTurns::AddCall(GDBusMessage* pCall, TWork work)
{
    m_calls.push_back({pCall, std::move(work)});
}

void TCDbusTurns::RunNext(TCDbusAdmission* pAdmission)
{
    TWork work;
    if (m_own.empty())
    {
        work = m_TakeCall(pAdmission);
    }
    else
    {
        work = std::move(m_own.front());
        m_own.pop_front();
    }
    if (work)
    {
        work();
    }
}

// None, where none may run.
TCDbusTurns::TWork TCDbusTurns::m_TakeCall(TCDbusAdmission* pAdmission)
{
    while (!m_calls.empty() && !m_isBlocked)
    {
        const auto first = m_calls.begin();
        const char* sender = g_dbus_message_get_sender(first->m_pCall);
        const std::string name = sender == nullptr ? "" : sender;
        const auto waiting = m_waiting.find(name);
        if (waiting != m_waiting.end())
        {
            waiting->second.splice(waiting->second.end(), m_calls, first);
            continue;
        }
        switch (pAdmission == nullptr ? TCDbusAdmission::ETurn::NOW
                                      : pAdmission->MayHandle(first->m_pCall))
        {
        case TCDbusAdmission::ETurn::NOW:
        {
            TWork work = std::move(first->m_work);
            m_calls.erase(first);
            return work;
        }
        case TCDbusAdmission::ETurn::LATER:
            m_waiting[name].splice(m_waiting[name].end(), m_calls, first);
            break;
        case TCDbusAdmission::ETurn::NOBODYS:
            m_isBlocked = true;
            break;
        }
    }
    return nullptr;
}

void TCDbusTurns::TryWaiting()
{
    m_isBlocked = false;
    for (auto& entry : m_waiting)
    {
        m_calls.splice(m_calls.begin(), entry.second);
    }
    m_waiting.clear();
}

void TCDbusTurns::Clear()
{
    m_own.clear();
    m_calls.clear();
    m_waiting.clear();
}

bool TCDbusTurns::HasMore() const
{
    return !m_own.empty() || (!m_calls.empty() && !m_isBlocked);
}

bool TCDbusTurns::HasWaiting() const
{
    return m_isBlocked || !m_waiting.empty();
}

// The source has the time at which the round began, since the context looks at the clock once.
bool TCDbusTurns::IsRoundOver()
{
    GSource* pSource = g_main_current_source();
    const gint64 now = g_get_monotonic_time();
    const gint64 round = pSource == nullptr ? now : g_source_get_time(pSource);
    if (round != m_round)
    {
        m_round = round;
        m_endOfRound = now + ROUND_US;
    }
    return now >= m_endOfRound;
}

bool TCDbusTurns::IsNewBurst()
{
    const gint64 now = g_get_monotonic_time();
    const gint64 last = std::exchange(m_lastOfBurst, now);
    return last == 0 || now - last > BURST_GAP_US;
}

} // namespace qor
