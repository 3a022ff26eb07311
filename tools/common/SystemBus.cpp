// The tools' own questions to the system bus.
#include "common/SystemBus.h"

#include <gio/gio.h>

namespace tools
{
namespace
{

constexpr int QUERY_TIMEOUT_MS = 5000;

qor::TGlibPtr<GVariant> AskBus(GDBusConnection* pConnection, const char* method, const char* name,
                               const char* replyType, qor::TGlibPtr<GError>& error)
{
    GError* pError = nullptr;
    qor::TGlibPtr<GVariant> reply(g_dbus_connection_call_sync(
        pConnection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        method, g_variant_new("(s)", name), G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NONE,
        QUERY_TIMEOUT_MS, nullptr, &pError));
    error.reset(pError);
    return reply;
}

bool HasNoOwner(const qor::TGlibPtr<GError>& error)
{
    return g_error_matches(error.get(), G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER) != FALSE;
}

} // namespace

const char* ServiceName(bool testNames)
{
    return testNames ? "com.norvane.qor.IControlTest" : "com.norvane.qor.IControl";
}

const char* ServicePath(bool testNames)
{
    return testNames ? "/com/norvane/qor/CommunicationChannelTest"
                     : "/com/norvane/qor/CommunicationChannel";
}

qor::TGlibPtr<GDBusConnection> ConnectToSystemBus(std::string& error)
{
    GError* pError = nullptr;
    qor::TGlibPtr<GDBusConnection> connection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &pError));
    const qor::TGlibPtr<GError> errorOwner(pError);
    if (!connection)
    {
        error = pError->message;
        return connection;
    }
    g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
    return connection;
}

TSServiceStatus QueryService(GDBusConnection* pConnection, bool testNames)
{
    TSServiceStatus status;
    qor::TGlibPtr<GError> error;
    const auto owner = AskBus(pConnection, "GetNameOwner", ServiceName(testNames), "(s)", error);
    if (!owner)
    {
        status.m_error = HasNoOwner(error) ? "" : error->message;
        return status;
    }
    const char* ownerName = nullptr;
    g_variant_get(owner.get(), "(&s)", &ownerName);

    // Asked of the owner found, not of the well-known name, so that both belong together.
    const auto process = AskBus(pConnection, "GetConnectionUnixProcessID", ownerName, "(u)", error);
    if (!process)
    {
        status.m_error = HasNoOwner(error) ? "" : error->message;
        return status;
    }
    g_variant_get(process.get(), "(u)", &status.m_processId);
    status.m_owner = ownerName;
    return status;
}

} // namespace tools
