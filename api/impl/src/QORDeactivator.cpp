// Runs what must happen at library unload or process exit, once and in a fixed order.
#include <qor/QORDeactivator.h>

#include "QORLog.h"
#include "QORPosixLock.h"

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
    const TCMutexLock lock(m_mutex);
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
        const TCMutexLock lock(m_mutex);
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
    const TCMutexLock lock(m_mutex);
    if (!m_destroyed)
    {
        m_instance.m_pUser = nullptr;
    }
}

// The calls run with the mutex held; it is recursive, so they may come back here and are refused.
void TCDeactivator::m_Deactivate()
{
    const TCMutexLock lock(m_mutex);
    if (m_destroyed)
    {
        return;
    }
    m_destroyed = true;
    if (m_pUser != nullptr)
    {
        m_pUser->OnDestroy();
    }
    for (void (*callback)() : m_dbusCallbacks)
    {
        callback();
    }
}

} // namespace qor
