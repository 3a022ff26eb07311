// The service process of the soak, and what it reports.
#include "SoakService.h"

#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>

#include "ProcessStatus.h"
#include "Soak.h"

namespace qorsoak
{

// Its output goes through pipes with names, so that it is read line by line and kept nowhere.
TCSoakService::TCSoakService() : m_policyFile(m_directory.Path("policy.xml"))
{
    const std::string reports = m_directory.Path("reports");
    const std::string log = m_directory.Path("log");
    Require(mkfifo(reports.c_str(), 0600) == 0 && mkfifo(log.c_str(), 0600) == 0, "two pipes");
    qortest::ChildProcess::Options options;
    options.environment["QOR_DLOG"] = "stderr";
    m_process = std::make_unique<qortest::ChildProcess>(
        std::vector<std::string>{"sh", "-c", "exec \"$@\" >" + reports + " 2>" + log, "sh", QORD,
                                 "--policy", m_policyFile, "--event-timeout", "20000"},
        options);
    m_reportReader = std::thread([this] { m_ReadReports(); });
    m_logReader = std::thread([this] { m_ReadLog(); });
}

TCSoakService::~TCSoakService()
{
    m_process.reset();
    m_reportReader.join();
    m_logReader.join();
}

void TCSoakService::m_ReadReports()
{
    std::ifstream pipe(m_directory.Path("reports"));
    for (std::string line; std::getline(pipe, line);)
    {
        if (line.find(": event ") == std::string::npos)
        {
            continue;
        }
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_reports.push_back(line);
        m_changed.notify_one();
    }
}

void TCSoakService::m_ReadLog()
{
    std::ifstream pipe(m_directory.Path("log"));
    for (std::string line; std::getline(pipe, line);)
    {
        if (line.find("Sending message from :") != std::string::npos)
        {
            ++m_unreachable;
            continue;
        }
        const bool isError = line.rfind("D/", 0) != 0 && line.rfind("I/", 0) != 0;
        Require(!isError, "the service logs no error that was not provoked", line);
    }
}

void TCSoakService::AskForProcessInfo()
{
    m_process->Signal(SIGUSR1);
}

TCSoakService::TSEvent TCSoakService::NextEvent(const std::string& name)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    Require(
        m_changed.wait_for(lock, std::chrono::seconds(60), [this] { return !m_reports.empty(); }),
        "an event is delivered");
    const std::string line = m_reports.front();
    m_reports.pop_front();
    const std::string format = "qord: event " + name + ": ";
    Require(line.rfind(format, 0) == 0, "the event is the one that was asked for", line);
    TSEvent event;
    Require(std::sscanf(line.c_str() + format.size(), "%zu delivered, %zu failed",
                        &event.m_delivered, &event.m_failed) == 2,
            "the event's counts are reported", line);
    return event;
}

std::size_t TCSoakService::ResidentKilobytes() const
{
    return qortest::ResidentKilobytes(m_process->Pid());
}

std::size_t TCSoakService::OpenFiles() const
{
    return qortest::OpenFiles(m_process->Pid());
}

std::string TCSoakService::StoredPolicy() const
{
    return qortest::ReadFile(m_policyFile);
}

std::size_t TCSoakService::UnreachableClients() const
{
    return m_unreachable;
}

void TCSoakService::End()
{
    m_process->Signal(SIGTERM);
    Require(m_process->Wait() == 0, "the service ends cleanly");
}

} // namespace qorsoak
