// The doorman of an endpoint's connection: who passes, and what other people's calls are let in.
#include "QORDbusFilter.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "QORDbusContext.h"
#include "QOREnvelope.h"
#include "QORLimits.h"
#include "QORLog.h"
#include "QORPosixLock.h"

#define QOR_LOG_CLASS "qor::TCDbusFilter"

namespace qor
{

namespace
{

// Refusals of one sender that are less than this apart are one burst, and one log line.
constexpr gint64 BURST_GAP_US = 10 * G_TIME_SPAN_SECOND;
constexpr std::size_t SETTLE_FROM = 64;

bool IsText(const char* text, const char* expected)
{
    return text != nullptr && std::strcmp(text, expected) == 0;
}

} // namespace

// --- A call that is waiting ----------------------------------------------------------------------

TCDbusFilter::TSHeldCall::TSHeldCall(GDBusMessage* pMessage, std::size_t size)
    : m_message(), m_size(size)
{
    g_weak_ref_init(&m_message, pMessage);
}

TCDbusFilter::TSHeldCall::~TSHeldCall()
{
    g_weak_ref_clear(&m_message);
}

bool TCDbusFilter::TSHeldCall::IsGone()
{
    const TGlibPtr<GDBusMessage> pMessage(static_cast<GDBusMessage*>(g_weak_ref_get(&m_message)));
    return pMessage == nullptr;
}

// --- Coming and going ----------------------------------------------------------------------------

TCDbusFilter::TCDbusFilter(TGlibPtr<GDBusConnection> pConnection, TGlibPtr<GMainContext> pContext,
                           const char* objectPath)
    : m_pConnection(std::move(pConnection)),
      m_objectPath(objectPath),
      m_pContext(std::move(pContext)),
      m_id(0),
      m_hasLeft(false),
      m_sendMutex(PTHREAD_MUTEX_INITIALIZER),
      m_sentMutex(PTHREAD_MUTEX_INITIALIZER),
      m_lastSent(0),
      m_unsentBytes(0),
      m_mutex(PTHREAD_MUTEX_INITIALIZER),
      m_admits(true),
      m_sendersWhenSettled(SETTLE_FROM),
      m_calls(0),
      m_bytes(0)
{
    const TCThreadDefaultContext context(m_pContext.get());
    m_id = g_dbus_connection_add_filter(m_pConnection.get(), &TCDbusFilter::m_Filter, this,
                                        &TCDbusFilter::m_HasLeft);
}

// The worker may be inside the filter when it is removed. GLib calls the free function when nobody
// is: at once, or out of the context that was the thread's default when the filter was added. So
// nothing of ours runs on the worker after this, and the library may be unloaded.
TCDbusFilter::~TCDbusFilter()
{
    g_dbus_connection_remove_filter(m_pConnection.get(), m_id);
    while (!m_hasLeft)
    {
        g_main_context_iteration(m_pContext.get(), TRUE);
    }
    // A connection that was made in this context and has closed is held by its own last signal.
    while (g_main_context_iteration(m_pContext.get(), FALSE))
    {
    }
}

bool TCDbusFilter::IsClosed() const
{
    return g_dbus_connection_is_closed(m_pConnection.get()) != FALSE;
}

void TCDbusFilter::m_HasLeft(void* pFilter)
{
    static_cast<TCDbusFilter*>(pFilter)->m_hasLeft = true;
}

void TCDbusFilter::StopAdmission()
{
    const TCMutexLock lock(m_mutex);
    m_admits = false;
}

GDBusMessage* TCDbusFilter::m_Filter(GDBusConnection* /*pConnection*/, GDBusMessage* pMessage,
                                     int isIncoming, void* pFilter)
{
    auto& filter = *static_cast<TCDbusFilter*>(pFilter);
    if (!isIncoming)
    {
        filter.m_NoteSent(pMessage);
        return pMessage;
    }
    bool isTaken = false;
    switch (g_dbus_message_get_message_type(pMessage))
    {
    case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
    case G_DBUS_MESSAGE_TYPE_ERROR:
        isTaken = filter.m_TakeAnswer(pMessage);
        break;
    case G_DBUS_MESSAGE_TYPE_METHOD_CALL:
        isTaken = !filter.m_Admit(pMessage);
        break;
    default:
        break;
    }
    if (isTaken)
    {
        g_object_unref(pMessage);
        return nullptr;
    }
    return pMessage;
}

// --- Other people's calls ------------------------------------------------------------------------

// Every call to our object counts, not only those of our interface: GDBus queues reads of
// properties too. What it answers by itself is gone by the next look.
bool TCDbusFilter::m_Admit(GDBusMessage* pCall)
{
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
    bool isNewBurst = false;
    {
        const TCMutexLock lock(m_mutex);
        if (!m_admits)
        {
            return true;
        }
        TSSender& sender = m_Sender(name);
        m_Settle(sender);
        const std::size_t size = m_SizeOf(pCall);
        objection = m_Objection(pCall, sender, size);
        if (objection == nullptr)
        {
            sender.m_calls.emplace_back(pCall, size);
            sender.m_bytes += size;
            ++m_calls;
            m_bytes += size;
            return true;
        }
        const gint64 now = g_get_monotonic_time();
        isNewBurst = sender.m_lastRefusal == 0 || now - sender.m_lastRefusal > BURST_GAP_US;
        sender.m_lastRefusal = now;
    }
    if (isNewBurst)
    {
        QOR_LOG_ERROR("Refusing calls of %s: %s", name, objection);
    }
    m_Refuse(pCall, objection);
    return false;
}

std::size_t TCDbusFilter::m_SizeOf(GDBusMessage* pMessage)
{
    GVariant* pBody = g_dbus_message_get_body(pMessage);
    return pBody == nullptr ? 0 : g_variant_get_size(pBody);
}

// Null when the call may pass.
const char* TCDbusFilter::m_Objection(GDBusMessage* pCall, const TSSender& sender, std::size_t size)
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
        m_SettleAll();
        const bool isFirst =
            sender.m_calls.empty() && size <= SMALL_CALL && m_calls < MAX_SMALL_CALLS;
        if (m_IsFull(size) && !isFirst)
        {
            return "Too much is waiting";
        }
    }
    return nullptr;
}

bool TCDbusFilter::m_IsFull(std::size_t size) const
{
    return m_calls >= MAX_QUEUED_CALLS_IN_ALL || m_bytes + size > MAX_QUEUED_BYTES_IN_ALL;
}

void TCDbusFilter::m_Refuse(GDBusMessage* pCall, const char* reason)
{
    if ((g_dbus_message_get_flags(pCall) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) != 0)
    {
        return;
    }
    const TGlibPtr<GDBusMessage> pReply(g_dbus_message_new_method_error_literal(
        pCall, "org.freedesktop.DBus.Error.LimitsExceeded", reason));
    g_dbus_connection_send_message(m_pConnection.get(), pReply.get(),
                                   G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
}

TCDbusFilter::TSSender& TCDbusFilter::m_Sender(const char* name)
{
    if (m_senders.size() >= m_sendersWhenSettled && m_senders.count(name) == 0)
    {
        m_DropQuietSenders();
        m_sendersWhenSettled = std::max(SETTLE_FROM, 2 * m_senders.size());
    }
    return m_senders[name];
}

// Takes off the account what has been handled. Calls are handled in order, so the first ones go
// first.
void TCDbusFilter::m_Settle(TSSender& sender)
{
    while (!sender.m_calls.empty() && sender.m_calls.front().IsGone())
    {
        sender.m_bytes -= sender.m_calls.front().m_size;
        --m_calls;
        m_bytes -= sender.m_calls.front().m_size;
        sender.m_calls.pop_front();
    }
}

void TCDbusFilter::m_SettleAll()
{
    for (auto& entry : m_senders)
    {
        m_Settle(entry.second);
    }
}

void TCDbusFilter::m_DropQuietSenders()
{
    m_SettleAll();
    const gint64 now = g_get_monotonic_time();
    for (auto i = m_senders.begin(); i != m_senders.end();)
    {
        const bool isQuiet =
            i->second.m_calls.empty() && now - i->second.m_lastRefusal > BURST_GAP_US;
        i = isQuiet ? m_senders.erase(i) : std::next(i);
    }
}

} // namespace qor
