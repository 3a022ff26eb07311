// The bus and other peers at their worst.
#include <random>

#include <qor/PolicyMessage.h>
#include <qor/QORDbusClient.h>
#include <qor/QORDbusServer.h>

#include "BusTest.h"
#include "FaultFixture.h"

using namespace qortest;

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
