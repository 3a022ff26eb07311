// The client's way to the service: what is lost is found and said again, and nobody waits for what
// somebody else waits for.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <qor/QORDbusClient.h>
#include <qor/api.h>

#include "EndpointFixture.h"
#include "MuteBus.h"

namespace
{

using namespace qortest;
using qor::TCDbusClient;
using qor::TCDbusClientProvider;
using Transport = EndpointLife;

const std::string NO_BUS = "Connecting to system bus error, errno ";

template <class T>
bool IsThere(const std::future<T>& future)
{
    return future.wait_for(std::chrono::seconds(3)) == std::future_status::ready;
}

// --- A bus that is lost, or was never there ------------------------------------------------------

TEST_F(Transport, NewEndpointAfterALostBusWorksWhoeverHoldsTheClosedConnection)
{
    for (const bool isHeldByHost : {false, true})
    {
        SCOPED_TRACE(isHeldByHost);
        ASSERT_TRUE(SharedConnectionIsLetGo());
        const ObjectPtr<GDBusConnection> shared(
            isHeldByHost ? g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr) : nullptr);
        auto client = TCDbusClientProvider::Get(false);
        EXPECT_TRUE(Sends(*client));
        RestartBus();
        EXPECT_TRUE(WaitUntil([&] { return Sends(*client); }, 10000));
        client.reset();
        client = TCDbusClientProvider::Get(false);
        EXPECT_TRUE(Sends(*client));
    }
}

TEST_F(Transport, ThreadsThatRetryWithoutAPauseAreBackSoon)
{
    TCDbusClient client(false);
    std::atomic<int> sent{0};
    const BackgroundPump pump;
    ASSERT_TRUE(WaitUntil([&] { return client.IsReady(); }));
    std::vector<std::unique_ptr<Repeat>> threads(16);
    for (auto& thread : threads)
    {
        thread = std::make_unique<Repeat>([&] { sent += Sends(client) ? 1 : 0; });
    }
    const int rounds = getenv("QOR_TEST_LONG") != nullptr ? 100 : 2;
    for (int i = 0; i < rounds; ++i)
    {
        m_bus.Kill();
        ASSERT_TRUE(WaitUntil([&] { return !client.IsReady(); }, 10000)) << i;
        m_bus.Restart();
        Serve();
        sent = 0;
        ASSERT_TRUE(WaitUntil([&] { return sent > 0; }, 10000)) << i;
        ASSERT_TRUE(WaitUntil([&] { return client.IsReady(); }, 10000)) << i;
    }
}

TEST_F(Transport, LostBusIsLookedForOnceASecondAndOneThatHangsLessOften)
{
    TCDbusClient client(false);
    m_bus.Kill();
    const auto finds = [&](std::size_t errors)
    {
        return WaitUntil(
            [&] { return Sends(client) || LogCapture::Count(LOG_ERROR, NO_BUS) >= errors; });
    };
    ASSERT_TRUE(finds(1));
    const auto start = Clock::now();
    ASSERT_TRUE(finds(2));
    EXPECT_GT(SecondsSince(start), 0.5);
    MuteBus hung;
    const Repeat other([&] { Sends(client); }); // and by one thread at a time
    EXPECT_TRUE(WaitUntil([&] { return !Sends(client) && hung.Connections() == 1; }));
    EXPECT_FALSE(WaitUntil([&] { return Sends(client) || hung.Connections() > 1; }, 2000));
}

TEST_F(Transport, StartDoesNotWaitForABusThatDoesNotAnswer)
{
    QORTEST_IN_CHILD({
        alarm(15);
        m_service.reset();
        m_bus.Kill();
        const MuteBus hung;
        const auto start = Clock::now();
        EXPECT_EQ(qor::api::GetControl()->SetPolicy("<p/>"), -1);
        EXPECT_LT(SecondsSince(start), 10);
        EXPECT_EQ(LogCapture::Count(LOG_ERROR, NO_BUS + "24"), 1U); // timed out
    });
}

// --- Registrations -------------------------------------------------------------------------------

TEST_F(Transport, RefusedHelloIsRepeatedUntilItIsConfirmedOrTheServiceHasLeft)
{
    std::atomic<int> refusals{3};
    const auto greet = [&](const IncomingCall&)
    {
        const int left = refusals--;
        return left > 0 ? DbusError(left % 2 == 0 ? "NoReply" : "LimitsExceeded") : NO_VALUE;
    };
    const auto isConfirmed = [&] { return refusals < 0; };
    const auto pass = [] { PumpUntil([] { return false; }, 1500); }; // longer than the next pause
    m_service->AnswerHelloUsing(greet);
    TCDbusClient client(false);
    client.SetCallback(2, Accept);
    ASSERT_TRUE(PumpUntil(isConfirmed, 10000));
    m_service->ForgetCalls();
    refusals = 2;
    client.SetCallback(3, Accept);
    client.SetCallback(4, Accept);
    ASSERT_TRUE(PumpUntil(isConfirmed, 10000));
    pass();
    const auto hellos = m_service->Calls("Hello");
    EXPECT_EQ(hellos.size(), 3U); // and none after the confirmation
    for (std::size_t i = 1; i < hellos.size(); ++i)
    {
        EXPECT_EQ(hellos[i].bytes, EventList({2, 3, 4})) << i; // the newest list alone
    }
    refusals = 1000;
    client.UnSetCallback(4);
    ASSERT_TRUE(PumpUntil([&] { return refusals < 999; }));
    pass();
    EXPECT_GT(refusals, 992); // each pause is longer than the one before
    m_service->ReleaseName(SERVICE_NAME);
    ASSERT_TRUE(PumpUntil([&] { return !client.IsReady(); }));
    const std::size_t before = LogCapture::Count(LOG_DEBUG, "Send hello ");
    pass();
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Send hello "), before);
}

// Such a name would become one of GLib's strings, for good.
TEST_F(Transport, ChangesThatTheServiceDoesNotConfirmLeaveRoomForSendsAndTheLastOneIsTold)
{
    m_service->AnswerHelloUsing([](const IncomingCall&) { return HOLD; });
    TCDbusClient client(false);
    ASSERT_TRUE(PumpUntil([&] { return client.IsReady(); }));
    for (int i = 0; i < 100; ++i)
    {
        client.SetCallback(2, Accept);
        client.UnSetCallback(2);
    }
    client.SetCallback(3, Accept);
    EXPECT_TRUE(Sends(client));
    EXPECT_LE(m_service->Count("Hello"), 16U);
    const auto isTold = [&](const std::vector<std::int32_t>& types) {
        return WaitUntil([&]
                         { return m_service->Calls("Hello").back().bytes == EventList(types); });
    };
    m_service->AnswerHelloUsing([](const IncomingCall&) { return NO_VALUE; });
    m_service->AnswerHeld(NO_VALUE);
    EXPECT_TRUE(isTold({3}));

    // What the service that was there before answers is not counted.
    m_service->AnswerHelloUsing([](const IncomingCall&) { return HOLD; });
    client.SetCallback(4, Accept);
    client.SetCallback(5, Accept);
    EXPECT_TRUE(isTold({3, 4, 5}));
    ASSERT_TRUE(m_service->ReleaseName(SERVICE_NAME));
    EXPECT_TRUE(PumpUntil([&] { return !client.IsReady(); }));
    m_service->AnswerHelloUsing([](const IncomingCall&) { return NO_VALUE; });
    ASSERT_TRUE(m_service->OwnName(SERVICE_NAME));
    EXPECT_TRUE(PumpUntil([&] { return client.IsReady(); }));
    m_service->AnswerHeld(NO_VALUE);
    EXPECT_TRUE(Sends(client));
    client.SetCallback(6, Accept);
    EXPECT_TRUE(isTold({3, 4, 5, 6}));
}

TEST_F(Transport, ErrorNamesThatTheServiceInventsAreNotKept)
{
    const auto invented = [](const std::string& name) {
        return Answer{Answer::ERROR, {}, "org.gtk.GDBus.UnmappedGError.Quark._" + name + ".Code7"};
    };
    m_service->AnswerWith(invented("inventedForSend"));
    m_service->AnswerHelloUsing([&](const IncomingCall&) { return invented("inventedForHello"); });
    TCDbusClient client(false);
    EXPECT_FALSE(Sends(client)); // says Hello first
    const std::string code = std::to_string(G_IO_ERROR_DBUS_ERROR);
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Sending message error, errno " + code), 1U);
    EXPECT_EQ(g_quark_try_string("inventedForSend"), 0U);
    EXPECT_EQ(g_quark_try_string("inventedForHello"), 0U);
}

// --- Waiting -------------------------------------------------------------------------------------

TEST_F(Transport, SendThatWaitsForItsAnswerHoldsUpNobodyElse)
{
    TCDbusClient client(false);
    client.SetCallback(2, Accept);
    std::atomic<double> longest{0};
    const Repeat mainLoop(
        [&]
        {
            const auto start = Clock::now();
            Pump();
            longest = std::max<double>(longest, SecondsSince(start));
        });
    ASSERT_TRUE(WaitUntil([&] { return client.IsReady(); }));
    m_service->AnswerWith(HOLD);
    auto first = std::async(std::launch::async, [&] { return Sends(client); });
    ASSERT_TRUE(m_service->WaitForCalls("Send", 1));
    const auto event = Event(client.GetUniqueName(), 2);
    EXPECT_TRUE(IsThere(event));
    const auto registration =
        std::async(std::launch::async, [&] { return client.SetCallback(3, Accept); });
    EXPECT_TRUE(IsThere(registration));
    auto second = std::async(std::launch::async, [&] { return Sends(client); });
    EXPECT_TRUE(WaitUntil([&] { return m_service->Count("Send") == 2; }, 3000));
    m_service->ReleaseName(SERVICE_NAME);
    const auto unready = std::async(
        std::launch::async, [&] { return WaitUntil([&] { return !client.IsReady(); }, 10000); });
    EXPECT_TRUE(IsThere(unready));
    EXPECT_LT(longest, 2);
    m_service->AnswerHeld(YES);
    EXPECT_TRUE(first.get());
    EXPECT_TRUE(second.get());
}

TEST_F(Transport, SendWithoutAServiceDoesNotWaitForACallbackThatRuns)
{
    m_service->ReleaseName(SERVICE_NAME);
    TCDbusClient client(false);
    const BackgroundPump pump;
    std::promise<void> entered, leave;
    const auto callback = [&, end = leave.get_future().share()](const Bytes&, Bytes&)
    {
        entered.set_value();
        return end.wait_for(std::chrono::seconds(8)) == std::future_status::ready;
    };
    client.SetCallback(2, callback);
    auto event = Event(client.GetUniqueName(), 2);
    entered.get_future().wait();
    // Waits for the callback, and whoever comes later might wait behind it.
    const auto registration =
        std::async(std::launch::async, [&] { return client.SetCallback(3, Accept); });
    double longest = 0;
    for (int i = 0; i < 200; ++i)
    {
        const auto start = Clock::now();
        EXPECT_FALSE(Sends(client));
        longest = std::max(longest, SecondsSince(start));
    }
    EXPECT_LT(longest, 4);
    leave.set_value();
    EXPECT_EQ(event.get().bytes, (Bytes{1}));
}

TEST_F(Transport, MainLoopGoesOnThoughCallbacksIterateItUnderSteadyTraffic)
{
    TCDbusClient client(false);
    const qor::TGlibPtr<GMainLoop> loop(g_main_loop_new(nullptr, FALSE));
    std::atomic<int> called{0};
    const auto iterate = [&](const Bytes&, Bytes&)
    {
        if (++called == 10)
        {
            g_main_loop_quit(loop.get());
        }
        PumpUntil([] { return false; }, 10);
        return true;
    };
    client.SetCallback(2, iterate);
    const std::string name = client.GetUniqueName();
    std::vector<std::unique_ptr<Repeat>> traffic(4); // one call of each is on the way
    for (auto& sender : traffic)
    {
        sender = std::make_unique<Repeat>(
            [&]
            {
                if (called < 300)
                {
                    m_service->Call(name, SERVICE_PATH, "Send", Request(2, false));
                }
            });
    }
    g_main_loop_run(loop.get());
    EXPECT_LT(called, 100);
    called = 300;
    const BackgroundPump pump;
    traffic.clear();
}

} // namespace
