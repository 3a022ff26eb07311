// What every endpoint offers: message callbacks by type, and readiness.
#ifndef QOR_IDBUS_H
#define QOR_IDBUS_H

#include <qor/Export.h>
#include <qor/Types.h>

namespace qor
{

/// An endpoint of the channel between applications and the platform monitoring service.
/// All functions may be called from any thread.
class QOR_API IDbus
{
public:
    virtual ~IDbus();

    /// Registers the callback for messages of a type (any signed 32-bit value).
    ///
    /// A type has at most one callback: if it has one, that stays and the result is false. The
    /// callback is copied. May wait for a callback of this endpoint that is running, so it must not
    /// be called from a callback, nor while holding a lock that a callback takes. A client's
    /// endpoint announces the type to the service, and does not wait until the service has
    /// confirmed it.
    ///
    /// @return true if the callback was registered; false also in a forked child.
    virtual bool
    SetCallback(int type, const boost::function<bool(const std::vector<unsigned char>&,
                                                     std::vector<unsigned char>&)>& callback) = 0;

    /// Removes the callback of a type; false if the type has none. When it returns, the removed
    /// callback is not running and will not run again. May wait as SetCallback does, so the same
    /// rules hold.
    virtual bool UnSetCallback(int type) = 0;

    /// Whether the channel is up. For a client: the service is on the bus. For the service: its
    /// well-known name has been acquired. Changes only while the endpoint's main context is
    /// iterated; at a client it also turns false when a send finds a lost bus again. False in a
    /// forked child.
    virtual bool IsReady() = 0;
};

} // namespace qor

#endif
