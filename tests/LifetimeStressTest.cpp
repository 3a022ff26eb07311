// Endpoints that go away while their handlers run on another thread.
//
// What these tests look for is seen by the sanitizers; without them they show that nothing hangs.
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include <boost/bind/bind.hpp>
#include <boost/make_shared.hpp>

#include <qor/QORCallbacksProxy.h>
#include <qor/QORDbusClient.h>
#include <qor/QORDbusServer.h>

#include "BusTest.h"

namespace
{

using namespace qortest;

class LifetimeStress : public BusTest
{
protected:
    static constexpr int ROUNDS = 100;

    // Keeps the connection, and with it its unique name, from one endpoint to the next.
    LifetimeStress() : m_connection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr))
    {
        g_dbus_connection_set_exit_on_close(m_connection.get(), FALSE);
    }

    ~LifetimeStress() override
    {
        EXPECT_GE(m_called, 20);
    }

    // Sends to this process, as long as the result lives.
    std::unique_ptr<Repeat> Sending(const char* method, const Bytes& bytes)
    {
        const std::string name = g_dbus_connection_get_unique_name(m_connection.get());
        return std::make_unique<Repeat>([=]
                                        { m_peer.Call(name, SERVICE_PATH, method, bytes, 200); });
    }

    // A function that owns what it touches: run too late, it touches freed memory.
    std::function<bool()> Function()
    {
        return [this, p = std::make_shared<int>(1)] { return (m_called += *p) > 0; };
    }

    // Runs the rounds, and more until enough functions have been called.
    template <class TRound>
    void Rounds(const TRound& round)
    {
        for (int i = 0; i < ROUNDS || (m_called < 20 && i < 100 * ROUNDS); ++i)
        {
            round(i);
        }
    }

    void WaitForACall(bool isWanted)
    {
        WaitUntil([&, before = m_called.load()] { return !isWanted || m_called != before; }, 5);
    }

    qor::TGlibPtr<GDBusConnection> m_connection;
    RawPeer m_peer;
    std::atomic<int> m_called{0};
};

TEST_F(LifetimeStress, ClientsComeAndGoWhileMessagesAndNameEventsAreDispatched)
{
    RawPeer service;
    const BackgroundPump pump;
    const auto messages = Sending("Send", Request(2, false, {1}));
    const Repeat names(
        [&]
        {
            service.OwnName(SERVICE_NAME);
            service.ReleaseName(SERVICE_NAME);
        });
    Rounds(
        [&](int i)
        {
            qor::TCDbusClient client(false);
            client.SetCallback(2, boost::bind<bool>(Function()));
            Bytes response;
            client.SendMessage(1, {1, 2, 3}, response, i % 3 != 0);
            client.CallAsync(
                1, {}, 50, {}, [told = Function()](const auto&) { told(); }, nullptr);
            WaitForACall(i % 2 == 0);
        });
}

TEST_F(LifetimeStress, ServersComeAndGoWhileClientsTalkToThem)
{
    std::size_t delivered = 0;
    const BackgroundPump pump;
    const auto messages = Sending("Send", Request(4, false, {1}));
    const auto hellos = Sending("Hello", EventList({2, 4}));
    Rounds(
        [&](int i)
        {
            qor::TCDbusServer server(false);
            server.SetCallback(4, boost::bind<bool>(Function()));
            if (i % 2 == 0)
            {
                // Once for as long as it takes, so that an event is delivered on any machine.
                WaitUntil([&] { return server.NumberOfClients() > 0; }, i == 0 ? WATCHDOG_MS : 10);
                delivered += server.SendMessage(2, {1}, WATCHDOG_MS).first;
            }
        });
    EXPECT_GE(delivered, 1U);
}

TEST_F(LifetimeStress, ProxiesComeAndGoAndTwoThreadsSetAndResetWhileEventsArrive)
{
    const auto endpoint = qor::TCDbusClientProvider::Get(false);
    const BackgroundPump pump;
    const auto updates = Sending("Send", Request(2, false));
    const auto requests = Sending("Send", Request(4, false));
    Rounds(
        [&](int i)
        {
            const auto proxy = boost::make_shared<qor::TCCallbacksProxy>();
            const auto hammer = [&]
            {
                for (int j = 0; j < 5; ++j)
                {
                    proxy->SetPolicyUpdateCb(Function());
                    proxy->SetRequestProcessInfoCb(Function());
                    WaitForACall(j == 0);
                    proxy->ResetPolicyUpdateCb();
                    proxy->ResetRequestProcessInfoCb();
                }
            };
            std::thread other(hammer);
            hammer();
            other.join();
            EXPECT_TRUE(proxy->SetPolicyUpdateCb(Function())); // the proxy goes with it
            WaitForACall(i % 2 == 0);
        });
}

} // namespace
