// Hosts that fork, and hosts that exit at a bad moment.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include <qor/QORCallbacksProxy.h>
#include <qor/QORDbusClient.h>
#include <qor/QORDbusServer.h>
#include <qor/api.h>

#include "BusTest.h"
#include "FaultSupport.h"
#include "QORControlProxy.h"

using namespace qortest;

static int g_isForkedChild = 0;

// The leak checker asks: a forked child abandons what it inherits, and that is no leak.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off();
extern "C" int __lsan_is_turned_off()
{
    return g_isForkedChild;
}

class Fork : public BusTest
{
protected:
    void SetUp() override
    {
#ifdef __SANITIZE_THREAD__
        // Its own locks may be held by a thread that the child does not have.
        GTEST_SKIP() << "the thread sanitizer does not stand forks of busy processes";
#endif
    }

    ~Fork() override
    {
        StopThreads();
    }

    // Repeats the work on a thread of its own until all are stopped.
    void Repeat(const std::function<void()>& work)
    {
        m_threads.emplace_back(
            [this, work]
            {
                while (!m_stop)
                {
                    work();
                }
            });
    }

    void StopThreads()
    {
        m_stop = true;
        for (std::thread& thread : m_threads)
        {
            thread.join();
        }
        m_threads.clear();
    }

    // Runs the work in a forked child, which then exits as programs do, teardown included.
    static int ExitStatusOfChild(const std::function<void()>& work)
    {
        const pid_t child = fork();
        if (child == 0)
        {
            g_isForkedChild = 1;
            alarm(20); // a child that hangs fails
            work();
            std::exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    // A service whose reply to a policy is 0.
    void Serve(RawPeer& service)
    {
        ASSERT_TRUE(service.OwnName(SERVICE_NAME));
        Answer stored;
        stored.bytes = Archive(0);
        stored.bytes.insert(stored.bytes.begin(), 1);
        service.AnswerWith(stored);
    }

    std::atomic<bool> m_stop{false};
    std::atomic<unsigned int> m_failures{0};
    std::vector<std::thread> m_threads;
};

TEST_F(Fork, ChildOfABusyClientHostCanExitAndTheHostGoesOn)
{
    RawPeer service;
    Serve(service);
    // Held by the library alone, so that the child's teardown destroys them.
    qor::IControl* const control = qor::api::GetControl().get();
    std::atomic<unsigned int> events{0};
    qor::ICallbacks* const callbacks = qor::TCCallbacksProxy::Instance().get();
    ASSERT_TRUE(callbacks->SetPolicyUpdateCb([&events] { ++events; }));
    BackgroundPump pump;
    ASSERT_TRUE(service.WaitForCalls("Hello", 1));
    const std::string name = service.Calls("Hello").front().sender;
    for (int i = 0; i < 2; ++i)
    {
        Repeat([&] { m_failures += control->SetPolicy("<policy/>") == 0 ? 0 : 1; });
    }
    Repeat(
        [callbacks]
        {
            callbacks->SetRequestProcessInfoCb([] { return true; });
            callbacks->ResetRequestProcessInfoCb();
            std::this_thread::sleep_for(std::chrono::milliseconds(1)); // each says Hello
        });
    Repeat([] { qor::api::GetControl(); }); // takes the library's own locks
    Repeat([&] { service.Call(name, SERVICE_PATH, "Send", Request(2, false)); });
    for (int round = 0; round < 40; ++round)
    {
        // Every second child does what a host does in its own exit handler.
        ASSERT_EQ(
            ExitStatusOfChild([&] { round % 2 == 0 ? qor::TCCallbacksProxy::Destroy() : void(); }),
            0);
    }
    const unsigned int before = events;
    EXPECT_TRUE(WaitUntil([&] { return events > before; })) << "no event reaches the host";
    StopThreads();
    EXPECT_EQ(m_failures, 0U);
    qor::TCCallbacksProxy::Destroy();
    qor::TCControlProxy::Destroy();
}

TEST_F(Fork, ChildThatUsesAnInheritedClientIsRefusedAtOnce)
{
    RawPeer service;
    Serve(service);
    const auto client = std::make_unique<qor::TCDbusClient>(false);
    const auto useIt = [&]
    {
        std::vector<unsigned char> response;
        _exit(client->SendMessage(1, {}, response, false) ||
              client->SendMessage(1, {}, response, true) || client->SetCallback(1, {}) ||
              client->UnSetCallback(1));
    };
    EXPECT_EQ(ExitStatusOfChild(useIt), 0);
    service.Sync();
    EXPECT_EQ(service.Count("Send"), 0U);
}

TEST_F(Fork, ChildOfABusyServiceCanExitAndTheServiceGoesOn)
{
    auto server = std::make_unique<qor::TCDbusServer>(false);
    ASSERT_TRUE(PumpUntil([&] { return server->IsReady(); }));
    BackgroundPump pump;
    RawPeer client;
    client.PostHello(SERVICE_NAME, {2});
    ASSERT_TRUE(WaitUntil([&] { return server->NumberOfClients() == 1; }));
    Repeat([&] { m_failures += server->SendMessage(2, {}, 10000).first == 1 ? 0 : 1; });
    Repeat([&] { server->NumberOfClients(); });
    Repeat([] { RawPeer().Call(SERVICE_NAME, SERVICE_PATH, "Hello", {}); });
    for (int round = 0; round < 20; ++round)
    {
        ASSERT_EQ(ExitStatusOfChild([&] { server.reset(); }), 0) << "round " << round;
    }
    StopThreads();
    EXPECT_EQ(m_failures, 0U);
    EXPECT_EQ(server->SendMessage(2, {}, 10000).first, 1U);
}

TEST_F(Fork, HostForksFirstOrExitsInsideACallbackWhileACallIsPending)
{
    RawPeer service;
    Serve(service);
    EXPECT_EQ(ChildProcess({FAULT_HOST, "fork"}).Wait(), 42);

    service.AnswerWith({Answer::NEVER, {}, ""});
    service.ForgetCalls();
    ChildProcess::Options options;
    options.keepInputOpen = true;
    ChildProcess host({FAULT_HOST, "exit"}, options);
    ASSERT_TRUE(service.WaitForCalls("Hello", 1));
    service.Post(service.Calls("Hello").back().sender, SERVICE_PATH, "Send", Request(2, false));
    ASSERT_TRUE(service.WaitForCalls("Send", 1)) << "the host's call is not pending";
    host.WriteInput("exit\n");
    EXPECT_EQ(host.Wait(5000), 7) << host.Err();
}
