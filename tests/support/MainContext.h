// Iterating main contexts in tests.
#ifndef QORTEST_MAINCONTEXT_H
#define QORTEST_MAINCONTEXT_H

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include <gio/gio.h>

namespace qortest
{

/// Long enough for any machine under a sanitizer: reaching it means that a test hangs.
constexpr int WATCHDOG_MS = 30000;

using Clock = std::chrono::steady_clock;

inline double SecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

struct Unref
{
    void operator()(gpointer p) const
    {
        g_object_unref(p);
    }
};
template <class T>
using ObjectPtr = std::unique_ptr<T, Unref>;

inline void Pause()
{
    std::this_thread::sleep_for(std::chrono::microseconds(500));
}

/// Dispatches what is ready in the default main context; pauses where nothing is.
inline void Pump()
{
    if (!g_main_context_iteration(nullptr, FALSE))
    {
        Pause();
    }
}

/// Waits until the condition holds, iterating nothing; false after the watchdog.
inline bool WaitUntil(const std::function<bool()>& condition, int watchdogMs = WATCHDOG_MS,
                      void (*step)() = &Pause)
{
    const auto end = Clock::now() + std::chrono::milliseconds(watchdogMs);
    bool holds = condition();
    for (; !holds && Clock::now() <= end; holds = condition())
    {
        step();
    }
    return holds;
}

/// The same, iterating the default main context on this thread.
inline bool PumpUntil(const std::function<bool()>& condition, int watchdogMs = WATCHDOG_MS)
{
    return WaitUntil(condition, watchdogMs, &Pump);
}

/// Waits until nobody in this process holds GIO's shared connection to the system bus any more.
/// Whoever leaks an endpoint, a proxy or an invocation leaks a reference to it. Whether it is so.
inline bool SharedConnectionIsLetGo()
{
    ObjectPtr<GDBusConnection> connection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    if (!connection)
    {
        return true;
    }
    g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
    GWeakRef weak;
    g_weak_ref_init(&weak, connection.get());
    connection.reset();
    const auto isGone = [&]
    { return !ObjectPtr<GObject>(static_cast<GObject*>(g_weak_ref_get(&weak))); };
    const bool result = PumpUntil(isGone);
    g_weak_ref_clear(&weak);
    return result;
}

/// Repeats a step on a thread of its own for as long as it lives.
class Repeat
{
public:
    explicit Repeat(const std::function<void()>& step)
        : m_thread(
              [this, step]
              {
                  while (!m_stop)
                  {
                      step();
                  }
              })
    {
    }
    ~Repeat()
    {
        m_stop = true;
        m_thread.join();
    }

private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

/// Iterates the default main context; meanwhile no other thread may.
struct BackgroundPump : Repeat
{
    BackgroundPump() : Repeat(&Pump) {}
};

} // namespace qortest

#endif
