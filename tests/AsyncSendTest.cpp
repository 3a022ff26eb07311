// Sends with a reason: each status, cancellation, and asynchronous ones in every main context.
#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>

#include <qor/QORDbusClient.h>
#include <qor/api.h>

#include "EndpointFixture.h"
#include "FaultSupport.h"
#include "MuteBus.h"
#include "QORPolicyControlProxy.h"

namespace
{

using namespace qortest;
using qor::ESendStatus;
using qor::TCCancellation;
using qor::TCDbusClient;
using qor::TSSendResult;
using Clock = std::chrono::steady_clock;

Answer DbusError(const std::string& name)
{
    return {Answer::ERROR, {}, name};
}

int MillisecondsSince(Clock::time_point start)
{
    const auto passed = Clock::now() - start;
    return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(passed).count());
}

// The results of asynchronous sends, and the threads that told them.
class Results
{
public:
    qor::TSendCallback Taker()
    {
        return [state = m_state](const TSSendResult& result)
        {
            const std::lock_guard<std::mutex> lock(state->mutex);
            state->told.emplace_back(result, std::this_thread::get_id());
        };
    }

    std::vector<std::pair<TSSendResult, std::thread::id>> All() const
    {
        const std::lock_guard<std::mutex> lock(m_state->mutex);
        return m_state->told;
    }
    std::size_t Count() const
    {
        return All().size();
    }
    ESendStatus Status(std::size_t index = 0) const
    {
        return All().at(index).first.m_status;
    }
    std::thread::id Thread(std::size_t index = 0) const
    {
        return All().at(index).second;
    }

private:
    struct State
    {
        std::mutex mutex;
        std::vector<std::pair<TSSendResult, std::thread::id>> told;
    };
    std::shared_ptr<State> m_state = std::make_shared<State>();
};

// A main context that a thread of its own iterates.
class OtherContext
{
public:
    GMainContext* Get() const
    {
        return m_context.get();
    }

private:
    const qor::TGlibPtr<GMainContext> m_context{g_main_context_new()};
    const Repeat m_thread{[this]
                          { g_main_context_iteration(m_context.get(), FALSE) ? void() : Pause(); }};
};

class Sends : public EndpointLife
{
protected:
    static TSSendResult Call(qor::IDbusClient& client, int timeoutMs = WATCHDOG_MS,
                             const TCCancellation& cancellation = {})
    {
        return client.Call(1, {7}, timeoutMs, cancellation);
    }
    void CallAsync(qor::IDbusClient& client, Results& results, int timeoutMs = WATCHDOG_MS,
                   const TCCancellation& cancellation = {}, GMainContext* pContext = nullptr)
    {
        client.CallAsync(1, {7}, timeoutMs, cancellation, results.Taker(), pContext);
    }
    // Of one asynchronous send, in the default context.
    TSSendResult Outcome(qor::IDbusClient& client, int timeoutMs = WATCHDOG_MS)
    {
        Results results;
        CallAsync(client, results, timeoutMs);
        EXPECT_EQ(results.Count(), 0U); // never from inside the call
        EXPECT_TRUE(PumpUntil([&] { return results.Count() != 0; }));
        PumpUntil([] { return false; }, 20);
        EXPECT_EQ(results.Count(), 1U);
        return results.All().at(0).first;
    }
};

// --- Reasons -------------------------------------------------------------------------------------

TEST_F(Sends, EachOutcomeHasItsStatusCodeAndText)
{
    struct Case
    {
        Answer answer;
        ESendStatus status;
        int code;
        std::string text;
        Bytes response;
    };
    const std::string prefix = "org.freedesktop.DBus.Error.";
    const auto error = [&](const std::string& name, ESendStatus status, int code) {
        return Case{DbusError(name), status, code, name + ": test", {}};
    };
    const std::vector<Case> cases{
        {{Answer::REPLY, {1, 5}, ""}, ESendStatus::ANSWERED_TRUE, 0, "", {5}},
        {{Answer::REPLY, {0, 6}, ""}, ESendStatus::ANSWERED_FALSE, 0, "", {6}},
        error(prefix + "ServiceUnknown", ESendStatus::NO_SERVICE, G_DBUS_ERROR_SERVICE_UNKNOWN),
        error(prefix + "NameHasNoOwner", ESendStatus::NO_SERVICE, G_DBUS_ERROR_NAME_HAS_NO_OWNER),
        error(prefix + "Spawn.ExecFailed", ESendStatus::NO_SERVICE, G_DBUS_ERROR_SPAWN_EXEC_FAILED),
        error("org.freedesktop.systemd1.NoSuchUnit", ESendStatus::NO_SERVICE,
              G_IO_ERROR_DBUS_ERROR),
        error(prefix + "NoReply", ESendStatus::NO_ANSWER, G_DBUS_ERROR_NO_REPLY),
        error(prefix + "AccessDenied", ESendStatus::FORBIDDEN, G_DBUS_ERROR_ACCESS_DENIED),
        error(prefix + "AuthFailed", ESendStatus::FORBIDDEN, G_DBUS_ERROR_AUTH_FAILED),
        error(prefix + "LimitsExceeded", ESendStatus::LIMIT, G_DBUS_ERROR_LIMITS_EXCEEDED),
        error(prefix + "LimitsExceededNot", ESendStatus::FAILED, G_IO_ERROR_DBUS_ERROR),
        error(prefix + "Failed", ESendStatus::FAILED, G_DBUS_ERROR_FAILED)};
    TCDbusClient client(false);
    ASSERT_TRUE(PumpUntil([&] { return client.IsReady(); }));
    for (const Case& one : cases)
    {
        m_service->AnswerWith(one.answer);
        LogCapture::Clear();
        EXPECT_EQ(EndpointLife::Sends(client), one.status == ESendStatus::ANSWERED_TRUE);
        const std::vector<TSSendResult> results{Call(client), Outcome(client)};
        // The same for each kind of send.
        const std::string line = "> Sending message error, errno " + std::to_string(one.code);
        const auto isLine = [&](const LogLine& logged)
        { return logged.text.substr(logged.text.find('>')) == line; };
        const auto lines = LogCapture::Lines();
        EXPECT_EQ(lines.size(), one.text.empty() ? 0U : 3U) << one.text;
        EXPECT_TRUE(std::all_of(lines.begin(), lines.end(), isLine)) << one.text;
        for (const TSSendResult& result : results)
        {
            EXPECT_EQ(result.m_status, one.status) << one.text;
            EXPECT_EQ(result.m_code, one.code) << one.text;
            EXPECT_EQ(result.m_text, one.text);
            EXPECT_EQ(result.m_response, one.response) << one.text;
        }
    }
    const auto sent = m_service->Calls("Send");
    EXPECT_EQ(sent.at(1).bytes, Request(1, false, {7}));
    EXPECT_EQ(sent.at(2).bytes, Request(1, true, {7})); // it can be called back meanwhile
}

TEST_F(Sends, WhatNobodyAnswersHasItsReasonToo)
{
    TCDbusClient client(false);
    m_service->AnswerWith(NEVER);
    const auto start = Clock::now();
    EXPECT_EQ(Call(client, 150).m_status, ESendStatus::NO_ANSWER);
    const TSSendResult late = Outcome(client, 150);
    EXPECT_EQ(late.m_status, ESendStatus::NO_ANSWER);
    EXPECT_EQ(late.m_code, G_IO_ERROR_TIMED_OUT);
    EXPECT_GE(MillisecondsSince(start), 300);
    EXPECT_LT(MillisecondsSince(start), 5000);

    const Bytes large(40 << 20);
    EXPECT_EQ(client.Call(1, large, WATCHDOG_MS, {}).m_status, ESendStatus::TOO_LARGE);
    Results results;
    client.CallAsync(1, large, WATCHDOG_MS, {}, results.Taker(), nullptr);
    ASSERT_TRUE(PumpUntil([&] { return results.Count() == 1; }));
    EXPECT_EQ(results.Status(), ESendStatus::TOO_LARGE);
    EXPECT_EQ(m_service->Count("Send"), 2U);

    m_service->AnswerWith({Answer::LEAVE, {}, ""});
    EXPECT_EQ(Call(client).m_status, ESendStatus::NO_ANSWER); // it left before it had answered
    const TSSendResult nobody = Outcome(client);
    EXPECT_EQ(nobody.m_status, ESendStatus::NO_SERVICE);
    EXPECT_NE(nobody.m_text.find("ServiceUnknown: The name "), std::string::npos) << nobody.m_text;

    m_bus.Kill();
    const TSSendResult lost = Call(client);
    EXPECT_EQ(lost.m_status, ESendStatus::NO_BUS);
    EXPECT_EQ(lost.m_text, "The connection is closed");
    EXPECT_EQ(Outcome(client).m_status, ESendStatus::NO_BUS);
}

TEST_F(Sends, EndpointThatNeverStartedSaysSo)
{
    LeaveTheBus();
    TCDbusClient client(false);
    EXPECT_EQ(Call(client).m_status, ESendStatus::NO_BUS);
    EXPECT_EQ(Outcome(client).m_text.rfind("Could not connect: ", 0), 0U);
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "pResult is NULL"), 2U);
}

TEST_F(Sends, OnlyASendThatMayStartTheServiceDoes)
{
    m_service->AnswerHelloUsing([](const IncomingCall&)
                                { return DbusError("org.freedesktop.DBus.Error.Failed"); });
    TCDbusClient client(false);
    std::vector<qor::EClientState> states;
    client.AddStateCallback([&](qor::EClientState state) { states.push_back(state); });
    EXPECT_EQ(client.Call(1, {}, WATCHDOG_MS, {}, false).m_status, ESendStatus::ANSWERED_TRUE);
    EXPECT_EQ(Call(client).m_status, ESendStatus::ANSWERED_TRUE);
    ASSERT_TRUE(PumpUntil([&] { return m_service->Count("Hello") > 3; }));
    m_service->AnswerHelloUsing([](const IncomingCall&) { return Answer{Answer::NO_VALUE, {}}; });
    ASSERT_TRUE(PumpUntil([&] { return states.size() > 2; }));
    std::vector<bool> mayStart;
    for (const IncomingCall& call : m_service->Calls())
    {
        mayStart.push_back(call.mayStart);
    }
    mayStart.resize(5);
    // The send that may not, Hello and send that may, Hello when the service appears, and again.
    EXPECT_EQ(mayStart, std::vector<bool>({false, true, true, false, false}));
    using State = qor::EClientState;
    EXPECT_EQ(states, std::vector<State>(
                          {State::SERVICE_APPEARED, State::UNREGISTERED, State::REGISTERED}));
}

// What a foreign process says goes to terminals.
TEST_F(Sends, TextIsPrintableAndBounded)
{
    TCDbusClient client(false);
    const auto text = [&](const std::string& words)
    {
        m_service->AnswerWith({Answer::ERROR, Bytes(words.begin(), words.end()), "a.b"});
        return Call(client).m_text;
    };
    EXPECT_EQ(text("a\x1b[31m\nb\u009b\u202e\u00e9"), "a.b: a?[31m?b??\u00e9");
    EXPECT_EQ(text(std::string(2000, 'x')), "a.b: " + std::string(995, 'x'));
    EXPECT_EQ(text(std::string(994, 'x') + "\u00e9"), "a.b: " + std::string(994, 'x')); // whole
}

// --- Cancellation --------------------------------------------------------------------------------

TEST_F(Sends, CancellationFromAnotherThreadEndsWhatWaits)
{
    TCDbusClient client(false);
    m_service->AnswerWith(NEVER);
    const OtherContext other;
    TCCancellation cancellation;
    Results results;
    CallAsync(client, results, WATCHDOG_MS, cancellation);
    CallAsync(client, results, WATCHDOG_MS, cancellation, other.Get());
    auto waiting =
        std::async(std::launch::async, [&] { return Call(client, WATCHDOG_MS, cancellation); });
    ASSERT_TRUE(m_service->WaitForCalls("Send", 3));
    const auto start = Clock::now();
    std::thread([copy = cancellation]() mutable { copy.Cancel(); }).join();
    EXPECT_EQ(waiting.get().m_status, ESendStatus::CANCELLED);
    EXPECT_LT(MillisecondsSince(start), 5000);
    ASSERT_TRUE(PumpUntil([&] { return results.Count() == 2; }));
    EXPECT_EQ(results.Status(0), ESendStatus::CANCELLED);
    EXPECT_EQ(results.Status(1), ESendStatus::CANCELLED);
    EXPECT_TRUE(cancellation.IsCancelled());
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Sending message"), 0U);

    m_service->ForgetCalls(); // later ones are not even sent
    EXPECT_EQ(Call(client, WATCHDOG_MS, cancellation).m_status, ESendStatus::CANCELLED);
    CallAsync(client, results, WATCHDOG_MS, cancellation);
    ASSERT_TRUE(PumpUntil([&] { return results.Count() == 3; }));
    m_service->AnswerWith(YES);
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
        EXPECT_LT(MillisecondsSince(start), 1500);
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
        hung.Connections() == 2 ? cancellation.Cancel() : void();
        return sent.get();
    };
    EXPECT_EQ(searches(2, sendAndCancel), ESendStatus::CANCELLED);
}

// --- Asynchronous --------------------------------------------------------------------------------

TEST_F(Sends, ResultsComeInTheChosenContextExactlyOnce)
{
    TCDbusClient client(false);
    const OtherContext other;
    Results here, there;
    std::atomic<int> count{0};
    m_service->AnswerUsing([&](const IncomingCall&) { return ++count % 3 == 0 ? NEVER : YES; });
    for (int i = 0; i < 60; ++i)
    {
        CallAsync(client, i % 2 == 0 ? here : there, 300, {}, i % 2 == 0 ? nullptr : other.Get());
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
    EXPECT_LT(MillisecondsSince(start), 2500); // not with the next look, 100 ms later
    PumpUntil([] { return false; }, 200);
    int wakeUps = 0;
    PumpUntil([&] { return wakeUps += g_main_context_pending(nullptr) ? 1 : 0, false; }, 500);
    EXPECT_EQ(wakeUps, 0);
}

TEST_F(Sends, BusThatDiesEndsWhatWaitsAndAsyncSendsDoNotLookForIt)
{
    TCDbusClient client(false);
    m_service->AnswerWith(NEVER);
    const OtherContext other;
    Results results;
    CallAsync(client, results);
    CallAsync(client, results, WATCHDOG_MS, {}, other.Get());
    auto waiting = std::async(std::launch::async, [&] { return Call(client); });
    ASSERT_TRUE(m_service->WaitForCalls("Send", 3));
    m_bus.Kill();
    EXPECT_EQ(waiting.get().m_status, ESendStatus::NO_BUS);
    ASSERT_TRUE(PumpUntil([&] { return results.Count() == 2; }));
    EXPECT_EQ(results.Status(0), ESendStatus::NO_BUS);
    EXPECT_EQ(results.Status(1), ESendStatus::NO_BUS);
    m_bus.Restart();
    Serve();
    CallAsync(client, results, WATCHDOG_MS, {}, other.Get());
    ASSERT_TRUE(WaitUntil([&] { return results.Count() == 3; }));
    EXPECT_EQ(results.Status(2), ESendStatus::NO_BUS);
    ASSERT_TRUE(PumpUntil([&] { return client.IsReady(); })); // the main context has found it
    EXPECT_EQ(Outcome(client).m_status, ESendStatus::ANSWERED_TRUE);
}

// --- The end of the endpoint ---------------------------------------------------------------------

TEST_F(Sends, NothingIsToldAfterTheEndpointIsGone)
{
    const OtherContext other;
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
                i % 2 == 0 ? nullptr : other.Get());
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
    const OtherContext other;
    auto client = std::make_unique<TCDbusClient>(false);
    std::promise<void> entered;
    std::atomic<bool> left{false};
    const auto take = [&](const TSSendResult&)
    {
        entered.set_value();
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); // long enough to overtake it
        left = true;
    };
    client->CallAsync(1, {}, WATCHDOG_MS, {}, take, other.Get());
    entered.get_future().wait();
    client.reset();
    EXPECT_TRUE(left);
}

TEST_F(Sends, ResultMayLetGoOfTheLastPointerToTheEndpoint)
{
    const OtherContext other;
    for (GMainContext* const pContext : {static_cast<GMainContext*>(nullptr), other.Get()})
    {
        auto client = boost::make_shared<TCDbusClient>(false);
        const boost::weak_ptr<TCDbusClient> alive(client);
        Results results;
        client->CallAsync(
            1, {}, WATCHDOG_MS, {},
            [client, take = results.Taker()](const TSSendResult& result) { take(result); },
            pContext);
        client.reset();
        EXPECT_FALSE(alive.expired());
        EXPECT_TRUE(PumpUntil([&] { return results.Count() == 1 && alive.expired(); }));
    }
}

TEST_F(Sends, ThreadsSendCancelAndEndEndpointsAtWill)
{
    m_service->AnswerUsing([count = 0](const IncomingCall&) mutable
                           { return ++count % 4 == 0 ? NEVER : YES; });
    const OtherContext first, second;
    const BackgroundPump pump;
    Results results;
    for (int round = 0; round < 20; ++round)
    {
        auto client = std::make_unique<TCDbusClient>(round % 2 == 0);
        TCCancellation cancellation;
        std::vector<std::future<void>> threads;
        for (const OtherContext* const pContext : {&first, &second})
        {
            const auto send = [&, pContext]
            {
                for (int i = 0; i < 20; ++i)
                {
                    CallAsync(*client, results, 50, i % 2 == 0 ? cancellation : TCCancellation(),
                              pContext->Get());
                }
            };
            threads.push_back(std::async(std::launch::async, send));
        }
        threads.push_back(std::async(std::launch::async, [&] { cancellation.Cancel(); }));
        threads.clear();
        client.reset();
    }
    EXPECT_LE(results.Count(), 800U);
}

// --- Policies ------------------------------------------------------------------------------------

class Policies : public Sends
{
protected:
    qor::TCPolicyControlProxy m_control;
};

TEST_F(Policies, ResultIsThatOfTheServiceOrTheReasonWhyThereIsNone)
{
    struct Case
    {
        Bytes reply;
        ESendStatus status;
        int code, result;
        std::string text;
    };
    const std::vector<Case> cases{{PolicyReply(5), ESendStatus::ANSWERED_TRUE, 0, 5, ""},
                                  {{1, 2, 3},
                                   ESendStatus::FAILED,
                                   G_IO_ERROR_INVALID_DATA,
                                   -1,
                                   "The answer cannot be read: "},
                                  {{0}, ESendStatus::ANSWERED_FALSE, 0, -1, ""}};
    for (const Case& one : cases)
    {
        m_service->AnswerWith({Answer::REPLY, one.reply, ""});
        std::promise<qor::TSPolicyResult> promise;
        m_control.SetPolicyAsync(
            "p", WATCHDOG_MS, {}, [&](const auto& result) { promise.set_value(result); }, nullptr);
        const qor::TSPolicyResult direct = m_control.SetPolicy("p", WATCHDOG_MS, {});
        for (const qor::TSPolicyResult& result : {direct, Await(promise.get_future())})
        {
            EXPECT_EQ(result.m_send.m_status, one.status);
            EXPECT_EQ(result.m_send.m_code, one.code);
            EXPECT_EQ(result.m_send.m_text.rfind(one.text, 0), 0U) << result.m_send.m_text;
            EXPECT_EQ(result.m_send.m_text.empty(), one.text.empty());
            EXPECT_EQ(result.m_result, one.result);
        }
    }
    EXPECT_EQ(m_service->Calls("Send").at(0).bytes, Request(4, true, Archive("p")));
    EXPECT_EQ(m_service->Calls("Send").at(1).bytes, Request(4, false, Archive("p")));
}

TEST_F(BusTest, PolicyControlIsFinalLikeTheControlObject)
{
    QORTEST_IN_CHILD({
        RawPeer service;
        service.OwnName(SERVICE_NAME);
        service.AnswerWith({Answer::REPLY, PolicyReply(9), ""});
        boost::shared_ptr<qor::IPolicyControl> control = qor::api::GetPolicyControl();
        EXPECT_EQ(qor::api::GetPolicyControl(), control);
        qor::TCPolicyControlProxy::Destroy();
        EXPECT_FALSE(qor::api::GetPolicyControl());
        EXPECT_EQ(control->SetPolicy("p", WATCHDOG_MS, {}).m_result, 9);
        control.reset();
        EXPECT_TRUE(SharedConnectionIsLetGo());
    });
}

// The teardown destroys the endpoint while a result of it is being told.
TEST_F(BusTest, ProcessMayExitFromInsideAResult)
{
    QORTEST_IN_CHILD({
        RawPeer service;
        service.OwnName(SERVICE_NAME);
        const auto leave = [](const qor::TSPolicyResult&) { std::exit(HasFailure() ? 1 : 0); };
        for (int i = 0; i < 3; ++i) // two of them are pending then
        {
            qor::api::GetPolicyControl()->SetPolicyAsync("p", WATCHDOG_MS, {}, leave, nullptr);
        }
        PumpUntil([] { return false; });
        std::abort(); // no result has come
    });
}

} // namespace
