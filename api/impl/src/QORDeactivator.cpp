// Runs the teardown at library unload or process exit, once and in a fixed order.
#include <qor/QORDeactivator.h>

#include "QORLog.h"
#include "QORRecursiveLock.h"

#define QOR_LOG_CLASS "qor::TCDeactivator"

namespace qor
{

TIDestroyCallback::~TIDestroyCallback() = default;

TCDeactivator::TCDeactivator() : m_pUser(nullptr) {}

TCDeactivator::~TCDeactivator()
{
    m_Deactivate();
}

void TCDeactivator::RegisterDBUS(void (*callback)())
{
    const TCRecursiveLock lock(m_mutex);
    if (m_destroyed)
    {
        QOR_LOG_ERROR("Unable to register user callback - already destroyed");
        return;
    }
    if (m_instance.m_dbusCallbacks.insert(callback).second)
    {
        QOR_LOG_DEBUG("Register a new DBUS callback");
    }
    else
    {
        QOR_LOG_DEBUG("DBUS callback already registered");
    }
}

bool TCDeactivator::RegisterUser(TIDestroyCallback& user)
{
    bool destroyed = false;
    {
        const TCRecursiveLock lock(m_mutex);
        if (!m_destroyed && m_instance.m_pUser == nullptr)
        {
            m_instance.m_pUser = &user;
            return true;
        }
        destroyed = m_destroyed;
    }
    QOR_LOG_ERROR("Unable to register user callback - destroyed %d", destroyed);
    return false;
}

void TCDeactivator::UnregisterUser(TIDestroyCallback& /*user*/)
{
    TCRecursiveLock lock(m_mutex);
    if (!m_destroyed)
    {
        m_instance.m_pUser = nullptr;
    }
    while (m_isDestroyingUser && !pthread_equal(m_destroyer, pthread_self()))
    {
        lock.Wait(m_userDestroyed);
    }
}

// The functions run without the mutex, because they may wait, for example for a message callback on
// another thread that is about to register. The registered functions no longer change.
void TCDeactivator::m_Deactivate()
{
    TIDestroyCallback* pUser = nullptr;
    std::set<void (*)()> dbusCallbacks;
    {
        const TCRecursiveLock lock(m_mutex);
        if (m_destroyed)
        {
            return;
        }
        m_destroyed = true;
        pUser = m_pUser;
        dbusCallbacks.swap(m_dbusCallbacks);
    }
    if (pUser != nullptr)
    {
        m_DestroyUser(*pUser);
    }
    for (void (*callback)() : dbusCallbacks)
    {
        callback();
    }
}

void TCDeactivator::m_DestroyUser(TIDestroyCallback& user)
{
    {
        const TCRecursiveLock lock(m_mutex);
        m_isDestroyingUser = true;
        m_destroyer = pthread_self();
    }
    user.OnDestroy();
    const TCRecursiveLock lock(m_mutex);
    m_isDestroyingUser = false;
    pthread_cond_broadcast(&m_userDestroyed);
}

} // namespace qor
