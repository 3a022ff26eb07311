// Admission control of an endpoint's object: which calls of others may be queued.
#include "QORDbusAdmission.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include <qor/GlibTypes.h>

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

// Refusals of one sender that are less than this apart are one burst, and one log line.
constexpr gint64 BURST_GAP_US = 10 * G_TIME_SPAN_SECOND;
// How many senders are kept before the first look for those that are quiet.
constexpr std::size_t FIRST_SWEEP = 64;

// No object's is nearly as long, of whomever in the process.
constexpr std::size_t MAX_PATH_LENGTH = 4096;

constexpr const char* LIMITS_EXCEEDED = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr const char* NO_SERVICE = "org.freedesktop.DBus.Error.ServiceUnknown";

bool IsText(const char* text, const char* expected)
{
    return text != nullptr && std::strcmp(text, expected) == 0;
}

} // namespace

TCDbusAdmission::TSHeldCall::TSHeldCall(GDBusMessage* pMessage, std::size_t size)
    : m_message(), m_size(size)
{
    g_weak_ref_init(&m_message, pMessage);
}

TCDbusAdmission::TSHeldCall::~TSHeldCall()
{
    g_weak_ref_clear(&m_message);
}

bool TCDbusAdmission::TSHeldCall::IsGone()
{
    const TGlibPtr<GDBusMessage> pMessage(static_cast<GDBusMessage*>(g_weak_ref_get(&m_message)));
    return pMessage == nullptr;
}

TCDbusAdmission::TCDbusAdmission(GDBusConnection* pConnection, const char* objectPath)
    : m_pConnection(pConnection),
      m_objectPath(objectPath),
      m_admits(true),
      m_isClosed(false),
      m_sendersAtNextSweep(FIRST_SWEEP),
      m_calls(0),
      m_bytes(0)
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

void TCDbusAdmission::TellSenders(TOnSender onSender)
{
    const TCPosixLock lock(m_mutex);
    m_onSender = std::move(onSender);
}

// Every call to our object counts, not only those of our interface: GDBus queues reads of
// properties too. What it answers by itself is gone by the next look.
bool TCDbusAdmission::Admit(GDBusMessage* pCall)
{
    if (std::strlen(g_dbus_message_get_path(pCall)) > MAX_PATH_LENGTH)
    {
        // GDBus's answer would repeat it; one over the limit of the bus closes our connection.
        m_Refuse(pCall, LIMITS_EXCEEDED, "The object path is too long");
        return false;
    }
    if (!IsText(g_dbus_message_get_path(pCall), m_objectPath.c_str()))
    {
        return true;
    }
    const char* name = g_dbus_message_get_sender(pCall);
    if (name == nullptr)
    {
        return true; // no bus in between: there is nobody to be protected from
    }
    const char* objection = nullptr;
    bool isClosed = false;
    bool isNewBurst = false;
    TOnSender onNewSender;
    {
        const TCPosixLock lock(m_mutex);
        if (!m_admits)
        {
            return true;
        }
        TSSender& sender = m_Sender(name);
        m_DropHandled(sender);
        const std::size_t size = BodySize(pCall);
        isClosed = m_isClosed;
        objection = isClosed ? "The service is ending" : m_Objection(pCall, sender, size);
        if (objection == nullptr)
        {
            m_Add(sender, pCall, size);
            onNewSender = std::exchange(sender.m_isTold, true) ? nullptr : m_onSender;
        }
        else
        {
            const gint64 now = g_get_monotonic_time();
            isNewBurst = sender.m_lastRefusal == 0 || now - sender.m_lastRefusal > BURST_GAP_US;
            sender.m_lastRefusal = now;
        }
    }
    if (objection == nullptr)
    {
        if (onNewSender)
        {
            onNewSender(name);
        }
        return true;
    }
    if (isNewBurst)
    {
        QOR_LOG_ERROR("Refusing calls of %s: %s", name, objection);
    }
    m_Refuse(pCall, isClosed ? NO_SERVICE : LIMITS_EXCEEDED, objection);
    return false;
}

void TCDbusAdmission::m_Add(TSSender& sender, GDBusMessage* pCall, std::size_t size)
{
    sender.m_calls.emplace_back(pCall, size);
    sender.m_bytes += size;
    ++m_calls;
    m_bytes += size;
}

// Null when the call may pass.
const char* TCDbusAdmission::m_Objection(GDBusMessage* pCall, const TSSender& sender,
                                         std::size_t size)
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
    if (sender.m_calls.size() >= MAX_QUEUED_CALLS || sender.m_bytes + size > MAX_QUEUED_BYTES)
    {
        return "Too many calls are waiting";
    }
    if (m_IsFull(size))
    {
        m_DropAllHandled();
        const bool isFirst =
            sender.m_calls.empty() && size <= SMALL_CALL && m_calls < MAX_SMALL_CALLS;
        if (m_IsFull(size) && !isFirst)
        {
            return "Too much is waiting";
        }
    }
    return nullptr;
}

bool TCDbusAdmission::m_IsFull(std::size_t size) const
{
    return m_calls >= MAX_QUEUED_CALLS_IN_ALL || m_bytes + size > MAX_QUEUED_BYTES_IN_ALL;
}

void TCDbusAdmission::m_Refuse(GDBusMessage* pCall, const char* errorName, const char* reason)
{
    if ((g_dbus_message_get_flags(pCall) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) != 0)
    {
        return;
    }
    const TGlibPtr<GDBusMessage> pReply(
        g_dbus_message_new_method_error_literal(pCall, errorName, reason));
    g_dbus_connection_send_message(m_pConnection, pReply.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                   nullptr, nullptr);
}

TCDbusAdmission::TSSender& TCDbusAdmission::m_Sender(const char* name)
{
    if (m_senders.size() >= m_sendersAtNextSweep && m_senders.count(name) == 0)
    {
        m_DropQuietSenders();
        m_sendersAtNextSweep = std::max(FIRST_SWEEP, 2 * m_senders.size());
    }
    return m_senders[name];
}

// Takes off the account what has been handled. Calls are handled in order, so the first ones go
// first.
void TCDbusAdmission::m_DropHandled(TSSender& sender)
{
    while (!sender.m_calls.empty() && sender.m_calls.front().IsGone())
    {
        sender.m_bytes -= sender.m_calls.front().m_size;
        --m_calls;
        m_bytes -= sender.m_calls.front().m_size;
        sender.m_calls.pop_front();
    }
}

void TCDbusAdmission::m_DropAllHandled()
{
    for (auto& entry : m_senders)
    {
        m_DropHandled(entry.second);
    }
}

void TCDbusAdmission::m_DropQuietSenders()
{
    m_DropAllHandled();
    const gint64 now = g_get_monotonic_time();
    for (auto i = m_senders.begin(); i != m_senders.end();)
    {
        const bool isQuiet =
            i->second.m_calls.empty() && now - i->second.m_lastRefusal > BURST_GAP_US;
        i = isQuiet ? m_senders.erase(i) : std::next(i);
    }
}

} // namespace qor
