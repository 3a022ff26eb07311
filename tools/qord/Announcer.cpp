// The worker that delivers events, so that no slow client holds up the service.
#include "qord/Announcer.h"

#include <algorithm>
#include <utility>

namespace qord
{

TCAnnouncer::TCAnnouncer(std::function<void(int)> deliver)
    : m_deliver(std::move(deliver)), m_thread([this] { m_Run(); })
{
}

TCAnnouncer::~TCAnnouncer()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isStopping = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

void TCAnnouncer::Announce(int type)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (std::find(m_due.begin(), m_due.end(), type) != m_due.end())
        {
            return;
        }
        m_due.push_back(type);
    }
    m_changed.notify_all();
}

bool TCAnnouncer::Finish(std::chrono::milliseconds patience)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, patience, [this] { return m_due.empty() && !m_isDelivering; });
}

void TCAnnouncer::m_Run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;)
    {
        m_changed.wait(lock, [this] { return m_isStopping || !m_due.empty(); });
        if (m_isStopping)
        {
            return;
        }
        const int type = m_due.front();
        m_due.pop_front();
        m_isDelivering = true;
        lock.unlock();
        m_deliver(type);
        lock.lock();
        m_isDelivering = false;
        m_changed.notify_all();
    }
}

} // namespace qord
