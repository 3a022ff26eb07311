// What qorctl tells of the service's health, and of the difference between policies.
#include <sys/resource.h>

#include <nlohmann/json.hpp>

#include "RawPeer.h"
#include "ToolRunner.h"

using namespace qortest;
using TJson = nlohmann::json;

using Questions = ToolTest;

TEST_F(Questions, HealthIsAStatusWithReasons)
{
    Expect(2, "not on the bus", "status --check");
    auto qord = StartQuietQord({"--event-timeout", "100"});
    EXPECT_EQ(Qorctl({"status", "--check"}).out, "The service is healthy.\n"); // never had a policy
    RawPeer silent;
    silent.AnswerWith(HOLD);
    silent.Call(SERVICE_NAME, SERVICE_PATH, "Hello", EventList({2}));
    Expect(0, "stored", "set-policy '" SAMPLE_POLICY "'");
    ASSERT_TRUE(qord->WaitForOut("0 delivered, 1 failed")) << qord->Out();
    Expect(1, silent.UniqueName() + ")\n", "status --check");
    EXPECT_EQ(CountOf(Qorctl({"status", "--check"}).out, "1 client is suspended, having left"), 1U);
    silent.AnswerWith(YES);
    silent.AnswerHeld(YES);
    EXPECT_TRUE(WaitUntil([] { return Qorctl({"status", "--check"}).exitCode == 0; }));

    boost::filesystem::rename(m_policyFile, m_policyFile + "-away"); // none is kept yet
    Expect(1, "the policy is missing, and there was one", "status --check");
    boost::filesystem::rename(m_policyFile + "-away", m_policyFile);

    // No file of this process may have more than that.
    const auto limit = [&qord](rlim_t bytes)
    {
        const rlimit size = {bytes, RLIM_INFINITY};
        ASSERT_EQ(prlimit(qord->Pid(), RLIMIT_FSIZE, &size, nullptr), 0);
    };
    limit(0);
    EXPECT_EQ(Qorctl({"set-policy", "-"}, "<a/>").exitCode, 1);
    Expect(1, "the last policy could not be stored: " + m_policyFile + ": ", "status --check");
    limit(RLIM_INFINITY);
    EXPECT_EQ(Qorctl({"set-policy", "-"}, "<a/>").exitCode, 0);
    Expect(0, "", "status --check");

    WriteFile(m_policyFile, "<a>");
    Expect(1, "the policy in force is no good", "status --check --timeout 9");
    boost::filesystem::remove(m_policyFile);
    qord.reset();
    m_options.workingDirectory = m_directory.Path();
    qord = StartTool(QORD,
                     {"--policy", "policy.xml", "--min-free", "1000000", "--allow-group", "no-such",
                      "--allow-group", "daemon"},
                     m_options);
    ASSERT_TRUE(qord->WaitForOut("qord: ready")) << qord->Err();
    const Outcome outcome = Qorctl({"--json", "status", "--check"});
    const TJson problems = TJson::parse(outcome.out)["problems"];
    ASSERT_TRUE(outcome.exitCode == 1 && problems.size() == 3) << outcome.out;
    EXPECT_EQ(problems[0], "the policy is missing, and there was one: " + m_policyFile);
    EXPECT_EQ(problems[1].dump().find("\"nothing can be stored just now: "), 0U) << problems;
    EXPECT_EQ(problems[2], "there is no group no-such whose members could change the policy");
    EXPECT_EQ(CountOf(Qorctl({"status", "--check"}).out, "\n"), 3U);
    Expect(0, "Problem ", "status");
}

TEST_F(Questions, PoliciesAreCompared)
{
    auto qord = StartQord();
    Expect(2, "the service has no policy yet", "diff 0");
    EXPECT_EQ(Qorctl({"set-policy", "-"}, "<a>\n1\n</a>\n").exitCode, 0);
    Expect(2, "keeps no policy beside the one in force", "diff");
    EXPECT_EQ(Qorctl({"set-policy", "-"}, "<a>\n2\n</a>\n").exitCode, 0);
    EXPECT_EQ(Qorctl({"set-policy", "-"}, "<a>\n3\n</a>\n").exitCode, 0);
    const std::string latest =
        "--- policy 2\n+++ the policy in force\n@@ -1,3 +1,3 @@\n <a>\n-2\n+3\n </a>\n";
    const Outcome outcome = Qorctl({"diff"});
    EXPECT_TRUE(outcome.exitCode == 1 && outcome.out == latest) << outcome.out << outcome.err;
    Expect(1, "--- policy 1\n+++ the policy in force\n", "diff 1");
    Expect(1, "--- policy 2\n+++ policy 1\n", "diff 2 1");
    EXPECT_EQ(Qorctl({"diff", "2", "2"}).exitCode, 0);
    Expect(2, "there is no policy 7", "diff 0 7");
    Expect(74, "No space left", "diff >/dev/full");
    TJson told = TJson::parse(Qorctl({"diff", "--json", "2"}).out);
    EXPECT_TRUE(told["from"] == 2 && told["to"] == 0 && told["same"] == false &&
                told["diff"] == latest)
        << told;

    // On a terminal, where there can be one.
    if (RunTool("script", {"-qec", "true", "/dev/null"}).exitCode != 0)
    {
        return;
    }
    const std::string line =
        "-qec \"'" QORCTL "' diff --timeout 1\" /dev/null | cat -v; exit $PIPESTATUS";
    m_options.environment = {
        {"TERM", "xterm"}, {"PAGER", "sleep 1.5; sed \"s/^/$LESS:/\""}, {"NO_COLOR", ""}};
    Expect(1, "FRX:^[[31m-2", line, "script");
    m_options.environment = {{"TERM", "xterm"}, {"PAGER", "no-such-pager"}, {"NO_COLOR", "1"}};
    Expect(1, "\n-2^M\n", line, "script");
}
