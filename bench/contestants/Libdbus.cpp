// libdbus, the reference library: server and client.
#include <cstring>
#include <string>
#include <vector>

#include <dbus/dbus.h>

#include "Channel.h"
#include "Session.h"

namespace
{

using namespace qorbench;

DBusConnection* Connect()
{
    DBusError error = DBUS_ERROR_INIT;
    DBusConnection* connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, &error);
    if (connection == nullptr)
    {
        Fail(error.message);
    }
    return connection;
}

void AppendBytes(DBusMessage* message, const unsigned char* bytes, std::size_t size)
{
    if (!dbus_message_append_args(message, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes,
                                  static_cast<int>(size), DBUS_TYPE_INVALID))
    {
        Fail("out of memory");
    }
}

std::vector<unsigned char> Bytes(DBusMessage* message)
{
    const unsigned char* bytes = nullptr;
    int size = 0;
    if (!dbus_message_get_args(message, nullptr, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, &size,
                               DBUS_TYPE_INVALID))
    {
        Fail("a wrong message");
    }
    return std::vector<unsigned char>(bytes, bytes + size);
}

DBusHandlerResult OnMessage(DBusConnection* connection, DBusMessage* message, void* /*data*/)
{
    if (!dbus_message_is_method_call(message, INTERFACE_NAME, SEND_METHOD))
    {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    if (Bytes(message).size() < REQUEST_HEADER_SIZE)
    {
        Fail("a short request");
    }
    DBusMessage* reply = dbus_message_new_method_return(message);
    const unsigned char result = 1;
    AppendBytes(reply, &result, 1);
    dbus_connection_send(connection, reply, nullptr);
    dbus_message_unref(reply);
    return DBUS_HANDLER_RESULT_HANDLED;
}

int Serve(const char* busName)
{
    Session session;
    DBusConnection* connection = Connect();
    DBusObjectPathVTable methods = {};
    methods.message_function = &OnMessage;
    dbus_connection_register_object_path(connection, OBJECT_PATH, &methods, nullptr);
    if (dbus_bus_request_name(connection, busName, 0, nullptr) !=
        DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER)
    {
        Fail("the name was not acquired");
    }
    session.ReplyReady();
    ExitWithInput();
    while (dbus_connection_read_write_dispatch(connection, -1))
    {
    }
    return 0;
}

void Call(DBusConnection* connection, const char* busName,
          const std::vector<unsigned char>& envelope)
{
    DBusMessage* message =
        dbus_message_new_method_call(busName, OBJECT_PATH, INTERFACE_NAME, SEND_METHOD);
    AppendBytes(message, envelope.data(), envelope.size());
    DBusError error = DBUS_ERROR_INIT;
    DBusMessage* reply =
        dbus_connection_send_with_reply_and_block(connection, message, CALL_TIMEOUT_MS, &error);
    if (reply == nullptr)
    {
        Fail(error.message);
    }
    if (Bytes(reply) != std::vector<unsigned char>{1})
    {
        Fail("a wrong reply");
    }
    dbus_message_unref(reply);
    dbus_message_unref(message);
}

int RunClient(const char* busName)
{
    Session session;
    DBusConnection* connection = Connect();
    return TimeRoundTrips(session,
                          [&](const auto& request) { Call(connection, busName, request); });
}

} // namespace

int main(int argc, char** argv)
{
    return PlayRole(argc, argv, {{"server", &Serve}, {"client", &RunClient}});
}
