// The service process of the soak, and what it reports.
#ifndef QORSOAK_SOAKSERVICE_H
#define QORSOAK_SOAKSERVICE_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "ChildProcess.h"

namespace qorsoak
{

class TCSoakService
{
public:
    TCSoakService();
    ~TCSoakService();

    TCSoakService(const TCSoakService&) = delete;
    TCSoakService& operator=(const TCSoakService&) = delete;

    void AskForProcessInfo();

    struct TSEvent
    {
        std::size_t m_delivered = 0;
        std::size_t m_failed = 0;
    };

    /// The counts of the next event, which must be of that name.
    TSEvent NextEvent(const std::string& name);

    std::size_t ResidentKilobytes() const;
    std::size_t OpenFiles() const;
    std::string StoredPolicy() const;

    /// Error lines about clients that could not be reached; any other ends the soak.
    std::size_t UnreachableClients() const;

    void End();

private:
    void m_ReadReports();
    void m_ReadLog();

    qortest::TemporaryDirectory m_directory;
    std::string m_policyFile;
    std::unique_ptr<qortest::ChildProcess> m_process;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::string> m_reports;
    std::atomic<std::size_t> m_unreachable{0};
    std::thread m_reportReader;
    std::thread m_logReader;
};

} // namespace qorsoak

#endif
