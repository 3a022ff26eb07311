// A system bus of the test's own.
#ifndef QORTEST_PRIVATEBUS_H
#define QORTEST_PRIVATEBUS_H

#include <cstddef>
#include <memory>
#include <string>

#include "ChildProcess.h"

namespace qortest
{

/// Runs a real dbus-daemon with a system-type configuration that allows everything, on a socket in
/// a directory of its own, and makes it this process's system bus (DBUS_SYSTEM_BUS_ADDRESS). It
/// ends with this object, at the latest with the thread that created it.
class PrivateBus
{
public:
    struct Options
    {
        std::size_t maxMessageSize = 0; // 0: the daemon's default
        std::string extraConfig;        // put before the end of the configuration
        std::string policy;             // replaces the policy that allows everything
    };

    PrivateBus();
    explicit PrivateBus(const Options& options);
    ~PrivateBus();

    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    const std::string& Address() const
    {
        return m_address;
    }
    pid_t Pid() const
    {
        return m_pDaemon->Pid();
    }

    /// Ends the daemon at once, as if it had crashed.
    void Kill();

    /// A new daemon on the same address, after Kill.
    void Restart();

private:
    void m_Start();

    TemporaryDirectory m_directory;
    std::string m_address;
    std::unique_ptr<ChildProcess> m_pDaemon;
};

} // namespace qortest

#endif
