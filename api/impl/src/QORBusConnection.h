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

// The connection that GIO shares among all in the process, or, where that has closed, one of the
// caller's own, made in its context; null with an error. Blocks for the time above at most. In a
// forked child of a process that has called it before, there is none: the threads that a connection
// needs are the parent's.
TGlibPtr<GDBusConnection> BusConnection(GMainContext* pContext, GError** ppError);

// A connection of the caller's own, likewise, and for no longer than the caller waits: until then
// (monotonic time in microseconds), and unless it cancels. GIO hands out its shared connection,
// also when it has closed, for as long as anybody holds it.
TGlibPtr<GDBusConnection> OwnBusConnection(GMainContext* pContext, std::int64_t deadline,
                                           const TCCancellation& cancellation, GError** ppError);

// A source that is ready once the connection has closed. It watches the socket, since a connection
// reports its end only in the context that it was made in, which may be iterated by nobody. The
// connection must be held as long as the source.
TGlibPtr<GSource> NewHangUpSource(GDBusConnection* pConnection);

// Where no descriptor is to be had, GLib ends the process instead of reporting an error: so this
// is asked before anything that makes a main context. False with an error.
bool HasFreeDescriptors(GError** ppError);

} // namespace qor

#endif
