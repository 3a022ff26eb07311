// The process-wide callbacks object.
#include <qor/QORCallbacksProxy.h>

#include <boost/bind/bind.hpp>

#include <qor/QORDbusClient.h>

#include "QORLog.h"
#include "QORProxySingleton.h"

#define QOR_LOG_CLASS "qor::TCCallbacksProxy"

namespace qor
{

ICallbacks::~ICallbacks() = default;

// Not analysed: the two templates take the lock that they are given.
boost::shared_ptr<ICallbacks> TCCallbacksProxy::Instance() QOR_NOT_ANALYSED
{
    return ProxyInstance<TCCallbacksProxy>(*m_pInstance, m_rwlock, m_destroyed);
}

void TCCallbacksProxy::Destroy() QOR_NOT_ANALYSED
{
    ProxyDestroy(*m_pInstance, m_rwlock, m_destroyed);
}

TCCallbacksProxy::TCCallbacksProxy() : m_dbusClient(TCDbusClientProvider::Get(false))
{
    if (!m_dbusClient)
    {
        QOR_ASSERT_FAILED();
    }
}

TCCallbacksProxy::~TCCallbacksProxy()
{
    // The endpoint may live on with another holder. Removing a type's callback waits for a message
    // that is being handled, so that no message reaches a proxy that is gone.
    if (m_dbusClient)
    {
        m_dbusClient->UnSetCallback(POLICY_UPDATE);
        m_dbusClient->UnSetCallback(REQUEST_PROCESS_INFO);
    }
}

bool TCCallbacksProxy::SetPolicyUpdateCb(const boost::function<void()>& callback)
{
    return m_Set(POLICY_UPDATE, &TCCallbacksProxy::m_policyUpdateCb, callback);
}

bool TCCallbacksProxy::ResetPolicyUpdateCb()
{
    return m_Reset(POLICY_UPDATE, &TCCallbacksProxy::m_policyUpdateCb);
}

bool TCCallbacksProxy::SetRequestProcessInfoCb(const boost::function<bool()>& callback)
{
    return m_Set(REQUEST_PROCESS_INFO, &TCCallbacksProxy::m_requestProcessInfoCb, callback);
}

bool TCCallbacksProxy::ResetRequestProcessInfoCb()
{
    return m_Reset(REQUEST_PROCESS_INFO, &TCCallbacksProxy::m_requestProcessInfoCb);
}

// A message that is being dispatched holds the endpoint's callback table shared while it waits for
// m_rwlock, and the endpoint's SetCallback and UnSetCallback take that table exclusively. So they
// are called without m_rwlock; m_registrationMutex, which no message takes, keeps the steps of one
// Set or Reset together.
template <class TFunction>
bool TCCallbacksProxy::m_Set(ECallbackType type, TFunction TCCallbacksProxy::*field,
                             const TFunction& callback)
{
    TFunction copy(callback);
    const TCPosixLock registrationLock(m_registrationMutex);
    {
        const TCWriteLock lock(m_rwlock);
        if (!(this->*field).empty())
        {
            return false;
        }
    }
    if (!m_dbusClient ||
        !m_dbusClient->SetCallback(
            type, boost::bind(&TCCallbacksProxy::m_Callback, this, static_cast<int>(type),
                              boost::placeholders::_1, boost::placeholders::_2)))
    {
        return false;
    }
    const TCWriteLock lock(m_rwlock);
    (this->*field).swap(copy);
    return true;
}

template <class TFunction>
bool TCCallbacksProxy::m_Reset(ECallbackType type, TFunction TCCallbacksProxy::*field)
{
    TFunction last; // destroyed without a lock: it is the application's
    const TCPosixLock registrationLock(m_registrationMutex);
    const bool removed = m_dbusClient && m_dbusClient->UnSetCallback(type);
    const TCWriteLock lock(m_rwlock);
    (this->*field).swap(last);
    return removed;
}

bool TCCallbacksProxy::m_Callback(int type, const std::vector<unsigned char>& in,
                                  std::vector<unsigned char>& out)
{
    const TCReadLock lock(m_rwlock);
    return m_OnCallback(type, in, out);
}

bool TCCallbacksProxy::m_OnCallback(int type, const std::vector<unsigned char>& /*in*/,
                                    std::vector<unsigned char>& /*out*/)
{
    QOR_LOG_DEBUG("Callback called with id %d", type);
    switch (type)
    {
    case POLICY_UPDATE:
        if (m_policyUpdateCb.empty())
        {
            return false;
        }
        m_policyUpdateCb();
        return true;
    case REQUEST_PROCESS_INFO:
        if (m_requestProcessInfoCb.empty())
        {
            QOR_LOG_ERROR("m_requestProcessInfoCb is NULL");
            return false;
        }
        m_requestProcessInfoCb();
        return true;
    default:
        QOR_LOG_ERROR("Not implemented message type %d", type);
        return false;
    }
}

} // namespace qor
