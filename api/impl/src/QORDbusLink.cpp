// The counted link that GLib holds in place of an endpoint, or of a call that has no result yet.
#include "QORDbusLink.h"

#include <unistd.h>

#include <new>
#include <type_traits>

#include <qor/QORDbus.h>

#include "QORLocks.h"

namespace qor
{

TSDbusLink* NewDbusLink(void* pTarget)
{
    static_assert(std::is_trivially_destructible<TSDbusLink>::value, "freed without a destructor");
    return new (g_atomic_rc_box_alloc(sizeof(TSDbusLink)))
        TSDbusLink{{}, PTHREAD_COND_INITIALIZER, pTarget, 0, pthread_self(), getpid()};
}

void SeverDbusLink(TSDbusLink* pLink)
{
    const TCPosixLock lock(pLink->m_mutex);
    pLink->m_pTarget = nullptr;
}

void WaitForDbusHandlers(TSDbusLink* pLink)
{
    TCPosixLock lock(pLink->m_mutex);
    while (pLink->m_running != 0 && !pthread_equal(pLink->m_runner, pthread_self()))
    {
        lock.Wait(pLink->m_changed);
    }
}

bool IsDbusLinkSevered(TSDbusLink* pLink)
{
    const TCPosixLock lock(pLink->m_mutex);
    return pLink->m_pTarget == nullptr;
}

bool IsInDbusHandler(TSDbusLink* pLink)
{
    const TCPosixLock lock(pLink->m_mutex);
    return pLink->m_running != 0 && pthread_equal(pLink->m_runner, pthread_self());
}

TCDbusHold::TCDbusHold(void* pUserData)
    : m_pLink(static_cast<TSDbusLink*>(pUserData)), m_pTarget(nullptr), m_isNested(false)
{
    if (m_pLink == nullptr)
    {
        return;
    }
    const TCPosixLock lock(m_pLink->m_mutex);
    m_pTarget = m_pLink->m_pTarget;
    if (m_pTarget != nullptr)
    {
        m_isNested = m_pLink->m_running++ != 0;
        m_pLink->m_runner = pthread_self();
    }
}

TCDbusHold::~TCDbusHold()
{
    if (m_pTarget == nullptr)
    {
        return;
    }
    const TCPosixLock lock(m_pLink->m_mutex);
    --m_pLink->m_running;
    pthread_cond_broadcast(&m_pLink->m_changed);
}

void TCDbusEntry::m_Run(std::function<void()> work, GDBusMessage* pCall) const
{
    Endpoint()->m_Handle(std::move(work), pCall, IsNested());
}

} // namespace qor
