// The server endpoint: its name, its registry, its events and its stop, with raw peers as clients.
#include <dlfcn.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <boost/thread/thread.hpp>

#include <qor/QORDbusServer.h>

#include "ServerFixture.h"

bool g_isProxyRefused = false;
static bool isThreadRefused = false;

// Ahead of GLib's and of Boost's.
extern "C" __attribute__((visibility("default"))) GDBusProxy*
g_dbus_proxy_new_sync(GDBusConnection* pConnection, GDBusProxyFlags flags,
                      GDBusInterfaceInfo* pInfo, const gchar* name, const gchar* path,
                      const gchar* interface, GCancellable* pCancellable, GError** ppError)
{
    static const auto next =
        reinterpret_cast<decltype(&g_dbus_proxy_new_sync)>(dlsym(RTLD_NEXT, __func__));
    if (!g_isProxyRefused)
    {
        return next(pConnection, flags, pInfo, name, path, interface, pCancellable, ppError);
    }
    g_set_error_literal(ppError, G_IO_ERROR, 7, "");
    return nullptr;
}

__attribute__((visibility("default"))) bool boost::thread::start_thread_noexcept()
{
    static const auto next = reinterpret_cast<bool (*)(boost::thread*)>(
        dlsym(RTLD_NEXT, "_ZN5boost6thread21start_thread_noexceptEv"));
    return !isThreadRefused && next(this);
}

namespace
{

using namespace qortest;
using qor::TCDbusServer;

class DbusServer : public ServerTest
{
protected:
    DbusServer()
    {
        Start();
        m_server->UnSetCallback(4);
    }

    static Bytes Send(RawPeer& client, const Bytes& bytes)
    {
        return Await(client.StartCall(SERVICE_NAME, SERVICE_PATH, "Send", bytes)).bytes;
    }
};

// --- The registry --------------------------------------------------------------------------------

TEST_F(DbusServer, HelloNamesTheTypesOfTheClientUntilItLeaves)
{
    const std::pair<Bytes, std::set<int>> cases[] = {
        {{1, 0, 0, 0, 3, 0, 0, 0, 5}, {1, 3}},
        {{2, 0, 0, 0, 9, 0}, {2}}, // in place of the first ones
        {{2, 0, 0}, {}},
        {{}, {}},
        {EventList({7, -2, 258, 7}), {7, -2, 258}},
    };
    RawPeer client;
    for (const auto& [bytes, types] : cases)
    {
        const auto hello = Await(client.StartCall(SERVICE_NAME, SERVICE_PATH, "Hello", bytes));
        EXPECT_EQ(hello.signature, "()");
        ASSERT_TRUE(HasClients(1));
        for (const int type : {-2, 0, 1, 2, 3, 5, 7, 9, 254, 258})
        {
            EXPECT_EQ(Deliver(type), Counts(types.count(type), 0)) << type;
        }
    }
    client.Leave(); // one watch: one line, and no complaint about an unknown client
    ASSERT_TRUE(HasClients(0));
    PumpUntil([] { return false; }, 50);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "A new client " + client.UniqueName()), 1U);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "has vanished, user_data 0x"), 1U);

    RawPeer hasty; // gone before its Hello is handled
    hasty.PostHello(SERVICE_NAME, {2});
    hasty.Sync();
    hasty.Leave();
    EXPECT_TRUE(
        PumpUntil([] { return LogCapture::Count(LOG_DEBUG, "has vanished, user_data 0x") == 2; }));
    EXPECT_TRUE(HasClients(0));
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, ""), 0U);
}

// A Hello is answered when the client is registered, and not before: who gets the answer does not
// say it again. The server that cannot be made leaves nothing on the bus: the next one works.
TEST_F(DbusServer, RefusalsOfTheSystemLeaveNoTraces)
{
    RawPeer client;
    m_server->SetCallback(4, Accept);
    g_isProxyRefused = true;
    auto hello = client.StartCall(SERVICE_NAME, SERVICE_PATH, "Hello", EventList({2}));
    EXPECT_EQ(Await(std::move(hello)).errorName, "org.freedesktop.DBus.Error.LimitsExceeded");
    EXPECT_EQ(Send(client, Request(4, false)), Bytes{1});
    g_isProxyRefused = false;
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Registering proxy error, errno 7"), 1U);
    EXPECT_EQ(m_server->NumberOfClients(), 0U);
    client.PostHello(SERVICE_NAME, {2});
    EXPECT_TRUE(HasClients(1));
    EXPECT_EQ(Deliver(2), Counts(1, 0));

    m_server.reset();
    isThreadRefused = true;
    EXPECT_THROW(TCDbusServer(false), boost::thread_resource_error);
    isThreadRefused = false;
    EXPECT_TRUE(SharedConnectionIsLetGo());
    EXPECT_TRUE(client.OwnName(SERVICE_NAME));
}

// --- Events --------------------------------------------------------------------------------------

TEST_F(DbusServer, EventIsASynchronousRequestAtTheObjectOfTheRegistered)
{
    EXPECT_EQ(Deliver(2), Counts(0, 0));
    const Peers others = Clients(2, YES, {4});
    EXPECT_EQ(Deliver(-300), Counts(0, 0));
    const Peers clients = Clients(1, YES, {-300});
    const Bytes payload(1 << 20, 0x33);
    EXPECT_EQ(Deliver(-300, WATCHDOG_MS, payload), Counts(1, 0));
    EXPECT_EQ(Deliver(-300, -1), Counts(1, 0));
    EXPECT_EQ(Deliver(-300, WATCHDOG_MS, Bytes(qor::TCDbus::MaxPayload() + 1)),
              Counts(0, 1)); // unsent
    EXPECT_EQ(Deliver(-300, WATCHDOG_MS, {7}), Counts(1, 0));
    const std::vector<IncomingCall> calls = clients[0]->Calls("Send");
    ASSERT_EQ(calls.size(), 3U);
    EXPECT_TRUE(calls[0].bytes == Request(-300, false, payload));
    EXPECT_EQ(calls[1].bytes, Request(-300, false));
    EXPECT_EQ(calls[1].path, SERVICE_PATH);
    EXPECT_EQ(calls[1].sender, m_server->GetUniqueName());
    EXPECT_EQ(others[0]->Count(""), 0U);
}

TEST_F(DbusServer, OnlyATrueResultIsASuccess)
{
    const std::pair<Answer, std::string> cases[] = {
        // and the line that a failure leaves
        {YES, ""},
        {{Answer::REPLY, {1, 5, 5}, ""}, ""},
        {{Answer::REPLY, Bytes(1 << 20), ""}, "to % failed"},
        {{Answer::REPLY, {}, ""}, "to % failed"},
        {{Answer::WRONG_TYPE, {}, ""}, "to % failed"},
        {NO_VALUE, "to % failed"},
        {DbusError("AccessDenied"), "from % error, errno 9"},
        {NEVER, "from % error, errno 24"},
        {LEAVE, "from % error, errno 4"},
    };
    const Peers clients = Clients(std::size(cases));
    for (std::size_t i = 0; i < clients.size(); ++i)
    {
        clients[i]->AnswerWith(cases[i].first);
    }
    testing::internal::CaptureStdout();
    EXPECT_EQ(Deliver(2, 500), Counts(2, 7));
    fflush(stdout);
    std::istringstream out(testing::internal::GetCapturedStdout());
    for (std::string line; std::getline(out, line);)
    {
        const bool isAssertion = line.find("QOR >qor::TCDebug:Assert") == 0;
        EXPECT_TRUE(isAssertion || line.find("QOR >qor::TCDbusServer:") == 0) << line;
    }
    for (std::size_t i = 2; i < clients.size(); ++i)
    {
        std::string line = "Sending message " + cases[i].second;
        line.replace(line.find('%'), 1, clients[i]->UniqueName());
        EXPECT_EQ(LogCapture::Count(i < 6 ? LOG_DEBUG : LOG_ERROR, line), 1U) << line;
    }
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Callback result: success 2, fails 7"), 1U);
    EXPECT_EQ(Deliver(2, 500), Counts(2, 7)); // who left is registered until that is seen
}

TEST_F(DbusServer, ClientThatWaitsForItsOwnReplyIsSkipped)
{
    const Peers clients = Clients(3);
    Counts counts;
    const auto deliver = [&](const Bytes&, Bytes&)
    {
        counts = Deliver();
        return true;
    };
    EXPECT_TRUE(m_server->SetCallback(4, deliver));
    EXPECT_FALSE(m_server->SetCallback(4, [](const Bytes&, Bytes&) { return false; }));
    EXPECT_EQ(Send(*clients[1], Request(4, false)), (Bytes{1}));
    EXPECT_EQ(counts, Counts(2, 1));
    EXPECT_EQ(clients[1]->Count("Send"), 0U);
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Unable to send message to " + clients[1]->UniqueName() +
                                               ", type 2, waiting for sync replay"),
              1U);
    EXPECT_EQ(Send(*clients[1], Request(4, true)), (Bytes{1}));
    EXPECT_EQ(counts, Counts(3, 0)); // asynchronous: it does not wait
    EXPECT_EQ(Deliver(2), Counts(3, 0));
    EXPECT_TRUE(m_server->UnSetCallback(4));
    EXPECT_EQ(Send(*clients[1], Request(4, false)), (Bytes{0}));
}

} // namespace
