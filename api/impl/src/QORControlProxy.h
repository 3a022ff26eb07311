// The process-wide control object behind qor::api::GetControl.
#ifndef QOR_QORCONTROLPROXY_H
#define QOR_QORCONTROLPROXY_H

#include <string>

#include <boost/shared_ptr.hpp>

#include <qor/IControl.h>
#include <qor/IDbusClient.h>
#include <qor/Mutex.h>

namespace qor
{

// Sends policies over the process's client endpoint, which it keeps alive.
class QOR_API TCControlProxy : public IControl
{
public:
    static boost::shared_ptr<IControl> Instance();
    static void Destroy();

    TCControlProxy();
    ~TCControlProxy() override;

    TCControlProxy(const TCControlProxy&) = delete;
    TCControlProxy& operator=(const TCControlProxy&) = delete;

    int SetPolicy(const std::string& policy) override;

private:
    friend struct TSForkHandler;

    boost::shared_ptr<IDbusClient> m_dbusClient;

    static boost::shared_ptr<IControl>* const m_pInstance QOR_POINTEE_GUARDED_BY(m_rwlock);
    static TSPosixRwLock m_rwlock;
    static bool m_destroyed QOR_GUARDED_BY(m_rwlock);
};

} // namespace qor

#endif
