// Interfaces beside the channel's: a service's own, and the calls of a client.
#include <atomic>
#include <future>
#include <stdexcept>

#include <qor/QORDbusClient.h>
#include <qor/QORDbusServer.h>

#include "BusTest.h"

namespace
{

using namespace qortest;
using qor::ESendStatus;

constexpr const char* OWN = "com.example.Own1";
constexpr const char* PROPERTIES = "org.freedesktop.DBus.Properties";
constexpr const char* XML = "<node><interface name='com.example.Own1'>"
                            "<method name='Twice'><arg type='i' direction='in'/>"
                            "<arg type='i' direction='out'/></method>"
                            "<method name='Later'><arg type='s' direction='out'/></method>"
                            "<signal name='Told'><arg type='s'/></signal>"
                            "<property name='Open' type='s' access='read'/>"
                            "<property name='Closed' type='s' access='read'/>"
                            "</interface></node>";

class OwnInterface : public BusTest
{
protected:
    OwnInterface()
    {
        const qor::TSServiceInterface own = {
            XML, [this](GDBusMethodInvocation* pInvocation) { Handle(pInvocation); },
            [this](const std::string& name)
            { return name == "Open" ? g_variant_new_string(Who().c_str()) : nullptr; }};
        m_server =
            std::make_unique<qor::TCDbusServer>(false, std::vector<qor::TSServiceInterface>{own});
    }

    std::string Who()
    {
        const qor::TSPeer peer = m_server->CurrentPeer();
        return peer.m_isKnown && peer.m_userId == getuid() ? m_server->GetCurrentSender() : "?";
    }

    void Handle(GDBusMethodInvocation* pInvocation)
    {
        if (std::string(g_dbus_method_invocation_get_method_name(pInvocation)) == "Later")
        {
            m_later.emplace_back(pInvocation);
            return;
        }
        int number = 0;
        g_variant_get(g_dbus_method_invocation_get_parameters(pInvocation), "(i)", &number);
        g_dbus_method_invocation_return_value(pInvocation, g_variant_new("(i)", 2 * number));
    }

    std::future<CallResult> Start(const std::string& interface, const std::string& method,
                                  GVariant* pArguments = nullptr)
    {
        return std::async(std::launch::async,
                          [=] { return m_peer.CallMethod(interface, method, pArguments); });
    }

    RawPeer m_peer;
    std::vector<qor::TGlibPtr<GDBusMethodInvocation>> m_later;
    std::unique_ptr<qor::TCDbusServer> m_server;
};

TEST_F(OwnInterface, IsFoundAndKnowsWhoAsks)
{
    ASSERT_TRUE(WaitUntil(
        [&]
        {
            return m_peer.CallMethod(OWN, "None", nullptr).errorName !=
                   "org.freedesktop.DBus.Error.ServiceUnknown";
        }));
    EXPECT_EQ(Await(Start(OWN, "Twice", g_variant_new("(i)", 21))).text, "(42,)");
    EXPECT_EQ(Await(Start(OWN, "Twice", g_variant_new("(s)", "x"))).errorName,
              "org.freedesktop.DBus.Error.InvalidArgs");
    const std::string open = "<'" + m_peer.UniqueName() + "'>";
    EXPECT_EQ(Await(Start(PROPERTIES, "Get", g_variant_new("(ss)", OWN, "Open"))).text,
              "(" + open + ",)");
    EXPECT_EQ(Await(Start(PROPERTIES, "GetAll", g_variant_new("(s)", OWN))).text,
              "({'Open': " + open + "},)");
    EXPECT_EQ(Await(Start(PROPERTIES, "Get", g_variant_new("(ss)", OWN, "Closed"))).errorName,
              "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_TRUE(m_server->GetCurrentSender().empty());
    m_peer.PostHello(SERVICE_NAME, {2});
    ASSERT_TRUE(PumpUntil([&] { return m_server->NumberOfClients() == 1; }));
    EXPECT_EQ(m_server->SendMessage(2, {}, WATCHDOG_MS).first, 1U); // it waits for nothing any more
}

TEST_F(OwnInterface, CallsMayBeAnsweredLaterAndHoldNobodyUp)
{
    ASSERT_TRUE(PumpUntil([&] { return m_server->IsReady(); }));
    auto later = Start(OWN, "Later");
    ASSERT_TRUE(PumpUntil([&] { return m_later.size() == 1; }));
    EXPECT_EQ(Await(Start(OWN, "Twice", g_variant_new("(i)", 1))).text, "(2,)");
    g_dbus_method_invocation_return_value(m_later[0].release(), g_variant_new("(s)", "late"));
    EXPECT_EQ(Await(std::move(later)).text, "('late',)");

    // Those that are never answered stay on their sender's account for a while, and stop nobody.
    std::vector<std::future<CallResult>> never(20);
    for (auto& call : never)
    {
        call = Start(OWN, "Later");
    }
    ASSERT_TRUE(PumpUntil([&] { return m_later.size() == 21; }));
    m_later.resize(2);
    RawPeer other;
    EXPECT_TRUE(Await(other.StartCall(SERVICE_NAME, SERVICE_PATH, "Send", {})).ok);

    // A server goes while one waits for its answer: the next one has its place, also where the host
    // keeps the connection.
    const ObjectPtr<GDBusConnection> shared(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    m_server.reset();
    m_later.clear();
    m_peer.Leave();
    EXPECT_FALSE(never[0].get().ok);
    const std::vector<qor::TSServiceInterface> same = {{XML, [](GDBusMethodInvocation*) {}, {}}};
    m_server = std::make_unique<qor::TCDbusServer>(false, same);
    EXPECT_TRUE(PumpUntil([&] { return m_server->IsReady(); }));
    m_server.reset();
}

TEST_F(OwnInterface, SignalsReachWhoeverListens)
{
    const std::string destination = m_server->GetUniqueName();
    ChildProcess listener({"gdbus", "monitor", "--system", "--dest", destination});
    ASSERT_TRUE(listener.WaitForOut("is owned by"));
    const std::string large(qor::TCDbus::MaxPayload() + 1, 'x');
    EXPECT_FALSE(m_server->EmitSignal(OWN, "Told", g_variant_new("(s)", large.c_str())));
    EXPECT_TRUE(m_server->EmitSignal(OWN, "Told", g_variant_new("(s)", "news")));
    EXPECT_TRUE(listener.WaitForOut("com.example.Own1.Told ('news',)")) << listener.Out();
}

TEST_F(OwnInterface, DescriptionsThatAreNoneAreRefused)
{
    for (const char* xml : {"<node", "<node/>",
                            "<node><interface name='a.b'/>"
                            "<interface name='a.c'/></node>"})
    {
        const auto ignore = [](GDBusMethodInvocation*) {};
        const std::vector<qor::TSServiceInterface> interfaces = {{xml, ignore, {}}};
        EXPECT_THROW(qor::TCDbusServer(true, interfaces), std::invalid_argument) << xml;
    }
    const std::vector<qor::TSServiceInterface> unheard = {{XML, {}, {}}};
    EXPECT_THROW(qor::TCDbusServer(true, unheard), std::invalid_argument);
}

class Methods : public BusTest
{
protected:
    Methods()
    {
        m_service.OwnName(SERVICE_NAME);
    }

    qor::TSMethodResult Call(const char* method, int timeoutMs = -1)
    {
        return m_client->CallMethod(OWN, method, g_variant_new("(i)", 7), timeoutMs, {}, false);
    }

    RawPeer m_service;
    boost::shared_ptr<qor::IDbusClient> m_client = qor::TCDbusClientProvider::Get(false);
};

TEST_F(Methods, EndWithWhatWasAnswered)
{
    m_service.AnswerMethodsUsing(
        [](const std::string& method)
        {
            return method == "Good"    ? g_variant_new("(s)", "yes")
                   : method == "Empty" ? g_variant_new_tuple(nullptr, 0)
                                       : nullptr;
        });
    const auto good = Call("Good");
    EXPECT_EQ(good.m_send.m_status, ESendStatus::ANSWERED_TRUE);
    EXPECT_EQ(good.m_sender, m_service.UniqueName());
    ASSERT_TRUE(good.m_pBody);
    EXPECT_STREQ(g_variant_get_type_string(good.m_pBody.get()), "(s)");
    EXPECT_STREQ(g_variant_get_type_string(Call("Empty").m_pBody.get()), "()");
    LogCapture::Clear();
    const auto refused = Call("Bad");
    EXPECT_EQ(refused.m_send.m_status, ESendStatus::FAILED);
    EXPECT_EQ(refused.m_errorName, "com.norvane.qor.Error.NotStored");
    EXPECT_EQ(refused.m_send.m_text, "com.norvane.qor.Error.NotStored: test");
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, ""), 0U); // the service has answered

    std::atomic<bool> isTold{false};
    m_client->CallMethodAsync(
        OWN, "Good", nullptr, -1, {},
        [&](const qor::TSMethodResult& result)
        { isTold = result.m_pBody && result.m_send.m_status == ESendStatus::ANSWERED_TRUE; },
        nullptr);
    EXPECT_TRUE(PumpUntil([&] { return isTold.load(); }));
    const auto calls = m_service.Calls("Good");
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_TRUE(!calls[0].mayStart && calls[1].mayStart);
}

TEST_F(Methods, EndWithReasonsWhereNoAnswerComes)
{
    qor::TCCancellation cancelled;
    cancelled.Cancel();
    EXPECT_EQ(m_client->CallMethod(OWN, "A", nullptr, -1, cancelled).m_send.m_status,
              ESendStatus::CANCELLED);
    const std::string large(qor::TCDbus::MaxPayload() + 1, 'x');
    EXPECT_EQ(
        m_client->CallMethod(OWN, "A", g_variant_new("(s)", large.c_str()), -1, {}).m_send.m_status,
        ESendStatus::TOO_LARGE);
    m_service.ReleaseName(SERVICE_NAME);
    const auto nobody = Call("A");
    EXPECT_EQ(nobody.m_send.m_status, ESendStatus::NO_SERVICE);
    EXPECT_FALSE(nobody.m_pBody);
    m_bus.Kill();
    EXPECT_EQ(Call("A").m_send.m_status, ESendStatus::NO_BUS);
}

} // namespace
