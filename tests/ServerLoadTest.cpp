// What a server tells of its load, and how it shares its main context.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <map>
#include <vector>

#include <qor/QORDbusServer.h>

#include "BusTest.h"

using namespace qortest;

namespace
{

class ServerLoad : public BusTest
{
protected:
    ServerLoad()
    {
        alarm(100);
        EXPECT_TRUE(PumpUntil([&] { return m_server.IsReady(); }));
    }
    ~ServerLoad() override
    {
        alarm(0);
    }

    static bool Hello(RawPeer& client, const Bytes& types)
    {
        return Await(client.StartCall(SERVICE_NAME, SERVICE_PATH, "Hello", types)).ok;
    }

    static bool Send(RawPeer& peer)
    {
        return Await(peer.StartCall(SERVICE_NAME, SERVICE_PATH, "Send", Request(1, false))).ok;
    }

    int m_dropped = 0;
    qor::TCDbusServer m_server{
        false,
        {{"<node><interface name='test.Load'><method name='Drop'/></interface></node>",
          [this](GDBusMethodInvocation* pInvocation)
          {
              g_object_unref(pInvocation);
              ++m_dropped;
          },
          {}}}};
};

TEST_F(ServerLoad, ClientsAreToldBrieflyAndCountedWhole)
{
    RawPeer many, one;
    std::vector<std::int32_t> types;
    for (std::int32_t type = 1000; type > 0; --type)
    {
        types.insert(types.end(), {type, type});
    }
    types.resize(1024);
    ASSERT_TRUE(Hello(many, EventList(types))); // 1000 to 489, each twice
    ASSERT_TRUE(Hello(one, EventList({7})));
    const auto clients = m_server.Clients();
    ASSERT_EQ(clients.size(), 2U);
    const auto& first = clients[clients[0].m_name == many.UniqueName() ? 0 : 1];
    EXPECT_EQ(first.m_types, (std::vector<int>{489, 490, 491, 492, 493, 494, 495, 496}));
    EXPECT_EQ(first.m_numberOfTypes, 512U);
    EXPECT_TRUE(m_server.IsRegistered(many.UniqueName(), 1000));
    EXPECT_FALSE(m_server.IsRegistered(many.UniqueName(), 488));
    EXPECT_FALSE(m_server.IsRegistered(":1.99999", 7));
    EXPECT_EQ(m_server.Load().m_types, 513U);
    EXPECT_EQ(m_server.Load().m_clientsByUser,
              (std::map<unsigned int, std::size_t>{{getuid(), 2}}));

    ASSERT_TRUE(Hello(many, {}));
    EXPECT_EQ(m_server.Load().m_types, 1U);
    one.Leave();
    EXPECT_TRUE(PumpUntil([&] { return m_server.Load().m_clients == 1; }));
    EXPECT_EQ(m_server.Load().m_types, 0U);
    EXPECT_EQ(m_server.Load().m_clientsByUser.at(getuid()), 1U);
}

TEST_F(ServerLoad, TimersHaveTheirTurnBetweenCallsThatTakeLong)
{
    std::atomic<int> handled{0};
    m_server.SetCallback(1,
                         [&](const auto&, auto&)
                         {
                             g_usleep(5000);
                             ++handled;
                             return true;
                         });
    RawPeer peer;
    std::vector<std::future<CallResult>> answers(60);
    for (auto& answer : answers)
    {
        answer = peer.StartCall(SERVICE_NAME, SERVICE_PATH, "Send", Request(1, false));
    }
    peer.Sync();
    int turns = 0;
    const guint timer = g_timeout_add(
        1, [](void* pTurns) { return ++*static_cast<int*>(pTurns); }, &turns);
    EXPECT_TRUE(PumpUntil([&] { return handled == 60; }));
    g_source_remove(timer);
    EXPECT_GT(turns, 10);
}

// One that is never answered stays on its sender's account for a while, and stops nobody.
TEST_F(ServerLoad, CallsThatAServiceDropsHoldUpNobody)
{
    m_server.SetCallback(1, Accept);
    RawPeer dropped, good;
    std::vector<std::future<CallResult>> answers(20);
    for (auto& answer : answers)
    {
        answer = std::async(std::launch::async,
                            [&] { return dropped.CallMethod("test.Load", "Drop", nullptr); });
    }
    EXPECT_TRUE(PumpUntil([&] { return m_dropped == 20; }));
    EXPECT_TRUE(Send(good));
    dropped.Leave(); // nothing else ends its calls
}

} // namespace
