// What a service learns of its peers, its name and its bus, and its end in order.
#include <dlfcn.h>

#include <atomic>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "FaultSupport.h"
#include "ServerFixture.h"

static thread_local bool isSlow = false;
static std::atomic<bool> isWaiting{false};

// Ahead of GLib's: a slow thread is overtaken by others.
extern "C" __attribute__((visibility("default"))) void g_source_set_ready_time(GSource* pSource,
                                                                               gint64 time)
{
    static const auto next =
        reinterpret_cast<decltype(&g_source_set_ready_time)>(dlsym(RTLD_NEXT, __func__));
    isWaiting = isWaiting || isSlow;
    std::this_thread::sleep_for(std::chrono::milliseconds(isSlow ? 250 : 0));
    next(pSource, time);
}

namespace
{

using namespace qortest;
using qor::EDelivery;
using qor::EServiceState;
using qor::TCDbusServer;
using Entries = std::vector<qor::TSDelivery>;
using States = std::vector<EServiceState>;

const auto FAIL = [] { ADD_FAILURE(); };
std::atomic<int> questions{0}, calls{0}, delayMs{0};

class Service : public ServerTest
{
protected:
    // Another filter of the host's, behind the server's: counts what the bus is asked of peers, and
    // calls that have been let in, for which it takes its time.
    guint AddFilter()
    {
        const auto filter =
            [](GDBusConnection*, GDBusMessage* pMessage, gboolean isIncoming, gpointer)
        {
            const gchar* const member = g_dbus_message_get_member(pMessage);
            const bool isCall = isIncoming && g_dbus_message_get_message_type(pMessage) ==
                                                  G_DBUS_MESSAGE_TYPE_METHOD_CALL;
            questions += g_strcmp0(member, "GetConnectionCredentials") == 0 ? 1 : 0;
            calls += isCall ? 1 : 0;
            std::this_thread::sleep_for(std::chrono::milliseconds(isCall ? delayMs.load() : 0));
            return pMessage;
        };
        m_shared.reset(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
        calls = 0;
        return g_dbus_connection_add_filter(m_shared.get(), filter, nullptr, nullptr);
    }

    void TellStates()
    {
        const auto tell = [this](EServiceState state)
        {
            EXPECT_TRUE(state != EServiceState::ACQUIRED || m_server->IsReady());
            m_states.push_back(state);
        };
        m_server->SetStateCallback(tell);
    }

    void ExpectStates(const States& states)
    {
        PumpUntil([&] { return m_states.size() >= states.size(); });
        PumpUntil([] { return false; }, 20);
        EXPECT_EQ(m_states, states);
        EXPECT_EQ(m_server->State(), states.back());
    }

    void FreezeFor(unsigned int milliseconds)
    {
        m_bus.Freeze(true);
        m_thaw = std::async(std::launch::async,
                            [this, time = std::chrono::milliseconds(milliseconds)]
                            {
                                std::this_thread::sleep_for(time);
                                m_bus.Freeze(false);
                            });
    }

    ObjectPtr<GDBusConnection> m_shared;
    States m_states;
    std::future<void> m_thaw;
};

// --- Peers ---------------------------------------------------------------------------------------

TEST_F(Service, SenderIsKnownAndTheBusIsAskedOnce)
{
    qor::TSPeer seen, elsewhere;
    const auto look = [&] { return m_server->CurrentPeer(); };
    const auto see = [&](const auto&, auto&)
    {
        seen = look();
        elsewhere = std::async(look).get();
        return true;
    };
    Serve(see);
    AddFilter();
    std::vector<gid_t> others(64);
    others.resize(static_cast<std::size_t>(getgroups(64, others.data())));
    std::set<gid_t> groups(others.begin(), others.end());
    groups.insert(getegid());
    for (const unsigned int user : {geteuid(), geteuid() == 0 ? 7U : geteuid()})
    {
        questions = 0;
        const Peers client = Clients(1, YES, {2}, user);
        Send(*client[0]);
        Send(*client[0]);
        EXPECT_TRUE(m_server->Peer(client[0]->UniqueName()).m_isKnown);
        EXPECT_EQ(seen.m_name, client[0]->UniqueName());
        EXPECT_TRUE(seen.m_isKnown && seen.m_userId == user && seen.m_processId == getpid());
        const std::set<gid_t> told(seen.m_groupIds.begin(), seen.m_groupIds.end());
        EXPECT_TRUE(!seen.m_hasGroups || told == groups);
        EXPECT_TRUE(elsewhere.m_name.empty() && m_server->CurrentPeer().m_name.empty());
        EXPECT_EQ(questions, 1);
        client[0]->Leave();
        ASSERT_TRUE(HasClients(0));
        EXPECT_FALSE(m_server->Peer(seen.m_name).m_isKnown);
    }
    questions = 0;
    for (const char* const name : {SERVICE_NAME, "\xff", ""}) // nobody's for good
    {
        EXPECT_FALSE(m_server->Peer(name).m_isKnown);
    }
    EXPECT_EQ(questions, 0);

    const Peers kept = Clients(1, YES);
    const std::size_t before = ResidentKilobytes(getpid());
    for (int i = 0; i < (IS_SANITIZED ? 5000 : 20000); ++i)
    {
        m_server->Peer(":2." + std::to_string(i) + std::string(200, '0'));
    }
    EXPECT_TRUE(IS_SANITIZED || ResidentKilobytes(getpid()) < before + 8000);
    FreezeFor(4000);
    EXPECT_TRUE(m_server->Peer(kept[0]->UniqueName()).m_isKnown);
    EXPECT_LT(Seconds([&] { EXPECT_FALSE(m_server->Peer(":9.8").m_isKnown); }), 3.5);
}

// --- The state -----------------------------------------------------------------------------------

TEST_F(Service, StateIsToldFromTheQueueToTheEndOfTheBus)
{
    RawPeer owner;
    ASSERT_TRUE(owner.OwnName(SERVICE_NAME));
    m_server = std::make_unique<TCDbusServer>(false);
    const auto losses = [] {
        return LogCapture::Count(LOG_DEBUG, std::string("Name ") + SERVICE_NAME + " has been lost");
    };
    EXPECT_EQ(m_server->State(), EServiceState::STARTING);
    EXPECT_FALSE(TCDbusServer(false).Stop(0, FAIL)); // the path is the first one's
    TellStates();
    ExpectStates({EServiceState::QUEUED});
    EXPECT_TRUE(losses() == 1 && !m_server->IsReady());
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "QORDbusServer.cpp file in line "), 1U);
    std::size_t entries = 1;
    m_server->SendEventTo({":9.9"}, 2, {}, 0, [&](const Entries& told) { entries = told.size(); });
    EXPECT_TRUE(PumpUntil([&] { return entries == 0; }));
    const auto setCallback = [&](EServiceState state)
    {
        m_states.push_back(state);
        EXPECT_TRUE(m_server->SetCallback(4, [](const auto&, auto&) { return true; }));
    };
    m_server->SetStateCallback(setCallback);
    ExpectStates({EServiceState::QUEUED, EServiceState::QUEUED});

    const auto tellSlowly = [this]
    {
        isSlow = true;
        TellStates();
    };
    auto slow = std::async(std::launch::async, tellSlowly);
    ASSERT_TRUE(WaitUntil([] { return isWaiting.load(); }));
    ASSERT_TRUE(owner.ReleaseName(SERVICE_NAME));
    States all{EServiceState::QUEUED, EServiceState::QUEUED, EServiceState::ACQUIRED};
    ExpectStates(all);
    slow.get();
    ExpectStates(all);
    AddFilter();
    qor::TGlibPtr<GVariant>(g_dbus_connection_call_sync(
        m_shared.get(), "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "ReleaseName",
        g_variant_new("(s)", SERVICE_NAME), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
    all.push_back(EServiceState::LOST);
    ExpectStates(all);
    owner.Leave();
    m_bus.Kill();
    all.push_back(EServiceState::BUS_CLOSED);
    ExpectStates(all);
    EXPECT_TRUE(losses() > 1 && m_server->IsReady()); // for a service that ends anyway
    bool isStopped = false;
    EXPECT_TRUE(m_server->Stop(0, [&] { isStopped = true; }));
    EXPECT_TRUE(PumpUntil([&] { return isStopped; }));
}

TEST_F(Service, RefusedNameAndClosedBusAreTold)
{
    m_bus.Kill();
    PrivateBus::Options options;
    options.owning = "deny";
    PrivateBus bus(options);
    m_server = std::make_unique<TCDbusServer>(false);
    TellStates();
    ExpectStates({EServiceState::REFUSED});
    bus.Kill();
    ExpectStates({EServiceState::REFUSED, EServiceState::BUS_CLOSED});
    m_server.reset();
    EXPECT_TRUE(SharedConnectionIsLetGo());
    m_server = std::make_unique<TCDbusServer>(false);
    EXPECT_EQ(m_server->State(), EServiceState::BUS_CLOSED);
    EXPECT_FALSE(m_server->Stop(0, FAIL));
}

// --- The end -------------------------------------------------------------------------------------

TEST_F(Service, StopAnswersWhatWaitsAndCancelsWhatHangs)
{
    for (const bool isInTime : {false, true})
    {
        Start();
        const Peers hung = Clients(1, HOLD), good = Clients(1);
        const guint filter = AddFilter();
        RawPeer caller, late, next;
        auto waiting = caller.StartCall(SERVICE_NAME, SERVICE_PATH, "Send", Request(4, false));
        ASSERT_TRUE(WaitUntil([] { return calls == 1; }));
        std::vector<Entries> told;
        const auto onDone = [&](const Entries& entries) { told.push_back(entries); };
        m_server->SendEvent(2, {}, G_MAXINT, onDone);
        int stops = 0;
        const auto onStopped = [&] { stops += next.OwnName(SERVICE_NAME) ? 1 : 100; };
        EXPECT_TRUE(m_server->Stop(isInTime ? G_MAXINT : 1000, onStopped));
        EXPECT_FALSE(m_server->Stop(0, FAIL));
        EXPECT_EQ(Send(late).errorName, "org.freedesktop.DBus.Error.ServiceUnknown");
        m_server->SendEvent(2, {}, G_MAXINT, onDone);
        EXPECT_EQ(Deliver(2, G_MAXINT), Counts(0, 2));
        EXPECT_TRUE(PumpUntil([&] { return told.size() == 1 && good[0]->Count("Send") == 1; }));
        if (isInTime)
        {
            hung[0]->AnswerHeld(YES);
        }
        EXPECT_TRUE(PumpUntil([&] { return stops != 0; }, 15000));
        EXPECT_LT(Seconds([&] { m_server.reset(); }), 10);
        EXPECT_TRUE(waiting.get().ok);
        EXPECT_EQ(stops, 1);
        ASSERT_EQ(told.size(), 2U);
        for (const qor::TSDelivery& entry : told[0])
        {
            EXPECT_EQ(entry.m_outcome, EDelivery::CANCELLED);
        }
        for (const qor::TSDelivery& entry : told[1])
        {
            const bool isHung = entry.m_name == hung[0]->UniqueName() && !isInTime;
            EXPECT_EQ(entry.m_outcome, isHung ? EDelivery::CANCELLED : EDelivery::DELIVERED);
        }
        EXPECT_EQ(told[0].size() + told[1].size(), 4U);
        EXPECT_EQ(hung[0]->Count("Send") + good[0]->Count("Send"), 2U);
        g_dbus_connection_remove_filter(m_shared.get(), filter);
    }
}

// It was let in, and is still on its way to the main context when everything else has ended.
TEST_F(Service, StopWaitsForACallThatIsJustComingIn)
{
    bool isStopped = false;
    Start([&](const auto&, auto&) { return !isStopped; });
    AddFilter();
    delayMs = 500;
    RawPeer caller;
    auto call = caller.StartCall(SERVICE_NAME, SERVICE_PATH, "Send", Request(4, false), 10000);
    ASSERT_TRUE(WaitUntil([] { return calls == 1; }));
    m_server->Stop(10000, [&] { isStopped = true; });
    PumpUntil([] { return false; }, 100);
    std::this_thread::sleep_for(std::chrono::milliseconds(700)); // work of the host's
    EXPECT_TRUE(PumpUntil([&] { return isStopped; }));
    m_server.reset();
    EXPECT_EQ(call.get().bytes, Bytes{1});
    delayMs = 0;
}

TEST_F(Service, EndDoesNotWaitForAFrozenBus)
{
    Start();
    m_bus.Freeze(true);
    bool isStopped = false;
    const auto stop = [&]
    {
        isSlow = true;
        return m_server->Stop(60000, [&] { isStopped = true; });
    };
    auto result = std::async(std::launch::async, stop);
    EXPECT_TRUE(PumpUntil([&] { return isStopped; }, 15000));
    EXPECT_TRUE(result.get());
    FreezeFor(300);
    m_server.reset(); // and now the bus answers
    m_thaw.get();

    // Nor does an end without it, which gives the name up.
    Start();
    m_bus.Freeze(true);
    EXPECT_LT(Seconds([&] { m_server.reset(); }), 6);
    m_bus.Freeze(false);
    RawPeer next;
    EXPECT_TRUE(WaitUntil([&] { return next.OwnName(SERVICE_NAME); }, 10000));
}

} // namespace
