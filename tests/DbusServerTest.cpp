// The server endpoint: its name, its registry and its stop, with raw peers for the clients.
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <boost/thread/thread.hpp>

#include <gio/gio.h>

#include <qor/QORDbusServer.h>

#include "BusTest.h"

namespace
{

using namespace qortest;
using qor::TCDbusServer;
using Counts = std::pair<std::size_t, std::size_t>;

class DbusServer : public BusTest
{
protected:
    static bool BecomesReady(TCDbusServer& server)
    {
        return PumpUntil([&] { return server.IsReady(); });
    }

    CallResult Hello(RawPeer& client, const Bytes& bytes)
    {
        return Await(client.StartCall(SERVICE_NAME, SERVICE_PATH, "Hello", bytes));
    }

    static bool HasClients(TCDbusServer& server, std::size_t count)
    {
        return PumpUntil([&] { return server.NumberOfClients() == count; });
    }
};

TEST_F(DbusServer, IsReadyWhenItsContextHasSeenTheName)
{
    TCDbusServer server(false);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Server started. Own name id "), 1U);
    RawPeer client;
    client.Sync();
    EXPECT_FALSE(server.IsReady());
    ASSERT_TRUE(BecomesReady(server));
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, std::string("Name ") + SERVICE_NAME +
                                               " has been acquired, user_data 0x"),
              1U);
    EXPECT_EQ(server.NumberOfClients(), 0U);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Number of clients 0"), 1U);
}

TEST_F(DbusServer, HelloNamesTheTypesOfTheClient)
{
    TCDbusServer server(false);
    ASSERT_TRUE(BecomesReady(server));
    struct Case
    {
        Bytes hello;
        std::vector<int> types;
        std::vector<int> others;
    };
    const std::vector<Case> cases{
        {{1, 0, 0, 0, 3, 0, 0, 0, 7, 0, 0, 0, 5}, {1, 3, 7}, {5, 0}},
        {{2, 0, 0, 0, 9, 0}, {2}, {9, 0}},
        {{}, {}, {0, 2, 4}},
        {{2, 0, 0}, {}, {0, 2}},
        {EventList({7, 2, 7}), {2, 7}, {0}},
        {EventList({-2, 258}), {-2, 258}, {2, 254}},
    };
    for (std::size_t i = 0; i < cases.size(); ++i)
    {
        SCOPED_TRACE(i);
        LogCapture::Clear();
        RawPeer client;
        const CallResult answer = Hello(client, cases[i].hello);
        EXPECT_TRUE(answer.ok);
        EXPECT_EQ(answer.signature, "()");
        ASSERT_TRUE(HasClients(server, 1));
        EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "A new client " + client.UniqueName()), 1U);
        for (const int type : cases[i].types)
        {
            EXPECT_EQ(server.SendMessage(type, {}, WATCHDOG_MS), Counts(1, 0)) << type;
        }
        for (const int type : cases[i].others)
        {
            EXPECT_EQ(server.SendMessage(type, {}, WATCHDOG_MS), Counts(0, 0)) << type;
        }
        client.Leave();
        ASSERT_TRUE(HasClients(server, 0));
        EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Client name " + client.UniqueName() +
                                                   " has vanished, user_data 0x"),
                  1U);
    }
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, ""), 0U);
}

TEST_F(DbusServer, RepeatedHelloReplacesTypes)
{
    TCDbusServer server(false);
    ASSERT_TRUE(BecomesReady(server));
    RawPeer client;
    Hello(client, EventList({1, 2}));
    Hello(client, EventList({2, 3}));
    ASSERT_TRUE(HasClients(server, 1));
    EXPECT_EQ(server.SendMessage(1, {}, WATCHDOG_MS), Counts(0, 0));
    EXPECT_EQ(server.SendMessage(3, {}, WATCHDOG_MS), Counts(1, 0));
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "A new client"), 1U);

    client.Leave(); // one watch: one line, and no complaint about an unknown client
    ASSERT_TRUE(HasClients(server, 0));
    PumpPending();
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "has vanished"), 1U);
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, ""), 0U);
}

TEST_F(DbusServer, ClientThatLeftBeforeItsHelloWasHandledIsForgotten)
{
    TCDbusServer server(false);
    ASSERT_TRUE(BecomesReady(server));
    {
        RawPeer client;
        client.PostHello(SERVICE_NAME, {2});
        client.Sync();
    }
    ASSERT_TRUE(PumpUntil([] { return LogCapture::Count(LOG_DEBUG, "has vanished") > 0; }));
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "A new client"), 1U);
    EXPECT_TRUE(HasClients(server, 0));
}

TEST_F(DbusServer, MessagesReachTheFirstCallbackOfTheirType)
{
    TCDbusServer server(false);
    EXPECT_TRUE(server.SetCallback(4, [](const Bytes& in, Bytes& out) { return out = in, true; }));
    EXPECT_FALSE(server.SetCallback(4, [](const Bytes&, Bytes&) { return false; }));
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Type 4, result 1"), 1U);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Type 4, result 0"), 1U);
    ASSERT_TRUE(BecomesReady(server));
    RawPeer client;
    EXPECT_EQ(Await(client.StartCall(SERVICE_NAME, SERVICE_PATH, "Send", Request(4, false, {5, 6})))
                  .bytes,
              (Bytes{1, 5, 6}));
    EXPECT_EQ(server.NumberOfClients(), 0U); // only Hello registers
    EXPECT_TRUE(server.UnSetCallback(4));
    EXPECT_FALSE(server.UnSetCallback(4));
    EXPECT_EQ(Await(client.StartCall(SERVICE_NAME, SERVICE_PATH, "Send", Request(4, false))).bytes,
              (Bytes{0}));
}

TEST_F(DbusServer, NameThatIsTakenIsAcquiredWhenItBecomesFree)
{
    RawPeer owner;
    ASSERT_TRUE(owner.OwnName(TEST_SERVICE_NAME));
    TCDbusServer server(true);
    ASSERT_TRUE(PumpUntil(
        []
        {
            return LogCapture::Count(LOG_DEBUG, std::string("Name ") + TEST_SERVICE_NAME +
                                                    " has been lost, user_data 0x") > 0;
        }));
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "QORDbusServer.cpp"), 1U);
    EXPECT_FALSE(server.IsReady());
    ASSERT_TRUE(owner.ReleaseName(TEST_SERVICE_NAME));
    EXPECT_TRUE(BecomesReady(server));
}

TEST_F(DbusServer, ServerWithoutABusExistsAndDeliversNothing)
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", NoBusAddress().c_str(), 1);
    TCDbusServer server(false);
    PumpPending();
    EXPECT_FALSE(server.IsReady());
    EXPECT_EQ(server.NumberOfClients(), 0U);
    EXPECT_EQ(server.SendMessage(2, {}, 1000), Counts(0, 0));
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Connection is ready 0, number of clients 0"), 1U);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Server started"), 0U);
}

TEST_F(DbusServer, StopsBeforeItsLoopHasRun)
{
    for (int i = 0; i < 100; ++i)
    {
        const TCDbusServer server(false);
    }
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Server started"), 100U);
}

TEST_F(DbusServer, InterruptedOwnerStillStopsIt)
{
    boost::thread owner(
        []
        {
            auto pServer = std::make_unique<TCDbusServer>(false);
            boost::this_thread::disable_interruption notYet;
            while (!boost::this_thread::interruption_requested())
            {
                boost::this_thread::yield();
            }
            const boost::this_thread::restore_interruption now(notYet);
            pServer.reset();
        });
    owner.interrupt();
    owner.join();
    EXPECT_TRUE(SharedConnectionIsLetGo());
}

TEST_F(DbusServer, StopsWithClientsAndTheNameIsFreeAgain)
{
    RawPeer clients[3];
    {
        TCDbusServer server(false);
        ASSERT_TRUE(BecomesReady(server));
        for (RawPeer& client : clients)
        {
            Hello(client, EventList({2, 4}));
        }
        ASSERT_TRUE(HasClients(server, 3));
        EXPECT_EQ(server.SendMessage(2, {}, WATCHDOG_MS), Counts(3, 0));
    }
    EXPECT_TRUE(SharedConnectionIsLetGo());
    EXPECT_TRUE(clients[0].OwnName(SERVICE_NAME));
}

TEST_F(DbusServer, LosingTheBusLeavesTheHostAliveAndAFreshServerWorks)
{
    auto pServer = std::make_unique<TCDbusServer>(false);
    ASSERT_TRUE(BecomesReady(*pServer));
    RawPeer client;
    Hello(client, EventList({2}));
    ASSERT_TRUE(HasClients(*pServer, 1));
    m_bus.Kill();
    ASSERT_TRUE(PumpUntil([] { return LogCapture::Count(LOG_DEBUG, "has been lost") > 0; }));
    ASSERT_TRUE(HasClients(*pServer, 0));
    EXPECT_EQ(pServer->SendMessage(2, {}, 1000), Counts(0, 0));

    m_bus.Restart();
    pServer.reset();
    ASSERT_TRUE(SharedConnectionIsLetGo());
    TCDbusServer fresh(false);
    ASSERT_TRUE(BecomesReady(fresh));
    RawPeer next;
    Hello(next, EventList({2}));
    EXPECT_EQ(fresh.SendMessage(2, {}, WATCHDOG_MS), Counts(1, 0));
}

} // namespace
