// How the service starts, ends, and stands hostile requests.
#include <csignal>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "RawPeer.h"
#include "ToolRunner.h"

namespace
{

using namespace qortest;

class Qord : public ToolTest
{
};

TEST_F(Qord, SignalsEndItCleanlyAndReleaseTheName)
{
    for (const int signal : {SIGTERM, SIGINT})
    {
        auto qord = StartQord();
        EXPECT_EQ(Qorctl({"status"}).exitCode, 0);
        qord->Signal(signal);
        EXPECT_EQ(qord->Wait(), 0);
        EXPECT_EQ(qord->Err(), "");
        EXPECT_EQ(Qorctl({"status"}).exitCode, 2);
    }
}

TEST_F(Qord, WhatKeepsItFromServingEndsIt)
{
    RawPeer other;
    ASSERT_TRUE(other.OwnName(SERVICE_NAME));
    const Outcome taken = RunTool(QORD, {"--policy", m_policyFile});
    EXPECT_EQ(taken.exitCode, 1);
    EXPECT_NE(taken.err.find("belongs to another process (" + other.UniqueName()),
              std::string::npos)
        << taken.err;

    ChildProcess::Options noBus;
    noBus.environment["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=" + m_directory.Path("none");
    const Outcome unreachable = RunTool(QORD, {"--policy", m_policyFile}, noBus);
    EXPECT_EQ(unreachable.exitCode, 1);
    EXPECT_NE(unreachable.err.find("cannot reach the system bus"), std::string::npos);

    for (const Arguments& arguments :
         {Arguments{"--keep", "-1"}, Arguments{"--min-free", "x"}, Arguments{"--policy"},
          Arguments{"--policy", ""}, Arguments{"--policy", m_policyFile, "--event-timeout", "0"},
          Arguments{"--policy", m_policyFile, "--process-info-interval", "-3"}})
    {
        EXPECT_EQ(RunTool(QORD, arguments).exitCode, 64) << testing::PrintToString(arguments);
    }
}

TEST_F(Qord, LosingTheBusEndsServiceAndListener)
{
    auto qord = StartQord();
    auto listener = StartListener();
    m_pBus->Kill();
    EXPECT_EQ(qord->Wait(), 1);
    EXPECT_NE(qord->Err().find("connection to the system bus is closed"), std::string::npos)
        << qord->Err();
    EXPECT_EQ(listener->Wait(), 2);
    EXPECT_EQ(CountOf(listener->Err(), "closed"), 1u) << listener->Err();
    m_pBus->Restart();
}

TEST_F(Qord, NameThatTheBusDoesNotGrantEndsIt)
{
    PrivateBus::Options closed;
    closed.policy = "<policy context='default'><allow user='*'/><deny own='*'/>"
                    "<allow send_destination='org.freedesktop.DBus'/>"
                    "<allow receive_type='method_return'/><allow receive_type='error'/>"
                    "<allow receive_type='signal'/></policy>";
    const PrivateBus bus(closed);
    const Outcome outcome = RunTool(QORD, {"--policy", m_policyFile});
    setenv("DBUS_SYSTEM_BUS_ADDRESS", m_pBus->Address().c_str(), 1);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_NE(outcome.err.find("not granted"), std::string::npos) << outcome.err;
}

TEST_F(Qord, TellsAServiceManagerWhenItIsReadyAndWhenItStops)
{
    const int socketFile = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string path = m_directory.Path("notify");
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(socketFile, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    auto qord = StartQord();
    unsetenv("NOTIFY_SOCKET");

    char message[256] = {};
    EXPECT_GT(recv(socketFile, message, sizeof message - 1, 0), 0);
    EXPECT_STREQ(message, "READY=1");
    qord->Signal(SIGTERM);
    EXPECT_EQ(qord->Wait(), 0);
    std::memset(message, 0, sizeof message);
    EXPECT_GT(recv(socketFile, message, sizeof message - 1, MSG_DONTWAIT), 0);
    EXPECT_STREQ(message, "STOPPING=1");
    close(socketFile);
}

TEST_F(Qord, HostileRequestsAreRefusedAndItLivesOn)
{
    WriteFile(m_policyFile, "<old/>");
    auto qord = StartQord();
    RawPeer attacker;
    Bytes headerOfGigabytes(64, 0);
    headerOfGigabytes[3] = 0x7f;
    for (const Bytes& payload : {Bytes(), Bytes{22}, headerOfGigabytes, Bytes(1 << 20, 0xff)})
    {
        const CallResult result =
            attacker.Call(SERVICE_NAME, SERVICE_PATH, "Send", Request(4, false, payload));
        EXPECT_TRUE(result.ok);
        EXPECT_EQ(result.bytes, Bytes{0});
    }
    attacker.Call(SERVICE_NAME, SERVICE_PATH, "Send", {});
    attacker.Call(SERVICE_NAME, SERVICE_PATH, "Hello", Bytes(7, 0x80));
    EXPECT_EQ(StoredPolicy(), "<old/>");
    EXPECT_EQ(Qorctl({"set-policy", "-"}, "<new/>").exitCode, 0);
    qord->Signal(SIGTERM);
    EXPECT_EQ(qord->Wait(), 0);
}

TEST_F(Qord, KeepsCopiesOfReplacedPolicies)
{
    auto qord = StartQord({"--keep", "1", "--min-free", "1"});
    for (const char* text : {"<a/>", "<b/>", "<c/>"})
    {
        EXPECT_EQ(Qorctl({"set-policy", "-"}, text).exitCode, 0);
    }
    EXPECT_EQ(StoredPolicy(), "<c/>");
    // The number is free again only after the next copy has been made.
    EXPECT_EQ(ReadFile(m_directory.Path("policy_2.xml")), "<b/>");
    EXPECT_EQ(ReadFile(m_directory.Path("policy_1.xml")), "");
}

TEST_F(Qord, InfoTellsPolicyAndPlatformWithoutService)
{
    const Outcome info = Qorctl({"info"});
    EXPECT_EQ(info.exitCode, 0);
    EXPECT_NE(info.out.find("/opt/usr/share/vantorix/velkin_qor_policy.xml"), std::string::npos);
    struct utsname system;
    ASSERT_EQ(uname(&system), 0);
    EXPECT_NE(info.out.find(std::string(system.release)), std::string::npos) << info.out;
    EXPECT_EQ(info.out.find("unknown"), std::string::npos) << info.out;
}

} // namespace
