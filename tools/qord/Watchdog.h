// Tells the service manager that the main loop is alive, and how the service is.
#ifndef QORD_WATCHDOG_H
#define QORD_WATCHDOG_H

#include <functional>
#include <string>

namespace qord
{

/// Lives in the default main context. Does nothing without a service manager.
class TCWatchdog
{
public:
    /// @param summary  one line about the service; called when it is told
    explicit TCWatchdog(std::function<std::string()> summary);
    ~TCWatchdog();

    TCWatchdog(const TCWatchdog&) = delete;
    TCWatchdog& operator=(const TCWatchdog&) = delete;

    /// Sends the summary to systemd, and more if given.
    void Tell(const std::string& more = "");

private:
    static int m_OnTime(void* pWatchdog);

    std::function<std::string()> m_summary;
    unsigned int m_source;
};

} // namespace qord

#endif
