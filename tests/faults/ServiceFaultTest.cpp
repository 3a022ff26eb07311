// The service's disk, its events, its end, and its output at their worst.
#include <sys/socket.h>

#include <map>
#include <random>

#include <nlohmann/json.hpp>

#include "FaultFixture.h"

using namespace qortest;
using namespace std::string_literals;
namespace fs = boost::filesystem;

// The n-th policy, of a size of its own, so that no prefix of one is another.
static std::string Policy(int number)
{
    const auto size = static_cast<std::size_t>(20000 + number);
    return "<p n='" + std::to_string(number) + "'>" + std::string(size, 'x') + "</p>";
}

TEST_F(Fault, KilledServiceLeavesAWholePolicyAndKeepsThoseBeforeIt)
{
    const int last = std::getenv("QOR_TEST_LONG") != nullptr ? 2000 : 200;
    std::mt19937 random(7);
    RawPeer other;
    std::atomic<int> sent{0};
    std::size_t stored = 0, starts = 0;
    while (sent < last)
    {
        auto qord = StartQord({"--keep", "5"});
        ++starts;
        std::atomic<std::size_t> acknowledged{0};
        const auto write = [&](RawPeer& peer)
        {
            for (int number = ++sent; number <= last; number = ++sent)
            {
                if (SendPolicy(peer, Policy(number)) != qor::POLICY_STORED)
                {
                    return;
                }
                ++acknowledged;
            }
        };
        auto first = std::async(std::launch::async, [&] { return write(m_client); });
        auto second = std::async(std::launch::async, [&] { return write(other); });
        const int until = sent + 1 + static_cast<int>(random() % 40);
        EXPECT_TRUE(WaitUntil([&] { return sent > std::min(until, last); }));
        qord->Signal(SIGKILL);
        qord->Wait();
        first.get();
        second.get();
        qord = StartQord({"--keep", "5"}); // and what was under way is ended
        std::map<std::size_t, std::string> kept;
        for (const auto& entry : fs::directory_iterator(m_directory.Path()))
        {
            const std::string name = entry.path().filename().string();
            const std::size_t number = name.find(".kept-") == std::string::npos
                                           ? 0
                                           : std::stoul(name.substr(name.rfind('-') + 1));
            number == 0 ? void() : void(kept[number] = ReadFile(entry.path().string()));
        }
        std::string found = StoredPolicy();
        const auto isWhole = [](const std::string& text)
        { return text == Policy(std::stoi(text.substr(6))); };
        ASSERT_TRUE(found.empty() || isWhole(found)) << found.substr(0, 40);
        ASSERT_LE(kept.size(), 5U);
        for (const auto& [number, text] : kept)
        {
            ASSERT_TRUE(isWhole(text)) << number;
        }
        // Each policy that was stored has raised the numbers by one; of each writer one may be
        // among them that was not acknowledged any more.
        const std::size_t before = std::exchange(
            stored, (found.empty() ? 0 : 1) + (kept.empty() ? 0 : kept.rbegin()->first));
        ASSERT_GE(stored, before + acknowledged);
        ASSERT_LE(stored, before + acknowledged + 2);
        ASSERT_TRUE(kept.empty() || kept.rbegin()->second != found);
        EndCleanly(*qord);
    }
    std::cout << starts << " starts\n";
    auto qord = StartQord({"--keep", "5"});
    ExpectResult(qor::POLICY_STORED, "<last/>");
    EndCleanly(*qord);
    for (const auto& entry : fs::directory_iterator(m_directory.Path()))
    {
        const fs::path extension = entry.path().extension();
        EXPECT_TRUE(extension != ".new" && extension != ".old") << "left over: " << entry.path();
    }
}

TEST_F(Fault, RefusalsOfTheDiskAndOfTheLimitKeepTheOldPolicy)
{
    auto qord = StartQord({"--max-policy-size", "1000"});
    const std::string largest = "<p>" + std::string(1000 - 7, 'x') + "</p>";
    ExpectResult(qor::POLICY_STORED, largest);
    const Outcome refused = Qorctl({"set-policy", "-"}, largest + " ");
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("more than the service accepts"), std::string::npos) << refused.err;
    ExpectResult(qor::POLICY_TOO_LARGE, std::string(1 << 20, '<'));
    EXPECT_EQ(StoredPolicy(), largest);
    fs::remove(m_policyFile);
    fs::create_directory(m_policyFile);
    WriteFile(m_policyFile + "/inside", "kept");
    ExpectResult(qor::POLICY_NOT_STORED, "<new/>");
    EXPECT_EQ(ReadFile(m_policyFile + "/inside"), "kept");
    fs::remove_all(m_directory.Path());
    ExpectResult(qor::POLICY_NOT_STORED, "<new/>");
    fs::create_directory(m_directory.Path());
    ExpectResult(qor::POLICY_STORED, "<new/>");
    EXPECT_EQ(StoredPolicy(), "<new/>");
    EXPECT_EQ(CountOf(qord->Err(), "could not be stored"), 2U) << qord->Err();
}

TEST_F(Fault, TheLargestPolicyTakesLessThanFourTimesItsSize)
{
    constexpr std::size_t size = 16 << 20;
    std::string nested;
    while (nested.size() < size)
    {
        nested += "<a>";
    }
    nested.resize(size);
    const std::string flat = "<a>" + std::string(size - 7, 'x') + "</a>";
    for (const auto& [policy, result] :
         {std::pair(flat, qor::POLICY_STORED), std::pair(nested, qor::POLICY_TOO_LARGE)})
    {
        auto qord = StartQord();
        ExpectResult(result, policy);
        EXPECT_TRUE(IS_SANITIZED || ResidentKilobytes(qord->Pid(), "VmHWM:") < 4 * size / 1024);
        fs::remove(m_policyFile); // the next start would read it
    }
}

TEST_F(Fault, FileSizeLimitIsAFailedWriteAndNotTheEndOfTheService)
{
    auto qord = StartTool("sh", {"-c", "ulimit -f 16 && exec '" QORD "' --policy " + m_policyFile});
    ASSERT_TRUE(qord->WaitForOut("ready")) << qord->Err();
    ExpectResult(qor::POLICY_STORED, "<old/>");
    ExpectResult(qor::POLICY_NOT_STORED, "<p>" + std::string(100000, 'x') + "</p>");
    EXPECT_EQ(StoredPolicy(), "<old/>");
    EndCleanly(*qord);
}

// The mounts are the service's own and end with it.
TEST_F(Fault, FullAndReadOnlyFileSystemsKeepTheOldPolicy)
{
    const std::string mountPoint = m_directory.Path();
    auto qord = StartTool("unshare", {"--mount", "sh", "-c",
                                      "mount -t tmpfs -o size=128k none " + mountPoint +
                                          " && exec '" QORD "' --policy " + m_policyFile});
    if (!qord->WaitForOut("ready"))
    {
        GTEST_SKIP() << "mounting takes privileges: " << qord->Err();
    }
    const std::string pid = std::to_string(qord->Pid()), seen = "/proc/" + pid + "/root";
    const auto remount = [&](const std::string& how)
    {
        const std::string options = "remount," + how;
        RunTool("nsenter", {"--mount", "--target", pid, "mount", "-o", options, mountPoint});
    };
    const std::string old = "<a>" + std::string(100000, 'x') + "</a>";
    ExpectResult(qor::POLICY_STORED, old);
    ExpectResult(qor::POLICY_NOT_STORED, old + "<!-- does not fit beside the old one -->");
    remount("ro");
    ExpectResult(qor::POLICY_NOT_STORED, "<c/>");
    EXPECT_EQ(ReadFile(seen + m_policyFile), old);
    remount("rw");
    ExpectResult(qor::POLICY_STORED, "<c/>");
    EXPECT_EQ(ReadFile(seen + m_policyFile), "<c/>");
}

static nlohmann::json Status()
{
    return nlohmann::json::parse(Qorctl({"status", "--json"}).out);
}

TEST_F(Fault, EventsNameWhoHasNotHeardAndTheStatusWhoHas)
{
    auto qord = StartQuietQord({"--event-timeout", "500"});
    auto good = StartListener(), stopped = StartListener();
    RawPeer refusing;
    refusing.AnswerWith({Answer::REPLY, {0}, ""});
    refusing.Call(SERVICE_NAME, SERVICE_PATH, "Hello", EventList({2}));
    const auto expect = [&](const std::string& policy, const std::string& counts, bool hasHeard)
    {
        ExpectResult(qor::POLICY_STORED, policy);
        EXPECT_TRUE(qord->WaitForOut("policy-update: " + counts)) << qord->Out();
        const nlohmann::json status = Status();
        std::map<int, nlohmann::json> clients;
        for (const auto& client : status["clients"])
        {
            clients[client["process_id"]] = client;
        }
        EXPECT_EQ(clients[good->Pid()]["heard"], true) << status;
        EXPECT_EQ(clients[stopped->Pid()]["heard"], hasHeard) << status;
        EXPECT_TRUE(clients[stopped->Pid()]["heard_at"].is_string()) << status;
        EXPECT_EQ(clients[getpid()]["heard"], false) << status;
        EXPECT_TRUE(clients[getpid()]["heard_at"].is_null()) << status;
        std::map<std::string, std::string> missed;
        for (const auto& one : status["last_event"]["missed"])
        {
            missed[one["outcome"]] = one["name"];
        }
        return missed;
    };
    EXPECT_EQ(expect("<a/>", "2 delivered, 1 failed", true).size(), 1U);
    stopped->Signal(SIGSTOP);
    auto missed = expect("<b/>", "1 delivered, 2 failed", false);
    EXPECT_EQ(missed["answered false"], refusing.UniqueName());
    const std::string hung = missed["no answer in time"];
    std::vector<RawPeer> leaving(9);
    for (RawPeer& peer : leaving)
    {
        peer.AnswerWith({Answer::LEAVE, {}, ""});
        peer.Call(SERVICE_NAME, SERVICE_PATH, "Hello", EventList({2}));
    }
    missed = expect("<b/>", "1 delivered, 11 failed", false); // in force already, and announced
    EXPECT_EQ(missed["suspended"], hung);
    EXPECT_EQ(missed.size(), 3U);
    for (const std::string& words :
         {std::to_string(stopped->Pid()) + " (qorctl), " + hung + ": no answer in time\n",
          ": left\n"s, "event policy-update: and 3 more\n"s})
    {
        EXPECT_NE(qord->Err().find(words), std::string::npos) << words << qord->Err();
    }
    EXPECT_EQ(CountOf(qord->Err(), "\n"), 1U + 2U + 9U) << qord->Err();
    EndCleanly(*qord);
}

TEST_F(Fault, EveryEventReachesEveryApplicationOnceAndNoneMissesTheLastPolicy)
{
    auto qord = StartQuietQord({"--event-timeout", std::to_string(WATCHDOG_MS)});
    std::vector<RawPeer> peers(20);
    for (RawPeer& peer : peers)
    {
        peer.Call(SERVICE_NAME, SERVICE_PATH, "Hello", EventList({2}));
    }
    const auto events = [&] { return CountOf(qord->Out(), "update: 20 delivered, 0 failed"); };
    for (std::size_t i = 0; i < peers.size(); ++i) // one after the other
    {
        ASSERT_EQ(SendPolicy(peers[i], Policy(static_cast<int>(i))), qor::POLICY_STORED);
        ASSERT_TRUE(WaitUntil([&] { return events() == i + 1; })) << qord->Out();
    }
    for (const RawPeer& peer : peers)
    {
        EXPECT_EQ(peer.Count("Send"), peers.size());
    }
    std::vector<std::future<void>> writers; // all at once
    for (std::size_t i = 0; i < peers.size(); ++i)
    {
        const auto write = [&peer = peers[i], i]
        {
            for (int number = 0; number < 5; ++number)
            {
                const int unique = static_cast<int>(i) * 100 + number;
                EXPECT_EQ(SendPolicy(peer, Policy(unique)), qor::POLICY_STORED);
            }
        };
        writers.push_back(std::async(std::launch::async, write));
    }
    writers.clear(); // which waits for them
    const auto haveAllHeard = []
    {
        const nlohmann::json clients = Status()["clients"];
        return std::count_if(clients.begin(), clients.end(),
                             [](const auto& client) { return client["heard"] == true; }) == 20;
    };
    EXPECT_TRUE(WaitUntil(haveAllHeard)) << qord->Out();
    for (const RawPeer& peer : peers)
    {
        EXPECT_EQ(peer.Count("Send"), events());
    }
    EXPECT_EQ(CountOf(qord->Out(), "event policy-update"), events() + 1) << qord->Out();
    EndCleanly(*qord);
}

// Somebody who hangs must not hold up the others, nor the next service.
TEST_F(Fault, ServiceStopsInTimeAndAnnouncesWhatIsDue)
{
    auto qord = StartQuietQord({"--event-timeout", "60000"});
    auto hung = StartListener();
    auto good = StartListener();
    hung->Signal(SIGSTOP);
    qord->Signal(SIGHUP);
    ASSERT_TRUE(qord->WaitForOut("SIGHUP changes nothing"));
    ExpectResult(qor::POLICY_STORED, "<a/>");
    ASSERT_TRUE(good->WaitForOut("policy-update")); // its delivery to the other is under way
    ExpectResult(qor::POLICY_STORED, "<b/>");
    const auto start = std::chrono::steady_clock::now();
    qord->Signal(SIGTERM);
    EXPECT_TRUE(good->WaitForOut("vanished"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_EQ(qord->Wait(), 0); // or it would have lost its patience with itself, after 2.8 s
    EXPECT_EQ(CountOf(qord->Out(), "qord: stopped\n"), 1U) << qord->Out();
    EXPECT_EQ(CountOf(qord->Err(), "(qorctl), "), 2U) << qord->Err();
    EXPECT_EQ(CountOf(qord->Err(), ": cancelled\n"), 2U) << qord->Err();
    EXPECT_EQ(CountOf(good->Out(), "policy-update"), 2U) << good->Out();

    // To the one that hangs it comes from the next service.
    qord = StartQord();
    ASSERT_TRUE(WaitUntil([&] { return CountOf(good->Out(), "policy-update") == 3; }));
    hung.reset();

    // Stored just now, and hardly answered.
    for (int round = 1; round <= 10; ++round)
    {
        const std::size_t heard = CountOf(good->Out(), "policy-update");
        const Bytes policy = Archive(Policy(round));
        m_client.Post(SERVICE_NAME, SERVICE_PATH, "Send", Request(4, false, policy));
        while (StoredPolicy() != Policy(round) && qord->IsRunning())
        {
        }
        qord->Signal(SIGTERM);
        EXPECT_TRUE(WaitUntil([&] { return CountOf(good->Out(), "policy-update") > heard; }));
        EXPECT_EQ(qord->Wait(), 0);
        qord = StartQord();
        ASSERT_TRUE(WaitUntil(
            [&] { return CountOf(good->Out(), "appeared") == 2U + static_cast<unsigned>(round); }));
        SyncWithService();
    }
}

TEST_F(Fault, ABusThatNeverAnswersOrIsGoneDoesNotKeepTheServiceFromEnding)
{
    const int mute = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const std::string path = m_directory.Path("mute");
    Bind(mute, path);
    ASSERT_EQ(listen(mute, 2), 0);
    ChildProcess::Options options;
    options.environment["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=" + path;
    for (const bool isTwice : {false, true})
    {
        auto qord = StartTool(QORD, {"--policy", m_policyFile}, options);
        const int connection = accept(mute, nullptr, nullptr); // it listens to signals by now
        const auto start = std::chrono::steady_clock::now();
        qord->Signal(SIGTERM);
        isTwice ? WaitUntil([&] { return qord->Signal(SIGTERM), !qord->IsRunning(); }) : true;
        EXPECT_EQ(qord->Wait(), isTwice ? 128 + SIGTERM : 0);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
        close(connection);
    }
    close(mute);

    if (getenv("QOR_TEST_BUS") == nullptr) // dbus-broker runs behind another process
    {
        auto qord = StartQuietQord();
        m_pBus->Freeze(true);
        qord->Signal(SIGTERM);
        EXPECT_EQ(qord->Wait(), 0);
        m_pBus->Freeze(false);
    }

    auto qord = StartQuietQord(); // and one that is gone ends it
    m_pBus->Kill();
    EXPECT_EQ(qord->Wait(), 1);
    EXPECT_EQ(CountOf(qord->Err(), "\n"), 1U) << qord->Err();
    m_pBus->Restart();
}

TEST_F(Fault, OutputThatNobodyReadsIsDroppedAndCounted)
{
    const std::string out = m_directory.Path("out");
    ASSERT_EQ(mkfifo(out.c_str(), 0600), 0);
    const int reader = open(out.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    auto qord = StartTool("sh", {"-c", "exec '" QORD "' --policy " + m_policyFile + " >" + out});
    ASSERT_TRUE(WaitUntil([&] { return SendPolicy(m_client, "<a/>") == 0; }));
    for (int i = 0; i < 1200; ++i)
    {
        ASSERT_EQ(SendPolicy(m_client, "<a/>"), qor::POLICY_STORED);
    }
    std::string text(1 << 20, '\0');
    EXPECT_GT(read(reader, text.data(), text.size()), 60000);
    ExpectResult(qor::POLICY_STORED, "<b/>");
    ASSERT_GT(read(reader, text.data(), text.size()), 0);
    const std::size_t at = text.find(" lines were dropped here\nqord: ");
    ASSERT_NE(at, std::string::npos) << text.substr(0, 100);
    EXPECT_GT(std::stoi(text.substr(6, at)), 300);
    qord->Signal(SIGTERM);
    EXPECT_EQ(qord->Wait(), 0);
    close(reader);
}
