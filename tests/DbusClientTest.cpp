// The client endpoint and its provider, with a raw peer for the service.
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <qor/QORDbusClient.h>

#include "BusTest.h"

extern bool g_isProxyRefused; // DbusServerTest.cpp

namespace
{

using namespace qortest;
using qor::TCDbusClient;
using qor::TCDbusClientProvider;

class DbusClient : public BusTest
{
protected:
    static bool Appears(TCDbusClient& client)
    {
        return PumpUntil([&] { return client.IsReady(); });
    }

    void StartService()
    {
        ASSERT_TRUE(m_service.OwnName(SERVICE_NAME));
    }

    // A synchronous message of type 1; the response is not touched by what fails.
    static bool Sends(qor::IDbusClient& client, const Bytes& payload = {})
    {
        Bytes response{9};
        const bool result = client.SendMessage(1, payload, response, false);
        EXPECT_TRUE(result || response == Bytes{9});
        return result;
    }

    static std::size_t SendErrors(int code)
    {
        return LogCapture::Count(LOG_ERROR, "Sending message error, errno " + std::to_string(code));
    }

    // Everything that the client has sent by now has arrived: the bus keeps the order of messages
    // from one sender to one receiver, and the client's last one is answered.
    std::vector<Bytes> HellosOf(TCDbusClient& client)
    {
        Sends(client);
        std::vector<Bytes> result;
        for (const IncomingCall& call : m_service.Calls("Hello"))
        {
            EXPECT_EQ(call.path + call.signature, std::string(SERVICE_PATH) + "ay");
            result.push_back(call.bytes);
        }
        m_service.ForgetCalls();
        return result;
    }

    RawPeer m_service;
};

TEST_F(DbusClient, EveryChangeOfTheTypesIsAnnouncedAndNothingElse)
{
    StartService();
    TCDbusClient client(false);
    EXPECT_FALSE(client.IsReady());
    EXPECT_TRUE(client.SetCallback(-1, Accept)); // not ready: announced on appearance
    ASSERT_TRUE(Appears(client));
    EXPECT_EQ(m_service.Count("GetAll"), 0U); // no properties are loaded
    EXPECT_EQ(HellosOf(client), (std::vector<Bytes>{{0xFF, 0xFF, 0xFF, 0xFF}}));
    EXPECT_TRUE(client.UnSetCallback(-1));
    EXPECT_TRUE(client.SetCallback(5, Accept));
    EXPECT_TRUE(client.SetCallback(2, Accept));
    EXPECT_EQ(HellosOf(client), (std::vector<Bytes>{{}, {5, 0, 0, 0}, {2, 0, 0, 0, 5, 0, 0, 0}}));

    EXPECT_FALSE(client.SetCallback(2, [](const Bytes&, Bytes&) { return false; }));
    EXPECT_FALSE(client.UnSetCallback(9));
    EXPECT_EQ(HellosOf(client), std::vector<Bytes>());
    EXPECT_EQ(
        Await(m_service.StartCall(client.GetUniqueName(), SERVICE_PATH, "Send", Request(2, false)))
            .bytes,
        (Bytes{1})); // the first callback of the type stays
}

TEST_F(DbusClient, RestartedServiceIsReachedAtOnceAndLearnsTheTypesAgain)
{
    StartService();
    TCDbusClient client(false);
    client.SetCallback(7, Accept);
    ASSERT_TRUE(Appears(client));
    ASSERT_TRUE(m_service.ReleaseName(SERVICE_NAME));
    RawPeer next;
    ASSERT_TRUE(next.OwnName(SERVICE_NAME));
    EXPECT_TRUE(Sends(client)); // the context has not run since
    EXPECT_EQ(m_service.Count("Send"), 0U);
    EXPECT_EQ(next.Count("Send"), 1U);
    ASSERT_TRUE(PumpUntil([&] { return next.Count("Hello") > 0; }));
    EXPECT_EQ(next.Calls("Hello")[0].bytes, EventList({7}));
}

TEST_F(DbusClient, SynchronousSendGivesTheReplysResultAndOutput)
{
    StartService();
    m_service.AnswerHelloUsing([](const IncomingCall&) { return NEVER; });
    TCDbusClient client(false);
    ASSERT_TRUE(Appears(client));
    const Bytes before{9, 9};
    const std::tuple<Answer, bool, Bytes, std::size_t> cases[] = {
        {{Answer::REPLY, {1, 5, 6, 7}, ""}, true, {5, 6, 7}, 0},
        {{Answer::REPLY, {0, 0xAA}, ""}, false, {0xAA}, 0},
        {{Answer::REPLY, {0x80}, ""}, true, {}, 0},
        {{Answer::REPLY, {}, ""}, true, before, 1},
        {{Answer::WRONG_TYPE, {}, ""}, true, before, 1},
        {NO_VALUE, true, before, 1},
        {DbusError("AccessDenied"), false, before, 1},
        {NEVER, false, before, 1},
        {LEAVE, false, before, 1},
    };
    for (const auto& [answer, result, output, errors] : cases)
    {
        SCOPED_TRACE(answer.kind);
        LogCapture::Clear();
        m_service.ForgetCalls();
        m_service.AnswerWith(answer);
        Bytes response = before;
        const auto start = Clock::now();
        EXPECT_EQ(client.SendMessage(258, {0xAA, 0xBB}, response, false), result);
        EXPECT_NEAR(SecondsSince(start), answer.kind == Answer::NEVER ? 10 : 0, 3);
        EXPECT_EQ(response, output);
        EXPECT_EQ(LogCapture::Count(LOG_ERROR, ""), errors);
        EXPECT_EQ(m_service.Calls("Send").at(0).bytes, (Bytes{2, 1, 0, 0, 0, 0xAA, 0xBB}));
        const auto isHelloRepeated = [&] { return m_service.Count("Hello") > 0; };
        EXPECT_TRUE(answer.kind != Answer::NEVER || PumpUntil(isHelloRepeated));
    }
}

TEST_F(DbusClient, SynchronousSendSaysHelloFirstAndFailsWithoutAServiceUnlikeAnAsynchronousOne)
{
    TCDbusClient client(false);
    client.SetCallback(6, Accept);
    Bytes response{9};
    EXPECT_TRUE(client.SendMessage(1, {1}, response, true)); // whatever becomes of it
    EXPECT_FALSE(Sends(client));                             // and the bus has dropped both
    EXPECT_EQ(SendErrors(G_DBUS_ERROR_SERVICE_UNKNOWN), 1U);
    StartService();
    m_service.AnswerWith({Answer::REPLY, {1, 1, 2}, ""});
    EXPECT_TRUE(client.SendMessage(-3, {4}, response, true));
    EXPECT_EQ(response, (Bytes{9}));
    EXPECT_TRUE(Sends(client)); // the context has never run
    const std::vector<IncomingCall> calls = m_service.Calls();
    ASSERT_EQ(calls.size(), 3U);
    EXPECT_EQ(calls[0].bytes, (Bytes{0xFD, 0xFF, 0xFF, 0xFF, 1, 4}));
    EXPECT_EQ(calls[1].method, "Hello");
    EXPECT_EQ(calls[1].bytes, EventList({6}));
}

TEST_F(DbusClient, MessageThatIsSentAtTheEndArrives)
{
    StartService();
    {
        TCDbusClient client(false);
        ASSERT_TRUE(Appears(client));
        Bytes response;
        EXPECT_TRUE(client.SendMessage(1, Bytes(2 << 20), response, true));
    }
    EXPECT_TRUE(m_service.WaitForCalls("Send", 1));
}

TEST_F(DbusClient, MessagesUpToTheLimitGoBothWaysAndLargerOnesAreRefusedUnsent)
{
    StartService();
    TCDbusClient client(false);
    const auto echo = [](const IncomingCall& call) {
        return Answer{Answer::REPLY, Bytes(call.bytes.begin() + 4, call.bytes.end()), ""};
    };
    m_service.AnswerUsing(echo); // whose result is the flag
    const std::size_t limit = qor::TCDbus::MaxPayload();
    std::size_t sent = 0;
    for (const std::size_t size : {std::size_t(0), std::size_t(1 << 20), limit, limit + 1})
    {
        Bytes payload(size, 0x5A);
        Bytes response;
        client.SendMessage(1, payload, response, false);
        EXPECT_EQ(response == payload, size <= limit) << size;
        EXPECT_EQ(client.SendMessage(1, payload, response, true), size <= limit);
        sent += size <= limit ? 2 : 0;
        ASSERT_TRUE(m_service.WaitForCalls("Send", sent));
    }
    EXPECT_EQ(SendErrors(G_IO_ERROR_MESSAGE_TOO_LARGE), 2U);
    m_service.AnswerWith(YES);
    EXPECT_TRUE(Sends(client));
    EXPECT_EQ(m_service.Count("Send"), sent + 1);
}

TEST_F(DbusClient, ClientWhoseStartFailedSkipsItsCalls)
{
    StartService();
    const auto skips = [](const char* error)
    {
        LogCapture::Clear();
        TCDbusClient client(false);
        EXPECT_FALSE(client.IsReady());
        EXPECT_EQ(LogCapture::Count(LOG_ERROR, error), 1U);
        EXPECT_TRUE(client.SetCallback(1, Accept));
        EXPECT_FALSE(Sends(client));
        EXPECT_EQ(LogCapture::Count(LOG_ERROR, "pResult is NULL"), 1U);
        Bytes response;
        EXPECT_TRUE(client.SendMessage(1, Bytes(100), response, true));
        EXPECT_TRUE(client.UnSetCallback(1));
    };
    {
        const TCDbusClient first(false);
        skips("Registering object error, errno "); // where the first has its object
    }
    g_isProxyRefused = true;
    skips("Registering proxy error, errno 7");
    g_isProxyRefused = false;
    EXPECT_EQ(m_service.Count("Send"), 0U);
    ASSERT_TRUE(SharedConnectionIsLetGo());
    const std::string address = getenv("DBUS_SYSTEM_BUS_ADDRESS");
    LeaveTheBus();
    skips("Connecting to system bus error, errno ");
    TCDbusClient failed(false);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    EXPECT_FALSE(Sends(failed)); // for good
}

TEST_F(DbusClient, ProviderSharesOneEndpointWhileItIsHeld)
{
    StartService();
    RawPeer testService;
    ASSERT_TRUE(testService.OwnName(TEST_SERVICE_NAME));
    auto other = std::async(std::launch::async, [] { return TCDbusClientProvider::Get(false); });
    boost::shared_ptr<qor::IDbusClient> first = TCDbusClientProvider::Get(false);
    EXPECT_EQ(first, other.get());
    EXPECT_EQ(first, TCDbusClientProvider::Get(true));
    EXPECT_TRUE(Sends(*first));
    EXPECT_EQ(testService.Count("Send"), 0U);
    first.reset();
    first = TCDbusClientProvider::Get(true);
    EXPECT_TRUE(Sends(*first));
    EXPECT_EQ(testService.Calls("Send").at(0).path, TEST_SERVICE_PATH);
    EXPECT_EQ(m_service.Count("Send"), 1U);
}

} // namespace
