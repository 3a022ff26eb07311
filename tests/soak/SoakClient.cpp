// A client process of the soak: it counts the events that it is told of.
#include "SoakClient.h"

#include <csignal>
#include <string>

#include "Soak.h"

namespace qorsoak
{
namespace
{

qortest::ChildProcess::Options LogToStandardError()
{
    qortest::ChildProcess::Options options;
    options.environment["QOR_DLOG"] = "stderr";
    return options;
}

} // namespace

TCSoakClient::TCSoakClient() : m_process({FAULT_HOST, "count"}, LogToStandardError()) {}

void TCSoakClient::AwaitRegistration()
{
    Require(m_process.WaitForOut("registered"), "a client is registered", m_process.Err());
}

void TCSoakClient::ExpectPolicy()
{
    ++m_policies;
}

void TCSoakClient::ExpectProcessInfo()
{
    ++m_processInfos;
}

void TCSoakClient::End()
{
    m_process.Signal(SIGTERM);
    Require(m_process.Wait() == 0, "a client ends cleanly", m_process.Err());
    const std::string expected = "policies " + std::to_string(m_policies) + ", process infos " +
                                 std::to_string(m_processInfos) + "\n";
    Require(m_process.Out().find(expected) != std::string::npos,
            "a client has been told of every event", expected + "expected: " + m_process.Out());
    const std::string log = m_process.Err();
    Require(log.rfind("E/", 0) != 0 && log.find("\nE/") == std::string::npos,
            "a client logs no error", log);
}

void TCSoakClient::Kill()
{
    m_process.Signal(SIGKILL);
    m_process.Wait();
}

} // namespace qorsoak
