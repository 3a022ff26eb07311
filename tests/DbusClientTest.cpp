// The client endpoint and its provider, with a raw peer for the service.
#include <atomic>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gio/gio.h>

#include <qor/QORDbusClient.h>

#include "BusTest.h"

namespace
{

using namespace qortest;
using qor::TCDbusClient;
using qor::TCDbusClientProvider;

std::string SendError(int code)
{
    return "Sending message error, errno " + std::to_string(code);
}

class DbusClient : public BusTest
{
protected:
    static bool Appears(TCDbusClient& client)
    {
        return PumpUntil([&] { return client.IsReady(); });
    }

    static bool Vanishes(TCDbusClient& client)
    {
        return PumpUntil([&] { return !client.IsReady(); });
    }

    void StartService()
    {
        ASSERT_TRUE(m_service.OwnName(SERVICE_NAME));
    }

    // What the process's clients have sent by now has been seen by the bus.
    static void AwaitBus()
    {
        GDBusConnection* const pConnection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
        ASSERT_NE(pConnection, nullptr);
        GVariant* const pReply = g_dbus_connection_call_sync(
            pConnection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "GetId", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        ASSERT_NE(pReply, nullptr);
        g_variant_unref(pReply);
        g_object_unref(pConnection);
    }

    // Everything that the client has sent by now has arrived: the bus keeps the order of messages
    // from one sender to one receiver, and the client's last one is answered.
    std::vector<Bytes> HellosOf(TCDbusClient& client)
    {
        Bytes response;
        client.SendMessage(99, {}, response, false);
        std::vector<Bytes> result;
        for (const IncomingCall& call : m_service.Calls("Hello"))
        {
            EXPECT_EQ(call.path, SERVICE_PATH);
            EXPECT_EQ(call.signature, "ay");
            EXPECT_EQ(call.sender, client.GetUniqueName());
            result.push_back(call.bytes);
        }
        m_service.ForgetCalls();
        return result;
    }

    CallResult SendTo(TCDbusClient& client, const Bytes& bytes)
    {
        return Await(m_service.StartCall(client.GetUniqueName(), SERVICE_PATH, "Send", bytes));
    }

    RawPeer m_service;
};

TEST_F(DbusClient, IsReadyAndHasSaidHelloOnceItsContextHasRun)
{
    StartService();
    TCDbusClient client(false);
    EXPECT_FALSE(client.IsReady());
    ASSERT_TRUE(Appears(client));
    EXPECT_EQ(HellosOf(client), (std::vector<Bytes>{Bytes()}));
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, std::string("Name appeared - name ") + SERVICE_NAME),
              1U);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Send hello " + client.GetUniqueName()), 1U);
}

TEST_F(DbusClient, TestModeLooksForTheTestServiceOnly)
{
    StartService();
    RawPeer testService;
    TCDbusClient client(true);
    EXPECT_TRUE(PumpUntil([] { return LogCapture::Count(LOG_DEBUG, "Name vanished") > 0; }));
    EXPECT_FALSE(client.IsReady());
    ASSERT_TRUE(testService.OwnName(TEST_SERVICE_NAME));
    ASSERT_TRUE(Appears(client));
    ASSERT_TRUE(testService.WaitForCalls("Hello", 1));
    EXPECT_EQ(testService.Calls()[0].path, TEST_SERVICE_PATH);
    EXPECT_EQ(testService.Calls()[0].interfaceName, INTERFACE_NAME);
    EXPECT_EQ(m_service.Count("Hello"), 0U);
}

TEST_F(DbusClient, EveryChangeOfTheTypesIsAnnouncedAndNothingElse)
{
    StartService();
    TCDbusClient client(false);
    const auto callback = [](const Bytes&, Bytes&) { return true; };
    EXPECT_TRUE(client.SetCallback(-1, callback)); // not ready: announced on appearance
    ASSERT_TRUE(Appears(client));
    EXPECT_EQ(HellosOf(client), (std::vector<Bytes>{{0xFF, 0xFF, 0xFF, 0xFF}}));

    EXPECT_TRUE(client.UnSetCallback(-1));
    EXPECT_TRUE(client.SetCallback(5, callback));
    EXPECT_TRUE(client.SetCallback(2, callback));
    EXPECT_EQ(HellosOf(client), (std::vector<Bytes>{{}, {5, 0, 0, 0}, {2, 0, 0, 0, 5, 0, 0, 0}}));

    EXPECT_FALSE(client.SetCallback(2, callback));
    EXPECT_FALSE(client.UnSetCallback(9));
    EXPECT_EQ(HellosOf(client), std::vector<Bytes>());

    EXPECT_TRUE(client.UnSetCallback(5));
    EXPECT_EQ(HellosOf(client), (std::vector<Bytes>{{2, 0, 0, 0}}));
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Type 2, result 1"), 1U);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Type 2, result 0"), 1U);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Type 9"), 0U);
}

TEST_F(DbusClient, FirstCallbackOfATypeStaysInForce)
{
    TCDbusClient client(false);
    EXPECT_TRUE(client.SetCallback(3, [](const Bytes&, Bytes& out) { return out = {1}, true; }));
    EXPECT_FALSE(client.SetCallback(3, [](const Bytes&, Bytes& out) { return out = {2}, true; }));
    EXPECT_EQ(SendTo(client, Request(3, false)).bytes, (Bytes{1, 1}));
    EXPECT_TRUE(client.UnSetCallback(3));
    EXPECT_EQ(SendTo(client, Request(3, false)).bytes, (Bytes{0}));
}

TEST_F(DbusClient, RestartedServiceLearnsTheTypesAgain)
{
    StartService();
    TCDbusClient client(false);
    client.SetCallback(7, [](const Bytes&, Bytes&) { return true; });
    ASSERT_TRUE(Appears(client));
    m_service.Leave();
    ASSERT_TRUE(Vanishes(client));
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, std::string("Name vanished - name ") + SERVICE_NAME),
              1U);
    client.SetCallback(8, [](const Bytes&, Bytes&) { return true; });

    RawPeer next;
    ASSERT_TRUE(next.OwnName(SERVICE_NAME));
    ASSERT_TRUE(Appears(client));
    ASSERT_TRUE(next.WaitForCalls("Hello", 1));
    EXPECT_EQ(next.Calls("Hello")[0].bytes, EventList({7, 8}));
}

TEST_F(DbusClient, SendReachesARestartedServiceBeforeTheContextHasRun)
{
    StartService();
    TCDbusClient client(false);
    ASSERT_TRUE(Appears(client));
    ASSERT_TRUE(m_service.ReleaseName(SERVICE_NAME));
    RawPeer next;
    ASSERT_TRUE(next.OwnName(SERVICE_NAME));
    Bytes response;
    EXPECT_TRUE(client.SendMessage(1, {}, response, false));
    EXPECT_EQ(next.Count("Send"), 1U);
    EXPECT_EQ(m_service.Count("Send"), 0U);
}

TEST_F(DbusClient, SynchronousSendGivesTheReplysResultAndOutput)
{
    StartService();
    TCDbusClient client(false);
    struct Case
    {
        Answer answer;
        bool result;
        Bytes response;
        std::size_t assertions;
    };
    const Bytes before{9, 9};
    const std::vector<Case> cases{
        {{Answer::REPLY, {1}, ""}, true, {}, 0},
        {{Answer::REPLY, {1, 5, 6, 7}, ""}, true, {5, 6, 7}, 0},
        {{Answer::REPLY, {0, 0xAA}, ""}, false, {0xAA}, 0},
        {{Answer::REPLY, {0x80}, ""}, true, {}, 0},
        {{Answer::REPLY, {}, ""}, true, before, 1},
        {{Answer::WRONG_TYPE, {}, ""}, true, before, 1},
        {{Answer::NO_VALUE, {}, ""}, true, before, 1},
    };
    for (std::size_t i = 0; i < cases.size(); ++i)
    {
        SCOPED_TRACE(i);
        LogCapture::Clear();
        m_service.ForgetCalls();
        m_service.AnswerWith(cases[i].answer);
        Bytes response = before;
        EXPECT_EQ(client.SendMessage(258, {0xAA, 0xBB}, response, false), cases[i].result);
        EXPECT_EQ(response, cases[i].response);
        EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Error for "), cases[i].assertions);
        ASSERT_EQ(m_service.Count("Send"), 1U);
        EXPECT_EQ(m_service.Calls("Send")[0].bytes, (Bytes{2, 1, 0, 0, 0, 0xAA, 0xBB}));
    }
}

TEST_F(DbusClient, SynchronousSendThatFailsLogsTheErrorsCode)
{
    StartService();
    TCDbusClient client(false);
    Bytes response{9};
    m_service.AnswerWith({Answer::ERROR, {}, "org.freedesktop.DBus.Error.AccessDenied"});
    EXPECT_FALSE(client.SendMessage(1, {}, response, false));
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, SendError(G_DBUS_ERROR_ACCESS_DENIED)), 1U);

    m_service.AnswerWith({Answer::LEAVE, {}, ""});
    EXPECT_FALSE(client.SendMessage(1, {}, response, false));
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, SendError(G_DBUS_ERROR_NO_REPLY)), 1U);
    EXPECT_EQ(response, (Bytes{9}));

    RawPeer next;
    ASSERT_TRUE(next.OwnName(SERVICE_NAME));
    EXPECT_TRUE(client.SendMessage(1, {}, response, false));
}

TEST_F(DbusClient, SynchronousSendToAServiceThatNeverAnswersTimesOut)
{
    StartService();
    TCDbusClient client(false);
    m_service.AnswerWith({Answer::NEVER, {}, ""});
    Bytes response{9};
    EXPECT_FALSE(client.SendMessage(1, {}, response, false));
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, SendError(G_IO_ERROR_TIMED_OUT)), 1U);
    EXPECT_EQ(response, (Bytes{9}));
    m_service.AnswerWith({Answer::REPLY, {1}, ""});
    EXPECT_TRUE(client.SendMessage(1, {}, response, false));
}

TEST_F(DbusClient, SynchronousSendToAnAbsentServiceSaysHelloTriesAndFails)
{
    TCDbusClient client(false);
    Bytes response{9};
    EXPECT_FALSE(client.SendMessage(1, {1}, response, false));
    EXPECT_EQ(response, (Bytes{9}));
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Connection is not ready"), 1U);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Send hello"), 1U);
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, SendError(G_DBUS_ERROR_SERVICE_UNKNOWN)), 1U);
}

TEST_F(DbusClient, UnreadySynchronousSendAnnouncesTheTypesFirst)
{
    StartService();
    TCDbusClient client(false);
    client.SetCallback(6, [](const Bytes&, Bytes&) { return true; });
    Bytes response;
    EXPECT_TRUE(client.SendMessage(1, {}, response, false)); // the context has never run
    const std::vector<IncomingCall> calls = m_service.Calls();
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0].method, "Hello");
    EXPECT_EQ(calls[0].bytes, EventList({6}));
    EXPECT_EQ(calls[1].method, "Send");
}

TEST_F(DbusClient, AsynchronousSendReturnsTrueWhateverBecomesOfIt)
{
    TCDbusClient client(false);
    Bytes response{9};
    EXPECT_TRUE(client.SendMessage(1, {1}, response, true)); // no service
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Connection is not ready"), 1U);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Send hello"), 0U);

    AwaitBus(); // which drops it
    StartService();
    m_service.AnswerWith({Answer::REPLY, {0, 1, 2}, ""});
    EXPECT_TRUE(client.SendMessage(-3, {4}, response, true));
    ASSERT_TRUE(m_service.WaitForCalls("Send", 1));
    EXPECT_EQ(m_service.Calls("Send")[0].bytes, (Bytes{0xFD, 0xFF, 0xFF, 0xFF, 1, 4}));
    EXPECT_EQ(m_service.Count("Hello"), 0U);
    EXPECT_EQ(response, (Bytes{9}));
}

TEST_F(DbusClient, LargePayloadsGoThroughBothWays)
{
    StartService();
    TCDbusClient client(false);
    m_service.AnswerUsing(
        [](const IncomingCall& call)
        {
            Answer answer{Answer::REPLY, {1}, ""};
            answer.bytes.insert(answer.bytes.end(), call.bytes.begin() + 5, call.bytes.end());
            return answer;
        });
    for (const std::size_t size : {0UL, 1UL << 20, 16UL << 20})
    {
        Bytes payload(size, 0x5A);
        if (size > 0)
        {
            payload.back() = 1;
        }
        Bytes response{9};
        EXPECT_TRUE(client.SendMessage(1, payload, response, false)) << size;
        EXPECT_TRUE(response == payload) << size;
    }
}

TEST_F(DbusClient, MessageOverTheLimitIsRefusedUnsentAndTheNextCallSucceeds)
{
    StartService();
    TCDbusClient client(false);
    const Bytes tooLarge(qor::TCDbus::MaxPayload() + 1);
    Bytes response{9};
    EXPECT_FALSE(client.SendMessage(1, tooLarge, response, false));
    EXPECT_FALSE(client.SendMessage(1, tooLarge, response, true));
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, SendError(G_IO_ERROR_MESSAGE_TOO_LARGE)), 2U);
    EXPECT_EQ(response, (Bytes{9}));
    EXPECT_TRUE(client.SendMessage(1, {}, response, false));
    EXPECT_EQ(m_service.Count("Send"), 1U);

    // The daemon's own limit is the default one: the largest that we let through must pass it.
    EXPECT_TRUE(client.SendMessage(1, Bytes(tooLarge.size() - 1), response, false));
    EXPECT_TRUE(client.SendMessage(1, {}, response, false));
    EXPECT_EQ(m_service.Count("Send"), 3U);
}

TEST_F(DbusClient, ConcurrentSendsGetTheirOwnReplies)
{
    StartService();
    TCDbusClient client(false);
    m_service.AnswerUsing(
        [](const IncomingCall& call)
        {
            Bytes reply{1};
            reply.insert(reply.end(), call.bytes.begin(), call.bytes.end());
            return Answer{Answer::REPLY, reply, ""};
        });
    std::atomic<int> wrong(0);
    std::vector<std::thread> threads;
    for (unsigned char t = 0; t < 4; ++t)
    {
        threads.emplace_back(
            [&, t]
            {
                for (unsigned char i = 0; i < 100; ++i)
                {
                    Bytes response;
                    const bool ok = client.SendMessage(t, {t, i}, response, false);
                    wrong += ok && response == Request(t, false, {t, i}) ? 0 : 1;
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(m_service.Count("Send"), 400U);
}

TEST_F(DbusClient, ClientWithoutABusSkipsItsCalls)
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", NoBusAddress().c_str(), 1);
    TCDbusClient client(false);
    PumpPending();
    EXPECT_FALSE(client.IsReady());
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Connecting to system bus error"), 1U);
    EXPECT_TRUE(client.SetCallback(1, [](const Bytes&, Bytes&) { return true; }));
    EXPECT_FALSE(client.SetCallback(1, [](const Bytes&, Bytes&) { return true; }));
    Bytes response{9};
    EXPECT_FALSE(client.SendMessage(1, Bytes(100), response, false));
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "pResult is NULL"), 1U);
    EXPECT_TRUE(client.SendMessage(1, Bytes(100), response, true));
    EXPECT_EQ(response, (Bytes{9}));
    EXPECT_TRUE(client.UnSetCallback(1));
}

TEST_F(DbusClient, ClientThatCannotExportItsObjectSkipsItsCalls)
{
    StartService();
    TCDbusClient first(false);
    {
        TCDbusClient second(false);
        EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Registering object error"), 1U);
        Bytes response;
        EXPECT_FALSE(second.SendMessage(1, {}, response, false));
        EXPECT_EQ(LogCapture::Count(LOG_ERROR, "pResult is NULL"), 1U);
        EXPECT_EQ(m_service.Count(""), 0U);
    }
    ASSERT_TRUE(Appears(first));
}

TEST_F(DbusClient, LosingTheBusLeavesTheHostAliveAndAFreshEndpointWorks)
{
    StartService();
    auto pClient = std::make_unique<TCDbusClient>(false);
    ASSERT_TRUE(Appears(*pClient));
    m_bus.Kill();
    ASSERT_TRUE(Vanishes(*pClient)); // by default this process would have ended here
    Bytes response;
    EXPECT_FALSE(pClient->SendMessage(1, {}, response, false));
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, SendError(G_IO_ERROR_CLOSED)), 1U);
    EXPECT_TRUE(pClient->SendMessage(1, {}, response, true));
    EXPECT_TRUE(pClient->SetCallback(1, [](const Bytes&, Bytes&) { return true; }));

    m_bus.Restart();
    pClient.reset();
    ASSERT_TRUE(SharedConnectionIsLetGo());
    RawPeer next;
    ASSERT_TRUE(next.OwnName(SERVICE_NAME));
    TCDbusClient fresh(false);
    EXPECT_TRUE(fresh.SendMessage(1, {}, response, false));
    EXPECT_TRUE(Appears(fresh));
}

TEST_F(DbusClient, LosingTheBusEndsAPendingCall)
{
    StartService();
    TCDbusClient client(false);
    m_service.AnswerWith({Answer::HOLD, {}, ""});
    auto result = std::async(std::launch::async,
                             [&]
                             {
                                 Bytes response;
                                 return client.SendMessage(1, {}, response, false);
                             });
    ASSERT_TRUE(m_service.WaitForCalls("Send", 1));
    m_bus.Kill();
    EXPECT_FALSE(result.get());
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Sending message error, errno "), 1U);
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, SendError(G_IO_ERROR_TIMED_OUT)), 0U);
}

TEST_F(DbusClient, ProviderSharesOneEndpointWhileItIsHeld)
{
    StartService();
    RawPeer testService;
    ASSERT_TRUE(testService.OwnName(TEST_SERVICE_NAME));
    boost::shared_ptr<qor::IDbusClient> first = TCDbusClientProvider::Get(false);
    boost::shared_ptr<qor::IDbusClient> second = TCDbusClientProvider::Get(true);
    EXPECT_EQ(first, second);
    Bytes response;
    EXPECT_TRUE(second->SendMessage(1, {}, response, false));
    EXPECT_EQ(m_service.Count("Send"), 1U);

    first.reset();
    second.reset();
    first = TCDbusClientProvider::Get(true);
    EXPECT_TRUE(first->SendMessage(1, {}, response, false));
    EXPECT_EQ(testService.Count("Send"), 1U);
    EXPECT_EQ(m_service.Count("Send"), 1U);
}

TEST_F(DbusClient, ProviderCreatesOneEndpointForAllThreads)
{
    for (int round = 0; round < 20; ++round)
    {
        LogCapture::Clear();
        std::promise<void> start;
        std::shared_future<void> started(start.get_future());
        std::vector<std::future<boost::shared_ptr<qor::IDbusClient>>> results;
        for (int i = 0; i < 4; ++i)
        {
            results.push_back(std::async(std::launch::async,
                                         [started]
                                         {
                                             started.wait();
                                             return TCDbusClientProvider::Get(false);
                                         }));
        }
        start.set_value();
        const boost::shared_ptr<qor::IDbusClient> first = results[0].get();
        for (std::size_t i = 1; i < results.size(); ++i)
        {
            EXPECT_EQ(results[i].get(), first);
        }
        EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Working with unique name"), 1U);
    }
}

} // namespace
