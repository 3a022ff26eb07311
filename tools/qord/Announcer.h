// The worker that delivers events, so that no slow client holds up the service.
#ifndef QORD_ANNOUNCER_H
#define QORD_ANNOUNCER_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace qord
{

/// Delivers events one after the other on a thread of its own.
///
/// An event is due at most once: announcing it again before its delivery has begun changes nothing,
/// announcing it during its delivery makes one more follow.
class TCAnnouncer
{
public:
    /// @param deliver  called on the worker with the event's type; may block, must not throw
    explicit TCAnnouncer(std::function<void(int)> deliver);

    /// Waits for the delivery that is under way; what is due after it is dropped.
    ~TCAnnouncer();

    TCAnnouncer(const TCAnnouncer&) = delete;
    TCAnnouncer& operator=(const TCAnnouncer&) = delete;

    /// Makes the event due. Never waits for a delivery. Any thread.
    void Announce(int type);

    /// Waits until nothing is due or under way.
    ///
    /// @return false when that took too long
    bool Finish(std::chrono::milliseconds patience);

private:
    void m_Run();

    std::function<void(int)> m_deliver;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<int> m_due;
    bool m_isDelivering = false;
    bool m_isStopping = false;
    std::thread m_thread; ///< Last: it uses all of the above.
};

} // namespace qord

#endif
