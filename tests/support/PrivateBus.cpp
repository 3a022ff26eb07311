// A system bus of the test's own.
#include "PrivateBus.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>

namespace qortest
{

namespace
{

const char* const ALLOW_ALL = "  <policy context='default'>\n"
                              "    <allow user='*'/>\n"
                              "    <allow own='*'/>\n"
                              "    <allow send_destination='*'/>\n"
                              "    <allow send_type='method_call'/>\n"
                              "    <allow send_requested_reply='true' send_type='method_return'/>\n"
                              "    <allow send_requested_reply='true' send_type='error'/>\n"
                              "    <allow receive_type='method_call'/>\n"
                              "    <allow receive_type='method_return'/>\n"
                              "    <allow receive_type='error'/>\n"
                              "    <allow receive_type='signal'/>\n"
                              "  </policy>\n";

std::string Limit(const std::string& name, std::size_t value)
{
    return "  <limit name='" + name + "'>" + std::to_string(value) + "</limit>\n";
}

std::string Configuration(const PrivateBus::Options& options, const std::string& socket)
{
    std::string text =
        "<!DOCTYPE busconfig PUBLIC '-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN'\n"
        "  'http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd'>\n"
        "<busconfig>\n"
        "  <type>system</type>\n"
        "  <listen>unix:path=" +
        socket +
        "</listen>\n"
        "  <auth>EXTERNAL</auth>\n";
    text += options.policy.empty() ? ALLOW_ALL : options.policy;
    text += Limit("max_connections_per_user", 2000);
    text += Limit("max_completed_connections", 2000);
    if (options.maxMessageSize != 0)
    {
        text += Limit("max_message_size", options.maxMessageSize);
    }
    return text + options.extraConfig + "</busconfig>\n";
}

} // namespace

PrivateBus::PrivateBus() : PrivateBus(Options()) {}

PrivateBus::PrivateBus(const Options& options)
{
    WriteFile(m_directory.Path("bus.conf"), Configuration(options, m_directory.Path("socket")));
    m_address = "unix:path=" + m_directory.Path("socket");
    m_Start();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), 1);
}

PrivateBus::~PrivateBus()
{
    Kill();
}

void PrivateBus::m_Start()
{
    // The daemon prints its address when it listens.
    m_pDaemon = std::make_unique<ChildProcess>(std::vector<std::string>{
        QOR_DBUS_DAEMON, "--nofork", "--nopidfile", "--nosyslog", "--print-address=1",
        "--config-file=" + m_directory.Path("bus.conf")});
    if (!m_pDaemon->WaitForOut("\n"))
    {
        throw std::runtime_error("dbus-daemon does not start: " + m_pDaemon->Err());
    }
}

void PrivateBus::Kill()
{
    m_pDaemon->Signal(SIGKILL);
    m_pDaemon->Wait();
    unlink(m_directory.Path("socket").c_str());
}

void PrivateBus::Restart()
{
    m_Start();
}

} // namespace qortest
