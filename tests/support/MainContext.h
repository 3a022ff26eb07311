// Iterating main contexts in tests.
#ifndef QORTEST_MAINCONTEXT_H
#define QORTEST_MAINCONTEXT_H

#include <atomic>
#include <functional>
#include <thread>

namespace qortest
{

/// Long enough for any machine under a sanitizer: reaching it means that a test hangs.
constexpr int WATCHDOG_MS = 30000;

/// Iterates the default main context on this thread until the condition holds; false after the
/// watchdog.
bool PumpUntil(const std::function<bool()>& condition, int watchdogMs = WATCHDOG_MS);

/// Dispatches what is ready in the default main context now, and what that makes ready.
void PumpPending();

/// Waits until the condition holds, iterating nothing; false after the watchdog.
bool WaitUntil(const std::function<bool()>& condition, int watchdogMs = WATCHDOG_MS);

/// Waits until nobody in this process holds GIO's shared connection to the system bus any more.
/// Whoever leaks an endpoint, a proxy or an invocation leaks a reference to it. Whether it is so.
bool SharedConnectionIsLetGo();

/// Iterates the default main context on a thread of its own for as long as it lives. Meanwhile no
/// other thread may iterate it.
class BackgroundPump
{
public:
    BackgroundPump();
    ~BackgroundPump();

    BackgroundPump(const BackgroundPump&) = delete;
    BackgroundPump& operator=(const BackgroundPump&) = delete;

private:
    std::atomic<bool> m_stop;
    std::thread m_thread;
};

} // namespace qortest

#endif
