// Watches who owns a name on the bus, and the connection itself.
#include "common/NameWatch.h"

#include <utility>

#include <gio/gio.h>

namespace tools
{

TCNameWatch::TCNameWatch(GDBusConnection* pConnection, const char* name, TSHandlers handlers)
    : m_handlers(std::move(handlers)),
      m_pConnection(pConnection),
      m_closedHandlerId(g_signal_connect(pConnection, "closed", G_CALLBACK(m_Closed), this)),
      m_watcherId(g_bus_watch_name_on_connection(pConnection, name, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                                 m_Appeared, m_Vanished, this, nullptr))
{
}

TCNameWatch::~TCNameWatch()
{
    g_bus_unwatch_name(m_watcherId);
    g_signal_handler_disconnect(m_pConnection, m_closedHandlerId);
}

void TCNameWatch::m_Appeared(GDBusConnection*, const char*, const char* owner, void* pWatch)
{
    static_cast<TCNameWatch*>(pWatch)->m_handlers.m_appeared(owner);
}

void TCNameWatch::m_Vanished(GDBusConnection* pConnection, const char*, void* pWatch)
{
    const TSHandlers& handlers = static_cast<TCNameWatch*>(pWatch)->m_handlers;
    // A watch on a closed connection reports the name as vanished, without a connection.
    if (pConnection == nullptr || g_dbus_connection_is_closed(pConnection) != FALSE)
    {
        handlers.m_closed();
        return;
    }
    handlers.m_vanished();
}

void TCNameWatch::m_Closed(GDBusConnection*, int, GError*, void* pWatch)
{
    static_cast<TCNameWatch*>(pWatch)->m_handlers.m_closed();
}

} // namespace tools
