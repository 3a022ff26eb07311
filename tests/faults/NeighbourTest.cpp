// Hung and hostile neighbours on a bus with stock limits: the others are served all the same.
#include <fcntl.h>
#include <sys/resource.h>

#include <atomic>
#include <future>
#include <thread>

#include <qor/api.h>

#include "FaultSupport.h"
#include "ServerFixture.h"
#include "ToolRunner.h"

namespace
{

using namespace qortest;

using Neighbour = ServerTest;

// --- Events --------------------------------------------------------------------------------------

TEST_F(Neighbour, SilentClientCostsOneCallAndTheOtherHearsEveryEvent)
{
    Serve();
    const Peers silent = Clients(1, HOLD), good = Clients(1, YES);
    constexpr std::size_t EVENTS = 200;
    for (std::size_t i = 0; i < EVENTS; ++i)
    {
        ASSERT_EQ(Deliver(2, i == 0 ? 100 : WATCHDOG_MS), Counts(1, 1)) << i;
    }
    EXPECT_EQ(silent[0]->Count("Send"), 1U);
    EXPECT_EQ(good[0]->Count("Send"), EVENTS);
    EXPECT_TRUE(m_server->Clients()[0].m_isSuspended || m_server->Clients()[1].m_isSuspended);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, silent[0]->UniqueName() + " is suspended"), EVENTS - 1);
    RawPeer other; // who is being answered is not called
    // Each Hello is worth a call, up to the share, and then an event that asks for no answer.
    for (int i = 0; i < 6; ++i)
    {
        silent[0]->PostHello(SERVICE_NAME, {2});
        silent[0]->Sync();
        Send(other);
        const auto deliver = [&] { return Deliver(2, i < 3 ? 50 : WATCHDOG_MS); };
        EXPECT_LT(Seconds([&] { EXPECT_EQ(deliver(), Counts(1, 1)); }), 15); // not the watchdog
    }
    EXPECT_EQ(silent[0]->Count("Send"), 4U + 3U);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "is not asked for an answer"), 3U);
    silent[0]->AnswerWith(YES);
    silent[0]->AnswerHeld(YES);
    EXPECT_TRUE(WaitUntil([&] { return Deliver() == Counts(2, 0); })); // it has thawed
}

TEST_F(Neighbour, SilentClientsOfAUserTakeThatUsersShareOnly)
{
    if (geteuid() != 0)
    {
        GTEST_SKIP() << "only root can act as several users";
    }
    Serve();
    const Peers good = Clients(5, YES, {2}, 2);
    for (const bool isGreeting : {false, true})
    {
        SCOPED_TRACE(isGreeting);
        LogCapture::Clear();
        const Peers silent = Clients(150, NEVER, {2}, 1);
        EXPECT_EQ(Deliver(2, 1500), Counts(5, 150));
        for (int i = 0; i < 5; ++i)
        {
            for (std::size_t client = 0; isGreeting && client < silent.size(); ++client)
            {
                silent[client]->PostHello(SERVICE_NAME, {2});
            }
            EXPECT_EQ(Deliver(), Counts(5, 150)); // at once, or the watchdog barks
        }
        // Who is not called gets one event that asks for no answer; a Hello is worth another one.
        EXPECT_GE(CallsTo(silent), 150U);
        EXPECT_LE(CallsTo(silent), isGreeting ? 150U + 5U * 150U : 150U);
        EXPECT_EQ(LogCapture::Count(LOG_ERROR, "User 1 leaves 60 calls unanswered"), 1U);
        for (const auto& client : silent)
        {
            client->Leave();
        }
        EXPECT_TRUE(HasClients(5));
        EXPECT_EQ(Deliver(), Counts(5, 0));
    }

    // Each further one takes half of the slots that are left.
    std::vector<Peers> silent;
    std::size_t share = 60, others = 0;
    for (const unsigned int user : {1U, 3U, 4U})
    {
        silent.push_back(Clients(share + 10, NEVER, {2}, user));
        Deliver(2, 500);
        EXPECT_EQ(CallsTo(silent.back()), share) << "user " << user;
        others += share + 10;
        share /= 2;
    }
    EXPECT_LT(Seconds([&] { EXPECT_EQ(Deliver(), Counts(5, others)); }), 15); // not the watchdog
}

TEST_F(Neighbour, MoreClientsThanTheBusHasSlotsHearEveryEvent)
{
    Serve();
    Peers clients = Clients(220, HOLD);
    {
        const Repeat answers( // not so fast that few calls are on the way
            [&]
            {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                for (const auto& client : clients)
                {
                    client->AnswerHeld(YES);
                }
            });
        for (int i = 0; i < 3; ++i)
        {
            ASSERT_EQ(Deliver(), Counts(220, 0));
        }
    }
    clients.resize(10);
    EXPECT_TRUE(HasClients(10));
}

TEST_F(Neighbour, DeparturesThatTheBusDoesNotTellAreSeenByTheNextEvent)
{
    PrivateBus::Options options;
    options.maxMatchRules = 20;
    m_bus.Kill();
    const PrivateBus bus(options);
    Serve();
    Clients(60, YES); // and gone
    Send(*std::make_unique<RawPeer>());
    EXPECT_EQ(Deliver().first, 0U);
    EXPECT_TRUE(HasClients(0));
    m_pump.reset();
    m_server.reset();
    EXPECT_TRUE(SharedConnectionIsLetGo());
}

TEST_F(Neighbour, EventsThatTheBusDoesNotReadOrThatItTakesAlongAreNotHeldWithoutLimit)
{
    Serve();
    const Peers clients = Clients(40, YES);
    const std::size_t before = ResidentKilobytes(getpid());
    m_bus.Freeze(true);
    EXPECT_EQ(Deliver(2, 1000, Bytes(8 << 20)), Counts(0, 40));
    if (!IS_SANITIZED)
    {
        EXPECT_LT(ResidentKilobytes(getpid()), before + 200000);
    }
    m_bus.Freeze(false);
    EXPECT_TRUE(WaitUntil([&] { return Deliver() == Counts(40, 0); }));
    clients[0]->AnswerWith(NEVER);
    auto counts = std::async(std::launch::async, [&] { return Deliver(); });
    clients[0]->ForgetCalls();
    ASSERT_TRUE(clients[0]->WaitForCalls("Send", 1));
    m_pump.reset(); // nobody is told of the departures
    m_bus.Kill();
    EXPECT_LT(Seconds([&] { counts.get(); }), 15); // not the timeout
}

// --- What comes in -------------------------------------------------------------------------------

class BusyNeighbour : public Neighbour
{
protected:
    BusyNeighbour()
    {
        Serve(
            [this](const auto&, auto&)
            {
                ++m_handled;
                return WaitUntil([&] { return !m_isBusy; });
            });
        Post(m_other, 1);
        WaitUntil([&] { return m_handled == 1; });
    }

    // The answer to a good call is there soon after the service has become free.
    void ExpectService(RawPeer& peer)
    {
        auto answer = std::async(std::launch::async, [&] { return Send(peer); });
        peer.Sync();
        m_isBusy = false;
        EXPECT_LT(Seconds([&] { EXPECT_EQ(answer.get().bytes, Bytes{1}); }), 10);
    }

    std::atomic<bool> m_isBusy{true};
    std::atomic<std::size_t> m_handled{0};
    RawPeer m_other, m_good;
};

TEST_F(BusyNeighbour, SenderHasItsShareOfTheQueueAndItsMemory)
{
    for (const auto& [calls, size, share] :
         {std::tuple(1000U, 0U, 256U), std::tuple(70U, 1U << 20, 63U)})
    {
        const std::size_t before = m_handled;
        m_isBusy = true;
        RawPeer greedy;
        Post(greedy, calls, size);
        const CallResult refusal = Send(greedy, Bytes(size)); // at once
        EXPECT_EQ(refusal.errorName, REFUSED);
        EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Refusing calls of " + greedy.UniqueName()), 1U);
        ExpectService(m_good);
        EXPECT_TRUE(Send(greedy).ok); // what was refused is not owed
        EXPECT_LE(m_handled - before, share + 2);
    }
}

TEST_F(BusyNeighbour, AllSendersTogetherHaveAShareThatLocksNobodyOut)
{
    Peers greedy(8);
    for (auto& peer : greedy)
    {
        peer = std::make_unique<RawPeer>();
        Post(*peer, 200);
    }
    EXPECT_EQ(Send(*greedy[7]).errorName, REFUSED);
    ExpectService(m_good);
    EXPECT_LE(m_handled, 512U + 8 * greedy.size() + 1);
}

TEST_F(BusyNeighbour, DescriptorsAndHellosOfTooManyTypesAreRefused)
{
    const ObjectPtr<GUnixFDList> files(g_unix_fd_list_new());
    const int file = open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (int i = 0; i < 16; ++i)
    {
        g_unix_fd_list_append(files.get(), file, nullptr);
    }
    close(file);
    const std::size_t before = OpenFiles(getpid());
    for (int i = 0; i < 40; ++i)
    {
        ASSERT_EQ(Send(m_other, {}, files.get()).errorName, REFUSED);
    }
    EXPECT_LT(OpenFiles(getpid()), before + 40);

    m_isBusy = false;
    for (int i = 0; i < 70; ++i) // more than are kept before the quiet ones are looked for
    {
        EXPECT_TRUE(Send(*std::make_unique<RawPeer>()).ok);
    }
    EXPECT_EQ(Send(m_other, {}, files.get()).errorName, REFUSED); // not quiet, and still one burst
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Refusing calls of " + m_other.UniqueName()), 1U);

    const Peers client = Clients(1, YES);
    const auto hello = [&](std::size_t types)
    { return client[0]->Call(SERVICE_NAME, SERVICE_PATH, "Hello", Bytes(4 * types)); };
    EXPECT_EQ(hello(1025).errorName, REFUSED);
    EXPECT_EQ(Deliver(), Counts(1, 0)); // it keeps what it had
    EXPECT_TRUE(hello(1024).ok);
    EXPECT_EQ(Deliver(), Counts(0, 0));
}

TEST_F(Neighbour, WhatHasBeenHandledIsNoLongerCounted)
{
    Serve();
    RawPeer peers[2];
    for (int i = 0; i < 9; ++i) // together more than may wait at once
    {
        ASSERT_TRUE(Send(peers[i % 2], Bytes(31 << 20)).ok) << i;
    }
    CallResult elsewhere;
    for (int i = 0; i <= 4096; ++i)
    {
        elsewhere = peers[0].Call(SERVICE_NAME, "/elsewhere", "Send", {});
        peers[0].Post(SERVICE_NAME, "/elsewhere", "Send", {}); // and wants no answer
    }
    EXPECT_FALSE(elsewhere.ok || elsewhere.errorName == REFUSED) << elsewhere.errorName;
}

// --- A whole service -----------------------------------------------------------------------------

using AttackedService = ToolTest;

TEST_F(AttackedService, LongAnswersOfClientsAreNotKept)
{
    auto qord = StartQuietQord({"--event-timeout", std::to_string(WATCHDOG_MS)});
    const Answer answer{Answer::REPLY, Bytes(8 << 20), ""};
    RawPeer good;
    Peers liars(8);
    for (auto& liar : liars)
    {
        liar = std::make_unique<RawPeer>();
        liar->AnswerWith(answer);
        liar->PostHello(SERVICE_NAME, {2});
    }
    SyncWithService();
    EXPECT_EQ(SendPolicy(good, "<p/>"), 0); // and makes an event
    EXPECT_TRUE(qord->WaitForOut("policy-update: 0 delivered, 8 failed")) << qord->Out();
    EXPECT_TRUE(WaitUntil([&] { return CountOf(qord->Err(), ": answered false") == 8; }))
        << qord->Err();
    const std::size_t most = ResidentKilobytes(qord->Pid(), "VmHWM:");
    EXPECT_TRUE(IS_SANITIZED || most < 60 << 10) << most;
}

// The result of a policy that is set with that many descriptors left.
int SetPolicyWithDescriptors(std::size_t left)
{
    rlimit limit{OpenFiles(getpid()) - 1 + left, 4096};
    setrlimit(RLIMIT_NOFILE, &limit);
    const int result = qor::api::GetControl()->SetPolicy("<p/>");
    limit.rlim_cur = 4096;
    setrlimit(RLIMIT_NOFILE, &limit);
    return result;
}

TEST_F(AttackedService, HostWithoutDescriptorsGetsAnAnswerAndLives)
{
    if (IS_SANITIZED)
    {
        GTEST_SKIP() << "a sanitizer needs descriptors of its own";
    }
    RawPeer service;
    ASSERT_TRUE(service.OwnName(SERVICE_NAME));
    service.AnswerWith({Answer::REPLY, PolicyReply(0), ""});
    QORTEST_IN_CHILD({
        const auto control = qor::api::GetControl();
        for (std::size_t left = 0; left < 12; ++left)
        {
            EXPECT_EQ(SetPolicyWithDescriptors(left), 0);
        }
    });
    // A start that has failed stays one: each is the first of its process.
    for (std::size_t left = 0; left < 24; ++left)
    {
        QORTEST_IN_CHILD(const int result = SetPolicyWithDescriptors(left);
                         EXPECT_TRUE(result == 0 || (result == -1 && left < 12)) << result);
    }
}

} // namespace
