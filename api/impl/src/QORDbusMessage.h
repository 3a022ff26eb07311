// Questions that the endpoints ask about a D-Bus message.
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

// Whether it is an error reply, and then its code in GIO's terms: that of the error's name if the
// bus library knows the name, else G_IO_ERROR_DBUS_ERROR. GIO's own function for this keeps each
// new name for good, and the sender chooses the names.
bool IsErrorReply(GDBusMessage* pMessage, int& code);

} // namespace qor

#endif
