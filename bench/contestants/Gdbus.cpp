// Raw GDBus, written by hand for each job: bytes cross the variant boundary in blocks.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <gio/gio.h>
#include <glib-unix.h>

#include "Archive.h"
#include "Channel.h"
#include "Session.h"

namespace
{

using namespace qorbench;

GDBusConnection* Connect()
{
    GError* error = nullptr;
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (connection == nullptr)
    {
        Fail(error->message);
    }
    return connection;
}

GVariant* Tuple(GVariant* array)
{
    return g_variant_new_tuple(&array, 1);
}

// One copy of the bytes, straight into the block that the message will own.
GVariant* Request(int type, const void* payload, std::size_t size)
{
    auto* block = static_cast<unsigned char*>(g_malloc(REQUEST_HEADER_SIZE + size));
    memcpy(block, &type, sizeof type);
    block[sizeof type] = 0;
    if (size != 0)
    {
        memcpy(block + REQUEST_HEADER_SIZE, payload, size);
    }
    return Tuple(g_variant_new_from_data(G_VARIANT_TYPE_BYTESTRING, block,
                                         REQUEST_HEADER_SIZE + size, TRUE, g_free, block));
}

GVariant* Reply(const std::string& output)
{
    const std::string envelope = '\1' + output;
    return Tuple(
        g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, envelope.data(), envelope.size(), 1));
}

// --- Server --------------------------------------------------------------------------------------

std::string g_storeDirectory; // where policies are stored; empty: they are not

// What whoever wants to find the whole policy after a loss of power does at least.
bool Store(const std::string& policy)
{
    const int directory = open(g_storeDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int file = openat(directory, "new", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const bool isStored =
        write(file, policy.data(), policy.size()) == static_cast<ssize_t>(policy.size()) &&
        fsync(file) == 0 && renameat(directory, "new", directory, "policy") == 0 &&
        fsync(directory) == 0;
    close(file);
    close(directory);
    return isStored;
}

struct Server
{
    GDBusConnection* m_connection = nullptr;
    Session m_session;
    std::vector<std::string> m_clients;
};

// The work gets the payload as a byte vector of its own, as the callbacks of the library do.
void HandleSend(GVariant* parameters, GDBusMethodInvocation* invocation)
{
    GVariant* array = g_variant_get_child_value(parameters, 0);
    gsize size = 0;
    const auto* bytes =
        static_cast<const unsigned char*>(g_variant_get_fixed_array(array, &size, 1));
    if (size < REQUEST_HEADER_SIZE)
    {
        Fail("a short request");
    }
    int type = 0;
    memcpy(&type, bytes, sizeof type);
    const std::vector<unsigned char> payload(bytes + REQUEST_HEADER_SIZE, bytes + size);
    g_variant_unref(array);

    std::string output;
    if (type == SET_POLICY_TYPE)
    {
        const std::string policy = ReadPolicy(payload.data(), payload.size());
        const bool isGood = !policy.empty() && (g_storeDirectory.empty() || Store(policy));
        output = WriteResult(isGood ? 0 : 1);
    }
    g_dbus_method_invocation_return_value(invocation, Reply(output));
}

void OnMethodCall(GDBusConnection* /*connection*/, const char* sender, const char* /*path*/,
                  const char* /*interface*/, const char* method, GVariant* parameters,
                  GDBusMethodInvocation* invocation, void* data)
{
    if (strcmp(method, SEND_METHOD) == 0)
    {
        HandleSend(parameters, invocation);
        return;
    }
    static_cast<Server*>(data)->m_clients.emplace_back(sender);
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

struct Delivery
{
    std::size_t m_pending;
    std::size_t m_succeeded;
};

void OnDelivered(GObject* source, GAsyncResult* result, void* data)
{
    auto* delivery = static_cast<Delivery*>(data);
    GVariant* reply =
        g_dbus_connection_call_finish(reinterpret_cast<GDBusConnection*>(source), result, nullptr);
    --delivery->m_pending;
    if (reply == nullptr)
    {
        return;
    }
    GVariant* array = g_variant_get_child_value(reply, 0);
    gsize size = 0;
    const auto* bytes =
        static_cast<const unsigned char*>(g_variant_get_fixed_array(array, &size, 1));
    if (size != 0 && bytes[0] == 1)
    {
        ++delivery->m_succeeded;
    }
    g_variant_unref(array);
    g_variant_unref(reply);
}

// All calls are started before any is awaited; one body serves them all.
void SendEvent(Server& server, const std::vector<unsigned char>& payload)
{
    Delivery delivery = {server.m_clients.size(), 0};
    GVariant* body = g_variant_ref_sink(Request(EVENT_TYPE, payload.data(), payload.size()));
    for (const std::string& client : server.m_clients)
    {
        g_dbus_connection_call(server.m_connection, client.c_str(), OBJECT_PATH, INTERFACE_NAME,
                               SEND_METHOD, body, nullptr, G_DBUS_CALL_FLAGS_NONE, CALL_TIMEOUT_MS,
                               nullptr, &OnDelivered, &delivery);
    }
    g_variant_unref(body);
    while (delivery.m_pending != 0)
    {
        g_main_context_iteration(nullptr, TRUE);
    }
    if (delivery.m_succeeded != server.m_clients.size())
    {
        Fail("an event was not delivered");
    }
}

gboolean OnCommand(int /*fd*/, GIOCondition /*condition*/, void* data)
{
    auto& server = *static_cast<Server*>(data);
    std::vector<std::string> words;
    if (!server.m_session.Next(words))
    {
        _exit(0);
    }
    const auto reply = [&](const auto&)
    { server.m_session.ReplyNumber("clients", static_cast<double>(server.m_clients.size())); };
    const auto sendEvents = [&](const auto& command)
    {
        const std::vector<unsigned char> payload = Payload(Number(command, 1));
        server.m_session.ReplySamples(
            TimeEach(Number(command, 2), [&] { SendEvent(server, payload); }));
    };
    Obey({{"clients", reply}, {"event", sendEvents}}, words);
    return G_SOURCE_CONTINUE;
}

void OnNameAcquired(GDBusConnection* /*connection*/, const char* /*name*/, void* data)
{
    static_cast<Server*>(data)->m_session.ReplyReady();
}

int Serve(const char* busName)
{
    static const GDBusInterfaceVTable methods = {&OnMethodCall, nullptr, nullptr, {nullptr}};
    Server server;
    server.m_connection = Connect();
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(INTROSPECTION, nullptr);
    if (g_dbus_connection_register_object(server.m_connection, OBJECT_PATH, node->interfaces[0],
                                          &methods, &server, nullptr, nullptr) == 0)
    {
        Fail("the object was not exported");
    }
    g_bus_own_name_on_connection(server.m_connection, busName, G_BUS_NAME_OWNER_FLAGS_NONE,
                                 &OnNameAcquired, nullptr, &server, nullptr);
    g_unix_fd_add(STDIN_FILENO, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), &OnCommand, &server);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    return 0;
}

// --- Client --------------------------------------------------------------------------------------

GVariant* CallAndWait(GDBusConnection* connection, const char* busName, GVariant* request)
{
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        connection, busName, OBJECT_PATH, INTERFACE_NAME, SEND_METHOD, request, nullptr,
        G_DBUS_CALL_FLAGS_NONE, CALL_TIMEOUT_MS, nullptr, &error);
    if (reply == nullptr)
    {
        Fail(error->message);
    }
    return reply;
}

void Call(GDBusConnection* connection, const char* busName,
          const std::vector<unsigned char>& payload)
{
    GVariant* reply =
        CallAndWait(connection, busName, Request(ROUND_TRIP_TYPE, payload.data(), payload.size()));
    GVariant* array = g_variant_get_child_value(reply, 0);
    gsize size = 0;
    const auto* bytes =
        static_cast<const unsigned char*>(g_variant_get_fixed_array(array, &size, 1));
    if (size != 1 || bytes[0] != 1)
    {
        Fail("a wrong reply");
    }
    g_variant_unref(array);
    g_variant_unref(reply);
}

void SetPolicy(GDBusConnection* connection, const char* busName, const std::string& policy)
{
    const std::string archive = WritePolicy(policy);
    GVariant* reply =
        CallAndWait(connection, busName, Request(SET_POLICY_TYPE, archive.data(), archive.size()));
    GVariant* array = g_variant_get_child_value(reply, 0);
    gsize size = 0;
    const auto* bytes =
        static_cast<const unsigned char*>(g_variant_get_fixed_array(array, &size, 1));
    if (size < 2 || bytes[0] != 1 || ReadResult(bytes + 1, size - 1) != 0)
    {
        Fail("a policy was not set");
    }
    g_variant_unref(array);
    g_variant_unref(reply);
}

int RunClient(const char* busName)
{
    Session session;
    GDBusConnection* connection = Connect();
    const auto call = [&](const auto& words)
    {
        const std::vector<unsigned char> payload = Payload(Number(words, 1));
        session.ReplySamples(
            TimeEach(Number(words, 2), [&] { Call(connection, busName, payload); }));
    };
    const auto setPolicy = [&](const auto& words)
    {
        const std::string policy = PolicyText(Number(words, 1));
        session.ReplySamples(
            TimeEach(Number(words, 2), [&] { SetPolicy(connection, busName, policy); }));
    };
    // Each another one: what is in force already need not be stored.
    std::size_t number = 0;
    const auto storePolicies = [&](const auto& words)
    {
        const std::string filling(Number(words, 1), 'x');
        session.ReplySamples(TimeEach(Number(words, 2),
                                      [&]
                                      {
                                          SetPolicy(connection, busName,
                                                    "<policy id='" + std::to_string(++number) +
                                                        "'>" + filling + "</policy>");
                                      }));
    };
    ObeyAll(session, {{"call", call}, {"policy", setPolicy}, {"store", storePolicies}});
    return 0;
}

// The name on the bus, and the directory behind a colon.
int ServeAndStore(const char* words)
{
    const std::string both = words;
    const std::size_t colon = both.find(':');
    g_storeDirectory = both.substr(colon + 1);
    return Serve(both.substr(0, colon).c_str());
}

// --- First call ----------------------------------------------------------------------------------

// The same steps on the bus as an endpoint takes that can also be called back: export, proxy, name
// watch, Hello, and then the call.
int FirstCall(const char* busName)
{
    static const GDBusInterfaceVTable methods = {&OnMethodCall, nullptr, nullptr, {nullptr}};
    GDBusConnection* connection = Connect();
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(INTROSPECTION, nullptr);
    g_dbus_connection_register_object(connection, OBJECT_PATH, node->interfaces[0], &methods,
                                      nullptr, nullptr, nullptr);
    g_dbus_proxy_new_sync(
        connection,
        static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES |
                                     G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START_AT_CONSTRUCTION),
        nullptr, busName, OBJECT_PATH, INTERFACE_NAME, nullptr, nullptr);
    g_bus_watch_name_on_connection(connection, busName, G_BUS_NAME_WATCHER_FLAGS_NONE, nullptr,
                                   nullptr, nullptr, nullptr);
    g_dbus_connection_call(connection, busName, OBJECT_PATH, INTERFACE_NAME, HELLO_METHOD,
                           Tuple(g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, "", 0, 1)), nullptr,
                           G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
    Call(connection, busName, std::vector<unsigned char>(16));
    return write(STDOUT_FILENO, "!", 1) == 1 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    return PlayRole(argc, argv,
                    {{"server", &Serve},
                     {"store", &ServeAndStore},
                     {"client", &RunClient},
                     {"first-call", &FirstCall}});
}
