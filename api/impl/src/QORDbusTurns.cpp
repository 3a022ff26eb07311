// The calls and other work that an endpoint has not handled yet, and their order.
#include "QORDbusTurns.h"

#include <utility>

#include "QORDbusAdmission.h"
#include "QORLimits.h"

namespace qor
{

namespace
{

// A call may take longer, but then it was the only one.
constexpr gint64 ROUND_US = 20 * G_TIME_SPAN_MILLISECOND;

} // namespace

void TCDbusTurns::Add(TWork work)
{
    m_own.push_back(std::move(work));
}

void TCDbusTurns::AddCall(GDBusMessage* pCall, TWork work)
{
    m_incoming.push_back({pCall, std::move(work)});
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

// Puts each call into the queue of the user that it counts for.
void TCDbusTurns::m_Sort(TCDbusAdmission* pAdmission)
{
    while (!m_incoming.empty())
    {
        const auto first = m_incoming.begin();
        const char* sender = g_dbus_message_get_sender(first->m_pCall);
        const std::string name = sender == nullptr ? "" : sender;
        std::string user;
        auto found = TCDbusAdmission::EUser::FOUND;
        if (m_unknown.count(name) != 0)
        {
            found = TCDbusAdmission::EUser::NOT_YET;
        }
        else if (pAdmission != nullptr)
        {
            found = pAdmission->FindUser(first->m_pCall, user);
        }
        switch (found)
        {
        case TCDbusAdmission::EUser::FOUND:
            m_Append(user, first);
            break;
        case TCDbusAdmission::EUser::NOT_YET:
            m_unknown[name].splice(m_unknown[name].end(), m_incoming, first);
            break;
        case TCDbusAdmission::EUser::OVER_LIMIT:
            pAdmission->RefuseLate(first->m_pCall);
            m_incoming.erase(first);
            break;
        }
    }
}

void TCDbusTurns::m_Append(const std::string& user, TCalls::iterator call)
{
    const auto [found, isNew] = m_byName.try_emplace(user);
    if (isNew)
    {
        found->second = m_users.insert(m_users.end(), {user, {}});
    }
    TCalls& calls = found->second->m_calls;
    calls.splice(calls.end(), m_incoming, call);
}

// Empty if no call may run.
TCDbusTurns::TWork TCDbusTurns::m_TakeCall(TCDbusAdmission* pAdmission)
{
    m_Sort(pAdmission);
    m_isBlocked = true;
    for (std::size_t left = m_users.size(); left > 0; --left)
    {
        const auto user = m_users.begin();
        const auto turn = pAdmission == nullptr
                              ? TCDbusAdmission::ETurn::NOW
                              : pAdmission->MayHandle(user->m_calls.front().m_pCall);
        if (turn == TCDbusAdmission::ETurn::NOBODYS)
        {
            return nullptr;
        }
        m_users.splice(m_users.end(), m_users, user);
        if (turn == TCDbusAdmission::ETurn::NOW)
        {
            m_isBlocked = false;
            TWork work = std::move(user->m_calls.front().m_work);
            user->m_calls.pop_front();
            if (user->m_calls.empty())
            {
                m_byName.erase(user->m_name);
                m_users.erase(user);
            }
            return work;
        }
    }
    return nullptr;
}

void TCDbusTurns::TryWaiting()
{
    m_isBlocked = false;
    for (auto& entry : m_unknown)
    {
        m_incoming.splice(m_incoming.begin(), entry.second);
    }
    m_unknown.clear();
}

void TCDbusTurns::Clear()
{
    m_own.clear();
    m_incoming.clear();
    m_unknown.clear();
    m_users.clear();
    m_byName.clear();
}

bool TCDbusTurns::HasMore() const
{
    return !m_own.empty() || !m_incoming.empty() || (!m_users.empty() && !m_isBlocked);
}

bool TCDbusTurns::HasWaiting() const
{
    return !m_users.empty() || !m_unknown.empty();
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
