// Orders of life that endpoints must stand: successors, callbacks that iterate the main context or
// own what they must not, and a bus that goes away and comes back.
#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include <qor/QORDbusClient.h>
#include <qor/QORDbusServer.h>

#include "EndpointFixture.h"
#include "FaultSupport.h"

namespace
{

using namespace qortest;
using qor::TCDbusClient;
using qor::TCDbusClientProvider;
using qor::TCDbusServer;

// --- Successors ----------------------------------------------------------------------------------

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

TEST_F(EndpointLife, ServiceKnowsWhoIsAskingAlsoWhileItsCallbackIteratesTheContext)
{
    m_service.reset(); // the name is the server's
    TCDbusServer server(false);
    ASSERT_TRUE(PumpUntil([&] { return server.IsReady(); }));
    RawPeer waiting, other;
    std::string outer, inner, onOtherThread = "unasked";
    server.SetCallback(4,
                       [&](const Bytes&, Bytes&)
                       {
                           other.Post(SERVICE_NAME, SERVICE_PATH, "Send", Request(5, false));
                           other.Sync();
                           PumpUntil([] { return false; }, 200);
                           outer = server.GetCurrentSender();
                           std::thread([&] { onOtherThread = server.GetCurrentSender(); }).join();
                           return true;
                       });
    const auto note = [&](const Bytes&, Bytes&)
    {
        inner = server.GetCurrentSender();
        return true;
    };
    server.SetCallback(5, note);
    EXPECT_EQ(Await(waiting.StartCall(SERVICE_NAME, SERVICE_PATH, "Send", Request(4, false))).bytes,
              (Bytes{1}));
    EXPECT_TRUE(PumpUntil([&] { return !inner.empty(); }));
    EXPECT_EQ(outer, waiting.UniqueName());
    EXPECT_EQ(inner, other.UniqueName());
    EXPECT_EQ(onOtherThread, "");
    EXPECT_EQ(server.GetCurrentSender(), "");
}

TEST_F(EndpointLife, RemovedCallbackMayOwnWhatRegistersAndUnregisters)
{
    m_service.reset();
    TCDbusServer server(false);
    TCDbusClient client(true);
    const auto test = [](auto& endpoint)
    {
        const auto owning = [&endpoint](int type)
        {
            const auto last = [=, &endpoint](void*) { endpoint.UnSetCallback(type); };
            const std::shared_ptr<void> p(nullptr, last);
            return [p](const Bytes&, Bytes&) { return true; };
        };
        EXPECT_TRUE(endpoint.SetCallback(6, Accept));
        EXPECT_TRUE(endpoint.SetCallback(5, owning(6)));
        EXPECT_FALSE(endpoint.SetCallback(5, owning(7))); // refused, and gone
        EXPECT_TRUE(endpoint.UnSetCallback(5));
        EXPECT_FALSE(endpoint.UnSetCallback(6));
    };
    test(server);
    test(client);
}

// --- Contexts ------------------------------------------------------------------------------------

TEST_F(EndpointLife, ServerHearsOfDeparturesInAContextThatIsNobodysDefault)
{
    m_service.reset();
    const qor::TGlibPtr<GMainContext> context(g_main_context_new());
    g_main_context_push_thread_default(context.get());
    auto server = std::make_unique<TCDbusServer>(false);
    g_main_context_pop_thread_default(context.get());
    const auto isIdle = [&] { return !g_main_context_iteration(context.get(), FALSE); };
    RawPeer client;
    ASSERT_TRUE(WaitUntil([&] { return isIdle() && server->IsReady(); }));
    client.PostHello(SERVICE_NAME, {2});
    EXPECT_TRUE(WaitUntil([&] { return isIdle() && server->NumberOfClients() == 1; }));
    client.Leave();
    EXPECT_TRUE(WaitUntil([&] { return isIdle() && server->NumberOfClients() == 0; }));
    server.reset();
    EXPECT_TRUE(WaitUntil(isIdle)); // what holds the connection has gone
}

// --- The bus comes back --------------------------------------------------------------------------

TEST_F(EndpointLife, ClientFindsTheBusAgainByItsSendsAloneOrWithItsContextIterated)
{
    TCDbusClient client(false);
    client.SetCallback(2, Accept);
    const int rounds = getenv("QOR_TEST_LONG") != nullptr ? 100 : 3;
    for (const bool isIterated : {false, true})
    {
        std::size_t files = 0;
        for (int i = 0; i < rounds; ++i)
        {
            RestartBus();
            if (isIterated)
            {
                ASSERT_TRUE(PumpUntil([&] { return client.IsReady() && Sends(client); }));
                ASSERT_TRUE(PumpUntil([&] { return m_service->Count("Hello") > 0; }));
                EXPECT_EQ(m_service->Calls("Hello").back().bytes, EventList({2}));
                EXPECT_EQ(Await(Event(client.GetUniqueName(), 2)).bytes, (Bytes{1}));
            }
            else
            {
                EXPECT_TRUE(WaitUntil([&] { return Sends(client); }));
                EXPECT_EQ(m_service->Count("Hello"), 0U); // before it can be called
            }
            EXPECT_EQ(m_service->Count("Send"), 1U); // nothing is sent again
            files = i == 1 ? OpenFiles(getpid()) : files;
        }
        // GDBus closes the last connection when it comes to it.
        const auto isClosed = [&] { return OpenFiles(getpid()) <= files; };
        EXPECT_TRUE(WaitUntil(isClosed, WATCHDOG_MS, isIterated ? &Pump : &Pause));
    }
}

} // namespace
