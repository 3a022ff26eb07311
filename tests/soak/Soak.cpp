// One service and many clients that come and go, for as long as wanted: every count adds up, and in
// the end the service takes no more memory and no more files than after its first moments.
#include <fcntl.h>

#include <csignal>
#include <cstring>
#include <list>
#include <map>
#include <random>

#include "FaultSupport.h"
#include "MainContext.h"
#include "ToolRunner.h"

using namespace qortest;

static void Require(bool holds, const char* property, const std::string& details = "")
{
    if (!holds)
    {
        std::fprintf(stderr, "qor-soak: does not hold: %s\n%s\n", property, details.c_str());
        std::_Exit(1);
    }
}

// A listener, and how many events it should have been told of by now.
struct Client
{
    void End(int signal)
    {
        process->Signal(signal);
        const int status = process->Wait();
        const std::string log = "\n" + process->Err(), out = process->Out();
        Require(signal == SIGKILL || status == 0, "a client ends cleanly", log);
        Require(log.find("\nE/") == std::string::npos, "a client logs no error", log);
        for (const auto& [name, count] : expected)
        {
            Require(signal == SIGKILL || CountOf(out, name) == count, "it has heard of all", out);
        }
    }

    std::unique_ptr<ChildProcess> process = StartTool(QORCTL, {"listen"});
    std::map<std::string, std::size_t> expected;
};

class Soak
{
public:
    // What the service prints is read as it comes, and kept nowhere.
    explicit Soak(std::size_t clients) : m_wanted(clients)
    {
        setenv("QOR_DLOG", "stderr", 1);
        const std::string command = "echo $$; exec " QORD " --event-timeout 20000 --policy ";
        m_pOut = popen((command + m_policyFile + " 2>&1").c_str(), "re");
        Require(std::fscanf(m_pOut, "%d\n", &m_service) == 1, "the service starts");
        fcntl(fileno(m_pOut), F_SETPIPE_SZ, 1 << 20); // for what it logs while nobody reads
        Read("qord: ready");
        Start();
    }

    void Run(unsigned long seconds, std::size_t events)
    {
        // The allocator's pools settle first.
        const std::size_t first = events == 0 ? 50 : std::min<std::size_t>(1000, events / 10 + 1);
        std::size_t files = 0, resident = 0;
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (events != 0 ? m_events < events
                           : m_events <= first || std::chrono::steady_clock::now() < end)
        {
            if (events == 0)
            {
                for (std::size_t i = m_random() % 6; i != 0 && !m_clients.empty(); --i)
                {
                    EndAny(m_random() % 2 == 0 ? SIGTERM : SIGKILL);
                }
                Start();
                m_random() % 2 == 0 ? SetPolicy() : AskForProcessInfo(0);
            }
            AskForProcessInfo(m_random() % 10 == 0 ? 1 + m_random() % 2 : 0);
            Start();
            if (files == 0 && m_events >= first)
            {
                files = OpenFiles(m_service);
                resident = ResidentKilobytes(m_service);
            }
        }
        const bool sameFiles = WaitUntil([&] { return OpenFiles(m_service) == files; });
        const std::size_t last = ResidentKilobytes(m_service);
        std::printf("%zu events to %zu clients, %zu failed\nresident size of the "
                    "service after the first %zu %zu KiB, after the last %zu KiB\n",
                    m_events, m_wanted, m_failed, first, resident, last);
        for (Client& client : m_clients)
        {
            client.End(SIGTERM);
        }
        kill(m_service, SIGTERM);
        Read("");
        Require(pclose(m_pOut) == 0, "the service ends cleanly");
        Require(sameFiles, "as many files are open as after the first events");
        Require(IS_SANITIZED || last <= resident + 2048, "no more memory is taken");
        Require(m_unreachable == m_failed, "every failure has its line");
    }

private:
    // Reads up to a line that begins so, and returns what follows; without one, up to the end.
    std::string Read(const std::string& begin)
    {
        alarm(60); // ends the soak
        for (char line[1000]; std::fgets(line, sizeof line, m_pOut) != nullptr;)
        {
            if (!begin.empty() && std::strncmp(line, begin.c_str(), begin.size()) == 0)
            {
                alarm(0);
                return line + begin.size();
            }
            const bool isFailure = std::strstr(line, "Sending message from :") != nullptr;
            m_unreachable += isFailure ? 1 : 0;
            Require(isFailure || std::strncmp(line, "D/", 2) == 0 ||
                        std::strncmp(line, "I/", 2) == 0 ||
                        std::strstr(line, "qord: a policy of ") == line,
                    "the service says nothing that was not provoked", line);
        }
        Require(begin.empty(), "the service lives");
        return "";
    }

    void Start()
    {
        std::list<Client> fresh(m_wanted - m_clients.size());
        for (Client& client : fresh)
        {
            Require(client.process->WaitForOut("appeared"), "a client is registered");
        }
        m_clients.splice(m_clients.end(), fresh);
        // Once the bus has seen others leave, the service learns of it before it answers.
        m_peer.Sync();
        m_peer.Sync();
        m_peer.Call(SERVICE_NAME, SERVICE_PATH, "Send", Request(99, false));
    }

    void EndAny(int signal)
    {
        const auto index = static_cast<std::ptrdiff_t>(m_random() % m_clients.size());
        const auto client = std::next(m_clients.begin(), index);
        client->End(signal);
        m_clients.erase(client);
    }

    void SetPolicy()
    {
        const std::string policy = "<p>" + std::string(m_random() % 100000, 'x') + "</p>";
        Require(SendPolicy(m_peer, policy) == 0, "a policy is stored");
        Require(ReadFile(m_policyFile) == policy, "the stored policy is the last one");
        Check("policy-update", m_clients.size(), 0);
    }

    // Kills clients while the event is under way: each of them may have got it or not.
    void AskForProcessInfo(std::size_t kills)
    {
        const std::size_t registered = m_clients.size();
        kill(m_service, SIGUSR1);
        for (std::size_t i = 0; i < kills; ++i)
        {
            EndAny(SIGKILL);
        }
        Check("process-info", registered, kills);
    }

    void Check(const std::string& name, std::size_t registered, std::size_t kills)
    {
        const std::string counts = Read("qord: event " + name + ": ");
        std::size_t delivered = 0, failed = 0;
        std::sscanf(counts.c_str(), "%zu delivered, %zu failed", &delivered, &failed);
        Require(delivered + failed <= registered && delivered + kills >= registered,
                "every living client is reached, and no other is called", counts);
        ++m_events;
        m_failed += failed;
        for (Client& client : m_clients)
        {
            ++client.expected[name];
        }
    }

    PrivateBus m_bus;
    TemporaryDirectory m_directory;
    const std::string m_policyFile = m_directory.Path("policy.xml");
    std::FILE* m_pOut = nullptr;
    int m_service = 0;
    RawPeer m_peer;
    const std::size_t m_wanted;
    std::mt19937 m_random{1};
    std::list<Client> m_clients;
    std::size_t m_events = 0, m_failed = 0;
    std::size_t m_unreachable = 0; // lines about clients that could not be reached
};

int main(int count, char** arguments)
{
    std::map<std::string, unsigned long> options = {
        {"--seconds", 60}, {"--clients", 50}, {"--events", 0}};
    for (int i = 1; i + 1 < count; i += 2)
    {
        options.at(arguments[i]) = std::strtoul(arguments[i + 1], nullptr, 10);
    }
    Soak(options["--clients"]).Run(options["--seconds"], options["--events"]);
}
