// An interface of a service's own on its object, beside the channel's.
#ifndef QOR_SERVICEINTERFACE_H
#define QOR_SERVICEINTERFACE_H

#include <string>

#include <boost/function.hpp>

#include <qor/GlibTypes.h>

namespace qor
{

/// What a service has on its object for those who do not speak the channel. Its calls are admitted
/// and handled as messages are: within the sender's share, in the server's main context, one at a
/// time, with GetCurrentSender and CurrentPeer for who asks.
struct TSServiceInterface
{
    /// Introspection data: a node with this one interface. Properties are for reading; the library
    /// answers org.freedesktop.DBus.Properties for them.
    std::string m_xml;

    /// Takes a method call whose arguments are of the declared types, and owns the invocation. It
    /// answers it (g_dbus_method_invocation_return_value, or one of the functions for errors), now
    /// or later and on any thread, once. Until then the call counts against the sender's share.
    /// Must not throw, nor be empty.
    boost::function<void(GDBusMethodInvocation*)> m_onCall;

    /// Returns a property's value, of the declared type, floating or a reference; null where the
    /// current sender may not have it: it is left out of all, and refused where it is asked for.
    /// Must not throw.
    boost::function<GVariant*(const std::string&)> m_onRead;
};

} // namespace qor

#endif
