// A policy's way from the command line, and from a program, to the service's file.
#include <csignal>
#include <future>

#include <qor/QORDbusClient.h>
#include <qor/api.h>

#include "LogCapture.h"
#include "MainContext.h"
#include "RawPeer.h"
#include "ToolRunner.h"

namespace
{

using namespace qortest;

class SetPolicy : public ToolTest
{
};

std::string PolicyOfSize(std::size_t size)
{
    return "<policy>" + std::string(size - 17, 'x') + "</policy>";
}

TEST_F(SetPolicy, GoodPoliciesAreStoredWhole)
{
    auto qord = StartQord();
    const Outcome sample = Qorctl({"set-policy", SAMPLE_POLICY});
    EXPECT_EQ(sample.exitCode, 0) << sample.err;
    EXPECT_NE(sample.out.find("stored"), std::string::npos);
    EXPECT_EQ(StoredPolicy(), ReadFile(SAMPLE_POLICY));

    const std::string large = PolicyOfSize(5 * 1024 * 1024);
    const Outcome piped = Qorctl({"--quiet", "set-policy", "-"}, large);
    EXPECT_EQ(piped.exitCode, 0) << piped.err;
    EXPECT_EQ(piped.out + piped.err, "");
    EXPECT_TRUE(StoredPolicy() == large);
}

TEST_F(SetPolicy, RefusalsAreSaidInWordsAndChangeNothing)
{
    WriteFile(m_policyFile, "<old/>");
    auto qord = StartQord();
    const Outcome malformed = Qorctl({"set-policy", "-"}, "<a><b></a>");
    EXPECT_EQ(malformed.exitCode, 1);
    EXPECT_NE(malformed.err.find("not well-formed"), std::string::npos) << malformed.err;
    EXPECT_EQ(StoredPolicy(), "<old/>");

    m_policyFile += "/below-a-file.xml";
    qord->Signal(SIGTERM);
    EXPECT_EQ(qord->Wait(), 0);
    qord = StartQord();
    const Outcome unstored = Qorctl({"set-policy", "-"}, "<a/>");
    EXPECT_EQ(unstored.exitCode, 1);
    EXPECT_NE(unstored.err.find("could not store"), std::string::npos) << unstored.err;
}

TEST_F(SetPolicy, OversizedPolicyIsRefusedUnsentAndTheEndpointStaysUsable)
{
    auto qord = StartQord();
    const std::string huge = PolicyOfSize(40 * 1024 * 1024);
    const Outcome outcome = Qorctl({"set-policy", "-"}, huge);
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_NE(outcome.err.find("do not fit into one bus message"), std::string::npos)
        << outcome.err;

    const auto control = qor::api::GetControl();
    EXPECT_EQ(control->SetPolicy(huge), -1);
    EXPECT_EQ(control->SetPolicy("<next/>"), 0);
    EXPECT_EQ(StoredPolicy(), "<next/>");
    EXPECT_TRUE(qord->WaitForOut("a policy of 7 bytes is stored"));
    EXPECT_EQ(CountOf(qord->Out() + qord->Err(), "policy of"), 1u);
}

TEST_F(SetPolicy, ServiceKilledInTheMiddleOfACallAndRestarted)
{
    auto qord = StartQord();
    const auto control = qor::api::GetControl();
    qord->Signal(SIGSTOP);
    LogCapture::Clear();
    std::future<int> result =
        std::async(std::launch::async, [&] { return control->SetPolicy("<a/>"); });
    ASSERT_TRUE(LogCapture::WaitFor(LOG_DEBUG, "Send hello"));
    qord->Signal(SIGKILL);
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(result.get(), -1);
    qord->Wait();
    EXPECT_EQ(control->SetPolicy("<b/>"), -1);

    qord = StartQord();
    EXPECT_EQ(control->SetPolicy("<c/>"), 0);
    EXPECT_EQ(StoredPolicy(), "<c/>");
}

TEST_F(SetPolicy, UndeliveredPoliciesAreExplained)
{
    const Outcome absent = Qorctl({"set-policy", "-"}, "<a/>");
    EXPECT_EQ(absent.exitCode, 2);
    EXPECT_NE(absent.err.find("not on the bus"), std::string::npos) << absent.err;

    ChildProcess::Options noBus;
    noBus.environment["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=" + m_directory.Path("none");
    noBus.input = "<a/>";
    const Outcome unreachable = RunTool(QORCTL, {"set-policy", "-"}, noBus);
    EXPECT_EQ(unreachable.exitCode, 2);
    EXPECT_NE(unreachable.err.find("no system bus"), std::string::npos) << unreachable.err;
    EXPECT_EQ(RunTool(QORCTL, {"status"}, noBus).exitCode, 2);
    EXPECT_EQ(RunTool(QORCTL, {"listen"}, noBus).exitCode, 2);
}

TEST_F(SetPolicy, AnswersOfAnotherService)
{
    RawPeer service;
    ASSERT_TRUE(service.OwnName(SERVICE_NAME));
    struct
    {
        Answer answer;
        int exitCode;
        const char* words;
    } const cases[] = {
        {{Answer::REPLY, {1, 'n', 'o', 'i', 's', 'e'}}, 3, "cannot be read"},
        {{Answer::REPLY, {1}}, 3, "cannot be read"},
        {{Answer::REPLY, {0}}, 2, "refused the request"},
        {{Answer::ERROR, {}}, 2, "refused the request"},
    };
    for (const auto& expected : cases)
    {
        service.AnswerWith(expected.answer);
        const Outcome outcome = Qorctl({"set-policy", "-"}, "<a/>");
        EXPECT_EQ(outcome.exitCode, expected.exitCode);
        EXPECT_NE(outcome.err.find(expected.words), std::string::npos) << outcome.err;
    }
}

// Without a service on the bus, only what never came to sending ends with 64.
TEST_F(SetPolicy, WrongUsageAndInputsSendNothing)
{
    WriteFile(m_directory.Path("empty"), "");
    const Arguments wrong[] = {
        {},
        {"no-such-command"},
        {"set-policy"},
        {"set-policy", m_directory.Path("missing")},
        {"set-policy", m_directory.Path("empty")},
        {"set-policy", m_directory.Path()},
        {"set-policy", "-"},
        {"set-policy", SAMPLE_POLICY, "more"},
        {"--quiet", "--verbose", "status"},
        {"listen", "--count", "0"},
        {"listen", "--count", "-1"},
        {"listen", "--exec", "'unfinished"},
    };
    for (const Arguments& arguments : wrong)
    {
        const Outcome outcome = Qorctl(arguments);
        EXPECT_EQ(outcome.exitCode, 64) << testing::PrintToString(arguments);
        EXPECT_NE(outcome.err, "") << testing::PrintToString(arguments);
    }
    EXPECT_EQ(Qorctl({"--help"}).exitCode, 0);
    EXPECT_EQ(Qorctl({"set-policy", "--help"}).exitCode, 0);
    EXPECT_NE(Qorctl({"--version"}).out.find("qorctl "), std::string::npos);
}

TEST_F(SetPolicy, TestNamesAreAServiceOfTheirOwn)
{
    auto qord = StartQord({"--test-bus-names"});
    EXPECT_EQ(Qorctl({"status"}).exitCode, 2);
    EXPECT_EQ(Qorctl({"set-policy", "-"}, "<a/>").exitCode, 2);
    EXPECT_EQ(Qorctl({"set-policy", "-", "--test-bus-names"}, "<a/>").exitCode, 0);
    const Outcome status = Qorctl({"status", "--test-bus-names"});
    EXPECT_EQ(status.exitCode, 0);
    EXPECT_NE(status.out.find("process id " + std::to_string(qord->Pid())), std::string::npos)
        << status.out;
}

TEST_F(SetPolicy, LibraryLogLinesArePrintedOnlyWhenAskedFor)
{
    auto qord = StartQord();
    EXPECT_EQ(Qorctl({"set-policy", SAMPLE_POLICY}).out.find("QOR >"), std::string::npos);
    EXPECT_NE(Qorctl({"--verbose", "set-policy", SAMPLE_POLICY}).out.find("QOR >"),
              std::string::npos);
    EXPECT_EQ(qord->Out().find("QOR >"), std::string::npos);
}

} // namespace
