// Iterating main contexts in tests.
#include "MainContext.h"

#include <chrono>

#include <gio/gio.h>

namespace qortest
{

namespace
{

constexpr std::chrono::microseconds IDLE_STEP(500);

template <class TStep>
bool StepUntil(const std::function<bool()>& condition, int watchdogMs, const TStep& step)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(watchdogMs);
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > end)
        {
            return false;
        }
        if (!step())
        {
            std::this_thread::sleep_for(IDLE_STEP);
        }
    }
    return true;
}

bool IterateOnce()
{
    return g_main_context_iteration(nullptr, FALSE) != FALSE;
}

} // namespace

bool PumpUntil(const std::function<bool()>& condition, int watchdogMs)
{
    return StepUntil(condition, watchdogMs, IterateOnce);
}

void PumpPending()
{
    while (IterateOnce())
    {
    }
}

bool WaitUntil(const std::function<bool()>& condition, int watchdogMs)
{
    return StepUntil(condition, watchdogMs, [] { return false; });
}

bool SharedConnectionIsLetGo()
{
    GDBusConnection* const pConnection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (pConnection == nullptr)
    {
        return true;
    }
    g_dbus_connection_set_exit_on_close(pConnection, FALSE);
    GWeakRef weak;
    g_weak_ref_init(&weak, pConnection);
    g_object_unref(pConnection);
    const bool result = PumpUntil(
        [&]
        {
            gpointer const pObject = g_weak_ref_get(&weak);
            if (pObject != nullptr)
            {
                g_object_unref(pObject);
            }
            return pObject == nullptr;
        });
    g_weak_ref_clear(&weak);
    return result;
}

BackgroundPump::BackgroundPump()
    : m_stop(false),
      m_thread(
          [this]
          {
              while (!m_stop)
              {
                  if (!IterateOnce())
                  {
                      std::this_thread::sleep_for(IDLE_STEP);
                  }
              }
          })
{
}

BackgroundPump::~BackgroundPump()
{
    m_stop = true;
    m_thread.join();
}

} // namespace qortest
