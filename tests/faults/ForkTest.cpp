// Hosts that fork, and hosts that exit at a bad moment.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <qor/ICallbacks.h>
#include <qor/QORCallbacksProxy.h>
#include <qor/QORDbusClient.h>
#include <qor/QORDbusServer.h>
#include <qor/api.h>

#include "BusTest.h"
#include "QORControlProxy.h"

namespace
{

bool g_leaksAreWanted = false;

} // namespace

// The leak checker asks: a forked child abandons what it inherits, and that is no leak.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off();
extern "C" int __lsan_is_turned_off()
{
    return g_leaksAreWanted ? 1 : 0;
}

namespace qortest
{
namespace
{

constexpr unsigned int CHILD_WATCHDOG_SECONDS = 20;

// The reply to a policy: an archive that holds the integer 0.
Answer PolicyStored()
{
    Answer answer;
    answer.bytes = {1, 22, 0, 0, 0, 0, 0, 0, 0};
    for (const char character : std::string("serialization::archive"))
    {
        answer.bytes.push_back(static_cast<unsigned char>(character));
    }
    const Bytes rest = {17, 0, 4, 8, 4, 8, 1, 0, 0, 0, 0, 0, 0, 0};
    answer.bytes.insert(answer.bytes.end(), rest.begin(), rest.end());
    return answer;
}

// Runs the work in a forked child, which then exits as programs do, teardown included.
// Returns the exit status, 128 + 14 if the child hung.
template <class TWork>
int ExitStatusOfChild(const TWork& work)
{
    const pid_t child = fork();
    if (child == 0)
    {
        g_leaksAreWanted = true;
        alarm(CHILD_WATCHDOG_SECONDS);
        work();
        std::exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Threads that repeat their work until they are stopped.
class Workers
{
public:
    ~Workers()
    {
        Stop();
    }

    template <class TWork>
    void Add(const TWork& work)
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

    void Stop()
    {
        m_stop = true;
        for (std::thread& thread : m_threads)
        {
            thread.join();
        }
        m_threads.clear();
    }

private:
    std::atomic<bool> m_stop{false};
    std::vector<std::thread> m_threads;
};

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
};

class Host : public BusTest
{
};

TEST_F(Fork, ChildOfABusyClientHostCanExitAndTheHostGoesOn)
{
    RawPeer service;
    ASSERT_TRUE(service.OwnName(SERVICE_NAME));
    service.AnswerWith(PolicyStored());

    // Held by the library alone, so that the child's teardown destroys them.
    ASSERT_NE(qor::api::GetControl(), nullptr);
    std::atomic<unsigned int> events{0};
    ASSERT_TRUE(qor::TCCallbacksProxy::Instance()->SetPolicyUpdateCb([&events] { ++events; }));
    qor::IControl* const control = qor::api::GetControl().get();
    qor::ICallbacks* const callbacks = qor::TCCallbacksProxy::Instance().get();

    BackgroundPump pump;
    Workers workers;
    ASSERT_TRUE(service.WaitForCalls("Hello", 1));
    const std::string name = service.Calls("Hello").front().sender;
    std::atomic<unsigned int> failures{0};
    for (int i = 0; i < 2; ++i)
    {
        workers.Add([&] { failures += control->SetPolicy("<policy/>") == 0 ? 0 : 1; });
    }
    workers.Add(
        [callbacks]
        {
            callbacks->SetRequestProcessInfoCb([] { return true; });
            callbacks->ResetRequestProcessInfoCb();
            std::this_thread::sleep_for(std::chrono::milliseconds(1)); // each says Hello
        });
    workers.Add([] { qor::api::GetControl(); }); // takes the library's own locks
    workers.Add([&] { service.Call(name, SERVICE_PATH, "Send", Request(2, false)); });

    for (int round = 0; round < 40; ++round)
    {
        const bool destroys = round % 2 == 0;
        ASSERT_EQ(ExitStatusOfChild(
                      [&]
                      {
                          if (destroys)
                          {
                              // What a host does in its own exit handler.
                              qor::TCCallbacksProxy::Destroy();
                          }
                      }),
                  0)
            << "round " << round;
    }
    const unsigned int before = events;
    EXPECT_TRUE(WaitUntil([&] { return events > before; })) << "no event reaches the host";
    workers.Stop();
    EXPECT_EQ(failures, 0U);
    qor::TCCallbacksProxy::Destroy();
    qor::TCControlProxy::Destroy();
}

TEST_F(Fork, ChildThatUsesAnInheritedClientIsRefusedAtOnce)
{
    RawPeer service;
    ASSERT_TRUE(service.OwnName(SERVICE_NAME));
    const auto client = std::make_unique<qor::TCDbusClient>(false);
    service.Sync();
    service.ForgetCalls();
    EXPECT_EQ(ExitStatusOfChild(
                  [&]
                  {
                      std::vector<unsigned char> response;
                      const bool refused = !client->SendMessage(1, {}, response, false) &&
                                           !client->SendMessage(1, {}, response, true) &&
                                           !client->SetCallback(1, {}) && !client->UnSetCallback(1);
                      _exit(refused ? 0 : 1);
                  }),
              0);
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

    Workers workers;
    std::atomic<unsigned int> failures{0};
    workers.Add([&] { failures += server->SendMessage(2, {}, 10000).first == 1 ? 0 : 1; });
    workers.Add([&] { server->NumberOfClients(); });
    workers.Add(
        [&]
        {
            RawPeer passing;
            passing.Call(SERVICE_NAME, SERVICE_PATH, "Hello", {});
        });
    for (int round = 0; round < 20; ++round)
    {
        ASSERT_EQ(ExitStatusOfChild([&] { server.reset(); }), 0) << "round " << round;
    }
    workers.Stop();
    EXPECT_EQ(failures, 0U);
    EXPECT_EQ(server->SendMessage(2, {}, 10000).first, 1U);
}

// --- Hosts in processes of their own -------------------------------------------------------------

TEST_F(Host, ForksFirstAndUsesTheLibraryInTheChild)
{
    RawPeer service;
    ASSERT_TRUE(service.OwnName(SERVICE_NAME));
    service.AnswerWith(PolicyStored());
    ChildProcess host({FAULT_HOST, "after-fork"});
    EXPECT_EQ(host.Wait(), 0) << host.Err();
    EXPECT_EQ(host.Out(), "result 0\n");
}

TEST_F(Host, ExitsInsideACallbackWhileACallIsPending)
{
    RawPeer service;
    ASSERT_TRUE(service.OwnName(SERVICE_NAME));
    service.AnswerWith({Answer::NEVER, {}, ""});
    ChildProcess::Options options;
    options.keepInputOpen = true;
    ChildProcess host({FAULT_HOST, "exit-in-callback"}, options);
    ASSERT_TRUE(host.WaitForOut("waiting"));
    ASSERT_TRUE(service.WaitForCalls("Hello", 1));
    service.Post(service.Calls("Hello").back().sender, SERVICE_PATH, "Send", Request(2, false));
    ASSERT_TRUE(service.WaitForCalls("Send", 1)) << "the host's call is not pending";
    host.WriteInput("exit\n");
    EXPECT_EQ(host.Wait(5000), 7) << host.Err();
}

} // namespace
} // namespace qortest
