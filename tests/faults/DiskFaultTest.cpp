// The policy file when the service dies and when the disk refuses.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <random>
#include <thread>

#include <boost/filesystem.hpp>

#include <qor/PolicyResult.h>

#include "PolicyMessage.h"
#include "ToolRunner.h"

namespace qortest
{
namespace
{

namespace fs = boost::filesystem;

class DiskFault : public ToolTest
{
protected:
    DiskFault()
    {
        WriteFile(m_policyFile, "<old/>");
    }

    static int Send(RawPeer& peer, const std::string& policy)
    {
        return PolicyResult(
            peer.Call(SERVICE_NAME, SERVICE_PATH, "Send", PolicyRequest(policy), 10000));
    }

    // Starts qord behind a shell command that ends in: exec "$@"
    std::unique_ptr<ChildProcess> StartQordBehind(const Arguments& shell, const std::string& policy)
    {
        Arguments command(shell);
        command.insert(command.end(), {"sh", QORD, "--policy", policy});
        const std::string program = command.front();
        command.erase(command.begin());
        return StartTool(program, command);
    }
};

// The n-th policy, of a size of its own, so that no prefix of one is another.
std::string NumberedPolicy(unsigned int number)
{
    const std::string text = std::to_string(number);
    return "<policy n='" + text + "'>" + std::string(20000 + 500 * (number % 100), 'x') +
           "</policy>";
}

// The number of a whole policy; -1 for anything else.
int NumberOf(const std::string& content)
{
    unsigned int number = 0;
    if (content == "<old/>")
    {
        return 0;
    }
    if (std::sscanf(content.c_str(), "<policy n='%u'", &number) != 1 ||
        content != NumberedPolicy(number))
    {
        return -1;
    }
    return static_cast<int>(number);
}

TEST_F(DiskFault, KilledServiceLeavesAWholePolicyThatIsNoOlderThanTheLastAcknowledged)
{
    constexpr unsigned int UPDATES = 100;
    constexpr unsigned int SEED = 7;
    std::mt19937 random(SEED);
    RawPeer client;
    unsigned int sent = 0;
    int acknowledged = 0;
    int underWayWasStored = 0;
    auto typical = std::chrono::microseconds(2000);
    for (unsigned int kills = 0; kills < UPDATES; ++kills)
    {
        auto qord = StartQord();
        const auto start = std::chrono::steady_clock::now();
        ++sent;
        ASSERT_EQ(Send(client, NumberedPolicy(sent)), qor::POLICY_STORED);
        acknowledged = static_cast<int>(sent);
        typical = (typical * 3 + std::chrono::duration_cast<std::chrono::microseconds>(
                                     std::chrono::steady_clock::now() - start)) /
                  4;

        ++sent;
        auto reply = client.StartCall(SERVICE_NAME, SERVICE_PATH, "Send",
                                      PolicyRequest(NumberedPolicy(sent)), 10000);
        std::this_thread::sleep_for(typical * (random() % 1000) / 800);
        qord->Signal(SIGKILL);
        qord->Wait();
        if (PolicyResult(reply.get()) == qor::POLICY_STORED)
        {
            acknowledged = static_cast<int>(sent);
        }
        const int found = NumberOf(StoredPolicy());
        ASSERT_GE(found, acknowledged) << "kill " << kills;
        ASSERT_LE(found, static_cast<int>(sent));
        underWayWasStored += found == static_cast<int>(sent) ? 1 : 0;
    }
    std::printf("of %u kills %d came after the new policy was in place\n", UPDATES,
                underWayWasStored);

    auto qord = StartQord();
    EXPECT_EQ(Send(client, "<last/>"), qor::POLICY_STORED);
    EXPECT_EQ(StoredPolicy(), "<last/>");
    EXPECT_EQ(std::distance(fs::directory_iterator(m_directory.Path()), fs::directory_iterator()),
              1)
        << "something is left beside the policy";
}

TEST_F(DiskFault, RefusalsOfTheDiskAreAnsweredAndEndWithTheirCause)
{
    auto qord = StartQord();
    RawPeer client;

    fs::remove(m_policyFile);
    fs::create_directory(m_policyFile);
    WriteFile(m_policyFile + "/inside", "kept");
    EXPECT_EQ(Send(client, "<new/>"), qor::POLICY_NOT_STORED);
    EXPECT_EQ(ReadFile(m_policyFile + "/inside"), "kept");

    fs::remove_all(m_directory.Path());
    EXPECT_EQ(Send(client, "<new/>"), qor::POLICY_NOT_STORED);

    fs::create_directory(m_directory.Path());
    EXPECT_EQ(Send(client, "<new/>"), qor::POLICY_STORED);
    EXPECT_EQ(StoredPolicy(), "<new/>");
    EXPECT_EQ(CountOf(qord->Err(), "could not be stored"), 2U) << qord->Err();
}

TEST_F(DiskFault, FileSizeLimitIsAFailedWriteAndNotTheEnd)
{
    auto qord = StartQordBehind({"sh", "-c", "ulimit -f 64 && exec \"$@\""}, m_policyFile);
    ASSERT_TRUE(qord->WaitForOut("ready")) << qord->Err();
    RawPeer client;
    EXPECT_EQ(Send(client, NumberedPolicy(99)), qor::POLICY_NOT_STORED);
    EXPECT_EQ(StoredPolicy(), "<old/>");
    EXPECT_EQ(Send(client, "<small/>"), qor::POLICY_STORED);
    EXPECT_EQ(StoredPolicy(), "<small/>");
}

TEST_F(DiskFault, FullAndReadOnlyFileSystemsKeepTheOldPolicy)
{
    // Mounts of the service's own, which end with it.
    const std::string mountPoint = m_directory.Path("mount");
    fs::create_directory(mountPoint);
    const std::string policy = mountPoint + "/policy.xml";
    auto qord = StartQordBehind({"unshare", "--mount", "sh", "-c",
                                 "mount -t tmpfs -o size=128k none " + mountPoint +
                                     " && echo '<old/>' >" + policy + " && exec \"$@\""},
                                policy);
    if (!qord->WaitForOut("ready"))
    {
        GTEST_SKIP() << "mounting takes privileges: " << qord->Err();
    }
    const std::string seen = "/proc/" + std::to_string(qord->Pid()) + "/root" + policy;
    RawPeer client;
    const std::string large(100000, 'x');
    EXPECT_EQ(Send(client, "<a>" + large + "</a>"), qor::POLICY_STORED);
    EXPECT_EQ(Send(client, "<b>" + large + "</b>"), qor::POLICY_NOT_STORED) << "disk full";
    EXPECT_EQ(ReadFile(seen), "<a>" + large + "</a>");

    const auto remount = [&](const std::string& options)
    {
        return RunTool("nsenter", {"--mount", "--target", std::to_string(qord->Pid()), "mount",
                                   "-o", "remount," + options, mountPoint})
            .exitCode;
    };
    ASSERT_EQ(remount("ro"), 0);
    EXPECT_EQ(Send(client, "<c/>"), qor::POLICY_NOT_STORED) << "read-only";
    EXPECT_EQ(ReadFile(seen), "<a>" + large + "</a>");
    ASSERT_EQ(remount("rw"), 0);
    EXPECT_EQ(Send(client, "<c/>"), qor::POLICY_STORED);
    EXPECT_EQ(ReadFile(seen), "<c/>");
}

TEST_F(DiskFault, PolicyOverTheServicesLimitIsRefused)
{
    auto qord = StartQord({"--max-policy-size", "1000"});
    const std::string largest = "<p>" + std::string(1000 - 7, 'x') + "</p>";
    const Outcome refused = Qorctl({"set-policy", "-"}, largest + " ");
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("more than the service accepts"), std::string::npos) << refused.err;
    EXPECT_NE(qord->Err().find("1001 bytes is too large"), std::string::npos) << qord->Err();
    RawPeer client;
    EXPECT_EQ(Send(client, std::string(1 << 20, '<')), qor::POLICY_TOO_LARGE);
    EXPECT_EQ(StoredPolicy(), "<old/>");
    EXPECT_EQ(Send(client, largest), qor::POLICY_STORED);
}

} // namespace
} // namespace qortest
