// What a server tells of its load, and how it shares its main context.
#include <atomic>
#include <map>
#include <vector>

#include "ServerFixture.h"

using namespace qortest;
using ServerLoad = ServerTest;

TEST_F(ServerLoad, ClientsAreToldBrieflyAndCountedWhole)
{
    Start();
    std::vector<std::int32_t> types;
    for (std::int32_t type = 1000; type > 488; --type)
    {
        types.insert(types.end(), {type, type});
    }
    const Peers many = Clients(1, YES, types), one = Clients(1, YES, {7});
    const auto clients = m_server->Clients();
    ASSERT_EQ(clients.size(), 2U);
    const auto& first = clients[clients[0].m_name == many[0]->UniqueName() ? 0 : 1];
    EXPECT_EQ(first.m_types, (std::vector<int>{489, 490, 491, 492, 493, 494, 495, 496}));
    EXPECT_EQ(first.m_numberOfTypes, 512U);
    EXPECT_TRUE(m_server->IsRegistered(many[0]->UniqueName(), 1000));
    EXPECT_FALSE(m_server->IsRegistered(many[0]->UniqueName(), 488));
    EXPECT_FALSE(m_server->IsRegistered(":1.99999", 7));
    EXPECT_EQ(m_server->Load().m_types, 513U);
    EXPECT_EQ(m_server->Load().m_clientsByUser,
              (std::map<unsigned int, std::size_t>{{getuid(), 2}}));

    many[0]->PostHello(SERVICE_NAME, {});
    EXPECT_TRUE(PumpUntil([&] { return m_server->Load().m_types == 1; }));
    one[0]->Leave();
    EXPECT_TRUE(PumpUntil([&] { return m_server->Load().m_clients == 1; }));
    EXPECT_EQ(m_server->Load().m_types, 0U);
    EXPECT_EQ(m_server->Load().m_clientsByUser.at(getuid()), 1U);
}

TEST_F(ServerLoad, TimersHaveTheirTurnBetweenCallsThatTakeLong)
{
    std::atomic<int> handled{0};
    Start(
        [&](const auto&, auto&)
        {
            g_usleep(5000);
            ++handled;
            return true;
        });
    RawPeer peer;
    Post(peer, 60);
    int turns = 0;
    const guint timer = g_timeout_add(
        1, [](void* pTurns) { return ++*static_cast<int*>(pTurns); }, &turns);
    EXPECT_TRUE(PumpUntil([&] { return handled == 60; }));
    g_source_remove(timer);
    EXPECT_GT(turns, 10);
}
