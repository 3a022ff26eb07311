// Connections to the system bus.
#ifndef QOR_QORBUSCONNECTION_H
#define QOR_QORBUSCONNECTION_H

#include <gio/gio.h>

#include <qor/GlibTypes.h>

namespace qor
{

// The bus itself, as a peer.
constexpr const char* BUS_NAME = "org.freedesktop.DBus";

// The connection that GIO shares among all in the process; null with an error. Blocks.
TGlibPtr<GDBusConnection> SharedBusConnection(GError** ppError);

// A connection of the caller's own, made in its context and within the time; null with an error.
// GIO hands out its shared connection, also when it has closed, for as long as anybody holds it.
TGlibPtr<GDBusConnection> OwnBusConnection(GMainContext* pContext, int timeoutMs, GError** ppError);

// Where no descriptor is to be had, GLib ends the process instead of reporting an error: so this
// is asked before anything that makes a main context. False with an error.
bool HasFreeDescriptors(GError** ppError);

} // namespace qor

#endif
