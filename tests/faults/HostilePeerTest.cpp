// Peers that do what no client of the library does, one by one and in masses.
#include <csignal>
#include <memory>
#include <random>
#include <vector>

#include <gio/gio.h>

#include <qor/GlibTypes.h>

#include "MainContext.h"
#include "PolicyMessage.h"
#include "ProcessStatus.h"
#include "ToolRunner.h"

namespace qortest
{
namespace
{

// A connection that sends whatever it is told.
class RawSender
{
public:
    RawSender()
        : m_connection(g_dbus_connection_new_for_address_sync(
              getenv("DBUS_SYSTEM_BUS_ADDRESS"),
              static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
              nullptr, nullptr, nullptr))
    {
    }

    ~RawSender()
    {
        g_dbus_connection_close_sync(m_connection.get(), nullptr, nullptr);
    }

    RawSender(const RawSender&) = delete;
    RawSender& operator=(const RawSender&) = delete;

    // The name of the error that comes back; empty for a reply.
    std::string Call(const char* path, const char* interfaceName, const char* method,
                     const char* arguments)
    {
        GVariant* pArguments = arguments == nullptr
                                   ? nullptr
                                   : g_variant_new_parsed(arguments, static_cast<void*>(nullptr));
        GError* pRawError = nullptr;
        const qor::TGlibPtr<GVariant> reply(g_dbus_connection_call_sync(
            m_connection.get(), SERVICE_NAME, path, interfaceName, method, pArguments, nullptr,
            G_DBUS_CALL_FLAGS_NONE, 30000, nullptr, &pRawError));
        const qor::TGlibPtr<GError> error(pRawError);
        if (!error)
        {
            return "";
        }
        gchar* pName = g_dbus_error_get_remote_error(error.get());
        const std::string name = pName == nullptr ? "no answer" : pName;
        g_free(pName);
        return name;
    }

private:
    qor::TGlibPtr<GDBusConnection> m_connection;
};

class HostilePeer : public ToolTest
{
protected:
    // Asks the service to ask its clients.
    static void AskForProcessInfo(ChildProcess& qord)
    {
        qord.Signal(SIGUSR1);
    }

    static void EndCleanly(ChildProcess& qord)
    {
        qord.Signal(SIGTERM);
        EXPECT_EQ(qord.Wait(), 0) << qord.Err();
    }
};

TEST_F(HostilePeer, CallsOfTheWrongShapeAreAnsweredWithErrors)
{
    struct Call
    {
        const char* path;
        const char* interfaceName;
        const char* method;
        const char* arguments;
        const char* error; // the end of its name
    };
    const Call calls[] = {
        {SERVICE_PATH, INTERFACE_NAME, "Send", "('text',)", "InvalidArgs"},
        {SERVICE_PATH, INTERFACE_NAME, "Send", nullptr, "InvalidArgs"},
        {SERVICE_PATH, INTERFACE_NAME, "Send", "(@ay [], @ay [])", "InvalidArgs"},
        {SERVICE_PATH, INTERFACE_NAME, "Send", "([1, 2],)", "InvalidArgs"},
        {SERVICE_PATH, INTERFACE_NAME, "Send", "(<@ay [4]>,)", "InvalidArgs"},
        {SERVICE_PATH, INTERFACE_NAME, "Hello", "('text',)", "InvalidArgs"},
        {SERVICE_PATH, INTERFACE_NAME, "Hello", "({'a': <1>},)", "InvalidArgs"},
        {SERVICE_PATH, INTERFACE_NAME, "Hello", nullptr, "InvalidArgs"},
        {SERVICE_PATH, INTERFACE_NAME, "Unknown", "(@ay [],)", "UnknownMethod"},
        {SERVICE_PATH, "com.example.Other", "Send", "(@ay [],)", "UnknownMethod"},
        {"/com/example/Other", INTERFACE_NAME, "Send", "(@ay [],)", "UnknownMethod"},
        {"/", INTERFACE_NAME, "Hello", "(@ay [],)", "UnknownMethod"},
        {SERVICE_PATH, "org.freedesktop.DBus.Properties", "Set",
         "('com.norvane.qor.IControl', 'Send', <1>)", "InvalidArgs"},
    };
    auto qord = StartQord();
    RawSender sender;
    for (const Call& call : calls)
    {
        const std::string error =
            sender.Call(call.path, call.interfaceName, call.method, call.arguments);
        EXPECT_NE(error.find(call.error), std::string::npos)
            << call.path << " " << call.interfaceName << " " << call.method << " "
            << (call.arguments == nullptr ? "" : call.arguments) << ": '" << error << "'";
    }
    EXPECT_EQ(sender.Call(SERVICE_PATH, INTERFACE_NAME, "Hello", "(@ay [],)"), "");
    EndCleanly(*qord);
}

TEST_F(HostilePeer, EveryKindOfBadAnswerIsOneFailureAndTheOthersAreServed)
{
    auto qord = StartQord({"--event-timeout", "500"});
    auto listener = StartListener();
    const std::vector<Answer> answers = {
        {Answer::WRONG_TYPE, {}, ""}, {Answer::NO_VALUE, {}, ""},
        {Answer::NEVER, {}, ""},      {Answer::ERROR, {}, "com.example.Error"},
        {Answer::REPLY, {}, ""},      {Answer::REPLY, Bytes(1 << 20, 0), ""},
        {Answer::LEAVE, {}, ""}};
    std::vector<std::unique_ptr<RawPeer>> peers;
    for (const Answer& answer : answers)
    {
        peers.push_back(std::make_unique<RawPeer>());
        peers.back()->AnswerWith(answer);
        peers.back()->Call(SERVICE_NAME, SERVICE_PATH, "Hello", EventList({2, 4}));
    }
    EXPECT_EQ(Qorctl({"set-policy", "-"}, "<p/>").exitCode, 0);
    EXPECT_TRUE(qord->WaitForOut("policy-update: 1 delivered, 7 failed")) << qord->Out();
    EXPECT_TRUE(listener->WaitForOut("policy-update"));

    // The one that left is no longer there to be counted.
    AskForProcessInfo(*qord);
    EXPECT_TRUE(qord->WaitForOut("process-info: 1 delivered, 6 failed")) << qord->Out();
    EXPECT_TRUE(listener->WaitForOut("process-info"));
    peers.clear();
    EndCleanly(*qord);
}

// A client of the library that another process calls, and whose service is not one.
TEST_F(HostilePeer, ClientHostStandsAServiceThatIsNone)
{
    RawPeer impostor;
    ASSERT_TRUE(impostor.OwnName(SERVICE_NAME));
    auto listener = StartListener();
    ASSERT_TRUE(impostor.WaitForCalls("Hello", 1));
    const std::string name = impostor.Calls("Hello").back().sender;
    std::mt19937 random(11);
    for (int i = 0; i < 200; ++i)
    {
        Bytes bytes(random() % 64);
        for (unsigned char& byte : bytes)
        {
            byte = static_cast<unsigned char>(random() % 8);
        }
        impostor.Call(name, SERVICE_PATH, i % 5 == 0 ? "Hello" : "Send", bytes);
        impostor.Post(name, SERVICE_PATH, "Unknown", bytes);
    }
    EXPECT_EQ(impostor.Call(name, SERVICE_PATH, "Send", Request(2, false)).bytes, Bytes{1});
    EXPECT_TRUE(listener->WaitForOut("policy-update"));
    listener->Signal(SIGTERM);
    EXPECT_EQ(listener->Wait(), 0) << listener->Err();
    EXPECT_EQ(listener->Err(), "");
}

TEST_F(HostilePeer, PeersThatLeaveInTheMiddleLeaveNothingBehind)
{
    auto qord = StartQord();
    RawPeer client;
    client.Call(SERVICE_NAME, SERVICE_PATH, "Hello", EventList({4}));
    AskForProcessInfo(*qord);
    ASSERT_TRUE(qord->WaitForOut("process-info: 1 delivered, 0 failed"));
    const std::size_t files = OpenFiles(qord->Pid());
    for (int i = 0; i < 60; ++i)
    {
        RawPeer peer;
        peer.PostHello(SERVICE_NAME, {2, 4});
        auto reply = peer.StartCall(SERVICE_NAME, SERVICE_PATH, "Send",
                                    PolicyRequest("<p>" + std::string(300000, 'x') + "</p>"));
        if (i % 3 != 0)
        {
            peer.Sync();
        }
        AskForProcessInfo(*qord);
        peer.Leave();
    }
    const std::size_t already = CountOf(qord->Out(), "process-info: 1 delivered, 0 failed");
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            AskForProcessInfo(*qord);
            return CountOf(qord->Out(), "process-info: 1 delivered, 0 failed") > already;
        }));
    EXPECT_TRUE(WaitUntil([&] { return OpenFiles(qord->Pid()) == files; }))
        << OpenFiles(qord->Pid()) << " files are open, not " << files;
    EXPECT_EQ(Qorctl({"set-policy", "-"}, "<p/>").exitCode, 0);
    EndCleanly(*qord);
}

// --- Masses --------------------------------------------------------------------------------------

class Flood
{
public:
    explicit Flood(unsigned int seed) : m_random(seed)
    {
        for (int i = 0; i < 50; ++i)
        {
            m_peers.push_back(std::make_unique<RawPeer>());
        }
    }

    void Send(int messages)
    {
        for (int i = 0; i < messages; ++i)
        {
            RawPeer& peer = *m_peers[m_random() % m_peers.size()];
            const Bytes bytes = m_RandomBytes();
            peer.Post(SERVICE_NAME, SERVICE_PATH, m_random() % 2 == 0 ? "Hello" : "Send", bytes);
            if (m_random() % 20 == 0)
            {
                peer.Sync(); // no more than the bus takes in
            }
        }
        for (const auto& peer : m_peers)
        {
            peer->Call(SERVICE_NAME, SERVICE_PATH, "Hello", {}); // after all of its others
        }
    }

private:
    // Types that mean something are frequent; sizes reach from nothing to a megabyte.
    Bytes m_RandomBytes()
    {
        const unsigned long magnitude = m_random() % 100 == 0 ? 20 : m_random() % 13;
        Bytes bytes(m_random() % (1UL << magnitude));
        for (std::size_t i = 0; i < bytes.size() && i < 256; ++i)
        {
            bytes[i] = static_cast<unsigned char>(m_random() % 3 == 0 ? m_random() : 0);
        }
        if (bytes.size() >= 8 && m_random() % 2 == 0)
        {
            const Bytes type = EventList({static_cast<std::int32_t>(m_random() % 6)});
            std::copy(type.begin(), type.end(), bytes.begin());
        }
        return bytes;
    }

    std::mt19937 m_random;
    std::vector<std::unique_ptr<RawPeer>> m_peers;
};

TEST_F(HostilePeer, FloodFromFiftyConnectionsIsStoodAndOthersAreServed)
{
    constexpr int MESSAGES = 10000;
    constexpr std::size_t TOLERANCE_KILOBYTES = 8 * 1024;
    auto qord = StartQord({"--event-timeout", "5000"});
    auto listener = StartListener();
    RawPeer client;
    const auto flood = [&](unsigned int seed)
    {
        Flood peers(seed);
        for (int part = 0; part < 10; ++part)
        {
            AskForProcessInfo(*qord);
            peers.Send(MESSAGES / 10);
            const std::string policy = "<p n='" + std::to_string(part) + "'/>";
            const CallResult reply =
                client.Call(SERVICE_NAME, SERVICE_PATH, "Send", PolicyRequest(policy));
            EXPECT_EQ(PolicyResult(reply), 0);
            EXPECT_EQ(StoredPolicy(), policy);
        }
    };
    flood(1);
    const std::size_t resident = ResidentKilobytes(qord->Pid());
    const std::size_t events = CountOf(listener->Out(), "process-info");
    EXPECT_GT(events, 0U);
    flood(2);
    const std::size_t later = ResidentKilobytes(qord->Pid());
    std::printf("resident after one flood %zu KiB, after another %zu KiB\n", resident, later);
    if (!IsSanitized())
    {
        EXPECT_LT(later, resident + TOLERANCE_KILOBYTES);
    }
    EXPECT_GT(CountOf(listener->Out(), "process-info"), events);
    EndCleanly(*qord);
}

} // namespace
} // namespace qortest
