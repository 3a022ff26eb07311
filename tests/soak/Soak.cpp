// One service and many clients that come and go, for as long as wanted: every count adds up, and in
// the end the service takes no more memory and no more files than after its first moments.
//
//   qor-soak [--seconds N] [--clients N]    policies and requests for process information
//   qor-soak --events N [--clients N]       so many requests, clients killed while they are
//   delivered
#include "Soak.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <random>
#include <thread>

#include "MainContext.h"
#include "PolicyMessage.h"
#include "PrivateBus.h"
#include "ProcessStatus.h"
#include "RawPeer.h"
#include "SoakClient.h"
#include "SoakService.h"

namespace qorsoak
{

void Require(bool holds, const char* property, const std::string& details)
{
    if (!holds)
    {
        std::fprintf(stderr, "qor-soak: does not hold: %s\n%s\n", property, details.c_str());
        std::_Exit(1);
    }
}

namespace
{

using Clock = std::chrono::steady_clock;

// The allocator's pools settle during the warm-up; what is left of their movement.
constexpr std::size_t TOLERANCE_KILOBYTES = 2048;
constexpr std::size_t WARM_UP_EVENTS = 50;

class TCSoak
{
public:
    explicit TCSoak(std::size_t clients) : m_wanted(clients), m_random(1)
    {
        Start(m_wanted);
    }

    void Run(std::chrono::seconds duration)
    {
        const auto end = Clock::now() + duration;
        while (Clock::now() < end || m_events <= WARM_UP_EVENTS)
        {
            Change(m_random() % 6);
            m_random() % 2 == 0 ? SetPolicy() : AskForProcessInfo(0);
            AskForProcessInfo(m_random() % 4 == 0 ? 1 + m_random() % 2 : 0);
            NoteUsageOnce();
        }
        Finish();
    }

    void Run(std::size_t events)
    {
        const std::size_t mark = std::min<std::size_t>(1000, std::max<std::size_t>(events / 10, 1));
        std::size_t residentAfterFirst = 0;
        while (m_events < events)
        {
            AskForProcessInfo(m_random() % 20 == 0 ? 1 : 0);
            Start(m_wanted - m_clients.size());
            NoteUsageOnce();
            if (m_events == mark)
            {
                residentAfterFirst = m_service.ResidentKilobytes();
            }
        }
        std::printf("resident size of the service after the first %zu events %zu KiB, "
                    "after the last %zu KiB\n",
                    mark, residentAfterFirst, m_service.ResidentKilobytes());
        Finish();
    }

private:
    void Start(std::size_t count)
    {
        std::list<TCSoakClient> fresh;
        for (std::size_t i = 0; i < count; ++i)
        {
            fresh.emplace_back();
        }
        for (TCSoakClient& client : fresh)
        {
            client.AwaitRegistration();
        }
        m_started += count;
        m_clients.splice(m_clients.end(), fresh);
    }

    std::list<TCSoakClient>::iterator Any()
    {
        return std::next(m_clients.begin(),
                         static_cast<std::ptrdiff_t>(m_random() % m_clients.size()));
    }

    void Change(std::size_t count)
    {
        for (std::size_t i = 0; i < count && !m_clients.empty(); ++i)
        {
            const auto client = Any();
            m_random() % 2 == 0 ? client->End() : client->Kill();
            m_clients.erase(client);
        }
        Start(m_wanted - m_clients.size());
        AwaitDepartures();
    }

    // Once the bus has seen them leave, the service learns of it before it answers anything later.
    void AwaitDepartures()
    {
        m_peer.Sync();
        m_peer.Sync();
        m_peer.Call(qortest::SERVICE_NAME, qortest::SERVICE_PATH, "Send",
                    qortest::Request(99, false));
    }

    void SetPolicy()
    {
        const std::string policy = "<policy n='" + std::to_string(m_events) + "'>" +
                                   std::string(m_random() % 100000, 'x') + "</policy>";
        const int result = qortest::PolicyResult(m_peer.Call(
            qortest::SERVICE_NAME, qortest::SERVICE_PATH, "Send", qortest::PolicyRequest(policy)));
        Require(result == 0, "a policy is stored");
        Require(m_service.StoredPolicy() == policy, "the stored policy is the last one");
        ++m_policies;
        Check(m_service.NextEvent("policy-update"), m_clients.size(), 0);
        for (TCSoakClient& client : m_clients)
        {
            client.ExpectPolicy();
        }
    }

    // Kills clients while the event is under way: each of them may have got it or not.
    void AskForProcessInfo(std::size_t kills)
    {
        const std::size_t registered = m_clients.size();
        m_service.AskForProcessInfo();
        for (std::size_t i = 0; i < kills; ++i)
        {
            const auto client = Any();
            client->Kill();
            m_clients.erase(client);
        }
        Check(m_service.NextEvent("process-info"), registered, kills);
        for (TCSoakClient& client : m_clients)
        {
            client.ExpectProcessInfo();
        }
        if (kills != 0)
        {
            AwaitDepartures();
        }
    }

    void Check(const TCSoakService::TSEvent& event, std::size_t registered, std::size_t kills)
    {
        const std::size_t called = event.m_delivered + event.m_failed;
        const std::string counts = std::to_string(registered) + " registered, " +
                                   std::to_string(kills) + " killed, " +
                                   std::to_string(event.m_delivered) + " delivered, " +
                                   std::to_string(event.m_failed) + " failed";
        Require(called <= registered && called + kills >= registered,
                "successes and failures are the registered clients", counts);
        Require(event.m_delivered + kills >= registered, "every living client is reached", counts);
        ++m_events;
        m_failed += event.m_failed;
    }

    void NoteUsageOnce()
    {
        if (m_files == 0 && m_events >= WARM_UP_EVENTS)
        {
            m_files = m_service.OpenFiles();
            m_resident = m_service.ResidentKilobytes();
        }
    }

    void Finish()
    {
        const bool sameFiles =
            qortest::WaitUntil([this] { return m_service.OpenFiles() == m_files; });
        const std::size_t resident = m_service.ResidentKilobytes();
        std::printf(
            "%zu events (%zu of them policies) to %zu clients of %zu in all, %zu failed\n"
            "service after the warm-up: %zu KiB, %zu files; in the end: %zu KiB, %zu files\n",
            m_events, m_policies, m_wanted, m_started, m_failed, m_resident, m_files, resident,
            m_service.OpenFiles());
        for (TCSoakClient& client : m_clients)
        {
            client.End();
        }
        m_service.End();
        Require(sameFiles, "as many files are open as after the warm-up");
        // A sanitizer keeps what has been freed.
        Require(qortest::IsSanitized() || resident <= m_resident + TOLERANCE_KILOBYTES,
                "the service takes no more memory than after the warm-up");
        Require(m_service.UnreachableClients() == m_failed,
                "every failure has its line, and every line its failure",
                std::to_string(m_service.UnreachableClients()) + " lines");
    }

    qortest::PrivateBus m_bus;
    TCSoakService m_service;
    qortest::RawPeer m_peer;
    std::size_t m_wanted;
    std::mt19937 m_random;
    std::list<TCSoakClient> m_clients;
    std::size_t m_started = 0;
    std::size_t m_events = 0;
    std::size_t m_policies = 0;
    std::size_t m_failed = 0;
    std::size_t m_files = 0;
    std::size_t m_resident = 0;
};

} // namespace
} // namespace qorsoak

int main(int count, char** arguments)
{
    unsigned long seconds = 60;
    unsigned long clients = 50;
    unsigned long events = 0;
    for (int i = 1; i < count; i += 2)
    {
        unsigned long* const pValue = std::strcmp(arguments[i], "--seconds") == 0   ? &seconds
                                      : std::strcmp(arguments[i], "--clients") == 0 ? &clients
                                      : std::strcmp(arguments[i], "--events") == 0  ? &events
                                                                                    : nullptr;
        if (pValue == nullptr || i + 1 == count)
        {
            std::fprintf(stderr, "usage: qor-soak [--seconds N | --events N] [--clients N]\n");
            return 64;
        }
        *pValue = std::strtoul(arguments[i + 1], nullptr, 10);
    }
    qorsoak::TCSoak soak(clients);
    if (events != 0)
    {
        soak.Run(static_cast<std::size_t>(events));
    }
    else
    {
        soak.Run(std::chrono::seconds(seconds));
    }
    return 0;
}
