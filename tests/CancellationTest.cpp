// Sends that are cancelled, outlive the bus or their endpoint, or end in another main context.
#include <atomic>
#include <future>
#include <memory>

#include <boost/make_shared.hpp>

#include <qor/QORContextThread.h>
#include <qor/QORDbusClient.h>

#include "MuteBus.h"
#include "SendsFixture.h"

namespace
{

using namespace qortest;
using qor::ESendStatus;
using qor::TCCancellation;
using qor::TCContextThread;
using qor::TCDbusClient;
using qor::TSSendResult;

TEST_F(Sends, CancellationFromAnotherThreadAndTheEndOfTheBusEndWhatWaits)
{
    TCDbusClient client(false);
    m_service->AnswerWith(NEVER);
    const TCContextThread other;
    for (const ESendStatus status : {ESendStatus::CANCELLED, ESendStatus::NO_BUS})
    {
        TCCancellation cancellation;
        Results results;
        m_service->ForgetCalls();
        CallAsync(client, results, WATCHDOG_MS, cancellation);
        CallAsync(client, results, WATCHDOG_MS, cancellation, other.Context());
        auto waiting =
            std::async(std::launch::async, [&] { return Call(client, WATCHDOG_MS, cancellation); });
        ASSERT_TRUE(m_service->WaitForCalls("Send", 3));
        EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Sending message"), 0U); // not of a cancelled one
        const auto start = Clock::now();
        if (status == ESendStatus::NO_BUS)
        {
            m_bus.Kill();
        }
        else
        {
            std::thread([copy = cancellation]() mutable { copy.Cancel(); }).join();
            EXPECT_TRUE(cancellation.IsCancelled());
        }
        EXPECT_EQ(waiting.get().m_status, status);
        EXPECT_LT(SecondsSince(start), 15); // not the watchdog
        ASSERT_TRUE(PumpUntil([&] { return results.Count() == 2; }));
        EXPECT_EQ(results.Status(0), status);
        EXPECT_EQ(results.Status(1), status);
    }
    m_bus.Restart();
    Serve();
    Results results; // an asynchronous send does not look for the bus
    CallAsync(client, results, WATCHDOG_MS, {}, other.Context());
    ASSERT_TRUE(WaitUntil([&] { return results.Count() == 1; }));
    EXPECT_EQ(results.Status(), ESendStatus::NO_BUS);
    ASSERT_TRUE(PumpUntil([&] { return client.IsReady(); })); // the main context has found it
    EXPECT_EQ(Outcome(client).m_status, ESendStatus::ANSWERED_TRUE);
}

TEST_F(Sends, WhatHasBeenCancelledBeforeIsNotEvenSent)
{
    TCDbusClient client(false);
    TCCancellation cancellation;
    cancellation.Cancel();
    Results results;
    EXPECT_EQ(Call(client, WATCHDOG_MS, cancellation).m_status, ESendStatus::CANCELLED);
    CallAsync(client, results, WATCHDOG_MS, cancellation);
    ASSERT_TRUE(PumpUntil([&] { return results.Count() == 1; }));
    EXPECT_EQ(Call(client).m_status, ESendStatus::ANSWERED_TRUE);
    EXPECT_EQ(m_service->Count("Send"), 1U);
}

TEST_F(Sends, SearchForALostBusKeepsToTimeLimitAndCancellation)
{
    TCDbusClient client(false);
    m_bus.Kill();
    MuteBus hung;
    auto start = Clock::now();
    const auto searches = [&](std::size_t count, const std::function<TSSendResult()>& send)
    {
        ESendStatus status = ESendStatus::FAILED;
        const auto hasSearched = [&]
        {
            start = Clock::now();
            status = send().m_status;
            return hung.Connections() == count; // not one that came too soon after the last
        };
        EXPECT_TRUE(WaitUntil(hasSearched));
        EXPECT_LT(SecondsSince(start), 1.5);
        return status;
    };
    EXPECT_EQ(searches(1, [&] { return Call(client, 200); }), ESendStatus::NO_BUS);
    TCCancellation cancellation;
    const auto sendAndCancel = [&]
    {
        auto sent =
            std::async(std::launch::async, [&] { return Call(client, WATCHDOG_MS, cancellation); });
        const auto isBack = [&]
        { return sent.wait_for(std::chrono::seconds(0)) == std::future_status::ready; };
        WaitUntil([&] { return hung.Connections() == 2 || isBack(); });
        if (hung.Connections() == 2)
        {
            cancellation.Cancel();
        }
        return sent.get();
    };
    EXPECT_EQ(searches(2, sendAndCancel), ESendStatus::CANCELLED);
}

TEST_F(Sends, ResultsComeInTheChosenContextExactlyOnce)
{
    TCDbusClient client(false);
    const TCContextThread other;
    Results here, there;
    std::atomic<int> count{0};
    m_service->AnswerUsing([&](const IncomingCall&) { return ++count % 3 == 0 ? NEVER : YES; });
    for (int i = 0; i < 60; ++i)
    {
        CallAsync(client, i % 2 == 0 ? here : there, i % 3 == 2 ? 300 : WATCHDOG_MS, {},
                  i % 2 == 0 ? nullptr : other.Context());
    }
    ASSERT_TRUE(WaitUntil([&] { return there.Count() == 30; }));
    EXPECT_EQ(here.Count(), 0U); // nobody has iterated that context
    ASSERT_TRUE(PumpUntil([&] { return here.Count() == 30; }));
    PumpUntil([] { return false; }, 300);
    EXPECT_EQ(here.Count() + there.Count(), 60U);
    std::size_t unanswered = 0;
    for (std::size_t i = 0; i < 30; ++i)
    {
        EXPECT_EQ(here.Thread(i), std::this_thread::get_id());
        EXPECT_EQ(there.Thread(i), there.Thread(0));
        EXPECT_NE(there.Thread(i), std::this_thread::get_id());
        unanswered += here.Status(i) == ESendStatus::NO_ANSWER ? 1 : 0;
        unanswered += there.Status(i) == ESendStatus::NO_ANSWER ? 1 : 0;
    }
    EXPECT_EQ(unanswered, 20U);

    // What is told keeps nothing, not even its context.
    bool isGone = false;
    GMainContext* const pShort = g_main_context_new();
    const qor::TGlibPtr<GSource> source(g_timeout_source_new(WATCHDOG_MS));
    g_source_set_callback(source.get(), nullptr, &isGone,
                          [](void* pIsGone) { *static_cast<bool*>(pIsGone) = true; });
    g_source_attach(source.get(), pShort);
    CallAsync(client, there, WATCHDOG_MS, {}, pShort);
    while (there.Count() == 30)
    {
        g_main_context_iteration(pShort, TRUE);
    }
    g_main_context_unref(pShort);
    EXPECT_TRUE(isGone);
}

TEST_F(Sends, AnswerIsToldAtOnceAndNothingIsWokenUpWithoutOne)
{
    TCDbusClient client(false);
    ASSERT_TRUE(PumpUntil([&] { return m_service->Count("Hello") > 0; }));
    const auto start = Clock::now();
    for (int i = 0; i < 50; ++i)
    {
        Results results;
        CallAsync(client, results);
        ASSERT_TRUE(PumpUntil([&] { return results.Count() == 1; }));
    }
    EXPECT_LT(SecondsSince(start), 4); // not with the next look, 100 ms later
    PumpUntil([] { return false; }, 200);
    EXPECT_FALSE(PumpUntil([] { return g_main_context_pending(nullptr) != FALSE; }, 500));
}

TEST_F(Sends, NothingIsToldAfterTheEndpointIsGone)
{
    const TCContextThread other;
    Results results;
    const auto held = std::make_shared<int>();
    for (const Answer& answer : {NEVER, YES})
    {
        auto client = std::make_unique<TCDbusClient>(false);
        m_service->AnswerWith(answer);
        m_service->ForgetCalls();
        for (int i = 0; i < 20; ++i)
        {
            client->CallAsync(
                1, {}, 200, {}, [held, take = results.Taker()](const TSSendResult& r) { take(r); },
                i % 2 == 0 ? nullptr : other.Context());
        }
        ASSERT_TRUE(m_service->WaitForCalls("Send", 20));
        client.reset();
        EXPECT_EQ(held.use_count(), 1); // what they held is let go
        const std::size_t before = results.Count();
        PumpUntil([] { return false; }, 300);
        EXPECT_EQ(results.Count(), before);
    }
}

TEST_F(Sends, DestructorWaitsForAResultThatIsBeingTold)
{
    const TCContextThread other;
    auto client = std::make_unique<TCDbusClient>(false);
    std::promise<void> entered;
    std::atomic<bool> left{false};
    const auto take = [&](const TSSendResult&)
    {
        entered.set_value();
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); // long enough to overtake it
        left = true;
    };
    client->CallAsync(1, {}, WATCHDOG_MS, {}, take, other.Context());
    entered.get_future().wait();
    client.reset();
    EXPECT_TRUE(left);
}

TEST_F(Sends, ResultMayLetGoOfTheLastPointerToTheEndpoint)
{
    const TCContextThread other;
    m_service->AnswerWith(HOLD);
    for (GMainContext* const pContext : {static_cast<GMainContext*>(nullptr), other.Context()})
    {
        auto client = boost::make_shared<TCDbusClient>(false);
        const boost::weak_ptr<TCDbusClient> alive(client);
        Results results;
        client->CallAsync(
            1, {}, WATCHDOG_MS, {},
            [client, take = results.Taker()](const TSSendResult& result) { take(result); },
            pContext);
        client.reset();
        ASSERT_TRUE(m_service->WaitForCalls("Send", 1));
        EXPECT_FALSE(alive.expired());
        m_service->AnswerHeld(YES);
        EXPECT_TRUE(PumpUntil([&] { return results.Count() == 1 && alive.expired(); }));
        m_service->ForgetCalls();
    }
}

} // namespace
