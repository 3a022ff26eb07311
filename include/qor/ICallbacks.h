// What the service can ask of an application.
#ifndef QOR_ICALLBACKS_H
#define QOR_ICALLBACKS_H

#include <boost/function.hpp>

#include <qor/Export.h>

namespace qor
{

/// The callbacks object of the process; see TCCallbacksProxy::Instance.
///
/// An application registers one function for each of the two events. The functions run in the main
/// context of the process's client endpoint (see TCDbus), so the application must iterate it.
///
/// An application function
/// - must not call Set..., Reset... or TCCallbacksProxy::Destroy, nor wait for a thread that does:
///   they wait until the function has returned;
/// - must not throw;
/// - delays all further messages of the service while it runs, so it should be quick. Even if it
///   iterates the main context, no other function is called meanwhile.
///
/// All operations may be called from any other place and thread. They wait for a function of this
/// object, and for any other callback of the endpoint, that is running.
class QOR_API ICallbacks
{
public:
    /// The message types of the two events.
    enum ECallbackType
    {
        POLICY_UPDATE = 2,       ///< The service has a new policy.
        REQUEST_PROCESS_INFO = 4 ///< The service asks for process information.
    };

    virtual ~ICallbacks();

    /// Registers the function that is called when the service has a new policy.
    ///
    /// An empty function subscribes as well; the service then gets the answer false. Another
    /// function can be registered only after a Reset.
    ///
    /// @return false if the type has a function already (which stays), or a callback that was set
    /// on
    ///         the endpoint itself
    virtual bool SetPolicyUpdateCb(const boost::function<void()>& callback) = 0;

    /// Removes the function and unsubscribes. When it returns, the function is not running and will
    /// not run again.
    ///
    /// @return false if nothing was subscribed
    virtual bool ResetPolicyUpdateCb() = 0;

    /// Registers the function that is called when the service asks for process information. The
    /// service gets the answer true when the function has returned, whatever it returns. Otherwise
    /// like SetPolicyUpdateCb.
    virtual bool SetRequestProcessInfoCb(const boost::function<bool()>& callback) = 0;

    /// Like ResetPolicyUpdateCb.
    virtual bool ResetRequestProcessInfoCb() = 0;
};

} // namespace qor

#endif
