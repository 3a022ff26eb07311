// A second participant on the bus that speaks the wire format byte by byte.
#include "RawPeer.h"

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <utility>

#include <gio/gio.h>

namespace qortest
{

namespace
{

template <class T>
struct Unref
{
    void operator()(T* p) const
    {
        g_object_unref(p);
    }
};

template <class T>
using ObjectPtr = std::unique_ptr<T, Unref<T>>;

struct VariantUnref
{
    void operator()(GVariant* p) const
    {
        g_variant_unref(p);
    }
};

using VariantPtr = std::unique_ptr<GVariant, VariantUnref>;

void AppendInt32(Bytes& bytes, std::int32_t value)
{
    for (unsigned int shift = 0; shift < 32; shift += 8)
    {
        bytes.push_back(static_cast<unsigned char>(static_cast<std::uint32_t>(value) >> shift));
    }
}

GVariant* Wrap(const Bytes& bytes)
{
    GVariant* const pArray =
        g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
    return g_variant_new_tuple(&pArray, 1);
}

Bytes Unwrap(GVariant* pTuple)
{
    Bytes bytes;
    if (pTuple != nullptr && g_variant_is_of_type(pTuple, G_VARIANT_TYPE("(ay)")))
    {
        const VariantPtr pArray(g_variant_get_child_value(pTuple, 0));
        gsize size = 0;
        const void* const pData = g_variant_get_fixed_array(pArray.get(), &size, 1);
        bytes.resize(size);
        if (size > 0)
        {
            memcpy(bytes.data(), pData, size);
        }
    }
    return bytes;
}

std::string Text(const char* text)
{
    return text == nullptr ? "" : text;
}

CallResult TakeError(GError* pError)
{
    CallResult result;
    result.errorCode = pError->code;
    gchar* const pName = g_dbus_error_get_remote_error(pError);
    result.errorName = Text(pName);
    g_free(pName);
    g_error_free(pError);
    return result;
}

CallResult CallAndWait(GDBusConnection* pConnection, const std::string& destination,
                       const std::string& path, const std::string& method, const Bytes& bytes,
                       int timeoutMs)
{
    GError* pError = nullptr;
    const VariantPtr pReply(g_dbus_connection_call_sync(
        pConnection, destination.c_str(), path.c_str(), INTERFACE_NAME, method.c_str(), Wrap(bytes),
        nullptr, G_DBUS_CALL_FLAGS_NONE, timeoutMs, nullptr, &pError));
    if (pError != nullptr)
    {
        return TakeError(pError);
    }
    CallResult result;
    result.ok = true;
    result.bytes = Unwrap(pReply.get());
    result.signature = g_variant_get_type_string(pReply.get());
    return result;
}

} // namespace

Bytes Request(std::int32_t type, bool isAsync, const Bytes& payload)
{
    Bytes bytes;
    AppendInt32(bytes, type);
    bytes.push_back(isAsync ? 1 : 0);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

Bytes EventList(const std::vector<std::int32_t>& types)
{
    Bytes bytes;
    for (const std::int32_t type : types)
    {
        AppendInt32(bytes, type);
    }
    return bytes;
}

struct RawPeer::State
{
    ObjectPtr<GDBusConnection> pConnection;
    std::string uniqueName;
    guint filter = 0;

    mutable std::mutex mutex;
    mutable std::condition_variable received;
    std::vector<IncomingCall> calls;
    std::function<Answer(const IncomingCall&)> answer;
    std::vector<ObjectPtr<GDBusMessage>> held;

    void Break() const
    {
        GIOStream* const pStream = g_dbus_connection_get_stream(pConnection.get());
        if (G_IS_SOCKET_CONNECTION(pStream))
        {
            g_socket_shutdown(g_socket_connection_get_socket(G_SOCKET_CONNECTION(pStream)), TRUE,
                              TRUE, nullptr);
        }
    }

    void SendReply(GDBusMessage* pMessage, const Answer& reply) const
    {
        ObjectPtr<GDBusMessage> pReply(
            reply.kind == Answer::ERROR
                ? g_dbus_message_new_method_error_literal(pMessage, reply.errorName.c_str(), "test")
                : g_dbus_message_new_method_reply(pMessage));
        if (reply.kind == Answer::REPLY)
        {
            g_dbus_message_set_body(pReply.get(), Wrap(reply.bytes));
        }
        else if (reply.kind == Answer::WRONG_TYPE)
        {
            g_dbus_message_set_body(pReply.get(), g_variant_new("(s)", "not bytes"));
        }
        g_dbus_connection_send_message(pConnection.get(), pReply.get(),
                                       G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    }

    void Handle(ObjectPtr<GDBusMessage> pMessage, const Answer& reply)
    {
        switch (reply.kind)
        {
        case Answer::NEVER:
            break;
        case Answer::HOLD:
        {
            const std::lock_guard<std::mutex> lock(mutex);
            held.push_back(std::move(pMessage));
            break;
        }
        case Answer::LEAVE:
            Break();
            break;
        default:
            SendReply(pMessage.get(), reply);
        }
    }

    bool Receive(GDBusMessage* pMessage)
    {
        IncomingCall call;
        call.sender = Text(g_dbus_message_get_sender(pMessage));
        call.path = Text(g_dbus_message_get_path(pMessage));
        call.interfaceName = Text(g_dbus_message_get_interface(pMessage));
        call.method = Text(g_dbus_message_get_member(pMessage));
        call.signature = Text(g_dbus_message_get_signature(pMessage));
        call.bytes = Unwrap(g_dbus_message_get_body(pMessage));
        if (call.interfaceName != INTERFACE_NAME)
        {
            return false;
        }
        std::function<Answer(const IncomingCall&)> decide;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            decide = answer;
        }
        Answer reply;
        reply.kind = Answer::NO_VALUE;
        if (call.method == "Send")
        {
            reply = decide(call);
        }
        {
            const std::lock_guard<std::mutex> lock(mutex);
            calls.push_back(call);
        }
        Handle(ObjectPtr<GDBusMessage>(pMessage), reply);
        received.notify_all();
        return true;
    }

    static GDBusMessage* Filter(GDBusConnection*, GDBusMessage* pMessage, gboolean isIncoming,
                                gpointer pUserData)
    {
        const std::shared_ptr<State>& pState = *static_cast<std::shared_ptr<State>*>(pUserData);
        const bool isCall = isIncoming && g_dbus_message_get_message_type(pMessage) ==
                                              G_DBUS_MESSAGE_TYPE_METHOD_CALL;
        return isCall && pState->Receive(pMessage) ? nullptr : pMessage;
    }

    std::size_t CountLocked(const std::string& method) const
    {
        std::size_t count = 0;
        for (const IncomingCall& call : calls)
        {
            count += method.empty() || call.method == method ? 1 : 0;
        }
        return count;
    }
};

RawPeer::RawPeer() : m_pState(std::make_shared<State>())
{
    AnswerWith({Answer::REPLY, {1}, ""});
    const char* const pAddress = getenv("DBUS_SYSTEM_BUS_ADDRESS");
    m_pState->pConnection.reset(g_dbus_connection_new_for_address_sync(
        pAddress,
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr));
    if (!m_pState->pConnection)
    {
        throw std::runtime_error("a peer cannot connect to the bus");
    }
    m_pState->uniqueName = g_dbus_connection_get_unique_name(m_pState->pConnection.get());
    m_pState->filter = g_dbus_connection_add_filter(
        m_pState->pConnection.get(), &State::Filter, new std::shared_ptr<State>(m_pState),
        [](gpointer pUserData) { delete static_cast<std::shared_ptr<State>*>(pUserData); });
}

RawPeer::~RawPeer()
{
    g_dbus_connection_remove_filter(m_pState->pConnection.get(), m_pState->filter);
    {
        const std::lock_guard<std::mutex> lock(m_pState->mutex);
        m_pState->held.clear();
    }
    g_dbus_connection_close_sync(m_pState->pConnection.get(), nullptr, nullptr);
}

const std::string& RawPeer::UniqueName() const
{
    return m_pState->uniqueName;
}

bool RawPeer::OwnName(const std::string& name)
{
    const VariantPtr pReply(g_dbus_connection_call_sync(
        m_pState->pConnection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
        "org.freedesktop.DBus", "RequestName", g_variant_new("(su)", name.c_str(), 4U),
        G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
    guint32 code = 0;
    if (pReply)
    {
        g_variant_get(pReply.get(), "(u)", &code);
    }
    return code == 1 || code == 4; // the owner now, or already
}

bool RawPeer::ReleaseName(const std::string& name)
{
    const VariantPtr pReply(g_dbus_connection_call_sync(
        m_pState->pConnection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
        "org.freedesktop.DBus", "ReleaseName", g_variant_new("(s)", name.c_str()),
        G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
    return pReply != nullptr;
}

void RawPeer::AnswerWith(const Answer& answer)
{
    AnswerUsing([answer](const IncomingCall&) { return answer; });
}

void RawPeer::AnswerUsing(const std::function<Answer(const IncomingCall&)>& answer)
{
    const std::lock_guard<std::mutex> lock(m_pState->mutex);
    m_pState->answer = answer;
}

void RawPeer::AnswerHeld(const Answer& answer)
{
    std::vector<ObjectPtr<GDBusMessage>> messages;
    {
        const std::lock_guard<std::mutex> lock(m_pState->mutex);
        messages.swap(m_pState->held);
    }
    for (ObjectPtr<GDBusMessage>& pMessage : messages)
    {
        m_pState->Handle(std::move(pMessage), answer);
    }
}

std::vector<IncomingCall> RawPeer::Calls(const std::string& method) const
{
    const std::lock_guard<std::mutex> lock(m_pState->mutex);
    std::vector<IncomingCall> result;
    for (const IncomingCall& call : m_pState->calls)
    {
        if (method.empty() || call.method == method)
        {
            result.push_back(call);
        }
    }
    return result;
}

std::size_t RawPeer::Count(const std::string& method) const
{
    const std::lock_guard<std::mutex> lock(m_pState->mutex);
    return m_pState->CountLocked(method);
}

void RawPeer::ForgetCalls()
{
    const std::lock_guard<std::mutex> lock(m_pState->mutex);
    m_pState->calls.clear();
}

bool RawPeer::WaitForCalls(const std::string& method, std::size_t count, int watchdogMs) const
{
    std::unique_lock<std::mutex> lock(m_pState->mutex);
    return m_pState->received.wait_for(lock, std::chrono::milliseconds(watchdogMs),
                                       [&] { return m_pState->CountLocked(method) >= count; });
}

CallResult RawPeer::Call(const std::string& destination, const std::string& path,
                         const std::string& method, const Bytes& bytes, int timeoutMs)
{
    return CallAndWait(m_pState->pConnection.get(), destination, path, method, bytes, timeoutMs);
}

std::future<CallResult> RawPeer::StartCall(const std::string& destination, const std::string& path,
                                           const std::string& method, const Bytes& bytes,
                                           int timeoutMs)
{
    return std::async(std::launch::async,
                      [pState = m_pState, destination, path, method, bytes, timeoutMs] {
                          return CallAndWait(pState->pConnection.get(), destination, path, method,
                                             bytes, timeoutMs);
                      });
}

void RawPeer::Post(const std::string& destination, const std::string& path,
                   const std::string& method, const Bytes& bytes)
{
    g_dbus_connection_call(m_pState->pConnection.get(), destination.c_str(), path.c_str(),
                           INTERFACE_NAME, method.c_str(), Wrap(bytes), nullptr,
                           G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
}

void RawPeer::PostHello(const std::string& destination, const std::vector<std::int32_t>& types)
{
    Post(destination, SERVICE_PATH, "Hello", EventList(types));
}

void RawPeer::Sync()
{
    const VariantPtr pReply(g_dbus_connection_call_sync(
        m_pState->pConnection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
        "org.freedesktop.DBus", "GetId", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
        nullptr));
}

void RawPeer::Leave()
{
    m_pState->Break();
}

} // namespace qortest
