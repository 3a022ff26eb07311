// Runs qord and qorctl on a bus of the test's own.
#include "ToolRunner.h"

#include "RawPeer.h"

namespace qortest
{

std::unique_ptr<PrivateBus> ToolTest::m_pBus;

Outcome RunTool(const std::string& program, const Arguments& arguments,
                const ChildProcess::Options& options)
{
    const auto process = StartTool(program, arguments, options);
    const int exitCode = process->Wait();
    return {exitCode, process->Out(), process->Err()};
}

Outcome Qorctl(const Arguments& arguments, const std::string& input)
{
    ChildProcess::Options options;
    options.input = input;
    return RunTool(QORCTL, arguments, options);
}

std::unique_ptr<ChildProcess> StartTool(const std::string& program, const Arguments& arguments,
                                        const ChildProcess::Options& options)
{
    Arguments command = {program};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<ChildProcess>(command, options);
}

std::size_t CountOf(const std::string& text, const std::string& part)
{
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
    {
        ++count;
    }
    return count;
}

void ToolTest::SetUpTestSuite()
{
    m_pBus = std::make_unique<PrivateBus>();
}

void ToolTest::TearDownTestSuite()
{
    m_pBus.reset();
}

std::unique_ptr<ChildProcess> ToolTest::StartQord(Arguments arguments)
{
    arguments.insert(arguments.begin(), {"--policy", m_policyFile});
    auto qord = StartTool(QORD, arguments);
    EXPECT_TRUE(qord->WaitForOut("qord: ready")) << qord->Err();
    return qord;
}

std::unique_ptr<ChildProcess> ToolTest::StartQuietQord(const Arguments& arguments)
{
    auto qord = StartQord(arguments);
    EXPECT_TRUE(qord->WaitForOut("qord: event policy-update: 0 delivered")) << qord->Err();
    return qord;
}

std::unique_ptr<ChildProcess> ToolTest::StartListener(Arguments arguments)
{
    arguments.insert(arguments.begin(), "listen");
    auto listener = StartTool(QORCTL, arguments);
    EXPECT_TRUE(listener->WaitForOut("registered")) << listener->Err();
    SyncWithService();
    return listener;
}

void ToolTest::Expect(int exitCode, const std::string& words, const std::string& line,
                      const std::string& program)
{
    m_options.workingDirectory = m_directory.Path();
    const Outcome outcome = RunTool("bash", {"-c", "'" + program + "' " + line}, m_options);
    const std::string said = outcome.out + outcome.err;
    EXPECT_EQ(outcome.exitCode, exitCode) << line;
    EXPECT_NE(said.find(words), std::string::npos) << line << '\n' << said;
}

void ToolTest::SyncWithService()
{
    constexpr int unknownType = 99;
    EXPECT_TRUE(RawPeer().Call(SERVICE_NAME, SERVICE_PATH, "Send", Request(unknownType, false)).ok);
}

} // namespace qortest
