// What the endpoints ask of a D-Bus message.
#ifndef QOR_QORDBUSMESSAGE_H
#define QOR_QORDBUSMESSAGE_H

#include <cstddef>

#include <gio/gio.h>

namespace qor
{

constexpr const char* LIMITS_EXCEEDED = "org.freedesktop.DBus.Error.LimitsExceeded";

// The bytes of its arguments.
std::size_t BodySize(GDBusMessage* pMessage);

// Whether the sender of a call waits for an answer.
bool WantsAnswer(GDBusMessage* pCall);

// Whether it is an error reply, and then its code in GIO's terms: that of a name which the bus
// library knows, else G_IO_ERROR_DBUS_ERROR. GIO's own function for this keeps each new name for
// good, and names are the sender's choice.
bool IsErrorReply(GDBusMessage* pMessage, int& code);

} // namespace qor

#endif
