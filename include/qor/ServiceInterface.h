// An interface of a service's own on its object, beside the channel's.
#ifndef QOR_SERVICEINTERFACE_H
#define QOR_SERVICEINTERFACE_H

#include <string>

#include <boost/function.hpp>

#include <qor/GlibTypes.h>

namespace qor
{

/// A further interface on the service's object, for programs that do not use the library. Its calls
/// are admitted and handled as messages are: within the sender's limits, in the server's main
/// context, one at a time, with GetCurrentSender and CurrentPeer for the caller.
struct TSServiceInterface
{
    /// Introspection data: a node with this one interface. Properties can only be read; the library
    /// answers org.freedesktop.DBus.Properties for them.
    std::string m_xml;

    /// Handles a method call whose arguments have the declared types, and owns the invocation. It
    /// must answer exactly once (g_dbus_method_invocation_return_value, or one of the functions for
    /// errors), now or later and on any thread. Until then the call counts against the sender's
    /// limits. Must not throw, nor be empty.
    boost::function<void(GDBusMethodInvocation*)> m_onCall;

    /// Returns a property's value, of the declared type, floating or a reference. Null means that
    /// the current sender may not read it: GetAll then leaves it out, and Get is refused. Must not
    /// throw.
    boost::function<GVariant*(const std::string&)> m_onRead;
};

} // namespace qor

#endif
