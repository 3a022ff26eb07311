// Endpoints that go away while their handlers run on another thread.
//
// What these tests look for is seen by the sanitizers; without them they show that nothing hangs.
#include <atomic>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>

#include <gio/gio.h>

#include <qor/QORCallbacksProxy.h>
#include <qor/QORDbusClient.h>
#include <qor/QORDbusServer.h>

#include "BusTest.h"

namespace
{

using namespace qortest;

// Repeats a step on a thread of its own for as long as it lives.
class Repeat
{
public:
    template <class TStep>
    explicit Repeat(const TStep& step)
        : m_stop(false),
          m_thread(
              [this, step]
              {
                  while (!m_stop)
                  {
                      step();
                  }
              })
    {
    }
    ~Repeat()
    {
        m_stop = true;
        m_thread.join();
    }

    Repeat(const Repeat&) = delete;
    Repeat& operator=(const Repeat&) = delete;

private:
    std::atomic<bool> m_stop;
    std::thread m_thread;
};

// A deadlock ends the program with a message instead of waiting for the test driver's patience.
class Watchdog
{
public:
    explicit Watchdog(int seconds)
        : m_thread(
              [this, seconds]
              {
                  if (m_done.get_future().wait_for(std::chrono::seconds(seconds)) !=
                      std::future_status::ready)
                  {
                      fprintf(stderr, "The test hangs.\n");
                      std::abort();
                  }
              })
    {
    }
    ~Watchdog()
    {
        m_done.set_value();
        m_thread.join();
    }

    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    std::promise<void> m_done;
    std::thread m_thread;
};

// Keeps the process's connection, and with it its unique name, from one endpoint to the next.
class KeptConnection
{
public:
    KeptConnection() : m_pConnection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr))
    {
        g_dbus_connection_set_exit_on_close(m_pConnection, FALSE);
    }
    ~KeptConnection()
    {
        g_object_unref(m_pConnection);
    }

    KeptConnection(const KeptConnection&) = delete;
    KeptConnection& operator=(const KeptConnection&) = delete;

    std::string UniqueName() const
    {
        return g_dbus_connection_get_unique_name(m_pConnection);
    }

private:
    GDBusConnection* m_pConnection;
};

class LifetimeStress : public BusTest
{
protected:
    LifetimeStress() : m_watchdog(200) {}

    static constexpr int ROUNDS = 150;

    Watchdog m_watchdog;
};

TEST_F(LifetimeStress, ClientsComeAndGoWhileMessagesAndNameEventsAreDispatched)
{
    const KeptConnection connection;
    const std::string name = connection.UniqueName();
    std::atomic<int> handled(0);
    std::atomic<std::size_t> answered(0);
    {
        RawPeer service;
        RawPeer sender;
        const BackgroundPump pump;
        const Repeat messages(
            [&]
            {
                const CallResult result =
                    sender.Call(name, SERVICE_PATH, "Send", Request(2, false, {1}), 200);
                answered += result.ok ? 1U : 0U;
            });
        const Repeat names(
            [&]
            {
                service.OwnName(SERVICE_NAME);
                service.ReleaseName(SERVICE_NAME);
            });
        for (int i = 0; i < ROUNDS || (handled < 20 && i < 100 * ROUNDS); ++i)
        {
            auto pClient = std::make_unique<qor::TCDbusClient>(false);
            pClient->SetCallback(2,
                                 [&, p = std::make_shared<int>(i)](const Bytes&, Bytes& out)
                                 {
                                     ++handled;
                                     out.push_back(static_cast<unsigned char>(*p));
                                     return true;
                                 });
            Bytes response;
            pClient->SendMessage(1, {1, 2, 3}, response, i % 3 != 0);
            if (i % 2 == 0)
            {
                const int before = handled;
                WaitUntil([&] { return handled != before; }, 5);
            }
        }
    }
    EXPECT_GE(handled, 20);
    EXPECT_GE(answered, 1U);
}

TEST_F(LifetimeStress, ClientsComeAndGoWithTheirConnections)
{
    RawPeer service;
    ASSERT_TRUE(service.OwnName(SERVICE_NAME));
    const BackgroundPump pump;
    for (int i = 0; i < ROUNDS; ++i)
    {
        const boost::shared_ptr<qor::IDbusClient> client = qor::TCDbusClientProvider::Get(false);
        Bytes response;
        client->SetCallback(2, [](const Bytes&, Bytes&) { return true; });
        if (i % 4 == 0)
        {
            EXPECT_TRUE(client->SendMessage(1, {}, response, false));
        }
    }
}

TEST_F(LifetimeStress, ServersComeAndGoWhileClientsTalkToThem)
{
    const KeptConnection connection;
    const std::string name = connection.UniqueName();
    std::atomic<int> handled(0);
    std::size_t delivered = 0;
    {
        RawPeer sender;
        const BackgroundPump pump;
        const Repeat messages(
            [&] { sender.Call(name, SERVICE_PATH, "Send", Request(4, false, {1}), 200); });
        const Repeat hellos(
            [&]
            {
                RawPeer client;
                client.Call(name, SERVICE_PATH, "Hello", EventList({2, 4}), 200);
                client.Sync();
            });
        for (int i = 0; i < ROUNDS || (handled < 20 && i < 100 * ROUNDS); ++i)
        {
            auto pServer = std::make_unique<qor::TCDbusServer>(false);
            pServer->SetCallback(4,
                                 [&, p = std::make_shared<int>(i)](const Bytes&, Bytes& out)
                                 {
                                     ++handled;
                                     out.push_back(static_cast<unsigned char>(*p));
                                     return true;
                                 });
            if (i % 2 == 0)
            {
                WaitUntil([&] { return pServer->NumberOfClients() > 0; }, 10);
                delivered += pServer->SendMessage(2, {1}, WATCHDOG_MS).first;
            }
        }
    }
    EXPECT_GE(handled, 20);
    EXPECT_GE(delivered, 1U);
}

TEST_F(LifetimeStress, SetAndResetFromTwoThreadsWhileEventsArrive)
{
    RawPeer service;
    ASSERT_TRUE(service.OwnName(SERVICE_NAME));
    std::atomic<int> called(0);
    {
        const auto pProxy = boost::make_shared<qor::TCCallbacksProxy>();
        const boost::shared_ptr<qor::IDbusClient> endpoint = qor::TCDbusClientProvider::Get(false);
        const BackgroundPump pump;
        ASSERT_TRUE(service.WaitForCalls("Hello", 1));
        const std::string client = service.Calls("Hello")[0].sender;
        const Repeat updates(
            [&] { service.Call(client, SERVICE_PATH, "Send", Request(2, false), WATCHDOG_MS); });
        const Repeat requests(
            [&] { service.Call(client, SERVICE_PATH, "Send", Request(4, false), WATCHDOG_MS); });
        const auto hammer = [&]
        {
            for (int i = 0; i < 5 * ROUNDS || (called < 100 && i < 500 * ROUNDS); ++i)
            {
                // The functions own what they touch: one that ran after its reset would touch freed
                // memory.
                pProxy->SetPolicyUpdateCb([&called, p = std::make_shared<int>(1)]
                                          { called += *p; });
                pProxy->SetRequestProcessInfoCb(
                    [&called, p = std::make_shared<int>(1)]
                    {
                        called += *p;
                        return true;
                    });
                if (i % 8 == 0)
                {
                    // Every change says Hello. The answer comes after those: so they do not pile
                    // up.
                    Bytes response;
                    endpoint->SendMessage(1, {}, response, false);
                    const int before = called;
                    WaitUntil([&] { return called != before; }, 2);
                }
                pProxy->ResetPolicyUpdateCb();
                pProxy->ResetRequestProcessInfoCb();
            }
        };
        std::thread first(hammer);
        std::thread second(hammer);
        first.join();
        second.join();
    }
    EXPECT_GE(called, 100);
}

TEST_F(LifetimeStress, ProxiesComeAndGoWhileTheEndpointLivesOnAndEventsArrive)
{
    RawPeer service;
    ASSERT_TRUE(service.OwnName(SERVICE_NAME));
    std::atomic<int> called(0);
    {
        const boost::shared_ptr<qor::IDbusClient> endpoint = qor::TCDbusClientProvider::Get(false);
        const BackgroundPump pump;
        ASSERT_TRUE(service.WaitForCalls("Hello", 1));
        const std::string client = service.Calls("Hello")[0].sender;
        const Repeat events(
            [&] { service.Call(client, SERVICE_PATH, "Send", Request(2, false), WATCHDOG_MS); });
        for (int i = 0; i < ROUNDS || (called < 20 && i < 100 * ROUNDS); ++i)
        {
            auto pProxy = boost::make_shared<qor::TCCallbacksProxy>();
            EXPECT_TRUE(pProxy->SetPolicyUpdateCb([&called, p = std::make_shared<int>(1)]
                                                  { called += *p; }));
            if (i % 2 == 0)
            {
                const int before = called;
                WaitUntil([&] { return called != before; }, 5);
            }
        }
    }
    EXPECT_GE(called, 20);
}

TEST_F(LifetimeStress, DeliveriesHellosAndMessagesAtOnce)
{
    std::atomic<std::size_t> wrong(0);
    {
        qor::TCDbusServer server(false);
        server.SetCallback(4, [](const Bytes& in, Bytes& out) { return out = in, true; });
        const BackgroundPump pump;
        ASSERT_TRUE(WaitUntil([&] { return server.IsReady(); }));
        RawPeer client;
        ASSERT_TRUE(client.Call(SERVICE_NAME, SERVICE_PATH, "Hello", EventList({2})).ok);
        ASSERT_TRUE(WaitUntil([&] { return server.NumberOfClients() == 1; }));
        const Repeat hellos(
            [&] { client.Call(SERVICE_NAME, SERVICE_PATH, "Hello", EventList({2}), WATCHDOG_MS); });
        const Repeat messages(
            [&]
            {
                RawPeer sender;
                const CallResult result = sender.Call(SERVICE_NAME, SERVICE_PATH, "Send",
                                                      Request(4, false, {1, 2}), WATCHDOG_MS);
                wrong += result.bytes == Bytes{1, 1, 2} ? 0U : 1U;
            });
        const auto deliver = [&]
        {
            for (int i = 0; i < ROUNDS; ++i)
            {
                const auto counts = server.SendMessage(2, {1, 2, 3}, WATCHDOG_MS);
                wrong += counts.first == 1 && counts.second == 0 ? 0U : 1U;
            }
        };
        std::thread first(deliver);
        std::thread second(deliver);
        first.join();
        second.join();
    }
    EXPECT_EQ(wrong, 0U);
}

} // namespace
