// How the server's events reach its clients, and what it counts.
#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gio/gio.h>

#include <qor/QORDbusServer.h>

#include "BusTest.h"

namespace
{

using namespace qortest;
using qor::TCDbusServer;
using Counts = std::pair<std::size_t, std::size_t>;
using Peers = std::vector<std::unique_ptr<RawPeer>>;

const Answer YES{Answer::REPLY, {1}, ""};
const Answer NO{Answer::REPLY, {0}, ""};

std::string DeliveryError(const RawPeer& client, int code)
{
    return "Sending message from " + client.UniqueName() + " error, errno " + std::to_string(code);
}

class EventDelivery : public BusTest
{
protected:
    EventDelivery()
    {
        EXPECT_TRUE(PumpUntil([&] { return m_server.IsReady(); }));
        LogCapture::Clear();
    }

    void TearDown() override
    {
        m_pServer.reset();
        BusTest::TearDown();
    }

    Peers Clients(std::size_t count, const std::vector<std::int32_t>& types)
    {
        Peers clients;
        for (std::size_t i = 0; i < count; ++i)
        {
            clients.push_back(std::make_unique<RawPeer>());
            clients.back()->PostHello(SERVICE_NAME, types);
        }
        const std::size_t expected = m_known += count;
        EXPECT_TRUE(PumpUntil([&] { return m_server.NumberOfClients() == expected; }));
        LogCapture::Clear();
        return clients;
    }

    std::size_t m_known = 0;
    std::unique_ptr<TCDbusServer> m_pServer = std::make_unique<TCDbusServer>(false);
    TCDbusServer& m_server = *m_pServer;
};

TEST_F(EventDelivery, WithoutClientsNothingIsDelivered)
{
    EXPECT_EQ(m_server.SendMessage(2, {}, 1000), Counts(0, 0));
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Connection is ready 1, number of clients 0"), 1U);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Callback result"), 0U);
}

TEST_F(EventDelivery, NobodyRegisteredForTheTypeIsNobodyCounted)
{
    const Peers clients = Clients(3, {4});
    EXPECT_EQ(m_server.SendMessage(2, {}, 1000), Counts(0, 0));
    for (const auto& pClient : clients)
    {
        EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Client " + pClient->UniqueName() +
                                                   " is not registered for event 2"),
                  1U);
        EXPECT_EQ(pClient->Count(""), 0U);
    }
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Callback result: success 0, fails 0"), 1U);
}

TEST_F(EventDelivery, EventIsASynchronousRequestAtTheClientsObject)
{
    const Peers clients = Clients(1, {-300});
    const Bytes payload(1 << 20, 0x33);
    EXPECT_EQ(m_server.SendMessage(-300, payload, WATCHDOG_MS), Counts(1, 0));
    EXPECT_EQ(m_server.SendMessage(-300, {}, -1), Counts(1, 0));
    const std::vector<IncomingCall> calls = clients[0]->Calls();
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_TRUE(calls[0].bytes == Request(-300, false, payload));
    EXPECT_EQ(calls[1].bytes, Request(-300, false));
    EXPECT_EQ(calls[1].method, "Send");
    EXPECT_EQ(calls[1].path, SERVICE_PATH);
    EXPECT_EQ(calls[1].interfaceName, INTERFACE_NAME);
    EXPECT_EQ(calls[1].sender, m_server.GetUniqueName());
}

TEST_F(EventDelivery, OnlyATrueResultIsASuccess)
{
    const Peers clients = Clients(8, {2});
    const std::vector<Answer> answers{
        YES,
        {Answer::REPLY, {1, 5, 5}, ""},
        NO,
        {Answer::REPLY, {}, ""},
        {Answer::WRONG_TYPE, {}, ""},
        {Answer::NO_VALUE, {}, ""},
        {Answer::ERROR, {}, "org.freedesktop.DBus.Error.AccessDenied"},
        {Answer::LEAVE, {}, ""},
    };
    for (std::size_t i = 0; i < answers.size(); ++i)
    {
        clients[i]->AnswerWith(answers[i]);
    }
    EXPECT_EQ(m_server.SendMessage(2, {}, WATCHDOG_MS), Counts(2, 6));
    for (std::size_t i = 0; i < clients.size(); ++i)
    {
        EXPECT_EQ(LogCapture::Count(LOG_DEBUG,
                                    "Sending message to " + clients[i]->UniqueName() + " failed"),
                  i >= 2 && i <= 5 ? 1U : 0U)
            << i;
    }
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Error for "), 3U); // the three that are no envelope
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, DeliveryError(*clients[6], G_DBUS_ERROR_ACCESS_DENIED)),
              1U);
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, DeliveryError(*clients[7], G_DBUS_ERROR_NO_REPLY)), 1U);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Callback result: success 2, fails 6"), 1U);

    // The one that left is still registered, as far as the server has seen, and is counted.
    EXPECT_EQ(m_server.SendMessage(2, {}, WATCHDOG_MS), Counts(2, 6));
    EXPECT_EQ(
        LogCapture::Count(LOG_ERROR, DeliveryError(*clients[7], G_DBUS_ERROR_SERVICE_UNKNOWN)), 1U);
}

TEST_F(EventDelivery, ClientThatNeverAnswersFailsAfterTheTimeout)
{
    const Peers clients = Clients(3, {2});
    clients[1]->AnswerWith({Answer::NEVER, {}, ""});
    EXPECT_EQ(m_server.SendMessage(2, {}, 300), Counts(2, 1));
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, DeliveryError(*clients[1], G_IO_ERROR_TIMED_OUT)), 1U);
}

TEST_F(EventDelivery, OneSilentClientAmongTwentyDelaysNoOther)
{
    const Peers clients = Clients(20, {2});
    // Unique names are ordered as text: whichever the server calls first is the silent one.
    const auto first = std::min_element(clients.begin(), clients.end(),
                                        [](const auto& pA, const auto& pB)
                                        { return pA->UniqueName() < pB->UniqueName(); });
    (*first)->AnswerWith({Answer::HOLD, {}, ""});
    std::future<Counts> counts =
        std::async(std::launch::async, [&] { return m_server.SendMessage(2, {}, WATCHDOG_MS); });
    for (const auto& pClient : clients)
    {
        EXPECT_TRUE(pClient->WaitForCalls("Send", 1));
    }
    // The delivery still waits, and meanwhile the server serves others.
    EXPECT_NE(counts.wait_for(std::chrono::seconds(0)), std::future_status::ready);
    m_server.SetCallback(4, [](const Bytes&, Bytes&) { return true; });
    RawPeer other;
    EXPECT_EQ(Await(other.StartCall(SERVICE_NAME, SERVICE_PATH, "Send", Request(4, false))).bytes,
              (Bytes{1}));
    (*first)->AnswerHeld(YES);
    EXPECT_EQ(counts.get(), Counts(20, 0));
}

TEST_F(EventDelivery, ClientThatWaitsForItsOwnReplyIsSkipped)
{
    const Peers clients = Clients(3, {2});
    RawPeer& asking = *clients[1];
    Counts counts;
    m_server.SetCallback(4,
                         [&](const Bytes&, Bytes&)
                         {
                             counts = m_server.SendMessage(2, {}, WATCHDOG_MS);
                             return true;
                         });

    EXPECT_EQ(Await(asking.StartCall(SERVICE_NAME, SERVICE_PATH, "Send", Request(4, false))).bytes,
              (Bytes{1}));
    EXPECT_EQ(counts, Counts(2, 1));
    EXPECT_EQ(asking.Count("Send"), 0U);
    EXPECT_EQ(clients[0]->Count("Send") + clients[2]->Count("Send"), 2U);
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Unable to send message to " + asking.UniqueName() +
                                               ", type 2, waiting for sync replay"),
              1U);

    EXPECT_EQ(Await(asking.StartCall(SERVICE_NAME, SERVICE_PATH, "Send", Request(4, true))).bytes,
              (Bytes{1}));
    EXPECT_EQ(counts, Counts(3, 0)); // asynchronous: it does not wait

    EXPECT_EQ(m_server.SendMessage(2, {}, WATCHDOG_MS), Counts(3, 0));
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, ""), 1U);
}

TEST_F(EventDelivery, EventOverTheLimitIsRefusedUnsentAndTheNextOneArrives)
{
    const Peers clients = Clients(2, {2});
    EXPECT_EQ(m_server.SendMessage(2, Bytes(qor::TCDbus::MaxPayload() + 1), WATCHDOG_MS),
              Counts(0, 2));
    EXPECT_EQ(
        LogCapture::Count(LOG_ERROR, DeliveryError(*clients[0], G_IO_ERROR_MESSAGE_TOO_LARGE)), 1U);
    EXPECT_EQ(
        LogCapture::Count(LOG_ERROR, DeliveryError(*clients[1], G_IO_ERROR_MESSAGE_TOO_LARGE)), 1U);
    EXPECT_EQ(m_server.SendMessage(2, {7}, WATCHDOG_MS), Counts(2, 0));
    EXPECT_EQ(clients[0]->Count("Send"), 1U);
}

TEST_F(EventDelivery, DeliveriesFromSeveralThreadsKeepTheirCounts)
{
    constexpr std::size_t THREADS = 4;
    constexpr std::size_t EVENTS = 50;
    const Peers all = Clients(5, {1, 2});
    const Peers odd = Clients(2, {1});
    odd[0]->AnswerWith(NO);
    std::atomic<std::size_t> wrong(0);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < THREADS; ++t)
    {
        threads.emplace_back(
            [&, t]
            {
                const int type = t % 2 == 0 ? 2 : 1;
                const Counts expected = t % 2 == 0 ? Counts(5, 0) : Counts(6, 1);
                for (std::size_t i = 0; i < EVENTS; ++i)
                {
                    wrong += m_server.SendMessage(type, {}, WATCHDOG_MS) == expected ? 0 : 1;
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(all[0]->Count("Send"), THREADS * EVENTS);
    EXPECT_EQ(odd[0]->Count("Send"), THREADS / 2 * EVENTS);
}

TEST_F(EventDelivery, TwoHundredClientsAreCalled)
{
    const Peers clients = Clients(200, {2});
    for (std::size_t i = 0; i < clients.size(); i += 4)
    {
        clients[i]->AnswerWith(NO);
    }
    EXPECT_EQ(m_server.SendMessage(2, {1, 2, 3}, WATCHDOG_MS), Counts(150, 50));
    for (const auto& pClient : clients)
    {
        EXPECT_EQ(pClient->Count("Send"), 1U);
    }
}

TEST_F(EventDelivery, ClientsThatComeAndGoLoseNoCount)
{
    constexpr std::size_t STAYING = 5;
    const Peers staying = Clients(STAYING, {2});
    std::atomic<bool> stop(false);
    std::thread churn(
        [&]
        {
            while (!stop)
            {
                Peers passing;
                for (int i = 0; i < 3; ++i)
                {
                    passing.push_back(std::make_unique<RawPeer>());
                    passing.back()->AnswerWith({Answer::LEAVE, {}, ""});
                    passing.back()->PostHello(SERVICE_NAME, {2});
                    passing.back()->Sync();
                }
            }
        });
    std::future<std::size_t> wrong =
        std::async(std::launch::async,
                   [&]
                   {
                       std::size_t count = 0;
                       for (int i = 0; i < 200; ++i)
                       {
                           count +=
                               m_server.SendMessage(2, {}, WATCHDOG_MS).first == STAYING ? 0 : 1;
                       }
                       return count;
                   });
    EXPECT_TRUE(PumpUntil(
        [&] { return wrong.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
    stop = true;
    churn.join();
    EXPECT_EQ(wrong.get(), 0U);
    EXPECT_EQ(staying[0]->Count("Send"), 200U);
    EXPECT_TRUE(PumpUntil([&] { return m_server.NumberOfClients() == STAYING; }));
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "QORDbusServer.cpp: m_ClientNameVanished"), 0U);
}

TEST_F(EventDelivery, LosingTheBusEndsADelivery)
{
    const Peers clients = Clients(3, {2});
    clients[0]->AnswerWith({Answer::HOLD, {}, ""});
    std::future<Counts> counts =
        std::async(std::launch::async, [&] { return m_server.SendMessage(2, {}, -1); });
    ASSERT_TRUE(clients[0]->WaitForCalls("Send", 1));
    ASSERT_TRUE(clients[1]->WaitForCalls("Send", 1));
    ASSERT_TRUE(clients[2]->WaitForCalls("Send", 1));
    m_bus.Kill();
    const Counts result = counts.get();
    EXPECT_EQ(result.first + result.second, 3U);
    EXPECT_GE(result.second, 1U);
}

} // namespace
