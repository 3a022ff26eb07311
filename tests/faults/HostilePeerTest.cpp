// Peers that do what no client of the library does, one by one and in masses.
#include <csignal>
#include <random>

#include "FaultSupport.h"
#include "MainContext.h"
#include "ToolRunner.h"

using namespace qortest;

class HostilePeer : public ToolTest
{
protected:
    static void EndCleanly(ChildProcess& process)
    {
        process.Signal(SIGTERM);
        EXPECT_EQ(process.Wait(), 0) << process.Err();
    }
};

TEST_F(HostilePeer, CallsOfTheWrongShapeAreAnsweredWithErrors)
{
    const std::string path = SERVICE_PATH, name = std::string(" ") + INTERFACE_NAME;
    const std::string calls[][2] = {
        {path + name + ".Send string:text", "InvalidArgs"},
        {path + name + ".Send", "InvalidArgs"},
        {path + name + ".Send array:byte:1 array:byte:1", "InvalidArgs"},
        {path + name + ".Send array:int32:1,2", "InvalidArgs"},
        {path + name + ".Send variant:int32:4", "InvalidArgs"},
        {path + name + ".Hello string:text", "InvalidArgs"},
        {path + name + ".Hello dict:string:int32:a,1", "InvalidArgs"},
        {path + name + ".Hello", "InvalidArgs"},
        {path + name + ".Unknown array:byte:1", "UnknownMethod"},
        {path + " com.example.Other.Send array:byte:1", "UnknownMethod"},
        {"/com/example/Other" + name + ".Send array:byte:1", "UnknownMethod"},
        {"/" + name + ".Hello array:byte:1", "UnknownMethod"},
        {path + " org.freedesktop.DBus.Properties.Set string:com.norvane.qor.IControl string:Send "
                "variant:int32:1",
         "InvalidArgs"},
        {path + name + ".Hello array:byte:1", ""}}; // bytes are the business of who reads them
    auto qord = StartQord();
    for (const auto& [call, error] : calls)
    {
        const Outcome outcome = RunTool("sh", {"-c", "dbus-send --system --print-reply --dest=" +
                                                         (SERVICE_NAME + (" " + call))});
        EXPECT_EQ(outcome.exitCode, error.empty() ? 0 : 1) << call << outcome.out;
        EXPECT_NE(outcome.err.find(error), std::string::npos) << call << outcome.err;
    }
    EndCleanly(*qord);
}

TEST_F(HostilePeer, EveryKindOfBadAnswerIsOneFailureAndTheOthersAreServed)
{
    auto qord = StartQord({"--event-timeout", "500"});
    auto listener = StartListener();
    const Answer answers[] = {
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
    qord->Signal(SIGUSR1);
    EXPECT_TRUE(qord->WaitForOut("process-info: 1 delivered, 6 failed")) << qord->Out();
    EXPECT_TRUE(listener->WaitForOut("process-info"));
    EndCleanly(*qord);
}

// A client of the library that another process calls, which has taken the service's name.
TEST_F(HostilePeer, ClientHostStandsAServiceThatIsNone)
{
    RawPeer impostor;
    ASSERT_TRUE(impostor.OwnName(SERVICE_NAME));
    auto listener = StartListener();
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
    EXPECT_EQ(listener->Err(), "");

    ASSERT_TRUE(impostor.ReleaseName(SERVICE_NAME));
    auto qord = StartQord();
    ASSERT_TRUE(WaitUntil([&] { return CountOf(listener->Out(), "appeared") == 2; }));
    SyncWithService();
    qord->Signal(SIGUSR1);
    EXPECT_TRUE(qord->WaitForOut("process-info: 1 delivered, 0 failed")) << qord->Out();
    EndCleanly(*listener);
}

// Sends what a client may send, and what none does: types that mean something are frequent, and
// sizes reach from nothing to a megabyte.
static void Flood(std::vector<std::unique_ptr<RawPeer>>& peers, std::mt19937& random, int messages)
{
    for (int i = 0; i < messages; ++i)
    {
        Bytes bytes(random() % (1UL << (random() % 100 == 0 ? 20 : random() % 13)));
        for (std::size_t k = 0; k < bytes.size() && k < 256; ++k)
        {
            bytes[k] = static_cast<unsigned char>(random() % 3 == 0 ? random() : 0);
        }
        if (bytes.size() >= 8 && random() % 2 == 0)
        {
            const Bytes type = EventList({static_cast<std::int32_t>(random() % 6)});
            std::copy(type.begin(), type.end(), bytes.begin());
        }
        RawPeer& peer = *peers[random() % peers.size()];
        peer.Post(SERVICE_NAME, SERVICE_PATH, random() % 2 == 0 ? "Hello" : "Send", bytes);
        if (random() % 20 == 0)
        {
            peer.Sync(); // no more than the bus takes in
        }
    }
    for (const auto& peer : peers)
    {
        peer->Call(SERVICE_NAME, SERVICE_PATH, "Hello", {}); // after all of its others
    }
}

// Some of the fifty leave in the middle of what they do, a policy among it.
TEST_F(HostilePeer, FloodFromFiftyConnectionsIsStoodLeavesNothingAndOthersAreServed)
{
    auto qord = StartQord({"--event-timeout", "5000"});
    auto listener = StartListener();
    RawPeer client;
    std::mt19937 random(1);
    std::size_t resident[2] = {}, files[2] = {};
    for (int flood = 0; flood < 2; ++flood)
    {
        const std::size_t events = CountOf(listener->Out(), "process-info");
        std::vector<std::unique_ptr<RawPeer>> peers(50);
        for (int part = 0; part < 10; ++part)
        {
            for (auto& peer : peers)
            {
                if (!peer || random() % 10 == 0)
                {
                    peer = std::make_unique<RawPeer>();
                    peer->PostHello(SERVICE_NAME, {2, 4});
                }
            }
            qord->Signal(SIGUSR1);
            Flood(peers, random, 1000);
            for (int i = 0; i < 6; ++i)
            {
                RawPeer passing;
                passing.PostHello(SERVICE_NAME, {2, 4});
                passing.Post(SERVICE_NAME, SERVICE_PATH, "Send",
                             Request(4, false, Archive("<p>" + std::string(300000, 'x') + "</p>")));
                if (i % 3 != 0)
                {
                    passing.Sync();
                }
                qord->Signal(SIGUSR1);
                passing.Leave();
            }
            SyncWithService();
            const std::string policy = "<p n='" + std::to_string(part) + "'/>";
            EXPECT_EQ(SendPolicy(client, policy), 0);
            EXPECT_EQ(StoredPolicy(), policy);
        }
        EXPECT_GT(CountOf(listener->Out(), "process-info"), events);
        peers.clear();
        // Only the listener is there in the end, and what was opened for the others is closed.
        const std::size_t before = CountOf(qord->Out(), "process-info: 1 delivered, 0 failed");
        EXPECT_TRUE(WaitUntil(
            [&]
            {
                qord->Signal(SIGUSR1);
                return CountOf(qord->Out(), "process-info: 1 delivered, 0 failed") > before;
            }));
        resident[flood] = ResidentKilobytes(qord->Pid());
        files[flood] = OpenFiles(qord->Pid());
    }
    EXPECT_EQ(files[1], files[0]);
    EXPECT_TRUE(IS_SANITIZED || resident[1] < resident[0] + 8 * 1024)
        << "after one flood " << resident[0] << " KiB, after another " << resident[1] << " KiB";
    EndCleanly(*qord);
}
