// Admission control of an endpoint's object: which calls of others may be queued, which handled.
#include "QORDbusAdmission.h"

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

// No object's is nearly as long, of whomever in the process.
constexpr std::size_t MAX_PATH_LENGTH = 4096;
// Half of what a message on a stock bus may have.
constexpr std::size_t MAX_NAMES_SIZE = std::size_t{16} << 20;

constexpr const char* NO_SERVICE = "org.freedesktop.DBus.Error.ServiceUnknown";

bool IsText(const char* text, const char* expected)
{
    return text != nullptr && std::strcmp(text, expected) == 0;
}

// GDBus's own answers repeat the path, and names of interfaces and properties. One that is over the
// limit of the bus closes our connection.
const char* ObjectionToNames(GDBusMessage* pCall)
{
    const char* interface = g_dbus_message_get_interface(pCall);
    if (std::strlen(g_dbus_message_get_path(pCall)) > MAX_PATH_LENGTH)
    {
        return "The object path is too long";
    }
    return interface != nullptr && g_str_has_prefix(interface, "org.freedesktop.DBus.") != FALSE &&
                   BodySize(pCall) > MAX_NAMES_SIZE
               ? "The arguments are too long"
               : nullptr;
}

} // namespace

TCDbusAdmission::TCDbusAdmission(GDBusConnection* pConnection, const char* objectPath)
    : m_pConnection(pConnection),
      m_objectPath(objectPath),
      m_admits(true),
      m_isClosed(false),
      m_sendersAtNextSweep(FIRST_SWEEP),
      m_lastSweep(0),
      m_lastLargeAnswer(0),
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
    if (const char* objection = ObjectionToNames(pCall))
    {
        m_Refuse(pCall, LIMITS_EXCEEDED, objection);
        return false;
    }
    const char* name = g_dbus_message_get_sender(pCall);
    if (name == nullptr)
    {
        return true; // no bus in between, so no other process to limit
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
    // A sender that the bus has not described yet shares its account with others, for which it is
    // not to blame.
    const bool isNew = m_onSender && !sender.m_isTold;
    const TSDbusAccount& shared = sender.Account();
    const TSDbusAccount& account = isNew ? sender.m_own : shared;
    const auto isOver = [&shared, size]
    { return shared.m_calls >= MAX_QUEUED_CALLS || shared.m_bytes + size > MAX_QUEUED_BYTES; };
    if (isOver())
    {
        m_accounts.DropSilent(true);
        m_accounts.DropLost();
        const bool hasRoom = isNew && shared.m_calls < 2 * MAX_QUEUED_CALLS;
        if (isOver() && !(hasRoom && m_IsOneOfFew(account, size)))
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

// If their number is too large, a large call is one of few as well.
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

} // namespace qor
