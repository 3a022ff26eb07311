// A server endpoint on a bus with stock limits, and raw peers for its clients.
#ifndef QORTEST_SERVERFIXTURE_H
#define QORTEST_SERVERFIXTURE_H

#include <sys/syscall.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <qor/QORDbusServer.h>

#include "BusTest.h"

namespace qortest
{

using Counts = std::pair<std::size_t, std::size_t>;
using Peers = std::vector<std::unique_ptr<RawPeer>>;

inline const std::string REFUSED = "org.freedesktop.DBus.Error.LimitsExceeded";

// A thread has a user of its own where the kernel is asked directly.
inline void AsUser(unsigned int user, const std::function<void()>& work)
{
    std::thread(
        [&]
        {
            syscall(SYS_setresuid, -1, user, -1);
            work();
        })
        .join();
}

inline double Seconds(const std::function<void()>& work)
{
    const auto start = Clock::now();
    work();
    return SecondsSince(start);
}

inline std::size_t CallsTo(const Peers& peers)
{
    return std::accumulate(peers.begin(), peers.end(), std::size_t(0),
                           [](std::size_t sum, auto& peer) { return sum + peer->Count("Send"); });
}

/// A context that is iterated by the test, where it waits, or with Serve by a thread.
class ServerTest : public BusTest
{
protected:
    void Start(const qor::TMessageCallback& callback = &Accept)
    {
        m_server = std::make_unique<qor::TCDbusServer>(false);
        m_server->SetCallback(4, callback);
        ASSERT_TRUE(PumpUntil([&] { return m_server->IsReady(); }));
    }

    void Serve(const qor::TMessageCallback& callback = &Accept)
    {
        Start(callback);
        m_pump = std::make_unique<BackgroundPump>();
    }

    Peers Clients(std::size_t count, const Answer& answer = YES,
                  const std::vector<std::int32_t>& types = {2}, unsigned int user = geteuid())
    {
        Peers clients;
        const auto connect = [&] { clients.push_back(std::make_unique<RawPeer>()); };
        const std::size_t before = m_server->NumberOfClients();
        for (std::size_t i = 0; i < count; ++i)
        {
            AsUser(user, connect);
            clients.back()->AnswerWith(answer);
            clients.back()->PostHello(SERVICE_NAME, types);
        }
        EXPECT_TRUE(HasClients(before + count));
        return clients;
    }

    bool HasClients(std::size_t count)
    {
        return WaitUntil([&] { return m_server->NumberOfClients() == count; }, WATCHDOG_MS,
                         m_pump ? &Pause : &Pump);
    }

    Counts Deliver(int type = 2, int timeoutMs = WATCHDOG_MS, const Bytes& payload = {})
    {
        return m_server->SendMessage(type, payload, timeoutMs);
    }

    static CallResult Send(RawPeer& peer, const Bytes& payload = {}, GUnixFDList* pFiles = nullptr)
    {
        return peer.Call(SERVICE_NAME, SERVICE_PATH, "Send", Request(4, false, payload),
                         WATCHDOG_MS, pFiles);
    }

    static void Post(RawPeer& peer, std::size_t count, std::size_t size = 0)
    {
        for (; count != 0; --count)
        {
            peer.Post(SERVICE_NAME, SERVICE_PATH, "Send", Request(4, true, Bytes(size)));
        }
        peer.Sync();
    }

    std::unique_ptr<qor::TCDbusServer> m_server;
    std::unique_ptr<BackgroundPump> m_pump; // goes first
};

} // namespace qortest

#endif
