// Runs qord and qorctl on a bus of the test's own.
#ifndef QORTEST_TOOLRUNNER_H
#define QORTEST_TOOLRUNNER_H

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "PrivateBus.h"
#include "RawPeer.h"

namespace qortest
{

using Arguments = std::vector<std::string>;

struct Outcome
{
    int exitCode = -1;
    std::string out;
    std::string err;
};

inline std::unique_ptr<ChildProcess> StartTool(const std::string& program,
                                               const Arguments& arguments,
                                               const ChildProcess::Options& options = {})
{
    Arguments command = {program};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<ChildProcess>(command, options);
}

inline Outcome RunTool(const std::string& program, const Arguments& arguments,
                       const ChildProcess::Options& options = {})
{
    const auto process = StartTool(program, arguments, options);
    const int exitCode = process->Wait();
    return {exitCode, process->Out(), process->Err()};
}

inline Outcome Qorctl(const Arguments& arguments, const std::string& input = "")
{
    ChildProcess::Options options;
    options.input = input;
    return RunTool(QORCTL, arguments, options);
}

/// A bus for the whole suite, since a process keeps its connection; a policy file for each test.
class ToolTest : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        m_pBus = std::make_unique<PrivateBus>();
    }
    static void TearDownTestSuite()
    {
        m_pBus.reset();
    }

    /// Starts qord and waits until it is ready.
    std::unique_ptr<ChildProcess> StartQord(Arguments arguments = {})
    {
        arguments.insert(arguments.begin(), {"--policy", m_policyFile});
        auto qord = StartTool(QORD, arguments);
        EXPECT_TRUE(qord->WaitForOut("qord: ready")) << qord->Err();
        return qord;
    }

    /// The same, and waits for the announcement that follows each start, for who counts events.
    std::unique_ptr<ChildProcess> StartQuietQord(const Arguments& arguments = {})
    {
        auto qord = StartQord(arguments);
        EXPECT_TRUE(qord->WaitForOut("qord: event policy-update: 0 delivered")) << qord->Err();
        return qord;
    }

    /// Waits until the service has handled whatever has been sent to it before. A signal to the
    /// service is not sent through the bus, and would overtake that.
    static void SyncWithService()
    {
        constexpr int unknownType = 99;
        EXPECT_TRUE(
            RawPeer().Call(SERVICE_NAME, SERVICE_PATH, "Send", Request(unknownType, false)).ok);
    }

    /// Starts a listener and waits until the service will call it.
    static std::unique_ptr<ChildProcess> StartListener(Arguments arguments = {})
    {
        arguments.insert(arguments.begin(), "listen");
        auto listener = StartTool(QORCTL, arguments);
        EXPECT_TRUE(listener->WaitForOut("registered")) << listener->Err();
        SyncWithService();
        return listener;
    }

    /// Runs a command line in the test's directory, and expects words in what it says.
    void Expect(int exitCode, const std::string& words, const std::string& line = "set-policy -",
                const std::string& program = QORCTL)
    {
        m_options.workingDirectory = m_directory.Path();
        const Outcome outcome = RunTool("bash", {"-c", "'" + program + "' " + line}, m_options);
        const std::string said = outcome.out + outcome.err;
        EXPECT_EQ(outcome.exitCode, exitCode) << line;
        EXPECT_NE(said.find(words), std::string::npos) << line << '\n' << said;
    }

    std::string StoredPolicy() const
    {
        return ReadFile(m_policyFile);
    }

    inline static std::unique_ptr<PrivateBus> m_pBus;
    TemporaryDirectory m_directory;
    std::string m_policyFile = m_directory.Path("policy.xml");
    ChildProcess::Options m_options;
};

} // namespace qortest

#endif
