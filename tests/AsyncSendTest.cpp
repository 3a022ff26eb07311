// Sends with a reason: each status and its words, in both forms, and what policies make of them.
#include <algorithm>
#include <future>
#include <string>
#include <tuple>
#include <vector>

#include <qor/QORDbusClient.h>
#include <qor/api.h>

#include "FaultSupport.h"
#include "QORPolicyControlProxy.h"
#include "SendsFixture.h"

namespace
{

using namespace qortest;
using qor::ESendStatus;
using qor::TCDbusClient;
using qor::TSSendResult;

TEST_F(Sends, EachOutcomeHasItsStatusCodeAndText)
{
    using Case = std::tuple<Answer, ESendStatus, int, std::string, Bytes>;
    const std::string prefix = "org.freedesktop.DBus.Error.";
    const auto error = [&](const std::string& name, ESendStatus status, int code) {
        return Case{{Answer::ERROR, {}, name}, status, code, name + ": test", {}};
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
    for (const auto& [answer, status, code, text, response] : cases)
    {
        m_service->AnswerWith(answer);
        LogCapture::Clear();
        EXPECT_EQ(EndpointLife::Sends(client), status == ESendStatus::ANSWERED_TRUE);
        const std::vector<TSSendResult> results{Call(client), Outcome(client)};
        // The same for each kind of send.
        const std::string line = "> Sending message error, errno " + std::to_string(code);
        const auto isLine = [&](const LogLine& logged)
        { return logged.text.substr(logged.text.find('>')) == line; };
        const auto lines = LogCapture::Lines();
        EXPECT_EQ(lines.size(), text.empty() ? 0U : 3U) << text;
        EXPECT_TRUE(std::all_of(lines.begin(), lines.end(), isLine)) << text;
        for (const TSSendResult& result : results)
        {
            EXPECT_EQ(result.m_status, status) << text;
            EXPECT_EQ(result.m_code, code) << text;
            EXPECT_EQ(result.m_text, text);
            EXPECT_EQ(result.m_response, response) << text;
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
    EXPECT_GE(SecondsSince(start), 0.3);
    EXPECT_LT(SecondsSince(start), 5);

    const Bytes large(40 << 20);
    EXPECT_EQ(client.Call(1, large, WATCHDOG_MS, {}).m_status, ESendStatus::TOO_LARGE);
    Results results;
    client.CallAsync(1, large, WATCHDOG_MS, {}, results.Taker(), nullptr);
    ASSERT_TRUE(PumpUntil([&] { return results.Count() == 1; }));
    EXPECT_EQ(results.Status(), ESendStatus::TOO_LARGE);
    EXPECT_EQ(m_service->Count("Send"), 2U);

    m_service->AnswerWith(LEAVE);
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
    m_service->AnswerHelloUsing([](const IncomingCall&) { return DbusError("Failed"); });
    TCDbusClient client(false);
    std::vector<qor::EClientState> states;
    client.AddStateCallback([&](qor::EClientState state) { states.push_back(state); });
    EXPECT_EQ(client.Call(1, {}, WATCHDOG_MS, {}, false).m_status, ESendStatus::ANSWERED_TRUE);
    EXPECT_EQ(Call(client).m_status, ESendStatus::ANSWERED_TRUE);
    ASSERT_TRUE(PumpUntil([&] { return m_service->Count("Hello") > 3; }));
    m_service->AnswerHelloUsing([](const IncomingCall&) { return NO_VALUE; });
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

TEST_F(Sends, ResultOfAPolicyIsThatOfTheServiceOrTheReasonWhyThereIsNone)
{
    const std::tuple<Bytes, ESendStatus, int, std::string, int> cases[] = {
        {PolicyReply(5), ESendStatus::ANSWERED_TRUE, 0, "", 5},
        {{1, 2, 3},
         ESendStatus::FAILED,
         G_IO_ERROR_INVALID_DATA,
         "The answer cannot be read: ",
         -1},
        {{0}, ESendStatus::ANSWERED_FALSE, 0, "", -1}};
    qor::TCPolicyControlProxy control;
    for (const auto& [reply, status, code, text, expected] : cases)
    {
        m_service->AnswerWith({Answer::REPLY, reply, ""});
        std::promise<qor::TSPolicyResult> promise;
        control.SetPolicyAsync(
            "p", WATCHDOG_MS, {}, [&](const auto& result) { promise.set_value(result); }, nullptr);
        const qor::TSPolicyResult direct = control.SetPolicy("p", WATCHDOG_MS, {});
        for (const qor::TSPolicyResult& result : {direct, Await(promise.get_future())})
        {
            EXPECT_EQ(result.m_send.m_status, status);
            EXPECT_EQ(result.m_send.m_code, code);
            EXPECT_EQ(result.m_send.m_text.rfind(text, 0), 0U) << result.m_send.m_text;
            EXPECT_EQ(result.m_send.m_text.empty(), text.empty());
            EXPECT_EQ(result.m_result, expected);
        }
    }
    EXPECT_EQ(m_service->Calls("Send").at(0).bytes, Request(4, true, Archive("p")));
    EXPECT_EQ(m_service->Calls("Send").at(1).bytes, Request(4, false, Archive("p")));
}

TEST_F(Sends, PolicyIsFetchedByteForByteInBothForms)
{
    const Bytes policy{'<', 0xFF, 0, '/', '>'};
    m_service->AnswerMethodsUsing(
        [&](const std::string& method)
        { return method == "GetPolicyBytes" ? RawPeer::Wrap(policy) : nullptr; });
    qor::TCPolicyControlProxy control;
    std::promise<std::string> later;
    control.GetPolicyAsync(
        3, -1, {}, [&](const auto& text) { later.set_value(text.m_policy); }, nullptr);
    for (const std::string& text :
         {control.GetPolicy(0, -1, {}).m_policy, Await(later.get_future())})
    {
        EXPECT_EQ(Bytes(text.begin(), text.end()), policy);
    }
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
