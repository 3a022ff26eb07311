// Admission control of an endpoint's object: which user has sent a call, and who reads the answers.
#include "QORDbusAdmission.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "QORDbusMessage.h"
#include "QORLimits.h"
#include "QORLocks.h"

namespace qor
{

namespace
{

// How often it is looked which senders are gone.
constexpr gint64 SWEEP_GAP_US = G_TIME_SPAN_SECOND;
// How long a call waits until the bus has told who sends it.
constexpr gint64 PEER_WAIT_US = 5 * G_TIME_SPAN_SECOND;
// So long answers go out one by one after a large one.
constexpr gint64 LARGE_ANSWER_US = 10 * G_TIME_SPAN_SECOND;

} // namespace

void TCDbusAdmission::NoteAnswer(GDBusMessage* pAnswer)
{
    const char* name = g_dbus_message_get_destination(pAnswer);
    if (name == nullptr)
    {
        return;
    }
    TOnNews onNews;
    {
        const TCPosixLock lock(m_mutex);
        TSender* const pSender = m_accounts.Find(name);
        if (pSender == nullptr)
        {
            return;
        }
        if (!m_accounts.Close(*pSender, g_dbus_message_get_reply_serial(pAnswer)))
        {
            m_unwrittenRefusals -= std::min<std::size_t>(m_unwrittenRefusals, 1);
        }
        if (m_onSender)
        {
            m_CountUnread(*pSender, BodySize(pAnswer));
            onNews = m_News(m_IsPingDue(*pSender));
        }
    }
    if (onNews)
    {
        onNews();
    }
}

void TCDbusAdmission::m_CountUnread(TSender& sender, std::size_t size)
{
    const gint64 now = g_get_monotonic_time();
    m_accounts.AddUnread(sender, size + ANSWER_OVERHEAD);
    m_lastLargeAnswer = size >= LARGE_ANSWER ? now : m_lastLargeAnswer;
    m_isSweepDue = m_isSweepDue || m_accounts.All().m_unread > MAX_UNREAD_BYTES / 4;
}

// Of a sender that has much unread; or anything, where its user has much.
bool TCDbusAdmission::m_IsPingDue(TSender& sender) const
{
    const TSDbusAccount& account = sender.Account();
    const std::size_t unread = sender.m_own.m_unread;
    return m_onSender && sender.m_isTold && !sender.m_isPinged && unread > 0 &&
           (unread >= UNREAD_AT_PING || account.m_unread > m_FreeUnread() / 2) &&
           account.m_pings + m_accounts.All().m_pings < PING_SLOTS;
}

// The function that has to be told of news, if there are news; otherwise empty.
TCDbusAdmission::TOnNews TCDbusAdmission::m_News(bool isPingDue)
{
    const bool isSweepDue = m_isSweepDue && g_get_monotonic_time() - m_lastSweep > SWEEP_GAP_US;
    const bool isDue = std::exchange(m_isSomebodyLate, false) || isPingDue || isSweepDue;
    return isDue ? m_onNews : nullptr;
}

void TCDbusAdmission::SetPeer(const TSPeer& peer)
{
    TOnNews onNews;
    {
        const TCPosixLock lock(m_mutex);
        TSender* const pSender = m_accounts.Find(peer.m_name);
        if (pSender == nullptr)
        {
            return;
        }
        pSender->m_isTold = true;
        pSender->m_peer = peer;
        // Root and the service's own user have no common account: one of their programs that sends
        // too much must not lock out the others.
        if (peer.m_isKnown && (peer.m_userId == 0 || peer.m_userId == geteuid()))
        {
            m_accounts.SetOwn(*pSender);
        }
        else if (peer.m_isKnown)
        {
            m_accounts.SetUser(*pSender, peer.m_userId);
        }
        onNews = m_News(m_IsPingDue(*pSender));
    }
    if (onNews)
    {
        onNews();
    }
}

bool TCDbusAdmission::FindPeer(const std::string& name, TSPeer& peer)
{
    const TCPosixLock lock(m_mutex);
    TSender* const pSender = m_accounts.Find(name);
    if (pSender == nullptr || !pSender->m_isAsked)
    {
        return false;
    }
    peer = pSender->m_peer;
    peer.m_name = name;
    return true;
}

TCDbusAdmission::EUser TCDbusAdmission::FindUser(GDBusMessage* pCall, std::string& user)
{
    const TCPosixLock lock(m_mutex);
    const char* name = g_dbus_message_get_sender(pCall);
    TSender* const pSender = m_onSender && name != nullptr ? m_accounts.Find(name) : nullptr;
    user.clear();
    if (pSender == nullptr)
    {
        return EUser::FOUND;
    }
    if (!pSender->m_isTold && g_get_monotonic_time() - pSender->m_since < PEER_WAIT_US)
    {
        m_isSomebodyLate = true;
        return EUser::NOT_YET;
    }
    if (pSender->m_peer.m_isKnown)
    {
        // A number is no name on the bus.
        user = pSender->m_pUser == nullptr ? name : std::to_string(pSender->m_peer.m_userId);
    }
    // The sender may have sent too much before the bus told who it is.
    return pSender->Account().m_calls > 2 * MAX_QUEUED_CALLS ? EUser::OVER_LIMIT : EUser::FOUND;
}

void TCDbusAdmission::RefuseLate(GDBusMessage* pCall)
{
    {
        const TCPosixLock lock(m_mutex);
        ++m_refused;
    }
    m_Refuse(pCall, LIMITS_EXCEEDED, "Too many calls are waiting");
}

TCDbusAdmission::ETurn TCDbusAdmission::MayHandle(GDBusMessage* pCall)
{
    const TCPosixLock lock(m_mutex);
    const char* name = g_dbus_message_get_sender(pCall);
    TSender* const pSender = m_onSender && name != nullptr ? m_accounts.Find(name) : nullptr;
    if (pSender == nullptr)
    {
        return ETurn::NOW;
    }
    const gint64 now = g_get_monotonic_time();
    ETurn turn = ETurn::NOW;
    if (m_IsDeaf(*pSender))
    {
        turn = ETurn::LATER;
    }
    else
    {
        const bool isLarge = m_lastLargeAnswer != 0 && now - m_lastLargeAnswer < LARGE_ANSWER_US;
        turn = m_accounts.Unwritten() < (isLarge ? 1 : MAX_UNWRITTEN) ? ETurn::NOW : ETurn::NOBODYS;
    }
    m_isSomebodyLate = m_isSomebodyLate || turn != ETurn::NOW;
    if (turn == ETurn::NOW)
    {
        m_accounts.SetHandled(*pSender, g_dbus_message_get_serial(pCall));
    }
    return turn;
}

std::vector<std::string> TCDbusAdmission::TakePings()
{
    const TCPosixLock lock(m_mutex);
    std::vector<std::string> names;
    for (auto& entry : m_accounts.Senders())
    {
        if (m_IsPingDue(entry.second))
        {
            m_accounts.SetPinged(entry.second, true);
            names.push_back(entry.first);
        }
    }
    return names;
}

void TCDbusAdmission::Pinged(const std::string& name, bool isGone)
{
    TOnNews onNews;
    {
        const TCPosixLock lock(m_mutex);
        TSender* const pSender = m_accounts.Find(name);
        if (pSender == nullptr || !pSender->m_isPinged)
        {
            return;
        }
        const std::size_t unread = pSender->m_own.m_unread;
        m_accounts.SubtractUnread(*pSender, isGone ? unread : std::min(unread, pSender->m_atPing));
        m_accounts.SetPinged(*pSender, false);
        onNews = m_News(m_accounts.All().m_unread > UNREAD_AT_PING);
    }
    if (onNews)
    {
        onNews();
    }
}

bool TCDbusAdmission::TakeSweep()
{
    const TCPosixLock lock(m_mutex);
    const gint64 now = g_get_monotonic_time();
    if (!m_isSweepDue || now - m_lastSweep < SWEEP_GAP_US)
    {
        return false;
    }
    m_lastSweep = now;
    m_isSweepDue = false;
    return true;
}

void TCDbusAdmission::Keep(const std::set<std::string>& names, gint64 time)
{
    TOnNews onNews;
    {
        const TCPosixLock lock(m_mutex);
        for (auto& [name, sender] : m_accounts.Senders())
        {
            if (sender.m_since < time && names.count(name) == 0)
            {
                m_accounts.SubtractUnread(sender, sender.m_own.m_unread);
            }
        }
        m_accounts.DropQuiet(BURST_GAP_US);
        m_sendersAtNextSweep = std::max(FIRST_SWEEP, 2 * m_accounts.Senders().size());
        onNews = m_News(false);
    }
    if (onNews)
    {
        onNews();
    }
}

std::uint64_t TCDbusAdmission::NumberOfRefused()
{
    const TCPosixLock lock(m_mutex);
    return m_refused;
}

} // namespace qor
