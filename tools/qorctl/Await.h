// Waits for what may never come back.
#ifndef QORCTL_AWAIT_H
#define QORCTL_AWAIT_H

#include <atomic>
#include <chrono>
#include <exception>
#include <future>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

namespace qorctl
{

/// Whether a wait was given up. A thread is then still inside the bus library, so that the process
/// can only end by _exit.
inline std::atomic<bool> g_isAbandoned = false;

/// Runs the work on a thread of its own, and gives up waiting for it after the limit. The work must
/// own what it uses. What it throws comes out here.
template <class TWork>
auto Await(std::chrono::milliseconds limit, TWork work) -> std::optional<decltype(work())>
{
    auto promise = std::make_shared<std::promise<decltype(work())>>();
    auto result = promise->get_future();
    std::thread(
        [promise, work = std::move(work)]
        {
            try
            {
                promise->set_value(work());
            }
            catch (...)
            {
                promise->set_exception(std::current_exception());
            }
        })
        .detach();
    if (result.wait_for(limit) != std::future_status::ready)
    {
        g_isAbandoned = true;
        return std::nullopt;
    }
    return result.get();
}

} // namespace qorctl

#endif
