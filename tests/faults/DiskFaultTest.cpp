// The policy file when the service dies and when the disk refuses.
#include <csignal>
#include <random>

#include <qor/PolicyResult.h>

#include "FaultSupport.h"
#include "ToolRunner.h"

using namespace qortest;
namespace fs = boost::filesystem;

class DiskFault : public ToolTest
{
protected:
    DiskFault()
    {
        WriteFile(m_policyFile, "<old/>");
    }

    // Starts qord at the end of a shell command.
    std::unique_ptr<ChildProcess> StartQordAfter(const std::string& command,
                                                 const std::string& policy)
    {
        return StartTool("unshare", {"--mount", "sh", "-c", command + " && exec \"$@\"", "sh", QORD,
                                     "--policy", policy});
    }

    RawPeer m_client;
};

// The n-th policy, of a size of its own, so that no prefix of one is another.
static std::string Policy(unsigned int number)
{
    return "<policy n='" + std::to_string(number) + "'>" + std::string(20000 + 500 * number, 'x') +
           "</policy>";
}

TEST_F(DiskFault, KilledServiceLeavesAWholePolicyThatIsNoOlderThanTheLastAcknowledged)
{
    using Clock = std::chrono::steady_clock;
    std::mt19937 random(7);
    for (unsigned int sent = 1; sent < 201; sent += 2)
    {
        auto qord = StartQord();
        const auto start = Clock::now();
        ASSERT_EQ(SendPolicy(m_client, Policy(sent)), qor::POLICY_STORED);
        const auto typical = Clock::now() - start;
        auto result =
            std::async(std::launch::async, [&] { return SendPolicy(m_client, Policy(sent + 1)); });
        std::this_thread::sleep_for(typical * (random() % 1000) / 800);
        qord->Signal(SIGKILL);
        qord->Wait();
        const bool isAcknowledged = result.get() == qor::POLICY_STORED;
        const std::string found = StoredPolicy();
        ASSERT_TRUE(found == Policy(sent + 1) || (!isAcknowledged && found == Policy(sent)))
            << "round " << sent << ", acknowledged " << isAcknowledged << found.substr(0, 40);
    }
    auto qord = StartQord();
    EXPECT_EQ(SendPolicy(m_client, "<last/>"), qor::POLICY_STORED);
    EXPECT_EQ(StoredPolicy(), "<last/>");
    EXPECT_EQ(std::distance(fs::directory_iterator(m_directory.Path()), {}), 1) << "leftovers";
}

TEST_F(DiskFault, RefusalsOfTheDiskAndOfTheLimitKeepTheOldPolicy)
{
    auto qord = StartQord({"--max-policy-size", "1000"});
    const std::string largest = "<p>" + std::string(1000 - 7, 'x') + "</p>";
    const Outcome refused = Qorctl({"set-policy", "-"}, largest + " ");
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("more than the service accepts"), std::string::npos) << refused.err;
    EXPECT_EQ(SendPolicy(m_client, std::string(1 << 20, '<')), qor::POLICY_TOO_LARGE);
    EXPECT_EQ(StoredPolicy(), "<old/>");
    EXPECT_EQ(SendPolicy(m_client, largest), qor::POLICY_STORED);

    fs::remove(m_policyFile);
    fs::create_directory(m_policyFile);
    WriteFile(m_policyFile + "/inside", "kept");
    EXPECT_EQ(SendPolicy(m_client, "<new/>"), qor::POLICY_NOT_STORED);
    EXPECT_EQ(ReadFile(m_policyFile + "/inside"), "kept");
    fs::remove_all(m_directory.Path());
    EXPECT_EQ(SendPolicy(m_client, "<new/>"), qor::POLICY_NOT_STORED);
    fs::create_directory(m_directory.Path());
    EXPECT_EQ(SendPolicy(m_client, "<new/>"), qor::POLICY_STORED);
    EXPECT_EQ(StoredPolicy(), "<new/>");
    EXPECT_EQ(CountOf(qord->Err(), "could not be stored"), 2U) << qord->Err();
}

// The mounts are the service's own and end with it.
TEST_F(DiskFault, FullAndReadOnlyFileSystemsKeepTheOldPolicy)
{
    const std::string mountPoint = m_directory.Path("mount");
    fs::create_directory(mountPoint);
    auto qord = StartQordAfter("mount -t tmpfs -o size=128k none " + mountPoint,
                               mountPoint + "/policy.xml");
    if (!qord->WaitForOut("ready"))
    {
        GTEST_SKIP() << "mounting takes privileges: " << qord->Err();
    }
    const auto remount = [&](const std::string& options)
    {
        return RunTool("nsenter", {"--mount", "--target", std::to_string(qord->Pid()), "mount",
                                   "-o", "remount," + options, mountPoint})
            .exitCode;
    };
    const std::string seen = "/proc/" + std::to_string(qord->Pid()) + "/root" + mountPoint;
    const std::string large(100000, 'x');
    EXPECT_EQ(SendPolicy(m_client, "<a>" + large + "</a>"), qor::POLICY_STORED);
    EXPECT_EQ(SendPolicy(m_client, "<b>" + large + "</b>"), qor::POLICY_NOT_STORED) << "disk full";
    EXPECT_EQ(remount("ro"), 0);
    EXPECT_EQ(SendPolicy(m_client, "<c/>"), qor::POLICY_NOT_STORED) << "read-only";
    EXPECT_EQ(ReadFile(seen + "/policy.xml"), "<a>" + large + "</a>");
    EXPECT_EQ(remount("rw"), 0);
    EXPECT_EQ(SendPolicy(m_client, "<c/>"), qor::POLICY_STORED);
    EXPECT_EQ(ReadFile(seen + "/policy.xml"), "<c/>");
}
