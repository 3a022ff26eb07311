// Our own calls on a connection, and their answers.
#include "QORDbusCalls.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "QORBusConnection.h"
#include "QORDbusMessage.h"
#include "QORLocks.h"

namespace qor
{

namespace
{

constexpr gint64 CHECK_INTERVAL_US = TCDbusCalls::CHECK_INTERVAL_MS * G_TIME_SPAN_MILLISECOND;

bool IsBus(const char* name)
{
    return std::strcmp(name, BUS_NAME) == 0;
}

// The only name that may answer; empty if only the bus knows who owns the name called.
std::string ExpectedSender(GDBusMessage* pCall)
{
    const char* name = g_dbus_message_get_destination(pCall);
    const bool isKnown = name != nullptr && (g_dbus_is_unique_name(name) || IsBus(name));
    return isKnown ? name : "";
}

} // namespace

struct TCDbusCalls::TSCall
{
    TSCall(GDBusMessage* pMessage, TAnswerHandler handler)
        : m_pMessage(pMessage),
          m_expectedSender(ExpectedSender(pMessage)),
          m_size(BodySize(pMessage)),
          m_handler(std::move(handler))
    {
    }

    bool IsAnsweredBy(const char* sender) const
    {
        return m_expectedSender.empty() || sender == nullptr || m_expectedSender == sender ||
               IsBus(sender);
    }

    const GDBusMessage* const m_pMessage; // only its address; valid until it is seen going out
    const std::string m_expectedSender;
    const std::size_t m_size;
    const TAnswerHandler m_handler; // none: a thread waits
    std::uint32_t m_serial = 0;
    TCCondition m_changed;
    TGlibPtr<GDBusMessage> m_pAnswer;
};

TCDbusCalls::TCDbusCalls(GDBusConnection* pConnection)
    : m_pConnection(pConnection), m_unsentBytes(0)
{
}

TCDbusCalls::~TCDbusCalls() = default;

std::uint32_t TCDbusCalls::Call(GDBusMessage* pCall, const TAnswerHandler& handler,
                                GError** ppError)
{
    return m_Send(std::make_shared<TSCall>(pCall, handler), pCall, ppError);
}

// The caller holds the message, so nothing else has its address before this returns.
std::uint32_t TCDbusCalls::m_Send(const TCallPtr& call, GDBusMessage* pMessage, GError** ppError)
{
    {
        const TCPosixLock lock(m_mutex);
        m_unsent.push_back(call);
        m_unsentBytes += call->m_size;
    }
    std::uint32_t serial = 0;
    const auto flags = g_dbus_message_get_serial(pMessage) == 0
                           ? G_DBUS_SEND_MESSAGE_FLAGS_NONE
                           : G_DBUS_SEND_MESSAGE_FLAGS_PRESERVE_SERIAL;
    const bool isQueued =
        g_dbus_connection_send_message(m_pConnection, pMessage, flags, &serial, ppError) != FALSE;
    const TCPosixLock lock(m_mutex);
    call->m_serial = serial;
    if (!isQueued)
    {
        m_Drop(call);
        return 0;
    }
    return serial;
}

void TCDbusCalls::NoteSent(GDBusMessage* pMessage)
{
    const TCPosixLock lock(m_mutex);
    const TCallPtr call =
        m_DropUnsent([pMessage](const TSCall& unsent) { return unsent.m_pMessage == pMessage; });
    if (call != nullptr)
    {
        m_awaited.emplace(g_dbus_message_get_serial(pMessage), call);
    }
}

bool TCDbusCalls::TakeAnswer(GDBusMessage* pMessage)
{
    TCallPtr call;
    {
        const TCPosixLock lock(m_mutex);
        const auto found = m_awaited.find(g_dbus_message_get_reply_serial(pMessage));
        if (found == m_awaited.end() ||
            !found->second->IsAnsweredBy(g_dbus_message_get_sender(pMessage)))
        {
            return false;
        }
        call = std::move(found->second);
        m_awaited.erase(found);
        if (!call->m_handler)
        {
            call->m_pAnswer.reset(static_cast<GDBusMessage*>(g_object_ref(pMessage)));
        }
    }
    if (call->m_handler)
    {
        call->m_handler(pMessage);
    }
    else
    {
        call->m_changed.Signal(); // without the mutex, which the thread that wakes up needs at once
    }
    return true;
}

void TCDbusCalls::Forget(std::uint32_t serial)
{
    const TCPosixLock lock(m_mutex);
    if (m_awaited.erase(serial) == 0)
    {
        m_DropUnsent([serial](const TSCall& call) { return call.m_serial == serial; });
    }
}

void TCDbusCalls::m_Drop(const TCallPtr& dropped)
{
    m_awaited.erase(dropped->m_serial);
    m_DropUnsent([&dropped](const TSCall& call) { return &call == dropped.get(); });
}

template <class TPredicate>
TCDbusCalls::TCallPtr TCDbusCalls::m_DropUnsent(const TPredicate& isMeant)
{
    const auto found = std::find_if(m_unsent.begin(), m_unsent.end(),
                                    [&isMeant](const TCallPtr& call) { return isMeant(*call); });
    if (found == m_unsent.end())
    {
        return nullptr;
    }
    TCallPtr call = std::move(*found);
    m_unsent.erase(found);
    m_unsentBytes -= call->m_size;
    return call;
}

std::size_t TCDbusCalls::UnsentBytes()
{
    const TCPosixLock lock(m_mutex);
    return m_unsentBytes;
}

bool TCDbusCalls::IsAnsweredByBus(const char* method, GVariant* pBody, std::int64_t limitUs)
{
    const TGlibPtr<GDBusMessage> pCall(
        g_dbus_message_new_method_call(BUS_NAME, BUS_PATH, BUS_NAME, method));
    g_dbus_message_set_body(pCall.get(), pBody);
    GError* pError = nullptr;
    const auto pAnswer =
        CallAndWait(pCall.get(), g_get_monotonic_time() + limitUs, TCCancellation(), &pError);
    const TGlibPtr<GError> error(pError);
    return pAnswer != nullptr;
}

bool TCDbusCalls::IsOver(std::int64_t deadline, const TCCancellation& cancellation,
                         GError** ppError) const
{
    if (cancellation.IsCancelled())
    {
        g_set_error_literal(ppError, G_IO_ERROR, G_IO_ERROR_CANCELLED, "Operation was cancelled");
        return true;
    }
    if (g_dbus_connection_is_closed(m_pConnection))
    {
        g_set_error_literal(ppError, G_IO_ERROR, G_IO_ERROR_CLOSED, "The connection is closed");
        return true;
    }
    if (g_get_monotonic_time() >= deadline)
    {
        g_set_error_literal(ppError, G_IO_ERROR, G_IO_ERROR_TIMED_OUT, "Timeout was reached");
        return true;
    }
    return false;
}

TGlibPtr<GDBusMessage> TCDbusCalls::CallAndWait(GDBusMessage* pCall, std::int64_t deadline,
                                                const TCCancellation& cancellation,
                                                GError** ppError)
{
    const auto call = std::make_shared<TSCall>(pCall, nullptr);
    if (m_Send(call, pCall, ppError) == 0)
    {
        return nullptr;
    }
    TCPosixLock lock(m_mutex);
    while (call->m_pAnswer == nullptr)
    {
        if (IsOver(deadline, cancellation, ppError))
        {
            m_Drop(call);
            return nullptr;
        }
        const gint64 nextCheck = g_get_monotonic_time() + CHECK_INTERVAL_US;
        lock.WaitUntil(call->m_changed, std::min(deadline, nextCheck));
    }
    return std::move(call->m_pAnswer);
}

} // namespace qor
