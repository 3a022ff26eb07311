// How events end: with clients that do not answer, users who have many of those, and a bus that
// dies on the way.
#include <future>
#include <sstream>
#include <string>
#include <vector>

#include "NeighbourFixture.h"

namespace
{

using namespace qortest;

class Delivery : public Neighbour
{
protected:
    // The event ends with that, and long before its time is over.
    void ExpectAtOnce(int type, const Counts& counts)
    {
        EXPECT_LT(Seconds([&] { EXPECT_EQ(m_server->SendMessage(type, {}, 20000), counts); }), 10);
    }
};

TEST_F(Delivery, EventWithoutTimeIsSentAllTheSame)
{
    Serve();
    const Peers clients = Clients(30, YES);
    EXPECT_EQ(Deliver(0), Counts(0, 30));
    EXPECT_TRUE(WaitUntil([&] { return CallsTo(clients) == 30; }, 10000));
    EXPECT_TRUE(WaitUntil([&] { return Deliver() == Counts(30, 0); })); // the answers have come
}

TEST_F(Delivery, SinksSayThatItIsTheServersLine)
{
    Serve();
    const Peers denying =
        Clients(1, {Answer::ERROR, {}, "org.freedesktop.DBus.Error.AccessDenied"});
    const Peers empty = Clients(1, {Answer::NO_VALUE, {}, ""});
    testing::internal::CaptureStdout();
    EXPECT_EQ(Deliver(), Counts(0, 2));
    fflush(stdout);
    std::istringstream out(testing::internal::GetCapturedStdout());
    std::size_t found = 0;
    for (std::string line; std::getline(out, line);)
    {
        for (const char* const text : {"error, errno 9", "Result is null", "Sending message to :"})
        {
            const bool isThis = line.find(text) != std::string::npos;
            found += isThis ? 1 : 0;
            EXPECT_TRUE(!isThis || line.rfind("QOR >qor::TCDbusServer:", 0) == 0) << line;
        }
    }
    EXPECT_EQ(found, 3U);
}

TEST_F(Delivery, SilentClientHasOneCallOfEachTypeWaitingUpToItsShare)
{
    Serve();
    const std::vector<std::int32_t> types{1, 2, 3, 4, 5};
    const Peers client = Clients(1, NEVER, 0, types);
    const auto hold4 = [](const IncomingCall& call) {
        return Answer{call.bytes[0] == 4 ? Answer::HOLD : Answer::NEVER, {}, ""};
    };
    // Of a type that has nothing waiting in it, an event goes out that asks for no answer: one.
    const auto expectUnconfirmed = [&](std::size_t soFar, std::size_t count)
    {
        for (const std::int32_t type : types)
        {
            ExpectAtOnce(type, {0, 1});
        }
        EXPECT_TRUE(client[0]->WaitForCalls("Send", soFar + count));
        ExpectAtOnce(5, {0, 1});
        EXPECT_EQ(client[0]->Count("Send"), soFar + count);
    };
    client[0]->AnswerUsing(hold4);
    for (const std::int32_t type : {4, 2, 1, 3})
    {
        const std::size_t before = client[0]->Count("Send");
        EXPECT_EQ(m_server->SendMessage(type, {}, 100), Counts(0, 1));
        ASSERT_TRUE(WaitUntil([&] { return client[0]->Count("Send") > before; }, 10000)) << type;
        EXPECT_EQ(client[0]->Calls("Send").back().bytes, Request(type, false));
    }
    expectUnconfirmed(4, 1);

    client[0]->AnswerWith(YES);
    client[0]->AnswerHeld(YES); // and so it may be called for that type again, and for one more
    EXPECT_TRUE(WaitUntil([&] { return m_server->SendMessage(4, {}, 10000).first == 1; }));
    ExpectAtOnce(2, {0, 1});
    EXPECT_EQ(client[0]->Count("Send"), 6U);
    client[0]->AnswerWith(NEVER);
    EXPECT_EQ(m_server->SendMessage(5, {}, 100), Counts(0, 1));
    ASSERT_TRUE(client[0]->WaitForCalls("Send", 7));
    expectUnconfirmed(7, 1);
    client[0]->Call(SERVICE_NAME, SERVICE_PATH, "Hello", EventList(types)); // a sign of life
    expectUnconfirmed(8, types.size());
}

TEST_F(Delivery, EachFurtherSilentUserTakesHalfOfTheSlotsThatAreLeft)
{
    if (geteuid() != 0)
    {
        GTEST_SKIP() << "only root can act as several users";
    }
    Serve();
    const Peers good = Clients(5, YES, 2);
    std::vector<Peers> silent;
    std::size_t share = 60, others = 0;
    for (const unsigned int user : {1U, 3U, 4U})
    {
        silent.push_back(Clients(share + 10, NEVER, user));
        Deliver(500);
        EXPECT_EQ(CallsTo(silent.back()), share) << "user " << user;
        others += share + 10;
        share /= 2;
    }
    ExpectAtOnce(2, {5, others});
}

TEST_F(Delivery, DepartureEndsACallAlsoWhereTheBusDoesNotAnswerIt)
{
    // Before the library's own filter on the connection that it shares with its host.
    const auto drop = [](GDBusConnection*, GDBusMessage* pMessage, gboolean isIncoming, gpointer)
    {
        const gchar* const name = isIncoming ? g_dbus_message_get_error_name(pMessage) : nullptr;
        const bool isNoReply = name != nullptr && std::string(name).find("NoReply") < 99;
        isNoReply ? g_object_unref(pMessage) : void();
        return isNoReply ? nullptr : pMessage;
    };
    const ObjectPtr<GDBusConnection> shared(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    const guint filter = g_dbus_connection_add_filter(shared.get(), drop, nullptr, nullptr);
    Serve();
    const Peers silent = Clients(1, NEVER);
    auto ended = std::async(std::launch::async, [&] { ExpectAtOnce(2, {0, 1}); });
    ASSERT_TRUE(silent[0]->WaitForCalls("Send", 1));
    silent[0]->Leave();
    ended.get();
    g_dbus_connection_remove_filter(shared.get(), filter);
}

TEST_F(Delivery, EventEndsWhenTheBusDiesBeforeItHasToldWhoTheClientIs)
{
    if (getenv("QOR_TEST_BUS") != nullptr)
    {
        GTEST_SKIP() << "dbus-broker runs behind another process, which a signal does not reach";
    }
    Serve();
    m_pump.reset();
    RawPeer client;
    client.PostHello(SERVICE_NAME, {2});
    // Refused on the way in: so the first one waits to be handled.
    EXPECT_FALSE(client.Call(SERVICE_NAME, SERVICE_PATH, "Hello", Bytes(9999)).ok);
    m_bus.Freeze(true);
    ASSERT_TRUE(PumpUntil([&] { return m_server->NumberOfClients() == 1; }));
    auto counts = std::async(std::launch::async, [&] { return Deliver(G_MAXINT); });
    m_bus.Kill();
    EXPECT_EQ(counts.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    m_server->CancelMessages();
    EXPECT_EQ(counts.get(), Counts(0, 1));
}

// Such a name would become one of GLib's strings, for good.
TEST_F(Delivery, ErrorNamesThatAClientInventsAreNotKept)
{
    Serve();
    const std::string invented = "org.gtk.GDBus.UnmappedGError.Quark._inventedForEvent.Code7";
    const Peers clients = Clients(1, {Answer::ERROR, {}, invented});
    EXPECT_EQ(Deliver(), Counts(0, 1));
    const std::string code = std::to_string(G_IO_ERROR_DBUS_ERROR);
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, clients[0]->UniqueName() + " error, errno " + code), 1U);
    EXPECT_EQ(g_quark_try_string("inventedForEvent"), 0U);
}

} // namespace
