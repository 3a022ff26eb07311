// The bus that dies, comes back, and takes less than the library thinks.
#include <csignal>
#include <memory>
#include <vector>

#include <qor/QORDbusClient.h>
#include <qor/QORDbusServer.h>

#include "BusTest.h"
#include "ToolRunner.h"

namespace qortest
{
namespace
{

using Hosts = std::vector<std::unique_ptr<ChildProcess>>;

class BusFault : public BusTest
{
protected:
    std::unique_ptr<ChildProcess> StartQord()
    {
        // The counts are looked at: a host that a busy machine holds up must not time out.
        auto qord = StartTool(
            QORD, {"--policy", m_directory.Path("policy.xml"), "--event-timeout", "60000"});
        EXPECT_TRUE(qord->WaitForOut("ready")) << qord->Err();
        return qord;
    }

    TemporaryDirectory m_directory;
};

bool AllHave(const Hosts& hosts, const std::string& line, std::size_t times)
{
    return WaitUntil(
        [&]
        {
            std::size_t having = 0;
            for (const auto& host : hosts)
            {
                having += CountOf(host->Out(), line) >= times ? 1 : 0;
            }
            return having == hosts.size();
        });
}

TEST_F(BusFault, HostsOutliveTheBusAndANewServiceLearnsThemAgain)
{
    auto qord = StartQord();
    Hosts hosts;
    for (int i = 0; i < 3; ++i)
    {
        ChildProcess::Options options;
        options.environment["QOR_DLOG"] = "stderr";
        hosts.push_back(
            std::make_unique<ChildProcess>(Arguments{FAULT_HOST, "reconnect"}, options));
    }
    ASSERT_TRUE(AllHave(hosts, "ready", 1));
    ASSERT_EQ(Qorctl({"set-policy", "-"}, "<a/>").exitCode, 0);
    ASSERT_TRUE(AllHave(hosts, "policy", 1));

    for (std::size_t round = 2; round <= 4; ++round)
    {
        m_bus.Kill();
        EXPECT_EQ(qord->Wait(), 1);
        EXPECT_EQ(CountOf(qord->Err(), "\n"), 1U) << qord->Err();
        ASSERT_TRUE(AllHave(hosts, "refused", round - 1)) << "calls fail while there is no bus";
        m_bus.Restart();
        qord = StartQord();
        ASSERT_TRUE(AllHave(hosts, "ready", round));
        ASSERT_EQ(Qorctl({"set-policy", "-"}, "<a/>").exitCode, 0);
        ASSERT_TRUE(AllHave(hosts, "policy", round));
        EXPECT_TRUE(qord->WaitForOut("policy-update: 3 delivered, 0 failed")) << qord->Out();
    }
    for (const auto& host : hosts)
    {
        host->Signal(SIGTERM);
        EXPECT_EQ(host->Wait(), 0) << host->Err();
        EXPECT_EQ(CountOf(host->Err(), "Sending message error"), 3U) << host->Err();
    }
}

// --- A bus with a limit below the library's ------------------------------------------------------

class TightBus : public BusFault
{
protected:
    TightBus()
    {
        PrivateBus::Options options;
        options.maxMessageSize = 1 << 20;
        m_tightBus = std::make_unique<PrivateBus>(options);
    }

    std::unique_ptr<PrivateBus> m_tightBus;
    const std::vector<unsigned char> m_tooMuch = std::vector<unsigned char>(2 << 20, 'x');
};

// The daemon closes the connection of who sends too much.
TEST_F(TightBus, ClientThatSendsTooMuchIsCutOffAndALaterOneWorks)
{
    RawPeer service;
    ASSERT_TRUE(service.OwnName(SERVICE_NAME));
    std::vector<unsigned char> response;
    {
        const auto client = qor::TCDbusClientProvider::Get(false);
        ASSERT_TRUE(PumpUntil([&] { return client->IsReady(); }));
        EXPECT_FALSE(client->SendMessage(1, m_tooMuch, response, false));
        EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Sending message error, errno"), 1U);
        EXPECT_TRUE(PumpUntil([&] { return !client->IsReady(); }));
        EXPECT_FALSE(client->SendMessage(1, {}, response, false));
    }
    ASSERT_TRUE(SharedConnectionIsLetGo());
    const auto later = qor::TCDbusClientProvider::Get(false);
    EXPECT_TRUE(later->SendMessage(1, {}, response, false));
    EXPECT_EQ(service.Count("Send"), 1U);
}

TEST_F(TightBus, ServiceThatSendsTooMuchIsCutOffAndALaterOneWorks)
{
    RawPeer client;
    {
        qor::TCDbusServer server(false);
        ASSERT_TRUE(PumpUntil([&] { return server.IsReady(); }));
        client.PostHello(SERVICE_NAME, {2});
        ASSERT_TRUE(PumpUntil([&] { return server.NumberOfClients() == 1; }));
        EXPECT_EQ(server.SendMessage(2, m_tooMuch, 5000), std::make_pair(0UL, 1UL));
    }
    ASSERT_TRUE(SharedConnectionIsLetGo());
    qor::TCDbusServer later(false);
    ASSERT_TRUE(PumpUntil([&] { return later.IsReady(); }));
    client.PostHello(SERVICE_NAME, {2});
    ASSERT_TRUE(PumpUntil([&] { return later.NumberOfClients() == 1; }));
    EXPECT_EQ(later.SendMessage(2, {}, 5000), std::make_pair(1UL, 0UL));
}

// A reply over the bus's limit costs the service its connection, a request the caller its own.
TEST_F(TightBus, SetPolicyOverTheLimitIsNotDeliveredAndTheServiceLivesOn)
{
    auto qord = StartQord();
    const Outcome outcome = Qorctl({"set-policy", "-"}, "<p>" + std::string(2 << 20, 'x') + "</p>");
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_NE(outcome.err.find("connection to the system bus was closed"), std::string::npos)
        << outcome.err;
    EXPECT_EQ(Qorctl({"set-policy", "-"}, "<p/>").exitCode, 0);
}

} // namespace
} // namespace qortest
