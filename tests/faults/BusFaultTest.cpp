// The bus that dies, comes back, and takes less than the library thinks.
#include <qor/QORDbusClient.h>
#include <qor/QORDbusServer.h>

#include "BusTest.h"
#include "ToolRunner.h"

using namespace qortest;

class BusFault : public BusTest
{
protected:
    std::unique_ptr<ChildProcess> StartQord()
    {
        auto qord = StartTool(QORD, {"--policy", m_directory.Path("policy.xml")});
        EXPECT_TRUE(qord->WaitForOut("ready")) << qord->Err();
        return qord;
    }

    TemporaryDirectory m_directory;
    std::vector<unsigned char> m_response;
};

TEST_F(BusFault, HostOutlivesTheBusAndANewServiceLearnsItAgain)
{
    std::size_t policies = 0;
    for (std::size_t round = 1; round <= 4; ++round)
    {
        auto qord = StartQord();
        auto client = qor::TCDbusClientProvider::Get(false);
        client->SetCallback(2, [&](const auto&, auto&) { return ++policies != 0; });
        ASSERT_TRUE(PumpUntil([&] { return client->IsReady(); }));
        client->SendMessage(99, {}, m_response, false); // answered after the registration
        ASSERT_EQ(Qorctl({"set-policy", "-"}, "<a/>").exitCode, 0);
        ASSERT_TRUE(PumpUntil([&] { return policies == round; }));
        EXPECT_TRUE(qord->WaitForOut("policy-update: 1 delivered, 0 failed")) << qord->Out();
        m_bus.Kill();
        EXPECT_EQ(qord->Wait(), 1);
        EXPECT_EQ(CountOf(qord->Err(), "\n"), 1U) << qord->Err();
        ASSERT_TRUE(PumpUntil([&] { return !client->IsReady(); }));
        LogCapture::Clear();
        EXPECT_FALSE(client->SendMessage(1, {}, m_response, false));
        EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Sending message error"), 1U);
        client.reset();
        ASSERT_TRUE(SharedConnectionIsLetGo());
        m_bus.Restart();
    }
}

// The daemon closes the connection of who sends too much.
TEST_F(BusFault, WhoSendsMoreThanTheBusTakesIsCutOffAndTheNextOneWorks)
{
    PrivateBus::Options options;
    options.maxMessageSize = 1 << 20;
    const PrivateBus tight(options);
    const std::vector<unsigned char> tooMuch(2 << 20, 'x');
    {
        RawPeer service;
        ASSERT_TRUE(service.OwnName(SERVICE_NAME));
        auto client = qor::TCDbusClientProvider::Get(false);
        ASSERT_TRUE(PumpUntil([&] { return client->IsReady(); }));
        EXPECT_FALSE(client->SendMessage(1, tooMuch, m_response, false));
        EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Sending message error, errno"), 1U);
        EXPECT_TRUE(PumpUntil([&] { return !client->IsReady(); }));
        EXPECT_FALSE(client->SendMessage(1, {}, m_response, false));
        client.reset();
        ASSERT_TRUE(SharedConnectionIsLetGo());
        client = qor::TCDbusClientProvider::Get(false);
        EXPECT_TRUE(client->SendMessage(1, {}, m_response, false));
        EXPECT_EQ(service.Count("Send"), 1U);
    }
    RawPeer client;
    for (const bool isTooMuch : {true, false})
    {
        ASSERT_TRUE(SharedConnectionIsLetGo());
        qor::TCDbusServer server(false);
        ASSERT_TRUE(PumpUntil([&] { return server.IsReady(); }));
        client.PostHello(SERVICE_NAME, {2});
        ASSERT_TRUE(PumpUntil([&] { return server.NumberOfClients() == 1; }));
        EXPECT_EQ(server.SendMessage(2, isTooMuch ? tooMuch : Bytes(), 5000),
                  isTooMuch ? std::make_pair(0UL, 1UL) : std::make_pair(1UL, 0UL));
    }
    ASSERT_TRUE(SharedConnectionIsLetGo());
    auto qord = StartQord();
    const Outcome outcome = Qorctl({"set-policy", "-"}, "<p>" + std::string(2 << 20, 'x') + "</p>");
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_NE(outcome.err.find("system bus was closed"), std::string::npos) << outcome.err;
    EXPECT_EQ(Qorctl({"set-policy", "-"}, "<p/>").exitCode, 0);
}
