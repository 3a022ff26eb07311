// Tells the service manager that the main loop is alive, and how the service is.
#include "qord/Watchdog.h"

#include <cstdint>
#include <utility>

#include <glib.h>
#include <systemd/sd-daemon.h>

namespace qord
{
namespace
{

// In milliseconds; twice as often as the manager wants to hear, or now and then for the summary.
unsigned int Interval()
{
    constexpr unsigned int withoutWatchdog = 30000;
    std::uint64_t limit = 0; // microseconds
    return sd_watchdog_enabled(0, &limit) > 0 ? static_cast<unsigned int>(limit / 2000)
                                              : withoutWatchdog;
}

bool IsManaged()
{
    return g_getenv("NOTIFY_SOCKET") != nullptr;
}

} // namespace

TCWatchdog::TCWatchdog(std::function<std::string()> summary)
    : m_summary(std::move(summary)),
      m_source(IsManaged() ? g_timeout_add(Interval(), m_OnTime, this) : 0)
{
}

TCWatchdog::~TCWatchdog()
{
    if (m_source != 0)
    {
        g_source_remove(m_source);
    }
}

void TCWatchdog::Tell(const std::string& more)
{
    if (IsManaged())
    {
        sd_notify(0, (more + "STATUS=" + m_summary()).c_str());
    }
}

int TCWatchdog::m_OnTime(void* pWatchdog)
{
    static_cast<TCWatchdog*>(pWatchdog)->Tell("WATCHDOG=1\n");
    return G_SOURCE_CONTINUE;
}

} // namespace qord
