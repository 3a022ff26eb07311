// Events that end with names: what becomes of one at each client, and where that is told.
#include <atomic>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ServerFixture.h"

namespace
{

using namespace qortest;
using qor::EDelivery;
using Entries = std::vector<qor::TSDelivery>;
using Outcome = std::pair<EDelivery, int>;
using Outcomes = std::map<std::string, Outcome>;

const Outcome DELIVERED{EDelivery::DELIVERED, 0}, LEFT{EDelivery::LEFT, 0};
const Outcome REFUSING{EDelivery::ANSWERED_FALSE, 0}, SUSPENDED{EDelivery::SUSPENDED, 0};
const Outcome TIMED_OUT{EDelivery::TIMED_OUT, G_IO_ERROR_TIMED_OUT};

// The tests' own thread iterates the context, where they want it.
class Event : public ServerTest
{
protected:
    qor::IDbusService::TEventDone Teller()
    {
        return [this](const Entries& entries)
        {
            EXPECT_EQ(std::this_thread::get_id(), m_main);
            EXPECT_TRUE(m_server->CurrentPeer().m_name.empty());
            Outcomes outcomes;
            std::string last;
            for (const qor::TSDelivery& entry : entries)
            {
                EXPECT_LT(std::exchange(last, entry.m_name), entry.m_name);
                outcomes[entry.m_name] = {entry.m_outcome, entry.m_code};
            }
            m_told.push_back(outcomes);
        };
    }

    // What the last of so many events has come to. Nothing is told before the context is iterated.
    Outcomes Next(std::size_t count = 1)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        count += m_told.size();
        PumpUntil([&] { return m_told.size() >= count; });
        PumpUntil([] { return false; }, 20);
        EXPECT_EQ(m_told.size(), count);
        return m_told.empty() ? Outcomes() : m_told.back();
    }

    Outcomes Send(int type, int timeoutMs = WATCHDOG_MS, const Bytes& payload = {})
    {
        m_server->SendEvent(type, payload, timeoutMs, Teller());
        return Next();
    }

    Outcomes SendTo(const std::vector<std::string>& names)
    {
        m_server->SendEventTo(names, 2, {}, WATCHDOG_MS, Teller());
        return Next();
    }

    const std::thread::id m_main = std::this_thread::get_id();
    std::vector<Outcomes> m_told;
};

TEST_F(Event, GoesOutAlsoAfterOneThatAThreadHasWaitedFor)
{
    Start();
    const Peers clients = Clients(1, YES);
    EXPECT_EQ(Deliver(), Counts(1, 0));
    PumpUntil([] { return false; }, 300); // until the loop thread no longer wakes up by itself
    EXPECT_EQ(Send(2), (Outcomes{{clients[0]->UniqueName(), DELIVERED}}));
}

TEST_F(Event, EachClientHasItsOutcome)
{
    Start();
    EXPECT_EQ(Send(2), Outcomes());
    EXPECT_EQ(SendTo({":9.9"}), (Outcomes{{":9.9", LEFT}}));
    const std::pair<Answer, Outcome> cases[] = {
        {YES, DELIVERED},
        {LEAVE, {EDelivery::LEFT, G_DBUS_ERROR_NO_REPLY}},
        {NEVER, TIMED_OUT},
        {NO, REFUSING},
        {NO_VALUE, REFUSING},
        {DbusError("LimitsExceeded"), {EDelivery::FAILED, G_DBUS_ERROR_LIMITS_EXCEEDED}},
        {DbusError("ServiceUnknown"), {EDelivery::FAILED, G_DBUS_ERROR_SERVICE_UNKNOWN}},
        {{Answer::ERROR, Bytes(100000, 'x'), "a." + std::string(250, 'b')},
         {EDelivery::FAILED, G_IO_ERROR_DBUS_ERROR}},
    };
    const Peers other = Clients(1, YES, {4}), clients = Clients(std::size(cases), YES);
    Outcomes expected;
    for (std::size_t i = 0; i < clients.size(); ++i)
    {
        clients[i]->AnswerWith(cases[i].first);
        expected[clients[i]->UniqueName()] = cases[i].second;
    }
    EXPECT_EQ(Send(2, 2000), expected);
    ASSERT_TRUE(HasClients(clients.size()));
    const std::string one = clients[0]->UniqueName(), gone = clients[1]->UniqueName();
    expected.erase(gone);
    expected[clients[2]->UniqueName()] = SUSPENDED;
    EXPECT_EQ(Send(2), expected);
    const auto expectFailure = [&](int code, const Outcomes& outcomes)
    {
        for (auto& entry : expected)
        {
            entry.second = {EDelivery::FAILED, code};
        }
        EXPECT_EQ(outcomes, expected);
    };
    expectFailure(G_IO_ERROR_INVALID_ARGUMENT, Send(2, -2));
    expectFailure(G_IO_ERROR_MESSAGE_TOO_LARGE,
                  Send(2, 1000, Bytes(qor::TCDbus::MaxPayload() + 1)));
    EXPECT_EQ(SendTo({one, gone, other[0]->UniqueName(), one}),
              (Outcomes{{one, DELIVERED}, {gone, LEFT}}));
    EXPECT_EQ(clients[3]->Count("Send"), 2U);
    m_server->SendEvent(2, {}, WATCHDOG_MS, {});
    EXPECT_TRUE(clients[3]->WaitForCalls("Send", 3) && clients[0]->WaitForCalls("Send", 4));
    PumpUntil([] { return false; }, 20);
    EXPECT_EQ(clients[0]->Count("Send"), 4U);
    EXPECT_EQ(other[0]->Count("Send"), 0U);
}

TEST_F(Event, WithoutAnAnswerItGoesOutOnceUntilASignOfLife)
{
    Start();
    const Peers client = Clients(1, HOLD, {1, 2, 3, 4, 5});
    const std::string name = client[0]->UniqueName();
    m_server->SendEvent(1, {}, G_MAXINT, Teller());
    ASSERT_TRUE(client[0]->WaitForCalls("Send", 1));
    m_server->CancelMessages();
    EXPECT_EQ(Next(), (Outcomes{{name, {EDelivery::CANCELLED, 0}}}));
    EXPECT_EQ(Send(1), (Outcomes{{name, SUSPENDED}}));
    std::vector<std::string> suspended;
    EXPECT_EQ(m_server->SuspendedClients(1, suspended), 1U);
    EXPECT_EQ(suspended, std::vector<std::string>{name});
    for (std::size_t calls = 6; calls <= 11; calls += 5)
    {
        client[0]->AnswerHeld(YES);
        ASSERT_TRUE(WaitUntil([&] { return !m_server->Clients()[0].m_isSuspended; }));
        for (const int type : {1, 2, 3, 4})
        {
            m_server->SendEvent(type, {}, 100, Teller());
        }
        EXPECT_EQ(Next(4), (Outcomes{{name, TIMED_OUT}}));
        EXPECT_EQ(Send(5), (Outcomes{{name, {EDelivery::UNCONFIRMED, 0}}}));
        EXPECT_EQ(Send(5), (Outcomes{{name, SUSPENDED}}));
        EXPECT_TRUE(client[0]->WaitForCalls("Send", calls));
    }
}

TEST_F(Event, LateAnswerIsToldAndTheClientCanBeSentWhatItHasMissed)
{
    Start();
    std::vector<std::pair<std::string, int>> resumed;
    m_server->SetResumeCallback(
        [&](const std::string& client, int type)
        {
            EXPECT_EQ(std::this_thread::get_id(), m_main);
            resumed.emplace_back(client, type);
            m_server->SendEventTo({client}, type, {}, WATCHDOG_MS, Teller());
        });
    const Peers client = Clients(1, HOLD, {2, 3});
    const std::string name = client[0]->UniqueName();
    const Outcomes late{{name, TIMED_OUT}}, heard{{name, DELIVERED}};
    const auto answerAll = [&]
    {
        client[0]->AnswerWith(YES);
        client[0]->AnswerHeld(YES);
        PumpUntil([] { return false; }, 100);
    };
    EXPECT_EQ(Send(3, 100), late);
    EXPECT_EQ(Send(2, 100), late);
    EXPECT_EQ(Send(2), (Outcomes{{name, SUSPENDED}}));
    EXPECT_EQ(resumed.size(), 0U);
    answerAll();
    using Resumed = std::vector<std::pair<std::string, int>>;
    EXPECT_TRUE(PumpUntil([&] { return m_told.size() >= 5; }));
    EXPECT_EQ(resumed, (Resumed{{name, 3}, {name, 2}}));
    EXPECT_EQ(m_told.size(), 5U);
    EXPECT_EQ(m_told.back(), heard);
    EXPECT_EQ(client[0]->Count("Send"), 4U);

    // Not of an answer in time, of a Hello, nor of one that leaves.
    EXPECT_EQ(Send(2), heard);
    client[0]->AnswerWith(HOLD);
    EXPECT_EQ(Send(2, 100), late);
    client[0]->PostHello(SERVICE_NAME, {2, 3});
    ASSERT_TRUE(PumpUntil([&] { return !m_server->Clients()[0].m_isSuspended; }));
    answerAll();
    Peers leaving = Clients(1, HOLD);
    EXPECT_EQ(Send(2, 100)[leaving[0]->UniqueName()], TIMED_OUT);
    leaving.clear();
    ASSERT_TRUE(HasClients(1));
    PumpUntil([] { return false; }, 100);
    EXPECT_EQ(resumed.size(), 2U);
    m_server->SetResumeCallback({});
    client[0]->AnswerWith(HOLD);
    EXPECT_EQ(Send(2, 100), late);
    answerAll();
    EXPECT_EQ(resumed.size(), 2U);
}

TEST_F(Event, EndIsToldBetweenCallbacksAndNotInsideOne)
{
    int depth = 0;
    const auto inside = [&]
    {
        EXPECT_EQ(++depth, 1);
        const std::size_t before = m_told.size();
        m_server->SendEvent(2, {}, WATCHDOG_MS, Teller());
        PumpUntil([] { return false; }, 300); // as a dialog does
        EXPECT_EQ(m_told.size(), before);
        --depth;
        return true;
    };
    Start([&](const auto&, auto&) { return inside(); });
    const Peers clients = Clients(2, YES);
    const std::string asking = clients[0]->UniqueName(), other = clients[1]->UniqueName();
    auto reply = clients[0]->StartCall(SERVICE_NAME, SERVICE_PATH, "Send", Request(4, false));
    EXPECT_EQ(Next(), (Outcomes{{asking, {EDelivery::WAITING_FOR_REPLY, 0}}, {other, DELIVERED}}));
    EXPECT_TRUE(Await(std::move(reply)).ok);
    for (int i = 0; i < 2; ++i)
    {
        m_server->SendEvent(2, {}, WATCHDOG_MS, [&](const Entries&) { inside(); });
    }
    EXPECT_EQ(Next(2), (Outcomes{{asking, DELIVERED}, {other, DELIVERED}}));
}

TEST_F(Event, SlowClientsAndManyNewOnesHoldUpNobodyElseWhoeverSends)
{
    Start();
    const std::vector<std::int32_t> types{1, 2, 3, 4, 5};
    const Peers slow = Clients(1, HOLD, types), good = Clients(1, YES, types);
    {
        const Repeat flood(
            []
            {
                RawPeer peer;
                peer.PostHello(SERVICE_NAME, {2});
                peer.PostHello(SERVICE_NAME, {2, 3});
                peer.Sync();
            });
        const auto send = [this]
        {
            for (int event = 0; event < 50; ++event)
            {
                m_server->SendEvent(1 + event % 5, {}, G_MAXINT, Teller());
            }
        };
        auto first = std::async(std::launch::async, send);
        std::async(std::launch::async, send).get();
        first.get();
        EXPECT_TRUE(PumpUntil([&] { return good[0]->Count("Send") == 100; }));
    }
    EXPECT_TRUE(HasClients(2));
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "QORDbusServerClients.cpp file in line "), 0U);
    EXPECT_EQ(m_told.size(), 0U);
    EXPECT_EQ(slow[0]->Count("Send"), 4U); // its share, whatever the types
    slow[0]->AnswerWith(YES);
    slow[0]->AnswerHeld(YES);
    Next(100);
    for (Outcomes& outcomes : m_told)
    {
        EXPECT_EQ(outcomes[slow[0]->UniqueName()], DELIVERED);
        EXPECT_EQ(outcomes[good[0]->UniqueName()], DELIVERED);
    }
}

// What a function has in it may be the service's own, and is destroyed where that lives.
TEST_F(Event, FunctionsGoInTheMainContext)
{
    Start();
    const Peers clients = Clients(1, NEVER);
    std::atomic<int> left{2000}, elsewhere{0};
    for (int i = 0; i < 2000; ++i)
    {
        const auto go = [&](void*)
        {
            elsewhere += std::this_thread::get_id() == m_main ? 0 : 1;
            --left;
        };
        const std::shared_ptr<void> held(nullptr, go);
        m_server->SendEvent(2, {}, 0, [held](const Entries&) {});
        g_main_context_iteration(nullptr, FALSE); // while the loop thread is at work
    }
    EXPECT_TRUE(PumpUntil([&] { return left == 0; }));
    EXPECT_EQ(elsewhere, 0);
    EXPECT_TRUE(clients[0]->WaitForCalls("Send", 1)); // though there was no time for an answer
}

TEST_F(Event, DepartureEndsACallAlsoWhereTheBusDoesNotAnswerIt)
{
    // Before the library's own filter on the connection that it shares with its host.
    const auto drop = [](GDBusConnection*, GDBusMessage* pMessage, gboolean isIncoming, gpointer)
    {
        const gchar* const name = isIncoming ? g_dbus_message_get_error_name(pMessage) : nullptr;
        const bool isNoReply = name != nullptr && std::string(name).find("NoReply") < 99;
        ObjectPtr<GDBusMessage> dropped(isNoReply ? pMessage : nullptr);
        return isNoReply ? nullptr : pMessage;
    };
    const ObjectPtr<GDBusConnection> shared(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    const guint filter = g_dbus_connection_add_filter(shared.get(), drop, nullptr, nullptr);
    Serve();
    const Peers silent = Clients(1, NEVER);
    auto ended = std::async(std::launch::async, [&] { return Deliver(2, G_MAXINT); });
    ASSERT_TRUE(silent[0]->WaitForCalls("Send", 1));
    silent[0]->Leave();
    EXPECT_EQ(ended.get(), Counts(0, 1));
    g_dbus_connection_remove_filter(shared.get(), filter);
}

TEST_F(Event, EventEndsWhenTheBusDiesBeforeItHasToldWhoTheClientIs)
{
    Start();
    RawPeer client;
    client.PostHello(SERVICE_NAME, {2});
    // Refused on the way in: so the first one waits to be handled.
    EXPECT_FALSE(client.Call(SERVICE_NAME, SERVICE_PATH, "Hello", Bytes(9999)).ok);
    m_bus.Freeze(true);
    ASSERT_TRUE(HasClients(1));
    auto counts = std::async(std::launch::async, [&] { return Deliver(2, G_MAXINT); });
    m_bus.Kill();
    EXPECT_EQ(counts.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    m_server->CancelMessages();
    EXPECT_EQ(counts.get(), Counts(0, 1));
}

} // namespace
