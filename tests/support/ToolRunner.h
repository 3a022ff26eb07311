// Runs qord and qorctl on a bus of the test's own.
#ifndef QORTEST_TOOLRUNNER_H
#define QORTEST_TOOLRUNNER_H

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "PrivateBus.h"

namespace qortest
{

using Arguments = std::vector<std::string>;

struct Outcome
{
    int exitCode = -1;
    std::string out;
    std::string err;
};

Outcome RunTool(const std::string& program, const Arguments& arguments,
                const ChildProcess::Options& options = {});
Outcome Qorctl(const Arguments& arguments, const std::string& input = "");

std::unique_ptr<ChildProcess> StartTool(const std::string& program, const Arguments& arguments,
                                        const ChildProcess::Options& options = {});

std::size_t CountOf(const std::string& text, const std::string& part);

/// A bus for the whole suite, since a process keeps its connection; a policy file for each test.
class ToolTest : public testing::Test
{
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();

    /// Starts qord and waits until it is ready.
    std::unique_ptr<ChildProcess> StartQord(Arguments arguments = {});

    /// The same, and waits for the announcement that follows each start, for who counts events.
    std::unique_ptr<ChildProcess> StartQuietQord(const Arguments& arguments = {});

    /// Waits until the service has handled whatever has been sent to it before. A signal to the
    /// service is not sent through the bus, and would overtake that.
    static void SyncWithService();

    /// Starts a listener and waits until the service will call it.
    static std::unique_ptr<ChildProcess> StartListener(Arguments arguments = {});

    /// Runs a command line in the test's directory, and expects words in what it says.
    void Expect(int exitCode, const std::string& words, const std::string& line = "set-policy -",
                const std::string& program = QORCTL);

    std::string StoredPolicy() const
    {
        return ReadFile(m_policyFile);
    }

    static std::unique_ptr<PrivateBus> m_pBus;
    TemporaryDirectory m_directory;
    std::string m_policyFile = m_directory.Path("policy.xml");
    ChildProcess::Options m_options;
};

} // namespace qortest

#endif
