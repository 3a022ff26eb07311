// What people do to the command line, and what they learn from it.
#include <atomic>
#include <csignal>
#include <sstream>

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "MuteBus.h"
#include "RawPeer.h"
#include "ToolRunner.h"

using namespace qortest;
using TJson = nlohmann::json;

class CommandLine : public ToolTest
{
protected:
    static TJson Json(const Arguments& arguments)
    {
        const Outcome outcome = Qorctl(arguments);
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
        return TJson::parse(outcome.out, nullptr, false);
    }
};

// Without a service on the bus, only what never came to sending ends with 64.
TEST_F(CommandLine, MisuseIsNamedAndNothingIsSent)
{
    WriteFile(m_directory.Path("empty"), "");
    for (const char* line :
         {"", "set-policy", "set-policy missing", "set-policy empty", "--quiet --verbose status",
          "listen --count 0", "listen --exec \\'unfinished"})
    {
        Expect(64, "", line);
    }
    for (const char* line : {"--policy", "--policy ''", "--policy x --keep -1",
                             "--policy x --event-timeout 0", "--test-bus-names"})
    {
        Expect(64, "", line, QORD);
    }
    Expect(64, "Is a directory", "set-policy ."); // and not that it is empty
    WriteFile(m_directory.Path("bad"), "<a>\n <é></e>\n</a>");
    WriteFile(m_directory.Path("wide"), "<a>\r <漢字e\u0301></e>\r</a>");
    Expect(64, "unknown command stauts; did you mean status?", "stauts");
    Expect(64, "unknown option --jsn; did you mean --json?", "status --jsn");
    Expect(64, "unexpected argument b", "set-policy a b");
    Expect(64, "the command is missing", "listen --exec ' '");
    Expect(64, "fit into one bus message", "set-policy /dev/zero");
    Expect(64, "010 is not a whole number", "restore 010"); // another one in octal
    Expect(64, "0x8 is not a whole number from 0 to 18446744073709551615", "get-policy 0x8");
    Expect(64, "18446744073709551616 is not", "get-policy 18446744073709551616");
    Expect(64, "unknown command ?[31mred\n", "$'\\e[31mred'");
    Expect(64, "unexpected argument 3", "diff 1 2 3");
    Expect(64, "0 is not a whole number", "restore 1 --wait=0");
    Expect(64, "0x2 is not", "--policy x --keep 0x2", QORD);
    Expect(1, "line 2, column 7: mismatched tag", "validate bad");
    Expect(1, " <é></e>\n          ^\n", "validate bad");
    Expect(1, " <漢字e\u0301></e>\n              ^\n", "validate wide");
    Expect(1, "line 2, column 7: mismatched tag", "set-policy bad");
    Expect(0, "well-formed (5188 bytes)", "validate '" SAMPLE_POLICY "'");
    Expect(0, "/opt/usr/share/vantorix/velkin_qor_policy.xml", "info");
    const TJson verdict = TJson::parse(Qorctl({"validate", "--json", m_directory.Path("bad")}).out);
    EXPECT_TRUE(verdict["valid"] == false && verdict["line"] == 2 && verdict["column"] == 7)
        << verdict;
    EXPECT_EQ(Qorctl({"set-policy", "--json", m_directory.Path("bad")}).out,
              Qorctl({"validate", "--json", m_directory.Path("bad")}).out);
    WriteFile(m_directory.Path("long"), "<a>" + std::string(1000000, 'x') + "</b>");
    EXPECT_LT(Qorctl({"validate", m_directory.Path("long")}).err.size(), 400U);
}

TEST_F(CommandLine, WhatCannotBeWrittenIsNoSuccess)
{
    auto qord = StartQord();
    Expect(0, "stored", "set-policy '" SAMPLE_POLICY "'");
    const bool canTrace = RunTool("strace", {"-o", "/dev/null", "true"}).exitCode == 0;
    for (const std::string line :
         {"info", "status", "history", "clients", "get-policy", "status --json", "--help",
          "validate '" SAMPLE_POLICY "'", "set-policy '" SAMPLE_POLICY "'", "listen --timeout 9"})
    {
        Expect(74, "No space left", line + " >/dev/full");
        Expect(74, "Bad file descriptor", line + " >&-");
        if (canTrace)
        {
            // The leak checker does not work on a process that is traced.
            Expect(74, "Input/output error", line + " >out",
                   "strace' -f -qqq -o trace -P out -E ASAN_OPTIONS=detect_leaks=0 "
                   "-e inject=write:error=EIO '" QORCTL);
        }
    }
    Expect(74, "No space left", "get-policy --output /dev/full");
    // What was there stays as it was, and nothing else.
    boost::filesystem::create_directory(m_directory.Path("in"));
    WriteFile(m_directory.Path("in/file"), "old\n");
    chmod(m_directory.Path("in/file").c_str(), 0604);
    boost::filesystem::create_symlink("file", m_directory.Path("in/link"));
    for (const auto& [exitCode, text] : {std::pair(74, "old"), std::pair(0, "</policy>")})
    {
        const char* limit = exitCode == 0 ? "" : "trap '' XFSZ; ulimit -f 2; ";
        Expect(exitCode, text + std::string("\n-rw----r-- 1 in/file\nfile\nlink\n"),
               "get-policy --output in/link; status=$?; tail -n 1 in/link; "
               "stat -c '%A %h %n' in/file; ls -A in; exit $status",
               "true'; " + std::string(limit) + "'" QORCTL);
    }
    const std::string longest(255, 'x'); // no file fits beside it
    WriteFile(m_directory.Path(longest), std::string(9999, 'x'));
    Expect(0, "", "get-policy --output " + longest);
    EXPECT_EQ(ReadFile(m_directory.Path(longest)), ReadFile(SAMPLE_POLICY));
    // Nothing happens any more that would make it write.
    Expect(141, "service appeared", "listen | head -n 1; exit ${PIPESTATUS[0]}");
}

TEST_F(CommandLine, WaitsEndInTime)
{
    auto qord = StartQuietQord();
    qord->Signal(SIGSTOP);
    Expect(2, "may still take effect", "set-policy --timeout 1 '" SAMPLE_POLICY "'");
    Expect(2, "is on the bus (unique name", "status --timeout 1");
    qord->Signal(SIGCONT);
    Expect(2, "only 0 of 1 events", "listen --timeout 1 --count 1");
    m_options.keepInputOpen = true;
    const std::string blocked = "env' --block-signal=ALRM '" QORCTL; // as a caller may leave it
    Expect(2, "the time is over", "set-policy --timeout 1 -", blocked);

    // A bus that accepts, and never answers.
    const MuteBus bus(m_directory.Path("bus"));
    m_options.environment["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=" + m_directory.Path("bus");
    Expect(2, "the system bus does not answer", "status --timeout 1");
    Expect(2, "the system bus does not answer", "listen --timeout 1");
    Expect(2, "the system bus does not answer", "set-policy --timeout 1 '" SAMPLE_POLICY "'");
    const auto listener = StartTool(QORCTL, {"listen"}, m_options);
    EXPECT_FALSE(WaitUntil([&] { return !listener->IsRunning(); }, 300));
    listener->Signal(SIGTERM);
    EXPECT_EQ(listener->Wait(2000), 128 + SIGTERM);
}

// Neither by --timeout nor by a signal; nor does what it has started itself.
TEST_F(CommandLine, NoCommandOutlivesItsListener)
{
    auto qord = StartQuietQord();
    const std::string hook = m_directory.Path("hook"), ran = m_directory.Path("ran");
    WriteFile(hook, "trap '' TERM; sleep 99 & echo $$ $! >>" + ran + "; wait");
    for (const char* timeout : {"2", "99"})
    {
        WriteFile(ran, "");
        auto listener = StartListener({"--timeout", timeout, "--exec", "sh " + hook});
        qord->Signal(SIGUSR1);
        ASSERT_TRUE(WaitUntil([&] { return ReadFile(ran).find('\n') != std::string::npos; }));
        qord->Signal(SIGUSR1); // whose command does not get its turn
        EXPECT_TRUE(WaitUntil([&] { return CountOf(listener->Out(), "process-info") == 2; }));
        if (timeout == std::string("99"))
        {
            listener->Signal(SIGTERM);
        }
        EXPECT_EQ(listener->Wait(), 0);
        EXPECT_EQ(CountOf(ReadFile(ran), "\n"), 1U);
        std::istringstream processes(ReadFile(ran));
        for (std::string process; processes >> process;)
        {
            const std::string commandLine = "/proc/" + process + "/cmdline"; // empty when it ends
            EXPECT_TRUE(WaitUntil([&] { return ReadFile(commandLine).empty(); }, 2000)) << timeout;
        }
    }
}

TEST_F(CommandLine, ListenersHearOfStoredPoliciesOnlyAndRunOneCommandAtATime)
{
    auto qord = StartQuietQord();
    const std::string hook = m_directory.Path("hook"), ran = m_directory.Path("ran");
    WriteFile(hook, "echo \"start $QOR_EVENT $1\" >>" + ran + "; sleep .4; echo end >>" + ran);
    auto listener = StartListener({"--count", "6", "--exec", "sh " + hook + " '*; no shell'"});
    auto json = StartListener({"--json", "--count", "6"});
    auto failing = StartListener({"--count", "1", "--exec", "false"});
    m_options.input = "<a>";
    Expect(1, "not well-formed", "set-policy --no-check -");
    for (int i = 0; i < 5; ++i)
    {
        const std::string wanted = " process-info\n";
        qord->Signal(SIGUSR1);
        ASSERT_TRUE(WaitUntil([&] { return CountOf(listener->Out(), wanted) > std::size_t(i); }));
    }
    Expect(0, "stored", "set-policy '" SAMPLE_POLICY "'");
    EXPECT_EQ(listener->Wait() + json->Wait() + failing->Wait(), 0) << listener->Out();
    EXPECT_EQ(CountOf(listener->Out(), " policy-update\n"), 1U) << listener->Out();
    EXPECT_EQ(CountOf(json->Out(), "\"event\":\"policy-update\"}\n"), 1U) << json->Out();
    EXPECT_EQ(CountOf(json->Out(), "\n"), CountOf(json->Out(), "{\"time\":\"2")) << json->Out();
    EXPECT_NE(failing->Err().find("ended with status 1"), std::string::npos) << failing->Err();
    EXPECT_EQ(ReadFile(ran), "start process-info *; no shell\nend\n"
                             "start process-info *; no shell\nend\n"
                             "start policy-update *; no shell\nend\n");
}

TEST_F(CommandLine, PoliciesAreToldGotAndRestored)
{
    auto qord = StartQord();
    auto listener = StartListener();
    EXPECT_EQ(Qorctl({"get-policy"}).exitCode, 1);
    Expect(0, "stored", "set-policy '" SAMPLE_POLICY "'");
    EXPECT_EQ(Qorctl({"set-policy", "-"}, "<second/>").exitCode, 0);
    EXPECT_EQ(Qorctl({"get-policy", "--", "0"}).out, "<second/>");
    TJson written = Json({"get-policy", "--json", "--output", m_directory.Path("file")});
    EXPECT_TRUE(written["file"] == m_directory.Path("file") && !written.contains("policy"));
    EXPECT_EQ(ReadFile(m_directory.Path("file")), "<second/>");
    EXPECT_EQ(Qorctl({"get-policy", "1"}).out, ReadFile(SAMPLE_POLICY));
    Expect(1, "there is no policy 2", "get-policy 2");
    Expect(0, "stored policy 1", "restore 1");
    EXPECT_EQ(StoredPolicy(), ReadFile(SAMPLE_POLICY));
    const TJson told = Json({"set-policy", "--json", SAMPLE_POLICY});
    const TJson got = Json({"get-policy", "--json"});
    EXPECT_EQ(got["policy"], ReadFile(SAMPLE_POLICY));
    EXPECT_TRUE(told["stored"] == true && told["sha256"] == got["sha256"]) << told << got;

    TJson history = Json({"history", "--json"});
    EXPECT_EQ(history["policy"]["sha256"], history["kept"][0]["sha256"]) << history;
    ASSERT_EQ(history["kept"].size(), 2U) << history;
    EXPECT_EQ(history["kept"][1]["number"], 2) << history;
    EXPECT_EQ(history["kept"][1]["set_by"]["program"], "qorctl") << history;
    const TJson clients = Json({"clients", "--json"});
    ASSERT_EQ(clients.size(), 1U) << clients;
    EXPECT_EQ(clients[0]["process_id"], listener->Pid());
    EXPECT_EQ(clients[0]["types"], TJson({2, 4}));
    EXPECT_EQ(Json({"info", "--json"})["policy_file"], m_policyFile);

    // A broken state file costs only its words.
    qord.reset();
    WriteFile(m_policyFile + ".history", "[{\"inode\": \"none\"}]");
    WriteFile(m_policyFile + ".kept-2", "<other/>");
    qord = StartQord();
    const TJson status = Json({"status", "--json"});
    EXPECT_EQ(status["policy"]["sha256"], history["policy"]["sha256"]) << status;
    EXPECT_TRUE(status["policy"]["set_by"].is_null()) << status;
    EXPECT_EQ(Qorctl({"get-policy", "2"}).out, "<other/>");
    EXPECT_EQ(status["policy"]["well_formed"], true);

    const std::string spoilt("\xff\0\x01", 3); // by somebody else
    WriteFile(m_policyFile, spoilt);
    Expect(0, "it is no good", "status");
    EXPECT_EQ(Json({"status", "--json"})["policy"]["well_formed"], false);
    EXPECT_EQ(Qorctl({"get-policy"}).out, spoilt);
    GVariant* const pNumber = g_variant_new("(t)", guint64{0});
    EXPECT_EQ(RawPeer().CallMethod("com.norvane.qor.Policy1", "GetPolicy", pNumber).errorName,
              "com.norvane.qor.Error.NotText");
}

TEST_F(CommandLine, SettingAPolicyWaitsUntilAllHaveHeard)
{
    auto qord = StartQuietQord({"--event-timeout", "100"});
    m_options.input = "<a/>";
    Expect(0, "No application listens", "set-policy --wait -");
    auto listener = StartListener();
    RawPeer silent;
    std::atomic<bool> answers{false};
    silent.AnswerUsing([&](const IncomingCall&) { return answers ? YES : HOLD; });
    silent.PostHello(SERVICE_NAME, {2});
    RawPeer other;
    other.PostHello(SERVICE_NAME, {4}); // it does not want to hear of policies
    other.Sync();
    silent.Sync();
    SyncWithService();
    m_options.input = "<b/>";
    Expect(4, "1 of 2 applications did not hear of it in time: ", "set-policy --wait=1 -");
    Expect(4, ", suspended)", "restore --wait=1 1");
    Expect(0, "not by ", "status");
    const TJson told = TJson::parse(Qorctl({"--json", "restore", "--wait=1", "2"}).out);
    EXPECT_TRUE(told["stored"] == true && told["applications"] == 2) << told;
    ASSERT_EQ(told["not_heard"].size(), 1U) << told;
    EXPECT_EQ(told["not_heard"][0]["name"], silent.UniqueName()) << told;
    EXPECT_EQ(Json({"clients", "--json"})[1]["suspended"], true);

    auto waiting = StartTool(QORCTL, {"restore", "--wait=99", "1"}, m_options);
    ASSERT_TRUE(WaitUntil([&] { return CountOf(qord->Out(), " is stored") == 5; })) << qord->Out();
    EXPECT_EQ(Qorctl({"set-policy", "-"}, "<other/>").exitCode, 0);
    EXPECT_EQ(waiting->Wait(), 4);
    EXPECT_NE(waiting->Err().find("another policy has come into force"), std::string::npos);
    answers = true;
    silent.AnswerHeld(YES);
    silent.Sync();
    Expect(0, "2 applications heard of it", "set-policy - --wait");
    EXPECT_EQ(Json({"clients", "--json"})[1]["heard"], true);

    // A service that stops answers who waits.
    answers = false;
    const std::size_t stored = CountOf(qord->Out(), " is stored");
    m_options.input = "<c/>";
    waiting = StartTool(QORCTL, {"set-policy", "--wait=99", "-"}, m_options);
    ASSERT_TRUE(WaitUntil([&] { return CountOf(qord->Out(), " is stored") > stored; }));
    qord->Signal(SIGTERM);
    EXPECT_EQ(waiting->Wait(), 4) << waiting->Err();
}

TEST_F(CommandLine, TheLaterOfTwoDoesNotWinUnseen)
{
    auto qord = StartQuietQord();
    m_options.input = "<a/>";
    Expect(64, "a SHA-256 is 64 digits", "set-policy --if-match ABC -");
    Expect(0, "stored", "set-policy --if-match none -");
    const std::string first = Json({"status", "--json"})["policy"]["sha256"];
    m_options.input = "<b/>";
    Expect(1, "the one in force has changed, SHA-256 " + first, "set-policy --if-match none -");
    Expect(0, "stored", "set-policy -");
    Expect(1, "has changed", "restore 1 --if-match " + first);
    EXPECT_EQ(StoredPolicy(), "<b/>");
    const std::string second = Json({"status", "--json"})["policy"]["sha256"];
    Expect(0, "stored policy 1", "restore 1 --if-match " + second);
    EXPECT_EQ(StoredPolicy(), "<a/>");
    const auto waits = [&] { // for a time that is rounded up
        return Qorctl({"set-policy", "--wait", "--timeout", "1", "-"}, "<a/>").exitCode == 0;
    };
    EXPECT_TRUE(WaitUntil(waits));
    Expect(1, "there is no policy 77777777777", "restore 77777777777");
    EXPECT_EQ(Json({"status", "--json"})["since_start"]["refused"], 2);
}

TEST_F(CommandLine, StrangeServicesAreNotBelieved)
{
    RawPeer service;
    ASSERT_TRUE(service.OwnName(SERVICE_NAME));
    Expect(2, "does not offer com.norvane.qor.Policy1", "status");
    Expect(2, "does not offer com.norvane.qor.Policy1", "get-policy");
    service.AnswerMethodsUsing(
        [](const std::string& method)
        {
            return g_variant_new_parsed(
                method == "GetAll"         ? "({'PolicySha256': <['a']>, 'PolicySetAt': <-1>, "
                                             "'PolicySetBy': <{'user': <'\033[31mred'>}>, "
                                             "'LastEvent': <{'missed': <7>, 'at': <@t "
                                             "18446744073709551615>}>, 'Version': <(1.5, 'x')>, "
                                             "'PolicyFile': <'here/policy.xml'>},)"
                : method == "ListPolicies" ? "([{'number': <'one'>}],)"
                                           : "(@aa{sv} [{'types': <{'a': <1>}>}, {}],)");
        });
    for (const std::string line : {"status", "history", "clients", "info"})
    {
        Expect(0, "", line);
    }
    boost::filesystem::create_directory(m_directory.Path("here"));
    WriteFile(m_directory.Path("here/policy.xml"), ""); // another one
    Expect(0, "here/policy.xml (unknown whether there is one)", "info");
    Expect(0, "in the folder that the service was started in", "info");
    EXPECT_EQ(Qorctl({"status"}).out.find('\033'), std::string::npos);
    Expect(3, "does not tell whether it is healthy", "status --check");
    Expect(3, "cannot be read", "get-policy");
    Expect(3, "cannot be read", "restore 1");
    service.AnswerMethodsUsing([](const std::string&) { return g_variant_new_tuple(nullptr, 0); });
    Expect(3, "cannot be read", "status");
    service.AnswerMethodsUsing([](const std::string&) -> GVariant* { return nullptr; });
    Expect(1, "refused policy 1: test", "restore 1");
}
