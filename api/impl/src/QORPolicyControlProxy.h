// The process-wide policy control object behind qor::api::GetPolicyControl.
#ifndef QOR_QORPOLICYCONTROLPROXY_H
#define QOR_QORPOLICYCONTROLPROXY_H

#include <cstdint>
#include <string>

#include <boost/shared_ptr.hpp>

#include <qor/IDbusClient.h>
#include <qor/IPolicyControl.h>
#include <qor/Mutex.h>

namespace qor
{

// Sends policies over the process's client endpoint, which it keeps alive.
class QOR_API TCPolicyControlProxy : public IPolicyControl
{
public:
    static boost::shared_ptr<IPolicyControl> Instance();
    static void Destroy();

    TCPolicyControlProxy();
    ~TCPolicyControlProxy() override;

    TCPolicyControlProxy(const TCPolicyControlProxy&) = delete;
    TCPolicyControlProxy& operator=(const TCPolicyControlProxy&) = delete;

    TSPolicyResult SetPolicy(const std::string& policy, int timeoutMs,
                             const TCCancellation& cancellation) override;
    void SetPolicyAsync(const std::string& policy, int timeoutMs,
                        const TCCancellation& cancellation, const TPolicyCallback& onDone,
                        GMainContext* pContext) override;
    TSPolicyText GetPolicy(std::uint64_t number, int timeoutMs,
                           const TCCancellation& cancellation) override;
    void GetPolicyAsync(std::uint64_t number, int timeoutMs, const TCCancellation& cancellation,
                        const TPolicyTextCallback& onDone, GMainContext* pContext) override;

private:
    friend struct TSForkHandler;

    const boost::shared_ptr<IDbusClient> m_dbusClient;

    static boost::shared_ptr<IPolicyControl>* const m_pInstance QOR_POINTEE_GUARDED_BY(m_rwlock);
    static TSPosixRwLock m_rwlock;
    static bool m_destroyed QOR_GUARDED_BY(m_rwlock);
};

} // namespace qor

#endif
