// Orders of life that endpoints must stand: successors, callbacks that iterate the main context or
// own what they must not, forked children, and a bus that goes away and comes back.
#include <sys/wait.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include <boost/make_shared.hpp>

#include <qor/QORCallbacksProxy.h>
#include <qor/QORDbusClient.h>
#include <qor/QORDbusServer.h>
#include <qor/api.h>

#include "EndpointFixture.h"
#include "FaultSupport.h"

namespace
{

using namespace qortest;
using qor::TCDbusClient;
using qor::TCDbusClientProvider;
using qor::TCDbusServer;
using Counts = std::pair<std::size_t, std::size_t>;
using VariantPtr = qor::TGlibPtr<GVariant>;

// --- Successors ----------------------------------------------------------------------------------

TEST_F(EndpointLife, WhatTheProviderGivesWorksWhoeverLetsGoMeanwhile)
{
    const BackgroundPump pump;
    std::atomic<int> failed{0};
    const auto takeSendAndDrop = [&failed]
    {
        for (int i = 0; i < 400; ++i)
        {
            failed += Sends(*TCDbusClientProvider::Get(false)) ? 0 : 1;
        }
    };
    std::thread other(takeSendAndDrop);
    takeSendAndDrop();
    other.join();
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, ""), 0U);
}

TEST_F(EndpointLife, SuccessorWorksWhileACallbackOfTheLastOneStillRuns)
{
    const BackgroundPump pump;
    std::promise<void> entered, leave;
    auto client = TCDbusClientProvider::Get(false);
    client->SetCallback(2,
                        [&](const Bytes&, Bytes&)
                        {
                            entered.set_value();
                            leave.get_future().wait();
                            return true;
                        });
    const std::string name = dynamic_cast<TCDbusClient&>(*client).GetUniqueName();
    auto event = Event(name, 2);
    entered.get_future().wait();
    const boost::weak_ptr<qor::IDbusClient> dying(client);
    std::thread last([&] { client.reset(); }); // waits for the callback
    ASSERT_TRUE(WaitUntil([&] { return dying.expired(); }));
    const auto next = TCDbusClientProvider::Get(false);
    EXPECT_TRUE(Sends(*next));
    EXPECT_TRUE(next->SetCallback(3, Accept));
    leave.set_value();
    last.join();
    EXPECT_EQ(event.get().bytes, (Bytes{1}));
    EXPECT_EQ(Event(name, 3).get().bytes, (Bytes{1})); // the connection is the same
}

// --- Callbacks -----------------------------------------------------------------------------------

TEST_F(EndpointLife, ClientCallbackThatIteratesTheContextIsNotEnteredAgain)
{
    TCDbusClient client(false);
    ASSERT_TRUE(PumpUntil([&] { return client.IsReady(); }));
    std::thread other;
    int depth = 0, deepest = 0, called = 0;
    const auto iterate = [&](const Bytes&, Bytes&)
    {
        deepest = std::max(deepest, ++depth);
        if (++called == 1)
        {
            other = std::thread([&] { client.SetCallback(9, Accept); }); // waits for this one
            m_service->Post(client.GetUniqueName(), SERVICE_PATH, "Send", Request(2, false));
            m_service->ReleaseName(SERVICE_NAME);
            m_service->OwnName(SERVICE_NAME);
            PumpUntil([] { return false; }, 300);
        }
        --depth;
        return true;
    };
    client.SetCallback(2, iterate);
    EXPECT_EQ(Await(Event(client.GetUniqueName(), 2)).bytes, (Bytes{1}));
    EXPECT_TRUE(PumpUntil([&] { return called == 2; }));
    other.join();
    EXPECT_EQ(deepest, 1);
    EXPECT_TRUE(client.UnSetCallback(9));
}

TEST_F(EndpointLife, ServiceKnowsWhoIsAskingAlsoWhileItsCallbackIteratesTheContext)
{
    m_service.reset(); // the name is the server's
    TCDbusServer server(false);
    ASSERT_TRUE(PumpUntil([&] { return server.IsReady(); }));
    RawPeer waiting, other;
    waiting.PostHello(SERVICE_NAME, {2});
    ASSERT_TRUE(PumpUntil([&] { return server.NumberOfClients() == 1; }));
    std::string outer, inner, onOtherThread = "unasked";
    Counts counts;
    server.SetCallback(4,
                       [&](const Bytes&, Bytes&)
                       {
                           other.Post(SERVICE_NAME, SERVICE_PATH, "Send", Request(5, false));
                           other.Sync();
                           PumpUntil([] { return false; }, 200);
                           outer = server.GetCurrentSender();
                           std::thread([&] { onOtherThread = server.GetCurrentSender(); }).join();
                           counts = server.SendMessage(2, {}, WATCHDOG_MS); // not to who waits
                           return true;
                       });
    server.SetCallback(5, [&](const Bytes&, Bytes&)
                       { return inner = server.GetCurrentSender(), true; });
    EXPECT_EQ(Await(waiting.StartCall(SERVICE_NAME, SERVICE_PATH, "Send", Request(4, false))).bytes,
              (Bytes{1}));
    EXPECT_TRUE(PumpUntil([&] { return !inner.empty(); }));
    EXPECT_EQ(outer, waiting.UniqueName());
    EXPECT_EQ(inner, other.UniqueName());
    EXPECT_EQ(onOtherThread, "");
    EXPECT_EQ(server.GetCurrentSender(), "");
    EXPECT_EQ(counts, Counts(0, 1));
}

// Runs something when the last copy of it goes.
struct AtTheEnd
{
    explicit AtTheEnd(std::function<void()> last) : m_last(std::move(last)) {}
    ~AtTheEnd()
    {
        m_last();
    }
    std::function<void()> m_last;
};

TEST_F(EndpointLife, RemovedCallbackMayOwnWhatRegistersAndUnregisters)
{
    m_service.reset();
    TCDbusServer server(false);
    TCDbusClient client(true);
    for (qor::IDbus* pEndpoint :
         {static_cast<qor::IDbus*>(static_cast<qor::IDbusServer*>(&server)),
          static_cast<qor::IDbus*>(static_cast<qor::IDbusClient*>(&client))})
    {
        const auto owning = [pEndpoint](int type)
        {
            const auto p = boost::make_shared<AtTheEnd>([=] { pEndpoint->UnSetCallback(type); });
            return [p](const Bytes&, Bytes&) { return true; };
        };
        EXPECT_TRUE(pEndpoint->SetCallback(6, Accept));
        EXPECT_TRUE(pEndpoint->SetCallback(5, owning(6)));
        EXPECT_FALSE(pEndpoint->SetCallback(5, owning(7))); // refused, and gone
        EXPECT_TRUE(pEndpoint->UnSetCallback(5));
        EXPECT_FALSE(pEndpoint->UnSetCallback(6));
    }
}

// --- Contexts, timeouts, forks -------------------------------------------------------------------

TEST_F(EndpointLife, ServerHearsOfDeparturesInAContextThatIsNobodysDefault)
{
    m_service.reset();
    const qor::TGlibPtr<GMainContext> context(g_main_context_new());
    g_main_context_push_thread_default(context.get());
    auto server = std::make_unique<TCDbusServer>(false);
    g_main_context_pop_thread_default(context.get());
    const auto until = [&](const std::function<bool()>& condition) {
        return WaitUntil([&]
                         { return g_main_context_iteration(context.get(), FALSE), condition(); });
    };
    RawPeer client;
    ASSERT_TRUE(until([&] { return server->IsReady(); }));
    client.PostHello(SERVICE_NAME, {2});
    EXPECT_TRUE(until([&] { return server->NumberOfClients() == 1; }));
    client.Leave();
    EXPECT_TRUE(until([&] { return server->NumberOfClients() == 0; }));
    server.reset();
    while (g_main_context_iteration(context.get(), FALSE)) // what holds the connection
    {
    }
}

TEST_F(EndpointLife, EventsEndWithAnImpossibleTimeoutOrWhenTheyAreCancelled)
{
    m_service.reset();
    TCDbusServer server(false);
    ASSERT_TRUE(PumpUntil([&] { return server.IsReady(); }));
    RawPeer client;
    client.AnswerWith(NEVER);
    client.PostHello(SERVICE_NAME, {2, 4});
    ASSERT_TRUE(PumpUntil([&] { return server.NumberOfClients() == 1; }));
    EXPECT_EQ(server.SendMessage(2, {}, -2), Counts(0, 1));
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "error, errno 13"), 1U);
    EXPECT_EQ(client.Count("Send"), 0U);
    auto counts =
        std::async(std::launch::async, [&] { return server.SendMessage(2, {}, G_MAXINT); });
    ASSERT_TRUE(client.WaitForCalls("Send", 1));
    server.CancelMessages();
    EXPECT_EQ(counts.get(), Counts(0, 1));
    const auto clients = server.Clients();
    ASSERT_EQ(clients.size(), 1U);
    EXPECT_EQ(clients[0].m_name, client.UniqueName());
    EXPECT_EQ(clients[0].m_types, (std::vector<int>{2, 4}));
    EXPECT_TRUE(clients[0].m_isSuspended); // it has not answered yet
}

TEST_F(EndpointLife, EveryFunctionAnswersInAForkedChild)
{
    m_service.reset();
    TCDbusServer server(false);
    TCDbusClient client(true);
    ASSERT_TRUE(PumpUntil([&] { return server.IsReady(); }));
    // Name events hold the state lock exclusively all the time, so a child inherits it locked.
    RawPeer peer;
    const Repeat names(
        [&]
        {
            peer.OwnName(TEST_SERVICE_NAME), peer.ReleaseName(TEST_SERVICE_NAME);
            peer.PostHello(SERVICE_NAME, {2});
        });
    // And GLib's own locks, some of which every value takes.
    const Repeat values(
        []
        { VariantPtr(g_variant_ref_sink(g_variant_new_array(G_VARIANT_TYPE_BYTE, nullptr, 0))); });
    const auto pump = std::make_unique<BackgroundPump>();
    for (int i = 0; i < 40; ++i)
    {
        const pid_t child = fork();
        if (child == 0)
        {
            alarm(20);
            Bytes response;
            const bool isRight =
                !client.IsReady() && !server.IsReady() && client.GetUniqueName().empty() &&
                server.GetUniqueName().empty() && server.GetCurrentSender().empty() &&
                server.NumberOfClients() == 0 && server.Clients().empty() &&
                server.SendMessage(2, {}, 1000) == Counts(0, 0) && !server.SetCallback(1, Accept) &&
                !server.UnSetCallback(1) && !client.SendMessage(1, {}, response, false) &&
                !server.Peer(":1.1").m_isKnown && !server.CurrentPeer().m_isKnown;
            server.SendEvent(2, {}, 1000, {});
            _exit(isRight ? 0 : 1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_EQ(status, 0);
    }
}

// --- The bus comes back --------------------------------------------------------------------------

TEST_F(EndpointLife, ClientFindsTheBusAgainWithItsContextIterated)
{
    TCDbusClient client(false);
    client.SetCallback(2, Accept);
    ASSERT_TRUE(PumpUntil([&] { return client.IsReady(); }));
    const int rounds = getenv("QOR_TEST_LONG") != nullptr ? 100 : 4;
    std::size_t files = 0;
    for (int i = 0; i < rounds; ++i)
    {
        m_bus.Kill();
        ASSERT_TRUE(PumpUntil([&] { return !client.IsReady(); }));
        EXPECT_FALSE(Sends(client));
        m_bus.Restart();
        Serve();
        ASSERT_TRUE(PumpUntil([&] { return client.IsReady(); }));
        ASSERT_TRUE(m_service->WaitForCalls("Hello", 1));
        EXPECT_EQ(m_service->Calls("Hello").back().bytes, EventList({2}));
        EXPECT_TRUE(Sends(client));
        EXPECT_EQ(m_service->Count("Send"), 1U); // nothing is sent again
        EXPECT_EQ(Await(Event(client.GetUniqueName(), 2)).bytes, (Bytes{1}));
        files = i == 1 ? OpenFiles(getpid()) : files;
    }
    EXPECT_LE(OpenFiles(getpid()), files);
}

TEST_F(EndpointLife, ClientFindsTheBusAgainByItsSendsAlone)
{
    TCDbusClient client(false);
    std::size_t files = 0;
    for (int i = 0; i < 4; ++i)
    {
        RestartBus();
        EXPECT_TRUE(WaitUntil([&] { return Sends(client); }));
        EXPECT_EQ(m_service->Count("Hello"), 0U); // before it can be called
        files = i == 1 ? OpenFiles(getpid()) : files;
    }
    EXPECT_LE(OpenFiles(getpid()), files);
    // Later the context runs, and the rest is made up for.
    client.SetCallback(2, Accept);
    ASSERT_TRUE(PumpUntil([&] { return client.IsReady(); }));
    EXPECT_EQ(Await(Event(client.GetUniqueName(), 2)).bytes, (Bytes{1}));
    RestartBus();
    EXPECT_TRUE(PumpUntil([&] { return client.IsReady() && Sends(client); }));
}

TEST_F(EndpointLife, ProcessWideObjectsLiveOnAndAFailedStartStaysOne)
{
    const auto control = qor::api::GetControl();
    const auto callbacks = qor::TCCallbacksProxy::Instance();
    std::atomic<int> updates{0};
    ASSERT_TRUE(callbacks->SetPolicyUpdateCb([&] { ++updates; }));
    const std::string address = getenv("DBUS_SYSTEM_BUS_ADDRESS");
    LeaveTheBus();
    TCDbusClient failed(true); // the object's path of tests, so only the bus is missing
    m_bus.Kill();
    m_bus.Restart();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    Serve();
    ASSERT_TRUE(PumpUntil([&] { return m_service->Count("Hello") > 0; }));
    EXPECT_EQ(control, qor::api::GetControl());
    EXPECT_EQ(callbacks, qor::TCCallbacksProxy::Instance());
    const std::string name = m_service->Calls("Hello")[0].sender;
    EXPECT_EQ(Await(Event(name, qor::ICallbacks::POLICY_UPDATE)).bytes, (Bytes{1}));
    EXPECT_EQ(updates, 1);
    m_service->AnswerWith({Answer::REPLY, {0}, ""});
    EXPECT_EQ(control->SetPolicy("<p/>"), -1);
    EXPECT_EQ(m_service->Count("Send"), 1U);
    EXPECT_FALSE(Sends(failed));
    EXPECT_FALSE(failed.IsReady());
    qor::TCCallbacksProxy::Destroy();
}

} // namespace
