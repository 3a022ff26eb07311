// Connections to the system bus.
#ifndef QOR_QORBUSCONNECTION_H
#define QOR_QORBUSCONNECTION_H

#include <cstdint>
#include <limits>

#include <gio/gio.h>

#include <qor/GlibTypes.h>
#include <qor/SendResult.h>

namespace qor
{

// The bus itself, as a peer.
constexpr const char* BUS_NAME = "org.freedesktop.DBus";
constexpr const char* BUS_PATH = "/org/freedesktop/DBus";

// How long a bus may take to let us in. The start and the search for a lost bus have this limit.
constexpr int CONNECT_TIMEOUT_MS = 2000;
constexpr std::int64_t NO_DEADLINE = std::numeric_limits<std::int64_t>::max();

// Whether this process was forked from one that has asked for a connection: the threads that a
// connection needs are not in the child, and locks of GLib's that they held are never released
// there. So such a child calls nothing of GLib, nor does this.
bool IsForkedChild();

// The connection that GIO shares in the process; if that has closed, a new one that is made in the
// caller's context; null with an error. Blocks for the time above at most.
TGlibPtr<GDBusConnection> BusConnection(GMainContext* pContext, GError** ppError);

// A new connection of the caller's own, with the same limit, and no longer than until the deadline
// (monotonic time in microseconds) or until the caller cancels. Needed because GIO hands out its
// shared connection even after it has closed, as long as anything holds it.
TGlibPtr<GDBusConnection> OwnBusConnection(GMainContext* pContext, std::int64_t deadline,
                                           const TCCancellation& cancellation, GError** ppError);

// A source that is ready once the connection has closed. It watches the socket, since a connection
// reports its end only in the context that it was made in, which perhaps no thread iterates. The
// connection must be held as long as the source.
TGlibPtr<GSource> NewHangUpSource(GDBusConnection* pConnection);

// If no file descriptor is left, GLib ends the process instead of reporting an error. So call this
// before anything that makes a main context. False with an error.
bool HasFreeDescriptors(GError** ppError);

} // namespace qor

#endif
