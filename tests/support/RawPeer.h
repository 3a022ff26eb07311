// A second participant on the bus that speaks the wire format byte by byte.
#ifndef QORTEST_RAWPEER_H
#define QORTEST_RAWPEER_H

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gio/gio.h>
#include <gio/gunixfdlist.h>

#include <qor/GlibTypes.h>

#include "MainContext.h"

namespace qortest
{

using Bytes = std::vector<unsigned char>;

constexpr const char* SERVICE_NAME = "com.norvane.qor.IControl";
constexpr const char* SERVICE_PATH = "/com/norvane/qor/CommunicationChannel";
constexpr const char* TEST_SERVICE_NAME = "com.norvane.qor.IControlTest";
constexpr const char* TEST_SERVICE_PATH = "/com/norvane/qor/CommunicationChannelTest";
constexpr const char* INTERFACE_NAME = "com.norvane.qor.IControl";

/// The bytes of a Hello, built apart from the code under test.
inline Bytes EventList(const std::vector<std::int32_t>& types)
{
    Bytes bytes;
    for (const std::int32_t type : types)
    {
        for (unsigned int shift = 0; shift < 32; shift += 8)
        {
            bytes.push_back(static_cast<unsigned char>(static_cast<std::uint32_t>(type) >> shift));
        }
    }
    return bytes;
}

/// A request envelope.
inline Bytes Request(std::int32_t type, bool isAsync, const Bytes& payload = {})
{
    Bytes bytes = EventList({type});
    bytes.push_back(isAsync ? 1 : 0);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

/// A method call that a peer has received.
struct IncomingCall
{
    std::string sender;
    std::string path;
    std::string method;
    std::string signature; // of all arguments: "ay"
    Bytes bytes;
    bool mayStart; // the service, where it is not running
};

/// What a peer does with a call.
struct Answer
{
    enum EKind
    {
        REPLY,      // with the bytes
        ERROR,      // with the error name, and the bytes or "test" for its text
        WRONG_TYPE, // a reply that holds a string
        NO_VALUE,   // a reply without any argument
        NEVER,      // the call stays unanswered
        HOLD,       // answered later, by AnswerHeld
        LEAVE       // the connection breaks
    };

    EKind kind = REPLY;
    Bytes bytes;
    std::string errorName = "org.freedesktop.DBus.Error.Failed";
};

/// What came back for a call of the peer's own.
struct CallResult
{
    bool ok = false;
    Bytes bytes;           // of the reply's byte array, if it has one
    std::string signature; // of the reply: "(ay)"
    std::string errorName; // if not ok, the remote error's name, else empty
    int errorCode = 0;     // if not ok, the GLib error's code
};

/// What came back for a call with named arguments.
struct MethodResult
{
    bool ok = false;
    qor::TGlibPtr<GVariant> value;
    std::string text;      // of the value, as g_variant_print has it without types
    std::string errorName; // if not ok, as above
    std::string words;
};

/// A separate private connection to the bus at DBUS_SYSTEM_BUS_ADDRESS. It needs no main context:
/// calls are recorded and answered as they arrive, on GDBus's own thread. Send and Hello at any
/// path are answered; Hello with an empty reply, unless somebody else decides on it.
class RawPeer
{
public:
    using TAnswerer = std::function<Answer(const IncomingCall&)>;

    RawPeer() : m(std::make_shared<State>())
    {
        AnswerWith({Answer::REPLY, {1}, ""});
        GError* pError = nullptr;
        m->connection.reset(g_dbus_connection_new_for_address_sync(
            getenv("DBUS_SYSTEM_BUS_ADDRESS"),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &pError));
        if (!m->connection)
        {
            const qor::TGlibPtr<GError> error(pError);
            throw std::runtime_error(std::string("a peer cannot connect: ") + error->message);
        }
        m->filter = g_dbus_connection_add_filter(
            m->connection.get(), &State::Filter, new std::shared_ptr<State>(m),
            [](gpointer pUserData) { delete static_cast<std::shared_ptr<State>*>(pUserData); });
    }

    ~RawPeer()
    {
        g_dbus_connection_remove_filter(m->connection.get(), m->filter);
        g_dbus_connection_close_sync(m->connection.get(), nullptr, nullptr);
        KeepAddress(m->connection.get());
    }

    std::string UniqueName() const
    {
        return g_dbus_connection_get_unique_name(m->connection.get());
    }

    /// Asks the bus for a well-known name; true if this peer owns it now.
    bool OwnName(const std::string& name)
    {
        const VariantPtr reply = CallBus("RequestName", g_variant_new("(su)", name.c_str(), 4U));
        guint32 code = 0;
        reply ? g_variant_get(reply.get(), "(u)", &code) : void();
        return code == 1 || code == 4; // the owner now, or already
    }

    bool ReleaseName(const std::string& name)
    {
        return CallBus("ReleaseName", g_variant_new("(s)", name.c_str())) != nullptr;
    }

    /// The answer to every Send from now on, at first a reply of the single byte 1; or who decides
    /// on it. The function runs on GDBus's thread and must not wait for anything.
    void AnswerWith(const Answer& answer)
    {
        AnswerUsing([answer](const IncomingCall&) { return answer; });
    }

    void AnswerUsing(const TAnswerer& answerer)
    {
        const std::lock_guard<std::mutex> lock(m->mutex);
        m->answerer = answerer;
    }

    void AnswerHelloUsing(const TAnswerer& answerer)
    {
        const std::lock_guard<std::mutex> lock(m->mutex);
        m->greeter = answerer;
    }

    /// Answers calls of other interfaces, with a floating value, or with an error where it is null.
    using TMethods = std::function<GVariant*(const std::string& method)>;
    void AnswerMethodsUsing(const TMethods& methods)
    {
        const std::lock_guard<std::mutex> lock(m->mutex);
        m->methods = methods;
    }

    /// Answers the calls that are on hold.
    void AnswerHeld(const Answer& answer)
    {
        const std::lock_guard<std::mutex> lock(m->mutex);
        for (MessagePtr& message : std::exchange(m->held, {}))
        {
            m->Handle(std::move(message), answer);
        }
    }

    /// The calls received so far, in order; of one method only if given.
    std::vector<IncomingCall> Calls(const std::string& method = "") const
    {
        const std::lock_guard<std::mutex> lock(m->mutex);
        std::vector<IncomingCall> result;
        std::copy_if(m->calls.begin(), m->calls.end(), std::back_inserter(result),
                     [&](auto& call) { return method.empty() || call.method == method; });
        return result;
    }

    std::size_t Count(const std::string& method) const
    {
        return Calls(method).size();
    }

    void ForgetCalls()
    {
        const std::lock_guard<std::mutex> lock(m->mutex);
        m->calls.clear();
    }

    /// Waits until that many calls have come, iterating nothing; false after the watchdog.
    bool WaitForCalls(const std::string& method, std::size_t count) const
    {
        return WaitUntil([&] { return Count(method) >= count; });
    }

    /// Calls a method with one byte array and waits, iterating nothing: the receiver must be
    /// dispatched by somebody else.
    CallResult Call(const std::string& destination, const std::string& path,
                    const std::string& method, const Bytes& bytes, int timeoutMs = WATCHDOG_MS,
                    GUnixFDList* pDescriptors = nullptr)
    {
        GError* pError = nullptr;
        const VariantPtr reply(g_dbus_connection_call_with_unix_fd_list_sync(
            m->connection.get(), destination.c_str(), path.c_str(), INTERFACE_NAME, method.c_str(),
            Wrap(bytes), nullptr, G_DBUS_CALL_FLAGS_NONE, timeoutMs, pDescriptors, nullptr, nullptr,
            &pError));
        if (reply)
        {
            return {true, Unwrap(reply.get()), g_variant_get_type_string(reply.get()), "", 0};
        }
        const qor::TGlibPtr<GError> error(pError);
        const std::unique_ptr<gchar, void (*)(gpointer)> name(g_dbus_error_get_remote_error(pError),
                                                              &g_free);
        return {false, {}, "", Text(name.get()), pError->code};
    }

    /// Calls a method of another interface of the service, likewise.
    MethodResult CallMethod(const std::string& interface, const std::string& method,
                            GVariant* pArguments)
    {
        GError* pError = nullptr;
        MethodResult result;
        result.value.reset(g_dbus_connection_call_sync(
            m->connection.get(), SERVICE_NAME, SERVICE_PATH, interface.c_str(), method.c_str(),
            pArguments, nullptr, G_DBUS_CALL_FLAGS_NONE, WATCHDOG_MS, nullptr, &pError));
        result.ok = result.value != nullptr;
        const std::unique_ptr<gchar, void (*)(gpointer)> text(
            result.ok ? g_variant_print(result.value.get(), FALSE)
                      : g_dbus_error_get_remote_error(pError),
            &g_free);
        (result.ok ? result.text : result.errorName) = Text(text.get());
        if (!result.ok)
        {
            g_dbus_error_strip_remote_error(pError);
            result.words = pError->message;
            g_error_free(pError);
        }
        return result;
    }

    /// The same without waiting here. The future is ready when the reply has come; it must not
    /// outlive the peer.
    std::future<CallResult> StartCall(const std::string& destination, const std::string& path,
                                      const std::string& method, const Bytes& bytes,
                                      int timeoutMs = WATCHDOG_MS)
    {
        return std::async(std::launch::async,
                          [=] { return Call(destination, path, method, bytes, timeoutMs); });
    }

    /// Calls and drops the reply.
    void Post(const std::string& destination, const std::string& path, const std::string& method,
              const Bytes& bytes)
    {
        g_dbus_connection_call(m->connection.get(), destination.c_str(), path.c_str(),
                               INTERFACE_NAME, method.c_str(), Wrap(bytes), nullptr,
                               G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
    }

    /// Announces types to a service at the normal path, without waiting.
    void PostHello(const std::string& destination, const std::vector<std::int32_t>& types)
    {
        Post(destination, SERVICE_PATH, "Hello", EventList(types));
    }

    /// Waits until everything sent so far has reached the bus daemon.
    void Sync()
    {
        CallBus("GetId", nullptr);
    }

    /// Breaks the connection, as if the process had died.
    void Leave()
    {
        m->Break();
    }

private:
    using MessagePtr = ObjectPtr<GDBusMessage>;
    using VariantPtr = qor::TGlibPtr<GVariant>;

    // GDBus's thread may be about to tell a connection, which it knows by its address alone, that
    // it is closed. A new one at that address would take it for its own end: so the address stays
    // in use until the next peer has gone.
    static void KeepAddress(GDBusConnection* pConnection)
    {
        static std::atomic<GDBusConnection*> last{nullptr};
        ObjectPtr<GDBusConnection>(
            last.exchange(static_cast<GDBusConnection*>(g_object_ref(pConnection))));
    }

    static std::string Text(const char* text)
    {
        return text == nullptr ? "" : text;
    }

    static GVariant* Wrap(const Bytes& bytes)
    {
        GVariant* const pArray =
            g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
        return g_variant_new_tuple(&pArray, 1);
    }

    static Bytes Unwrap(GVariant* pTuple)
    {
        if (pTuple == nullptr || !g_variant_is_of_type(pTuple, G_VARIANT_TYPE("(ay)")))
        {
            return {};
        }
        const VariantPtr array(g_variant_get_child_value(pTuple, 0));
        gsize size = 0;
        const auto* const pData = static_cast<const unsigned char*>(
            g_variant_get_fixed_array(array.get(), &size, sizeof(unsigned char)));
        return Bytes(pData, pData + size);
    }

    VariantPtr CallBus(const char* method, GVariant* pArguments)
    {
        return VariantPtr(g_dbus_connection_call_sync(
            m->connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
            "org.freedesktop.DBus", method, pArguments, nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
            nullptr, nullptr));
    }

    struct State
    {
        ObjectPtr<GDBusConnection> connection;
        guint filter = 0;
        mutable std::mutex mutex;
        std::vector<IncomingCall> calls;
        TAnswerer answerer;
        TAnswerer greeter = [](const IncomingCall&) { return Answer{Answer::NO_VALUE, {}, ""}; };
        TMethods methods;
        std::vector<MessagePtr> held;

        void Break() const
        {
            GIOStream* const pStream = g_dbus_connection_get_stream(connection.get());
            g_socket_shutdown(g_socket_connection_get_socket(G_SOCKET_CONNECTION(pStream)), TRUE,
                              TRUE, nullptr);
        }

        // Called with the mutex held.
        void Handle(MessagePtr call, const Answer& answer)
        {
            if (answer.kind >= Answer::NEVER)
            {
                answer.kind == Answer::LEAVE ? Break() : void();
                answer.kind == Answer::HOLD ? held.push_back(std::move(call)) : void();
                return;
            }
            const std::string text(answer.bytes.begin(), answer.bytes.end());
            const MessagePtr reply(
                answer.kind == Answer::ERROR
                    ? g_dbus_message_new_method_error_literal(call.get(), answer.errorName.c_str(),
                                                              text.empty() ? "test" : text.c_str())
                    : g_dbus_message_new_method_reply(call.get()));
            if (answer.kind == Answer::REPLY || answer.kind == Answer::WRONG_TYPE)
            {
                const bool isRight = answer.kind == Answer::REPLY;
                g_dbus_message_set_body(reply.get(), isRight ? Wrap(answer.bytes)
                                                             : g_variant_new("(s)", "not bytes"));
            }
            g_dbus_connection_send_message(connection.get(), reply.get(),
                                           G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
        }

        GDBusMessage* Return(MessagePtr call, const std::string& method) const
        {
            GVariant* const pValue = methods(method);
            const MessagePtr reply(pValue == nullptr
                                       ? g_dbus_message_new_method_error_literal(
                                             call.get(), "com.norvane.qor.Error.NotStored", "test")
                                       : g_dbus_message_new_method_reply(call.get()));
            pValue == nullptr ? void() : g_dbus_message_set_body(reply.get(), pValue);
            g_dbus_connection_send_message(connection.get(), reply.get(),
                                           G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
            return nullptr;
        }

        static GDBusMessage* Filter(GDBusConnection*, GDBusMessage* pMessage, gboolean isIncoming,
                                    gpointer pUserData)
        {
            if (!isIncoming ||
                g_dbus_message_get_message_type(pMessage) != G_DBUS_MESSAGE_TYPE_METHOD_CALL)
            {
                return pMessage;
            }
            const IncomingCall call{
                Text(g_dbus_message_get_sender(pMessage)),
                Text(g_dbus_message_get_path(pMessage)),
                Text(g_dbus_message_get_member(pMessage)),
                Text(g_dbus_message_get_signature(pMessage)),
                Unwrap(g_dbus_message_get_body(pMessage)),
                (g_dbus_message_get_flags(pMessage) & G_DBUS_MESSAGE_FLAGS_NO_AUTO_START) == 0};
            State& state = **static_cast<std::shared_ptr<State>*>(pUserData);
            const std::lock_guard<std::mutex> lock(state.mutex);
            state.calls.push_back(call);
            if (Text(g_dbus_message_get_interface(pMessage)) != INTERFACE_NAME)
            {
                return state.methods ? state.Return(MessagePtr(pMessage), call.method) : pMessage;
            }
            state.Handle(MessagePtr(pMessage),
                         (call.method == "Send" ? state.answerer : state.greeter)(call));
            return nullptr;
        }
    };

    std::shared_ptr<State> m; // which a call that is just coming in also holds
};

} // namespace qortest

#endif
