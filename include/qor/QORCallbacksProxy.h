// The process-wide callbacks object.
#ifndef QOR_QORCALLBACKSPROXY_H
#define QOR_QORCALLBACKSPROXY_H

#include <vector>

#include <boost/shared_ptr.hpp>

#include <qor/Export.h>
#include <qor/ICallbacks.h>
#include <qor/IDbusClient.h>
#include <qor/Mutex.h>

namespace qor
{

/// Passes the service's events on to the application's functions.
class QOR_API TCCallbacksProxy : public ICallbacks
{
public:
    /// The callbacks object, created on first use. Creating it connects to the system bus if the
    /// process has no client endpoint yet, and blocks meanwhile; the endpoint then belongs to the
    /// calling thread's main context. Any thread. Exceptions out of creating it pass through.
    ///
    /// @return the object, or an empty pointer after Destroy
    static boost::shared_ptr<ICallbacks> Instance();

    /// Releases the object; Instance returns an empty pointer from then on. The library never calls
    /// it: a host that unloads the library does so first. Otherwise the endpoint stays on the bus,
    /// and the next message calls code that is gone. Any thread, but not from an application
    /// function. A caller that still holds the pointer keeps a working object until it releases it.
    static void Destroy();

    TCCallbacksProxy();
    ~TCCallbacksProxy() override;

    TCCallbacksProxy(const TCCallbacksProxy&) = delete;
    TCCallbacksProxy& operator=(const TCCallbacksProxy&) = delete;

    bool SetPolicyUpdateCb(const boost::function<void()>& callback) override;
    bool ResetPolicyUpdateCb() override;
    bool SetRequestProcessInfoCb(const boost::function<bool()>& callback) override;
    bool ResetRequestProcessInfoCb() override;

private:
    friend struct TSForkHandler;

    template <class TFunction>
    bool m_Set(ECallbackType type, TFunction TCCallbacksProxy::*field, const TFunction& callback);
    template <class TFunction>
    bool m_Reset(ECallbackType type, TFunction TCCallbacksProxy::*field);

    bool m_Callback(int type, const std::vector<unsigned char>& in,
                    std::vector<unsigned char>& out);
    bool m_OnCallback(int type, const std::vector<unsigned char>& in,
                      std::vector<unsigned char>& out) QOR_REQUIRES_SHARED(m_rwlock);

    boost::function<void()> m_policyUpdateCb QOR_GUARDED_BY(m_rwlock);
    boost::function<bool()> m_requestProcessInfoCb QOR_GUARDED_BY(m_rwlock);
    boost::shared_ptr<IDbusClient> m_dbusClient;
    TSPosixMutex m_registrationMutex; ///< POSIX: needs no destructor in a forked child.

    static boost::shared_ptr<ICallbacks>* const m_pInstance QOR_POINTEE_GUARDED_BY(m_rwlock);
    static TSPosixRwLock m_rwlock;
    static bool m_destroyed QOR_GUARDED_BY(m_rwlock);
};

} // namespace qor

#endif
