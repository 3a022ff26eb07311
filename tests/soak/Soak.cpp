// One service and many clients that come and go, for as long as wanted: every count adds up, and in
// the end the service takes no more memory and no more files than after its first moments.
//
//   qor-soak [--seconds N] [--clients N]    policies and requests for process information
//   qor-soak --events N [--clients N]       so many requests, clients killed meanwhile
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <list>
#include <map>
#include <random>

#include "FaultSupport.h"
#include "MainContext.h"
#include "PrivateBus.h"

using namespace qortest;

static void Require(bool holds, const char* property, const std::string& details = "")
{
    if (!holds)
    {
        std::fprintf(stderr, "qor-soak: does not hold: %s\n%s\n", property, details.c_str());
        std::_Exit(1);
    }
}

// A listener, and the events that it should have been told of by now.
struct Client
{
    Client() : process({QORCTL, "listen"}, LogToStandardError()) {}

    static ChildProcess::Options LogToStandardError()
    {
        ChildProcess::Options options;
        options.environment["QOR_DLOG"] = "stderr";
        return options;
    }

    void End(int signal)
    {
        process.Signal(signal);
        const int status = process.Wait();
        if (signal == SIGKILL)
        {
            return;
        }
        const std::string log = process.Err(), out = process.Out();
        Require(status == 0, "a client ends cleanly", log);
        Require(("\n" + log).find("\nE/") == std::string::npos, "a client logs no error", log);
        for (const auto& [name, count] : expected)
        {
            std::size_t told = 0;
            for (auto at = out.find(name); at != std::string::npos; at = out.find(name, at + 1))
            {
                ++told;
            }
            Require(told == count, "a client has been told of every event", out);
        }
    }

    ChildProcess process;
    std::map<std::string, std::size_t> expected = {{"policy-update", 0}, {"process-info", 0}};
};

// Its lines are read as they come, and kept nowhere.
class Service
{
public:
    Service()
    {
        const std::string command = "echo $$; exec env QOR_DLOG=stderr " QORD " --policy " +
                                    m_policyFile + " --event-timeout 20000 2>&1";
        m_pOut = popen(command.c_str(), "re");
        Require(m_pOut != nullptr && std::fscanf(m_pOut, "%d\n", &pid) == 1, "a service starts");
        fcntl(fileno(m_pOut), F_SETPIPE_SZ, 1 << 20); // for what it logs while nobody reads
        Next("qord: ready");
    }

    // The next line of the service's own, which must begin so; what follows that.
    std::string Next(const std::string& begin)
    {
        alarm(60); // ends the soak
        char line[1000];
        while (std::fgets(line, sizeof line, m_pOut) != nullptr &&
               std::strncmp(line, begin.c_str(), begin.size()) != 0)
        {
            m_Inspect(line);
        }
        alarm(0);
        return std::string(line).substr(begin.size());
    }

    void End()
    {
        kill(pid, SIGTERM);
        for (char line[1000]; std::fgets(line, sizeof line, m_pOut) != nullptr;)
        {
            m_Inspect(line);
        }
        Require(pclose(m_pOut) == 0, "the service ends cleanly");
    }

    std::string StoredPolicy() const
    {
        return ReadFile(m_policyFile);
    }

    int pid = 0;
    std::size_t unreachable = 0; // lines about clients that could not be reached

private:
    void m_Inspect(const char* line)
    {
        if (std::strstr(line, "Sending message from :") != nullptr)
        {
            ++unreachable;
            return;
        }
        Require(std::strncmp(line, "D/", 2) == 0 || std::strncmp(line, "I/", 2) == 0 ||
                    std::strstr(line, "qord: a policy of ") == line,
                "the service says nothing that was not provoked", line);
    }

    TemporaryDirectory m_directory;
    std::string m_policyFile = m_directory.Path("policy.xml");
    std::FILE* m_pOut = nullptr;
};

class Soak
{
public:
    explicit Soak(std::size_t clients) : m_wanted(clients)
    {
        Start();
    }

    void Run(unsigned long seconds, std::size_t events)
    {
        // The allocator's pools settle first.
        const std::size_t first = events == 0 ? 50 : std::min<std::size_t>(1000, events / 10 + 1);
        std::size_t files = 0;
        std::size_t resident = 0;
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (events != 0 ? m_events < events
                           : m_events <= first || std::chrono::steady_clock::now() < end)
        {
            if (events == 0)
            {
                Change(m_random() % 6);
                m_random() % 2 == 0 ? SetPolicy() : AskForProcessInfo(0);
                AskForProcessInfo(m_random() % 4 == 0 ? 1 + m_random() % 2 : 0);
            }
            else
            {
                AskForProcessInfo(m_random() % 20 == 0 ? 1 : 0);
                Start();
            }
            if (files == 0 && m_events >= first)
            {
                files = OpenFiles(m_service.pid);
                resident = ResidentKilobytes(m_service.pid);
            }
        }
        const bool sameFiles = WaitUntil([&] { return OpenFiles(m_service.pid) == files; });
        const std::size_t residentInTheEnd = ResidentKilobytes(m_service.pid);
        std::printf("%zu events to %zu clients of %zu in all, %zu failed\nservice after the first "
                    "%zu events: %zu KiB, %zu files; after the last: %zu KiB\n",
                    m_events, m_wanted, m_started, m_failed, first, resident, files,
                    residentInTheEnd);
        for (Client& client : m_clients)
        {
            client.End(SIGTERM);
        }
        m_service.End();
        Require(sameFiles, "as many files are open as after the first events");
        // A sanitizer keeps what has been freed.
        Require(IS_SANITIZED || residentInTheEnd <= resident + 2048, "no more memory is taken");
        Require(m_service.unreachable == m_failed, "every failure has its line",
                std::to_string(m_service.unreachable) + " lines");
    }

private:
    void Start()
    {
        std::list<Client> fresh(m_wanted - m_clients.size());
        for (Client& client : fresh)
        {
            Require(client.process.WaitForOut("appeared"), "a client is registered");
        }
        m_started += fresh.size();
        m_clients.splice(m_clients.end(), fresh);
    }

    void EndAny(int signal)
    {
        const auto client = std::next(m_clients.begin(),
                                      static_cast<std::ptrdiff_t>(m_random() % m_clients.size()));
        client->End(signal);
        m_clients.erase(client);
    }

    void Change(std::size_t count)
    {
        for (std::size_t i = 0; i < count && !m_clients.empty(); ++i)
        {
            EndAny(m_random() % 2 == 0 ? SIGTERM : SIGKILL);
        }
        Start();
        Synchronize();
    }

    // Once the bus has seen clients come and leave, the service learns of it before it answers.
    void Synchronize()
    {
        m_peer.Sync();
        m_peer.Sync();
        m_peer.Call(SERVICE_NAME, SERVICE_PATH, "Send", Request(99, false));
    }

    void SetPolicy()
    {
        const std::string policy = "<policy n='" + std::to_string(m_events) + "'>" +
                                   std::string(m_random() % 100000, 'x') + "</policy>";
        Require(SendPolicy(m_peer, policy) == 0, "a policy is stored");
        Require(m_service.StoredPolicy() == policy, "the stored policy is the last one");
        Check("policy-update", m_clients.size(), 0);
    }

    // Kills clients while the event is under way: each of them may have got it or not.
    void AskForProcessInfo(std::size_t kills)
    {
        Synchronize();
        const std::size_t registered = m_clients.size();
        kill(m_service.pid, SIGUSR1);
        for (std::size_t i = 0; i < kills; ++i)
        {
            EndAny(SIGKILL);
        }
        Check("process-info", registered, kills);
        Synchronize();
    }

    void Check(const std::string& name, std::size_t registered, std::size_t kills)
    {
        const std::string counts = m_service.Next("qord: event " + name + ": ");
        std::size_t delivered = 0;
        std::size_t failed = 0;
        Require(std::sscanf(counts.c_str(), "%zu delivered, %zu failed", &delivered, &failed) ==
                        2 &&
                    delivered + failed <= registered && delivered + failed + kills >= registered &&
                    delivered + kills >= registered,
                "every living client is reached, and no other is called",
                std::to_string(registered) + " registered, " + std::to_string(kills) + " killed, " +
                    counts);
        ++m_events;
        m_failed += failed;
        for (Client& client : m_clients)
        {
            ++client.expected[name];
        }
    }

    PrivateBus m_bus;
    Service m_service;
    RawPeer m_peer;
    std::size_t m_wanted;
    std::mt19937 m_random{1};
    std::list<Client> m_clients;
    std::size_t m_started = 0;
    std::size_t m_events = 0;
    std::size_t m_failed = 0;
};

int main(int count, char** arguments)
{
    std::map<std::string, unsigned long> options = {
        {"--seconds", 60}, {"--clients", 50}, {"--events", 0}};
    for (int i = 1; i < count; i += 2)
    {
        if (i + 1 == count || options.count(arguments[i]) == 0)
        {
            std::fprintf(stderr, "usage: qor-soak [--seconds N | --events N] [--clients N]\n");
            return 64;
        }
        options[arguments[i]] = std::strtoul(arguments[i + 1], nullptr, 10);
    }
    Soak(options["--clients"]).Run(options["--seconds"], options["--events"]);
}
