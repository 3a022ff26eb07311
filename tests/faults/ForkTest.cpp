// Hosts that fork, and hosts that exit at a bad moment.
#include <sys/wait.h>
#include <unistd.h>

#include <deque>

#include <qor/QORCallbacksProxy.h>
#include <qor/QORContextThread.h>
#include <qor/QORDbusClient.h>
#include <qor/QORDbusServer.h>
#include <qor/api.h>

#include "BusTest.h"
#include "FaultSupport.h"
#include "QORControlProxy.h"

using namespace qortest;

// Runs the work in a forked child, which then exits as programs do, teardown included.
static int ExitStatusOfChild(const std::function<void()>& work)
{
    const pid_t child = fork();
    if (child == 0)
    {
        alarm(20); // a child that hangs fails
        work();
        std::exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

class Fork : public BusTest
{
protected:
    void SetUp() override
    {
        // The locks of their allocators may be held by a thread that the child does not have.
        if (IS_SANITIZED)
        {
            GTEST_SKIP() << "the sanitizers do not stand forks of busy processes";
        }
        m_peer.AnswerWith({Answer::REPLY, PolicyReply(0), ""});
    }

    // Repeats each work on a thread of its own, and meanwhile forks children that do theirs.
    static void ForkWhile(const std::vector<std::function<bool()>>& busy, int times,
                          const std::function<void(int)>& work)
    {
        std::atomic<unsigned int> failures{0};
        std::deque<Repeat> threads;
        for (const auto& repeated : busy)
        {
            threads.emplace_back([&] { failures += repeated() ? 0 : 1; });
        }
        for (int round = 0; round < times; ++round)
        {
            EXPECT_EQ(ExitStatusOfChild([&] { work(round); }), 0) << "round " << round;
        }
        threads.clear();
        EXPECT_EQ(failures, 0U);
    }

    RawPeer m_peer;
};

TEST_F(Fork, ChildOfABusyClientHostIsRefusedAndCanExitAndTheHostGoesOn)
{
    ASSERT_TRUE(m_peer.OwnName(SERVICE_NAME));
    // Held by the library alone, so that the child's teardown destroys them.
    qor::IControl* const control = qor::api::GetControl().get();
    qor::ICallbacks* const callbacks = qor::TCCallbacksProxy::Instance().get();
    qor::IDbusClient& client = *qor::TCDbusClientProvider::Get(false);
    std::atomic<unsigned int> events{0};
    Bytes response;
    ASSERT_TRUE(callbacks->SetPolicyUpdateCb([&events] { ++events; }));
    {
        BackgroundPump pump;
        ASSERT_TRUE(m_peer.WaitForCalls("Hello", 1));
        const std::string name = m_peer.Calls("Hello").front().sender;
        const auto setPolicy = [&] { return control->SetPolicy("<policy/>") == 0; };
        const auto setCallback = [&] // each says Hello
        {
            callbacks->SetRequestProcessInfoCb([] { return true; });
            callbacks->ResetRequestProcessInfoCb();
            Pause();
            return true;
        };
        const auto lock = [] { return qor::api::GetControl() != nullptr; };
        const auto event = [&]
        { return m_peer.Call(name, SERVICE_PATH, "Send", Request(2, false)).ok; };
        const auto work = [&](int round)
        {
            if (round % 2 == 0)
            {
                qor::TCCallbacksProxy::Destroy(); // what a host does in its own exit handler
            }
            else if (client.SendMessage(1, {}, response, false) || client.IsReady() ||
                     control->SetPolicy("") != -1 || client.SendMessage(1, {}, response, true) ||
                     client.UnSetCallback(2) ||
                     client.Call(1, {}, 1000, {}).m_status != qor::ESendStatus::NO_BUS ||
                     client.AddStateCallback([](qor::EClientState) {}) != 0)
            {
                _exit(1); // what is inherited must be refused
            }
        };
        ForkWhile({setPolicy, setPolicy, setCallback, lock, event}, 40, work);
        const unsigned int before = events;
        EXPECT_TRUE(event() && events > before) << "no event reaches the host";
    }
    qor::TCCallbacksProxy::Destroy();
    qor::TCControlProxy::Destroy();
}

TEST_F(Fork, ChildOfABusyServiceCanExitAndTheServiceGoesOn)
{
    auto server = std::make_unique<qor::TCDbusServer>(false);
    ASSERT_TRUE(PumpUntil([&] { return server->IsReady(); }));
    BackgroundPump pump;
    m_peer.PostHello(SERVICE_NAME, {2});
    ASSERT_TRUE(WaitUntil([&] { return server->NumberOfClients() == 1; }));
    const auto send = [&] { return server->SendMessage(2, {}, 10000).first == 1; };
    const auto count = [&] { return server->NumberOfClients() != 0; };
    const auto pass = [] { return RawPeer().Call(SERVICE_NAME, SERVICE_PATH, "Hello", {}).ok; };
    const auto work = [&](int round)
    {
        if (round % 2 == 0)
        {
            server.reset();
            return;
        }
        const bool isRefused = !server->IsReady() && server->GetUniqueName().empty() &&
                               server->GetCurrentSender().empty() &&
                               server->NumberOfClients() == 0 && server->Clients().empty() &&
                               server->SendMessage(2, {}, 1000).second == 0 &&
                               !server->SetCallback(1, Accept) && !server->UnSetCallback(1) &&
                               !server->Peer(":1.1").m_isKnown && !server->CurrentPeer().m_isKnown;
        server->SendEvent(2, {}, 1000, {});
        _exit(isRefused ? 0 : 1);
    };
    ForkWhile({send, count, pass}, 20, work);
    EXPECT_TRUE(send());
}

// The parent's threads are inside GLib, and hold its locks, at any moment.
TEST_F(Fork, ChildOfABusyHostMayLetGoAndAskForEndpointsOfItsOwn)
{
    ASSERT_TRUE(m_peer.OwnName(SERVICE_NAME));
    auto client = qor::TCDbusClientProvider::Get(false);
    const ObjectPtr<GDBusConnection> shared(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    const qor::TSServiceInterface own{
        "<node><interface name='a.b'/></node>", [](GDBusMethodInvocation*) {}, {}};
    qor::TCContextThread thread;
    Bytes response;
    const auto work = [&](int)
    {
        thread.Run([] { _exit(1); }); // which the child does not have
        for (int i = 0; i < 2; ++i)
        {
            client.reset();
            client = qor::TCDbusClientProvider::Get(false);
            qor::TCDbusServer server(true, {own});
            const auto text = qor::api::GetPolicyControl()->GetPolicy(1, 1000, {});
            if (client->SetCallback(2, Accept) || client->SendMessage(1, {}, response, false) ||
                server.IsReady() || text.m_send.m_status != qor::ESendStatus::NO_BUS)
            {
                _exit(1);
            }
        }
    };
    const auto call = [this]
    { return m_peer.Call(SERVICE_NAME, SERVICE_PATH, "Send", Request(1, false)).ok; };
    ForkWhile({call, call, call}, 20, work);
    EXPECT_TRUE(client->SendMessage(1, {}, response, false));
    client.reset(); // and nothing but the connection is inherited
    ForkWhile({call, call, call}, 20, work);
}

// In a process of its own, which has not used the library before.
TEST(Host, DISABLED_ForksFirst)
{
    _exit(ExitStatusOfChild([] { _exit(qor::api::GetControl()->SetPolicy("<policy/>") + 42); }));
}

TEST_F(BusTest, HostForksFirst)
{
    RawPeer peer;
    peer.AnswerWith({Answer::REPLY, PolicyReply(0), ""});
    ASSERT_TRUE(peer.OwnName(SERVICE_NAME));
    ChildProcess forking({"/proc/self/exe", "--gtest_also_run_disabled_tests",
                          "--gtest_filter=Host.DISABLED_ForksFirst"});
    EXPECT_EQ(forking.Wait(), 42) << forking.Err();
}

TEST_F(BusTest, HostExitsInsideACallbackWhileACallIsPending)
{
    QORTEST_IN_CHILD({
        RawPeer peer;
        peer.AnswerWith(NEVER);
        peer.OwnName(SERVICE_NAME);
        const auto control = qor::api::GetControl();
        const auto leave = [&]
        {
            std::thread([control] { control->SetPolicy("<policy/>"); }).detach();
            const bool isPending = peer.WaitForCalls("Send", 1);
            alarm(5); // a teardown that waits for the call fails
            std::exit(isPending ? 0 : 1);
        };
        qor::TCCallbacksProxy::Instance()->SetPolicyUpdateCb(leave);
        PumpUntil([&] { return peer.Count("Hello") != 0; });
        peer.Post(peer.Calls("Hello").back().sender, SERVICE_PATH, "Send", Request(2, false));
        PumpUntil([] { return false; });
        std::abort(); // the event has not come
    });
}
