// A system bus of the test's own.
#ifndef QORTEST_PRIVATEBUS_H
#define QORTEST_PRIVATEBUS_H

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "ChildProcess.h"

namespace qortest
{

/// Runs a real dbus-daemon with a system-type configuration that allows everything, with a stock
/// bus's limits, on a socket in a directory of its own, and makes it this process's system bus
/// (DBUS_SYSTEM_BUS_ADDRESS). It ends with this object, at the latest with the thread that created
/// it.
class PrivateBus
{
public:
    struct Options
    {
        std::size_t maxMatchRules = 512; // of one connection
        std::string owning = "allow";    // or "deny", of names
    };

    PrivateBus() : PrivateBus(Options()) {}

    explicit PrivateBus(const Options& options)
    {
        chmod(m_directory.Path().c_str(), 0711); // for peers of other users
        WriteFile(m_directory.Path("bus.conf"),
                  "<busconfig> <type>system</type> <auth>EXTERNAL</auth> <listen>" + m_address +
                      "</listen> <limit name='max_message_size'>33554432</limit>"
                      "<limit name='max_match_rules_per_connection'>" +
                      std::to_string(options.maxMatchRules) +
                      "</limit> <policy context='default'> <allow user='*'/> <" + options.owning +
                      " own='*'/>"
                      "<allow send_destination='*'/> <allow receive_sender='*'/> </policy>"
                      "</busconfig>");
        Restart();
        setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), 1);
    }

    ~PrivateBus()
    {
        Kill();
    }

    /// Ends the daemon at once, as if it had crashed. All its connections are closed on return.
    void Kill()
    {
        if (m_daemon)
        {
            Signal(SIGKILL);
            m_daemon.reset();
            unlink(m_directory.Path("socket").c_str());
        }
    }

    /// Stops the daemon in its tracks, or lets it go on.
    void Freeze(bool isFrozen)
    {
        Signal(isFrozen ? SIGSTOP : SIGCONT);
    }

    /// A new daemon on the same address, after Kill.
    void Restart()
    {
        const char* const pOther = getenv("QOR_TEST_BUS"); // takes the daemon's options
        // The daemon prints its address when it listens.
        m_daemon = std::make_unique<ChildProcess>(std::vector<std::string>{
            pOther != nullptr ? pOther : QOR_DBUS_DAEMON, "--nofork", "--nopidfile", "--nosyslog",
            "--print-address=1", "--config-file=" + m_directory.Path("bus.conf")});
        if (!m_daemon->WaitForOut("\n"))
        {
            throw std::runtime_error("dbus-daemon does not start: " + m_daemon->Err());
        }
    }

private:
    // Also of what it has started: the launcher of dbus-broker starts the broker.
    void Signal(int signal)
    {
        const std::vector<pid_t> children = m_daemon->Children();
        m_daemon->Signal(signal);
        for (const pid_t process : children)
        {
            kill(process, signal);
            const char state = signal == SIGSTOP ? 'T' : 'Z';
            WaitUntil([&] { return signal == SIGCONT || AllThreadsAre(state, process); });
        }
    }

    const TemporaryDirectory m_directory;
    const std::string m_address = "unix:path=" + m_directory.Path("socket");
    std::unique_ptr<ChildProcess> m_daemon;
};

} // namespace qortest

#endif
