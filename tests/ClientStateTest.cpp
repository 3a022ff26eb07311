// What a client's observers are told, and threads that iterate a context of their own.
#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>
#include <vector>

#include <qor/QORContextThread.h>
#include <qor/QORDbusClient.h>

#include "EndpointFixture.h"

namespace
{

using namespace qortest;
using qor::EClientState;
using qor::TCContextThread;
using qor::TCDbusClient;
using Told = std::vector<EClientState>;

constexpr EClientState APPEARED = EClientState::SERVICE_APPEARED;
constexpr EClientState VANISHED = EClientState::SERVICE_VANISHED;
constexpr EClientState REGISTERED = EClientState::REGISTERED;
constexpr EClientState UNREGISTERED = EClientState::UNREGISTERED;
constexpr EClientState LOST = EClientState::BUS_LOST;
constexpr EClientState FOUND = EClientState::BUS_FOUND;

class States : public EndpointLife
{
protected:
    static bool Hears(const Told& told, const Told& expected)
    {
        PumpUntil([&] { return told.size() >= expected.size(); });
        PumpUntil([] { return false; }, 50);
        EXPECT_EQ(told, expected);
        return told == expected;
    }

    qor::TStateCallback Into(Told& told)
    {
        return [&told](EClientState state) { told.push_back(state); };
    }

    Told m_told;
    TCDbusClient m_client{false};
    const unsigned int m_id = m_client.AddStateCallback(Into(m_told));
};

TEST_F(States, ObserversHearEachChangeAndNewOnesHowThingsStand)
{
    Told second, third;
    EXPECT_NE(m_id, 0U);
    EXPECT_TRUE(Hears(m_told, {APPEARED, REGISTERED}));
    m_client.AddStateCallback(Into(second));
    EXPECT_TRUE(Hears(second, {APPEARED, REGISTERED}));
    m_service->ReleaseName(SERVICE_NAME);
    EXPECT_TRUE(Hears(m_told, {APPEARED, REGISTERED, VANISHED}));
    EXPECT_TRUE(m_client.RemoveStateCallback(m_id));
    EXPECT_FALSE(m_client.RemoveStateCallback(m_id));
    m_service->OwnName(SERVICE_NAME);
    EXPECT_TRUE(Hears(second, {APPEARED, REGISTERED, VANISHED, APPEARED, REGISTERED}));
    second.clear();
    m_bus.Kill();
    EXPECT_TRUE(Hears(second, {VANISHED, LOST}));
    m_client.AddStateCallback(Into(third));
    EXPECT_TRUE(Hears(third, {LOST}));
    m_bus.Restart();
    Serve();
    EXPECT_TRUE(Hears(second, {VANISHED, LOST, FOUND, APPEARED, REGISTERED}));
    EXPECT_TRUE(Hears(third, {LOST, FOUND, APPEARED, REGISTERED}));
    EXPECT_EQ(m_told.size(), 3U);
}

// A thread that sends sees the new bus before the main context has seen the old one go.
TEST_F(States, LossIsToldThoughASendWasFirstToFindTheBus)
{
    EXPECT_TRUE(Hears(m_told, {APPEARED, REGISTERED}));
    RestartBus();
    EXPECT_TRUE(WaitUntil([&] { return Sends(m_client); }));
    EXPECT_TRUE(Hears(m_told, {APPEARED, REGISTERED, VANISHED, LOST, FOUND, APPEARED, REGISTERED}));
}

TEST_F(States, RegisteredIsToldWhenTheNewestTypesAreConfirmedAndNotBefore)
{
    std::atomic<int> refusals{0};
    m_service->AnswerHelloUsing([&](const IncomingCall&)
                                { return refusals-- > 0 ? DbusError("Failed") : NO_VALUE; });
    EXPECT_TRUE(Hears(m_told, {APPEARED, REGISTERED}));
    m_client.SetCallback(2, Accept);
    m_client.SetCallback(3, Accept); // one word for both
    EXPECT_TRUE(Hears(m_told, {APPEARED, REGISTERED, REGISTERED}));
    refusals = 2;
    m_client.SetCallback(4, Accept);
    ASSERT_TRUE(WaitUntil([&] { return refusals < 2; }));
    PumpUntil([] { return false; }, 20);
    EXPECT_EQ(m_told.size(), 3U);
    Told late; // is not told of what was confirmed before
    m_client.AddStateCallback(Into(late));
    EXPECT_TRUE(Hears(m_told, {APPEARED, REGISTERED, REGISTERED, UNREGISTERED, REGISTERED}));
    EXPECT_TRUE(Hears(late, {APPEARED, UNREGISTERED, REGISTERED}));
}

TEST_F(States, ObserverRunsWhileNoCallbackDoes)
{
    EXPECT_TRUE(Hears(m_told, {APPEARED, REGISTERED}));
    bool wasTold = true;
    const auto iterate = [&](const Bytes&, Bytes&)
    {
        const std::size_t before = m_told.size();
        m_service->ReleaseName(SERVICE_NAME);
        PumpUntil([] { return false; }, 100);
        wasTold = m_told.size() != before;
        return true;
    };
    m_client.SetCallback(2, iterate);
    Await(Event(m_client.GetUniqueName(), 2));
    EXPECT_FALSE(wasTold);
    PumpUntil([&] { return m_told.back() == VANISHED; });
    EXPECT_EQ(m_told.back(), VANISHED);
}

TEST_F(States, RemovedObserverIsNotRunningAndMayRemoveItself)
{
    const BackgroundPump pump;
    std::promise<void> entered;
    std::atomic<bool> left{false};
    const auto slow = [&](EClientState state)
    {
        if (state == APPEARED)
        {
            entered.set_value();
            std::this_thread::sleep_for(std::chrono::milliseconds(50)); // long enough to overtake
            left = true;
        }
    };
    const unsigned int id = m_client.AddStateCallback(slow);
    entered.get_future().wait();
    EXPECT_TRUE(m_client.RemoveStateCallback(id));
    EXPECT_TRUE(left);
    std::atomic<int> calls{0};
    std::atomic<unsigned int> own{0};
    own = m_client.AddStateCallback(
        [&](EClientState)
        {
            WaitUntil([&] { return own != 0; });
            ++calls;
            EXPECT_TRUE(m_client.RemoveStateCallback(own));
        });
    EXPECT_TRUE(WaitUntil([&] { return calls == 1; }));
    m_service->ReleaseName(SERVICE_NAME);
    EXPECT_TRUE(WaitUntil([&] { return !m_client.IsReady(); }));
    EXPECT_EQ(calls, 1);
}

// --- A thread for a context ----------------------------------------------------------------------

TEST_F(EndpointLife, ContextThreadIteratesWhatIsMadeOnIt)
{
    std::atomic<int> told{0};
    std::thread::id toldOn;
    {
        TCContextThread thread;
        std::unique_ptr<TCDbusClient> client;
        thread.Run([&] { client = std::make_unique<TCDbusClient>(false); });
        std::thread::id runsOn;
        thread.Run([&] { runsOn = std::this_thread::get_id(); });
        EXPECT_NE(runsOn, std::this_thread::get_id());
        client->AddStateCallback(
            [&](EClientState)
            {
                toldOn = std::this_thread::get_id();
                thread.Run([&] { ++told; }); // at once
            });
        EXPECT_TRUE(WaitUntil([&] { return told == 2; }));
        EXPECT_EQ(toldOn, runsOn);
        std::promise<qor::ESendStatus> status;
        client->CallAsync(
            1, {}, WATCHDOG_MS, {}, [&](const auto& result) { status.set_value(result.m_status); },
            thread.Context());
        EXPECT_EQ(status.get_future().get(), qor::ESendStatus::ANSWERED_TRUE);
        thread.Run([&] { client.reset(); });
    }
    EXPECT_EQ(told, 2);
}

TEST(ContextThread, PassesExceptionsOnAndMayEndAtOnce)
{
    for (int i = 0; i < 100; ++i)
    {
        TCContextThread idle;
    }
    TCContextThread thread;
    EXPECT_THROW(thread.Run([] { throw std::runtime_error("out of it"); }), std::runtime_error);
    bool isRun = false;
    thread.Run([&] { isRun = true; });
    EXPECT_TRUE(isRun);
}

} // namespace
