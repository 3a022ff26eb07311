// Events from the service to listeners and to slow clients.
#include <csignal>
#include <sstream>

#include <boost/archive/binary_oarchive.hpp>
#include <qor/QORIpcSerializationUtil.h>

#include "RawPeer.h"
#include "ToolRunner.h"

namespace
{

using namespace qortest;

class Events : public ToolTest
{
};

Bytes PolicyRequest(const std::string& policy)
{
    std::stringstream stream;
    boost::archive::binary_oarchive archive(stream);
    archive << policy;
    Bytes bytes;
    qor::TCIpcSerializationUtil::ConvertData(stream, bytes);
    return Request(4, false, bytes);
}

TEST_F(Events, EveryRegisteredClientHearsOfAPolicyTheSetterToo)
{
    auto qord = StartQord();
    auto plain = StartListener({"--count", "1"});
    auto json = StartListener({"--json", "--count", "1"});
    RawPeer setter;
    setter.PostHello(SERVICE_NAME, {2});
    setter.Sync();
    ASSERT_EQ(setter.Call(SERVICE_NAME, SERVICE_PATH, "Send", PolicyRequest("<a/>")).bytes.at(0),
              1);
    ASSERT_TRUE(setter.WaitForCalls("Send", 1));
    EXPECT_EQ(setter.Calls("Send")[0].bytes, Request(2, false));

    EXPECT_EQ(plain->Wait(), 0);
    EXPECT_EQ(json->Wait(), 0);
    EXPECT_EQ(CountOf(plain->Out(), " policy-update\n"), 1u) << plain->Out();
    EXPECT_EQ(CountOf(json->Out(), "\"event\":\"policy-update\"}\n"), 1u) << json->Out();
    EXPECT_EQ(CountOf(json->Out(), "\n"), CountOf(json->Out(), "{\"time\":\"2")) << json->Out();
    // The answers of listeners that leave at once still count.
    EXPECT_TRUE(qord->WaitForOut("event policy-update: 3 delivered, 0 failed")) << qord->Out();
}

TEST_F(Events, RefusedPoliciesAreNotAnnounced)
{
    auto qord = StartQord();
    auto listener = StartListener({"--count", "1"});
    EXPECT_EQ(Qorctl({"set-policy", "-"}, "<a>").exitCode, 1);
    qord->Signal(SIGUSR1);
    EXPECT_EQ(listener->Wait(), 0);
    EXPECT_EQ(CountOf(listener->Out(), "process-info"), 1u) << listener->Out();
    EXPECT_EQ(CountOf(listener->Out(), "policy-update"), 0u) << listener->Out();
}

TEST_F(Events, SlowClientHoldsUpNoRequestAndPoliciesMeanwhileAreAnnouncedOnce)
{
    auto qord = StartQord({"--event-timeout", "60000"});
    RawPeer slow;
    slow.AnswerWith({Answer::HOLD, {}});
    slow.PostHello(SERVICE_NAME, {2, 4});
    slow.Sync();
    EXPECT_EQ(Qorctl({"set-policy", "-"}, "<p0/>").exitCode, 0);
    ASSERT_TRUE(slow.WaitForCalls("Send", 1));
    for (const char* policy : {"<p1/>", "<p2/>", "<p3/>"})
    {
        EXPECT_EQ(Qorctl({"set-policy", "-"}, policy).exitCode, 0);
        EXPECT_EQ(StoredPolicy(), policy);
    }
    slow.AnswerWith({Answer::REPLY, {1}});
    slow.AnswerHeld({Answer::REPLY, {1}});
    ASSERT_TRUE(slow.WaitForCalls("Send", 2));
    // Due after whatever the policies made due.
    qord->Signal(SIGUSR1);
    ASSERT_TRUE(qord->WaitForOut("event process-info: 1 delivered, 0 failed"));
    EXPECT_EQ(CountOf(qord->Out(), "event policy-update: 1 delivered, 0 failed"), 2u);
    EXPECT_EQ(slow.Count("Send"), 3u);
}

TEST_F(Events, SilentClientCostsOneTimeoutAndIsCounted)
{
    auto qord = StartQord({"--event-timeout", "200"});
    RawPeer silent;
    silent.AnswerWith({Answer::NEVER, {}});
    silent.PostHello(SERVICE_NAME, {2});
    silent.Sync();
    auto listener = StartListener();
    EXPECT_EQ(Qorctl({"set-policy", "-"}, "<a/>").exitCode, 0);
    EXPECT_TRUE(listener->WaitForOut("policy-update"));
    EXPECT_TRUE(qord->WaitForOut("event policy-update: 1 delivered, 1 failed")) << qord->Out();
    qord->Signal(SIGTERM);
    EXPECT_EQ(qord->Wait(), 0);
}

TEST_F(Events, ProcessInformationIsAskedForRegularly)
{
    auto qord = StartQord({"--process-info-interval", "1"});
    auto listener = StartListener({"--count", "2"});
    EXPECT_EQ(listener->Wait(), 0);
    EXPECT_EQ(CountOf(listener->Out(), " process-info\n"), 2u) << listener->Out();
}

TEST_F(Events, ListenerSaysWhenTheServiceComesAndGoes)
{
    auto listener = StartTool(QORCTL, {"listen"});
    ASSERT_TRUE(listener->WaitForOut("service vanished"));
    for (std::size_t round = 1; round <= 2; ++round)
    {
        auto qord = StartQord();
        ASSERT_TRUE(listener->WaitForOut("service appeared"));
        qord->Signal(SIGTERM);
        qord->Wait();
    }
    auto qord = StartQord();
    while (listener->IsRunning() && CountOf(listener->Out(), "service appeared") < 3)
    {
        usleep(1000);
    }
    SyncWithService();
    qord->Signal(SIGUSR1);
    EXPECT_TRUE(listener->WaitForOut("process-info"));
    listener->Signal(SIGINT);
    EXPECT_EQ(listener->Wait(), 0);
    EXPECT_EQ(CountOf(listener->Out(), "service vanished"), 3u) << listener->Out();
    EXPECT_EQ(listener->Err(), "");
}

TEST_F(Events, CommandRunsOnEachEventWithoutAShell)
{
    auto qord = StartQord();
    const std::string hook = m_directory.Path("hook");
    WriteFile(hook, "echo \"$QOR_EVENT $1\" >>" + m_directory.Path("ran"));
    auto listener = StartListener({"--count", "2", "--exec", "sh " + hook + " '*; not a shell'"});
    qord->Signal(SIGUSR1);
    ASSERT_TRUE(listener->WaitForOut("process-info"));
    EXPECT_EQ(Qorctl({"set-policy", "-"}, "<a/>").exitCode, 0);
    EXPECT_EQ(listener->Wait(), 0);
    const std::string ran = ReadFile(m_directory.Path("ran"));
    EXPECT_EQ(CountOf(ran, "process-info *; not a shell\n"), 1u) << ran;
    EXPECT_EQ(CountOf(ran, "policy-update *; not a shell\n"), 1u) << ran;

    auto failing = StartListener({"--count", "1", "--exec", "false"});
    auto missing = StartListener({"--count", "1", "--exec", "/no/such/program"});
    qord->Signal(SIGUSR1);
    EXPECT_EQ(failing->Wait(), 0);
    EXPECT_EQ(missing->Wait(), 0);
    EXPECT_NE(failing->Err().find("ended with status 1"), std::string::npos) << failing->Err();
    EXPECT_NE(missing->Err().find("could not be run"), std::string::npos) << missing->Err();
}

} // namespace
