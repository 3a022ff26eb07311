// The service and its command line, on a bus.
#include <csignal>

#include <unistd.h>

#include <qor/api.h>

#include "FaultSupport.h"
#include "MuteBus.h"
#include "RawPeer.h"
#include "ToolRunner.h"

using namespace qortest;

// One message, or none.
static std::string Received(int socket)
{
    char message[512];
    const ssize_t size = recv(socket, message, sizeof message, MSG_DONTWAIT);
    return std::string(message, size > 0 ? static_cast<std::size_t>(size) : 0);
}

class Tools : public ToolTest
{
protected:
    void SetPolicy(int exitCode, const std::string& words, const std::string& policy)
    {
        m_options.input = policy;
        Expect(exitCode, words, "set-policy --no-check -");
    }
};

TEST_F(Tools, PoliciesAreStoredWholeOrRefusedUnsent)
{
    const std::string most = std::to_string(6 << 20);
    auto qord = StartQord({"--keep", "1", "--max-policy-size", most});
    Expect(0, "stored", "set-policy '" SAMPLE_POLICY "'");
    EXPECT_EQ(StoredPolicy(), ReadFile(SAMPLE_POLICY));
    SetPolicy(1, "not well-formed", "<a><b></a>");
    SetPolicy(1, "more than the service accepts", "<p>" + std::string(6 << 20, 'x') + "</p>");
    const std::string large = "<p>" + std::string(5 << 20, 'x') + "</p>";
    EXPECT_EQ(Qorctl({"--quiet", "set-policy", "-"}, large).out, "");
    EXPECT_TRUE(StoredPolicy() == large);
    EXPECT_EQ(ReadFile(m_directory.Path("policy.xml.kept-1")), ReadFile(SAMPLE_POLICY));

    const std::string huge(40 << 20, ' ');
    SetPolicy(64, "fit into one bus message", "<a/>" + huge);
    const auto control = qor::api::GetControl();
    EXPECT_EQ(control->SetPolicy("<a/>" + huge), -1);
    EXPECT_EQ(control->SetPolicy("<next/>"), 0);
    EXPECT_EQ(StoredPolicy(), "<next/>");
    EXPECT_EQ(CountOf(qord->Err(), "\n"), 2U) << qord->Err(); // what was refused
    Expect(0, "QOR >", "--verbose set-policy '" SAMPLE_POLICY "'");
}

TEST_F(Tools, AbsentForeignAndUnreachableServicesAreExplained)
{
    SetPolicy(2, "not on the bus", "<a/>");
    RawPeer service;
    ASSERT_TRUE(service.OwnName(SERVICE_NAME));
    service.AnswerWith({Answer::REPLY, {1, 'n', 'o', 'i', 's', 'e'}});
    SetPolicy(3, "cannot be read", "<a/>");
    service.AnswerWith({Answer::ERROR, {}});
    SetPolicy(2, "request was refused", "<a/>");
    service.AnswerHelloUsing([](const IncomingCall&) { return Answer{Answer::ERROR, {}}; });
    Expect(0, "refused, or not answered", "listen --timeout 1");
    Expect(1, "the bus name belongs to another process", "--policy x", QORD);
    m_options.environment["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=none";
    Expect(1, "cannot reach the system bus", "--policy x", QORD);
    Expect(2, "no system bus");
    Expect(2, "no system bus", "listen");
}

TEST_F(Tools, ListenerSaysWhenTheServiceComesAndGoes)
{
    auto listener = StartTool(QORCTL, {"listen"});
    ASSERT_TRUE(listener->WaitForOut("not on the bus yet"));
    auto qord = StartQord({"--process-info-interval", "1"});
    EXPECT_TRUE(listener->WaitForOut("process-info"));
    qord->Signal(SIGINT);
    EXPECT_EQ(qord->Wait(), 0);
    ASSERT_TRUE(WaitUntil([&] { return CountOf(listener->Out(), "service vanished") == 1; }));
    listener->Signal(SIGINT);
    EXPECT_EQ(listener->Wait(), 0);
    qord = StartQord();
    listener = StartListener({"--count", "1"});
    m_pBus->Kill();
    EXPECT_TRUE(listener->WaitForOut("bus lost"));
    EXPECT_EQ(qord->Wait(), 1); // else it still keeps the file
    m_pBus->Restart();
    qord = StartQord();
    EXPECT_TRUE(listener->WaitForOut("bus found"));
    EXPECT_TRUE(WaitUntil([&] { return CountOf(listener->Out(), "registered") == 2; }));
    qord->Signal(SIGUSR1);
    EXPECT_EQ(listener->Wait(), 0);
}

// Nothing else says that its last answer is out.
TEST_F(Tools, ListenerWaitsUntilTheServiceHasConfirmedThatItLeaves)
{
    RawPeer service;
    ASSERT_TRUE(service.OwnName(SERVICE_NAME));
    auto listener = StartTool(QORCTL, {"listen", "--count", "1"});
    ASSERT_TRUE(listener->WaitForOut("registered")) << listener->Err();
    service.AnswerHelloUsing([](const IncomingCall&) { return NEVER; });
    const std::string name = service.Calls("Hello").back().sender;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(service.Call(name, SERVICE_PATH, "Send", Request(2, false)).ok);
    EXPECT_EQ(listener->Wait(), 0);
    EXPECT_GT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
}

TEST_F(Tools, PlacesThatAreNoGoodAreSaidAtTheStart)
{
    WriteFile(m_policyFile, "<unfinished>");
    auto qord = StartQord({"--test-bus-names", "--min-free", "1000000"});
    EXPECT_EQ(CountOf(qord->Err(), "nothing can be stored at the moment: "), 1U) << qord->Err();
    EXPECT_EQ(CountOf(qord->Err(), "MiB are left"), 1U) << qord->Err();
    EXPECT_EQ(CountOf(qord->Err(), "no good: line 1, column 13"), 1U) << qord->Err();
    Expect(1, "it could not store it", "set-policy --test-bus-names '" SAMPLE_POLICY "'");
    Expect(0, "<unfinished>", "get-policy --test-bus-names");
    Expect(1, "process " + std::to_string(qord->Pid()) + " (", "--policy policy.xml", QORD);
    Expect(1, "belongs to another process", "--test-bus-names --policy none/policy.xml", QORD);
    EXPECT_FALSE(boost::filesystem::exists(m_directory.Path("none")));
    Expect(1, "regular file", "--policy .", QORD);
}

TEST_F(Tools, ServiceManagerAndStatusKnowWhenTheServiceIsThere)
{
    const std::string path = m_directory.Path("notify");
    const int notified = BoundSocket(SOCK_DGRAM, path);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    setenv("WATCHDOG_USEC", "1000000", 1); // so seldom that unread messages do not fill the socket
    auto qord = StartQord({"--test-bus-names"});
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    Expect(0, "process id " + std::to_string(qord->Pid()), "status --test-bus-names");
    Expect(2, "", "status"); // which is a service of its own
    std::string told;
    const auto isTold = [&](const std::string& words)
    {
        told += Received(notified);
        return told.find(words) != std::string::npos;
    };
    const std::size_t files = OpenFiles(qord->Pid());
    EXPECT_TRUE(WaitUntil([&] { return isTold("WATCHDOG=1"); })) << told;
    EXPECT_TRUE(WaitUntil([&] { return OpenFiles(qord->Pid()) <= files; }));
    qord->Signal(SIGTERM);
    EXPECT_TRUE(WaitUntil([&] { return isTold("STOPPING=1"); })) << told; // or the socket blocks
    EXPECT_EQ(qord->Wait(), 0);
    Expect(2, "", "status --test-bus-names");
    EXPECT_EQ(told.find("READY=1\nSTATUS=no policy yet, 0 clients"), 0U) << told;
    close(notified);
}

TEST_F(Tools, ApplicationThatWasBusyIsToldOfThePolicyThatItHasMissed)
{
    auto qord = StartQuietQord({"--event-timeout", "500"});
    RawPeer busy;
    busy.AnswerWith(HOLD);
    busy.Call(SERVICE_NAME, SERVICE_PATH, "Hello", EventList({2}));
    const auto failures = [&] { return CountOf(qord->Out(), "0 delivered, 1 failed"); };
    for (const char* text : {"<a/>", "<b/>"})
    {
        const std::size_t before = failures();
        SetPolicy(0, "stored", text);
        ASSERT_TRUE(WaitUntil([&] { return failures() > before; })) << qord->Out();
    }
    EXPECT_EQ(busy.Count("Send"), 1U);
    Expect(0, "\"heard\": false", "--json status");
    busy.AnswerWith(YES);
    busy.AnswerHeld(YES);
    EXPECT_TRUE(qord->WaitForOut("policy-update again: 1 delivered, 0 failed")) << qord->Out();
    EXPECT_EQ(busy.Count("Send"), 2U);
    Expect(0, "\"heard\": true", "--json status");

    // One that is always slow is told once more, and then no more until there is news.
    busy.AnswerWith(HOLD);
    SetPolicy(0, "stored", "<c/>");
    for (int i = 0; i < 3; ++i)
    {
        const std::size_t before = failures();
        WaitUntil([&] { return failures() > before; }, 1000);
        busy.AnswerHeld(YES);
    }
    EXPECT_EQ(busy.Count("Send"), 4U) << qord->Out();
}

TEST_F(Tools, PolicyThatIsChangedByHandIsCheckedAndAnnounced)
{
    boost::filesystem::create_symlink("real", m_policyFile); // which is watched as well
    WriteFile(m_policyFile, "<old/>");
    auto qord = StartQuietQord();
    auto listener = StartListener();
    SetPolicy(0, "stored", "<a/>");
    Expect(2, "only 0 of 1 events", "listen --timeout 1 --count 1"); // its own change is none
    WriteFile(m_policyFile, "<hand/>");
    ASSERT_TRUE(qord->WaitForOut("another program has changed the policy file")) << qord->Err();
    ASSERT_TRUE(WaitUntil([&] { return CountOf(listener->Out(), " policy-update\n") == 2; }));
    Expect(0, "by unknown", "status");
    EXPECT_EQ(qord->Err(), "");
    WriteFile(m_policyFile, "<hand >"); // as long as the last one, in the same file
    ASSERT_TRUE(WaitUntil([&] { return CountOf(qord->Err(), "no good: line 1, column 8") == 1; }));
    Expect(0, "it is no good", "status");
    SetPolicy(0, "stored", "<b/>");
    boost::filesystem::remove(m_policyFile);
    ASSERT_TRUE(
        WaitUntil([&] { return CountOf(qord->Err(), "has removed the policy file") == 1; }));
    EXPECT_EQ(CountOf(qord->Out(), "another program has changed"), 2U)
        << qord->Out(); // and not for <b/>
}

TEST_F(Tools, ServiceThatABusHasStartedOrIsToldToWritesToTheSystemsLog)
{
    const std::string device = m_directory.Path("dev"), mount = "mount --bind " + device + " /dev";
    boost::filesystem::create_directory(device);
    const int log = BoundSocket(SOCK_DGRAM, device + "/log");
    if (RunTool("unshare", {"-m", "bash", "-c", mount}).exitCode != 0)
    {
        GTEST_SKIP() << "nothing can be mounted here";
    }
    const auto isTold = [&](const std::string& begin) // the library's lines come here, too
    { return Received(log).rfind(begin, 0) == 0; };
    for (const std::string& command :
         {"exec >/dev/null 2>&1; " + mount + "; DBUS_STARTER_BUS_TYPE=system exec '" QORD "'",
          mount + "; exec '" QORD "' --syslog"})
    {
        auto qord = StartTool(
            "unshare", {"-m", "bash", "-c", command + " --policy " + m_policyFile}, m_options);
        const std::string qordIs = "qord[" + std::to_string(qord->Pid()) + "]: ";
        EXPECT_TRUE(WaitUntil([&] { return isTold("<30>" + qordIs + "ready as "); })) << command;
        SetPolicy(1, "not well-formed", "<a>");
        EXPECT_TRUE(WaitUntil([&] { return isTold("<27>" + qordIs + "a policy of 3 bytes"); }));
    }
    close(log);
}
