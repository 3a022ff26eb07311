// A participant on the bus that speaks the wire format byte by byte: what it asks of others.
#ifndef QORTEST_RAWCALLER_H
#define QORTEST_RAWCALLER_H

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
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
    const auto* const pBytes = reinterpret_cast<const unsigned char*>(types.data());
    return Bytes(pBytes, pBytes + sizeof(std::int32_t) * types.size());
}

/// A request envelope.
inline Bytes Request(std::int32_t type, bool isAsync, const Bytes& payload = {})
{
    Bytes bytes = EventList({type});
    bytes.push_back(isAsync ? 1 : 0);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

/// What came back for a call.
struct CallResult
{
    bool ok = false;
    Bytes bytes;           // of the reply's byte array, if it has one
    std::string signature; // of the reply: "(ay)"
    std::string text;      // of a reply without bytes, as g_variant_print has it without types
    std::string errorName; // if not ok, the remote error's name, else empty
    int errorCode = 0;     // if not ok, the GLib error's code
};

/// A separate private connection to the bus at DBUS_SYSTEM_BUS_ADDRESS, which needs no main
/// context.
class RawCaller
{
public:
    RawCaller()
    {
        GError* pError = nullptr;
        m_connection.reset(g_dbus_connection_new_for_address_sync(
            getenv("DBUS_SYSTEM_BUS_ADDRESS"),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &pError));
        if (!m_connection)
        {
            const qor::TGlibPtr<GError> error(pError);
            throw std::runtime_error(std::string("a peer cannot connect: ") + error->message);
        }
    }

    ~RawCaller()
    {
        g_dbus_connection_close_sync(m_connection.get(), nullptr, nullptr);
        KeepAddress(m_connection.get());
    }

    std::string UniqueName() const
    {
        return g_dbus_connection_get_unique_name(m_connection.get());
    }

    /// Asks the bus for a well-known name; true if this peer owns it now.
    bool OwnName(const std::string& name)
    {
        const auto code = CallBus("RequestName", g_variant_new("(su)", name.c_str(), 4U)).text;
        return code == "(1,)" || code == "(4,)"; // the owner now, or already
    }

    bool ReleaseName(const std::string& name)
    {
        return CallBus("ReleaseName", g_variant_new("(s)", name.c_str())).ok;
    }

    /// Calls a method with one byte array and waits, iterating nothing: the receiver must be
    /// dispatched by somebody else.
    CallResult Call(const std::string& destination, const std::string& path,
                    const std::string& method, const Bytes& bytes, int timeoutMs = WATCHDOG_MS,
                    GUnixFDList* pDescriptors = nullptr)
    {
        return Ask(destination, path, INTERFACE_NAME, method, Wrap(bytes), timeoutMs, pDescriptors);
    }

    /// Calls a method of another interface of the service, likewise.
    CallResult CallMethod(const std::string& interface, const std::string& method,
                          GVariant* pArguments)
    {
        return Ask(SERVICE_NAME, SERVICE_PATH, interface, method, pArguments, WATCHDOG_MS, nullptr);
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
        g_dbus_connection_call(m_connection.get(), destination.c_str(), path.c_str(),
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
        Break(m_connection.get());
    }

    /// The arguments of a call, or the body of a reply, that is one byte array; floating.
    static GVariant* Wrap(const Bytes& bytes)
    {
        GVariant* const pArray =
            g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
        return g_variant_new_tuple(&pArray, 1);
    }

protected:
    using VariantPtr = qor::TGlibPtr<GVariant>;

    static std::string Text(const char* text)
    {
        return text == nullptr ? "" : text;
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

    static void Break(GDBusConnection* pConnection)
    {
        GIOStream* const pStream = g_dbus_connection_get_stream(pConnection);
        g_socket_shutdown(g_socket_connection_get_socket(G_SOCKET_CONNECTION(pStream)), TRUE, TRUE,
                          nullptr);
    }

    ObjectPtr<GDBusConnection> m_connection;

private:
    // GDBus's thread may be about to tell a connection, which it knows by its address alone, that
    // it is closed. A new one at that address would take it for its own end: so the address stays
    // in use until the next peer has gone.
    static void KeepAddress(GDBusConnection* pConnection)
    {
        static std::atomic<GDBusConnection*> last{nullptr};
        ObjectPtr<GDBusConnection>(
            last.exchange(static_cast<GDBusConnection*>(g_object_ref(pConnection))));
    }

    CallResult Ask(const std::string& destination, const std::string& path,
                   const std::string& interface, const std::string& method, GVariant* pArguments,
                   int timeoutMs, GUnixFDList* pDescriptors)
    {
        GError* pError = nullptr;
        const VariantPtr reply(g_dbus_connection_call_with_unix_fd_list_sync(
            m_connection.get(), destination.c_str(), path.c_str(), interface.c_str(),
            method.c_str(), pArguments, nullptr, G_DBUS_CALL_FLAGS_NONE, timeoutMs, pDescriptors,
            nullptr, nullptr, &pError));
        const qor::TGlibPtr<GError> error(pError);
        const std::string type = reply ? g_variant_get_type_string(reply.get()) : "";
        const std::unique_ptr<gchar, void (*)(gpointer)> text(
            !reply           ? g_dbus_error_get_remote_error(pError)
            : type == "(ay)" ? nullptr
                             : g_variant_print(reply.get(), FALSE),
            &g_free);
        return reply ? CallResult{true, Unwrap(reply.get()), type, Text(text.get()), "", 0}
                     : CallResult{false, {}, "", "", Text(text.get()), pError->code};
    }

    CallResult CallBus(const char* method, GVariant* pArguments)
    {
        return Ask("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method,
                   pArguments, -1, nullptr);
    }
};

} // namespace qortest

#endif
