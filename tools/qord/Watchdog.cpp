// Tells the service manager that the main loop is alive, and how the service is.
#include "qord/Watchdog.h"

#include <utility>

#include <glib.h>

#include "qord/ServiceManager.h"

namespace qord
{
namespace
{

// In milliseconds; twice as often as the manager wants to hear, or now and then for the summary.
unsigned int Interval()
{
    constexpr unsigned int withoutWatchdog = 30000;
    const unsigned int limit = ToleratedSilenceMs();
    return limit > 1 ? limit / 2 : withoutWatchdog;
}

} // namespace

TCWatchdog::TCWatchdog(std::function<std::string()> summary)
    : m_summary(std::move(summary)),
      m_source(HasServiceManager() ? g_timeout_add(Interval(), m_OnTime, this) : 0)
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
    if (HasServiceManager())
    {
        TellServiceManager(more + "STATUS=" + m_summary());
    }
}

int TCWatchdog::m_OnTime(void* pWatchdog)
{
    static_cast<TCWatchdog*>(pWatchdog)->Tell("WATCHDOG=1\n");
    return G_SOURCE_CONTINUE;
}

} // namespace qord
