// The bus, the disk and other peers at their worst.
#include <csignal>
#include <map>
#include <random>

#include <sys/socket.h>

#include <qor/PolicyMessage.h>
#include <qor/QORDbusClient.h>
#include <qor/QORDbusServer.h>

#include "BusTest.h"
#include "FaultSupport.h"
#include "ToolRunner.h"

using namespace qortest;
namespace fs = boost::filesystem;

class Fault : public ToolTest
{
protected:
    void ExpectResult(int result, const std::string& policy)
    {
        EXPECT_EQ(SendPolicy(m_client, policy), result) << policy.substr(0, 40);
    }

    static void EndCleanly(ChildProcess& process)
    {
        process.Signal(SIGTERM);
        EXPECT_EQ(process.Wait(), 0) << process.Err();
    }

    RawPeer m_client;
};

TEST_F(Fault, HostOutlivesTheBusAndANewServiceLearnsItAgain)
{
    std::size_t policies = 0;
    Bytes response;
    for (int round = 1; round <= 4; ++round)
    {
        auto qord = StartQord();
        auto client = qor::TCDbusClientProvider::Get(false);
        client->SetCallback(2, [&](const auto&, auto&) { return ++policies != 0; });
        ASSERT_TRUE(PumpUntil([&] { return client->IsReady(); }));
        client->SendMessage(99, {}, response, false); // answered after the registration
        const std::size_t before = policies;
        ASSERT_EQ(Qorctl({"set-policy", "-"}, "<a/>").exitCode, 0);
        ASSERT_TRUE(PumpUntil([&] { return policies > before; }));
        EXPECT_TRUE(qord->WaitForOut("policy-update: 1 delivered, 0 failed")) << qord->Out();
        m_pBus->Kill();
        EXPECT_EQ(qord->Wait(), 1);
        EXPECT_EQ(CountOf(qord->Err(), "\n"), 1U) << qord->Err();
        ASSERT_TRUE(PumpUntil([&] { return !client->IsReady(); }));
        LogCapture::Clear();
        EXPECT_FALSE(client->SendMessage(1, {}, response, false));
        EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Sending message error"), 1U);
        client.reset();
        ASSERT_TRUE(SharedConnectionIsLetGo());
        m_pBus->Restart();
    }
}

// The daemon closes the connection of who sends too much.
TEST_F(Fault, WhoSendsMoreThanTheBusTakesIsCutOffAndTheNextOneWorks)
{
    if (getenv("QOR_TEST_BUS") != nullptr)
    {
        GTEST_SKIP() << "dbus-broker takes messages of any size";
    }
    PrivateBus::Options options;
    options.maxMessageSize = 1 << 20;
    m_pBus = std::make_unique<PrivateBus>(options);
    const Bytes tooMuch(2 << 20, 'x');
    Bytes response;
    LogCapture::Clear();
    RawPeer peer;
    ASSERT_TRUE(peer.OwnName(SERVICE_NAME));
    for (const bool isTooMuch : {true, false})
    {
        auto client = qor::TCDbusClientProvider::Get(false);
        ASSERT_TRUE(PumpUntil([&] { return client->IsReady(); }));
        EXPECT_EQ(client->SendMessage(1, isTooMuch ? tooMuch : Bytes(), response, false),
                  !isTooMuch);
        EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Sending message error, errno"), 1U);
        EXPECT_TRUE(PumpUntil([&] { return client->IsReady() != isTooMuch; }));
        client.reset();
        ASSERT_TRUE(SharedConnectionIsLetGo());
    }
    ASSERT_TRUE(peer.ReleaseName(SERVICE_NAME));
    for (const bool isTooMuch : {true, false})
    {
        auto server = std::make_unique<qor::TCDbusServer>(false);
        ASSERT_TRUE(PumpUntil([&] { return server->IsReady(); }));
        peer.PostHello(SERVICE_NAME, {2});
        ASSERT_TRUE(PumpUntil([&] { return server->NumberOfClients() == 1; }));
        EXPECT_EQ(server->SendMessage(2, isTooMuch ? tooMuch : Bytes(), 5000),
                  std::make_pair(std::size_t(!isTooMuch), std::size_t(isTooMuch)));
        server.reset();
        ASSERT_TRUE(SharedConnectionIsLetGo());
    }
    auto qord = StartQord();
    const Outcome outcome = Qorctl({"set-policy", "-"}, "<p>" + std::string(2 << 20, 'x') + "</p>");
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_NE(outcome.err.find("system bus was closed"), std::string::npos) << outcome.err;
    EXPECT_EQ(Qorctl({"set-policy", "-"}, "<p/>").exitCode, 0);
    m_pBus = std::make_unique<PrivateBus>(); // for the next test
}

// The n-th policy, of a size of its own, so that no prefix of one is another.
static std::string Policy(int number)
{
    return "<p n='" + std::to_string(number) + "'>" + std::string(20000 + number, 'x') + "</p>";
}

TEST_F(Fault, KilledServiceLeavesAWholePolicyAndKeepsThoseBeforeIt)
{
    constexpr int last = 2000;
    std::mt19937 random(7);
    RawPeer other;
    std::atomic<int> sent{0};
    std::size_t highest = 0, starts = 0;
    while (sent < last)
    {
        auto qord = StartQord({"--keep", "5"});
        ++starts;
        const auto write = [&](RawPeer& peer)
        {
            // The last that was acknowledged.
            for (int number = 0, stored = 0;; stored = number)
            {
                number = ++sent;
                if (number > last || SendPolicy(peer, Policy(number)) != qor::POLICY_STORED)
                {
                    return stored;
                }
            }
        };
        auto first = std::async(std::launch::async, [&] { return write(m_client); });
        auto second = std::async(std::launch::async, [&] { return write(other); });
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 200000));
        qord->Signal(SIGKILL);
        qord->Wait();
        const int acknowledged[] = {first.get(), second.get()};
        qord = StartQord({"--keep", "5"}); // and what was under way is ended
        std::map<std::size_t, std::string> kept;
        for (const auto& entry : fs::directory_iterator(m_directory.Path()))
        {
            const std::string name = entry.path().filename().string();
            const std::size_t number = name.find(".kept-") == std::string::npos
                                           ? 0
                                           : std::stoul(name.substr(name.rfind('-') + 1));
            number == 0 ? void() : void(kept[number] = ReadFile(entry.path().string()));
        }
        std::string found = StoredPolicy();
        const auto isWhole = [](const std::string& text)
        { return text == Policy(std::stoi(text.substr(6))); };
        ASSERT_TRUE(found.empty() || isWhole(found)) << found.substr(0, 40);
        ASSERT_LE(kept.size(), 5U);
        ASSERT_GE(kept.empty() ? highest : kept.rbegin()->first, highest);
        highest = kept.empty() ? highest : kept.rbegin()->first;
        for (const auto& [number, text] : kept)
        {
            ASSERT_TRUE(isWhole(text)) << number;
        }
        // What each writer was told is in force, or was replaced by a later one.
        for (const int number : acknowledged)
        {
            const bool isThere =
                number == 0 || found == Policy(number) ||
                std::any_of(kept.begin(), kept.end(),
                            [&](const auto& file) { return file.second == Policy(number); });
            ASSERT_TRUE(isThere) << number << " of start " << starts;
        }
        EndCleanly(*qord);
    }
    std::cout << starts << " starts\n";
    EXPECT_EQ(std::distance(fs::directory_iterator(m_directory.Path()), {}), 7) << "leftovers";
}

TEST_F(Fault, RefusalsOfTheDiskAndOfTheLimitKeepTheOldPolicy)
{
    auto qord = StartQord({"--max-policy-size", "1000"});
    const std::string largest = "<p>" + std::string(1000 - 7, 'x') + "</p>";
    ExpectResult(qor::POLICY_STORED, largest);
    const Outcome refused = Qorctl({"set-policy", "-"}, largest + " ");
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("more than the service accepts"), std::string::npos) << refused.err;
    ExpectResult(qor::POLICY_TOO_LARGE, std::string(1 << 20, '<'));
    EXPECT_EQ(StoredPolicy(), largest);
    fs::remove(m_policyFile);
    fs::create_directory(m_policyFile);
    WriteFile(m_policyFile + "/inside", "kept");
    ExpectResult(qor::POLICY_NOT_STORED, "<new/>");
    EXPECT_EQ(ReadFile(m_policyFile + "/inside"), "kept");
    fs::remove_all(m_directory.Path());
    ExpectResult(qor::POLICY_NOT_STORED, "<new/>");
    fs::create_directory(m_directory.Path());
    ExpectResult(qor::POLICY_STORED, "<new/>");
    EXPECT_EQ(StoredPolicy(), "<new/>");
    EXPECT_EQ(CountOf(qord->Err(), "could not be stored"), 2U) << qord->Err();
}

TEST_F(Fault, TheLargestPolicyTakesLessThanFourTimesItsSize)
{
    constexpr std::size_t size = 16 << 20;
    std::string nested;
    while (nested.size() < size)
    {
        nested += "<a>";
    }
    nested.resize(size);
    const std::string flat = "<a>" + std::string(size - 7, 'x') + "</a>";
    for (const auto& [policy, result] :
         {std::pair(flat, qor::POLICY_STORED), std::pair(nested, qor::POLICY_TOO_LARGE)})
    {
        auto qord = StartQord();
        ExpectResult(result, policy);
        EXPECT_TRUE(IS_SANITIZED || ResidentKilobytes(qord->Pid(), "VmHWM:") < 4 * size / 1024);
        fs::remove(m_policyFile); // the next start would read it
    }
}

TEST_F(Fault, FileSizeLimitIsAFailedWriteAndNotTheEndOfTheService)
{
    auto qord = StartTool("sh", {"-c", "ulimit -f 16 && exec '" QORD "' --policy " + m_policyFile});
    ASSERT_TRUE(qord->WaitForOut("ready")) << qord->Err();
    ExpectResult(qor::POLICY_STORED, "<old/>");
    ExpectResult(qor::POLICY_NOT_STORED, "<p>" + std::string(100000, 'x') + "</p>");
    EXPECT_EQ(StoredPolicy(), "<old/>");
    EndCleanly(*qord);
}

// The mounts are the service's own and end with it.
TEST_F(Fault, FullAndReadOnlyFileSystemsKeepTheOldPolicy)
{
    const std::string mountPoint = m_directory.Path();
    auto qord = StartTool("unshare", {"--mount", "sh", "-c",
                                      "mount -t tmpfs -o size=128k none " + mountPoint +
                                          " && exec '" QORD "' --policy " + m_policyFile});
    if (!qord->WaitForOut("ready"))
    {
        GTEST_SKIP() << "mounting takes privileges: " << qord->Err();
    }
    const std::string pid = std::to_string(qord->Pid()), seen = "/proc/" + pid + "/root";
    const auto remount = [&](const std::string& how)
    {
        const std::string options = "remount," + how;
        RunTool("nsenter", {"--mount", "--target", pid, "mount", "-o", options, mountPoint});
    };
    const std::string old = "<a>" + std::string(100000, 'x') + "</a>";
    ExpectResult(qor::POLICY_STORED, old);
    ExpectResult(qor::POLICY_NOT_STORED, old + "<!-- does not fit beside the old one -->");
    remount("ro");
    ExpectResult(qor::POLICY_NOT_STORED, "<c/>");
    EXPECT_EQ(ReadFile(seen + m_policyFile), old);
    remount("rw");
    ExpectResult(qor::POLICY_STORED, "<c/>");
    EXPECT_EQ(ReadFile(seen + m_policyFile), "<c/>");
}

// Somebody who hangs must not hold up the others, nor the next service.
TEST_F(Fault, ServiceStopsInTimeAndAnnouncesWhatIsDue)
{
    auto qord = StartQuietQord({"--event-timeout", "60000"});
    auto hung = StartListener();
    auto good = StartListener();
    hung->Signal(SIGSTOP);
    qord->Signal(SIGHUP);
    ASSERT_TRUE(qord->WaitForOut("SIGHUP changes nothing"));
    ExpectResult(qor::POLICY_STORED, "<a/>");
    ASSERT_TRUE(good->WaitForOut("policy-update")); // its delivery to the other is under way
    ExpectResult(qor::POLICY_STORED, "<b/>");
    const auto start = std::chrono::steady_clock::now();
    qord->Signal(SIGTERM);
    EXPECT_TRUE(good->WaitForOut("vanished"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
    EXPECT_EQ(qord->Wait(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    EXPECT_NE(qord->Err().find("does not answer"), std::string::npos) << qord->Err();

    // The event that was dropped above comes from the next service.
    qord = StartQord();
    ASSERT_TRUE(WaitUntil([&] { return CountOf(good->Out(), "policy-update") == 2; }));

    hung.reset();

    // Due, and hardly begun: the reply has just come.
    for (int round = 1; round <= 10; ++round)
    {
        const std::size_t heard = CountOf(good->Out(), "policy-update");
        ExpectResult(qor::POLICY_STORED, "<c/>");
        qord->Signal(SIGTERM);
        EXPECT_TRUE(WaitUntil([&] { return CountOf(good->Out(), "policy-update") > heard; }));
        EXPECT_EQ(qord->Wait(), 0);
        qord = StartQord();
        ASSERT_TRUE(WaitUntil(
            [&] { return CountOf(good->Out(), "appeared") == 2U + static_cast<unsigned>(round); }));
        SyncWithService();
    }
}

TEST_F(Fault, ABusThatNeverAnswersDoesNotKeepTheServiceFromEnding)
{
    const int mute = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const std::string path = m_directory.Path("mute");
    Bind(mute, path);
    ASSERT_EQ(listen(mute, 2), 0);
    ChildProcess::Options options;
    options.environment["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=" + path;
    for (const bool isTwice : {false, true})
    {
        auto qord = StartTool(QORD, {"--policy", m_policyFile}, options);
        const int connection = accept(mute, nullptr, nullptr); // it listens to signals by now
        const auto start = std::chrono::steady_clock::now();
        qord->Signal(SIGTERM);
        isTwice ? WaitUntil([&] { return qord->Signal(SIGTERM), !qord->IsRunning(); }) : true;
        EXPECT_EQ(qord->Wait(), isTwice ? 128 + SIGTERM : 0);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(isTwice ? 1 : 3));
        close(connection);
    }
    close(mute);
}

TEST_F(Fault, OutputThatNobodyReadsIsDroppedAndCounted)
{
    const std::string out = m_directory.Path("out");
    ASSERT_EQ(mkfifo(out.c_str(), 0600), 0);
    const int reader = open(out.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    auto qord = StartTool("sh", {"-c", "exec " QORD " --policy " + m_policyFile + " >" + out});
    ASSERT_TRUE(WaitUntil([&] { return SendPolicy(m_client, "<a/>") == 0; }));
    for (int i = 0; i < 2500; ++i)
    {
        ASSERT_EQ(SendPolicy(m_client, "<a/>"), qor::POLICY_STORED);
    }
    std::string text(1 << 20, '\0');
    EXPECT_GT(read(reader, text.data(), text.size()), 60000);
    ExpectResult(qor::POLICY_STORED, "<b/>");
    ASSERT_GT(read(reader, text.data(), text.size()), 0);
    const std::size_t at = text.find(" lines were dropped here\nqord: ");
    ASSERT_NE(at, std::string::npos) << text.substr(0, 100);
    EXPECT_GT(std::stoi(text.substr(6, at)), 400);
    qord->Signal(SIGTERM);
    EXPECT_EQ(qord->Wait(), 0);
    close(reader);
}

TEST_F(Fault, CallsOfTheWrongShapeAreAnsweredWithErrors)
{
    const std::string path = SERVICE_PATH, control = path + " " + INTERFACE_NAME;
    const std::string other = std::string("/com/example/Other ") + INTERFACE_NAME;
    const std::string calls[][2] = {
        {control + ".Send string:text", "InvalidArgs"},
        {control + ".Send", "InvalidArgs"},
        {control + ".Send array:byte:1 array:byte:1", "InvalidArgs"},
        {control + ".Send array:int32:1,2", "InvalidArgs"},
        {control + ".Hello dict:string:int32:a,1", "InvalidArgs"},
        {control + ".Hello", "InvalidArgs"},
        {control + ".Unknown array:byte:1", "UnknownMethod"},
        {path + " com.example.Other.Send array:byte:1", "UnknownMethod"},
        {other + ".Hello array:byte:1", "UnknownMethod"},
        {control + ".Hello array:byte:1", ""}}; // bytes are the business of who reads them
    auto qord = StartQord();
    for (const auto& [call, error] : calls)
    {
        const std::string send = "dbus-send --system --print-reply --dest=";
        const Outcome outcome = RunTool("sh", {"-c", send + SERVICE_NAME + " " + call});
        EXPECT_EQ(outcome.exitCode, error.empty() ? 0 : 1) << call << outcome.out;
        EXPECT_NE(outcome.err.find(error), std::string::npos) << call << outcome.err;
    }
    EndCleanly(*qord);
}

TEST_F(Fault, EveryKindOfBadAnswerIsOneFailureAndTheOthersAreServed)
{
    auto qord = StartQuietQord({"--event-timeout", "500"});
    auto listener = StartListener();
    RawPeer peers[7];
    const Bytes zeros(1 << 20, 0);
    const Answer answers[] = {{Answer::WRONG_TYPE, {}, ""}, {Answer::NO_VALUE, {}, ""},
                              {Answer::NEVER, {}, ""},      {Answer::ERROR, {}, "com.example.E"},
                              {Answer::REPLY, {}, ""},      {Answer::REPLY, zeros, ""},
                              {Answer::LEAVE, {}, ""}};
    for (int i = 0; i < 7; ++i)
    {
        peers[i].AnswerWith(answers[i]);
        peers[i].Call(SERVICE_NAME, SERVICE_PATH, "Hello", EventList({2, 4}));
    }
    ExpectResult(qor::POLICY_STORED, "<p/>");
    EXPECT_TRUE(qord->WaitForOut("policy-update: 1 delivered, 7 failed")) << qord->Out();
    qord->Signal(SIGUSR1); // the one that left is no longer there to be counted
    EXPECT_TRUE(qord->WaitForOut("process-info: 1 delivered, 6 failed")) << qord->Out();
    EXPECT_TRUE(listener->WaitForOut("process-info"));
    EndCleanly(*qord);
}

// A client of the library that another process calls, which has taken the service's name.
TEST_F(Fault, ClientHostStandsAServiceThatIsNone)
{
    ASSERT_TRUE(m_client.OwnName(SERVICE_NAME));
    auto listener = StartListener();
    const std::string name = m_client.Calls("Hello").back().sender;
    std::mt19937 random(11);
    for (int i = 0; i < 200; ++i)
    {
        Bytes bytes(random() % 64);
        std::generate(bytes.begin(), bytes.end(),
                      [&] { return static_cast<unsigned char>(random() % 8); });
        m_client.Call(name, SERVICE_PATH, i % 5 == 0 ? "Hello" : "Send", bytes);
        m_client.Post(name, SERVICE_PATH, "Unknown", bytes);
    }
    EXPECT_EQ(m_client.Call(name, SERVICE_PATH, "Send", Request(2, false)).bytes, Bytes{1});
    EXPECT_TRUE(listener->WaitForOut("policy-update"));
    EXPECT_EQ(listener->Err(), "");
    EndCleanly(*listener);
}

// Sends a message that a client may send, or that none does: types that mean something are
// frequent, and sizes reach from nothing to a megabyte.
static void SendAnything(RawPeer& peer, std::mt19937& random)
{
    Bytes bytes(random() % (1UL << (random() % 100 == 0 ? 20 : random() % 13)));
    std::generate(bytes.begin(), bytes.end(),
                  [&] { return static_cast<unsigned char>(random() % 3 == 0 ? random() : 0); });
    if (random() % 2 == 0)
    {
        bytes = Request(static_cast<std::int32_t>(random() % 6), random() % 2 == 0, bytes);
    }
    peer.Post(SERVICE_NAME, SERVICE_PATH, random() % 2 == 0 ? "Hello" : "Send", bytes);
    random() % 20 == 0 ? peer.Sync() : void(); // no more than the bus takes in
}

// Those who leave in the middle of what they do are among them.
TEST_F(Fault, FloodFromFiftyConnectionsIsStoodAndLeavesNothingAndOthersAreServed)
{
    auto qord = StartQord({"--event-timeout", "5000"});
    auto listener = StartListener();
    std::mt19937 random(1);
    std::size_t resident[2] = {}, files[2] = {};
    for (int flood = 0; flood < 2; ++flood)
    {
        std::vector<RawPeer> peers(50);
        for (int part = 0; part < 50; ++part)
        {
            const std::size_t events = CountOf(listener->Out(), "process-info");
            RawPeer passing;
            passing.PostHello(SERVICE_NAME, {2, 4});
            passing.Post(SERVICE_NAME, SERVICE_PATH, "Send",
                         Request(4, false, Archive("<p>" + std::string(300000, 'x') + "</p>")));
            part % 3 == 0 ? void() : passing.Sync();
            qord->Signal(SIGUSR1);
            passing.Leave();
            for (int i = 0; i < 200; ++i)
            {
                SendAnything(peers[random() % peers.size()], random);
            }
            const std::string policy = "<p n='" + std::to_string(part) + "'/>";
            ExpectResult(qor::POLICY_STORED, policy);
            EXPECT_TRUE(
                WaitUntil([&] { return CountOf(listener->Out(), "process-info") > events; }));
        }
        for (RawPeer& peer : peers)
        {
            peer.Call(SERVICE_NAME, SERVICE_PATH, "Hello", {}); // after all of its others
        }
        peers.clear();
        const std::string alone = "process-info: 1 delivered, 0 failed";
        const std::size_t before = CountOf(qord->Out(), alone);
        EXPECT_TRUE(WaitUntil(
            [&]
            {
                qord->Signal(SIGUSR1);
                return CountOf(qord->Out(), alone) > before;
            }))
            << "somebody else is still registered";
        resident[flood] = ResidentKilobytes(qord->Pid());
        EXPECT_TRUE(flood == 0 || WaitUntil([&] { return OpenFiles(qord->Pid()) == files[0]; }));
        files[flood] = OpenFiles(qord->Pid());
    }
    EXPECT_TRUE(IS_SANITIZED || resident[1] < resident[0] + 8 * 1024)
        << "after one flood " << resident[0] << " KiB, after another " << resident[1] << " KiB";
    EndCleanly(*qord);
}
