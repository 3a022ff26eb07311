// Admission control of an endpoint's object: which calls of others may be queued, which handled.
#include "QORDbusAdmission.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include <qor/GlibTypes.h>
#include <qor/IDbusService.h>

#include "QORDbusMessage.h"
#include "QOREnvelope.h"
#include "QORLimits.h"
#include "QORLocks.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCDbusAdmission"

namespace qor
{

namespace
{

// Refusals of one user that are less than this apart are one burst, and one log line.
constexpr gint64 BURST_GAP_US = 10 * G_TIME_SPAN_SECOND;
// How many senders are kept before the first look for those that are gone, and how often that is.
constexpr std::size_t FIRST_SWEEP = 256;
constexpr gint64 SWEEP_GAP_US = G_TIME_SPAN_SECOND;
// So long a call waits for the bus to tell who sends it.
constexpr gint64 PEER_WAIT_US = 5 * G_TIME_SPAN_SECOND;
// So long answers go out one by one after a large one.
constexpr gint64 LARGE_ANSWER_US = 10 * G_TIME_SPAN_SECOND;

// No object's is nearly as long, of whomever in the process.
constexpr std::size_t MAX_PATH_LENGTH = 4096;

constexpr const char* LIMITS_EXCEEDED = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr const char* NO_SERVICE = "org.freedesktop.DBus.Error.ServiceUnknown";

bool IsText(const char* text, const char* expected)
{
    return text != nullptr && std::strcmp(text, expected) == 0;
}

} // namespace

TCDbusAdmission::TCDbusAdmission(GDBusConnection* pConnection, const char* objectPath)
    : m_pConnection(pConnection),
      m_objectPath(objectPath),
      m_admits(true),
      m_isClosed(false),
      m_sendersAtNextSweep(FIRST_SWEEP),
      m_lastSweep(0),
      m_lastLargeAnswer(-LARGE_ANSWER_US),
      m_isSweepDue(false),
      m_isSomebodyLate(false),
      m_refused(0),
      m_unwrittenRefusals(0)
{
}

void TCDbusAdmission::Stop()
{
    const TCPosixLock lock(m_mutex);
    m_admits = false;
}

void TCDbusAdmission::Close()
{
    const TCPosixLock lock(m_mutex);
    m_isClosed = true;
}

void TCDbusAdmission::Serve(TOnSender onSender, TOnNews onNews)
{
    const TCPosixLock lock(m_mutex);
    m_onSender = std::move(onSender);
    m_onNews = std::move(onNews);
}

// Every call to our object counts, not only those of our interface: GDBus queues reads of
// properties too. Calls to other paths of a service's connection cost it their answers.
bool TCDbusAdmission::Admit(GDBusMessage* pCall)
{
    if (std::strlen(g_dbus_message_get_path(pCall)) > MAX_PATH_LENGTH)
    {
        // GDBus's answer would repeat it; one over the limit of the bus closes our connection.
        m_Refuse(pCall, LIMITS_EXCEEDED, "The object path is too long");
        return false;
    }
    const char* name = g_dbus_message_get_sender(pCall);
    if (name == nullptr)
    {
        return true; // no bus in between: there is nobody to be protected from
    }
    TSVerdict verdict;
    {
        const TCPosixLock lock(m_mutex);
        const bool isOurs = IsText(g_dbus_message_get_path(pCall), m_objectPath.c_str());
        if (!m_admits || (!isOurs && !m_onSender))
        {
            return true;
        }
        m_Judge(pCall, name, isOurs, verdict);
    }
    if (verdict.m_onSender)
    {
        verdict.m_onSender(name);
    }
    if (verdict.m_objection == nullptr)
    {
        return true;
    }
    if (verdict.m_isNewBurst)
    {
        QOR_LOG_ERROR("Refusing calls of %s: %s", name, verdict.m_objection);
    }
    if (!verdict.m_isSilent)
    {
        m_Refuse(pCall, verdict.m_errorName, verdict.m_objection);
    }
    return false;
}

void TCDbusAdmission::m_Judge(GDBusMessage* pCall, const char* name, bool isOurs,
                              TSVerdict& verdict)
{
    m_accounts.DropSilent(false);
    TSender& sender = m_Sender(name);
    const std::size_t size = BodySize(pCall);
    if (m_onSender && !std::exchange(sender.m_isAsked, true))
    {
        verdict.m_onSender = m_onSender;
        m_accounts.SetStranger(sender);
    }
    verdict.m_errorName = LIMITS_EXCEEDED;
    if (!isOurs)
    {
        verdict.m_objection = m_IsDeaf(sender) ? "It does not read the answers"
                              : m_accounts.Foreign() >= MAX_FOREIGN_CALLS
                                  ? "Too many calls are waiting"
                                  : nullptr;
    }
    else if (m_isClosed)
    {
        verdict.m_objection = "The service is ending";
        verdict.m_errorName = NO_SERVICE;
    }
    else
    {
        verdict.m_objection = m_Objection(pCall, sender, size);
    }
    if (verdict.m_objection == nullptr)
    {
        m_accounts.Open(sender, pCall, size, isOurs);
        return;
    }
    const gint64 now = g_get_monotonic_time();
    const gint64 last = sender.Account().m_lastRefusal;
    verdict.m_isNewBurst = last == 0 || now - last > BURST_GAP_US;
    sender.Account().m_lastRefusal = now;
    sender.m_own.m_lastRefusal = now;
    ++m_refused;
    verdict.m_isSilent = m_IsDeaf(sender) || m_unwrittenRefusals >= MAX_UNWRITTEN_REFUSALS;
    const bool isAnswered = !verdict.m_isSilent && WantsAnswer(pCall);
    m_unwrittenRefusals += isAnswered ? 1 : 0;
}

// Null when the call may pass.
const char* TCDbusAdmission::m_Objection(GDBusMessage* pCall, TSender& sender, std::size_t size)
{
    if (g_dbus_message_get_num_unix_fds(pCall) != 0 ||
        g_dbus_message_get_unix_fd_list(pCall) != nullptr)
    {
        return "File descriptors are not accepted";
    }
    if (IsText(g_dbus_message_get_member(pCall), "Hello") &&
        EventListLength(g_dbus_message_get_body(pCall)) > MAX_HELLO_TYPES)
    {
        return "Too many message types";
    }
    // Of whom the bus has yet to tell has an account with others, who are not its fault.
    const bool isNew = m_onSender && !sender.m_isTold;
    const TSDbusAccount& shared = sender.Account();
    const TSDbusAccount& account = isNew ? sender.m_own : shared;
    const auto isOver = [&shared, size]
    { return shared.m_calls >= MAX_QUEUED_CALLS || shared.m_bytes + size > MAX_QUEUED_BYTES; };
    if (isOver())
    {
        m_accounts.DropSilent(true);
        m_accounts.DropLost();
        if (isOver() && !(isNew && m_IsOneOfFew(account, size)))
        {
            return "Too many calls are waiting";
        }
    }
    if (m_IsFull(size))
    {
        m_accounts.DropSilent(true);
        if (m_IsFull(size) && !m_IsOneOfFew(account, size))
        {
            return "Too much is waiting";
        }
    }
    return nullptr;
}

// A large call as well, where it is their number that is too large.
bool TCDbusAdmission::m_IsOneOfFew(const TSDbusAccount& account, std::size_t size) const
{
    const TSDbusAccount& all = m_accounts.All();
    return account.m_calls < FEW_CALLS && all.m_calls < MAX_SMALL_CALLS &&
           (size <= SMALL_CALL || all.m_bytes + size <= MAX_QUEUED_BYTES_IN_ALL);
}

bool TCDbusAdmission::m_IsFull(std::size_t size) const
{
    const TSDbusAccount& all = m_accounts.All();
    return all.m_calls >= MAX_QUEUED_CALLS_IN_ALL || all.m_bytes + size > MAX_QUEUED_BYTES_IN_ALL;
}

std::size_t TCDbusAdmission::m_FreeUnread() const
{
    return MAX_UNREAD_BYTES - std::min(MAX_UNREAD_BYTES, m_accounts.All().m_unread);
}

// Whether its user has more answers unread than there is room for those of others.
bool TCDbusAdmission::m_IsDeaf(TSender& sender) const
{
    return m_onSender && sender.Account().m_unread > m_FreeUnread();
}

void TCDbusAdmission::m_Refuse(GDBusMessage* pCall, const char* errorName, const char* reason)
{
    if (!WantsAnswer(pCall))
    {
        return;
    }
    const TGlibPtr<GDBusMessage> pReply(
        g_dbus_message_new_method_error_literal(pCall, errorName, reason));
    g_dbus_connection_send_message(m_pConnection, pReply.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                   nullptr, nullptr);
}

TCDbusAdmission::TSender& TCDbusAdmission::m_Sender(const char* name)
{
    if (m_accounts.Senders().size() >= m_sendersAtNextSweep && m_accounts.Find(name) == nullptr)
    {
        m_accounts.DropQuiet(BURST_GAP_US);
        m_isSweepDue = m_isSweepDue || m_accounts.Senders().size() >= m_sendersAtNextSweep;
        m_sendersAtNextSweep = std::max(FIRST_SWEEP, 2 * m_accounts.Senders().size());
    }
    return m_accounts.Get(name);
}

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

// What is to be told to whoever waits for it; nothing where nobody does.
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
        // Who may do anything to the service has no share: one program of theirs that sends too
        // much is not to lock out the others.
        if (peer.m_isKnown && (peer.m_userId == 0 || peer.m_userId == geteuid()))
        {
            m_accounts.SetOwn(*pSender);
        }
        else if (peer.m_isKnown)
        {
            m_accounts.SetUser(*pSender, peer.m_userId);
        }
        onNews = m_News(false);
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

bool TCDbusAdmission::FindUser(GDBusMessage* pCall, std::string& user)
{
    const TCPosixLock lock(m_mutex);
    const char* name = g_dbus_message_get_sender(pCall);
    TSender* const pSender = m_onSender && name != nullptr ? m_accounts.Find(name) : nullptr;
    if (pSender == nullptr)
    {
        user.clear();
        return true;
    }
    if (pSender->m_isTold && pSender->m_pUser != nullptr && pSender->m_peer.m_isKnown)
    {
        user = std::to_string(pSender->m_peer.m_userId);
        return true;
    }
    user = name; // no other name on the bus is a number
    if (!pSender->m_isTold && g_get_monotonic_time() - pSender->m_since < PEER_WAIT_US)
    {
        m_isSomebodyLate = true;
        return false;
    }
    return true;
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
        const bool isLarge = now - m_lastLargeAnswer < LARGE_ANSWER_US;
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
        m_accounts.SubtractUnread(*pSender, isGone ? pSender->m_own.m_unread : pSender->m_atPing);
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
