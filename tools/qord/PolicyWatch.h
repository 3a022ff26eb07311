// Notices that the policy file changes.
#ifndef QORD_POLICYWATCH_H
#define QORD_POLICYWATCH_H

#include <functional>
#include <string>
#include <vector>

#include <gio/gio.h>

namespace qord
{

/// Lives in the default main context. If the system cannot watch files, it notices nothing.
class TCPolicyWatch
{
public:
    /// @param file      may be a symbolic link, which is watched together with its present target
    /// @param onChange  called within a second of a change, also of one by this process
    TCPolicyWatch(const std::string& file, std::function<void()> onChange);
    ~TCPolicyWatch();

    TCPolicyWatch(const TCPolicyWatch&) = delete;
    TCPolicyWatch& operator=(const TCPolicyWatch&) = delete;

private:
    void m_Add(const std::string& file);
    static void m_Changed(GFileMonitor* pMonitor, GFile* pFile, GFile* pOther,
                          GFileMonitorEvent event, void* pWatch);
    static int m_OnTime(void* pWatch);

    std::function<void()> m_onChange;
    std::vector<GFileMonitor*> m_monitors; ///< Owned.
    unsigned int m_source = 0;             ///< While a change is to be told.
};

} // namespace qord

#endif
