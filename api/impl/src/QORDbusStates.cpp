// Tells an endpoint's observers about the service, the registration and the bus.
#include "QORDbusStates.h"

#include <utility>

#include "QORLocks.h"

namespace qor
{

unsigned int TCDbusStates::Add(const TStateCallback& callback)
{
    auto observer = std::make_shared<TSObserver>();
    observer->m_callback = callback;
    const TCPosixLock lock(m_mutex);
    m_observers.emplace(++m_lastId, std::move(observer));
    return m_lastId;
}

bool TCDbusStates::Remove(unsigned int id)
{
    TObservers::node_type removed; // goes after the lock: it is the caller's
    TCPosixLock lock(m_mutex);
    removed = m_observers.extract(id);
    while (id != 0 && m_running == id && !pthread_equal(m_runner, pthread_self()))
    {
        lock.Wait(m_left);
    }
    return !removed.empty();
}

void TCDbusStates::SetService(bool isThere)
{
    if (std::exchange(m_hasService, isThere) != isThere)
    {
        m_Tell(isThere ? EClientState::SERVICE_APPEARED : EClientState::SERVICE_VANISHED);
    }
}

// With the bus goes the service.
void TCDbusStates::SetBus(bool isThere)
{
    if (!isThere)
    {
        SetService(false);
    }
    if (std::exchange(m_hasBus, isThere) != isThere)
    {
        m_Tell(isThere ? EClientState::BUS_FOUND : EClientState::BUS_LOST);
    }
}

void TCDbusStates::TellRegistered()
{
    m_Tell(EClientState::REGISTERED);
}

void TCDbusStates::TellUnregistered()
{
    m_Tell(EClientState::UNREGISTERED);
}

void TCDbusStates::TellNew(bool isRegistered)
{
    for (const unsigned int id : m_Observers(true))
    {
        if (!m_hasBus)
        {
            m_Tell(id, EClientState::BUS_LOST);
        }
        if (m_hasService)
        {
            m_Tell(id, EClientState::SERVICE_APPEARED);
        }
        if (m_hasService && isRegistered)
        {
            m_Tell(id, EClientState::REGISTERED);
        }
    }
}

// New observers are told the present state, which includes the change.
void TCDbusStates::m_Tell(EClientState state)
{
    for (const unsigned int id : m_Observers(false))
    {
        m_Tell(id, state);
    }
}

// The numbers of the observers that are new, and are not any more, or of the others.
std::vector<unsigned int> TCDbusStates::m_Observers(bool isNew)
{
    std::vector<unsigned int> result;
    const TCPosixLock lock(m_mutex);
    for (const auto& entry : m_observers)
    {
        if (entry.second->m_isNew == isNew)
        {
            entry.second->m_isNew = false;
            result.push_back(entry.first);
        }
    }
    return result;
}

void TCDbusStates::m_Tell(unsigned int id, EClientState state)
{
    std::shared_ptr<TSObserver> observer; // destroyed before a thread that removes it may go on
    {
        const TCPosixLock lock(m_mutex);
        const auto found = m_observers.find(id);
        if (found == m_observers.end())
        {
            return;
        }
        observer = found->second;
        m_running = id;
        m_runner = pthread_self();
    }
    observer->m_callback(state);
    observer.reset();
    const TCPosixLock lock(m_mutex);
    m_running = 0;
    pthread_cond_broadcast(&m_left);
}

} // namespace qor
